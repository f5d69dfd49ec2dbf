// The ProTracker-family players on the shared real modules (identify ->
// open -> render -> measure) and on synthetic modules of each variant.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "ptk_support.h"
#include "support/modbuild.h"

using namespace ptk_test;

namespace {

struct real_module {
    const char *file;     // under testdata/modules
    const char *player;   // the player's file name
    const char *format;   // kelva_get_format_name after opening
};

constexpr const char *kPT = "ProTracker (31-instrument M.K.)";
constexpr const char *kComp = "Fasttracker / multichannel";
constexpr const char *kNT2 = "NoiseTracker 2.x";
constexpr const char *kST = "Soundtracker (15-instrument)";
constexpr const char *kAM = "Startrekker AM (FLT4 + .nt)";

// The classification the selection rules give each file (worked out in
// tests/epconf_test.cpp); the 15-instrument players get no option string.
const real_module kModules[] = {
    {"debian/AnarchyMenu1.mod", "PTK-Prowiz", kPT},
    {"debian/The_Last_V8.mod", "PTK-Prowiz", kPT},
    {"debian/adventures.mod", "PTK-Prowiz", kPT},
    {"debian/android-commando_hiscore.mod", "PTK-Prowiz", kPT},
    {"debian/astraltr.mod", "PTK-Prowiz", kPT},
    {"debian/corpses.mod", "PTK-Prowiz", kPT},
    {"debian/dreamfish-green_beret.mod", "PTK-Prowiz", kPT},
    {"debian/dreamfish-sanxion.mod", "PTK-Prowiz", kPT},
    {"debian/dreamfish-uridium2_loader.mod", "PTK-Prowiz", kPT},
    {"debian/finally.mod", "PTK-Prowiz", kPT},
    {"debian/game.mod", "PTK-Prowiz", kPT},
    {"debian/game2.mod", "PTK-Prowiz", kPT},
    {"debian/game3.mod", "PTK-Prowiz", kPT},
    {"debian/gluppobe.mod", "PTK-Prowiz", kComp},
    {"debian/hiscore.mod", "PTK-Prowiz", kPT},
    {"debian/hiscreen.mod", "PTK-Prowiz", kPT},
    {"debian/kaupunki.mod", "PTK-Prowiz", kPT},
    {"debian/klovninarki.mod", "PTK-Prowiz", kPT},
    {"debian/kollaps-tron.mod", "PTK-Prowiz", kPT},
    {"debian/menu.mod", "PTK-Prowiz", kPT},
    {"debian/starpaws.mod", "PTK-Prowiz", kComp},
    {"debian/waterfal.mod", "PTK-Prowiz", kComp},
    {"effects/AmigaLimitsFinetune.mod", "PTK-Prowiz", kComp},
    {"effects/ArpWraparound.mod", "PTK-Prowiz", kComp},
    {"effects/DelayBreak.mod", "PTK-Prowiz", kComp},
    {"effects/InstrDelay.mod", "PTK-Prowiz", kComp},
    {"effects/InstrSwapRetrigger.mod", "PTK-Prowiz", kComp},
    {"effects/NoteDelay-NextRow.mod", "PTK-Prowiz", kNT2},
    {"effects/PTInstrSwap.mod", "PTK-Prowiz", kComp},
    {"effects/PTInstrVolume.mod", "PTK-Prowiz", kComp},
    {"effects/PTRetrigger.mod", "PTK-Prowiz", kComp},
    {"effects/PTStoppedSwap.mod", "PTK-Prowiz", kNT2},
    {"effects/PTSwapEmpty.mod", "PTK-Prowiz", kNT2},
    {"effects/PTSwapNoLoop.mod", "PTK-Prowiz", kNT2},
    {"effects/PatLoop-Break.mod", "PTK-Prowiz", kComp},
    {"effects/PatternDelaysRetrig.mod", "PTK-Prowiz", kNT2},
    {"effects/PatternJump.mod", "PTK-Prowiz", kComp},
    {"effects/PortaSmpChange.mod", "PTK-Prowiz", kNT2},
    {"effects/PortaSwapPT.mod", "PTK-Prowiz", kComp},
    {"effects/PortaTarget.mod", "PTK-Prowiz", kNT2},
    {"effects/TempoChange.mod", "PTK-Prowiz", kNT2},
    {"effects/VibratoReset.mod", "PTK-Prowiz", kComp},
    {"effects/finetune.mod", "PTK-Prowiz", kComp},
    {"effects/ptoffset.mod", "PTK-Prowiz", kComp},
    {"st15/Crepequs.mod", "Soundtracker-IV", ""},
    {"st15/GAMEMUSIC.mod", "UltimateSoundtracker", ""},
    {"st15/GBUSTERS.MOD", "PTK-Prowiz", kST},
    {"st15/cant.mod", "PTK-Prowiz", kST},
    {"st15/lepeltheme.mod", "UltimateSoundtracker", ""},
    {"variants/Tinytune.mod", "PTK-Prowiz", "Startrekker 4ch (FLT4)"},
    {"variants/blue damage.mod", "PTK-Prowiz", kNT2},
    {"variants/jul-paaske.mod", "PTK-Prowiz", kPT},
    {"variants/lind.mod", "PTK-Prowiz", "His Master's Noise (M&K!)"},
    {"variants/s0d.mod", "PTK-Prowiz", "Startrekker 4ch (FLT4)"},
    {"multichannel/TDZ1.MOD", "PTK-Prowiz", kComp},
    {"multichannel/bluesy.mod", "PTK-Prowiz", kPT},   // CD81 keeps type:pt30
    {"multichannel/desecret.mod", "PTK-Prowiz", kComp},
    {"multichannel/misimprm.mod", "PTK-Prowiz", kComp},
    {"startrekker-am/flt_am_envelope.mod", "AudioSculpture", kAM},
    {"startrekker-am/flt_am_ignore_volfx.mod", "AudioSculpture", kAM},
    {"startrekker-am/flt_am_new_note.mod", "AudioSculpture", kAM},
    {"startrekker-am/flt_am_override.mod", "AudioSculpture", kAM},
    {"startrekker-am/flt_am_period_fall.mod", "AudioSculpture", kAM},
};

const char *base_name(const char *path) {
    const char *s = strrchr(path, '/');
    return s ? s + 1 : path;
}

// Opens the module the way the plugin does: identify, then open with the
// chosen player and both paths (the option string comes from the tree).
engine_ptr open_identified(const std::string &path, const std::vector<uint8_t> &data, std::string *player_out) {
    char player[4096];
    if (!kelva_identify(path.c_str(), data.data(), uint32_t(data.size()), player, sizeof player)) return nullptr;
    *player_out = player;
    std::vector<uint8_t> p = read_bytes(player);
    engine_ptr k = make_engine(48000);
    if (kelva_open(k.get(), p.data(), uint32_t(p.size()), data.data(), uint32_t(data.size()), player, path.c_str(),
                   0) != 0)
        return nullptr;
    return k;
}

}  // namespace

