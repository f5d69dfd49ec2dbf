// AmigaOS hunk executables: header parsing, loading with 32-bit
// relocation, and LoadSeg-style segment lists in the allocation slab.
//
// Every read of the file goes through a cursor that knows the buffer's size,
// so a truncated or hostile file ends in a message, never in a read past
// the buffer. Writes into emulated memory go through the bus, which masks
// addresses to 24 bits; relocation offsets are checked against the hunk's
// size besides, so a reloc cannot patch memory outside its own hunk.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "amigaos/amigaos.h"
#include "engine/engine.h"
#include "hardware/bus.h"
#include "selection/datatree.h"

namespace {

constexpr uint32_t HUNK_NAME = 0x3E8;
constexpr uint32_t HUNK_CODE = 0x3E9;
constexpr uint32_t HUNK_DATA = 0x3EA;
constexpr uint32_t HUNK_BSS = 0x3EB;
constexpr uint32_t HUNK_RELOC32 = 0x3EC;
constexpr uint32_t HUNK_SYMBOL = 0x3F0;
constexpr uint32_t HUNK_DEBUG = 0x3F1;
constexpr uint32_t HUNK_END = 0x3F2;
constexpr uint32_t HUNK_HEADER = 0x3F3;
constexpr uint32_t kMaxHunks = 64;
// All hunks together must fit the address space; anything larger is not a
// real program and would only make the loader clear memory for a long time.
constexpr uint64_t kMaxTotalSize = kRamSize;

// A bounded reader over the file buffer.
struct cursor {
    const uint8_t *data;
    uint32_t size;
    uint64_t pos;

    bool has(uint64_t bytes) const { return pos <= size && bytes <= size - pos; }
    // Reads one big-endian long; false (cursor unchanged) past the end.
    bool get(uint32_t *v) {
        if (!has(4)) return false;
        const uint8_t *p = data + pos;
        *v = uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
        pos += 4;
        return true;
    }
    // Skips `longs` longs; false if that passes the end (the cursor then
    // stands at the end).
    bool skip(uint64_t longs) {
        if (!has(longs * 4)) {
            pos = size;
            return false;
        }
        pos += longs * 4;
        return true;
    }
};

// Applies one HUNK_RELOC32 block for hunk h. Returns 1, or 0 after its message.
int apply_reloc32(kelva *k, cursor &c, uint32_t h) {
    for (;;) {
        uint32_t n, target;
        if (!c.get(&n)) {
            fprintf(stderr, "hunk: short reloc32\n");
            return 0;
        }
        if (n == 0) return 1;
        if (!c.get(&target)) {
            fprintf(stderr, "hunk: short reloc32\n");
            return 0;
        }
        if (target >= k->hunk_count) {
            fprintf(stderr, "hunk: reloc target %u out of range\n", target);
            return 0;
        }
        for (uint32_t i = 0; i < n; i++) {
            uint32_t off;
            if (!c.get(&off)) {
                fprintf(stderr, "hunk: short reloc32\n");
                return 0;
            }
            if (k->hunk_size[h] < 4 || off > k->hunk_size[h] - 4) {
                fprintf(stderr, "hunk: reloc offset %08x outside hunk %u\n", off, h);
                return 0;
            }
            uint32_t at = k->hunk_addr[h] + off;
            write32(k, at, read32(k, at) + k->hunk_addr[target]);
        }
    }
}

}  // namespace

int hunk_parse_header(kelva *k, const uint8_t *data, uint32_t size, uint32_t *offset) {
    cursor c{data, data ? size : 0, 0};
    uint32_t v;
    if (c.size < 8 || !c.get(&v) || v != HUNK_HEADER) {
        fprintf(stderr, "hunk: missing HUNK_HEADER\n");
        return 0;
    }
    // Resident-library names: counted strings until a zero count.
    for (;;) {
        if (!c.get(&v)) {
            fprintf(stderr, "hunk: truncated header\n");
            return 0;
        }
        if (v == 0) break;
        if (!c.skip(v)) {
            fprintf(stderr, "hunk: truncated header\n");
            return 0;
        }
    }
    uint32_t count, first, last;
    if (!c.get(&count)) {
        fprintf(stderr, "hunk: truncated header\n");
        return 0;
    }
    if (count < 1 || count > kMaxHunks) {
        fprintf(stderr, "hunk: bad hunk count (%u)\n", count);
        return 0;
    }
    if (!c.get(&first) || !c.get(&last)) {
        fprintf(stderr, "hunk: truncated header\n");
        return 0;
    }
    uint64_t total = 0;
    for (uint32_t h = 0; h < count; h++) {
        if (!c.get(&v)) {
            fprintf(stderr, "hunk: truncated header\n");
            return 0;
        }
        // The top two bits are memory flags; both set means an extra long
        // of memory attributes follows. All hunks go to the same memory.
        if ((v & 0xE0000000) == 0xC0000000) {
            uint32_t attributes;
            if (!c.get(&attributes)) {
                fprintf(stderr, "hunk: truncated header\n");
                return 0;
            }
        }
        k->hunk_size[h] = (v & 0x1FFFFFFF) * 4;
        total += k->hunk_size[h];
    }
    if (total > kMaxTotalSize) {
        fprintf(stderr, "hunk: hunks too large (%llu bytes)\n", static_cast<unsigned long long>(total));
        return 0;
    }
    k->hunk_count = count;
    *offset = uint32_t(c.pos);
    return 1;
}

