// Machine reset: the fixed layout every player starts in.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "engine/call.h"
#include "hardware/bus.h"
#include "support/test_support.h"

namespace {

struct stub {
    uint32_t addr;
    uint16_t trap;
};

// Every trap stub reset writes: the line-A word, then rts.
const stub kTrapStubs[] = {
    {0xF80000 - 198, 0xA000}, {0xF80000 - 210, 0xA001}, {0xF80000 - 552, 0xA002}, {0xF80000 - 408, 0xA002},
    {0xF80000 - 414, 0xA003}, {0xF80000 - 534, 0xA004}, {0xF80000 - 498, 0xA005}, {0xF80000 - 168, 0xA006},
    {0xF80000 - 162, 0xA007}, {0xF80000 - 180, 0xA008}, {0xF81000 - 30, 0xA100},  {0xF81000 - 36, 0xA101},
    {0xF81000 - 42, 0xA102},  {0xF81000 - 66, 0xA103},  {0xF81000 - 84, 0xA104},  {0xF81000 - 90, 0xA105},
    {0xF81000 - 150, 0xA106}, {0xF81000 - 156, 0xA107}, {0xF84000 - 24, 0xA800},  {0xF86000 - 6, 0xA601},
    {0xF86000 - 12, 0xA602},  {0xF86000 - 18, 0xA603},  {0xF86000 - 24, 0xA604},  {0xF87000 - 6, 0xA701},
    {0xF87000 - 12, 0xA702},  {0xF87000 - 18, 0xA703},  {0xF87000 - 24, 0xA704},
};

bool is_trap(uint32_t addr) {
    for (const stub &s : kTrapStubs)
        if (s.addr == addr) return true;
    return false;
}

TEST(Reset, LibraryTablesAndStubs) {
    auto k = make_engine();
    kelva *e = k.get();
    EXPECT_EQ(ram_get32(e, 4), 0x00F80000u);
    for (const stub &s : kTrapStubs) {
        EXPECT_EQ(ram_get16(e, s.addr), s.trap) << std::hex << s.addr;
        EXPECT_EQ(ram_get16(e, s.addr + 2), 0x4E75u) << std::hex << s.addr;
    }
    // Default stubs (moveq #0,d0; rts) in every other slot of each library,
    // and nothing below the last slot.
    struct table {
        uint32_t base, entries;
    } tables[] = {{0xF80000, 200}, {0xF81000, 80}, {0xF82000, 120}, {0xF83000, 120}, {0xF84000, 40}};
    for (const table &t : tables) {
        for (uint32_t i = 1; i <= t.entries; i++) {
            uint32_t a = t.base - 6 * i;
            if (is_trap(a)) continue;
            ASSERT_EQ(ram_get32(e, a), 0x70004E75u) << std::hex << a;
        }
        EXPECT_NE(ram_get32(e, t.base - 6 * t.entries - 6), 0x70004E75u) << std::hex << t.base;
    }
    // The catch-all table below the globals: 500 entries of $A500.
    for (uint32_t i = 1; i <= 500; i++) ASSERT_EQ(ram_get32(e, 0xF90000 - 6 * i), 0xA5004E75u) << i;
    EXPECT_EQ(ram_get32(e, 0xF90000 - 3006), 0u);
    // Support-function stubs and their pointers in the globals.
    for (uint32_t i = 0; i <= 32; i++) {
        EXPECT_EQ(ram_get32(e, 0xF90038 + 4 * i), 0xF95000 + 4 * i);
        EXPECT_EQ(ram_get16(e, 0xF95000 + 4 * i), 0xA400 + i);
        EXPECT_EQ(ram_get16(e, 0xF95002 + 4 * i), 0x4E75u);
    }
    EXPECT_EQ(ram_get32(e, 0xF900B8), 0x00F95080u);
    EXPECT_EQ(ram_get16(e, 0xF95080), 0xA420u);
    EXPECT_EQ(e->ram[0xF80212], 50);
    EXPECT_EQ(e->ram[0xF80213], 50);
}

TEST(Reset, PlayerGlobals) {
    auto k = make_engine();
    kelva *e = k.get();
    EXPECT_EQ(ram_get32(e, 0xF90004), 0x00F81000u);
    EXPECT_EQ(ram_get32(e, 0xF90008), 0x00F82000u);
    EXPECT_EQ(ram_get32(e, 0xF9000C), 0x00F83000u);
    for (uint32_t off = 24; off <= 40; off += 4) EXPECT_EQ(ram_get32(e, 0xF90000 + off), 0u) << off;
    EXPECT_EQ(ram_get16(e, 0xF9002C), 0u);
    EXPECT_EQ(ram_get16(e, 0xF9002E), 64u);
    EXPECT_EQ(ram_get16(e, 0xF90030), 64u);
    EXPECT_EQ(ram_get16(e, 0xF90032), 64u);
    EXPECT_EQ(ram_get16(e, 0xF90034), 0u);
    EXPECT_EQ(ram_get16(e, 0xF90036), 14188u);
    EXPECT_EQ(ram_get16(e, 0xF90146), 0x000Fu);
    for (uint32_t v = 0; v < 4; v++) EXPECT_EQ(ram_get16(e, 0xF90148 + 2 * v), 64u);
}

int null_loader(void *, const char *, uint8_t **, uint32_t *) { return 0; }

TEST(Reset, ClearsThePreviousPlayer) {
    auto k = make_engine(44100);
    kelva *e = k.get();
    EXPECT_EQ(e->mix.frame_ticks, 882);
    EXPECT_EQ(e->dmacon & 0x0200, 0x0200);   // DMA master on
    EXPECT_EQ(e->dmacon & 0x000F, 0);        // no channel running

    // Dirty everything a player and a host can touch, then reset.
    kelva_set_file_loader(e, null_loader, nullptr);
    kelva_set_separation(e, 0.25f);
    kelva_set_model(e, 1);
    kelva_set_led_filter(e, 1);
    e->ram[0x123456] = 1;
    e->alloc_ptr = 0x500000;
    e->routines[DELI_INITPLAYER] = 0x200010;
    e->int_vectors[5] = 0x200100;
    e->pending_count = 3;
    e->subsong_count = 7;
    e->requested_subsong = 3;
    e->song_end_frame = 99;
    e->played_frames = 1000;
    e->comp_count = 4;
    e->comp_next = 0x50000;
    strcpy(e->epopt, "type:pt30");
    e->scratch[100] = 5;
    e->files[2].data = static_cast<uint8_t *>(malloc(16));
    e->files[2].size = 16;
    custom_write_word(e, 0xDFF096, 0x8001);
    e->mix.rc_state[0] = 0.5;

    kelva_reset(e, 48000);
    EXPECT_EQ(e->ram[0x123456], 0);
    EXPECT_EQ(e->rate, 48000);
    EXPECT_EQ(e->mix.frame_ticks, 960);
    EXPECT_EQ(e->loader, null_loader);   // the loader survives
    EXPECT_EQ(e->separation, 1.0f);
    EXPECT_EQ(e->model, 0u);
    EXPECT_EQ(e->mix.model, 0u);
    EXPECT_EQ(e->led_mode, 0u);
    EXPECT_EQ(e->mix.led_on, 1u);
    EXPECT_EQ(e->alloc_ptr, 0x400000u);
    EXPECT_EQ(e->routines[DELI_INITPLAYER], 0u);
    EXPECT_EQ(e->int_vectors[5], 0u);
    EXPECT_EQ(e->pending_count, 0u);
    EXPECT_EQ(e->subsong_count, 1u);
    EXPECT_EQ(e->requested_subsong, 0);
    EXPECT_EQ(e->song_end_frame, 0u);
    EXPECT_EQ(e->played_frames, 0u);
    EXPECT_EQ(e->comp_count, 0u);
    EXPECT_EQ(e->comp_next, 0x010000u);
    EXPECT_EQ(e->epopt[0], 0);
    EXPECT_EQ(e->scratch[100], 0);
    EXPECT_EQ(e->files[2].data, nullptr);
    EXPECT_EQ(e->dmacon, 0x0200);
    EXPECT_EQ(e->aud[0].dma_running, 0);
    EXPECT_EQ(e->mix.rc_state[0], 0.0);
}

TEST(Reset, DefaultLoaderInstalledWhenNone) {
    auto k = make_engine();
    kelva *e = k.get();
    EXPECT_NE(e->loader, nullptr);
    e->loader = nullptr;
    kelva_reset(e, 48000);
    EXPECT_NE(e->loader, nullptr);
}

}  // namespace
