// ProTracker-family classification: tags, the M.K. analysis and its
// decision rules, on synthetic modules built field by field.
#include <gtest/gtest.h>

#include <vector>

#include "selection/classify.h"
#include "support/services.h"

namespace {

int cls(const std::vector<uint8_t> &d) { return mod31_classify(d.data(), uint32_t(d.size())); }

// An "M.K." module with sample 0 a ProTracker-style unlooped sample (repeat
// length 1) and every other header as ProTracker writes empty ones (length
// 0, repeat length 1): P1 = 1, P0 = 0, Z1 = 30, Z0 = 0. The order list
// names pattern 1, so pattern 0 (below the highest entry) is examined.
mb mk(uint8_t restart, uint8_t song_length = 1) {
    mb m("M.K.", 2);
    m.song(song_length, restart).order(1, 1).sample(0, smp(100, 64, 0, 1)).samples(1, 31, smp(0, 0, 0, 1));
    return m;
}
mb tagged(const char *tag) { return mb(tag, 0); }
// Empty headers with repeat length 0 (Z0 = 30, Z1 = 0).
mb mk_z0(uint8_t restart, uint8_t song_length = 1) { return mk(restart, song_length).samples(1, 31, smp(0)); }
// A finetuned sample: with restart 0 the M.K. analysis gives 7.
mb mk_ft() { return mk(0).sample(3, smp(8, 0, 0, 0, 1)); }

}   // namespace

TEST(ModTag, AcceptsExactlyTheThirtyOneInstrumentTags) {
    for (const char *tag : {"M.K.", "M!K!", "M&K!", "N.T.", "FLT4", "FLT8", "FA04", "FA08", "EXO4", "EXO8", "CD81",
                            "OCTA", "OKTA", "6CHN", "8CHN", "16CH", "32CH", "xCHN", "xxCH", "TDZ1", "TDZ9"}) {
        auto d = tagged(tag).bytes();
        EXPECT_TRUE(mod_tag_is_31(d.data(), uint32_t(d.size()))) << tag;
        EXPECT_FALSE(mod_tag_is_31(d.data(), 1083)) << tag;
    }
    for (const char *tag : {"M.K ", "m.k.", "FLT5", "FLT2", "EXO5", "CD82", "CHN ", "OKT ", "xCH.", ".M.K", "TDZ0",
                            "TDZ:", "\0\0\0\0"}) {
        auto d = tagged(tag).bytes();
        EXPECT_FALSE(mod_tag_is_31(d.data(), uint32_t(d.size()))) << tag;
    }
    EXPECT_FALSE(mod_tag_is_31(nullptr, 0));
    EXPECT_EQ(mod31_classify(tagged("M&K!").bytes().data(), 1083), MOD31_PROTRACKER);
}