// Every real module: the expected player and variant, sound in the first
// four seconds, and a length that ends by the player's song end or by the
// measurement's repetition test, never by the time limit.
TEST(PtkRealModules, PlayAndEndBySongEnd) {
    KELVA_REQUIRE_SHARED("testdata/modules");
    PTK_REQUIRE_PLAYER("PTK-Prowiz");
    kelva_global_init();
    data_tree_env env;
    std::string root = shared_dir() + "/testdata/modules/";
    int song_ends = 0;
    for (const real_module &m : kModules) {
        SCOPED_TRACE(m.file);
        std::string path = root + m.file;
        std::vector<uint8_t> data = read_bytes(path);
        ASSERT_FALSE(data.empty());
        std::string player;
        engine_ptr k = open_identified(path, data, &player);
        ASSERT_TRUE(k) << "does not open";
        EXPECT_STREQ(base_name(player.c_str()), m.player);
        char name[64];
        kelva_get_player_name(k.get(), name, sizeof name);
        EXPECT_STREQ(name, m.player);
        EXPECT_STREQ(kelva_get_format_name(k.get()), m.format);
        std::vector<float> buf(4800 * 2);
        float peak = 0;
        for (int i = 0; i < 40; i++) {   // 4 s
            kelva_render(k.get(), buf.data(), 4800);
            for (float v : buf) peak = std::max(peak, std::fabs(v));
        }
        EXPECT_GT(peak, 1.0f / 1024) << "silent";   // the measurement's silence level

        engine_ptr meas = open_identified(path, data, &player);
        ASSERT_TRUE(meas);
        int32_t reason = 0;
        uint64_t ms = kelva_measure_length(meas.get(), 0, 0, &reason, nullptr, nullptr);
        EXPECT_TRUE(reason == 1 || reason == 4) << "reason " << reason << " after " << ms << " ms";
        EXPECT_GT(ms, 0u);
        song_ends += reason == 1;
    }
    EXPECT_GE(song_ends, 40);   // most end by the player's own signal
}

