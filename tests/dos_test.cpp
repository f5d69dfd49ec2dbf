// dos.library through its line-A traps: eight handles over whole-file
// buffers, read and seek clamps, close and the existence test. Files come
// from an in-memory loader, so no disk is involved.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "amigaos/amigaos.h"
#include "engine/engine.h"
#include "hardware/bus.h"
#include "cpu/cpu.h"
#include "support/test_support.h"

namespace {

constexpr uint16_t kOpen = 0xA100, kClose = 0xA101, kRead = 0xA102, kSeek = 0xA103, kLock = 0xA104;
constexpr uint32_t kName = 0x300000;
constexpr uint32_t kBuf = 0x310000;

struct dos_fixture : testing::Test {
    engine_ptr k = make_engine();
    memory_files mem;

    void SetUp() override {
        std::vector<uint8_t> forty(40);
        for (int i = 0; i < 40; i++) forty[i] = uint8_t(100 + i);
        mem.files["data/forty.bin"] = forty;
        kelva_set_file_loader(k.get(), memory_loader, &mem);
    }
    uint32_t call(uint16_t word, uint32_t d1 = 0, uint32_t d2 = 0, uint32_t d3 = 0) {
        k->d[1] = d1;
        k->d[2] = d2;
        k->d[3] = d3;
        op_line_a(k.get(), word);
        return k->d[0];
    }
    uint32_t open(const char *name) {
        for (size_t i = 0; i <= strlen(name); i++) k->ram[kName + i] = uint8_t(name[i]);
        return call(kOpen, kName);
    }
    uint32_t lock(const char *name) {
        for (size_t i = 0; i <= strlen(name); i++) k->ram[kName + i] = uint8_t(name[i]);
        return call(kLock, kName);
    }
};

TEST_F(dos_fixture, OpenReadsTheWholeFileAndReadsClampAtTheEnd) {
    uint32_t h = open("data/forty.bin");
    EXPECT_EQ(h, 1u);
    EXPECT_FALSE(k->sr & kSrZ);
    EXPECT_EQ(k->files[0].size, 40u);
    k->ram[kBuf + 40] = 0xEE;
    EXPECT_EQ(call(kRead, h, kBuf, 100), 40u);
    for (uint32_t i = 0; i < 40; i++) EXPECT_EQ(k->ram[kBuf + i], 100 + i) << i;
    EXPECT_EQ(k->ram[kBuf + 40], 0xEE);
    EXPECT_EQ(call(kRead, h, kBuf, 100), 0u);
    EXPECT_TRUE(k->sr & kSrZ);
}

TEST_F(dos_fixture, ReadsContinueFromThePosition) {
    uint32_t h = open("data/forty.bin");
    EXPECT_EQ(call(kRead, h, kBuf, 3), 3u);
    EXPECT_EQ(call(kRead, h, kBuf, 2), 2u);
    EXPECT_EQ(k->ram[kBuf], 103);
    EXPECT_EQ(k->ram[kBuf + 1], 104);
    EXPECT_EQ(call(kRead, h, kBuf, 0), 0u);
    EXPECT_EQ(k->files[0].position, 5u);
}

TEST_F(dos_fixture, SeekFromEachBaseAndClamps) {
    uint32_t h = open("data/forty.bin");
    EXPECT_EQ(call(kSeek, h, uint32_t(-10), 1), 0u);   // from the end
    EXPECT_EQ(k->files[0].position, 30u);
    EXPECT_EQ(call(kRead, h, kBuf, 100), 10u);
    EXPECT_EQ(k->ram[kBuf], 130);

    EXPECT_EQ(call(kSeek, h, 20, uint32_t(-1)), 40u);   // from the start
    EXPECT_EQ(call(kSeek, h, uint32_t(-50), 0), 20u);   // before the start: 0
    EXPECT_EQ(k->files[0].position, 0u);
    EXPECT_EQ(call(kSeek, h, 1000, 0), 0u);   // past the end: the size
    EXPECT_EQ(k->files[0].position, 40u);
    EXPECT_EQ(call(kSeek, h, 0x7FFFFFFF, 1), 40u);
    EXPECT_EQ(k->files[0].position, 40u);
    EXPECT_EQ(call(kSeek, h, 0x80000000u, uint32_t(-1)), 40u);
    EXPECT_EQ(k->files[0].position, 0u);
}

TEST_F(dos_fixture, NinthOpenFailsWithoutLoading) {
    for (uint32_t i = 1; i <= 8; i++) EXPECT_EQ(open("data/forty.bin"), i);
    size_t loads = mem.requests.size();
    EXPECT_EQ(open("data/forty.bin"), 0u);
    EXPECT_TRUE(k->sr & kSrZ);
    EXPECT_EQ(mem.requests.size(), loads);

    EXPECT_EQ(call(kClose, 3), 0xFFFFFFFFu);
    EXPECT_TRUE(k->files[2].data == nullptr);
    EXPECT_EQ(open("data/forty.bin"), 3u);   // the first free slot is reused
}

TEST_F(dos_fixture, BadHandlesGiveMinusOne) {
    uint32_t h = open("data/forty.bin");
    for (uint32_t bad : {0u, 2u, 9u, 0xFFFFFFFFu}) {
        EXPECT_EQ(call(kRead, bad, kBuf, 4), 0xFFFFFFFFu) << bad;
        EXPECT_TRUE(k->sr & kSrN);
        EXPECT_EQ(call(kSeek, bad, 0, 0), 0xFFFFFFFFu) << bad;
        EXPECT_EQ(call(kClose, bad), 0xFFFFFFFFu) << bad;
    }
    EXPECT_EQ(k->files[0].size, 40u);   // close of 9 changed nothing
    EXPECT_EQ(call(kClose, h), 0xFFFFFFFFu);
    EXPECT_EQ(call(kRead, h, kBuf, 4), 0xFFFFFFFFu);   // closed handle
}

TEST_F(dos_fixture, MissingFilesAndTheExistenceTest) {
    EXPECT_EQ(open("data/missing.bin"), 0u);
    EXPECT_EQ(lock("data/missing.bin"), 0u);
    EXPECT_EQ(lock("data/forty.bin"), 1u);
    for (const dos_handle &f : k->files) EXPECT_TRUE(f.data == nullptr);   // no lock is held
    EXPECT_EQ(mem.requests.back(), "data/forty.bin");
}

TEST_F(dos_fixture, EnvNamesAreRedirectedIntoTheDataTree) {
    EXPECT_EQ(open("ENV:Player/opts"), 0u);
    ASSERT_FALSE(mem.requests.empty());
    const std::string &req = mem.requests.back();
    EXPECT_NE(req.find("players/ENV/Player/opts"), std::string::npos) << req;
}

TEST_F(dos_fixture, NameWithoutNulIsCutAt511Characters) {
    memset(k->ram + 0x500000, 'n', kRamSize - 0x500000);
    memset(k->ram, 'n', 0x1000);
    EXPECT_EQ(call(kOpen, 0xFFFF00), 0u);
    ASSERT_EQ(mem.requests.size(), 1u);
    EXPECT_EQ(mem.requests[0], std::string(511, 'n'));
    EXPECT_EQ(call(kLock, 0xFFFF00), 0u);
    EXPECT_EQ(mem.requests.back().size(), 511u);
}

TEST_F(dos_fixture, ReadIntoTheCustomRangeGoesThroughTheBus) {
    mem.files["vol"] = {0x00, 0x28};
    uint32_t h = open("vol");
    EXPECT_EQ(call(kRead, h, 0xDFF0A8, 2), 2u);   // AUD0VOL, byte by byte
    EXPECT_EQ(k->aud[0].vol, 0x28);
    EXPECT_EQ(k->ram[0xDFF0A9], 0);
}

TEST(DosReset, ResetReleasesOpenFiles) {
    auto k = make_engine();
    memory_files mem;
    mem.files["a"] = {1, 2, 3};
    kelva_set_file_loader(k.get(), memory_loader, &mem);
    k->ram[0x300000] = 'a';
    k->d[1] = 0x300000;
    op_line_a(k.get(), kOpen);
    ASSERT_EQ(k->d[0], 1u);
    kelva_reset(k.get(), 48000);   // under the sanitizer a leak would show here
    for (const dos_handle &f : k->files) EXPECT_TRUE(f.data == nullptr);
}

}  // namespace
