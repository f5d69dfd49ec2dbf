// ProTracker-family classification: tags, the M.K. analysis and its
// decision rules, on synthetic modules built field by field.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "selection/classify.h"
#include "support/modbuild.h"

namespace {

int classify(const std::vector<uint8_t> &d) { return mod31_classify(d.data(), uint32_t(d.size())); }
int classify(const mod_builder &m) { return classify(mod_finish(m)); }

// An "M.K." module with sample 0 a ProTracker-style unlooped sample
// (repeat length 1) and every other header as ProTracker writes empty ones
// (length 0, repeat length 1): P1 = 1, P0 = 0, Z1 = 30, Z0 = 0. The order
// list names pattern 1, so pattern 0 (below the highest entry) is examined.
mod_builder mk_module(uint8_t restart, uint8_t song_length = 1, uint32_t patterns = 2) {
    mod_builder m = mod_new("M.K.", patterns);
    mod_set_song(m, song_length, restart);
    if (patterns >= 2) mod_set_order(m, 1, 1);
    mod_set_sample(m, 0, smp(100, 64, 0, 1));
    for (int i = 1; i < 31; ++i) mod_set_sample(m, i, smp(0, 0, 0, 1));
    return m;
}

// Empty headers with repeat length 0 (Z0) instead of 1.
void zero_empty_repeats(mod_builder &m, int from = 1, int to = 31) {
    for (int i = from; i < to; ++i) mod_set_sample(m, i, smp(0));
}

}   // namespace

TEST(ModTag, AcceptsExactlyTheThirtyOneInstrumentTags) {
    for (const char *tag : {"M.K.", "M!K!", "M&K!", "N.T.", "FLT4", "FLT8", "FA04", "FA08", "EXO4", "EXO8", "CD81",
                            "OCTA", "OKTA", "6CHN", "8CHN", "16CH", "32CH", "xCHN", "xxCH", "TDZ1", "TDZ9"}) {
        auto d = mod_finish(mod_new(tag, 0));
        EXPECT_TRUE(mod_tag_is_31(d.data(), uint32_t(d.size()))) << tag;
    }
    for (const char *tag : {"M.K ", "m.k.", "FLT5", "FLT2", "EXO5", "CD82", "CHN ", "OKT ", "xCH.", ".M.K", "TDZ0", "TDZ:"}) {
        auto d = mod_finish(mod_new(tag, 0));
        EXPECT_FALSE(mod_tag_is_31(d.data(), uint32_t(d.size()))) << tag;
    }
    std::vector<uint8_t> zeros(1084, 0);
    EXPECT_FALSE(mod_tag_is_31(zeros.data(), 1084));
}

TEST(ModTag, ShortDataIsNeverAccepted) {
    auto d = mod_finish(mod_new("M.K.", 0));
    EXPECT_FALSE(mod_tag_is_31(d.data(), 1083));
    EXPECT_FALSE(mod_tag_is_31(nullptr, 0));
    EXPECT_EQ(mod31_classify(d.data(), 1083), MOD31_PROTRACKER);
}

TEST(ModClassify, TagsWithoutFurtherAnalysis) {
    EXPECT_EQ(classify(mod_new("M&K!", 0)), MOD31_MK_NOISE);
    EXPECT_EQ(classify(mod_new("8CHN", 0)), MOD31_COMP);
    EXPECT_EQ(classify(mod_new("16CH", 0)), MOD31_COMP);
    EXPECT_EQ(classify(mod_new("TDZ3", 0)), MOD31_COMP);
    EXPECT_EQ(classify(mod_new("N.T.", 0)), MOD31_NT20);
    EXPECT_EQ(classify(mod_new("FLT8", 0)), MOD31_PROTRACKER);
    EXPECT_EQ(classify(mod_new("EXO8", 0)), MOD31_PROTRACKER);
    EXPECT_EQ(classify(mod_new("OCTA", 0)), MOD31_PROTRACKER);
    EXPECT_EQ(classify(mod_new("M!K!", 0)), MOD31_PROTRACKER);
    EXPECT_EQ(classify(mod_new("FA04", 0)), MOD31_PROTRACKER);
    EXPECT_EQ(classify(mod_new("CD81", 0)), MOD31_PROTRACKER);
}

