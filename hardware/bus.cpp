// Slow paths of the memory bus: word and long accesses that touch the
// custom-register block or the CIA window. `a` is already masked to 24 bits.
#include "hardware/bus.h"

uint32_t bus_read16_io(kelva *k, uint32_t a) {
    if (bus_in_custom(a)) return custom_read_word(k, a);
    // $BFCFFF-$BFEFFF: two byte reads, each routed by its own address.
    return read8(k, a) << 8 | read8(k, a + 1);
}

uint32_t bus_read32_io(kelva *k, uint32_t a) {
    if (bus_in_custom(a)) return custom_read_word(k, a) << 16 | custom_read_word(k, a + 2);
    // $BFCFFD-$BFEFFF: four byte reads, most significant first.
    return read8(k, a) << 24 | read8(k, a + 1) << 16 | read8(k, a + 2) << 8 | read8(k, a + 3);
}

void bus_write16_io(kelva *k, uint32_t a, uint32_t v) {
    if (bus_in_custom(a)) {
        // Not forced even: an odd address selects no register.
        custom_write_word(k, a, v & 0xFFFF);
        return;
    }
    if (a == kCiaLo - 1) {
        // Straddles into the CIA window from below.
        k->ram[a] = uint8_t(v >> 8);
        cia_write(k, kCiaLo, v & 0xFF);
        return;
    }
    cia_write(k, a, (v >> 8) & 0xFF);
    if (a == kCiaHi)
        k->ram[kCiaHi + 1] = uint8_t(v);   // the low byte lands past the window
    else
        cia_write(k, a + 1, v & 0xFF);
}

void bus_write32_io(kelva *k, uint32_t a, uint32_t v) {
    if (bus_in_custom(a)) {
        custom_write_word(k, a, v >> 16);
        custom_write_word(k, a + 2, v & 0xFFFF);
        return;
    }
    // Four byte stores, each to the CIA inside the window, to RAM outside.
    for (int i = 0; i < 4; i++) {
        uint32_t b = a + uint32_t(i);
        uint32_t byte = (v >> (24 - 8 * i)) & 0xFF;
        if (bus_in_cia(b))
            cia_write(k, b, byte);
        else
            k->ram[b & kAddrMask] = uint8_t(byte);
    }
}
