// The hunk loader: one commented valid file image, changed one field per
// case, with the exact message each failure prints; and LoadSeg's segment
// lists built from it and from a real toolchain-made hunk file.
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
    0x3F3,        // [0] HUNK_HEADER
    0,            // [1] no resident-library names
    2,            // [2] hunk count
    0, 1,         // [3,4] first and last hunk
    3,            // [5] hunk 0 size in longs
    2,            // [6] hunk 1 size in longs
    0x3E9,        // [7] hunk 0: HUNK_CODE
    3,            // [8]   3 longs
    0x4E714E71,   // [9]   nop; nop
    0x00000004,   // [10]  a pointer to hunk 1 + 4 (relocated)
    0x4E754E75,   // [11]  rts; rts
    0x3EC,        // [12]  HUNK_RELOC32
    1,            // [13]    one offset
    1,            // [14]    into hunk 1
    4,            // [15]    at offset 4
    0,            // [16]  end of the relocations
    0x3F2,        // [17]  HUNK_END
    0x3EA,        // [18] hunk 1: HUNK_DATA
    2,            // [19]   2 longs
    0x11111111,   // [20]
    0x22222222,   // [21]
    0x3F2,        // [22]  HUNK_END
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
};

TEST_F(Hunk, ValidImageLoadsAndRelocates) {
    ASSERT_EQ(load(kValid), 1) << err;
    EXPECT_EQ(err, "");
    EXPECT_EQ(k->hunk_count, 2u);
    EXPECT_EQ(k->hunk_size[0], 12u);
    EXPECT_EQ(k->hunk_size[1], 8u);
    EXPECT_EQ(at(0x200000), 0x4E714E71u);
    EXPECT_EQ(at(0x200004), 0x20000Cu + 4);   // hunk 1 sits at $20000C
    EXPECT_EQ(at(0x200008), 0x4E754E75u);
    EXPECT_EQ(at(0x20000C), 0x11111111u);
    EXPECT_EQ(at(0x200010), 0x22222222u);

    L v = kValid;
    v[15] = 8;   // the last long of the 12-byte hunk is still inside
    ASSERT_EQ(load(v), 1) << err;
    EXPECT_EQ(at(0x200008), 0x4E754E75u + 0x20000Cu);
    v.pop_back();   // hunk 1 without HUNK_END: the data just ends
    EXPECT_EQ(load(v), 1) << err;
}

TEST_F(Hunk, FailuresPrintOneExactLine) {
    struct {
        void (*edit)(L &);
        const char *message;
    } cases[] = {
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
    EXPECT_EQ(k->hunk_size[0], 12u);
    EXPECT_EQ(k->hunk_size[1], 8u);
    EXPECT_EQ(at(0x200004), 0x200010u);
    EXPECT_EQ(at(0x200010), 0x22222222u);

    uint32_t offset = 0;
    auto b = bytes({0x3F3, 0, 1, 0, 0, 0xC0000010, 7});
    ASSERT_EQ(hunk_parse_header(k, b.data(), uint32_t(b.size()), &offset), 1);
    EXPECT_EQ(k->hunk_size[0], 64u);
    EXPECT_EQ(offset, 28u);
}

TEST_F(Hunk, EmptyCodeHunkAndBssClearing) {
    // An empty code hunk and a 16-byte BSS hunk.
    L v = {0x3F3, 0, 2, 0, 1, 0, 4, 0x3E9, 0, 0x3F2, 0x3EB, 4, 0x3F2};
    for (uint32_t count : {4u, 0x3FFFFFFFu}) {   // a larger BSS count clears only the hunk
        memset(k->ram + 0x200000, 0xAA, 64);
        v[11] = count;
        ASSERT_EQ(load(v), 1) << err;
        for (uint32_t i = 0; i < 16; i++) EXPECT_EQ(k->ram[0x200000 + i], 0) << i;
        EXPECT_EQ(k->ram[0x200010], 0xAA);
    }
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
    const uint32_t want[] = {20, (0x400014u + 4) >> 2, 0x4E714E71u, 0x40001Cu + 4, 0x4E754E75u,
                             16, 0, 0x11111111u, 0x22222222u, 0xAAAAAAAAu};
    for (uint32_t i = 0; i < 10; i++) EXPECT_EQ(at(0x400000 + 4 * i), want[i]) << i;
    EXPECT_EQ(k->alloc_ptr, 0x400024u);
    EXPECT_EQ(k->hunk_count, 3u);
    EXPECT_EQ(k->hunk_addr[1], 0x200040u);
    EXPECT_EQ(k->hunk_size[1], 0x80u);

    // A second LoadSeg: a separate list further up, whose third long of
    // hunk 1 (reserved, not given by the file) reads zero.
    L v = kValid;
    v[6] = 3;
    m.files["seg"] = bytes(v);
    EXPECT_EQ(load_seg("seg"), (0x400024u + 4) >> 2);
    EXPECT_EQ(at(0x400030), 0x400040u + 4);
    EXPECT_EQ(at(0x400044), 0x22222222u);
    EXPECT_EQ(at(0x400048), 0u);
    EXPECT_EQ(at(0x40004C), 0xAAAAAAAAu);   // behind the block: untouched
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

TEST_F(HunkLoadSeg, ToolchainSegmentRelocatesAcrossHunks) {
    auto file = read_file_bytes(std::string(KELVA_TEST_PLAYERS) + "/DosSegment");
    if (file.empty()) GTEST_SKIP() << "test players not built (" << KELVA_TEST_PLAYERS << ")";
    m.files["DosSegment"] = file;
    uint32_t first = load_seg("DosSegment") << 2;   // the link long; code follows it
    ASSERT_NE(first, 0u);
    uint32_t second = at(first) << 2;
    ASSERT_NE(second, 0u);
    // move.l magic,d0: the absolute address points into the data segment.
    EXPECT_EQ(ram_get16(k, first + 4), 0x2039u);
    EXPECT_EQ(at(first + 6), second + 4);
    EXPECT_EQ(at(second + 4), 0x4B454C00u);
}

}  // namespace
