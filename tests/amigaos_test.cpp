// The OS layer: hunk loader and LoadSeg, dos.library handles, exec and CIA line-A calls, player support functions.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "amigaos/amigaos.h"
#include "cpu/cpu.h"
#include "engine/call.h"
#include "hardware/bus.h"
#include "support/services.h"
#include "support/test_support.h"

namespace {

using U = std::vector<uint32_t>;
using W = std::vector<uint16_t>;

// A valid two-hunk executable, as longs. Indices name the fields the cases change.
const U kValid = {
    0x3F3, 0, 2, 0, 1,   // [0] HUNK_HEADER, [1] no resident names, [2] 2 hunks, [3,4] first and last
    3, 2,                // [5,6] sizes in longs
    0x3E9, 3,            // [7,8] hunk 0: HUNK_CODE, 3 longs:
    0x4E714E71,          // [9]   nop; nop
    0x00000004,          // [10]  a pointer to hunk 1 + 4 (relocated)
    0x4E754E75,          // [11]  rts; rts
    0x3EC, 1, 1, 4, 0,   // [12-16] HUNK_RELOC32: one offset into hunk 1, at offset 4; end
    0x3F2,               // [17]  HUNK_END
    0x3EA, 2,            // [18,19] hunk 1: HUNK_DATA, 2 longs
    0x11111111, 0x22222222,
    0x3F2,               // [22]  HUNK_END
};

// A NUL-terminated string in emulated memory (addresses wrap at 16 MiB).
void put_string(kelva *k, uint32_t addr, const char *s) {
    for (size_t i = 0; i <= strlen(s); i++) k->ram[(addr + i) & kAddrMask] = uint8_t(s[i]);
}
std::string get_string(kelva *k, uint32_t addr) {
    char buf[1024];
    amiga_read_string(k, addr, buf, sizeof buf);
    return buf;
}

std::vector<uint8_t> bytes(const U &longs) {
    std::vector<uint8_t> out;
    for (uint32_t v : longs) put_be32(out, v);
    return out;
}

// A fresh engine whose files come from `mem`.
struct Os : testing::Test {
    engine_ptr e = make_engine();
    kelva *k = e.get();
    memory_files mem;
    std::string err;
    Os() { kelva_set_file_loader(k, memory_loader, &mem); }
    uint32_t zn() const { return k->sr & (kSrZ | kSrN); }   // the flags a host call sets from D0
};

struct Hunk : Os {
    // Loads like the engine loads a player: hunks one after another from $200000.
    int load(const std::vector<uint8_t> &file) {
        int ok = 0;
        err = stderr_of([&] { ok = hunk_load_player(k, file.data(), uint32_t(file.size())); });
        return ok;
    }
    int load(const U &longs) { return load(bytes(longs)); }
    std::string refused(const std::vector<uint8_t> &file) { return load(file) ? "loaded" + err : err; }
    uint32_t at(uint32_t addr) { return ram_get32(k, addr); }
    U longs(uint32_t addr, uint32_t n) {
        U v;
        for (uint32_t i = 0; i < n; i++) v.push_back(at(addr + 4 * i));
        return v;
    }
};

TEST_F(Hunk, ValidImageLoadsAndRelocates) {
    ASSERT_EQ(refused(bytes(kValid)), "loaded");   // and nothing printed
    EXPECT_EQ((U{k->hunk_count, k->hunk_size[0], k->hunk_size[1]}), (U{2, 12, 8}));
    // Hunk 1 sits at $20000C.
    EXPECT_EQ(longs(0x200000, 5), (U{0x4E714E71, 0x20000C + 4, 0x4E754E75, 0x11111111, 0x22222222}));

    U v = kValid;
    v[15] = 8;   // the last long of the 12-byte hunk is still inside
    ASSERT_EQ(load(v), 1) << err;
    EXPECT_EQ(at(0x200008), 0x4E754E75u + 0x20000Cu);
    v.pop_back();   // hunk 1 without HUNK_END: the data just ends
    EXPECT_EQ(load(v), 1) << err;
}

TEST_F(Hunk, FailuresPrintOneExactLine) {
    // Each row sets long `at` of the valid image to `value`, or (at < 0) cuts the image to `value` longs.
    const struct { int at; uint32_t value; const char *message; } cases[] = {
        {0, 0x3E7, "missing HUNK_HEADER"}, {-1, 1, "missing HUNK_HEADER"}, {2, 65, "bad hunk count (65)"},
        {2, 0, "bad hunk count (0)"}, {-1, 4, "truncated header"}, {-1, 6, "truncated header"},
        {1, 5, "truncated header"} /* resident names running off the end */,
        // Sizes that add up beyond the address space are refused up front.
        {5, 0x1FFFFFFF, "hunks too large (2147483652 bytes)"}, {18, 0x3F5, "unexpected tag 000003f5 at hunk 1"},
        {8, 100, "short hunk 0"} /* more longs than the file holds */, {-1, 8, "short hunk 0"},
        {-1, 18, "truncated at hunk 1"}, {14, 3, "reloc target 3 out of range"},
        {15, 10, "reloc offset 0000000a outside hunk 0"} /* 2 bytes past the hunk */,
        {15, 0xFFFFFFFC, "reloc offset fffffffc outside hunk 0"}, {-1, 15, "short reloc32"}, {-1, 14, "short reloc32"},
        {12, 0x3ED, "unhandled sub-tag 000003ed"} /* HUNK_RELOC16 is not handled */,
        {12, 0x12345678, "unhandled sub-tag 12345678"}};
    for (const auto &c : cases) {
        U v = kValid;
        c.at < 0 ? v.resize(c.value) : void(v[size_t(c.at)] = c.value);
        EXPECT_EQ(refused(bytes(v)), "hunk: " + std::string(c.message) + "\n");
    }
    U three = kValid;   // three hunks announced, two in the file
    three[2] = 3, three[4] = 2;
    three.insert(three.begin() + 7, 1);
    EXPECT_EQ(refused(bytes(three)), "hunk: truncated at hunk 2\n");
    EXPECT_EQ(refused({0, 0, 3, 0xF3, 0, 0, 0}), "hunk: missing HUNK_HEADER\n");   // shorter than 8 bytes
}

TEST_F(Hunk, SkippedBlocksAndMaskedFlags) {
    U v = kValid;
    v[18] = 0x400003EA;   // memory flags on the hunk tag are masked off
    // HUNK_NAME ("ab", one long), HUNK_SYMBOL and HUNK_DEBUG before hunk 0's END.
    v.insert(v.begin() + 17, {0x3E8, 1, 0x61620000, 0x3F0, 1, 0x78000000, 0x10, 0, 0x3F1, 1, 0xDEADBEEF});
    v[5] = 0xC0000003;                    // both flag bits: one attribute long follows
    v.insert(v.begin() + 6, 0x00000001);
    v.insert(v.begin() + 1, {2, 0x41424344, 0x45460000});   // a resident name of 2 longs
    ASSERT_EQ(load(v), 1) << err;
    EXPECT_EQ((U{k->hunk_size[0], k->hunk_size[1], at(0x200004), at(0x200010)}), (U{12, 8, 0x200010, 0x22222222}));

    // A symbol block that ends the file (hunk 1 without HUNK_END) is read exactly to its end.
    v = kValid;
    v.back() = 0x3F0;
    v.insert(v.end(), {5, 0x61626364, 0x65666768, 0x696A6B6C, 0x6D6E6F70, 0x71727374, 0x10, 0});
    EXPECT_EQ(load(v), 1) << err;
}

TEST_F(Hunk, EmptyHunksBssClearingAndTheHunkCount) {
    // An empty code hunk and a 16-byte BSS hunk.
    U v = {0x3F3, 0, 2, 0, 1, 0, 4, 0x3E9, 0, 0x3F2, 0x3EB, 4, 0x3F2};
    for (uint32_t count : {4u, 0x3FFFFFFFu}) {   // a larger BSS count clears only the hunk
        memset(k->ram + 0x200000, 0xAA, 64);
        v[11] = count;
        ASSERT_EQ(load(v), 1) << err;
        for (uint32_t i = 0; i < 16; i++) EXPECT_EQ(k->ram[0x200000 + i], 0) << i;
        EXPECT_EQ(k->ram[0x200010], 0xAA);
    }
    U most = {0x3F3, 0, 64, 0, 63};   // 64 empty code hunks: the most a file may have
    most.resize(5 + 64, 0);
    for (int h = 0; h < 64; h++) most.insert(most.end(), {0x3E9, 0, 0x3F2});
    EXPECT_EQ(load(most), 1) << err;
    EXPECT_EQ(k->hunk_count, 64u);
}

struct HunkLoadSeg : Hunk {
    void SetUp() override { mem.files["seg"] = bytes(kValid); }
    uint32_t load_seg(const char *name) {
        put_string(k, 0x1000, name);
        k->d[1] = 0x1000;
        k->d[0] = 55;
        err = stderr_of([&] { dos_load_seg(k); });
        return k->d[0];
    }
};

TEST_F(HunkLoadSeg, BuildsSegmentListsInTheSlabAndLeavesThePlayersHunksAlone) {
    k->hunk_count = 3;
    k->hunk_addr[1] = 0x200040;
    k->hunk_size[1] = 0x80;
    memset(k->ram + 0x400000, 0xAA, 0x100);
    // Two blocks: length, link and 12 bytes at $400000; 8 + 8 bytes after it.
    EXPECT_EQ(load_seg("seg"), (0x400000u + 4) >> 2);
    EXPECT_EQ(longs(0x400000, 10), (U{20, (0x400014 + 4) >> 2, 0x4E714E71, 0x40001C + 4, 0x4E754E75,   // length, link,
                                      16, 0, 0x11111111, 0x22222222, 0xAAAAAAAA}));                 // contents
    EXPECT_EQ((U{k->alloc_ptr, k->hunk_count, k->hunk_addr[1], k->hunk_size[1]}), (U{0x400024, 3, 0x200040, 0x80}));

    // A second LoadSeg: a separate list further up; hunk 1's third long (reserved, not in the file) reads zero.
    U v = kValid;
    v[6] = 3;
    mem.files["seg"] = bytes(v);
    EXPECT_EQ(load_seg("seg"), (0x400024u + 4) >> 2);
    EXPECT_EQ(at(0x400030), 0x400040u + 4);
    EXPECT_EQ(longs(0x400044, 3), (U{0x22222222, 0, 0xAAAAAAAA}));   // behind the block: untouched
    EXPECT_EQ(k->alloc_ptr, 0x40004Cu);
}

TEST_F(HunkLoadSeg, Failures) {
    U bad = kValid;
    bad[14] = 3;
    mem.files["bad"] = bytes(bad);
    EXPECT_EQ(load_seg("nothing"), 0u);   // missing: nothing printed
    EXPECT_EQ(err, "");
    EXPECT_EQ(load_seg("bad"), 0u);
    EXPECT_EQ(err, "hunk: reloc target 3 out of range\n");
    // Hunk 0's block (20 bytes) fits, hunk 1's (16) does not; exactly enough may end at the slab's end.
    for (uint32_t room : {0u, 24u, 36u}) {
        k->alloc_ptr = room ? kSlabEnd - room : 0;
        EXPECT_EQ(load_seg("seg"), room == 36 ? (kSlabEnd - 36 + 4) >> 2 : 0u) << room;
        EXPECT_EQ(err, room == 36 ? "" : "hunk_load_seglist: out of AllocMem slab\n") << room;
    }
    EXPECT_EQ(k->alloc_ptr, kSlabEnd);
    memset(k->ram + 0x1000, 'x', 2000);   // a name without a NUL is cut at 511 characters
    k->d[1] = 0x1000;
    dos_load_seg(k);
    EXPECT_EQ(mem.requests.back(), std::string(511, 'x'));
}

constexpr uint16_t kOpen = 0xA100, kClose = 0xA101, kRead = 0xA102, kSeek = 0xA103, kLock = 0xA104;
constexpr uint32_t kName = 0x300000, kBuf = 0x310000, kBad = 0xFFFFFFFF;
struct Dos : Os {
    void SetUp() override {
        for (int i = 0; i < 40; i++) mem.files["data/forty.bin"].push_back(uint8_t(100 + i));
    }
    uint32_t call(uint16_t word, uint32_t d1 = 0, uint32_t d2 = 0, uint32_t d3 = 0) {
        return k->d[1] = d1, k->d[2] = d2, k->d[3] = d3, op_line_a(k, word), k->d[0];
    }
    uint32_t named(uint16_t word, const char *name) { return put_string(k, kName, name), call(word, kName); }
    uint32_t pos() const { return k->files[0].position; }
};

TEST_F(Dos, ReadsContinueSeeksClampAtTheEnds) {
    uint32_t h = named(kOpen, "data/forty.bin");
    EXPECT_EQ((U{h, zn()}), (U{1, 0}));
    EXPECT_EQ((U{call(kRead, h, kBuf, 3), call(kRead, h, kBuf, 0), call(kRead, h, kBuf, 2), pos()}), (U{3, 0, 2, 5}));
    EXPECT_EQ((U{k->ram[kBuf], k->ram[kBuf + 1]}), (U{103, 104}));
    k->ram[kBuf + 35] = 0xEE;
    EXPECT_EQ(call(kRead, h, kBuf, 100), 35u);
    for (uint32_t i = 0; i < 35; i++) EXPECT_EQ(k->ram[kBuf + i], 105 + i) << i;
    EXPECT_EQ(k->ram[kBuf + 35], 0xEE);
    EXPECT_EQ((U{call(kRead, h, kBuf, 100), zn()}), (U{0, kSrZ}));
    // Seek(handle, offset, mode): mode < 0 from the start, 0 from the position, > 0 from the end; returns the old
    // position; clamps to [0, size].
    call(kSeek, h, 0, uint32_t(-1));
    const struct { uint32_t offset, mode, old, now; } cases[] = {
        {uint32_t(-10), 1, 0, 30}, {20, uint32_t(-1), 30, 20}, {uint32_t(-50), 0, 20, 0}, {1000, 0, 0, 40},
        {0x7FFFFFFF, 1, 40, 40}, {0x80000000u, uint32_t(-1), 40, 0}, {5, 0, 0, 5}, {3, 0, 5, 8}};
    for (auto c : cases)
        EXPECT_EQ((U{call(kSeek, h, c.offset, c.mode), pos()}), (U{c.old, c.now})) << int32_t(c.offset) << c.mode;
    EXPECT_EQ((U{call(kSeek, h, uint32_t(-10), 1), call(kRead, h, kBuf, 100), k->ram[kBuf]}), (U{8, 10, 130}));
}

TEST_F(Dos, EightHandlesAndBadOnes) {
    for (uint32_t i = 1; i <= 8; i++) EXPECT_EQ(named(kOpen, "data/forty.bin"), i);
    size_t loads = mem.requests.size();
    // The ninth fails without loading.
    EXPECT_EQ((U{named(kOpen, "data/forty.bin"), zn(), uint32_t(mem.requests.size() - loads)}), (U{0, kSrZ, 0}));
    EXPECT_EQ((U{call(kClose, 3), k->files[2].data == nullptr}), (U{kBad, 1}));   // -1 whatever happened
    for (uint32_t bad : {0u, 3u, 9u, kBad})
        EXPECT_EQ((U{call(kRead, bad, kBuf, 4), zn(), call(kSeek, bad, 0, 0), call(kClose, bad)}),
                  (U{kBad, kSrN, kBad, kBad})) << bad;
    EXPECT_EQ(k->files[7].size, 40u);   // close of 9 changed nothing
    EXPECT_EQ(named(kOpen, "data/forty.bin"), 3u);   // the first free slot is reused
    for (uint16_t word : {0xA105, 0xA107 /* UnLoadSeg */, 0xA1FF}) {   // the other functions do nothing
        k->d[0] = 9;
        EXPECT_EQ(call(word), 0u) << std::hex << word;
    }
}

TEST_F(Dos, MissingFilesEnvNamesLongNamesTheBusAndReset) {
    EXPECT_EQ(named(kOpen, "data/missing.bin") + named(kLock, "data/missing.bin"), 0u);
    EXPECT_EQ(named(kLock, "data/forty.bin"), 1u);
    for (const dos_handle &f : k->files) EXPECT_TRUE(f.data == nullptr);   // no lock is held
    EXPECT_EQ(named(kOpen, "ENV:Player/opts"), 0u);   // redirected into the data tree
    EXPECT_NE(mem.requests.back().find("players/ENV/Player/opts"), std::string::npos) << mem.requests.back();
    mem.files["vol"] = {0x00, 0x28};
    EXPECT_EQ(call(kRead, named(kOpen, "vol"), 0xDFF0A8, 2), 2u);   // AUD0VOL, through the bus byte by byte
    EXPECT_EQ((U{k->aud[0].vol, k->ram[0xDFF0A9]}), (U{0x28, 0}));
    memset(k->ram + 0x500000, 'n', kRamSize - 0x500000);   // a name without a NUL is cut at 511 characters
    memset(k->ram, 'n', 0x1000);
    EXPECT_EQ(call(kOpen, 0xFFFF00) + call(kLock, 0xFFFF00), 0u);
    EXPECT_EQ(std::vector<std::string>(mem.requests.end() - 2, mem.requests.end()),
              (std::vector<std::string>(2, std::string(511, 'n'))));
    kelva_reset(k, 48000);   // releases the open file (under the sanitizer a leak would show)
    for (const dos_handle &f : k->files) EXPECT_TRUE(f.data == nullptr);
}

struct LineA : Os {
    uint32_t trap(uint16_t word, uint32_t d0 = 0, uint32_t a1 = 0) {
        k->d[0] = d0, k->a[1] = a1;
        op_line_a(k, word);
        return k->d[0];
    }
};

TEST_F(LineA, AllocMemRoundsToLongsZeroesAndEndsAtTheSlabLimit) {
    memset(k->ram + kSlabStart, 0xEE, 16);
    EXPECT_EQ((U{trap(0xA000, 1), trap(0xA000, 6), k->alloc_ptr}), (U{kSlabStart, kSlabStart + 4, kSlabStart + 12}));
    for (uint32_t i = 0; i < 12; i++) EXPECT_EQ(k->ram[kSlabStart + i], 0) << i;
    EXPECT_EQ(k->ram[kSlabStart + 12], 0xEE);   // nothing beyond the block
    for (uint32_t size : {0xFFFFFFFFu, 0xFFFFFFFDu, 0x80000000u})   // fail instead of wrapping
        EXPECT_EQ(trap(0xA000, size), 0u) << std::hex << size;
    EXPECT_EQ(k->alloc_ptr, kSlabStart + 12);
    k->alloc_ptr = kSlabEnd - 0x20;
    EXPECT_EQ((U{trap(0xA000, 0x21), zn(), trap(0xA000, 0x20), k->alloc_ptr, zn()}),
              (U{0, kSrZ, kSlabEnd - 0x20, kSlabEnd, 0}));
}

TEST_F(LineA, LibrariesResourcesAndMemoryTypes) {
    const struct { uint16_t trap; const char *name; uint32_t base; } cases[] = {
        // OpenLibrary: by the first two letters; groups 2, 3 and 9 up are exec too.
        {0xA002, "exec.library", kExecBase}, {0xA002, "exotic.library", kExecBase}, {0xA002, "dos.library", kDosBase},
        {0xA002, "intuition.library", kLib2Base}, {0xA002, "graphics.library", kLib3Base},
        {0xA002, "uaopts.library", kUaBase}, {0xA002, "mathffp.library", 0}, {0xA002, "e", 0}, {0xA002, "", 0},
        {0xA202, "dos.library", kDosBase}, {0xAF02, "graphics.library", kLib3Base},
        // OpenResource: the two CIA resources only.
        {0xA005, "ciaa.resource", kCiaAResource}, {0xA005, "ciab.resource", kCiaBResource},
        {0xA005, "ciab", kCiaBResource}, {0xA005, "ciac.resource", 0}, {0xA005, "cia", 0},
        {0xA005, "misc.resource", 0}, {0xA005, "CIAA.resource", 0},
    };
    for (auto c : cases) {
        put_string(k, 0x300000, c.name);
        EXPECT_EQ((U{trap(c.trap, 0x55, 0x300000), zn()}), (U{c.base, uint32_t(c.base ? 0 : kSrZ)})) << c.name;
    }
    memset(k->ram + 0x300000, 'd', 0x1000);   // a name without a NUL is cut
    EXPECT_EQ(trap(0xA002, 0, 0x300000), 0u);
    k->ram[0x300001] = 'o';
    EXPECT_EQ(trap(0xA002, 0, 0x300000), kDosBase);
    EXPECT_EQ(trap(0xA300, 8), kSlabStart);
    // TypeOfMem, as a player calls it through exec's jump table (-534): chip below the player base, fast below the
    // libraries, nothing above.
    const std::pair<uint32_t, uint32_t> types[] = {{0, 3}, {0x1FFFFF, 3}, {0x200000, 5}, {0xF7FFFF, 5}, {0xF80000, 0},
                                                   {0xFFFFFF, 0}};
    const uint16_t type_of_mem = uint16_t(read16(k, kExecBase - 534));
    for (auto [addr, type] : types) EXPECT_EQ(trap(type_of_mem, 0, addr), type) << std::hex << addr;
}

TEST_F(LineA, InterruptsUnknownFunctionsAndConditionCodes) {
    EXPECT_EQ(trap(0xA006, 0x15, 0x201000), 0u);   // AddIntServer: the low four bits
    EXPECT_EQ((U{trap(0xA007, 6, 0x202000), zn()}), (U{0, kSrZ}));   // SetIntVector returns the previous handler
    EXPECT_EQ(trap(0xA007, 6, 0x203000), 0x202000u);
    EXPECT_EQ((U{k->int_vectors[5], k->int_vectors[6], k->int_vectors[7]}), (U{0x201000, 0x203000, 0}));
    k->pc = kExecBase - 180 + 2;   // Cause without interrupt code (is_Code at 18) does nothing
    EXPECT_EQ((U{trap(0xA008, 9, 0x300000), k->pc, k->a[1]}), (U{0, kExecBase - 180 + 2, 0x300000}));
    k->a[0] = 0x10;
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(trap(0xA009, 0xCAFE, 0x20), 0u); }),
              "libs_exec_dispatch: unimplemented exec fn 9 (D0=0000cafe A0=00000010 A1=00000020)\n");
    EXPECT_TRUE(k->sr & kSrZ);
    // The condition codes come from D0, X kept.
    k->sr = 0x2000 | kSrX | kSrV | kSrC | kSrZ;
    trap(0xA007, 5, 0x80000000);   // SetIntVector hands back a negative "handler"
    EXPECT_EQ(trap(0xA007, 5), 0x80000000u);
    EXPECT_EQ(k->sr, 0x2000 | kSrX | kSrN);
    k->sr = 0x2000 | kSrN | kSrC;
    trap(0xA001);
    EXPECT_EQ(k->sr, 0x2000 | kSrZ);
}

