// The hunk loader: one commented valid file image, changed one field per
// case, with the exact message each failure prints; and LoadSeg's segment
// lists built from a real toolchain-made hunk file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "amigaos/amigaos.h"
#include "support/test_support.h"

namespace {

// A valid two-hunk executable, as longs. Indices name the fields the cases
// change.
std::vector<uint32_t> valid_longs() {
    return {
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
}

std::vector<uint8_t> bytes(const std::vector<uint32_t> &longs) {
    std::vector<uint8_t> out;
    for (uint32_t v : longs) put_be32(out, v);
    return out;
}

// Parses and loads like the engine does for a player: hunks one after
// another from 0x200000. Returns 1 on success; `err` gets stderr.
int load(kelva *k, const std::vector<uint8_t> &file, std::string *err = nullptr) {
    testing::internal::CaptureStderr();
    int ok = load_player_hunks(k, file);
    std::string e = testing::internal::GetCapturedStderr();
    if (err) *err = e;
    return ok;
}

std::string fail_message(const std::vector<uint32_t> &longs) {
    auto k = make_engine();
    std::string err;
    EXPECT_EQ(load(k.get(), bytes(longs), &err), 0);
    return err;
}

TEST(HunkLoader, ValidImageLoadsAndRelocates) {
    auto k = make_engine();
    std::string err;
    ASSERT_EQ(load(k.get(), bytes(valid_longs()), &err), 1) << err;
    EXPECT_EQ(err, "");
    EXPECT_EQ(k->hunk_count, 2u);
    EXPECT_EQ(k->hunk_size[0], 12u);
    EXPECT_EQ(k->hunk_size[1], 8u);
    EXPECT_EQ(ram_get32(k.get(), 0x200000), 0x4E714E71u);
    EXPECT_EQ(ram_get32(k.get(), 0x200004), 0x20000Cu + 4);   // hunk 1 sits at 0x20000C
    EXPECT_EQ(ram_get32(k.get(), 0x20000C), 0x11111111u);
    EXPECT_EQ(ram_get32(k.get(), 0x200010), 0x22222222u);
}

TEST(HunkLoader, HeaderFailures) {
    auto v = valid_longs();
    v[0] = 0x3E7;
    EXPECT_EQ(fail_message(v), "hunk: missing HUNK_HEADER\n");

    auto k = make_engine();
    std::string err;
    std::vector<uint8_t> tiny = {0, 0, 3, 0xF3};
    EXPECT_EQ(load(k.get(), tiny, &err), 0);
    EXPECT_EQ(err, "hunk: missing HUNK_HEADER\n");

    v = valid_longs();
    v[2] = 65;
    EXPECT_EQ(fail_message(v), "hunk: bad hunk count (65)\n");
    v[2] = 0;
    EXPECT_EQ(fail_message(v), "hunk: bad hunk count (0)\n");

    // Sizes that add up beyond the address space are refused up front.
    v = valid_longs();
    v[5] = 0x1FFFFFFF;
    EXPECT_EQ(fail_message(v), "hunk: hunks too large (2147483652 bytes)\n");
}

TEST(HunkLoader, ResidentNamesAndExtendedAttributesAreSkipped) {
    auto v = valid_longs();
    // One resident name of 2 longs before the table size.
    v.insert(v.begin() + 1, {2, 0x41424344, 0x45460000});
    // Hunk 0's size long with both flag bits set: one attribute long follows.
    v[5 + 3] = 0xC0000003;
    v.insert(v.begin() + 6 + 3, 0x00000001);
    auto k = make_engine();
    std::string err;
    ASSERT_EQ(load(k.get(), bytes(v), &err), 1) << err;
    EXPECT_EQ(k->hunk_size[0], 12u);
    EXPECT_EQ(k->hunk_size[1], 8u);
    EXPECT_EQ(ram_get32(k.get(), 0x200004), 0x200010u);

    uint32_t offset = 0;
    std::vector<uint32_t> h = {0x3F3, 0, 1, 0, 0, 0xC0000010, 7};
    auto b = bytes(h);
    ASSERT_EQ(hunk_parse_header(k.get(), b.data(), uint32_t(b.size()), &offset), 1);
    EXPECT_EQ(k->hunk_size[0], 64u);
    EXPECT_EQ(offset, 28u);
}

TEST(HunkLoader, BodyAndSubTagFailures) {
    auto v = valid_longs();
    v[18] = 0x3F5;
    EXPECT_EQ(fail_message(v), "hunk: unexpected tag 000003f5 at hunk 1\n");

    v = valid_longs();
    v[8] = 100;   // more longs than the file holds
    EXPECT_EQ(fail_message(v), "hunk: short hunk 0\n");

    v = valid_longs();
    v[14] = 3;
    EXPECT_EQ(fail_message(v), "hunk: reloc target 3 out of range\n");

    v = valid_longs();
    v[12] = 0x3ED;   // HUNK_RELOC16: not handled
    EXPECT_EQ(fail_message(v), "hunk: unhandled sub-tag 000003ed\n");
    v[12] = 0x12345678;
    EXPECT_EQ(fail_message(v), "hunk: unhandled sub-tag 12345678\n");

    // A third hunk the file does not contain.
    v = valid_longs();
    v[2] = 3;
    v[4] = 2;
    v.insert(v.begin() + 7, 1);
    EXPECT_EQ(fail_message(v), "hunk: truncated at hunk 2\n");

    // The file ends inside a relocation group.
    v = valid_longs();
    v.resize(15);
    EXPECT_EQ(fail_message(v), "hunk: short reloc32\n");
}

TEST(HunkLoader, RelocOffsetMustLieInsideItsHunk) {
    auto v = valid_longs();
    v[15] = 8;   // the last long of the 12-byte hunk: fine
    auto k = make_engine();
    ASSERT_EQ(load(k.get(), bytes(v)), 1);
    EXPECT_EQ(ram_get32(k.get(), 0x200008), 0x4E754E75u + 0x20000Cu);

    v[15] = 10;   // would reach 2 bytes past the hunk
    EXPECT_EQ(fail_message(v), "hunk: reloc offset 0000000a outside hunk 0\n");
    v[15] = 0xFFFFFFFC;
    EXPECT_EQ(fail_message(v), "hunk: reloc offset fffffffc outside hunk 0\n");
}

TEST(HunkLoader, FlagsNamesSymbolsAndMissingEnd) {
    auto v = valid_longs();
    v[18] = 0x400003EA;   // memory flags on the hunk tag are masked off
    // HUNK_NAME ("ab", one long) and a HUNK_SYMBOL block before hunk 0's END.
    v.insert(v.begin() + 17, {0x3E8, 1, 0x61620000, 0x3F0, 1, 0x78000000, 0x10, 0, 0x3F1, 1, 0xDEADBEEF});
    v.pop_back();   // hunk 1 without HUNK_END: the data just ends
    auto k = make_engine();
    std::string err;
    ASSERT_EQ(load(k.get(), bytes(v), &err), 1) << err;
    EXPECT_EQ(ram_get32(k.get(), 0x200010), 0x22222222u);
}

TEST(HunkLoader, EmptyCodeHunkAndBssClearing) {
    auto k = make_engine();
    memset(k->ram + 0x200000, 0xAA, 64);
    std::vector<uint32_t> v = {
        0x3F3, 0, 2, 0, 1, 0, 4,   // an empty code hunk and a 16-byte BSS hunk
        0x3E9, 0, 0x3F2,           // CODE of 0 longs
        0x3EB, 4, 0x3F2,           // BSS of 4 longs
    };
    std::string err;
    ASSERT_EQ(load(k.get(), bytes(v), &err), 1) << err;
    for (uint32_t i = 0; i < 16; i++) EXPECT_EQ(k->ram[0x200000 + i], 0) << i;
    EXPECT_EQ(k->ram[0x200010], 0xAA);

    // A BSS count larger than the header's size clears only the hunk.
    memset(k->ram + 0x200000, 0xAA, 64);
    v[11] = 0x3FFFFFFF;
    ASSERT_EQ(load(k.get(), bytes(v), &err), 1) << err;
    EXPECT_EQ(k->ram[0x20000F], 0);
    EXPECT_EQ(k->ram[0x200010], 0xAA);
}

// Every truncation of the valid file fails with one "hunk:" line or (when
// only the trailing HUNK_END is cut) loads; none reads past the buffer,
// which the sanitizer build checks.
TEST(HunkLoader, EveryTruncationFailsCleanly) {
    auto full = bytes(valid_longs());
    auto k = make_engine();
    for (size_t n = 0; n < full.size(); n++) {
        std::vector<uint8_t> cut(full.begin(), full.begin() + long(n));
        std::string err;
        int ok = load(k.get(), cut, &err);
        if (n >= full.size() - 4 && n % 4 == 0) {
            EXPECT_EQ(ok, 1) << n;
        } else if (!ok) {
            EXPECT_EQ(err.rfind("hunk: ", 0), 0u) << n << ": " << err;
            EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << n;
        }
    }
}

// ---- LoadSeg ------------------------------------------------------------

TEST(LoadSeg, BuildsSegmentListsInTheSlab) {
    auto k = make_engine();
    memory_files m;
    m.files["seg"] = bytes(valid_longs());
    kelva_set_file_loader(k.get(), memory_loader, &m);
    put_string(k.get(), 0x1000, "seg");

    k->d[1] = 0x1000;
    dos_load_seg(k.get());
    // Two blocks: 12 + 8 bytes at 0x400000, 8 + 8 bytes after it.
    EXPECT_EQ(k->d[0], (0x400000u + 4) >> 2);
    EXPECT_EQ(ram_get32(k.get(), 0x400000), 20u);                     // block length
    EXPECT_EQ(ram_get32(k.get(), 0x400004), (0x400014u + 4) >> 2);    // link to the next
    EXPECT_EQ(ram_get32(k.get(), 0x400008), 0x4E714E71u);             // hunk 0 contents
    EXPECT_EQ(ram_get32(k.get(), 0x40000C), 0x40001Cu + 4);           // relocated to hunk 1
    EXPECT_EQ(ram_get32(k.get(), 0x400014), 16u);
    EXPECT_EQ(ram_get32(k.get(), 0x400018), 0u);                      // last segment
    EXPECT_EQ(ram_get32(k.get(), 0x40001C), 0x11111111u);
    EXPECT_EQ(k->alloc_ptr, 0x400024u);

    // A second LoadSeg of the same file: a separate list further up.
    k->d[1] = 0x1000;
    dos_load_seg(k.get());
    EXPECT_EQ(k->d[0], (0x400024u + 4) >> 2);
    EXPECT_EQ(ram_get32(k.get(), 0x400030), 0x400040u + 4);
    EXPECT_EQ(k->alloc_ptr, 0x400048u);
}

// Slab memory past the allocation pointer may hold anything a program wrote
// there; a segment's longs that its file does not give read zero.
TEST(LoadSeg, MemoryTheFileDoesNotFillReadsZero) {
    auto k = make_engine();
    memory_files m;
    auto v = valid_longs();
    v[6] = 3;   // hunk 1 reserves three longs, its HUNK_DATA gives two
    m.files["seg"] = bytes(v);
    kelva_set_file_loader(k.get(), memory_loader, &m);
    put_string(k.get(), 0x1000, "seg");
    memset(k->ram + 0x400000, 0xAA, 0x100);
    k->d[1] = 0x1000;
    dos_load_seg(k.get());
    ASSERT_EQ(k->d[0], (0x400000u + 4) >> 2);
    EXPECT_EQ(ram_get32(k.get(), 0x400020), 0x22222222u);
    EXPECT_EQ(ram_get32(k.get(), 0x400024), 0u);            // the third long of hunk 1
    EXPECT_EQ(ram_get32(k.get(), 0x400028), 0xAAAAAAAAu);   // behind the block: untouched
}

TEST(LoadSeg, LeavesThePlayersHunkTableAlone) {
    auto k = make_engine();
    memory_files m;
    m.files["seg"] = bytes(valid_longs());
    kelva_set_file_loader(k.get(), memory_loader, &m);
    put_string(k.get(), 0x1000, "seg");
    k->hunk_count = 3;
    k->hunk_addr[1] = 0x200040;
    k->hunk_size[1] = 0x80;
    k->d[1] = 0x1000;
    dos_load_seg(k.get());
    ASSERT_NE(k->d[0], 0u);
    EXPECT_EQ(k->hunk_count, 3u);
    EXPECT_EQ(k->hunk_addr[1], 0x200040u);
    EXPECT_EQ(k->hunk_size[1], 0x80u);
}

TEST(LoadSeg, Failures) {
    auto k = make_engine();
    memory_files m;
    m.files["seg"] = bytes(valid_longs());
    auto bad = valid_longs();
    bad[14] = 3;
    m.files["bad"] = bytes(bad);
    kelva_set_file_loader(k.get(), memory_loader, &m);

    // Missing file: D0 = 0, nothing printed.
    put_string(k.get(), 0x1000, "nothing");
    k->d[1] = 0x1000;
    k->d[0] = 55;
    testing::internal::CaptureStderr();
    dos_load_seg(k.get());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(k->d[0], 0u);

    // A broken file: the loader's message, D0 = 0.
    put_string(k.get(), 0x1000, "bad");
    testing::internal::CaptureStderr();
    dos_load_seg(k.get());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "hunk: reloc target 3 out of range\n");
    EXPECT_EQ(k->d[0], 0u);

    // Slab exhausted: hunk 0's block (20 bytes) fits, hunk 1's (16) does not.
    put_string(k.get(), 0x1000, "seg");
    k->alloc_ptr = kSlabEnd - 24;
    testing::internal::CaptureStderr();
    dos_load_seg(k.get());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "hunk_load_seglist: out of AllocMem slab\n");
    EXPECT_EQ(k->d[0], 0u);

