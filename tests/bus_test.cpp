// The memory bus: 24-bit masking, big-endian RAM with odd accesses, the
// diversions into the custom block and the CIA window, and the faults at the
// end of the address space.
#include <gtest/gtest.h>

#include "hardware/bus.h"
#include "support/test_support.h"

namespace {

struct Bus : testing::Test {
    engine_ptr e = make_engine();
    kelva *k = e.get();
};

TEST_F(Bus, RamIsBigEndianAtAnyAlignmentBelow16MiB) {
    write16(k, 0x00100001, 0x1234);
    EXPECT_EQ(read8(k, 0x100001), 0x12u);
    EXPECT_EQ(read16(k, 0x100001), 0x1234u);
    write32(k, 0x200003, 0xCAFEBABE);
    EXPECT_EQ(k->ram[0x200003], 0xCA);
    EXPECT_EQ(k->ram[0x200006], 0xBE);
    EXPECT_EQ(read32(k, 0xFF200003), 0xCAFEBABEu);   // the bits above 24 are ignored
    write8(k, 0xAB000020, 0x77);
    EXPECT_EQ(k->ram[0x20], 0x77);
    EXPECT_EQ(k->fault, 0);
}

TEST_F(Bus, CustomBlockAccesses) {
    // Either half of INTENA gets the byte doubled, 0x8080: set bit 7; the
    // RAM underneath is never written.
    write8(k, 0xDFF09B, 0x80);
    EXPECT_EQ(k->intena, 0x0080);
    k->intena = 0;
    write8(k, 0xDFF09A, 0x80);
    EXPECT_EQ(k->intena, 0x0080);
    EXPECT_EQ(k->ram[0xDFF09A], 0);
    // Reads split into bytes and longs; an odd word address selects nothing.
    k->dmacon = 0;   // no DMAEN: INTREQR is INTREQ alone
    k->intreq = 0x1234;
    k->intena = 0x4321;
    EXPECT_EQ(read8(k, 0xDFF01E), 0x12u);
    EXPECT_EQ(read8(k, 0xDFF01F), 0x34u);
    EXPECT_EQ(read32(k, 0xDFF01C), 0x43211234u);
    EXPECT_EQ(read16(k, 0xDFF01D), 0u);
    write16(k, 0xDFF09B, 0x8004);
    EXPECT_EQ(k->intena, 0x4321);
    write32(k, 0xDFF0A0, 0x00123456);   // AUD0LCH, AUD0LCL
    EXPECT_EQ(k->aud[0].lc, 0x00123456u);
}

TEST_F(Bus, CiaWindowIgnoresAddressBitZeroAndEndsAtItsEdges) {
    write8(k, 0xBFE201, 0x5A);   // CIA-A DDRA
    EXPECT_EQ(k->cia[0].ddra, 0x5A);
    EXPECT_EQ(read8(k, 0xBFE200), 0x5Au);
    write8(k, 0xBFD100, 0xA5);   // CIA-B PRB
    EXPECT_EQ(k->cia[1].prb, 0xA5);
    EXPECT_EQ(read8(k, 0xBFD101), 0xA5u);
    EXPECT_EQ(k->cia[0].prb, 0);
    // The window's last byte is CIA-A CRB; the byte after it is RAM.
    write16(k, 0xBFEFFF, 0xABCD);
    EXPECT_EQ(k->cia[0].crb, 0xAB);
    EXPECT_EQ(k->ram[0xBFF000], 0xCD);
    EXPECT_EQ(read32(k, 0xBFEFFD), 0xABABABCDu);   // CRB three times, then RAM
    // A word straddling in from below: RAM, then CIA-B register 0.
    write16(k, 0xBFCFFF, 0x1122);
    EXPECT_EQ(k->ram[0xBFCFFF], 0x11);
    EXPECT_EQ(k->cia[1].pra, 0x22);
    EXPECT_EQ(read16(k, 0xBFCFFF), 0x1122u);
    k->ram[0xBFCFFE] = 0x99;
    EXPECT_EQ(read32(k, 0xBFCFFE), 0x99112222u);   // two RAM bytes, then PRA twice
    write32(k, 0xBFCFFD, 0x01020304);
    EXPECT_EQ(k->ram[0xBFCFFD], 0x01);
    EXPECT_EQ(k->ram[0xBFCFFF], 0x03);
    EXPECT_EQ(k->cia[1].pra, 0x04);
}

TEST_F(Bus, AccessesPastTheLastByteFaultAndWriteNothing) {
    k->ram[0xFFFFFF] = 0x42;
    k->ram[0xFFFFFE] = 0x11;
    EXPECT_EQ(read8(k, 0xFFFFFF), 0x42u);
    write32(k, 0xFFFFFC, 0x01020304);   // the last whole long is fine
    EXPECT_EQ(read32(k, 0xFFFFFC), 0x01020304u);
    EXPECT_EQ(k->fault, 0);
    const struct {
        int size;
        uint32_t addr;
        bool write;
    } cases[] = {{2, 0xFFFFFF, false}, {4, 0xFFFFFD, false}, {4, 0xFFFFFE, true}, {2, 0xFFFFFF, true}};
    for (const auto &c : cases) {
        k->fault = 0;
        uint32_t got = 0;
        if (c.write)
            c.size == 2 ? write16(k, c.addr, 0xDEAD) : write32(k, c.addr, 0xDEADBEEF);
        else
            got = c.size == 2 ? read16(k, c.addr) : read32(k, c.addr);
        EXPECT_EQ(k->fault, 2) << c.size << " " << std::hex << c.addr;
        EXPECT_EQ(got, c.write ? 0u : c.size == 2 ? 0xFFFFu : 0xFFFFFFFFu);
        EXPECT_EQ(ram_get32(k, 0xFFFFFC), 0x01020304u);
    }
}

}  // namespace