TEST_F(LineA, CiaResourceVectorsAndMasks) {
    auto state = [&](int c) { return U{k->cia[c].handlers[1], k->cia[c].icr_mask}; };
    EXPECT_EQ(trap(0xA601, 1, 0x205000), 0u);   // AddICRVector on CIA-A bit 1
    EXPECT_EQ(trap(0xA601, 5, 0x206000), 0u);   // no handler slot for bit 5
    EXPECT_EQ(state(0), (U{0x205000, 0x02}));
    EXPECT_EQ(trap(0xA602, 0x09), 0x09u);       // RemICRVector: bit 1 after masking with 7; D0 kept
    EXPECT_EQ(state(0), (U{0, 0}));
    trap(0xA701, 1, 0x205000);                  // CIA-B
    EXPECT_EQ(trap(0xA703, 0x02), 0x02u);       // AbleICR off: the old mask
    EXPECT_EQ(state(1), (U{0x205000, 0}));
    EXPECT_EQ(trap(0xA703, 0x82), 0x00u);       // and on again
    EXPECT_EQ(state(1), (U{0x205000, 0x02}));
    EXPECT_EQ(state(0), (U{0, 0}));
    k->cia[0].icr_data = 0x03;
    EXPECT_EQ(trap(0xA604, 0x01), 0x01u);       // SetICR clears the flags and reports them
    EXPECT_EQ(k->cia[0].icr_data, 0x02);
    EXPECT_EQ(trap(0xA604, 0x01), 0x00u);
}

