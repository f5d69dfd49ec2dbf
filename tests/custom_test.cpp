// Custom registers, the memory bus (24-bit masking, big-endian RAM, the custom block and CIA window, faults at the
// top) and the CIAs; a timer with latch L runs L + 1 E-clock ticks of 1/709379 s.
#include <gtest/gtest.h>

#include <tuple>

#include "hardware/bus.h"
#include "support/services.h"
#include "support/test_support.h"

namespace {

constexpr uint32_t DMACON = 0xDFF096, INTENA = 0xDFF09A, INTREQ = 0xDFF09C, ADKCON = 0xDFF09E;
constexpr uint32_t AUD0LCH = 0xDFF0A0, AUD0LCL = 0xDFF0A2, AUD0LEN = 0xDFF0A4, AUD0PER = 0xDFF0A6,
                   AUD0VOL = 0xDFF0A8;

// CIA-A and CIA-B register addresses (register n at base + n * $100).
constexpr uint32_t CIAA = 0xBFE001, CIAB = 0xBFD000;
constexpr uint32_t PRA = 0x000, PRB = 0x100, DDRA = 0x200, TALO = 0x400, TAHI = 0x500, TBLO = 0x600,
                   TBHI = 0x700, TODLO = 0x800, TODMID = 0x900, TODHI = 0xA00, SDR = 0xC00, ICR = 0xD00,
                   CRA = 0xE00, CRB = 0xF00;

// An engine at 48 kHz with DMACON cleared and channel x's latches at $20000 + $1000x: 8 words of byte 10 + x,
// period 200, volume 40.
struct Custom : testing::Test {
    engine_ptr e = make_engine(48000);
    kelva *k = e.get();
    void SetUp() override {
        custom_write_word(k, DMACON, 0x7FFF);
        for (int x = 0; x < 4; x++) {
            k->ram[0x20000 + 0x1000 * x] = uint8_t(10 + x);
            set_audio_latches(k, x, 0x20000 + 0x1000 * uint32_t(x), 8, 200, 40);
        }
    }
    uint32_t rd(uint32_t r) { return custom_read_word(k, r); }
    void wr(uint32_t cia, uint32_t reg, uint32_t v) { write8(k, cia + reg, v); }
    uint32_t rd(uint32_t cia, uint32_t reg) { return read8(k, cia + reg); }
    static double frames(uint32_t latch) { return (latch + 1.0) * 48000 / 709379; }
};
using Bus = Custom;
using Cia = Custom;

// SET/CLR registers never store bit 15; INTREQR shows the audio bits set while DMA is on. The beam position: 454
// cycles a line, 313 lines a frame; VPOSR bit 0 is line bit 8. Unknown and odd registers read 0; writes to them are
// ignored.
TEST_F(Custom, SetClearBeamAndUnknownRegisters) {
    custom_write_word(k, INTENA, 0xC0A0);
    EXPECT_EQ(rd(0xDFF01C), 0x40A0u);   // INTENAR
    custom_write_word(k, INTENA, 0x0020);
    EXPECT_EQ(rd(0xDFF01C), 0x4080u);
    custom_write_word(k, ADKCON, 0x80FF);
    custom_write_word(k, ADKCON, 0x000F);
    EXPECT_EQ(rd(0xDFF010), 0x00F0u);   // ADKCONR
    custom_write_word(k, INTREQ, 0x8004);
    EXPECT_EQ(std::tuple(k->intreq, rd(0xDFF01E)), std::tuple(0x0004, 0x0004u));   // INTREQR
    custom_write_word(k, DMACON, 0x8200);
    EXPECT_EQ(std::tuple(k->intreq, rd(0xDFF01E)), std::tuple(0x0004, 0x0784u));
    // 2291 lines: 7 frames and 100 lines.
    const std::tuple<uint64_t, uint32_t, uint32_t> beam[] = {{454 * 312 + 10, 0x3805, 1},
                                                             {454 * 2291 + 453, 0x64E2, 0}};
    for (auto [cycles, vhpos, vpos] : beam) {
        k->cycles = cycles;
        EXPECT_EQ(std::tuple(rd(0xDFF006), rd(0xDFF004)), std::tuple(vhpos, vpos));
    }
    k->intreq = 0x7FFF;
    for (uint32_t r : {0xDFF000u, 0xDFF00Au, 0xDFF020u, 0xDFF096u, 0xDFF0A0u, 0xDFF1FEu, 0xDFF003u})
        EXPECT_EQ(rd(r), 0u) << std::hex << r;
    custom_write_word(k, 0xDFF180, 0x0FFF);   // COLOR00: not modelled
    custom_write_word(k, 0xDFF0AA, 0x1234);   // AUD0DAT: ignored
    EXPECT_EQ(std::tuple(k->ram[0xDFF180], k->aud[0].lc), std::tuple(0, 0x20000u));
}

TEST_F(Custom, DmaconStartsAndStopsChannels) {
    custom_write_word(k, DMACON, 0x8001);    // AUD0EN without DMAEN starts nothing,
    custom_write_word(k, AUD0LCL, 0x0000);   // nor does a location write
    EXPECT_FALSE(k->ch[0].active || k->ch[0].queued);
    custom_write_word(k, DMACON, 0x8200);
    EXPECT_EQ(rd(0xDFF002), 0x0201u);   // DMACONR
    const paula_channel &c = k->ch[0];
    EXPECT_EQ(std::tuple(c.active && k->aud[0].dma_running, c.data - k->ram, c.end, c.sample, c.volume, c.step),
              std::tuple(true, 0x20000, 16u, 10, 40, uint64_t(200) << 16));
    EXPECT_FALSE(k->ch[1].active);
    custom_write_word(k, DMACON, 0x800E);
    custom_write_word(k, DMACON, 0x0001);   // channel 0 only
    EXPECT_TRUE(!c.active && !k->aud[0].dma_running && k->ch[1].active);
    // Clearing DMAEN stops every channel but keeps AUDxEN; setting it again restarts exactly those.
    custom_write_word(k, DMACON, 0x0200);
    EXPECT_EQ(k->dmacon, 0x000E);
    for (int x = 0; x < 4; x++) EXPECT_FALSE(k->ch[x].active) << x;
    custom_write_word(k, DMACON, 0x8200);
    for (int x = 0; x < 4; x++) EXPECT_EQ(k->ch[x].active, x != 0) << x;
}

TEST_F(Custom, LatchWritesWhilePlaying) {
    custom_write_word(k, DMACON, 0x8201);
    // A location queues on its low word only; a long write queues once.
    custom_write_word(k, AUD0LCH, 0x0003);
    EXPECT_EQ(std::tuple(bool(k->ch[0].queued), k->aud[0].lc), std::tuple(false, 0x00030000u));
    write32(k, AUD0LCH, 0x00050000);
    EXPECT_EQ(std::tuple(bool(k->ch[0].queued), k->ch[0].next_data - k->ram), std::tuple(true, 0x50000));
    k->ch[0].queued = 0;
    custom_write_word(k, AUD0LEN, 4);   // so does a length
    EXPECT_EQ(std::tuple(bool(k->ch[0].queued), k->ch[0].next_len), std::tuple(true, 8u));
    // Volume (7 bits, at most 64) and period (at least 113, 0 = silent) take effect at once: register, value, latch,
    // the channel's volume or step.
    const std::tuple<uint32_t, uint16_t, uint32_t, uint64_t> writes[] = {
        {AUD0VOL, 100, 100, 64}, {AUD0VOL, 0xFF21, 0x21, 0x21},       {AUD0PER, 50, 50, 113ull << 16},
        {AUD0PER, 0, 0, 0},      {AUD0PER, 428, 428, 428ull << 16}};
    for (auto [reg, value, latch, now] : writes) {
        custom_write_word(k, reg, value);
        bool vol = reg == AUD0VOL;
        EXPECT_EQ(vol ? k->aud[0].vol : k->aud[0].per, latch) << value;
        EXPECT_EQ(vol ? k->ch[0].volume : k->ch[0].step, now) << value;
    }
}

TEST_F(Custom, TraceLinesOnlyWhenSwitchedOnAndChanged) {
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
              "[trace] pc=00200010 DMACON 0000 -> 0001\n"
              "[trace] pc=00200010 AUD0LC = 00012345\n"
              "[trace] pc=00200010 AUD0LEN = 7\n"
              "[trace] pc=00200010 AUD0VOL = 72\n");
}