namespace {

// Cells for the variant tests (four channels; 15-instrument patterns start
// at 600).
void cell(mod_builder &m, uint32_t pattern, int row, int ch, uint16_t period, uint8_t sample, uint8_t cmd = 0,
          uint8_t param = 0, uint32_t channels = 4) {
    uint32_t base = m.st15 ? 600 : 1084;
    uint32_t o = base + pattern * 256 * channels + uint32_t(row) * 4 * channels + uint32_t(ch) * 4;
    mod_poke(m, o, uint8_t((sample & 0xF0) | (period >> 8)));
    mod_poke(m, o + 1, uint8_t(period));
    mod_poke(m, o + 2, uint8_t((sample << 4) | (cmd & 15)));
    mod_poke(m, o + 3, param);
}

engine_ptr open_with(const char *player, const std::vector<uint8_t> &mod, const char *module_path = nullptr) {
    kelva_global_init();
    engine_ptr k = make_engine(48000);
    std::string pp = player_path(player);
    std::vector<uint8_t> p = read_bytes(pp);
    if (kelva_open(k.get(), p.data(), uint32_t(p.size()), mod.data(), uint32_t(mod.size()), pp.c_str(), module_path,
                   0) != 0)
        return nullptr;
    return k;
}

uint32_t play_addr(const engine_ptr &k, int c = 0) { return uint32_t(k->ch[c].data - k->ram); }

}  // namespace

TEST(PtkVariants, UltimateSoundtrackerPlaysLoopsOnlyAndItsOwnSlides) {
    PTK_REQUIRE_PLAYER("UltimateSoundtracker");
    mod_builder m = mod_new_st15(1);
    mod_set_sample(m, 0, smp(1000, 64, 200, 300));   // loop from byte 200
    mod_set_song(m, 1, 120);
    cell(m, 0, 0, 0, 428, 1, 0x2, 0x03);   // 2xy: y lowers the period
    cell(m, 0, 0, 1, 428, 1, 0x2, 0x40);   // x raises it
    cell(m, 0, 0, 2, 428, 1, 0x1, 0x37);   // 1xy: arpeggio
    cell(m, 0, 0, 3, 428, 1, 0xF, 0x03);   // no speed command: still 6 ticks a row
    cell(m, 0, 1, 3, 381, 1);
    engine_ptr k = open_with("UltimateSoundtracker", mod_finish(m));
    ASSERT_TRUE(k);
    uint32_t data = 0x010000 + 600 + 1024;
    run_ticks(k.get(), 1);
    EXPECT_EQ(play_addr(k), data + 200);   // only the loop plays
    EXPECT_EQ(k->ch[0].end, 600u);
    run_ticks(k.get(), 2);
    EXPECT_EQ(k->aud[0].per, 428 - 6);
    EXPECT_EQ(k->aud[1].per, 428 + 8);
    EXPECT_EQ(k->aud[2].per, 285);
    run_ticks(k.get(), 3);
    EXPECT_EQ(k->aud[3].per, 428);
    run_ticks(k.get(), 1);
    EXPECT_EQ(k->aud[3].per, 381);
}