// A0 -> { count, count x { name, flag byte, result buffer } }: an entry matches when "name:" begins the type tag, which
// is then copied whole.
TEST_F(LineA, OptionLookup) {
    const uint32_t table = 0x300000;
    auto result = [&](uint32_t i) { return get_string(k, table + 0x1000 + 0x100 * i); };
    auto lookup = [&](const char *tag, std::vector<const char *> names, uint32_t count, uint16_t word = 0xA800) {
        strcpy(k->epopt, tag);
        ram_put32(k, table, count);
        for (uint32_t i = 0; i < names.size(); i++) {
            put_string(k, table + 0x100 + 0x40 * i, names[i]);
            ram_put32(k, table + 4 + 12 * i, table + 0x100 + 0x40 * i);
            ram_put32(k, table + 8 + 12 * i, table + 0x800 + i);
            ram_put32(k, table + 12 + 12 * i, table + 0x1000 + 0x100 * i);
            k->ram[table + 0x800 + i] = 0x77;
        }
        k->a[0] = table;
        EXPECT_EQ(trap(word, 99), 0u) << tag;
        U flags;   // as the call left them
        for (uint32_t i = 0; i < names.size(); i++) flags.push_back(k->ram[table + 0x800 + i]);
        return flags;
    };
    EXPECT_EQ(lookup("type:pt30", {"type", "typ", "other", "type:"}, 4), (U{1, 0, 0, 0}));
    EXPECT_EQ(result(0) + result(1) + result(2) + result(3), "type:pt30");
    EXPECT_EQ(lookup("", {"type", ""}, 2), (U{0, 0}));   // an empty tag clears every flag
    EXPECT_EQ(lookup(":", {""}, 1), U{1});   // the shortest match: an empty name and the tag ":"
    EXPECT_EQ(result(0), ":");
    EXPECT_EQ(lookup("\x01:", {"\x01"}, 1), U{1});   // any byte but NUL compares
    EXPECT_EQ(lookup("type:pt30", {"type"}, 0), U{0x77});   // count 0 touches nothing
    EXPECT_EQ(lookup("type:pt30", {"type"}, 1, 0xA801), U{0x77});   // the group's other functions do nothing
}

