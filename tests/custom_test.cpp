// Custom registers: SET/CLR semantics, audio DMA start/stop through DMACON,
// the forced audio bits of INTREQR, the beam position, the audio latches and
// the register trace.
#include <gtest/gtest.h>

#include "hardware/bus.h"
#include "support/test_support.h"

namespace {

constexpr uint32_t DMACON = 0xDFF096, DMACONR = 0xDFF002, INTENA = 0xDFF09A, INTENAR = 0xDFF01C;
constexpr uint32_t INTREQ = 0xDFF09C, INTREQR = 0xDFF01E, ADKCON = 0xDFF09E, ADKCONR = 0xDFF010;
constexpr uint32_t VPOSR = 0xDFF004, VHPOSR = 0xDFF006;
constexpr uint32_t AUD0LCH = 0xDFF0A0, AUD0LCL = 0xDFF0A2, AUD0LEN = 0xDFF0A4, AUD0PER = 0xDFF0A6,
                   AUD0VOL = 0xDFF0A8;

uint32_t aud(uint32_t reg0, int x) { return reg0 + 16 * uint32_t(x); }

// An engine with DMACON cleared and the four channels' latches set up.
engine_ptr engine_with_latches() {
    auto e = make_engine();
    kelva *k = e.get();
    custom_write_word(k, DMACON, 0x7FFF);
    for (int x = 0; x < 4; x++) {
        uint32_t lc = 0x20000 + 0x1000 * uint32_t(x);
        k->ram[lc] = uint8_t(10 + x);
        custom_write_word(k, aud(AUD0LCH, x), lc >> 16);
        custom_write_word(k, aud(AUD0LCL, x), lc & 0xFFFF);
        custom_write_word(k, aud(AUD0LEN, x), 8);
        custom_write_word(k, aud(AUD0PER, x), 200);
        custom_write_word(k, aud(AUD0VOL, x), 40);
    }
    return e;
}

TEST(Custom, SetClearRegistersNeverStoreBit15) {
    auto e = make_engine();
    kelva *k = e.get();
    custom_write_word(k, INTENA, 0xC0A0);
    EXPECT_EQ(custom_read_word(k, INTENAR), 0x40A0u);
    custom_write_word(k, INTENA, 0x0020);
    EXPECT_EQ(custom_read_word(k, INTENAR), 0x4080u);
    custom_write_word(k, ADKCON, 0x80FF);
    custom_write_word(k, ADKCON, 0x000F);
    EXPECT_EQ(custom_read_word(k, ADKCONR), 0x00F0u);
    custom_write_word(k, INTREQ, 0x8003);
    EXPECT_EQ(k->intreq, 0x0003);
}

TEST(Custom, DmaconStartsAndStopsChannels) {
    auto e = engine_with_latches();
    kelva *k = e.get();
    custom_write_word(k, DMACON, 0x8201);
    EXPECT_EQ(k->dmacon, 0x0201);
    EXPECT_TRUE(k->ch[0].active);
    EXPECT_EQ(k->ch[0].data, k->ram + 0x20000);
    EXPECT_EQ(k->ch[0].end, 16u);
    EXPECT_EQ(k->ch[0].sample, 10);
    EXPECT_EQ(k->ch[0].volume, 40);
    EXPECT_EQ(k->ch[0].step, uint64_t(200) << 16);
    EXPECT_EQ(k->aud[0].dma_running, 1);
    EXPECT_FALSE(k->ch[1].active);

    custom_write_word(k, DMACON, 0x800E);   // the other three
    for (int x = 0; x < 4; x++) EXPECT_TRUE(k->ch[x].active) << x;

    custom_write_word(k, DMACON, 0x0001);   // channel 0 only
    EXPECT_FALSE(k->ch[0].active);
    EXPECT_EQ(k->aud[0].dma_running, 0);
    EXPECT_TRUE(k->ch[1].active);

    // Clearing DMAEN stops every running channel but keeps AUDxEN...
    custom_write_word(k, DMACON, 0x0200);
    EXPECT_EQ(k->dmacon, 0x000E);
    for (int x = 0; x < 4; x++) EXPECT_FALSE(k->ch[x].active) << x;
    // ...and setting it again restarts exactly those channels.
    custom_write_word(k, DMACON, 0x8200);
    EXPECT_FALSE(k->ch[0].active);
    for (int x = 1; x < 4; x++) EXPECT_TRUE(k->ch[x].active) << x;
}

TEST(Custom, ChannelEnableWithoutDmaenStartsNothing) {
    auto e = engine_with_latches();
    kelva *k = e.get();
    custom_write_word(k, DMACON, 0x8001);
    EXPECT_EQ(k->dmacon, 0x0001);
    EXPECT_FALSE(k->ch[0].active);
    // Writing a location with DMA off queues nothing either.
    custom_write_word(k, AUD0LCL, 0x4000);
    EXPECT_FALSE(k->ch[0].active);
    EXPECT_FALSE(k->ch[0].queued);
}

TEST(Custom, IntreqrForcesAudioBitsWhileDmaIsOn) {
    auto e = make_engine();
    kelva *k = e.get();
    custom_write_word(k, INTREQ, 0x0780);   // the player acknowledges all four
    EXPECT_EQ(custom_read_word(k, INTREQR), 0x0780u);
    custom_write_word(k, INTREQ, 0x8004);
    EXPECT_EQ(custom_read_word(k, INTREQR), 0x0784u);
    EXPECT_EQ(k->intreq, 0x0004);
    custom_write_word(k, DMACON, 0x0200);
    EXPECT_EQ(custom_read_word(k, INTREQR), 0x0004u);
}

TEST(Custom, BeamPositionFollowsTheCycleCounter) {
    auto e = make_engine();
    kelva *k = e.get();
    k->cycles = 454 * 312 + 10;   // line 312, hpos 5
    EXPECT_EQ(custom_read_word(k, VHPOSR), 0x3805u);
    EXPECT_EQ(custom_read_word(k, VPOSR), 1u);
    k->cycles = 454 * 313 * 7 + 454 * 100 + 453;   // frame 7, line 100, hpos 226
    EXPECT_EQ(custom_read_word(k, VHPOSR), 0x64E2u);
    EXPECT_EQ(custom_read_word(k, VPOSR), 0u);
}

TEST(Custom, UnknownAndOddRegistersReadZeroAndIgnoreWrites) {
    auto e = make_engine();
    kelva *k = e.get();
    k->intreq = 0x7FFF;
    for (uint32_t r : {0xDFF000u, 0xDFF00Au, 0xDFF020u, 0xDFF096u, 0xDFF0A0u, 0xDFF1FEu, 0xDFF003u})
        EXPECT_EQ(custom_read_word(k, r), 0u) << std::hex << r;
    custom_write_word(k, 0xDFF180, 0x0FFF);   // COLOR00: not modelled
    custom_write_word(k, 0xDFF0AA, 0x1234);   // AUD0DAT: ignored
    EXPECT_EQ(k->ram[0xDFF180], 0);
    EXPECT_EQ(k->aud[0].lc, 0u);
}

TEST(Custom, LocationQueuesOnlyOnTheLowWord) {
    auto e = engine_with_latches();
    kelva *k = e.get();
    custom_write_word(k, DMACON, 0x8201);
    ASSERT_TRUE(k->ch[0].active);
    custom_write_word(k, AUD0LCH, 0x0003);
    EXPECT_FALSE(k->ch[0].queued);
    EXPECT_EQ(k->aud[0].lc, 0x00030000u);
    // A long write (high then low) queues once, with both halves in place.
    write32(k, AUD0LCH, 0x00050000);
    EXPECT_TRUE(k->ch[0].queued);
    EXPECT_EQ(k->ch[0].next_data, k->ram + 0x50000);
    // AUDxLEN queues too.
    k->ch[0].queued = 0;
    custom_write_word(k, AUD0LEN, 4);
    EXPECT_TRUE(k->ch[0].queued);
    EXPECT_EQ(k->ch[0].next_len, 8u);
}

TEST(Custom, VolumeAndPeriodTakeEffectAtOnce) {
    auto e = engine_with_latches();
    kelva *k = e.get();
    custom_write_word(k, DMACON, 0x8201);
    custom_write_word(k, AUD0VOL, 100);
    EXPECT_EQ(k->aud[0].vol, 100);
    EXPECT_EQ(k->ch[0].volume, 64);
    custom_write_word(k, AUD0VOL, 0xFF21);   // 7 bits kept
    EXPECT_EQ(k->aud[0].vol, 0x21);
    EXPECT_EQ(k->ch[0].volume, 0x21);
    custom_write_word(k, AUD0PER, 50);
    EXPECT_EQ(k->aud[0].per, 50);
    EXPECT_EQ(k->ch[0].step, uint64_t(113) << 16);
    custom_write_word(k, AUD0PER, 0);
    EXPECT_EQ(k->ch[0].step, 0u);
    custom_write_word(k, AUD0PER, 428);
    EXPECT_EQ(k->ch[0].step, uint64_t(428) << 16);
}

TEST(Custom, TraceLinesOnlyWhenSwitchedOnAndChanged) {
    auto e = make_engine();
    kelva *k = e.get();
    k->pc = 0x200010;
    testing::internal::CaptureStderr();
    custom_write_word(k, AUD0PER, 300);
    std::string quiet = testing::internal::GetCapturedStderr();
    EXPECT_EQ(quiet, "");

    k->reg_trace = 1;
    testing::internal::CaptureStderr();
    custom_write_word(k, DMACON, 0x8001);
    custom_write_word(k, DMACON, 0x8001);   // unchanged: no line
    custom_write_word(k, AUD0LCH, 0x0001);  // the high word alone prints nothing
    custom_write_word(k, AUD0LCL, 0x2345);
    custom_write_word(k, AUD0LEN, 7);
    custom_write_word(k, AUD0PER, 300);     // unchanged
    custom_write_word(k, AUD0VOL, 200);     // 200 & 127 = 72
    std::string out = testing::internal::GetCapturedStderr();
    EXPECT_EQ(out,
              "[trace] pc=00200010 DMACON 0200 -> 0201\n"
              "[trace] pc=00200010 AUD0LC = 00012345\n"
              "[trace] pc=00200010 AUD0LEN = 7\n"
              "[trace] pc=00200010 AUD0VOL = 72\n");
}

}  // namespace