TEST_F(Bus, RamIsBigEndianAtAnyAlignmentAndFaultsPastTheLastByte) {
    write16(k, 0x00100001, 0x1234);
    EXPECT_EQ(std::tuple(read8(k, 0x100001), read16(k, 0x100001)), std::tuple(0x12u, 0x1234u));
    write32(k, 0x200003, 0xCAFEBABE);
    EXPECT_EQ(k->ram[0x200003] << 8 | k->ram[0x200006], 0xCABE);
    EXPECT_EQ(read32(k, 0xFF200003), 0xCAFEBABEu);   // the bits above 24 are ignored
    write8(k, 0xAB000020, 0x77);
    EXPECT_EQ(std::tuple(k->ram[0x20], k->fault), std::tuple(0x77, 0));
    write32(k, 0xFFFFFC, 0x01020304);   // the last whole long is fine
    EXPECT_EQ(std::tuple(read8(k, 0xFFFFFF), read32(k, 0xFFFFFC), k->fault), std::tuple(0x04u, 0x01020304u, 0));
    // Size, address, write.
    const std::tuple<int, uint32_t, bool> cases[] = {
        {2, 0xFFFFFF, false}, {4, 0xFFFFFD, false}, {4, 0xFFFFFE, true}, {2, 0xFFFFFF, true}};
    for (auto [size, addr, write] : cases) {
        k->fault = 0;
        uint32_t got = 0;
        if (write)
            size == 2 ? write16(k, addr, 0xDEAD) : write32(k, addr, 0xDEADBEEF);
        else
            got = size == 2 ? read16(k, addr) : read32(k, addr);
        EXPECT_EQ(k->fault, 2) << size << " " << std::hex << addr;
        EXPECT_EQ(got, write ? 0u : size == 2 ? 0xFFFFu : 0xFFFFFFFFu);
        EXPECT_EQ(ram_get32(k, 0xFFFFFC), 0x01020304u);
    }
}

