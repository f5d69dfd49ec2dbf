// The ProTracker-family players on synthetic modules. After tick 1 + r x 6 + t a player has just done tick t of
// row r at speed 6.
#include "ptk_support.h"

using namespace trk;

namespace {

struct msample {
    uint16_t words;
    uint8_t vol;
    uint16_t rep = 0, replen = 1;
    uint8_t fine = 0;
    int8_t fill = 0;   // every byte of its data
};

// Sample 1: 2000 words, volume 40, no loop; 2: 100 words, volume 64, looping from word 10 for 50.
const std::vector<msample> kTwo = {{2000, 40, 0, 1, 0, 10}, {100, 64, 10, 50}};

// A ProTracker-layout image (tag null: 15 instruments) of `channels` cells a row, orders 0, 1, ... unless given.
bytes mod(const std::vector<cell> &cells, int patterns = 1, const std::vector<msample> &samples = kTwo,
          const char *tag = "M.K.", bytes orders = {}, uint8_t restart = 0, int channels = 4) {
    const size_t head = tag ? 1084 : 600, song = tag ? 950 : 470, row = size_t(channels) * 4;
    bytes m(head + size_t(patterns) * row * 64, 0);
    if (tag) memcpy(&m[1080], tag, 4);
    for (size_t i = 0, h = 42; i < samples.size(); i++, h += 30) {
        be16(m, h, samples[i].words), be16(m, h + 4, samples[i].rep), be16(m, h + 6, samples[i].replen);
        m[h + 2] = samples[i].fine, m[h + 3] = samples[i].vol;
    }
    if (orders.empty())
        for (int p = 0; p < patterns; p++) orders.push_back(uint8_t(p));
    m[song] = uint8_t(orders.size()), m[song + 1] = restart;
    std::copy(orders.begin(), orders.end(), &m[song + 2]);
    for (const cell &c : cells) put_cell(m, head + (size_t(c.pat) * 64 + size_t(c.row)) * row + size_t(c.ch) * 4, c);
    for (const msample &s : samples) m.insert(m.end(), size_t(s.words) * 2, uint8_t(s.fill));
    return m;
}

constexpr uint32_t kData = kModule + 1084 + 1024, kData15 = kModule + 600 + 1024;   // one pattern's samples

PTK_FIXTURE(Ptk, "PTK-Prowiz", "UltimateSoundtracker", "Soundtracker-IV");

}  // namespace

