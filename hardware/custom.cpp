// Custom-chip registers at $DFF000-$DFF1FF: DMA control, interrupt
// enable/request, ADKCON, the beam position and the four audio channels.
// Register names follow the hardware manual. Everything not modelled reads
// as 0 and ignores writes. Interrupts are not raised here: the render loop
// reads INTREQ/INTENA after each chunk and calls the player's handlers.
#include <cstdio>

#include "engine/engine.h"
#include "hardware/bus.h"

namespace {

constexpr uint16_t kDmaen = 0x0200;       // DMACON bit 9, master enable
constexpr uint16_t kAudIntBits = 0x0780;  // INTREQ bits 7-10, AUD0-AUD3
constexpr uint32_t kCyclesPerLine = 454;  // 227 colour clocks
constexpr uint32_t kLinesPerFrame = 313;  // PAL, no long/short frame
constexpr uint32_t kColourClockCycles = 2;

// SET/CLR register semantics: bit 15 selects set or clear, and is never stored.
uint16_t set_clear(uint16_t reg, uint32_t v) {
    if (v & 0x8000) return uint16_t(reg | (v & 0x7FFF));
    return uint16_t(reg & ~v);
}

// A channel's audio DMA runs when DMAEN and its AUDxEN are both set.
bool channel_dma_on(uint16_t dmacon, int x) {
    return (dmacon & kDmaen) && (dmacon & (1u << x));
}

void write_dmacon(kelva *k, uint32_t v) {
    uint16_t old_v = k->dmacon;
    uint16_t new_v = set_clear(old_v, v);
    k->dmacon = new_v;
    if (k->reg_trace && new_v != old_v)
        fprintf(stderr, "[trace] pc=%08x DMACON %04x -> %04x\n", k->pc, old_v, new_v);
    // Only audio DMA exists here; bitplane, copper, blitter, disk and sprite
    // enables are stored and do nothing else.
    for (int x = 0; x < 4; x++) {
        bool was = channel_dma_on(old_v, x);
        bool is = channel_dma_on(new_v, x);
        if (was && !is) paula_dma_stop(k, x);
        if (!was && is) paula_dma_start(k, x);
    }
}

// Writes to AUDxLCH/AUDxLCL/AUDxLEN/AUDxPER/AUDxVOL; `s` is the offset
// inside the channel's 16-byte register group.
void write_audio(kelva *k, int x, uint32_t s, uint32_t v) {
    audio_latch &a = k->aud[x];
    switch (s) {
    case 0x0: {  // AUDxLCH: high word of the location only; queues nothing
        a.lc = (a.lc & 0x0000FFFF) | (v << 16);
        break;
    }
    case 0x2: {  // AUDxLCL: completes the location and queues the block
        uint32_t lc = (a.lc & 0xFFFF0000) | v;
        if (k->reg_trace && lc != a.lc) fprintf(stderr, "[trace] pc=%08x AUD%uLC = %08x\n", k->pc, unsigned(x), lc);
        a.lc = lc;
        // Only the low word queues, so a long write (high then low) queues once.
        if (channel_dma_on(k->dmacon, x)) channel_queue(k, x);
        break;
    }
    case 0x4: {  // AUDxLEN: block length in words, 0 = 65536
        if (k->reg_trace && v != a.len) fprintf(stderr, "[trace] pc=%08x AUD%uLEN = %u\n", k->pc, unsigned(x), v);
        a.len = uint16_t(v);
        if (channel_dma_on(k->dmacon, x)) channel_queue(k, x);
        break;
    }
    case 0x6: {  // AUDxPER: period in colour clocks, takes effect at the next tick
        if (k->reg_trace && v != a.per) fprintf(stderr, "[trace] pc=%08x AUD%uPER = %u\n", k->pc, unsigned(x), v);
        a.per = uint16_t(v);
        k->ch[x].step = paula_step(a.per);
        break;
    }
    case 0x8: {  // AUDxVOL: 7 bits stored, 64 and above play at full volume
        uint32_t vol = v & 127;
        if (k->reg_trace && vol != a.vol) fprintf(stderr, "[trace] pc=%08x AUD%uVOL = %u\n", k->pc, unsigned(x), vol);
        a.vol = uint8_t(vol);
        k->ch[x].volume = uint16_t(vol < 64 ? vol : 64);
        break;
    }
    default:  // AUDxDAT ($A) and the unassigned words: ignored
        break;
    }
}

}  // namespace

uint32_t custom_read_word(kelva *k, uint32_t address) {
    uint32_t r = address & 0x1FF;
    switch (r) {
    case 0x002:  // DMACONR
        return k->dmacon;
    case 0x004: {  // VPOSR: V8 in bit 0, no LOF, no chip id
        uint32_t line = uint32_t((k->cycles / kCyclesPerLine) % kLinesPerFrame);
        return (line >> 8) & 1;
    }
    case 0x006: {  // VHPOSR: V7-V0 in the high byte, H8-H1 in the low byte
        uint32_t line = uint32_t((k->cycles / kCyclesPerLine) % kLinesPerFrame);
        uint32_t hpos = uint32_t((k->cycles / kColourClockCycles) % (kCyclesPerLine / kColourClockCycles));
        return (line & 0xFF) << 8 | hpos;
    }
    case 0x010:  // ADKCONR
        return k->adkcon;
    case 0x01C:  // INTENAR
        return k->intena;
    case 0x01E:  // INTREQR
        // Audio requests read as set whenever DMA is on: real audio
        // interrupts are delivered to the handlers, so a routine that polls
        // an AUDx request bit (waiting for a sample to start) must find it set.
        // This deliberately ignores which channels are enabled.
        if (k->dmacon & kDmaen) return k->intreq | kAudIntBits;
        return k->intreq;
    default:  // everything else, odd offsets included
        return 0;
    }
}

void custom_write_word(kelva *k, uint32_t address, uint32_t value) {
    uint32_t r = address & 0x1FF;
    uint32_t v = value & 0xFFFF;
    switch (r) {
    case 0x096:  // DMACON
        write_dmacon(k, v);
        return;
    case 0x09A:  // INTENA: stored only; the render loop reads it
        k->intena = set_clear(k->intena, v);
        return;
    case 0x09C:  // INTREQ: stored only; writing neither raises nor acknowledges
        k->intreq = set_clear(k->intreq, v);
        return;
    case 0x09E:  // ADKCON: stored and read back; modulation has no effect
        k->adkcon = set_clear(k->adkcon, v);
        return;
    default:
        break;
    }
    if (r >= 0x0A0 && r < 0x0E0) {  // AUD0 ($0A0) .. AUD3 ($0D0)
        write_audio(k, int((r - 0x0A0) >> 4), r & 15, v);
        return;
    }
    // Any other register is not modelled.
}