struct Support : Os {
    void SetUp() override {   // what kelva_open leaves behind: the three path strings
        for (uint32_t i = 0; i < 3; i++) ram_put32(k, kGlobals + 24 + 4 * i, U{kPathDir, kPathFile, kPathFull}[i]);
        put_string(k, kPathDir, "mods/");
        put_string(k, kPathFile, "song.mod");
    }
    uint32_t fn(uint32_t n) { return op_line_a(k, uint16_t(0xA400 + n)), k->d[0]; }
    // Calls negative-offset entry `entry` as the stub at $F90000 - 6 x entry does.
    uint32_t neg(uint32_t entry) { return k->pc = kGlobals - 6 * entry + 2, op_line_a(k, 0xA500), k->d[0]; }
    uint32_t load(const char *name) { return put_string(k, kPathFull, name), fn(1); }
    std::string fails(const char *name) { return stderr_of([&] { EXPECT_EQ((U{load(name), zn()}), (U{1, 0})); }); }
    void timer(uint16_t value) { ram_put16(k, kGlobals + 54, value); }
};

TEST_F(Support, PathFunctionsBuildTheNameLoadFileOpensAndAppendStaysInTheSpace) {
    mem.files["mods/song.mod.smp"] = {1, 2, 3, 4};
    put_string(k, kPathFull, "");
    put_string(k, 0x300000, ".smp");
    k->a[0] = 0x300000;
    for (uint32_t n : {2u, 3u, 4u}) fn(n);   // directory, file, any string
    EXPECT_EQ(get_string(k, kPathFull), "mods/song.mod.smp");
    EXPECT_EQ(fn(1), 0u);
    EXPECT_EQ(k->comp_count, 1u);

    memset(k->ram, 'z', 8);
    put_string(k, 0xFFFFFC, "ab");
    put_string(k, 0x300000, "cdefg");
    deli_str_append(k, 0xFFFFFC, 0x300000);
    EXPECT_EQ(get_string(k, 0xFFFFFC), "abcdefg");   // "efg" and the NUL wrapped to $000000
    memset(k->ram, 'z', kRamSize);
    deli_str_append(k, 0x300000, 0x400000);   // neither string ends
    EXPECT_EQ((U{uint32_t(k->fault), k->ram[0x123456]}), (U{0, 'z'}));
}

