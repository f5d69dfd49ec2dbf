// Telling the 31-instrument ProTracker-layout variants apart.
//
// Layout (words big-endian): sample i (0..30) at 20 + 30*i with name (22
// bytes), length in words (+22), finetune (+24), volume (+25), repeat start
// (+26), repeat length in words (+28); song length at 950, restart byte at
// 951, order list 952..1079, tag 1080..1083, patterns from 1084.
#include "selection/classify.h"

#include <cstring>

namespace {

constexpr uint32_t kTagOffset = 1080;
constexpr uint32_t kHeaderSize = 1084;
constexpr uint32_t kPatternSize = 1024;
constexpr int kSamples = 31;

inline uint32_t be16(const uint8_t *p) { return uint32_t(p[0]) << 8 | p[1]; }

bool tag_is(const uint8_t *tag, const char *text) { return memcmp(tag, text, 4) == 0; }

// xxCH and xCHN (PC trackers), TDZx (TakeTracker, x = 1..9 channels).
bool tag_is_multichannel(const uint8_t *tag) {
    return (tag[2] == 'C' && tag[3] == 'H') || (tag[1] == 'C' && tag[2] == 'H' && tag[3] == 'N') ||
           (tag[0] == 'T' && tag[1] == 'D' && tag[2] == 'Z' && tag[3] >= '1' && tag[3] <= '9');
}

struct sample_header {
    uint32_t length;    // words
    uint32_t finetune;
    uint32_t volume;
    uint32_t repeat_start;
    uint32_t repeat_length;   // words
};

sample_header read_sample(const uint8_t *data, int i) {
    const uint8_t *s = data + 20 + 30 * i;
    return {be16(s + 22), s[24], s[25], be16(s + 26), be16(s + 28)};
}

// The analysis for the "M.K." tag (the caller guarantees 1084 bytes).
int classify_mk(const uint8_t *data, uint32_t size) {
    uint32_t ft = 0, p0 = 0, p1 = 0, z0 = 0, z1 = 0;
    for (int i = 0; i < kSamples; ++i) {
        sample_header s = read_sample(data, i);
        if (s.volume > 64 || s.finetune > 15) return MOD31_PROTRACKER;
        // A loop that would run past the sample's end if the repeat start
        // were in words: this tracker counted it in bytes.
        if (s.length != 0 && 2 * s.length < 2 * s.repeat_length + 2 * s.repeat_start) return MOD31_ST24;
        if (s.finetune != 0) ++ft;
        if (s.repeat_start == 0) {
            if (s.length != 0) {
                if (s.repeat_length == 1) ++p1;
                if (s.repeat_length == 0) ++p0;
            } else {
                if (s.repeat_length == 0)
                    ++z0;
                else
                    ++z1;
            }
        }
    }
    const uint32_t restart = data[951];
    const uint32_t song_length = data[950];

    uint32_t highest = 0;
    for (uint32_t i = 952; i < 1080; ++i)
        if (data[i] > highest) highest = data[i];
    if (highest >= 101) return MOD31_PROTRACKER;

    cell_tally t;
    tally_patterns(data, size, kHeaderSize, highest, &t);

    bool ext_nonzero = false;
    for (int sub = 1; sub < 16; ++sub)
        if (t.ext[sub]) ext_nonzero = true;
    if (ext_nonzero || ft > 0) return (restart == 127 || restart == 120) ? MOD31_PROTRACKER : MOD31_COMP;

    const bool tone_effects = t.count[5] || t.count[6] || t.count[7] || t.count[9];

    auto tempo_check = [&]() -> int {
        if (t.speed_hi > 0) return MOD31_COMP;
        return (z1 <= z0 && p0 <= p1) ? MOD31_NT10 : MOD31_COMP;
    };
    auto noisetracker_check = [&]() -> int {
        if (p0 <= p1 && z0 <= z1) return MOD31_NT20;
        return tempo_check();
    };
    auto convention_check = [&]() -> int {
        if (tone_effects) return MOD31_COMP;
        if (restart == 0 || song_length < restart || z0 != 1 || p0 > p1) return noisetracker_check();
        return z1 > 0 ? MOD31_NT10 : tempo_check();
    };

    if (restart == 127 && p0 <= p1) return z0 <= z1 ? MOD31_PROTRACKER : convention_check();
    if (restart < 128) {
        if (restart != 0 || p0 <= p1 || z0 <= z1) return convention_check();
        if (t.ext[0] == 0 || tone_effects) return MOD31_COMP;
        return noisetracker_check();
    }
    return MOD31_COMP;
}

}   // namespace