TEST_F(Ptk, EffectsVariantsMixingAndRefusals) {
    const char *const P = "PTK-Prowiz";
    bytes big = mod({{0, 0, 0, 428, 1}}, 1, {{60000, 64}}), none = mod({});
    bytes hmn = mod({{0, 0, 0, 428, 1}, {0, 1, 1, 428, 2}, {0, 0, 2, 428, 3, 7, 1}}, 2,
                    {{0, 48}, {100, 64, 0, 1, 0xFE, 10}, {100, 64, 0, 1, 0, 10}}, "M&K!", {0});
    big.resize(2108 + 1000);
    none[950] = 0;   // no positions
    memcpy(&hmn[20], "Mupp\1\1\3", 8);
    hmn[953] = 1;   // pattern 1, not in the song, holds the synth sound: waveform w is 32 bytes of w
    for (uint32_t w = 0; w < 28; w++) memset(&hmn[2108 + 32 * w], int(w), 32);
    const uint8_t steps[8] = {3, 9, 6, 12, 64, 32, 0x80 | 16, 100};   // the steps' waveforms, then volumes
    for (int i = 0; i < 8; i++) hmn[2108 + (i < 4 ? 0x380 : 0x3BC) + i] = steps[i];
    // A sample of bytes 100 at volume V on channel c of N: Paula channel c mod 4 plays 100 x V / 64 / S at the
    // mixing period 180 (19,705 Hz), S = ceil(N / 4) rounded up to a power of two; the others 0.
    auto mix = [P](const char *tag, int n, int c, uint8_t volume, int level) {
        std::string p = "@3";
        for (char x = '0'; x < '4'; x++)
            p = p + " p" + x + "=180 v" + x + "=64 q" + x + "=" + std::to_string(x - '0' == c % 4 ? level : 0);
        return tcase{tag, P, mod({{0, 0, c, 428, 1}}, 1, {{500, volume, 0, 500, 0, 100}}, tag, {}, 0, n), 0, p};
    };
    const tcase kCases[] = {
        mix("5CHN", 5, 2, 32, 25), mix("6CHN", 6, 4, 64, 50), mix("8CHN", 8, 7, 64, 50), mix("CD81", 8, 5, 48, 37),
        mix("OKTA", 8, 1, 64, 50), mix("12CH", 12, 9, 64, 25), mix("32CH", 32, 31, 64, 12), mix("TDZ9", 9, 8, 64, 25),
        // Sample 2 plays to its loop's end, then the loop is queued; sample 1 has none: silence is queued.
        {"note", P, mod({{0, 0, 0, 428, 1}, {0, 0, 1, 856, 2}}), kData,
         "@1 p0=428 v0=40 d0=1 a0=0 l0=1 q0=0 v1=64 a1=4000 e1=120 c1=4020 l1=50"},
        // Finetune +1 from the sample; E5F: -1 for the note and the next without a sample; a sample number
        // brings back the sample's (0).
        {"finetune", P,
         mod({{0, 0, 0, 428, 1}, {0, 1, 0, 428, 2, 0xE, 0x5F}, {0, 2, 0, 428, 0}, {0, 3, 0, 428, 2}}, 1,
             {{2000, 40, 0, 1, 1}, {100, 64, 10, 50}}),
         0, "@1 p0=425 @7 p0=431 @13 p0=431 @19 p0=428"},
        {"arpeggio", P, mod({{0, 0, 0, 428, 1, 0, 0x37}}), 0, "@1 p0=428 @2 p0=360 @3 p0=285 @4 p0=428 @5 p0=360"},
        // 1xx/2xx from tick 1, stopping at 113 and 856; E13 once on tick 0.
        {"portamento", P,
         mod({{0, 0, 0, 428, 1, 1, 5}, {0, 0, 1, 120, 1, 1, 0x10}, {0, 0, 2, 428, 1, 2, 5}, {0, 0, 3, 808, 1, 2, 0x30},
              {0, 1, 0, 0, 0, 0xE, 0x13}}),
         0, "@3 p0=418 p1=113 p2=438 p3=856 @6 p0=403 @12 p0=400"},
        // The target is set on tick 0 without a jump, 428 - 5 x 32 after tick 5; it stops at 214. 300 goes on.
        {"tone portamento", P,
         mod({{0, 0, 0, 428, 1}, {0, 1, 0, 214, 0, 3, 0x20}, {0, 2, 0, 0, 0, 3}, {0, 3, 0, 0, 0, 3}}), 0,
         "@7 p0=428 @12 p0=268 @18 p0=214 @24 p0=214"},
        // Position +16 a tick from 0; offset = sine x depth / 128.
        {"vibrato", P, mod({{0, 0, 0, 428, 1, 4, 0x48}}), 0, "@1-2 p0=428 @3 p0=434 @4 p0=439 @5 p0=442"},
        // Tremolo: sine x depth / 64 on volume 40; A02, A30, C50 (64), EB4.
        {"volume", P,
         mod({{0, 0, 0, 428, 1, 0xA, 2}, {0, 1, 0, 0, 0, 0xA, 0x30}, {0, 2, 0, 0, 0, 0xC, 0x50},
              {0, 3, 0, 0, 0, 0xE, 0xB4}, {0, 0, 1, 428, 1, 7, 0x48}}),
         0, "@1-2 v1=40 @3 v1=52 @4 v1=62 @5-6 v1=64 @6 v0=30 @12 v0=45 @13 v0=64 @19 v0=60 @24 v0=60"},
        // D12: row 12 (decimal) of the next position; B00 back to 0: the 13th tick finds the song's end (12 x 960).
        {"break and jump", P, mod({{0, 0, 0, 428, 1, 0xD, 0x12}, {1, 12, 0, 381, 1, 0xB, 0}, {1, 13, 0, 339, 1}}, 3), 0,
         "@6 p0=428 @7 p0=381 E0=0 @13 p0=428 E0=11520"},
        {"pattern loop: rows 0-1 three times, not the song's end", P,
         mod({{0, 0, 0, 428, 1, 0xE, 0x60}, {0, 1, 0, 381, 1, 0xE, 0x62}, {0, 2, 0, 339, 1}}), 0,
         "@31 p0=381 @37 p0=339 E0=0"},
        // EE2: row 0 lasts three rows; A01 slides on ticks 1-5 of each pass and the repeated tick 0s: 40 - 17.
        {"pattern delay", P, mod({{0, 0, 0, 428, 1, 0xE, 0xE2}, {0, 0, 1, 428, 1, 0xA, 1}, {0, 1, 0, 381, 1}}), 0,
         "@18 p0=428 v1=23 @19 p0=381"},
        {"note delay ED3 and cut EC2", P, mod({{0, 0, 0, 428, 1, 0xE, 0xD3}, {0, 0, 1, 428, 1, 0xE, 0xC2}}), kData,
         "@2 d0=0 v1=40 @3 d0=0 v1=0 @4 d0=1 p0=428 a0=0"},
        // ~166 samples a tick at period 428: channel 1 has played ~830 after 5 ticks, channel 0 (E92) ~166.
        {"retrigger", P, mod({{0, 0, 0, 428, 1, 0xE, 0x92}, {0, 0, 1, 428, 1}}), 0, "@5 P1=8 P0=1"},
        // 902: 512 bytes in; a note without a command after it: 1024 (added twice); 900: the last offset.
        {"sample offset", P, mod({{0, 0, 0, 428, 1, 9, 2}, {0, 1, 0, 428, 0}, {0, 2, 0, 428, 1, 9, 0}}), kData,
         "@1 a0=512 @7 a0=1024 @13 a0=512"},
        // F96: 150 BPM, CIA value 1773447 / 150 = 11822; (11822 + 1) x 48000 / 709379 = 800 frames a tick.
        {"speed and tempo", P, mod({{0, 0, 0, 428, 1, 0xF, 3}, {0, 1, 0, 381, 1, 0xF, 0x96}, {0, 2, 0, 339, 1}}), 0,
         "@3 p0=428 @4 p0=381 t0=11822 f0=800"},
        // UST: only the loop plays (from byte 200); 2xy: y lowers, x raises the period; 1xy arpeggio; Fxx nothing.
        {"UST", "UltimateSoundtracker",
         mod({{0, 0, 0, 428, 1, 2, 3}, {0, 0, 1, 428, 1, 2, 0x40}, {0, 0, 2, 428, 1, 1, 0x37},
              {0, 0, 3, 428, 1, 0xF, 3}, {0, 1, 3, 381, 1}},
             1, {{1000, 64, 200, 300}}, nullptr, {0}, 120),
         kData15, "@1 a0=200 e0=600 @3 p0=422 p1=436 p2=285 @6 p3=428 @7 p3=381"},
        // Soundtracker IV: repeat start in bytes (the first pass ends at byte 200 + 600); F40 is speed 64.
        {"ST-IV", "Soundtracker-IV",
         mod({{0, 0, 0, 428, 1, 0xF, 0x40}, {0, 1, 0, 381, 1}}, 1, {{1000, 64, 200, 300}}, nullptr), kData15,
         "@1 a0=0 e0=800 c0=200 f0=960 @64 p0=428 @65 p0=381"},
        // N.T.: the song goes on at the restart position and ends on a position played (tick 768); no option.
        {"N.T. restart", P, mod({{0, 0, 0, 428, 1}, {1, 0, 0, 381, 1}}, 2, {{1000, 64}}, "N.T.", {0, 1}, 1), 0,
         "@769 p0=381 E0=737280", nullptr, nullptr, ""},
        // A loop past the sample's end in words: the tree's rules say "type:st24", a repeat start in bytes.
        {"option string", P, mod({{0, 0, 0, 428, 1}}, 1, {{100, 64, 150, 10}}), kData, "@1 c0=150 l0=10", nullptr,
         "dir/song.mod", "type:st24"},
        // Channels 0 and 4 add on Paula 0. Sample 2 (one-shot, 4000 bytes at period 856: 0.965 s) plays on;
        // instrument 3 given without a note follows it at its end, as Paula's queued block does.
        {"voices add, a queued instrument", P,
         mod({{0, 0, 0, 428, 1}, {0, 0, 4, 428, 1}, {0, 0, 1, 856, 2}, {0, 1, 1, 0, 3}}, 1,
             {{500, 64, 0, 500, 0, 100}, {2000, 64, 0, 1, 0, -60}, {50, 64, 0, 50, 0, 40}}, "8CHN", {}, 0, 8),
         0, "@2 q0=100 q1=-30 @22 q1=-30 @52 q0=100 q1=20"},
        // FLT8: position p plays pattern p & ~1 on channels 0-3, the next on 4-7; orders 0, 2, 1: pairs 0, 1, 0.
        {"FLT8", P,
         mod({{1, 0, 1, 428, 1}, {3, 0, 1, 428, 2}}, 4, {{200, 64, 0, 200, 0, 100}, {200, 64, 0, 200, 0, 40}}, "FLT8",
             {0, 2, 1}),
         0, "@3 q1=50 q0=0 @387 q1=20 @771 q1=50"},
        {"a sample longer than the file plays what is there", P, big, 0, "@1 e0=1000"},
        {"refused: no positions", P, none, 0, "!"},
        {"refused: a pattern beyond the file", P, mod({}, 1, {}, "M.K.", {60}), 0, "!"},
        {"refused: too short for a Soundtracker module", "UltimateSoundtracker", bytes(500, 0), 0, "!"},
        // His Master's Noise: a "Mupp" instrument first plays (first step << 8 | last step) words of its
        // pattern, then each tick the step's 32-byte waveform (queued) at the step's volume x the instrument's
        // / 64, looping from the first step to the last: steps 0, 1, 2, 3, 1, .. at 48 x 64 / 64 = 48, 24, 12
        // and 75, the limit 64. Plain samples take the finetune byte as a period factor 1 + fine / 256: 428 x
        // (1 - 2 / 256) for sample 2; 7xy steps through a chord table (1: 0, 4, 7, 12, 16, 12 semitones).
        {"His Master's Noise", P, hmn, kModule + 2108,
         "@1-7 l0=16 @1 a0=0 e0=518 v0=48 c0=96 p2=428 @2 v0=24 c0=288 p2=339 @3 v0=12 c0=192 p2=285 "
         "@4 v0=64 c0=384 p2=214 @5 v0=24 c0=288 p2=170 @6 v0=12 c0=192 p2=214 @7 v0=64 c0=384 p1=424",
         nullptr, nullptr, ""},
    };
    for (const tcase &c : kCases) run_case(c);
}