TEST_F(Support, LoadFileGetListDataAndCompanionFailures) {
    mem.files["mods/smp.a"] = std::vector<uint8_t>(5, 0xAA);
    mem.files["mods/smp.b"] = std::vector<uint8_t>(8, 0xBB);
    k->comp_next = 0x010003;   // behind an odd-sized module
    EXPECT_EQ((U{load("mods/smp.a"), load("mods/smp.b"), zn()}), (U{0, 0, kSrZ}));
    EXPECT_EQ((U{k->comp_count, k->comp_next, k->ram[0x01000A], k->ram[0x010011]}), (U{2, 0x010012, 0xBB, 0xBB}));
    // Index 0 and 1 at even addresses; index == count: nothing.
    for (auto [index, size, addr] :
         {std::tuple{0u, 5u, 0x010004u}, std::tuple{1u, 8u, 0x01000Au}, std::tuple{2u, 0u, 0u}}) {
        k->d[0] = index;
        EXPECT_EQ((U{fn(0), k->a[0]}), (U{size, addr})) << index;
    }
    EXPECT_TRUE(k->sr & kSrZ);
    k->d[0] = 1;   // the negative-offset entry does the same
    EXPECT_EQ((U{neg(11), k->a[0]}), (U{8, 0x01000A}));
    // Failures print their message and change nothing.
    EXPECT_EQ(fails("mods/nothing"), "deli_load_companion: cannot open 'mods/nothing'\n");
    mem.files["fits"] = std::vector<uint8_t>(0x100, 0x11);   // a companion must end inside chip RAM
    mem.files["over"] = std::vector<uint8_t>(0x101, 0x22);
    mem.files["empty"] = {};
    k->comp_next = 0x100000 - 0x100;
    EXPECT_EQ(fails("over"), "deli_load_companion: 'over' (257 bytes) overflows chip RAM\n");
    EXPECT_EQ((U{k->comp_count, k->ram[0x0FFF00]}), (U{2, 0}));
    EXPECT_EQ(load("fits"), 0u);
    EXPECT_EQ((U{k->ram[0x0FFFFF], k->ram[0x100000], k->comp_next}), (U{0x11, 0, 0x100000}));
    for (int i = 4; i <= 16; i++) ASSERT_EQ(load("empty"), 0u) << i;   // the list holds sixteen
    EXPECT_EQ(fails("empty"), "deli_load_companion: list full (16 entries)\n");
    EXPECT_EQ(k->comp_count, 16u);
}