void tally_patterns(const uint8_t *data, uint32_t size, uint32_t first, uint32_t count, cell_tally *t) {
    memset(t, 0, sizeof *t);
    for (uint64_t p = 0; p < count; ++p) {
        uint64_t start = first + p * kPatternSize;
        if (start + kPatternSize > size) break;
        const uint8_t *cell = data + start;
        for (uint32_t c = 0; c < kPatternSize / 4; ++c, cell += 4) {
            uint32_t cmd = cell[2] & 0x0F, param = cell[3];
            if (cmd == 0 && param == 0) continue;   // no effect
            ++t->count[cmd];
            if (param > t->max_param[cmd]) t->max_param[cmd] = param;
            if (cmd == 14) ++t->ext[param >> 4];
            if (cmd == 15) ++(param < 32 ? t->speed_lo : t->speed_hi);
        }
    }
}

bool mod_tag_is_31(const uint8_t *data, uint32_t size) {
    if (!data || size < kHeaderSize) return false;
    const uint8_t *tag = data + kTagOffset;
    static const char *const kTags[] = {"M.K.", "M!K!", "M&K!", "N.T.", "FLT4", "FLT8", "FA04",
                                        "FA08", "EXO4", "EXO8", "CD81", "OCTA", "OKTA"};
    for (const char *known : kTags)
        if (tag_is(tag, known)) return true;
    return tag_is_multichannel(tag);
}

int mod31_classify(const uint8_t *data, uint32_t size) {
    if (!data || size < kHeaderSize) return MOD31_PROTRACKER;
    const uint8_t *tag = data + kTagOffset;
    if (tag_is(tag, "M&K!")) return MOD31_MK_NOISE;
    if (tag_is_multichannel(tag)) return MOD31_COMP;
    if (tag_is(tag, "N.T.")) return MOD31_NT20;
    if (tag_is(tag, "FLT4") || tag_is(tag, "EXO4")) {
        // Sample-data marks: an empty sample that still has a volume. The
        // last header is left out on purpose.
        for (int i = 0; i < kSamples - 1; ++i) {
            sample_header s = read_sample(data, i);
            if (s.length == 0 && s.volume != 0) return MOD31_SCULPTURE;
        }
        return MOD31_FLT4;
    }
    if (tag_is(tag, "M.K.") || tag_is(tag, ".M.K")) return classify_mk(data, size);
    return MOD31_PROTRACKER;
}

bool ims_layout(const uint8_t *data, uint32_t size) {
    constexpr uint32_t kImsPattern = 768;   // 64 rows x 4 channels x 3 bytes
    constexpr uint32_t kSlack = 1024;
    if (!data || size < kHeaderSize + kImsPattern) return false;
    uint32_t samples_at = be16(data + kTagOffset) << 16 | be16(data + kTagOffset + 2);
    if (samples_at < kHeaderSize + kImsPattern || samples_at > size || (samples_at - kHeaderSize) % kImsPattern)
        return false;
    uint32_t stored = (samples_at - kHeaderSize) / kImsPattern;
    uint32_t length = data[950];
    if (stored > 128 || length == 0 || length > 128) return false;
    for (uint32_t i = 0; i < length; ++i)
        if (data[952 + i] >= stored) return false;
    uint64_t bytes = 0;
    for (int i = 0; i < kSamples; ++i) {
        sample_header s = read_sample(data, i);
        if (s.volume > 64 || s.length > 0x8000) return false;
        bytes += 2 * s.length;
    }
    uint64_t rest = size - samples_at;
    return bytes <= rest + kSlack && rest <= bytes + kSlack;
}
