// Line-A host calls: the trap words that the library stubs hold. The word
// $Agnn names group g (bits 8-11) and function nn (bits 0-7). This file
// decodes the word and serves exec.library, the two CIA resources and the
// option lookup itself; dos.library and the player support functions have
// their own files.
//
// When the processor hands a trap word to op_line_a, the PC already points
// behind it, so the stub's RTS returns to the caller afterwards.
#include <cstdio>
#include <cstring>

#include "amigaos/amigaos.h"
#include "engine/engine.h"
#include "hardware/bus.h"

namespace {

constexpr uint16_t kSrC = 0x01;
constexpr uint16_t kSrV = 0x02;
constexpr uint16_t kSrZ = 0x04;
constexpr uint16_t kSrN = 0x08;

// The address space is 24 bits wide; reads past its end wrap like the bus.
constexpr uint32_t kAddrSpace = 0x1000000;

// An option table is a handful of entries; a count beyond this is garbage
// and is cut so that a hostile count cannot keep the host busy for long.
constexpr uint32_t kMaxOptionEntries = 65536;

// Base of a library by the first two letters of its name.
uint32_t library_base(const char *name) {
    struct prefix_base {
        const char *prefix;
        uint32_t base;
    };
    static constexpr prefix_base kLibraries[] = {
        {"ex", kExecBase}, {"do", kDosBase}, {"in", kLib2Base}, {"gr", kLib3Base}, {"ua", kUaBase},
    };
    for (const prefix_base &l : kLibraries)
        if (name[0] == l.prefix[0] && name[1] == l.prefix[1]) return l.base;
    return 0;
}

// AllocMem: a bump allocator over the slab. Nothing is ever freed.
void exec_alloc_mem(kelva *k) {
    uint64_t n = (uint64_t(k->d[0]) + 3) & ~uint64_t(3);
    uint64_t start = k->alloc_ptr;
    if (start + n > kSlabEnd) {
        k->d[0] = 0;
        return;
    }
    for (uint64_t i = 0; i < n; i++) write8(k, uint32_t(start + i), 0);
    k->d[0] = uint32_t(start);
    k->alloc_ptr = uint32_t(start + n);
}

void exec_open_library(kelva *k) {
    char name[64];
    amiga_read_string(k, k->a[1], name, sizeof name);
    k->d[0] = library_base(name);
}

uint32_t exec_type_of_mem(uint32_t addr) {
    if (addr < kPlayerBase) return 3;   // MEMF_PUBLIC | MEMF_CHIP
    if (addr < kExecBase) return 5;     // MEMF_PUBLIC | MEMF_FAST
    return 0;
}

void exec_open_resource(kelva *k) {
    char name[16];
    amiga_read_string(k, k->a[1], name, sizeof name);
    k->d[0] = 0;
    if (strncmp(name, "cia", 3) != 0) return;
    if (name[3] == 'a') k->d[0] = kCiaAResource;
    if (name[3] == 'b') k->d[0] = kCiaBResource;
}

// Cause: run the interrupt's code at once. Its RTS returns to whoever
// called the library function, because the stub's own RTS is skipped.
void exec_cause(kelva *k) {
    uint32_t is = k->a[1];
    uint32_t code = read32(k, is + 18);
    if (code != 0) {
        k->a[1] = read32(k, is + 14);
        k->pc = code;
    }
    k->d[0] = 0;
}

void exec_dispatch(kelva *k, uint32_t fn) {
    switch (fn) {
    case 0: exec_alloc_mem(k); break;
    case 1: k->d[0] = 0; break;   // FreeMem: memory is never returned
    case 2: exec_open_library(k); break;
    case 3: k->d[0] = 0; break;   // CloseLibrary
    case 4: k->d[0] = exec_type_of_mem(k->a[1]); break;
    case 5: exec_open_resource(k); break;
    case 6:   // AddIntServer
        k->int_vectors[k->d[0] & 15] = k->a[1];
        k->d[0] = 0;
        break;
    case 7: {   // SetIntVector
        uint32_t &slot = k->int_vectors[k->d[0] & 15];
        k->d[0] = slot;
        slot = k->a[1];
        break;
    }
    case 8: exec_cause(k); break;
    default:
        fprintf(stderr, "libs_exec_dispatch: unimplemented exec fn %u (D0=%08x A0=%08x A1=%08x)\n", fn,
                k->d[0], k->a[0], k->a[1]);
        k->d[0] = 0;
        break;
    }
}

// ciaa.resource / ciab.resource: interrupt vectors on the CIA's ICR bits.
void cia_resource(kelva *k, cia_state *c, uint32_t fn) {
    switch (fn) {
    case 1: {   // AddICRVector
        uint32_t b = k->d[0] & 7;
        if (b < 5) {
            c->handlers[b] = k->a[1];
            c->icr_mask = uint8_t(c->icr_mask | (1u << b));
        }
        k->d[0] = 0;
        break;
    }
    case 2: {   // RemICRVector: D0 stays as it was
        uint32_t b = k->d[0] & 7;
        if (b <= 4) {
            c->handlers[b] = 0;
            c->icr_mask = uint8_t(c->icr_mask & ~(1u << b));
        }
        break;
    }
    case 3: {   // AbleICR
        uint8_t old = c->icr_mask;
        uint8_t bits = uint8_t(k->d[0] & 31);
        if (k->d[0] & 0x80)
            c->icr_mask = uint8_t(c->icr_mask | bits);
        else
            c->icr_mask = uint8_t(c->icr_mask & ~bits);
        k->d[0] = old;
        break;
    }
    case 4: {   // SetICR: clears the given flags, reports which were set
        uint8_t old = c->icr_data;
        c->icr_data = uint8_t(c->icr_data & ~k->d[0]);
        k->d[0] = old & k->d[0];
        break;
    }
    default: k->d[0] = 0; break;
    }
}

// Option lookup: A0 -> { count, count x { name, flag byte, result buffer } }.
// An entry matches when "name:" begins the module's type tag; the whole tag
// is then copied to its result buffer.
void option_lookup(kelva *k) {
    uint32_t table = k->a[0];
    uint32_t count = read32(k, table);
    if (count > kMaxOptionEntries) count = kMaxOptionEntries;
    size_t tag_len = strnlen(k->epopt, sizeof k->epopt - 1);
    for (uint32_t i = 0; i < count; i++) {
        uint32_t entry = table + 4 + 12 * i;
        uint32_t name = read32(k, entry);
        uint32_t flag = read32(k, entry + 4);
        uint32_t result = read32(k, entry + 8);
        bool match = false;
        if (tag_len > 0) {
            size_t n = 0;
            while (n < tag_len) {
                uint32_t c = read8(k, name + uint32_t(n));
                if (c == 0 || c != uint8_t(k->epopt[n])) break;
                n++;
            }
            match = n < tag_len && read8(k, name + uint32_t(n)) == 0 && k->epopt[n] == ':';
        }
        if (match) {
            for (size_t j = 0; j <= tag_len; j++) write8(k, result + uint32_t(j), uint8_t(k->epopt[j]));
        }
        write8(k, flag, match ? 1 : 0);
        if (k->fault) break;
    }
    k->d[0] = 0;
}

}  // namespace