TEST_F(Support, SongEndMarksOnceAndCutSuffix) {
    fn(9);
    EXPECT_EQ(k->song_end_frame, 1u);   // nothing played yet
    k->song_end_frame = 0;
    for (uint32_t played : {4800u, 9600u}) {
        k->played_frames = played;
        fn(9);
    }
    EXPECT_EQ((U{neg(20), uint32_t(k->song_end_frame)}), (U{0, 4800}));

    const std::pair<const char *, const char *> cases[] = {
        {"song.xpk", "song"}, {"song.pp", "song"}, {"x.pp2", "x.pp2"}, {"pp", "pp"}, {".pp", ""}, {".xpk", ""},
        {"xpk", "xpk"}, {"a.pp.xpk", "a.pp"}, {"SONG.XPK", "SONG.XPK"}, {"songxpk", "songxpk"}, {"song_pp", "song_pp"}};
    for (auto [in, out] : cases) {
        put_string(k, kPathFull, in);
        fn(10);
        EXPECT_EQ(get_string(k, kPathFull), out) << in;
    }
}

// The CIA timer counts value + 1 E-clocks (709379 Hz): frames = (value + 1) x rate / 709379, rounded.
TEST_F(Support, SetTimerTurnsTheCiaValueIntoFrames) {
    const struct { uint16_t value; int32_t rate, frames; } cases[] = {
        {14188, 48000, 960}, {0, 48000, 960} /* zero leaves the tick alone */, {7093, 48000, 480},
        {100, 48000, 7} /* 6.83: rounded, not cut */, {155, 48000, 11} /* 10.56 */,
        {1, 48000, 1} /* never below one frame */, {14188, 44100, 882}};
    for (auto c : cases) {
        k->rate = c.rate;
        timer(c.value);
        fn(11);
        EXPECT_EQ(k->frames_per_tick, c.frames) << c.value << " at " << c.rate;
    }
    k->rate = 48000;
    timer(7093);
    EXPECT_EQ((U{neg(22), uint32_t(k->frames_per_tick)}), (U{0, 480}));   // SetTimer
    timer(0xFFFF);
    neg(18);   // StartInterrupt starts the tick at the same value: 65536 x 48000 / 709379 = 4434.48
    EXPECT_EQ(k->frames_per_tick, 4434);
}

TEST_F(Support, ReturnValuesOfTheOtherEntries) {
    for (uint32_t n : {5u, 6u, 16u, 29u, 31u, 32u, 7u, 8u, 12u, 15u}) {
        k->d[0] = 0x1234;
        EXPECT_EQ(fn(n), (n >= 7 && n <= 15) ? 0x1234u : 0u) << n;
    }
    k->d[0] = 0x87654321;
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(fn(33), 0x87654321u); }), "deli_dispatch: unknown fn 33\n");
    EXPECT_TRUE(k->sr & kSrN);
    for (uint32_t entry : {1u, 7u, 12u, 21u, 65u, 66u, 400u}) {
        k->d[0] = 0x55;
        EXPECT_EQ((U{neg(entry), zn()}), (U{0, kSrZ})) << entry;
    }
    for (uint32_t pc : {0xF90004u, 0xF8F402u, 0x200000u}) {   // PCs outside the table
        k->pc = pc;
        k->d[0] = 0x55;
        op_line_a(k, 0xA500);
        EXPECT_EQ(k->d[0], 0u) << std::hex << pc;
    }
}