TEST(ModClassify, StartrekkerSampleMarks) {
    for (const char *tag : {"FLT4", "EXO4"}) {
        mod_builder m = mod_new(tag, 0);
        mod_set_sample(m, 0, smp(10, 64));
        EXPECT_EQ(classify(m), MOD31_FLT4) << tag;
        mod_set_sample(m, 29, smp(0, 64));   // the 30th header counts
        EXPECT_EQ(classify(m), MOD31_SCULPTURE) << tag;
    }
    // The 31st header is not examined.
    mod_builder m = mod_new("FLT4", 0);
    mod_set_sample(m, 30, smp(0, 64));
    EXPECT_EQ(classify(m), MOD31_FLT4);
}

TEST(ModClassify, ShiftedTagIsAnalysedLikeMK) {
    mod_builder m = mk_module(0);
    mod_set_sample(m, 3, smp(8, 0, 0, 0, 1));   // finetune with restart 0 gives 7
    EXPECT_EQ(classify(m), MOD31_COMP);
    memcpy(m.bytes.data() + 1080, ".M.K", 4);
    EXPECT_EQ(classify(m), MOD31_COMP);
    memcpy(m.bytes.data() + 1080, "M.K!", 4);
    EXPECT_EQ(classify(m), MOD31_PROTRACKER);
}

TEST(ModClassify, ImplausibleHeadersGiveZero) {
    mod_builder m = mk_module(0);
    mod_set_sample(m, 3, smp(8, 0, 0, 0, 1));
    ASSERT_EQ(classify(m), MOD31_COMP);

    mod_builder loud = m;
    mod_set_sample(loud, 5, smp(8, 65, 0, 1));
    EXPECT_EQ(classify(loud), MOD31_PROTRACKER);
    mod_builder fine = m;
    mod_set_sample(fine, 5, smp(8, 0, 0, 1, 16));
    EXPECT_EQ(classify(fine), MOD31_PROTRACKER);
    mod_builder edge = m;
    mod_set_sample(edge, 5, smp(8, 64, 0, 1, 15));
    EXPECT_EQ(classify(edge), MOD31_COMP);

    // Highest order entry 101 or more: not a ProTracker order list.
    mod_builder orders = m;
    mod_set_order(orders, 5, 101);
    EXPECT_EQ(classify(orders), MOD31_PROTRACKER);
    mod_set_order(orders, 5, 100);
    EXPECT_EQ(classify(orders), MOD31_COMP);
}

TEST(ModClassify, RepeatStartInBytes) {
    mod_builder m = mk_module(127);
    mod_set_sample(m, 7, smp(100, 64, 150, 10));
    EXPECT_EQ(classify(m), MOD31_ST24);
    // A loop that ends exactly at the sample's end is fine.
    mod_set_sample(m, 7, smp(100, 64, 90, 10));
    EXPECT_EQ(classify(m), MOD31_PROTRACKER);
    // The byte-offset rule wins over later implausible headers.
    mod_set_sample(m, 7, smp(100, 64, 150, 10));
    mod_set_sample(m, 8, smp(8, 99));
    EXPECT_EQ(classify(m), MOD31_ST24);
}

TEST(ModClassify, ExtendedCommandsAndFinetune) {
    // E1x in pattern 0 (highest order 1, so pattern 0 is examined).
    for (uint8_t restart : {0, 5, 127, 120}) {
        mod_builder m = mk_module(restart, 2, 2);
        mod_set_cell(m, 0, 10, 2, 14, 0x13);
        int expected = (restart == 127 || restart == 120) ? MOD31_PROTRACKER : MOD31_COMP;
        EXPECT_EQ(classify(m), expected) << int(restart);
    }
    // Finetune alone does the same.
    mod_builder f = mk_module(5, 10);
    mod_set_sample(f, 2, smp(4, 0, 0, 1, 3));
    EXPECT_EQ(classify(f), MOD31_COMP);
    mod_set_song(f, 10, 120);
    EXPECT_EQ(classify(f), MOD31_PROTRACKER);
}