    // Exactly enough: the slab may end at 0x800000.
    k->alloc_ptr = kSlabEnd - 36;
    dos_load_seg(k.get());
    EXPECT_EQ(k->d[0], (kSlabEnd - 36 + 4) >> 2);
    EXPECT_EQ(k->alloc_ptr, kSlabEnd);

    k->alloc_ptr = 0;
    testing::internal::CaptureStderr();
    dos_load_seg(k.get());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "hunk_load_seglist: out of AllocMem slab\n");
    EXPECT_EQ(k->d[0], 0u);
}

TEST(LoadSeg, NameWithoutNulIsCutAt511Characters) {
    auto k = make_engine();
    memory_files m;
    kelva_set_file_loader(k.get(), memory_loader, &m);
    memset(k->ram + 0x1000, 'x', 2000);
    k->d[1] = 0x1000;
    dos_load_seg(k.get());
    ASSERT_EQ(m.requests.size(), 1u);
    EXPECT_EQ(m.requests[0], std::string(511, 'x'));
    EXPECT_EQ(k->d[0], 0u);
}

TEST(LoadSeg, ToolchainSegmentRelocatesAcrossHunks) {
    auto file = read_file_bytes(std::string(KELVA_TEST_PLAYERS) + "/DosSegment");
    if (file.empty()) GTEST_SKIP() << "test players not built (" << KELVA_TEST_PLAYERS << ")";
    auto k = make_engine();
    memory_files m;
    m.files["DosSegment"] = file;
    kelva_set_file_loader(k.get(), memory_loader, &m);
    put_string(k.get(), 0x1000, "DosSegment");
    k->d[1] = 0x1000;
    dos_load_seg(k.get());
    ASSERT_NE(k->d[0], 0u);
    uint32_t first = k->d[0] << 2;   // the link long; code follows it
    uint32_t second = ram_get32(k.get(), first) << 2;
    ASSERT_NE(second, 0u);
    // move.l magic,d0: the absolute address points into the data segment.
    EXPECT_EQ(ram_get16(k.get(), first + 4), 0x2039u);
    EXPECT_EQ(ram_get32(k.get(), first + 6), second + 4);
    EXPECT_EQ(ram_get32(k.get(), second + 4), 0x4B454C00u);
}

}  // namespace