int hunk_read_contents(kelva *k, const uint8_t *data, uint32_t size, uint32_t offset) {
    cursor c{data, data ? size : 0, offset};
    for (uint32_t h = 0; h < k->hunk_count; h++) {
        uint32_t tag, n;
        if (!c.get(&tag)) {
            fprintf(stderr, "hunk: truncated at hunk %u\n", h);
            return 0;
        }
        tag &= 0x1FFFFFFF;
        uint32_t at = k->hunk_addr[h];
        if (tag == HUNK_CODE || tag == HUNK_DATA) {
            if (!c.get(&n) || !c.has(uint64_t(n) * 4)) {
                fprintf(stderr, "hunk: short hunk %u\n", h);
                return 0;
            }
            const uint8_t *src = c.data + c.pos;
            for (uint32_t i = 0; i < n * 4; i++) write8(k, at + i, src[i]);
            c.pos += uint64_t(n) * 4;
        } else if (tag == HUNK_BSS) {
            if (!c.get(&n)) {
                fprintf(stderr, "hunk: short hunk %u\n", h);
                return 0;
            }
            // A BSS count beyond what the header reserved for the hunk is
            // not honoured: it would only clear the hunks that follow (and a
            // hostile count would keep the loader busy for seconds).
            uint64_t bytes = uint64_t(n) * 4;
            if (bytes > k->hunk_size[h]) bytes = k->hunk_size[h];
            for (uint64_t i = 0; i < bytes; i++) write8(k, at + uint32_t(i), 0);
        } else {
            fprintf(stderr, "hunk: unexpected tag %08x at hunk %u\n", tag, h);
            return 0;
        }

        // Sub-tags until HUNK_END; the data may also just end here.
        uint32_t sub;
        while (c.get(&sub)) {
            if (sub < 1000 || sub > 1010) {
                fprintf(stderr, "hunk: unhandled sub-tag %08x\n", sub);
                return 0;
            }
            if (sub == HUNK_END) break;
            if (sub == HUNK_NAME || sub == HUNK_DEBUG) {
                if (c.get(&n)) c.skip(n);
            } else if (sub == HUNK_SYMBOL) {
                for (;;) {
                    uint32_t len;
                    if (!c.get(&len)) return 0;
                    if (len == 0) break;
                    if (!c.skip(uint64_t(len) + 1)) return 0;
                }
            } else if (sub == HUNK_RELOC32) {
                if (!apply_reloc32(k, c, h)) return 0;
            } else {
                fprintf(stderr, "hunk: unhandled sub-tag %08x\n", sub);
                return 0;
            }
        }
    }
    return 1;
}

namespace {

// LoadSeg itself: the name at D1, the result in D0; uses the engine's hunk
// table while it works.
void load_seg(kelva *k) {
    char name[512];
    amiga_read_string(k, k->d[1], name, sizeof name);
    k->d[0] = 0;

    uint8_t *data = nullptr;
    uint32_t size = 0;
    if (!host_load_file(k, name, &data, &size)) return;

    uint32_t offset = 0;
    if (!hunk_parse_header(k, data, size, &offset)) {
        free(data);
        return;
    }

    uint32_t blocks[kMaxHunks];
    for (uint32_t h = 0; h < k->hunk_count; h++) {
        uint64_t need = (uint64_t(k->hunk_size[h]) + 11) & ~uint64_t(3);
        if (k->alloc_ptr == 0 || uint64_t(k->alloc_ptr) + need > kSlabEnd) {
            fprintf(stderr, "hunk_load_seglist: out of AllocMem slab\n");
            free(data);
            return;
        }
        uint32_t block = k->alloc_ptr;
        k->alloc_ptr += uint32_t(need);
        memset(k->ram + block, 0, need);   // the slab is plain RAM
        ram_put32(k, block, k->hunk_size[h] + 8);
        blocks[h] = block;
        k->hunk_addr[h] = block + 8;
    }
    // Each segment's link long holds the BCPL pointer to the next one's.
    for (uint32_t h = 0; h < k->hunk_count; h++)
        ram_put32(k, blocks[h] + 4, h + 1 < k->hunk_count ? (blocks[h + 1] + 4) >> 2 : 0);

    if (hunk_read_contents(k, data, size, offset)) k->d[0] = (blocks[0] + 4) >> 2;
    free(data);
}

}  // namespace

int hunk_load_player(kelva *k, const uint8_t *data, uint32_t size) {
    uint32_t offset = 0;
    if (!hunk_parse_header(k, data, size, &offset)) return 0;
    uint32_t addr = kPlayerBase;
    for (uint32_t h = 0; h < k->hunk_count; h++) {
        k->hunk_addr[h] = addr;
        addr += k->hunk_size[h];
    }
    return hunk_read_contents(k, data, size, offset);
}

void dos_load_seg(kelva *k) {
    // The hunk table describes the running player; a LoadSeg borrows it and
    // gives it back unchanged.
    uint32_t count = k->hunk_count;
    uint32_t addr[kMaxHunks], size[kMaxHunks];
    memcpy(addr, k->hunk_addr, sizeof addr);
    memcpy(size, k->hunk_size, sizeof size);
    load_seg(k);
    k->hunk_count = count;
    memcpy(k->hunk_addr, addr, sizeof addr);
    memcpy(k->hunk_size, size, sizeof size);
}