TEST(ModClassify, DecisionRules) {
    struct { const char *what; mb m; int kind; } cases[] = {
        // Tags decide without further analysis.
        {"M&K!", tagged("M&K!"), MOD31_MK_NOISE}, {"8CHN", tagged("8CHN"), MOD31_COMP},
        {"16CH", tagged("16CH"), MOD31_COMP}, {"TDZ3", tagged("TDZ3"), MOD31_COMP},
        {"N.T.", tagged("N.T."), MOD31_NT20},
        {"FLT8", tagged("FLT8"), MOD31_PROTRACKER}, {"EXO8", tagged("EXO8"), MOD31_PROTRACKER},
        {"OCTA", tagged("OCTA"), MOD31_PROTRACKER}, {"M!K!", tagged("M!K!"), MOD31_PROTRACKER},
        {"FA04", tagged("FA04"), MOD31_PROTRACKER}, {"CD81", tagged("CD81"), MOD31_PROTRACKER},
        // Startrekker: an empty sample with a volume among the first 30 headers marks sample data.
        {"FLT4", tagged("FLT4").sample(0, smp(10, 64)), MOD31_FLT4},
        {"FLT4 marked", tagged("FLT4").sample(0, smp(10, 64)).sample(29, smp(0, 64)), MOD31_SCULPTURE},
        {"EXO4", tagged("EXO4").sample(0, smp(10, 64)), MOD31_FLT4},
        {"EXO4 marked", tagged("EXO4").sample(29, smp(0, 64)), MOD31_SCULPTURE},
        {"FLT4, 31st header", tagged("FLT4").sample(30, smp(0, 64)), MOD31_FLT4},
        // ".M.K" is analysed like "M.K.".
        {"finetune, restart 0", mk_ft(), MOD31_COMP}, {".M.K", mk_ft().tag(".M.K"), MOD31_COMP},
        {"M.K!", mk_ft().tag("M.K!"), MOD31_PROTRACKER},
        // Implausible headers or order lists give 0.
        {"volume 65", mk_ft().sample(5, smp(8, 65, 0, 1)), MOD31_PROTRACKER},
        {"finetune 16", mk_ft().sample(5, smp(8, 0, 0, 1, 16)), MOD31_PROTRACKER},
        {"volume 64, finetune 15", mk_ft().sample(5, smp(8, 64, 0, 1, 15)), MOD31_COMP},
        {"order 101", mk_ft().order(5, 101), MOD31_PROTRACKER}, {"order 100", mk_ft().order(5, 100), MOD31_COMP},
        {"order 101 at position 0", mk_ft().order(0, 101), MOD31_PROTRACKER},
        // A loop past the sample's end if counted in words: repeat start in bytes.
        {"loop past the end", mk(127).sample(7, smp(100, 64, 150, 10)), MOD31_ST24},
        {"loop to the end", mk(127).sample(7, smp(100, 64, 90, 10)), MOD31_PROTRACKER},
        {"bytes rule first", mk(127).sample(7, smp(100, 64, 150, 10)).sample(8, smp(8, 99)), MOD31_ST24},
        // E1x-EFx or finetune: 0 for restart 127 or 120, else 7.
        {"E1x, restart 0", mk(0, 2).cell(0, 10, 2, 14, 0x13), MOD31_COMP},
        {"E1x, restart 5", mk(5, 2).cell(0, 10, 2, 14, 0x13), MOD31_COMP},
        {"E1x, restart 127", mk(127, 2).cell(0, 10, 2, 14, 0x13), MOD31_PROTRACKER},
        {"E1x, restart 120", mk(120, 2).cell(0, 10, 2, 14, 0x13), MOD31_PROTRACKER},
        {"finetune, restart 5", mk(5, 10).sample(2, smp(4, 0, 0, 1, 3)), MOD31_COMP},
        {"finetune, restart 120", mk(120, 10).sample(2, smp(4, 0, 0, 1, 3)), MOD31_PROTRACKER},
        // Only patterns below the highest order entry are tallied.
        {"E1x in pattern 1", mk(0, 2).cell(1, 0, 0, 14, 0x10), MOD31_NT20},
        {"E1x in pattern 0", mk(0, 2).cell(0, 0, 0, 14, 0x10), MOD31_COMP},
        {"E0x is not one of them", mk(0, 2).cell(0, 0, 0, 14, 0x01), MOD31_NT20},
        // Restart 127: P0 <= P1 and Z0 <= Z1 is plain ProTracker; Z0 > Z1 goes to the
        // convention check; L < R leads on to the NoiseTracker check, which fails on
        // Z0 > Z1, and the tempo check gives 6, or 7 with F20 or more.
        {"R 127", mk(127), MOD31_PROTRACKER}, {"R 127, Z0 > Z1", mk_z0(127), MOD31_NT10},
        {"R 127, P0 = P1", mk(127).sample(5, smp(8)), MOD31_PROTRACKER},
        {"R 127, F7D", mk_z0(127).cell(0, 0, 0, 15, 0x7D), MOD31_COMP},
        {"R 127, F1F", mk_z0(127).cell(0, 0, 0, 15, 0x1F), MOD31_NT10},
        {"R 127, command 5", mk_z0(127).cell(0, 3, 1, 5, 1), MOD31_COMP},   // tone effects end the convention check
        {"R 127, command 6", mk_z0(127).cell(0, 3, 1, 6, 1), MOD31_COMP},
        {"R 127, command 7", mk_z0(127).cell(0, 3, 1, 7, 1), MOD31_COMP},
        {"R 127, command 9", mk_z0(127).cell(0, 3, 1, 9, 1), MOD31_COMP},
        {"R 127, command 8", mk_z0(127).cell(0, 3, 1, 8, 1), MOD31_NT10},
        // R = 127 with P0 > P1 falls to the R < 128 rule: NoiseTracker and tempo checks fail.
        {"R 127, P0 > P1", mk(127).sample(0, smp(100, 64)), MOD31_COMP},
        // Convention check with the restart inside the song: R = 1, L = 2, one Z0 sample.
        {"R 1, Z1 > 0", mk(1, 2).sample(1, smp(0)), MOD31_NT10},
        {"R 1, no Z1", mk(1, 2).sample(1, smp(0)).samples(2, 31, smp(0, 0, 2)), MOD31_NT10},
        {"R 1, no Z1, F20", mk(1, 2).sample(1, smp(0)).samples(2, 31, smp(0, 0, 2)).cell(0, 0, 0, 15, 0x20),
         MOD31_COMP},
        {"R 1, one Z1, F20",
         mk(1, 2).sample(1, smp(0)).samples(2, 31, smp(0, 0, 2)).sample(2, smp(0, 0, 0, 1)).cell(0, 0, 0, 15, 0x20),
         MOD31_NT10},
        {"L < R", mk(3, 2).sample(1, smp(0)), MOD31_NT20},
        {"two Z0", mk(1, 2).sample(1, smp(0)).sample(2, smp(0)), MOD31_NT20},
        // Restart 0.
        {"R 0", mk(0), MOD31_NT20}, {"R 0, Z0 > Z1", mk_z0(0), MOD31_NT10},
        {"R 0, P0 > P1, Z0 > Z1", mk_z0(0).sample(0, smp(100, 64)), MOD31_COMP},
        {"R 0, P0 > P1, Z0 > Z1, E01", mk_z0(0).sample(0, smp(100, 64)).cell(0, 0, 0, 14, 0x01), MOD31_COMP},
        {"R 128", mk(128), MOD31_COMP}, {"R 200", mk(200), MOD31_COMP}, {"R 255", mk(255), MOD31_COMP},
    };
    for (const auto &c : cases) EXPECT_EQ(cls(c.m.bytes()), c.kind) << c.what;
    // A pattern cut short by the end of the file is not read.
    auto d = mk(0, 2).cell(0, 0, 0, 14, 0x10).bytes();
    d.resize(1084 + 1023);
    EXPECT_EQ(cls(d), MOD31_NT20);
}
