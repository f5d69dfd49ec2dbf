// CIA timers in output frames, the ICR, time of day, the ports and the LED
// line, and the underflow bookkeeping the render loop relies on.
#include <gtest/gtest.h>

#include "hardware/bus.h"
#include "support/test_support.h"

namespace {

// CIA-A and CIA-B register addresses (register n at base + n * $100).
constexpr uint32_t CIAA = 0xBFE001, CIAB = 0xBFD000;
constexpr uint32_t PRA = 0x000, PRB = 0x100, DDRA = 0x200, TALO = 0x400, TAHI = 0x500, TBLO = 0x600,
                   TBHI = 0x700, TODLO = 0x800, TODMID = 0x900, TODHI = 0xA00, SDR = 0xC00, ICR = 0xD00,
                   CRA = 0xE00, CRB = 0xF00;

void wr(kelva *k, uint32_t cia, uint32_t reg, uint32_t v) { write8(k, cia + reg, v); }
uint32_t rd(kelva *k, uint32_t cia, uint32_t reg) { return read8(k, cia + reg); }

TEST(Cia, ResetState) {
    auto e = make_engine(44100);
    for (const cia_state &c : e->cia) {
        EXPECT_EQ(c.ta_period, 1.0);
        EXPECT_EQ(c.tb_left, 1.0);
        EXPECT_FALSE(c.ta_running);
        for (uint32_t h : c.handlers) EXPECT_EQ(h, 0u);
    }
    EXPECT_EQ(cia_frames_to_event(e.get()), 0);
}

TEST(Cia, PeriodFollowsTheHighByteOfTheLatch) {
    auto e = make_engine(44100);
    kelva *k = e.get();
    wr(k, CIAA, TALO, 0x6B);
    EXPECT_EQ(k->cia[0].ta_latch, 0x006B);
    EXPECT_EQ(k->cia[0].ta_period, 1.0);   // TALO alone changes nothing else
    wr(k, CIAA, TAHI, 0x37);
    EXPECT_EQ(k->cia[0].ta_latch, 0x376B);
    EXPECT_NEAR(k->cia[0].ta_period, 14188.0 * 44100 / 709379, 1e-9);
    EXPECT_NEAR(k->cia[0].ta_period, 882.03, 0.01);
    EXPECT_EQ(k->cia[0].ta_left, k->cia[0].ta_period);   // stopped: reloaded
    EXPECT_FALSE(k->cia[0].ta_running);                 // continuous: not started
    // Latch 0 is one frame at the least.
    wr(k, CIAB, TBLO, 0);
    wr(k, CIAB, TBHI, 0);
    EXPECT_EQ(k->cia[1].tb_period, 1.0);
}

TEST(Cia, OneShotTimerStartsOnTheHighByteAndStopsAtUnderflow) {
    auto e = make_engine(48000);
    kelva *k = e.get();
    wr(k, CIAB, CRB, 0x08);   // RUNMODE one-shot, not started
    EXPECT_FALSE(k->cia[1].tb_running);
    wr(k, CIAB, TBLO, 0xFF);
    wr(k, CIAB, TBHI, 0x01);   // 512 E-clocks
    EXPECT_TRUE(k->cia[1].tb_running);
    double period = 512.0 * 48000 / 709379;
    EXPECT_NEAR(k->cia[1].tb_left, period, 1e-9);
    EXPECT_EQ(cia_frames_to_event(k), int32_t(period + 0.999999));
    k->cia[1].handlers[1] = 0x2000;
    wr(k, CIAB, ICR, 0x82);
    cia_advance(k, 40);
    EXPECT_FALSE(k->cia[1].tb_running);
    EXPECT_EQ(k->cia[1].crb & 1, 0);
    EXPECT_EQ(k->cia[1].crb, 0x08);
    EXPECT_NEAR(k->cia[1].tb_left, period, 1e-9);
    ASSERT_EQ(k->pending_count, 1u);
    EXPECT_EQ(k->pending[0], 0x2000u);
    EXPECT_EQ(cia_frames_to_event(k), 0);
}

TEST(Cia, ControlRegisterLoadAndStart) {
    auto e = make_engine(48000);
    kelva *k = e.get();
    wr(k, CIAA, TALO, 0x00);
    wr(k, CIAA, TAHI, 0x10);
    wr(k, CIAA, CRA, 0x01);   // start: loads the counter
    EXPECT_TRUE(k->cia[0].ta_running);
    EXPECT_EQ(k->cia[0].cra, 0x01);
    cia_advance(k, 10);
    double left = k->cia[0].ta_left;
    EXPECT_NEAR(left, 4097.0 * 48000 / 709379 - 10, 1e-9);
    wr(k, CIAA, CRA, 0x01);   // already running: no reload
    EXPECT_EQ(k->cia[0].ta_left, left);
    wr(k, CIAA, CRA, 0x11);   // LOAD strobe: reload, and LOAD is not stored
    EXPECT_NEAR(k->cia[0].ta_left, 4097.0 * 48000 / 709379, 1e-9);
    EXPECT_EQ(k->cia[0].cra, 0x01);
    EXPECT_EQ(rd(k, CIAA, CRA), 0x01u);
    wr(k, CIAA, CRA, 0x60);   // stop; the other bits are stored
    EXPECT_FALSE(k->cia[0].ta_running);
    EXPECT_EQ(rd(k, CIAA, CRA), 0x60u);
    wr(k, CIAB, CRB, 0x61);   // CRB: input mode bits stored only
    EXPECT_TRUE(k->cia[1].tb_running);
    EXPECT_EQ(rd(k, CIAB, CRB), 0x61u);
}

TEST(Cia, TimerReadsCountDownInEClockTicks) {
    auto e = make_engine(48000);
    kelva *k = e.get();
    wr(k, CIAA, TALO, 0x34);
    wr(k, CIAA, TAHI, 0x12);
    wr(k, CIAA, CRA, 0x01);
    // A fresh counter reads back the latch + 1 ticks worth, truncated.
    uint32_t t = rd(k, CIAA, TAHI) << 8 | rd(k, CIAA, TALO);
    EXPECT_NEAR(double(t), 0x1235, 1.0);
    cia_advance(k, 20);
    t = rd(k, CIAA, TAHI) << 8 | rd(k, CIAA, TALO);
    EXPECT_EQ(t, uint32_t(709379.0 * k->cia[0].ta_left / 48000));
    EXPECT_EQ(rd(k, CIAB, TBLO), 14u);   // left 1.0 frame = 14.78 ticks
}

TEST(Cia, IcrMaskSetClearAndReadClearsFlags) {
    auto e = make_engine(48000);
    kelva *k = e.get();
    wr(k, CIAA, ICR, 0x82);
    EXPECT_EQ(k->cia[0].icr_mask, 0x02);
    wr(k, CIAA, ICR, 0x9F);
    EXPECT_EQ(k->cia[0].icr_mask, 0x1F);   // bit 7 itself is never stored
    wr(k, CIAA, ICR, 0x02);
    EXPECT_EQ(k->cia[0].icr_mask, 0x1D);
    k->cia[0].icr_data = 0x03;
    EXPECT_EQ(rd(k, CIAA, ICR), 0x83u);   // IR: TA is enabled and set
    EXPECT_EQ(rd(k, CIAA, ICR), 0x00u);
    k->cia[0].icr_data = 0x02;   // TB set but disabled: no IR
    EXPECT_EQ(rd(k, CIAA, ICR), 0x02u);
}

TEST(Cia, ContinuousTimerQueuesAtMostEightHandlers) {
    auto e = make_engine(44100);
    kelva *k = e.get();
    // Latch 0: a period of max(1, 44100/709379) = 1 frame.
    wr(k, CIAA, TALO, 0);
    wr(k, CIAA, TAHI, 0);
    wr(k, CIAA, CRA, 0x01);
    EXPECT_EQ(k->cia[0].ta_period, 1.0);
    k->cia[0].handlers[0] = 0x3000;
    wr(k, CIAA, ICR, 0x81);
    EXPECT_EQ(cia_frames_to_event(k), 1);
    cia_advance(k, 1);    // reaching exactly 0 is an underflow
    EXPECT_EQ(k->pending_count, 1u);
    EXPECT_EQ(k->cia[0].ta_left, 1.0);
    k->pending_count = 0;
    cia_advance(k, 10);   // ten underflows, eight queued
    EXPECT_EQ(k->pending_count, 8u);
    for (uint32_t p : k->pending) EXPECT_EQ(p, 0x3000u);
    EXPECT_TRUE(k->cia[0].ta_running);
    EXPECT_EQ(k->cia[0].ta_left, 1.0);
    EXPECT_EQ(k->cia[0].icr_data, 0x01);
}

TEST(Cia, UnderflowNeedsMaskAndHandlerToQueue) {
    auto e = make_engine(48000);
    kelva *k = e.get();
    wr(k, CIAB, TALO, 0x00);
    wr(k, CIAB, TAHI, 0x01);
    wr(k, CIAB, CRA, 0x01);
    double period = 257.0 * 48000 / 709379;   // about 17.4 frames
    int32_t f = cia_frames_to_event(k);
    EXPECT_EQ(f, 18);
    cia_advance(k, f - 1);
    EXPECT_EQ(k->cia[1].icr_data, 0);
    cia_advance(k, 1);
    EXPECT_EQ(k->cia[1].icr_data, 0x01);   // flagged, but no handler: not queued
    EXPECT_EQ(k->pending_count, 0u);
    EXPECT_NEAR(k->cia[1].ta_left, 2 * period - 18, 1e-9);
    k->cia[1].handlers[0] = 0x4000;   // handler without the mask bit
    cia_advance(k, 20);
    EXPECT_EQ(k->pending_count, 0u);
    wr(k, CIAB, ICR, 0x81);
    cia_advance(k, 20);
    EXPECT_EQ(k->pending_count, 1u);
    // Timers of both CIAs, A before B, queue in that order.
    k->pending_count = 0;
    k->cia[0].handlers[1] = 0x5000;
    wr(k, CIAA, ICR, 0x82);
    wr(k, CIAA, TBLO, 0);
    wr(k, CIAA, TBHI, 0);
    wr(k, CIAA, CRB, 0x01);
    cia_advance(k, 18);
    ASSERT_EQ(k->pending_count, 8u);   // CIA-B's timer A came too late
    EXPECT_EQ(k->pending[0], 0x5000u);
}

TEST(Cia, TimeOfDayPortsAndUnusedRegisters) {
    auto e = make_engine(48000);
    kelva *k = e.get();
    k->cycles = 141875ull * 0x123456 + 5;
    EXPECT_EQ(rd(k, CIAA, TODLO), 0x56u);
    EXPECT_EQ(rd(k, CIAA, TODMID), 0x34u);
    EXPECT_EQ(rd(k, CIAA, TODHI), 0x12u);
    k->cycles = 454ull * 0x1ABCDEF;   // masked to 24 bits
    EXPECT_EQ(rd(k, CIAB, TODHI), 0xABu);
    EXPECT_EQ(rd(k, CIAB, TODLO), 0xEFu);
    wr(k, CIAB, TODLO, 0x11);   // TOD writes are ignored
    EXPECT_EQ(rd(k, CIAB, TODLO), 0xEFu);
    wr(k, CIAA, PRB, 0x5A);
    wr(k, CIAA, DDRA, 0x03);
    EXPECT_EQ(rd(k, CIAA, PRB), 0x5Au);
    EXPECT_EQ(rd(k, CIAA, DDRA), 0x03u);
    wr(k, CIAA, SDR, 0x77);
    EXPECT_EQ(rd(k, CIAA, SDR), 0u);
    EXPECT_EQ(rd(k, CIAA, 0xB00), 0u);
}

TEST(Cia, PortABitOneDrivesTheLedFilterInAutoMode) {
    auto e = make_engine(48000);
    kelva *k = e.get();
    EXPECT_EQ(k->mix.led_on, 1u);
    wr(k, CIAA, PRA, 0x02);   // LED line high: filter off
    EXPECT_EQ(k->mix.led_on, 0u);
    EXPECT_EQ(rd(k, CIAA, PRA), 0x02u);
    wr(k, CIAA, PRA, 0xFD);
    EXPECT_EQ(k->mix.led_on, 1u);
    wr(k, CIAB, PRA, 0x02);   // CIA-B has no LED
    EXPECT_EQ(k->mix.led_on, 1u);
    kelva_set_led_filter(k, 1);
    wr(k, CIAA, PRA, 0x00);
    EXPECT_EQ(k->mix.led_on, 0u);
    kelva_set_led_filter(k, 2);
    wr(k, CIAA, PRA, 0x02);
    EXPECT_EQ(k->mix.led_on, 1u);
    kelva_set_led_filter(k, 0);   // back to Auto: the state stays until the next write
    EXPECT_EQ(k->mix.led_on, 1u);
    wr(k, CIAA, PRA, 0x02);
    EXPECT_EQ(k->mix.led_on, 0u);
}

}  // namespace
