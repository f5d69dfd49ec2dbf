// Machine reset: the fixed layout every player starts in, what a reset puts back, and the exported setters and
// getters (LED modes: custom_test.cpp).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <tuple>

#include "engine/call.h"
#include "hardware/bus.h"
#include "support/test_support.h"

namespace {

int null_loader(void *, const char *, uint8_t **, uint32_t *) { return 0; }

TEST(Reset, LibraryTablesAndGlobals) {
    auto k = make_engine();
    kelva *e = k.get();
    EXPECT_EQ(ram_get32(e, 4), 0x00F80000u);   // exec
    // Every slot of exec, dos, the two other libraries and the option library: a host call (line-A word; rts) or the
    // default moveq #0,d0; rts; nothing below the last slot.
    for (auto [base, entries] : {std::pair{0xF80000u, 200u}, {0xF81000, 80}, {0xF82000, 120}, {0xF83000, 120},
                                 {0xF84000, 40}}) {
        for (uint32_t a = base - 6 * entries; a < base; a += 6) {
            uint32_t v = ram_get32(e, a);
            ASSERT_TRUE(v == 0x70004E75u || ((v >> 28) == 0xA && (v & 0xFFFF) == 0x4E75u)) << std::hex << a;
        }
        EXPECT_NE(ram_get32(e, base - 6 * entries - 6), 0x70004E75u) << std::hex << base;
    }
    // The four calls of each CIA resource enter the host.
    for (uint32_t base : {0xF86000u, 0xF87000u})
        for (uint32_t a = base - 24; a < base; a += 6) EXPECT_EQ(ram_get32(e, a) & 0xF000FFFF, 0xA0004E75u) << a;
    // The catch-all table below the globals: 500 entries of $A500.
    for (uint32_t i = 1; i <= 500; i++) ASSERT_EQ(ram_get32(e, 0xF90000 - 6 * i), 0xA5004E75u) << i;
    EXPECT_EQ(ram_get32(e, 0xF90000 - 3006), 0u);
    // The 33 support functions: pointers at +$38 to stubs $A400 + n.
    for (uint32_t i = 0; i <= 32; i++)
        EXPECT_EQ(std::tuple(ram_get32(e, 0xF90038 + 4 * i), ram_get32(e, 0xF95000 + 4 * i)),
                  std::tuple(0xF95000 + 4 * i, (0xA400 + i) << 16 | 0x4E75u));
    EXPECT_EQ(ram_get16(e, 0xF80212), 0x3232u);   // 50 Hz vertical blank and power supply
    // Globals: library bases, empty module fields (+24..+44), volume and balances 64, the 50 Hz CIA timer value, all
    // four voices on at volume 64.
    EXPECT_EQ(std::tuple(ram_get32(e, 0xF90004), ram_get32(e, 0xF90008), ram_get32(e, 0xF9000C)),
              std::tuple(0xF81000u, 0xF82000u, 0xF83000u));
    for (uint32_t off = 24; off < 46; off += 2) EXPECT_EQ(ram_get16(e, 0xF90000 + off), 0u) << off;
    const std::pair<uint32_t, uint32_t> words[] = {{46, 64},   {48, 64},    {50, 64},    {52, 0},    {54, 14188},
                                                   {0x146, 0xF}, {0x148, 64}, {0x14A, 64}, {0x14C, 64}, {0x14E, 64}};
    for (auto [off, value] : words) EXPECT_EQ(ram_get16(e, 0xF90000 + off), value) << off;
}

TEST(Reset, ClearsThePreviousPlayer) {
    auto k = make_engine(44100);
    kelva *e = k.get();
    EXPECT_EQ(std::tuple(e->mix.frame_ticks, e->dmacon), std::tuple(882, 0x0200));   // DMA master on, no channel

    // Dirty everything a player and a host can touch, then reset.
    kelva_set_file_loader(e, null_loader, nullptr);
    kelva_set_separation(e, 0.25f);
    kelva_set_model(e, 1);
    kelva_set_led_filter(e, 1);
    e->ram[0x123456] = e->scratch[100] = 1;
    e->alloc_ptr = e->comp_next = 0x500000;
    e->routines[DELI_INITPLAYER] = e->int_vectors[5] = 0x200010;
    e->pending_count = e->subsong_count = e->comp_count = 3;
    e->requested_subsong = 3;
    e->song_end_frame = e->played_frames = 1000;
    strcpy(e->epopt, "type:pt30");
    e->files[2].data = static_cast<uint8_t *>(malloc(16));
    e->files[2].size = 16;
    custom_write_word(e, 0xDFF096, 0x8001);
    e->mix.rc_state[0] = 0.5;

    kelva_reset(e, 48000);
    // The loader survives; the open file is closed.
    EXPECT_EQ(std::tuple(e->rate, e->mix.frame_ticks, e->separation, e->model + e->mix.model + e->led_mode,
                         e->mix.led_on, e->alloc_ptr, e->comp_next, e->subsong_count, e->dmacon, e->mix.rc_state[0],
                         e->loader, e->files[2].data),
              std::tuple(48000, 960, 1.0f, 0u, 1u, 0x400000u, 0x010000u, 1u, 0x0200, 0.0, &null_loader, nullptr));
    for (uint64_t v : {uint64_t(e->ram[0x123456]), uint64_t(e->scratch[100]), uint64_t(e->routines[DELI_INITPLAYER]),
                       uint64_t(e->int_vectors[5]), uint64_t(e->pending_count), uint64_t(e->requested_subsong),
                       uint64_t(e->song_end_frame), e->played_frames, uint64_t(e->comp_count),
                       uint64_t(e->epopt[0]), uint64_t(e->aud[0].dma_running)})
        EXPECT_EQ(v, 0u);
    // Without a loader, reset installs the default one.
    e->loader = nullptr;
    kelva_reset(e, 48000);
    EXPECT_NE(e->loader, nullptr);
}

TEST(EngineApi, SettersClampAndPlayedMilliseconds) {
    auto e = make_engine();
    kelva *k = e.get();
    EXPECT_EQ(k->separation, 1.0f);
    for (auto [set, want] : {std::pair{-0.5f, 0.0f}, {7.0f, 1.0f}, {0.25f, 0.25f}, {std::nanf(""), 0.0f}}) {
        kelva_set_separation(k, set);
        EXPECT_EQ(k->separation, want) << set;
    }
    kelva_destroy(nullptr);   // ignored

    // Only model 1 is the A1200 (its 34 kHz corner passes more than 4.4 kHz).
    const double a500 = k->mix.rc_coef;
    kelva_set_model(k, 1);
    EXPECT_EQ(k->model + k->mix.model, 2u);
    EXPECT_GT(k->mix.rc_coef, a500);
    for (uint32_t m : {2u, 0u, 0xFFFFFFFFu}) {
        kelva_set_model(k, 1);
        kelva_set_model(k, m);
        EXPECT_EQ(k->model + k->mix.model, 0u) << m;
        EXPECT_EQ(k->mix.rc_coef, a500) << m;
    }
    // Rate, frames played, milliseconds; 2^40 frames do not overflow.
    const std::tuple<int32_t, uint64_t, int64_t> cases[] = {
        {48000, 48000 * 3 + 47, 3000}, {48000, 1ull << 40, int64_t((1ull << 40) * 1000 / 48000)}, {0, 1000, 0},
        {-5, 1000, 0}};
    for (auto [rate, frames, ms] : cases) {
        auto other = make_engine(rate);
        ASSERT_NE(other, nullptr);
        other->played_frames = frames;
        EXPECT_EQ(kelva_played_ms(other.get()), ms) << rate << " " << frames;
    }
}

}  // namespace
