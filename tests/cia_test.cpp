// CIA timers in output frames, the ICR, time of day, the ports and the LED
// line, and the underflow bookkeeping the render loop relies on. A timer
// with latch L runs L + 1 E-clock ticks of 1/709379 s.
#include <gtest/gtest.h>

#include "hardware/bus.h"
#include "support/test_support.h"

namespace {

// CIA-A and CIA-B register addresses (register n at base + n * $100).
constexpr uint32_t CIAA = 0xBFE001, CIAB = 0xBFD000;
constexpr uint32_t PRA = 0x000, PRB = 0x100, DDRA = 0x200, TALO = 0x400, TAHI = 0x500, TBLO = 0x600,
                   TBHI = 0x700, TODLO = 0x800, TODMID = 0x900, TODHI = 0xA00, SDR = 0xC00, ICR = 0xD00,
                   CRA = 0xE00, CRB = 0xF00;

struct Cia : testing::Test {
    engine_ptr e = make_engine(48000);
    kelva *k = e.get();
    void wr(uint32_t cia, uint32_t reg, uint32_t v) { write8(k, cia + reg, v); }
    uint32_t rd(uint32_t cia, uint32_t reg) { return read8(k, cia + reg); }
    static double frames(uint32_t latch) { return (latch + 1.0) * 48000 / 709379; }
};

TEST_F(Cia, LatchControlRegisterAndOneShot) {
    for (const cia_state &c : k->cia) EXPECT_TRUE(c.ta_period == 1.0 && c.tb_left == 1.0 && !c.ta_running);
    EXPECT_EQ(cia_frames_to_event(k), 0);
    wr(CIAA, TALO, 0x6B);
    EXPECT_EQ(k->cia[0].ta_latch, 0x006B);
    EXPECT_EQ(k->cia[0].ta_period, 1.0);   // TALO alone changes nothing else
    wr(CIAA, TAHI, 0x37);
    EXPECT_NEAR(k->cia[0].ta_period, frames(0x376B), 1e-9);
    EXPECT_EQ(k->cia[0].ta_left, k->cia[0].ta_period);   // stopped: reloaded
    EXPECT_FALSE(k->cia[0].ta_running);                 // continuous: not started
    wr(CIAB, TBHI, 0);
    EXPECT_EQ(k->cia[1].tb_period, 1.0);   // one frame at the least

    wr(CIAA, TALO, 0x00);
    wr(CIAA, TAHI, 0x10);
    wr(CIAA, CRA, 0x01);   // start: loads the counter
    cia_advance(k, 10);
    double left = k->cia[0].ta_left;
    EXPECT_NEAR(left, frames(0x1000) - 10, 1e-9);
    // Timer reads count down in E-clock ticks.
    EXPECT_EQ(rd(CIAA, TAHI) << 8 | rd(CIAA, TALO), uint32_t(709379.0 * left / 48000));
    wr(CIAA, CRA, 0x01);   // already running: no reload
    EXPECT_EQ(k->cia[0].ta_left, left);
    wr(CIAA, CRA, 0x11);   // LOAD strobe: reload, and LOAD is not stored
    EXPECT_NEAR(k->cia[0].ta_left, frames(0x1000), 1e-9);
    EXPECT_EQ(rd(CIAA, CRA), 0x01u);
    wr(CIAA, CRA, 0x60);   // stop; the other bits are stored
    EXPECT_FALSE(k->cia[0].ta_running);
    EXPECT_EQ(rd(CIAA, CRA), 0x60u);
    wr(CIAB, CRB, 0x61);   // CRB: the input mode bits are stored only
    EXPECT_TRUE(k->cia[1].tb_running);
    EXPECT_EQ(rd(CIAB, CRB), 0x61u);
    wr(CIAB, CRB, 0x00);
    EXPECT_EQ(rd(CIAB, TBLO), 14u);   // an unloaded timer: 1 frame = 14.78 ticks

    // One-shot: the high byte starts it; the underflow stops and reloads it.
    wr(CIAB, CRB, 0x08);
    EXPECT_FALSE(k->cia[1].tb_running);
    wr(CIAB, TBLO, 0xFF);
    wr(CIAB, TBHI, 0x01);
    EXPECT_TRUE(k->cia[1].tb_running);
    EXPECT_EQ(cia_frames_to_event(k), 35);   // 512 ticks = 34.6 frames
    k->cia[1].handlers[1] = 0x2000;
    wr(CIAB, ICR, 0x82);
    cia_advance(k, 40);
    EXPECT_EQ(k->cia[1].crb, 0x08);
    EXPECT_FALSE(k->cia[1].tb_running);
    EXPECT_NEAR(k->cia[1].tb_left, frames(0x1FF), 1e-9);
    ASSERT_EQ(k->pending_count, 1u);
    EXPECT_EQ(k->pending[0], 0x2000u);
    EXPECT_EQ(cia_frames_to_event(k), 0);
}

TEST_F(Cia, UnderflowsQueueMaskedHandlersInOrderAtMostEight) {
    // ICR writes set or clear mask bits (bit 7 is never stored); a read gives
    // the flags, IR (bit 7) when an enabled one is set, and clears them.
    for (auto [write, mask] : {std::pair{0x82, 0x02}, {0x9F, 0x1F}, {0x02, 0x1D}}) {
        wr(CIAA, ICR, uint32_t(write));
        EXPECT_EQ(k->cia[0].icr_mask, mask);
    }
    for (auto [flags, read] : {std::pair{0x03, 0x83u}, {0x00, 0x00u}, {0x02, 0x02u}}) {   // 0x02: TB is disabled
        k->cia[0].icr_data = uint8_t(flags);
        EXPECT_EQ(rd(CIAA, ICR), read);
        EXPECT_EQ(k->cia[0].icr_data, 0);
    }
    wr(CIAB, TALO, 0x00);
    wr(CIAB, TAHI, 0x01);
    wr(CIAB, CRA, 0x01);
    EXPECT_EQ(cia_frames_to_event(k), 18);   // 17.4 frames
    cia_advance(k, 17);
    EXPECT_EQ(k->cia[1].icr_data, 0);
    cia_advance(k, 1);
    EXPECT_EQ(k->cia[1].icr_data, 0x01);   // flagged, but no handler: not queued
    EXPECT_EQ(k->pending_count, 0u);
    EXPECT_NEAR(k->cia[1].ta_left, 2 * frames(0x100) - 18, 1e-9);
    k->cia[1].handlers[0] = 0x4000;   // a handler without the mask bit
    cia_advance(k, 20);
    EXPECT_EQ(k->pending_count, 0u);
    wr(CIAB, ICR, 0x81);
    cia_advance(k, 20);
    EXPECT_EQ(k->pending_count, 1u);
    // CIA-A timer B at latch 0 underflows every frame (reaching exactly 0
    // counts); CIA-A comes before CIA-B, and eight at most are queued.
    k->pending_count = 0;
    k->cia[0].handlers[1] = 0x5000;
    wr(CIAA, ICR, 0x82);
    wr(CIAA, TBHI, 0);
    wr(CIAA, CRB, 0x01);
    cia_advance(k, 1);
    EXPECT_EQ(k->pending_count, 1u);
    EXPECT_EQ(k->cia[0].tb_left, 1.0);
    cia_advance(k, 17);
    ASSERT_EQ(k->pending_count, 8u);
    for (uint32_t p : k->pending) EXPECT_EQ(p, 0x5000u);
    EXPECT_TRUE(k->cia[0].tb_running);
}

// Time of day: CIA-A counts 50 Hz frames (141,875 cycles), CIA-B lines
// (454); 24 bits; writes are ignored. The ports are plain storage; SDR and
// register $B read 0. CIA-A port A bit 1 high turns the LED filter off, in
// Auto mode (0) only; modes 1 (off) and 2 (on) force it, Auto keeps the
// state until the next write; setting an unknown mode changes nothing.
TEST_F(Cia, TimeOfDayPortsAndTheLedLine) {
    k->cycles = 141875ull * 0x123456 + 5;
    for (auto [reg, v] : {std::pair{TODLO, 0x56u}, {TODMID, 0x34u}, {TODHI, 0x12u}}) EXPECT_EQ(rd(CIAA, reg), v);
    k->cycles = 454ull * 0x1ABCDEF;
    EXPECT_EQ(rd(CIAB, TODHI), 0xABu);
    wr(CIAB, TODLO, 0x11);
    EXPECT_EQ(rd(CIAB, TODLO), 0xEFu);
    wr(CIAA, PRB, 0x5A);
    wr(CIAA, DDRA, 0x03);
    wr(CIAA, SDR, 0x77);
    EXPECT_EQ(rd(CIAA, PRB) << 16 | rd(CIAA, DDRA) << 8 | rd(CIAA, SDR) | rd(CIAA, 0xB00), 0x5A0300u);

    const struct {
        int mode;   // -1: no mode change
        uint32_t cia, pra, led_on;
    } steps[] = {{-1, CIAA, 0x02, 0}, {-1, CIAA, 0xFD, 1}, {-1, CIAB, 0x02, 1}, {1, CIAA, 0x00, 0},
                 {2, CIAA, 0x02, 1},  {7, CIAB, 0x02, 1}, {0, CIAA, 0x02, 0}};   // 7: unknown, no change
    EXPECT_EQ(k->mix.led_on, 1u);
    for (const auto &s : steps) {
        if (s.mode >= 0) kelva_set_led_filter(k, uint32_t(s.mode));
        EXPECT_TRUE(s.mode != 0 || k->mix.led_on == 1u);   // Auto: no change yet
        wr(s.cia, PRA, s.pra);
        EXPECT_EQ(k->mix.led_on, s.led_on) << s.mode << " " << s.pra;
    }
    EXPECT_EQ(rd(CIAA, PRA), 0x02u);
}

}  // namespace
