// The test players from tests/players/, built by the cross toolchain: each
// is loaded like the engine loads a player (hunks from 0x200000), its tag
// list is read, and the routines that reach the host's file services
// (companion files, dos.library, LoadSeg) and the misbehaving ones run
// through the routine caller. The timing players (Tone, CiaTimer, VBlank,
// AudioIrq, SongEnd) are run end to end by engine_test.cpp.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "amigaos/amigaos.h"
#include "engine/call.h"
#include "players/include/kelva_player.h"
#include "support/test_support.h"

namespace {

std::string player_path(const char *name) { return std::string(KELVA_TEST_PLAYERS) + "/" + name; }

class Players : public testing::Test {
protected:
    void SetUp() override {
        if (read_file_bytes(player_path("Tone")).empty())
            GTEST_SKIP() << "test players not built (" << KELVA_TEST_PLAYERS << "); the m68k cross toolchain is needed";
        kelva_global_init();
        eng = make_engine();
        k = eng.get();
    }

    // Loads the player at 0x200000 and reads its tag list. False (with a
    // test failure) when the player cannot be loaded.
    bool load(const char *name) {
        std::vector<uint8_t> file = read_file_bytes(player_path(name));
        if (file.empty()) {
            ADD_FAILURE() << "test player missing: " << player_path(name);
            return false;
        }
        if (!load_player_hunks(k, file)) return false;
        uint32_t list = ram_get32(k, kPlayerBase + 12);
        for (int i = 0; i < 256 && ram_get32(k, list + 8 * i); i++)
            tags[ram_get32(k, list + 8 * i)] = ram_get32(k, list + 8 * i + 4);
        return true;
    }
    uint32_t tag(uint32_t t) {
        EXPECT_TRUE(tags.count(t)) << std::hex << t;
        return tags[t];
    }
    uint32_t call(uint32_t t) { return deli_call(k, tag(t)); }
    std::string str(uint32_t a) {
        std::string s;
        while (k->ram[a & kAddrMask]) s += char(k->ram[a++ & kAddrMask]);
        return s;
    }
    bool in_hunk(uint32_t a, uint32_t h) { return a >= k->hunk_addr[h] && a < k->hunk_addr[h] + k->hunk_size[h]; }