TEST(ModClassify, OnlyPatternsBelowTheHighestOrderAreTallied) {
    // Highest order 1: pattern 0 is read, pattern 1 is not.
    mod_builder m = mk_module(0, 2, 2);
    mod_set_cell(m, 1, 0, 0, 14, 0x10);
    EXPECT_EQ(classify(m), MOD31_NT20);   // rules as if no E1x
    mod_set_cell(m, 0, 0, 0, 14, 0x10);
    EXPECT_EQ(classify(m), MOD31_COMP);
    // A pattern cut short by the end of the file is not read either.
    auto d = mod_finish(m);
    d.resize(1084 + 1023);
    EXPECT_EQ(classify(d), MOD31_NT20);
}

TEST(ModClassify, RestartOneTwentySevenRules) {
    // P0 <= P1 and Z0 <= Z1: plain ProTracker.
    EXPECT_EQ(classify(mk_module(127)), MOD31_PROTRACKER);

    // Z0 > Z1 goes to the convention check; L < R leads on to the NoiseTracker
    // check, which fails on Z0 > Z1, and the tempo check gives 6 ...
    mod_builder m = mk_module(127, 1);
    zero_empty_repeats(m);
    EXPECT_EQ(classify(m), MOD31_NT10);
    // ... or 7 when a tempo command (F20 or more) occurs.
    mod_builder tempo = m;
    mod_set_cell(tempo, 0, 0, 0, 15, 0x7D);
    EXPECT_EQ(classify(tempo), MOD31_COMP);
    mod_builder speed = m;
    mod_set_cell(speed, 0, 0, 0, 15, 0x1F);
    EXPECT_EQ(classify(speed), MOD31_NT10);
    // Tone portamento/vibrato family commands end the convention check at 7.
    for (uint8_t cmd : {5, 6, 7, 9}) {
        mod_builder tone = m;
        mod_set_cell(tone, 0, 3, 1, cmd, 0x01);
        EXPECT_EQ(classify(tone), MOD31_COMP) << int(cmd);
    }
    mod_builder cmd8 = m;
    mod_set_cell(cmd8, 0, 3, 1, 8, 0x01);
    EXPECT_EQ(classify(cmd8), MOD31_NT10);

    // R = 127 with P0 > P1 falls to the R < 128 rule (R != 0: convention check).
    mod_builder p = mk_module(127, 1);
    mod_set_sample(p, 0, smp(100, 64));
    EXPECT_EQ(classify(p), MOD31_COMP);   // NoiseTracker check fails (P0 > P1), tempo check fails too
}

TEST(ModClassify, ConventionCheckWithRestartInsideTheSong) {
    // R = 1, L = 2, exactly one Z0 sample, P0 <= P1: NoiseTracker 1.x when Z1 > 0.
    mod_builder m = mk_module(1, 2);
    mod_set_sample(m, 1, smp(0));   // Z0 = 1, Z1 = 29
    EXPECT_EQ(classify(m), MOD31_NT10);

    // With no Z1 samples (the rest have a repeat start, so they are not
    // counted) the tempo check decides.
    mod_builder t = mk_module(1, 2);
    mod_set_sample(t, 1, smp(0));
    for (int i = 2; i < 31; ++i) mod_set_sample(t, i, smp(0, 0, 2));
    EXPECT_EQ(classify(t), MOD31_NT10);
    mod_set_cell(t, 0, 0, 0, 15, 0x20);
    EXPECT_EQ(classify(t), MOD31_COMP);

    // Song length below the restart: NoiseTracker check (Z0 = 1 <= Z1 = 29).
    mod_builder l = mk_module(3, 2);
    mod_set_sample(l, 1, smp(0));
    EXPECT_EQ(classify(l), MOD31_NT20);
    // Two Z0 samples: NoiseTracker check as well.
    mod_builder z = mk_module(1, 2);
    mod_set_sample(z, 1, smp(0));
    mod_set_sample(z, 2, smp(0));
    EXPECT_EQ(classify(z), MOD31_NT20);
}

