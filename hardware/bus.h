// The memory bus: every access of the emulated 68000 (and of the engine on
// its behalf) goes through these six functions. The address space is 24 bits
// of big-endian RAM with two holes: the custom-chip registers at
// $DFF000-$DFF1FF and the CIAs at $BFD000-$BFEFFF. There is no alignment
// check; a word or long that runs off the end of the space sets fault code 2.
//
// The RAM path is the fall-through after the custom and CIA range compares,
// so these are inline: the opcode handlers are built around them.
#pragma once

#include <cstdint>

#include "engine/engine.h"

// Custom chips (custom.cpp). The register is address & 0x1FF.
uint32_t custom_read_word(kelva *k, uint32_t address);
void custom_write_word(kelva *k, uint32_t address, uint32_t value);

// CIAs (cia.cpp). CIA-A when address bits 12-15 are 0xE, else CIA-B; the
// register is address bits 8-11.
uint32_t cia_read(kelva *k, uint32_t address);
void cia_write(kelva *k, uint32_t address, uint32_t value);

// Out-of-line paths for accesses that touch the I/O ranges.
uint32_t bus_read16_io(kelva *k, uint32_t a);
uint32_t bus_read32_io(kelva *k, uint32_t a);
void bus_write16_io(kelva *k, uint32_t a, uint32_t v);
void bus_write32_io(kelva *k, uint32_t a, uint32_t v);

constexpr uint32_t kCustomBase = 0xDFF000;
constexpr uint32_t kCustomSize = 0x200;
constexpr uint32_t kCiaLo = 0xBFD000;
constexpr uint32_t kCiaHi = 0xBFEFFF;

inline bool bus_in_custom(uint32_t a) { return a - kCustomBase < kCustomSize; }
inline bool bus_in_cia(uint32_t a) { return a - kCiaLo <= kCiaHi - kCiaLo; }

inline uint32_t read8(kelva *k, uint32_t addr) {
    uint32_t a = addr & kAddrMask;
    if (__builtin_expect(bus_in_custom(a), 0)) {
        uint32_t w = custom_read_word(k, a & 0xFFFFFE);
        return (a & 1) ? (w & 0xFF) : (w >> 8);
    }
    if (__builtin_expect(bus_in_cia(a), 0)) return cia_read(k, a);
    return k->ram[a];
}

inline uint32_t read16(kelva *k, uint32_t addr) {
    uint32_t a = addr & kAddrMask;
    // One compare covers the custom block and the CIA window (a word that
    // starts at $BFCFFF reaches into it); both go to the slow path.
    if (__builtin_expect(bus_in_custom(a) || a - (kCiaLo - 1) <= kCiaHi - (kCiaLo - 1), 0))
        return bus_read16_io(k, a);
    if (__builtin_expect(a == kAddrMask, 0)) {
        k->fault = 2;
        return 0xFFFF;
    }
    return uint32_t(k->ram[a]) << 8 | k->ram[a + 1];
}

inline uint32_t read32(kelva *k, uint32_t addr) {
    uint32_t a = addr & kAddrMask;
    if (__builtin_expect(bus_in_custom(a) || a - (kCiaLo - 3) <= kCiaHi - (kCiaLo - 3), 0))
        return bus_read32_io(k, a);
    if (__builtin_expect(a > kAddrMask - 3, 0)) {
        k->fault = 2;
        return 0xFFFFFFFF;
    }
    const uint8_t *p = k->ram + a;
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

inline void write8(kelva *k, uint32_t addr, uint32_t v) {
    uint32_t a = addr & kAddrMask;
    if (__builtin_expect(bus_in_custom(a), 0)) {
        v &= 0xFF;
        custom_write_word(k, a & 0xFFFFFE, v << 8 | v);
        return;
    }
    if (__builtin_expect(bus_in_cia(a), 0)) {
        cia_write(k, a, v & 0xFF);
        return;
    }
    k->ram[a] = uint8_t(v);
}

inline void write16(kelva *k, uint32_t addr, uint32_t v) {
    uint32_t a = addr & kAddrMask;
    if (__builtin_expect(bus_in_custom(a) || a - (kCiaLo - 1) <= kCiaHi - (kCiaLo - 1), 0)) {
        bus_write16_io(k, a, v);
        return;
    }
    if (__builtin_expect(a == kAddrMask, 0)) {
        k->fault = 2;
        return;
    }
    k->ram[a] = uint8_t(v >> 8);
    k->ram[a + 1] = uint8_t(v);
}

inline void write32(kelva *k, uint32_t addr, uint32_t v) {
    uint32_t a = addr & kAddrMask;
    if (__builtin_expect(bus_in_custom(a) || a - (kCiaLo - 3) <= kCiaHi - (kCiaLo - 3), 0)) {
        bus_write32_io(k, a, v);
        return;
    }
    if (__builtin_expect(a > kAddrMask - 3, 0)) {
        k->fault = 2;
        return;
    }
    uint8_t *p = k->ram + a;
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}
