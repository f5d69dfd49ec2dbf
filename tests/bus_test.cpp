// The memory bus: 24-bit masking, big-endian RAM with odd accesses, the
// diversions into the custom block and the CIA window, and the faults at the
// end of the address space.
#include <gtest/gtest.h>

#include "hardware/bus.h"
#include "support/test_support.h"

namespace {

TEST(Bus, OddWordAndLongAccessesAreBigEndianRam) {
    auto e = make_engine();
    kelva *k = e.get();
    write16(k, 0x00100001, 0x1234);
    EXPECT_EQ(read8(k, 0x100001), 0x12u);
    EXPECT_EQ(read8(k, 0x100002), 0x34u);
    EXPECT_EQ(read16(k, 0x100001), 0x1234u);
    write32(k, 0x200003, 0xCAFEBABE);
    EXPECT_EQ(k->ram[0x200003], 0xCA);
    EXPECT_EQ(k->ram[0x200006], 0xBE);
    EXPECT_EQ(read32(k, 0x200003), 0xCAFEBABEu);
    EXPECT_EQ(k->fault, 0);
}

TEST(Bus, AddressBitsAbove24AreIgnored) {
    auto e = make_engine();
    kelva *k = e.get();
    write32(k, 0x10, 0x01020304);
    EXPECT_EQ(read32(k, 0xFF000010), 0x01020304u);
    write8(k, 0xAB000020, 0x77);
    EXPECT_EQ(k->ram[0x20], 0x77);
}

TEST(Bus, ByteWriteToCustomRegisterDoublesTheByte) {
    auto e = make_engine();
    kelva *k = e.get();
    // Either half of INTENA gets the whole word 0x8080: set bit 7.
    write8(k, 0xDFF09B, 0x80);
    EXPECT_EQ(k->intena, 0x0080);
    write8(k, 0xDFF09A, 0x80);
    EXPECT_EQ(k->intena, 0x0080);
    // Custom writes never reach the RAM array underneath.
    EXPECT_EQ(k->ram[0xDFF09A], 0);
}

TEST(Bus, CustomReadsSplitIntoBytesAndLongs) {
    auto e = make_engine();
    kelva *k = e.get();
    k->dmacon = 0;   // no DMAEN: INTREQR is INTREQ alone
    k->intreq = 0x1234;
    EXPECT_EQ(read8(k, 0xDFF01E), 0x12u);
    EXPECT_EQ(read8(k, 0xDFF01F), 0x34u);
    k->intena = 0x4321;
    EXPECT_EQ(read32(k, 0xDFF01C), 0x43211234u);
    // An odd word address selects no register.
    EXPECT_EQ(read16(k, 0xDFF01D), 0u);
    write16(k, 0xDFF09B, 0x8004);
    EXPECT_EQ(k->intena, 0x4321);
}

TEST(Bus, LongWriteToCustomBlockWritesBothWords) {
    auto e = make_engine();
    kelva *k = e.get();
    write32(k, 0xDFF0A0, 0x00123456);   // AUD0LCH, AUD0LCL
    EXPECT_EQ(k->aud[0].lc, 0x00123456u);
}

TEST(Bus, CiaWindowDecodesRegistersWithoutAddressBitZero) {
    auto e = make_engine();
    kelva *k = e.get();
    write8(k, 0xBFE201, 0x5A);   // CIA-A DDRA
    EXPECT_EQ(k->cia[0].ddra, 0x5A);
    EXPECT_EQ(read8(k, 0xBFE200), 0x5Au);
    write8(k, 0xBFD100, 0xA5);   // CIA-B PRB
    EXPECT_EQ(k->cia[1].prb, 0xA5);
    EXPECT_EQ(read8(k, 0xBFD101), 0xA5u);
    EXPECT_EQ(k->cia[0].prb, 0);
}

TEST(Bus, WordsAtTheEdgesOfTheCiaWindow) {
    auto e = make_engine();
    kelva *k = e.get();
    // The last byte of the window goes to CIA-A ($F = CRB); the low byte
    // lands in RAM behind it.
    write16(k, 0xBFEFFF, 0xABCD);
    EXPECT_EQ(k->cia[0].crb, 0xAB);
    EXPECT_EQ(k->ram[0xBFF000], 0xCD);
    // A word that straddles into the window from below: high byte in RAM,
    // low byte to CIA-B register 0.
    write16(k, 0xBFCFFF, 0x1122);
    EXPECT_EQ(k->ram[0xBFCFFF], 0x11);
    EXPECT_EQ(k->cia[1].pra, 0x22);
    EXPECT_EQ(read16(k, 0xBFCFFF), 0x1122u);
    // A long from $BFCFFE: two RAM bytes, then CIA-B PRA twice.
    k->ram[0xBFCFFE] = 0x99;
    EXPECT_EQ(read32(k, 0xBFCFFE), 0x99112222u);
    write32(k, 0xBFCFFD, 0x01020304);
    EXPECT_EQ(k->ram[0xBFCFFD], 0x01);
    EXPECT_EQ(k->ram[0xBFCFFF], 0x03);   // the byte at $BFCFFF is RAM
    EXPECT_EQ(k->cia[1].pra, 0x04);
}

TEST(Bus, AccessesOffTheEndOfTheSpaceFault) {
    auto e = make_engine();
    kelva *k = e.get();
    k->ram[0xFFFFFF] = 0x42;
    EXPECT_EQ(read8(k, 0xFFFFFF), 0x42u);
    EXPECT_EQ(k->fault, 0);
    write8(k, 0xFFFFFF, 0x43);
    EXPECT_EQ(k->fault, 0);

    EXPECT_EQ(read16(k, 0xFFFFFF), 0xFFFFu);
    EXPECT_EQ(k->fault, 2);

    k->fault = 0;
    EXPECT_EQ(read32(k, 0xFFFFFD), 0xFFFFFFFFu);
    EXPECT_EQ(k->fault, 2);

    k->fault = 0;
    k->ram[0xFFFFFE] = 0x11;
    write32(k, 0xFFFFFE, 0xDEADBEEF);
    EXPECT_EQ(k->fault, 2);
    EXPECT_EQ(k->ram[0xFFFFFE], 0x11);
    EXPECT_EQ(k->ram[0xFFFFFF], 0x43);

    k->fault = 0;
    write16(k, 0xFFFFFF, 0x1234);
    EXPECT_EQ(k->fault, 2);
    EXPECT_EQ(k->ram[0xFFFFFF], 0x43);

    // The last whole long is fine.
    k->fault = 0;
    write32(k, 0xFFFFFC, 0x01020304);
    EXPECT_EQ(read32(k, 0xFFFFFC), 0x01020304u);
    EXPECT_EQ(k->fault, 0);
}

}  // namespace
