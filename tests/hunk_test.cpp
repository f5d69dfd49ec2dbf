// The hunk loader: one commented valid file image, changed one field per
// case, with the exact message each failure prints; and LoadSeg's segment
// lists built from it (a toolchain-made segment is loaded and run in the Dos test player's test).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "amigaos/amigaos.h"
#include "support/services.h"
#include "support/test_support.h"

namespace {

using L = std::vector<uint32_t>;

// A valid two-hunk executable, as longs. Indices name the fields the cases change.
const L kValid = {
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

std::vector<uint8_t> bytes(const L &longs) {
    std::vector<uint8_t> out;
    for (uint32_t v : longs) put_be32(out, v);
    return out;
}

struct Hunk : testing::Test {
    engine_ptr e = make_engine();
    kelva *k = e.get();
    std::string err;
    // Loads like the engine loads a player: hunks one after another from $200000.
    int load(const std::vector<uint8_t> &file) {
        int ok = 0;
        err = stderr_of([&] { ok = load_player_hunks(k, file); });
        return ok;
    }
    int load(const L &longs) { return load(bytes(longs)); }
    uint32_t at(uint32_t addr) { return ram_get32(k, addr); }
    L longs(uint32_t addr, uint32_t n) {
        L v;
        for (uint32_t i = 0; i < n; i++) v.push_back(at(addr + 4 * i));
        return v;
    }
};

TEST_F(Hunk, ValidImageLoadsAndRelocates) {
    ASSERT_EQ(load(kValid), 1) << err;
    EXPECT_EQ(err, "");
    EXPECT_EQ((L{k->hunk_count, k->hunk_size[0], k->hunk_size[1]}), (L{2, 12, 8}));
    // Hunk 1 sits at $20000C.
    EXPECT_EQ(longs(0x200000, 5), (L{0x4E714E71, 0x20000C + 4, 0x4E754E75, 0x11111111, 0x22222222}));

    L v = kValid;
    v[15] = 8;   // the last long of the 12-byte hunk is still inside
    ASSERT_EQ(load(v), 1) << err;
    EXPECT_EQ(at(0x200008), 0x4E754E75u + 0x20000Cu);
    v.pop_back();   // hunk 1 without HUNK_END: the data just ends
    EXPECT_EQ(load(v), 1) << err;
}

TEST_F(Hunk, FailuresPrintOneExactLine) {
    struct { void (*edit)(L &); const char *message; } cases[] = {
        {[](L &v) { v[0] = 0x3E7; }, "hunk: missing HUNK_HEADER\n"},
        {[](L &v) { v.resize(1); }, "hunk: missing HUNK_HEADER\n"},
        {[](L &v) { v[2] = 65; }, "hunk: bad hunk count (65)\n"},
        {[](L &v) { v[2] = 0; }, "hunk: bad hunk count (0)\n"},
        // Sizes that add up beyond the address space are refused up front.
        {[](L &v) { v[5] = 0x1FFFFFFF; }, "hunk: hunks too large (2147483652 bytes)\n"},
        {[](L &v) { v.resize(4); }, "hunk: truncated header\n"},
        {[](L &v) { v.resize(6); }, "hunk: truncated header\n"},
        {[](L &v) { v[1] = 5; }, "hunk: truncated header\n"},   // resident names running off the end
        {[](L &v) { v[18] = 0x3F5; }, "hunk: unexpected tag 000003f5 at hunk 1\n"},
        {[](L &v) { v[8] = 100; }, "hunk: short hunk 0\n"},   // more longs than the file holds
        {[](L &v) { v.resize(8); }, "hunk: short hunk 0\n"},
        {[](L &v) { v.resize(18); }, "hunk: truncated at hunk 1\n"},
        {[](L &v) { v[2] = 3, v[4] = 2, v.insert(v.begin() + 7, 1); }, "hunk: truncated at hunk 2\n"},
        {[](L &v) { v[14] = 3; }, "hunk: reloc target 3 out of range\n"},
        {[](L &v) { v[15] = 10; }, "hunk: reloc offset 0000000a outside hunk 0\n"},   // 2 bytes past the hunk
        {[](L &v) { v[15] = 0xFFFFFFFC; }, "hunk: reloc offset fffffffc outside hunk 0\n"},
        {[](L &v) { v.resize(15); }, "hunk: short reloc32\n"},
        {[](L &v) { v.resize(14); }, "hunk: short reloc32\n"},
        {[](L &v) { v[12] = 0x3ED; }, "hunk: unhandled sub-tag 000003ed\n"},   // HUNK_RELOC16 is not handled
        {[](L &v) { v[12] = 0x12345678; }, "hunk: unhandled sub-tag 12345678\n"},
    };
    for (const auto &c : cases) {
        L v = kValid;
        c.edit(v);
        EXPECT_EQ(load(v), 0) << c.message;
        EXPECT_EQ(err, c.message);
    }
    EXPECT_EQ(load(std::vector<uint8_t>{0, 0, 3, 0xF3, 0, 0, 0}), 0);   // shorter than 8 bytes
    EXPECT_EQ(err, "hunk: missing HUNK_HEADER\n");
}

TEST_F(Hunk, SkippedBlocksAndMaskedFlags) {
    L v = kValid;
    v[18] = 0x400003EA;   // memory flags on the hunk tag are masked off
    // HUNK_NAME ("ab", one long), HUNK_SYMBOL and HUNK_DEBUG before hunk 0's END.
    v.insert(v.begin() + 17, {0x3E8, 1, 0x61620000, 0x3F0, 1, 0x78000000, 0x10, 0, 0x3F1, 1, 0xDEADBEEF});
    v[5] = 0xC0000003;                    // both flag bits: one attribute long follows
    v.insert(v.begin() + 6, 0x00000001);
    v.insert(v.begin() + 1, {2, 0x41424344, 0x45460000});   // a resident name of 2 longs
    ASSERT_EQ(load(v), 1) << err;
    EXPECT_EQ((L{k->hunk_size[0], k->hunk_size[1], at(0x200004), at(0x200010)}), (L{12, 8, 0x200010, 0x22222222}));

    // A symbol block that ends the file (hunk 1 without HUNK_END) is read exactly to its end.
    v = kValid;
    v.back() = 0x3F0;
    v.insert(v.end(), {5, 0x61626364, 0x65666768, 0x696A6B6C, 0x6D6E6F70, 0x71727374, 0x10, 0});
    EXPECT_EQ(load(v), 1) << err;

    uint32_t offset = 0;
    auto b = bytes({0x3F3, 0, 1, 0, 0, 0xC0000010, 7});
    ASSERT_EQ(hunk_parse_header(k, b.data(), uint32_t(b.size()), &offset), 1);
    EXPECT_EQ((L{k->hunk_size[0], offset}), (L{64, 28}));
}

TEST_F(Hunk, EmptyHunksBssClearingAndTheHunkCount) {
    // An empty code hunk and a 16-byte BSS hunk.
    L v = {0x3F3, 0, 2, 0, 1, 0, 4, 0x3E9, 0, 0x3F2, 0x3EB, 4, 0x3F2};
    for (uint32_t count : {4u, 0x3FFFFFFFu}) {   // a larger BSS count clears only the hunk
        memset(k->ram + 0x200000, 0xAA, 64);
        v[11] = count;
        ASSERT_EQ(load(v), 1) << err;
        for (uint32_t i = 0; i < 16; i++) EXPECT_EQ(k->ram[0x200000 + i], 0) << i;
        EXPECT_EQ(k->ram[0x200010], 0xAA);
    }
    L most = {0x3F3, 0, 64, 0, 63};   // 64 empty code hunks: the most a file may have
    most.resize(5 + 64, 0);
    for (int h = 0; h < 64; h++) most.insert(most.end(), {0x3E9, 0, 0x3F2});
    EXPECT_EQ(load(most), 1) << err;
    EXPECT_EQ(k->hunk_count, 64u);
}

// ---- LoadSeg --------------------------------------------------------------

struct HunkLoadSeg : Hunk {
    memory_files m;
    void SetUp() override {
        m.files["seg"] = bytes(kValid);
        kelva_set_file_loader(k, memory_loader, &m);
    }
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
    EXPECT_EQ(longs(0x400000, 10), (L{20, (0x400014 + 4) >> 2, 0x4E714E71, 0x40001C + 4, 0x4E754E75,   // length, link,
                                      16, 0, 0x11111111, 0x22222222, 0xAAAAAAAA}));                 // contents
    EXPECT_EQ((L{k->alloc_ptr, k->hunk_count, k->hunk_addr[1], k->hunk_size[1]}), (L{0x400024, 3, 0x200040, 0x80}));

    // A second LoadSeg: a separate list further up, whose third long of
    // hunk 1 (reserved, not given by the file) reads zero.
    L v = kValid;
    v[6] = 3;
    m.files["seg"] = bytes(v);
    EXPECT_EQ(load_seg("seg"), (0x400024u + 4) >> 2);
    EXPECT_EQ(at(0x400030), 0x400040u + 4);
    EXPECT_EQ(longs(0x400044, 3), (L{0x22222222, 0, 0xAAAAAAAA}));   // behind the block: untouched
    EXPECT_EQ(k->alloc_ptr, 0x40004Cu);
}

TEST_F(HunkLoadSeg, Failures) {
    L bad = kValid;
    bad[14] = 3;
    m.files["bad"] = bytes(bad);
    EXPECT_EQ(load_seg("nothing"), 0u);   // missing: nothing printed
    EXPECT_EQ(err, "");
    EXPECT_EQ(load_seg("bad"), 0u);
    EXPECT_EQ(err, "hunk: reloc target 3 out of range\n");
    // Hunk 0's block (20 bytes) fits, hunk 1's (16) does not; exactly enough
    // may end at the slab's end.
    for (uint32_t room : {0u, 24u, 36u}) {
        k->alloc_ptr = room ? kSlabEnd - room : 0;
        EXPECT_EQ(load_seg("seg"), room == 36 ? (kSlabEnd - 36 + 4) >> 2 : 0u) << room;
        EXPECT_EQ(err, room == 36 ? "" : "hunk_load_seglist: out of AllocMem slab\n") << room;
    }
    EXPECT_EQ(k->alloc_ptr, kSlabEnd);
    memset(k->ram + 0x1000, 'x', 2000);   // a name without a NUL is cut at 511 characters
    k->d[1] = 0x1000;
    dos_load_seg(k);
    EXPECT_EQ(m.requests.back(), std::string(511, 'x'));
}

}  // namespace