TEST(ModClassify, RestartZeroRules) {
    // P0 <= P1: convention check, R = 0 -> NoiseTracker check -> 2.x.
    EXPECT_EQ(classify(mk_module(0)), MOD31_NT20);
    // Z0 > Z1: NoiseTracker check fails -> tempo check -> 1.x.
    mod_builder z = mk_module(0);
    zero_empty_repeats(z);
    EXPECT_EQ(classify(z), MOD31_NT10);

    // R = 0, P0 > P1, Z0 > Z1: 7 without an E0x command ...
    mod_builder p = mk_module(0);
    zero_empty_repeats(p);
    mod_set_sample(p, 0, smp(100, 64));
    EXPECT_EQ(classify(p), MOD31_COMP);
    // ... and with one the NoiseTracker and tempo checks reject P0 > P1 too.
    mod_set_cell(p, 0, 0, 0, 14, 0x01);
    EXPECT_EQ(classify(p), MOD31_COMP);
}

TEST(ModClassify, RestartAbove127) {
    for (uint8_t r : {128, 200, 255}) EXPECT_EQ(classify(mk_module(r, 1)), MOD31_COMP) << int(r);
}

TEST(ModClassify, TallyCountsCommandsParametersAndSubcommands) {
    mod_builder m = mk_module(127, 1, 2);
    mod_set_cell(m, 0, 0, 0, 0, 0x37);   // arpeggio
    mod_set_cell(m, 0, 1, 0, 0, 0x00);   // nothing
    mod_set_cell(m, 0, 2, 1, 1, 0x00);   // portamento up with parameter 0 still counts
    mod_set_cell(m, 0, 3, 1, 1, 0x1E);
    mod_set_cell(m, 0, 4, 2, 14, 0xC3);
    mod_set_cell(m, 0, 5, 3, 15, 0x1F);
    mod_set_cell(m, 1, 6, 3, 15, 0x20);
    auto d = mod_finish(m);
    cell_tally t;
    tally_patterns(d.data(), uint32_t(d.size()), 1084, 2, &t);
    EXPECT_EQ(t.count[0], 1u);
    EXPECT_EQ(t.max_param[0], 0x37u);
    EXPECT_EQ(t.count[1], 2u);
    EXPECT_EQ(t.max_param[1], 0x1Eu);
    EXPECT_EQ(t.ext[12], 1u);
    EXPECT_EQ(t.speed_lo, 1u);
    EXPECT_EQ(t.speed_hi, 1u);
    tally_patterns(d.data(), 1084 + 2048 - 1, 1084, 2, &t);   // pattern 1 no longer whole
    EXPECT_EQ(t.speed_hi, 0u);
}

TEST(ModClassify, EveryTruncationStaysInsideTheData) {
    // Exact-size heap copies, so a read past the end is caught by the
    // address sanitizer.
    mod_builder m = mk_module(0, 3, 3);
    mod_set_order(m, 2, 2);
    mod_set_cell(m, 1, 63, 3, 14, 0x10);
    auto full = mod_finish(m);
    for (uint32_t size = 0; size <= full.size(); size += (size < 1100 ? 1 : 97)) {
        std::vector<uint8_t> cut(full.begin(), full.begin() + size);
        int r = mod31_classify(cut.data(), size);
        EXPECT_GE(r, 0);
        EXPECT_LE(r, 7);
        (void)mod_tag_is_31(cut.data(), size);
    }
}