TEST_F(Bus, CustomBlockAccesses) {
    // Either half of INTENA gets the byte doubled, 0x8080: set bit 7; the RAM underneath is never written.
    write8(k, 0xDFF09B, 0x80);
    EXPECT_EQ(k->intena, 0x0080);
    k->intena = 0;
    write8(k, 0xDFF09A, 0x80);
    EXPECT_EQ(std::tuple(k->intena, k->ram[0xDFF09A]), std::tuple(0x0080, 0));
    // Reads split into bytes and longs (INTREQR is INTREQ alone without DMAEN); an odd word address selects nothing.
    k->intreq = 0x1234;
    k->intena = 0x4321;
    EXPECT_EQ(std::tuple(read8(k, 0xDFF01E), read8(k, 0xDFF01F), read32(k, 0xDFF01C), read16(k, 0xDFF01D)),
              std::tuple(0x12u, 0x34u, 0x43211234u, 0u));
    write16(k, 0xDFF09B, 0x8004);
    write32(k, 0xDFF0A0, 0x00123456);   // AUD0LCH, AUD0LCL
    EXPECT_EQ(std::tuple(k->intena, k->aud[0].lc), std::tuple(0x4321, 0x00123456u));
}

TEST_F(Bus, CiaWindowIgnoresAddressBitZeroAndEndsAtItsEdges) {
    write8(k, 0xBFE201, 0x5A);   // CIA-A DDRA
    write8(k, 0xBFD100, 0xA5);   // CIA-B PRB
    EXPECT_EQ(std::tuple(k->cia[0].ddra, read8(k, 0xBFE200), k->cia[1].prb, read8(k, 0xBFD101), k->cia[0].prb),
              std::tuple(0x5A, 0x5Au, 0xA5, 0xA5u, 0));
    // The window's last byte is CIA-A CRB; the byte after it is RAM.
    write16(k, 0xBFEFFF, 0xABCD);
    EXPECT_EQ(std::tuple(k->cia[0].crb, k->ram[0xBFF000]), std::tuple(0xAB, 0xCD));
    EXPECT_EQ(read32(k, 0xBFEFFD), 0xABABABCDu);   // CRB three times, then RAM
    // A word straddling in from below: RAM, then CIA-B register 0.
    write16(k, 0xBFCFFF, 0x1122);
    EXPECT_EQ(std::tuple(k->ram[0xBFCFFF], k->cia[1].pra, read16(k, 0xBFCFFF)), std::tuple(0x11, 0x22, 0x1122u));
    k->ram[0xBFCFFE] = 0x99;
    EXPECT_EQ(read32(k, 0xBFCFFE), 0x99112222u);   // two RAM bytes, then PRA twice
    write32(k, 0xBFCFFD, 0x01020304);
    EXPECT_EQ(std::tuple(k->ram[0xBFCFFD], k->ram[0xBFCFFF], k->cia[1].pra), std::tuple(0x01, 0x03, 0x04));
}