void trap_set_cc_from_d0(kelva *k) {
    uint16_t sr = uint16_t(k->sr & ~(kSrN | kSrZ | kSrV | kSrC));
    if (k->d[0] & 0x80000000u) sr |= kSrN;
    if (k->d[0] == 0) sr |= kSrZ;
    k->sr = sr;
}

void amiga_read_string(kelva *k, uint32_t addr, char *out, uint32_t max) {
    if (max == 0) return;
    uint32_t i = 0;
    for (; i + 1 < max && i < kAddrSpace; i++) {
        uint32_t c = read8(k, addr + i);
        if (c == 0) break;
        out[i] = char(c);
    }
    out[i] = '\0';
}

void op_line_a(kelva *k, uint16_t opcode) {
    uint32_t group = (opcode >> 8) & 15;
    uint32_t fn = opcode & 0xFF;
    switch (group) {
    case 1:
        if (fn == 6)
            dos_load_seg(k);
        else if (fn == 7)
            k->d[0] = 0;   // UnLoadSeg: segments are never released
        else
            dos_dispatch(k, fn);
        break;
    case 4: deli_support_call(k, fn); break;
    case 5: deli_support_negative(k); break;
    case 6: cia_resource(k, &k->cia[0], fn); break;
    case 7: cia_resource(k, &k->cia[1], fn); break;
    case 8:
        if (fn == 0)
            option_lookup(k);
        else
            k->d[0] = 0;
        break;
    default: exec_dispatch(k, fn); break;
    }
    trap_set_cc_from_d0(k);
}