TEST_F(Support, AudioEntriesWriteTheChipRegisters) {
    // PokeVol on channel 6 & 3 = 2; PokeAdr, PokeLen (low word only), PokePer (D0 left alone) on channel 1; DMAMask
    // sets channels 0 and 2, then clears channel 0.
    const uint32_t calls[][3] = {{45, 40, 6},  {42, 0x00012346, 1}, {43, 0xFFFF0100, 1},
                                 {44, 428, 1}, {41, 0x8000, 0xFFF5}, {41, 0, 0x0001}};
    U dma;
    for (const auto &c : calls) {
        k->d[0] = c[1];
        k->d[1] = c[2];
        EXPECT_EQ(neg(c[0]), c[1]) << c[0];   // D0 left alone
        dma.push_back(k->dmacon & 0x000F);
    }
    EXPECT_EQ(dma, (U{0, 0, 0, 0, 5, 4}));
    EXPECT_EQ((U{k->aud[2].vol, k->aud[0].vol, k->aud[1].lc, k->aud[1].len, k->aud[1].per}),
              (U{40, 0, 0x00012346, 0x0100, 428}));
    // FreeAudio: master off; AllocAudio: master on.
    EXPECT_EQ((U{neg(17), k->dmacon & 0x0200u, neg(16), k->dmacon & 0x0200u}), (U{0, 0, 0, 0x0200}));
}

// Hand-assembled routines at the player base call the library vectors as player code does.
TEST_F(Support, ReachedFrom68kCode) {
    put_code(k, kPlayerBase, {0x2C78, 0x0004, 0x7005,   // movea.l 4.w,a6; moveq #5,d0
                              0x4EAE, 0xFF3A,           // jsr -198(a6)      AllocMem
                              0x6602, 0x7401, 0x4E75}); // bne.s +2; moveq #1,d2 (skipped: condition codes from D0); rts
    EXPECT_EQ(deli_call(k, kPlayerBase), kSlabStart);
    EXPECT_EQ((U{k->d[2], k->alloc_ptr}), (U{0, kSlabStart + 8}));
    uint32_t is = 0x300000, code = kPlayerBase + 0x100;
    ram_put32(k, is + 14, 0x00ABCDEF);
    ram_put32(k, is + 18, code);
    put_code(k, code, {0x2409, 0x4E75});   // move.l a1,d2; rts: Cause runs the interrupt with its data in A1
    put_code(k, kPlayerBase, {0x227C, 0x0030, 0x0000, 0x4EAE, 0xFF4C,   // movea.l #$300000,a1; jsr -180(a6) (Cause)
                              0x7207, 0x4E75});                       // moveq #7,d1 (after the interrupt); rts
    deli_call(k, kPlayerBase);
    EXPECT_EQ((U{k->d[2], k->d[1]}), (U{0x00ABCDEF, 7}));
    // movea.l 92(a5),a0 (SongEnd: 56 + 4 x 9); jsr (a0); rts
    put_code(k, kPlayerBase, {0x206D, 0x005C, 0x4E90, 0x4E75});
    k->played_frames = 1000;
    deli_call(k, kPlayerBase);
    EXPECT_EQ(k->song_end_frame, 1000u);
    // moveq #6,d1; moveq #48,d0; jsr -270(a5); rts
    put_code(k, kPlayerBase, {0x7206, 0x7030, 0x4EAD, 0xFEF2, 0x4E75});
    EXPECT_EQ(deli_call(k, kPlayerBase), 48u);
    EXPECT_EQ((U{k->aud[2].vol, k->support_calls[45]}), (U{48, 1}));   // PokeVol
}

constexpr uint32_t kArea = 0x020000, kTable = 0x030000, kBlock = kGlobals + 290;

struct SupportPatch : Support {
    // The parameter block: magic 5, area, length, table, flags, wildcards (relative $FFFE, operand $FFFD).
    void block(uint32_t start, uint32_t len, uint32_t flags = 0) {
        for (uint32_t i = 0; i < 6; i++) ram_put32(k, kBlock + 4 * i, U{5, start, len, kTable, flags, 0xFFFEFFFD}[i]);
    }
    void area(const W &w, uint32_t at = kArea) { put_code(k, at, w); }
    W area_now(uint32_t n, uint32_t at = kArea) {
        W w;
        for (uint32_t i = 0; i < n; i++) w.push_back(uint16_t(ram_get16(k, at + 2 * i)));
        return w;
    }
    // Entry i: pattern and replacement at fixed places behind the table.
    void entry(uint32_t i, const W &pat, const W &rep) {
        uint32_t pat_off = 0x100 + 0x400 * i, rep_off = 0x300 + 0x400 * i;
        area({uint16_t(pat_off), uint16_t(2 * pat.size()), uint16_t(rep_off)}, kTable + 6 * i);
        area(pat, kTable + pat_off);
        area(rep, kTable + rep_off);
    }
    U result() { return {ram_get32(k, kBlock + 4), ram_get32(k, kBlock + 8)}; }   // result code, patches
};