TEST(PtkVariants, SoundtrackerIvCountsRepeatStartInBytesAndFxxIsSpeed) {
    PTK_REQUIRE_PLAYER("Soundtracker-IV");
    mod_builder m = mod_new_st15(1);
    mod_set_sample(m, 0, smp(1000, 64, 200, 300));
    cell(m, 0, 0, 0, 428, 1, 0xF, 0x40);   // speed 64, not a tempo
    cell(m, 0, 1, 0, 381, 1);
    engine_ptr k = open_with("Soundtracker-IV", mod_finish(m));
    ASSERT_TRUE(k);
    uint32_t data = 0x010000 + 600 + 1024;
    run_ticks(k.get(), 1);
    EXPECT_EQ(play_addr(k), data);
    EXPECT_EQ(k->ch[0].end, 2u * (100 + 300));   // to the loop's end: byte 200 + 600
    EXPECT_EQ(k->aud[0].lc, data + 200);
    EXPECT_EQ(k->frames_per_tick, 960);
    run_ticks(k.get(), 63);
    EXPECT_EQ(k->aud[0].per, 428);
    run_ticks(k.get(), 1);
    EXPECT_EQ(k->aud[0].per, 381);
}

TEST(PtkVariants, TagsChooseTheVariantWithoutAnOptionString) {
    PTK_REQUIRE_PLAYER("PTK-Prowiz");
    // NoiseTracker: the song restarts at the restart position; the end is
    // reported when the restart reaches a position already played.
    mod_builder nt = mod_new("N.T.", 2);
    mod_set_sample(nt, 0, smp(1000, 64, 0, 1));
    mod_set_song(nt, 2, 1);
    mod_set_order(nt, 0, 0);
    mod_set_order(nt, 1, 1);
    cell(nt, 0, 0, 0, 428, 1);
    cell(nt, 1, 0, 0, 381, 1);
    engine_ptr k = open_with("PTK-Prowiz", mod_finish(nt));
    ASSERT_TRUE(k);
    run_ticks(k.get(), 2 * 64 * 6 + 1);
    EXPECT_EQ(k->aud[0].per, 381);   // position 1 again, not 0
    EXPECT_EQ(k->song_end_frame, uint64_t(2 * 64 * 6 * kTick));

    EXPECT_STREQ(k->epopt, "");
}

TEST(PtkVariants, OptionStringSelectsByteRepeatStarts) {
    PTK_REQUIRE_PLAYER("PTK-Prowiz");
    data_tree_env env;
    // A loop that would run past the sample's end if counted in words: the
    // classification says "type:st24" and the player counts it in bytes.
    mod_builder m = mod_new("M.K.", 1);
    mod_set_sample(m, 0, smp(100, 64, 150, 10));
    cell(m, 0, 0, 0, 428, 1);
    engine_ptr k = open_with("PTK-Prowiz", mod_finish(m), "dir/song.mod");
    ASSERT_TRUE(k);
    EXPECT_STREQ(k->epopt, "type:st24");
    run_ticks(k.get(), 1);
    uint32_t data = 0x010000 + 1084 + 1024;
    EXPECT_EQ(k->aud[0].lc, data + 150);
    EXPECT_EQ(k->aud[0].len, 10);
}

TEST(PtkVariants, DamagedModulesAreRefusedOrClamped) {
    PTK_REQUIRE_PLAYER("PTK-Prowiz");
    // Song length 0 and orders naming patterns beyond the file: refused.
    mod_builder m = mod_new("M.K.", 1);
    mod_set_song(m, 0, 0);
    EXPECT_FALSE(open_with("PTK-Prowiz", mod_finish(m)));
    mod_builder far = mod_new("M.K.", 1);
    mod_set_order(far, 0, 60);
    EXPECT_FALSE(open_with("PTK-Prowiz", mod_finish(far)));
    EXPECT_FALSE(open_with("UltimateSoundtracker", std::vector<uint8_t>(500, 0)));
    // A sample longer than the file plays only what is there.
    mod_builder big = mod_new("M.K.", 1);
    mod_set_sample(big, 0, smp(60000, 64, 0, 1));
    cell(big, 0, 0, 0, 428, 1);
    std::vector<uint8_t> bytes = big.bytes;
    bytes.resize(bytes.size() + 1000, 0);
    engine_ptr k = open_with("PTK-Prowiz", bytes);
    ASSERT_TRUE(k);
    run_ticks(k.get(), 1);
    EXPECT_EQ(k->ch[0].end, 1000u);
}
