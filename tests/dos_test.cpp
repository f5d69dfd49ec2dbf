// dos.library through its line-A traps: eight handles over whole-file
// buffers, read and seek clamps, close and the existence test. Files come
// from an in-memory loader, so no disk is involved.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "amigaos/amigaos.h"
#include "cpu/cpu.h"
#include "hardware/bus.h"
#include "support/test_support.h"

namespace {

constexpr uint16_t kOpen = 0xA100, kClose = 0xA101, kRead = 0xA102, kSeek = 0xA103, kLock = 0xA104;
constexpr uint32_t kName = 0x300000, kBuf = 0x310000, kBad = 0xFFFFFFFF;
using U = std::vector<uint32_t>;

struct Dos : testing::Test {
    engine_ptr k = make_engine();
    memory_files mem;
    void SetUp() override {
        for (int i = 0; i < 40; i++) mem.files["data/forty.bin"].push_back(uint8_t(100 + i));
        kelva_set_file_loader(k.get(), memory_loader, &mem);
    }
    uint32_t call(uint16_t word, uint32_t d1 = 0, uint32_t d2 = 0, uint32_t d3 = 0) {
        return k->d[1] = d1, k->d[2] = d2, k->d[3] = d3, op_line_a(k.get(), word), k->d[0];
    }
    uint32_t named(uint16_t word, const char *name) { return put_string(k.get(), kName, name), call(word, kName); }
    uint32_t pos() const { return k->files[0].position; }
};

TEST_F(Dos, ReadsContinueAndClampAtTheEnd) {
    uint32_t h = named(kOpen, "data/forty.bin");
    EXPECT_EQ(h, 1u);
    EXPECT_FALSE(k->sr & kSrZ);
    EXPECT_EQ((U{call(kRead, h, kBuf, 3), call(kRead, h, kBuf, 0), call(kRead, h, kBuf, 2), pos()}), (U{3, 0, 2, 5}));
    EXPECT_EQ((U{k->ram[kBuf], k->ram[kBuf + 1]}), (U{103, 104}));
    k->ram[kBuf + 35] = 0xEE;
    EXPECT_EQ(call(kRead, h, kBuf, 100), 35u);
    for (uint32_t i = 0; i < 35; i++) EXPECT_EQ(k->ram[kBuf + i], 105 + i) << i;
    EXPECT_EQ(k->ram[kBuf + 35], 0xEE);
    EXPECT_EQ(call(kRead, h, kBuf, 100), 0u);
    EXPECT_TRUE(k->sr & kSrZ);
}

// Seek(handle, offset, mode): mode < 0 from the start, 0 from the position,
// > 0 from the end; returns the old position; clamps to [0, size].
TEST_F(Dos, SeekFromEachBaseAndClamps) {
    uint32_t h = named(kOpen, "data/forty.bin");
    struct {
        uint32_t offset, mode, old, now;
    } cases[] = {{uint32_t(-10), 1, 0, 30}, {20, uint32_t(-1), 30, 20}, {uint32_t(-50), 0, 20, 0}, {1000, 0, 0, 40},
                 {0x7FFFFFFF, 1, 40, 40}, {0x80000000u, uint32_t(-1), 40, 0}, {5, 0, 0, 5}, {3, 0, 5, 8}};
    for (auto c : cases)
        EXPECT_EQ((U{call(kSeek, h, c.offset, c.mode), pos()}), (U{c.old, c.now})) << int32_t(c.offset) << c.mode;
    call(kSeek, h, uint32_t(-10), 1);
    EXPECT_EQ(call(kRead, h, kBuf, 100), 10u);
    EXPECT_EQ(k->ram[kBuf], 130);
}

TEST_F(Dos, EightHandlesAndBadOnes) {
    for (uint32_t i = 1; i <= 8; i++) EXPECT_EQ(named(kOpen, "data/forty.bin"), i);
    size_t loads = mem.requests.size();
    EXPECT_EQ(named(kOpen, "data/forty.bin"), 0u);   // the ninth fails without loading
    EXPECT_TRUE(k->sr & kSrZ);
    EXPECT_EQ(mem.requests.size(), loads);
    EXPECT_EQ(call(kClose, 3), kBad);   // Close reports -1 whatever happened
    EXPECT_TRUE(k->files[2].data == nullptr);
    for (uint32_t bad : {0u, 3u, 9u, kBad}) {
        EXPECT_EQ(call(kRead, bad, kBuf, 4), kBad) << bad;
        EXPECT_TRUE(k->sr & kSrN);
        EXPECT_EQ((U{call(kSeek, bad, 0, 0), call(kClose, bad)}), (U{kBad, kBad})) << bad;
    }
    EXPECT_EQ(k->files[7].size, 40u);   // close of 9 changed nothing
    EXPECT_EQ(named(kOpen, "data/forty.bin"), 3u);   // the first free slot is reused
    for (uint16_t word : {0xA105, 0xA107 /* UnLoadSeg */, 0xA1FF}) {   // the other functions do nothing
        k->d[0] = 9;
        EXPECT_EQ(call(word), 0u) << std::hex << word;
    }
}

TEST_F(Dos, MissingFilesEnvNamesAndTheExistenceTest) {
    EXPECT_EQ(named(kOpen, "data/missing.bin"), 0u);
    EXPECT_EQ(named(kLock, "data/missing.bin"), 0u);
    EXPECT_EQ(named(kLock, "data/forty.bin"), 1u);
    for (const dos_handle &f : k->files) EXPECT_TRUE(f.data == nullptr);   // no lock is held
    EXPECT_EQ(mem.requests.back(), "data/forty.bin");
    EXPECT_EQ(named(kOpen, "ENV:Player/opts"), 0u);   // redirected into the data tree
    EXPECT_NE(mem.requests.back().find("players/ENV/Player/opts"), std::string::npos) << mem.requests.back();
}

TEST_F(Dos, NameWithoutNulIsCutAt511Characters) {
    memset(k->ram + 0x500000, 'n', kRamSize - 0x500000);
    memset(k->ram, 'n', 0x1000);
    EXPECT_EQ(call(kOpen, 0xFFFF00), 0u);
    EXPECT_EQ(call(kLock, 0xFFFF00), 0u);
    EXPECT_EQ(mem.requests, (std::vector<std::string>(2, std::string(511, 'n'))));
}

TEST_F(Dos, ReadIntoTheCustomRangeGoesThroughTheBus) {
    mem.files["vol"] = {0x00, 0x28};
    EXPECT_EQ(call(kRead, named(kOpen, "vol"), 0xDFF0A8, 2), 2u);   // AUD0VOL, byte by byte
    EXPECT_EQ((U{k->aud[0].vol, k->ram[0xDFF0A9]}), (U{0x28, 0}));
}

TEST_F(Dos, ResetReleasesOpenFiles) {
    ASSERT_EQ(named(kOpen, "data/forty.bin"), 1u);
    kelva_reset(k.get(), 48000);   // under the sanitizer a leak would show here
    for (const dos_handle &f : k->files) EXPECT_TRUE(f.data == nullptr);
}

}  // namespace