TEST_F(SupportPatch, MatchesWildcardsAndReplacements) {
    const struct { const char *what; W before, pat, rep; uint32_t len, flags, count; W after; } cases[] = {
        {"every match; one cut by the area's end", {0x4E71, 0x1234, 0x5678, 0x4E71, 0x1234, 0x5678, 0x1234},
         {0x1234, 0x5678}, {0xAAAA, 0xBBBB}, 14, 0, 2, {0x4E71, 0xAAAA, 0xBBBB, 0x4E71, 0xAAAA, 0xBBBB, 0x1234}},
        {"overlapping matches: the lower one", W(5, 0x7777), {0x7777, 0x7777}, {0x1000, 0x2000}, 10, 0, 2,
         {0x1000, 0x2000, 0x1000, 0x2000, 0x7777}},
        {"wildcard without a capture is written literally", {0x4E75}, {0x4E75}, {0xFFFD}, 2, 0, 1, {0xFFFD}},
        // bsr.w +$40; move.w #$1234,d0 -> move.w #imm,d0; bsr.w to the same target ($42 from kArea = $3C from +6)
        {"captures: branch target and operand", {0x6100, 0x0040, 0x303C, 0x1234}, {0x6100, 0xFFFE, 0x303C, 0xFFFD},
         {0x303C, 0xFFFD, 0x6100, 0xFFFE}, 8, 0, 1, {0x303C, 0x1234, 0x6100, 0x003C}},
        {"relative wildcard off: $FFFE is literal", {0x6100, 0xFFF0}, {0x6100, 0xFFFE}, {0x4EB9, 0xFFFE}, 4,
         0x01000000, 0, {0x6100, 0xFFF0}},
        {"operand wildcard off, low byte ignored: negative displacement", {0x6100, 0xFFF0}, {0x6100, 0xFFFE},
         {0x4EB9, 0xFFFE}, 4, 0x00FF00FF, 1, {0x4EB9, 0xFFF0}},
    };
    for (const auto &c : cases) {
        area(c.before);
        entry(0, c.pat, c.rep);
        block(kArea, c.len, c.flags);
        k->d[0] = 0x77;
        EXPECT_EQ(fn(30), 0u) << c.what;
        EXPECT_EQ(k->sr & (kSrN | kSrZ | kSrV | kSrC), kSrZ) << c.what;
        EXPECT_EQ(result(), (U{0, c.count})) << c.what;
        EXPECT_EQ(area_now(uint32_t(c.after.size())), c.after) << c.what;
    }
}

TEST_F(SupportPatch, LengthRoundsDownEntriesRunInOrderAndTheAreaStaysInTheSpace) {
    area({0x1111, 0x2222, 0x3333});
    entry(0, {0x1111}, {0x2222});
    entry(1, {0x2222, 0x2222}, {0x4444, 0x4444});   // sees the first entry's patch
    entry(2, {0x3333}, {0x5555});                   // beyond the rounded length
    block(kArea, 5);
    fn(30);
    EXPECT_EQ(result(), (U{0, 2}));
    EXPECT_EQ(area_now(3), (W{0x4444, 0x4444, 0x3333}));

    entry(0, {0x0000, 0x0000}, {0x1234, 0x5678});
    area({0}, kTable + 6);   // the table ends after entry 0
    block(0xFFFFF8, 0x100);   // only 8 bytes remain
    fn(30);
    EXPECT_EQ(result(), (U{0, 2}));
    EXPECT_EQ((U{ram_get16(k, 0xFFFFFC), ram_get16(k, 0), uint32_t(k->fault)}), (U{0x1234, 0, 0}));
}

TEST_F(SupportPatch, BadMagicAndBadFlagsOnlyStoreTheResult) {
    area({0x1234});
    entry(0, {0x1234}, {0x9999});
    block(kArea, 0xABCD);
    ram_put32(k, kBlock, 4);
    k->d[0] = 0x80000001;
    EXPECT_EQ(fn(30), 0x80000001u);
    EXPECT_EQ(result(), (U{39, 0xABCD}));
    block(kArea, 2, 0x00000100);
    k->d[0] = 7;
    EXPECT_EQ(fn(30), 7u);
    EXPECT_EQ(result(), (U{40, 2}));
    EXPECT_EQ(area_now(1), W{0x1234});
}

// The search gives up after 2^28 word comparisons: 81 per position from $100000 on reach that before $800000. What was
// patched stays; no further entry runs.
TEST_F(SupportPatch, SearchBudgetEndsTheSearch) {
    W pat(80, 0);
    pat.push_back(0x1234);
    area({0x1234}, 0x100000 + 160);
    entry(0, pat, W(81, 0x4E71));
    entry(1, {0x4E71}, {0x1111});
    block(0x100000, 0x700000);
    EXPECT_EQ(stderr_of([&] { fn(30); }), "deli_patch: search budget exhausted after 1 patches\n");
    EXPECT_EQ(result(), (U{0, 1}));
    EXPECT_EQ(area_now(1, 0x100000), W{0x4E71});
}

// 200 bytes of captures per attempt: 50 relative (4 bytes) or 100 operand (2 bytes) ones. Each attempt starts with
// none: a hundred failed attempts that each captured an operand neither fill the space nor leave their captures behind.
TEST_F(SupportPatch, CaptureSpace) {
    area(W(110, 0));
    for (auto [wild, n, code] :
         {std::tuple{0xFFFE, 51u, 34u}, std::tuple{0xFFFD, 101u, 34u}, std::tuple{0xFFFD, 100u, 0u}}) {
        entry(0, W(n, uint16_t(wild)), W(n, 0x4E71));
        entry(1, {0x0000}, {0x1111});   // reached only when the first ends normally
        block(kArea, 220);
        k->d[0] = 3;
        EXPECT_EQ(fn(30), 0u);
        EXPECT_EQ(result()[0], code) << n;
        EXPECT_EQ(ram_get16(k, kArea), code ? 0u : 0x4E71u) << n;
    }
    area(W(110, 0));
    area({0x5555, 0x1234}, kArea + 220);
    entry(0, {0xFFFD, 0x1234}, {0x1234, 0xFFFD});
    area({0}, kTable + 6);   // the table ends after entry 0
    block(kArea, 224);
    fn(30);
    EXPECT_EQ(result(), (U{0, 1}));
    EXPECT_EQ(area_now(2, kArea + 220), (W{0x1234, 0x5555}));
}

}  // namespace