TEST_F(Cia, LatchControlRegisterAndOneShot) {
    for (const cia_state &c : k->cia) EXPECT_TRUE(c.ta_period == 1.0 && c.tb_left == 1.0 && !c.ta_running);
    EXPECT_EQ(cia_frames_to_event(k), 0);
    wr(CIAA, TALO, 0x6B);
    EXPECT_EQ(std::tuple(k->cia[0].ta_latch, k->cia[0].ta_period), std::tuple(0x006B, 1.0));   // nothing else yet
    wr(CIAA, TAHI, 0x37);
    wr(CIAB, TBHI, 0);
    EXPECT_NEAR(k->cia[0].ta_period, frames(0x376B), 1e-9);
    // Stopped: reloaded; continuous: not started. One frame at the least.
    EXPECT_EQ(std::tuple(k->cia[0].ta_left, bool(k->cia[0].ta_running), k->cia[1].tb_period),
              std::tuple(k->cia[0].ta_period, false, 1.0));

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
    EXPECT_EQ(rd(CIAA, CRA), 0x01u);
    EXPECT_NEAR(k->cia[0].ta_left, frames(0x1000), 1e-9);
    wr(CIAA, CRA, 0x60);   // stop; the other bits are stored
    wr(CIAB, CRB, 0x61);   // CRB: the input mode bits are stored only
    EXPECT_EQ(std::tuple(bool(k->cia[0].ta_running), rd(CIAA, CRA), bool(k->cia[1].tb_running), rd(CIAB, CRB)),
              std::tuple(false, 0x60u, true, 0x61u));
    wr(CIAB, CRB, 0x00);
    EXPECT_EQ(rd(CIAB, TBLO), 14u);   // an unloaded timer: 1 frame = 14.78 ticks

    // One-shot: the high byte starts it; the underflow stops and reloads it.
    wr(CIAB, CRB, 0x08);
    wr(CIAB, TBLO, 0xFF);
    EXPECT_FALSE(k->cia[1].tb_running);
    wr(CIAB, TBHI, 0x01);
    EXPECT_EQ(std::tuple(bool(k->cia[1].tb_running), cia_frames_to_event(k)), std::tuple(true, 35));   // 512 ticks
    k->cia[1].handlers[1] = 0x2000;
    wr(CIAB, ICR, 0x82);
    cia_advance(k, 40);
    EXPECT_EQ(std::tuple(k->cia[1].crb, bool(k->cia[1].tb_running), k->pending_count, k->pending[0],
                         cia_frames_to_event(k)),
              std::tuple(0x08, false, 1u, 0x2000u, 0));
    EXPECT_NEAR(k->cia[1].tb_left, frames(0x1FF), 1e-9);
}

