// Custom registers: SET/CLR semantics, audio DMA start/stop through DMACON,
// the forced audio bits of INTREQR, the beam position, the audio latches and
// the register trace.
#include <gtest/gtest.h>

#include "hardware/bus.h"
#include "support/services.h"
#include "support/test_support.h"

namespace {

constexpr uint32_t DMACON = 0xDFF096, INTENA = 0xDFF09A, INTREQ = 0xDFF09C, ADKCON = 0xDFF09E;
constexpr uint32_t AUD0LCH = 0xDFF0A0, AUD0LCL = 0xDFF0A2, AUD0LEN = 0xDFF0A4, AUD0PER = 0xDFF0A6,
                   AUD0VOL = 0xDFF0A8;

// An engine with DMACON cleared and channel x's latches at $20000 + $1000x:
// 8 words of byte 10 + x, period 200, volume 40.
struct Custom : testing::Test {
    engine_ptr e = make_engine();
    kelva *k = e.get();
    void SetUp() override {
        custom_write_word(k, DMACON, 0x7FFF);
        for (int x = 0; x < 4; x++) {
            k->ram[0x20000 + 0x1000 * x] = uint8_t(10 + x);
            set_audio_latches(k, x, 0x20000 + 0x1000 * uint32_t(x), 8, 200, 40);
        }
    }
    uint32_t rd(uint32_t r) { return custom_read_word(k, r); }
};

// SET/CLR registers never store bit 15; INTREQR shows the audio bits set
// while DMA is on.
TEST_F(Custom, SetClearRegistersAndIntreqr) {
    custom_write_word(k, INTENA, 0xC0A0);
    EXPECT_EQ(rd(0xDFF01C), 0x40A0u);   // INTENAR
    custom_write_word(k, INTENA, 0x0020);
    EXPECT_EQ(rd(0xDFF01C), 0x4080u);
    custom_write_word(k, ADKCON, 0x80FF);
    custom_write_word(k, ADKCON, 0x000F);
    EXPECT_EQ(rd(0xDFF010), 0x00F0u);   // ADKCONR
    custom_write_word(k, INTREQ, 0x8004);
    EXPECT_EQ(k->intreq, 0x0004);
    EXPECT_EQ(rd(0xDFF01E), 0x0004u);   // INTREQR
    custom_write_word(k, DMACON, 0x8200);
    EXPECT_EQ(rd(0xDFF01E), 0x0784u);
    EXPECT_EQ(k->intreq, 0x0004);
}

TEST_F(Custom, DmaconStartsAndStopsChannels) {
    custom_write_word(k, DMACON, 0x8001);   // AUD0EN without DMAEN starts nothing
    EXPECT_FALSE(k->ch[0].active);
    custom_write_word(k, AUD0LCL, 0x0000);   // nor does a location write
    EXPECT_FALSE(k->ch[0].active || k->ch[0].queued);
    custom_write_word(k, DMACON, 0x8200);
    EXPECT_EQ(rd(0xDFF002), 0x0201u);   // DMACONR
    const paula_channel &c = k->ch[0];
    EXPECT_TRUE(c.active && k->aud[0].dma_running);
    EXPECT_EQ(c.data, k->ram + 0x20000);
    EXPECT_EQ(c.end, 16u);
    EXPECT_EQ(c.sample, 10);
    EXPECT_EQ(c.volume, 40);
    EXPECT_EQ(c.step, uint64_t(200) << 16);
    EXPECT_FALSE(k->ch[1].active);
    custom_write_word(k, DMACON, 0x800E);
    custom_write_word(k, DMACON, 0x0001);   // channel 0 only
    EXPECT_FALSE(c.active || k->aud[0].dma_running);
    EXPECT_TRUE(k->ch[1].active);
    // Clearing DMAEN stops every channel but keeps AUDxEN; setting it again
    // restarts exactly those.
    custom_write_word(k, DMACON, 0x0200);
    EXPECT_EQ(k->dmacon, 0x000E);
    for (int x = 0; x < 4; x++) EXPECT_FALSE(k->ch[x].active) << x;
    custom_write_word(k, DMACON, 0x8200);
    for (int x = 0; x < 4; x++) EXPECT_EQ(k->ch[x].active, x != 0) << x;
}

TEST_F(Custom, BeamPositionFollowsTheCycleCounter) {
    // 454 cycles a line, 313 lines a frame; VPOSR bit 0 is line bit 8.
    const struct {
        uint64_t cycles;
        uint32_t vhpos, vpos;
    } cases[] = {{454 * 312 + 10, 0x3805, 1}, {454 * 313 * 7 + 454 * 100 + 453, 0x64E2, 0}};
    for (const auto &c : cases) {
        k->cycles = c.cycles;
        EXPECT_EQ(rd(0xDFF006), c.vhpos);
        EXPECT_EQ(rd(0xDFF004), c.vpos);
    }
}

TEST_F(Custom, UnknownAndOddRegistersReadZeroAndIgnoreWrites) {
    k->intreq = 0x7FFF;
    for (uint32_t r : {0xDFF000u, 0xDFF00Au, 0xDFF020u, 0xDFF096u, 0xDFF0A0u, 0xDFF1FEu, 0xDFF003u})
        EXPECT_EQ(rd(r), 0u) << std::hex << r;
    custom_write_word(k, 0xDFF180, 0x0FFF);   // COLOR00: not modelled
    custom_write_word(k, 0xDFF0AA, 0x1234);   // AUD0DAT: ignored
    EXPECT_EQ(k->ram[0xDFF180], 0);
    EXPECT_EQ(k->aud[0].lc, 0x20000u);
}

TEST_F(Custom, LatchWritesWhilePlaying) {
    custom_write_word(k, DMACON, 0x8201);
    // A location queues on its low word only; a long write queues once.
    custom_write_word(k, AUD0LCH, 0x0003);
    EXPECT_FALSE(k->ch[0].queued);
    EXPECT_EQ(k->aud[0].lc, 0x00030000u);
    write32(k, AUD0LCH, 0x00050000);
    EXPECT_TRUE(k->ch[0].queued);
    EXPECT_EQ(k->ch[0].next_data, k->ram + 0x50000);
    k->ch[0].queued = 0;
    custom_write_word(k, AUD0LEN, 4);   // so does a length
    EXPECT_TRUE(k->ch[0].queued);
    EXPECT_EQ(k->ch[0].next_len, 8u);
    // Volume (7 bits, at most 64) and period (at least 113, 0 = silent)
    // take effect at once.
    const struct {
        uint32_t reg;
        uint16_t value, latch;
        uint64_t now;
    } writes[] = {{AUD0VOL, 100, 100, 64},  {AUD0VOL, 0xFF21, 0x21, 0x21},        {AUD0PER, 50, 50, 113ull << 16},
                  {AUD0PER, 0, 0, 0},       {AUD0PER, 428, 428, 428ull << 16}};
    for (const auto &w : writes) {
        custom_write_word(k, w.reg, w.value);
        bool vol = w.reg == AUD0VOL;
        EXPECT_EQ(vol ? k->aud[0].vol : k->aud[0].per, w.latch) << w.value;
        EXPECT_EQ(vol ? k->ch[0].volume : k->ch[0].step, w.now) << w.value;
    }
}

TEST_F(Custom, TraceLinesOnlyWhenSwitchedOnAndChanged) {
    e = make_engine();
    k = e.get();
    k->pc = 0x200010;
    EXPECT_EQ(stderr_of([&] { custom_write_word(k, AUD0PER, 300); }), "");
    k->reg_trace = 1;
    EXPECT_EQ(stderr_of([&] {
                  custom_write_word(k, DMACON, 0x8001);
                  custom_write_word(k, DMACON, 0x8001);   // unchanged: no line
                  custom_write_word(k, AUD0LCH, 0x0001);  // the high word alone prints nothing
                  custom_write_word(k, AUD0LCL, 0x2345);
                  custom_write_word(k, AUD0LEN, 7);
                  custom_write_word(k, AUD0PER, 300);     // unchanged
                  custom_write_word(k, AUD0VOL, 200);     // 200 & 127 = 72
              }),
              "[trace] pc=00200010 DMACON 0200 -> 0201\n"
              "[trace] pc=00200010 AUD0LC = 00012345\n"
              "[trace] pc=00200010 AUD0LEN = 7\n"
              "[trace] pc=00200010 AUD0VOL = 72\n");
}

}  // namespace