    engine_ptr eng;
    kelva *k = nullptr;
    std::map<uint32_t, uint32_t> tags;
};

TEST_F(Players, EveryPlayerHasTheHeaderAndItsName) {
    for (const char *name :
         {"Tone", "CiaTimer", "VBlank", "AudioIrq", "SongEnd", "Subsong", "Companion", "Dos", "Misbehave"}) {
        SCOPED_TRACE(name);
        tags.clear();
        kelva_reset(k, 48000);
        ASSERT_TRUE(load(name));
        EXPECT_EQ(ram_get32(k, 0x200000), 0x70FF4E75u);   // moveq #-1,d0; rts
        EXPECT_EQ(memcmp(k->ram + 0x200004, "DELIRIUM", 8), 0);
        EXPECT_EQ(str(tag(DTP_PlayerName)), name);
        EXPECT_TRUE(tags.count(DTP_InitPlayer) || tags.count(DTP_Interrupt));
        for (auto &[t, v] : tags) {
            if (t != DTP_PlayerVersion) {
                EXPECT_TRUE(in_hunk(v, 0) || in_hunk(v, 1)) << std::hex << t;
            }
        }
    }
}

class CompanionPlayer : public Players {
protected:
    void SetUp() override {
        Players::SetUp();
        if (IsSkipped()) return;
        kelva_set_file_loader(k, memory_loader, &files);
        // What opening "/mods/tune.x" leaves: paths, module as list entry 0.
        const char *full = "/mods/tune.x", *dir = "/mods/";
        memcpy(k->ram + kPathFull, full, strlen(full) + 1);
        memcpy(k->ram + kPathDir, dir, strlen(dir) + 1);
        ram_put32(k, kGlobals + DTG_DirArrayPtr, kPathDir);
        ram_put32(k, kGlobals + DTG_PathArrayPtr, kPathFull);
        k->comp_addr[0] = kModuleAddr;
        k->comp_size[0] = 99;
        k->comp_count = 1;
        k->comp_next = kModuleAddr + 100;
    }
    memory_files files;
};

TEST_F(CompanionPlayer, LoadsTheSampleFileBesideTheModule) {
    std::vector<uint8_t> samples(10);
    for (int i = 0; i < 10; i++) samples[i] = uint8_t(0xA0 + i);
    files.files["/mods/smp.set"] = samples;
    ASSERT_TRUE(load("Companion"));
    EXPECT_EQ(call(DTP_ExtLoad), 0u);
    EXPECT_EQ(str(kPathFull), "/mods/smp.set");
    EXPECT_EQ(k->comp_count, 2u);
    EXPECT_EQ(call(DTP_InitPlayer), 0u);
    uint32_t data = k->hunk_addr[1];
    EXPECT_EQ(ram_get32(k, data), kModuleAddr + 100);   // sample_addr
    EXPECT_EQ(ram_get32(k, data + 4), 10u);             // sample_size
    EXPECT_EQ(memcmp(k->ram + kModuleAddr + 100, samples.data(), 10), 0);
}

TEST_F(CompanionPlayer, MissingSampleFileFailsBothRoutines) {
    ASSERT_TRUE(load("Companion"));
    testing::internal::CaptureStderr();
    EXPECT_EQ(call(DTP_ExtLoad), 1u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "deli_load_companion: cannot open '/mods/smp.set'\n");
    EXPECT_EQ(call(DTP_InitPlayer), 0xFFFFFFFFu);
}

TEST_F(Players, DosReadsAFileAndRunsALoadedSegment) {
    memory_files files;
    std::vector<uint8_t> data(16);
    for (int i = 0; i < 16; i++) data[i] = uint8_t(i * 3);
    files.files["data.bin"] = data;
    files.files["DosSegment"] = read_file_bytes(player_path("DosSegment"));
    ASSERT_FALSE(files.files["DosSegment"].empty());
    kelva_set_file_loader(k, memory_loader, &files);
    ASSERT_TRUE(load("Dos"));
    ASSERT_EQ(call(DTP_InitPlayer), 0u);
    uint32_t results = k->hunk_addr[1];
    EXPECT_EQ(ram_get32(k, results), 1u);        // the first handle
    EXPECT_EQ(ram_get32(k, results + 4), 8u);    // bytes read
    EXPECT_EQ(ram_get32(k, results + 8), 16u);   // size found by seeking
    EXPECT_EQ(ram_get32(k, results + 12), (0x400000u + 4) >> 2);   // segment list at the slab start
    EXPECT_EQ(ram_get32(k, results + 16), 0x4B454C56u);           // the segment's answer
    EXPECT_EQ(memcmp(k->ram + results + 20, data.data() + 4, 8), 0);
    EXPECT_EQ(k->files[0].data, nullptr);   // closed
}

TEST_F(Players, DosFailsWithoutItsFile) {
    memory_files files;
    kelva_set_file_loader(k, memory_loader, &files);
    ASSERT_TRUE(load("Dos"));
    EXPECT_EQ(call(DTP_InitPlayer), 1u);
}

TEST_F(Players, MisbehavingRoutinesEndCleanly) {
    ASSERT_TRUE(load("Misbehave"));
    char want[128];

    testing::internal::CaptureStderr();
    EXPECT_EQ(call(DTP_InitPlayer), kCallOutOfRange);
    std::string err = testing::internal::GetCapturedStderr();
    snprintf(want, sizeof want, "deli_call: PC=00300000 out of range (routine=%08x i=3)\n", tag(DTP_InitPlayer));
    EXPECT_EQ(err.substr(0, strlen(want)), want);
    EXPECT_EQ(k->d[1], 1u);
    EXPECT_EQ(k->d[2], 2u);

    // Line-F and division by zero take their exceptions; the vectors are 0,
    // so the PC lands at 0 and the caller reports it.
    const struct {
        uint32_t tag;
        uint16_t vector;
        uint32_t pushed_pc;   // after the opcode word / after the divide
    } traps[] = {{DTP_InitSound, 11, tag(DTP_InitSound) + 2}, {DTP_StartInt, 5, tag(DTP_StartInt) + 4}};
    for (const auto &t : traps) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(call(t.tag), kCallOutOfRange);
        err = testing::internal::GetCapturedStderr();
        snprintf(want, sizeof want, "deli_call: PC=00000000 out of range (routine=%08x i=", tag(t.tag));
        EXPECT_EQ(err.substr(0, strlen(want)), want);
        EXPECT_EQ(k->a[7], kStackTop - 8);
        EXPECT_EQ(ram_get16(k, k->a[7]), t.vector * 4u);
        EXPECT_EQ(ram_get32(k, k->a[7] + 4), t.pushed_pc);
    }

    testing::internal::CaptureStderr();
    EXPECT_EQ(call(DTP_Interrupt), kCallFault);
    snprintf(want, sizeof want, "deli_call: cycle budget exhausted (routine=%08x last PC=%08x)\n",
             tag(DTP_Interrupt), tag(DTP_Interrupt));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), want);

    EXPECT_EQ(call(DTP_EndSound), 7u);
}

}  // namespace