TEST_F(Cia, UnderflowsQueueMaskedHandlersInOrderAtMostEight) {
    // ICR writes set or clear mask bits (bit 7 is never stored); a read gives the flags, IR (bit 7) when an enabled
    // one is set, and clears them.
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
    cia_advance(k, 1);   // flagged, but no handler: not queued
    EXPECT_EQ(std::tuple(k->cia[1].icr_data, k->pending_count), std::tuple(0x01, 0u));
    EXPECT_NEAR(k->cia[1].ta_left, 2 * frames(0x100) - 18, 1e-9);
    k->cia[1].handlers[0] = 0x4000;   // a handler without the mask bit
    cia_advance(k, 20);
    EXPECT_EQ(k->pending_count, 0u);
    wr(CIAB, ICR, 0x81);
    cia_advance(k, 20);
    EXPECT_EQ(k->pending_count, 1u);
    // CIA-A timer B at latch 0 underflows every frame (reaching exactly 0 counts); CIA-A comes before CIA-B, and
    // eight at most are queued.
    k->pending_count = 0;
    k->cia[0].handlers[1] = 0x5000;
    wr(CIAA, ICR, 0x82);
    wr(CIAA, TBHI, 0);
    wr(CIAA, CRB, 0x01);
    cia_advance(k, 1);
    EXPECT_EQ(std::tuple(k->pending_count, k->cia[0].tb_left), std::tuple(1u, 1.0));
    cia_advance(k, 17);
    ASSERT_EQ(k->pending_count, 8u);
    for (uint32_t p : k->pending) EXPECT_EQ(p, 0x5000u);
    EXPECT_TRUE(k->cia[0].tb_running);
}

// Time of day: CIA-A counts 50 Hz frames (141,875 cycles), CIA-B lines (454); 24 bits; writes are ignored. The ports
// are plain storage; SDR and register $B read 0. CIA-A port A bit 1 high turns the LED filter off, in Auto mode (0)
// only; modes 1 (off) and 2 (on) force it, Auto keeps the state until the next write; setting an unknown mode changes
// nothing.
TEST_F(Cia, TimeOfDayPortsAndTheLedLine) {
    k->cycles = 141875ull * 0x123456 + 5;
    for (auto [reg, v] : {std::pair{TODLO, 0x56u}, {TODMID, 0x34u}, {TODHI, 0x12u}}) EXPECT_EQ(rd(CIAA, reg), v);
    k->cycles = 454ull * 0x1ABCDEF;
    wr(CIAB, TODLO, 0x11);
    EXPECT_EQ(rd(CIAB, TODHI) << 8 | rd(CIAB, TODLO), 0xABEFu);
    wr(CIAA, PRB, 0x5A);
    wr(CIAA, DDRA, 0x03);
    wr(CIAA, SDR, 0x77);
    EXPECT_EQ(rd(CIAA, PRB) << 16 | rd(CIAA, DDRA) << 8 | rd(CIAA, SDR) | rd(CIAA, 0xB00), 0x5A0300u);

    // Mode (-1: no change, 7: unknown), CIA, port A, LED filter on.
    const std::tuple<int, uint32_t, uint32_t, uint32_t> steps[] = {
        {-1, CIAA, 0x02, 0}, {-1, CIAA, 0xFD, 1}, {-1, CIAB, 0x02, 1}, {1, CIAA, 0x00, 0},
        {2, CIAA, 0x02, 1},  {7, CIAB, 0x02, 1},  {0, CIAA, 0x02, 0}};
    EXPECT_EQ(k->mix.led_on, 1u);
    for (auto [mode, cia, pra, led_on] : steps) {
        if (mode >= 0) kelva_set_led_filter(k, uint32_t(mode));
        EXPECT_TRUE(mode != 0 || k->mix.led_on == 1u);   // Auto: no change yet
        wr(cia, PRA, pra);
        EXPECT_EQ(k->mix.led_on, led_on) << mode << " " << pra;
    }
    EXPECT_EQ(rd(CIAA, PRA), 0x02u);
}

}  // namespace
