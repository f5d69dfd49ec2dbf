// kelva's MED/OctaMED player on synthetic MMD modules and a MED2 song. Tempo 33 ticks at 50 Hz; line r, tick t
// of a 6-tick line is tick 6r + t.
#include <array>
#include <cmath>

#include "ptk_support.h"

using namespace ptk_test;

namespace {

struct med_cell { uint8_t note = 0, ins = 0, cmd = 0, data = 0; };
med_cell N(uint8_t note, uint8_t cmd = 0, uint8_t data = 0, uint8_t ins = 1) { return {note, ins, cmd, data}; }
med_cell C(uint8_t cmd, uint8_t data) { return {0, 0, cmd, data}; }

struct med_inst {
    int16_t type = 0;                           // 0 sample, 1-7 octave kinds, -1 synthetic, -2 hybrid
    std::vector<int8_t> data = ramp(2000, 7);   // a sample's bytes
    uint16_t rep = 0, replen = 0;               // words
    uint8_t volume = 40, hold = 0, decay = 0, wfspeed = 1;
    int8_t transpose = 0, finetune = 0;
    int flags = -1;                             // extension flags (-1: none)
    std::vector<uint8_t> vol, wf;               // a synthetic sound's sequences and waveforms
    std::vector<std::vector<int8_t>> waves;     // (a hybrid's waveform 0 is its sample)
};

// MMD1; instrument 1 = 2000 bytes at volume 40; one song of one block of 4 x 16.
struct med_module {
    int version = 1, cut = 0, sub = 0;                // cut > 0: keep that many bytes, < 0: drop that many
    uint16_t tracks = 4, lines = 16, tempo = 33;
    uint8_t flags = 0, flags2 = 0, trackvol = 64;
    int8_t transpose = 0;
    std::vector<std::vector<std::vector<med_cell>>> songs = {{{}}};   // each song's blocks
    std::vector<std::string> names = {""};
    std::vector<uint16_t> seq = {0};
    std::vector<int8_t> pans;                        // MMD2 free panning
    std::vector<med_inst> inst = {med_inst{}};
    std::vector<uint32_t> at_;                       // by build(): instrument 1's sample, or its waveforms
    med_cell &at(int line, int track = 0, size_t block = 0, size_t song = 0) {
        if (block >= songs[song].size()) songs[song].resize(block + 1);
        songs[song][block].resize(size_t(tracks) * lines);
        return songs[song][block][size_t(line) * tracks + size_t(track)];
    }
};
using M = med_module;

size_t grow(std::vector<uint8_t> &v, size_t n) {   // n bytes at an even offset
    if (v.size() & 1) v.push_back(0);
    v.resize(v.size() + n);
    return v.size() - n;
}
// Big-endian fields at base: {offset, bytes, value}.
void put(std::vector<uint8_t> &v, size_t base, std::initializer_list<std::array<uint64_t, 3>> fields) {
    for (const auto &f : fields)
        for (uint64_t b = 0; b < f[1]; b++) v[base + f[0] + b] = uint8_t(f[2] >> 8 * (f[1] - 1 - b));
}

std::vector<uint8_t> build(M &m) {
    std::vector<uint8_t> v;
    std::vector<size_t> heads, exps;
    const uint64_t ver = uint64_t(m.version), ni = m.inst.size(), esz = m.inst[0].flags >= 0 ? 6 : 4;
    const unsigned w = ver ? 2 : 1, cw = ver ? 4 : 3;   // MMD0: byte-sized block header fields, 3-byte cells
    for (size_t si = 0; si < m.songs.size(); si++) {
        size_t h = grow(v, 52), sg = grow(v, 788), nb = m.songs[si].size();
        heads.push_back(h);
        memcpy(&v[h], si ? "MCN" : "MMD", 3);
        put(v, h, {{3, 1, '0' + ver}, {8, 4, sg}, {51, 1, m.songs.size() - 1}});
        for (size_t i = 0; i < ni; i++)
            put(v, sg + 8 * i, {{0, 2, m.inst[i].rep}, {2, 2, m.inst[i].replen}, {6, 1, m.inst[i].volume},
                                {7, 1, uint8_t(m.inst[i].transpose)}});
        put(v, sg, {{504, 2, nb}, {764, 2, m.tempo}, {766, 1, uint8_t(m.transpose)}, {767, 1, m.flags},
                    {768, 1, m.flags2}, {769, 1, 6}, {786, 1, 64}, {787, 1, ni}});
        size_t barr = grow(v, 4 * nb);
        put(v, h, {{16, 4, barr}});
        for (size_t bi = 0; bi < nb; bi++) {
            auto &b = m.songs[si][bi];
            b.resize(size_t(m.tracks) * m.lines);
            size_t o = grow(v, 6 * w - 4 + cw * b.size()), c = o + 6 * w - 4;
            put(v, barr + 4 * bi, {{0, 4, o}});
            put(v, o, {{0, w, m.tracks}, {w, w, m.lines - 1u}});
            for (const med_cell &x : b) {   // MMD0: 6 bits of note, 6 of instrument, 4 of command
                uint32_t mmd0 = uint32_t((x.note & 0x3F) | (x.ins & 0x10) << 3 | (x.ins & 0x20) << 1) << 16 |
                                (x.ins & 15) << 12 | (x.cmd & 15) << 8 | x.data;
                put(v, c, {{0, cw, ver ? uint32_t(x.note << 24 | x.ins << 16 | x.cmd << 8 | x.data) : mmd0}});
                c += cw;
            }
        }
        if (ver < 2) {
            put(v, sg, {{506, 2, m.seq.size()}});
            for (size_t i = 0; i < m.seq.size(); i++) v[sg + 508 + i] = uint8_t(m.seq[i]);
            memset(&v[sg + 770], m.trackvol, 16);
        } else {   // one playing sequence in one section, track volumes and pans
            size_t ps = grow(v, 42 + 2 * m.seq.size()), pst = grow(v, 4), sect = grow(v, 2), tv = grow(v, 64);
            size_t tp = grow(v, 64);
            put(v, ps, {{40, 2, m.seq.size()}});
            for (size_t i = 0; i < m.seq.size(); i++) put(v, ps + 42 + 2 * i, {{0, 2, m.seq[i]}});
            put(v, pst, {{0, 4, ps}});
            memset(&v[tv], m.trackvol, 64);
            for (size_t t = 0; t < m.pans.size(); t++) v[tp + t] = uint8_t(m.pans[t]);
            put(v, sg, {{506, 2, 1}, {508, 4, pst}, {512, 4, sect}, {516, 4, tv}, {520, 2, 64}, {522, 2, 1},
                        {524, 4, tp}, {528, 4, m.pans.empty() ? 0u : 2u}});
        }
        size_t exp = grow(v, 80), ext = grow(v, esz * ni), n = grow(v, m.names[si].size() + 1);
        exps.push_back(exp);
        put(v, h, {{32, 4, exp}});
        put(v, exp, {{4, 4, ext}, {8, 2, ni}, {10, 2, esz}, {44, 4, n}, {48, 4, m.names[si].size() + 1}});
        memcpy(&v[n], m.names[si].data(), m.names[si].size());
        for (size_t i = 0; i < ni; i++) {
            const med_inst &in = m.inst[i];
            put(v, ext + esz * i, {{0, 1, in.hold}, {1, 1, in.decay}, {3, 1, uint8_t(in.finetune)}});
            if (esz == 6) v[ext + 6 * i + 5] = uint8_t(in.flags >= 0 ? in.flags : in.replen > 1);
        }
    }
    for (size_t i = 1; i < heads.size(); i++) put(v, exps[i - 1], {{0, 4, heads[i]}});
    size_t smparr = grow(v, 4 * ni);   // the instruments, shared by the songs
    for (size_t h : heads) put(v, h, {{24, 4, smparr}});
    m.at_.clear();
    for (size_t i = 0; i < ni; i++) {
        const med_inst &in = m.inst[i];
        bool synth = in.type < 0;
        size_t o = grow(v, synth ? 278 + 4 * in.waves.size() : 6 + in.data.size());
        put(v, smparr + 4 * i, {{0, 4, o}});
        put(v, o, {{0, 4, synth ? 272 : in.data.size()}, {4, 2, uint16_t(in.type)}});
        if (!synth) {
            memcpy(&v[o + 6], in.data.data(), in.data.size());
            if (i == 0) m.at_.push_back(kModule + uint32_t(o) + 6);
            continue;
        }
        put(v, o, {{14, 2, in.vol.size()}, {16, 2, in.wf.size()}, {18, 1, 1}, {19, 1, in.wfspeed},
                   {20, 2, in.waves.size()}});
        std::copy(in.vol.begin(), in.vol.end(), v.begin() + long(o) + 22);
        std::copy(in.wf.begin(), in.wf.end(), v.begin() + long(o) + 150);
        for (size_t wi = 0; wi < in.waves.size(); wi++) {
            size_t head = in.type == -2 && wi == 0 ? 6 : 2;   // a hybrid's sample has a sample header
            size_t wo = grow(v, head + in.waves[wi].size());
            put(v, o + 278 + 4 * wi, {{0, 4, wo - o}});
            put(v, wo, {{0, head - 2, in.waves[wi].size()}, {head - 2, 2, head == 2 ? in.waves[wi].size() / 2 : 0}});
            memcpy(&v[wo + head], in.waves[wi].data(), in.waves[wi].size());
            if (i == 0) m.at_.push_back(kModule + uint32_t(wo + head));
        }
    }
    put(v, 0, {{4, 4, v.size()}});
    if (m.cut) v.resize(m.cut > 0 ? size_t(m.cut) : v.size() - size_t(-m.cut));
    return v;
}

// Instrument 1 as a synthetic sound (type -1: waveforms ramp(32), ramp(64)) or a hybrid (-2: a 400-byte
// sample, ramp(32)), with an envelope wave whose byte i means volume (4i + 128) >> 2 = 32 + i; volume 64, on
// line 0 (C-3; a hybrid C-2).
void synth(M &m, std::vector<uint8_t> vol, std::vector<uint8_t> wf, int16_t type = -1, uint8_t wfspeed = 1) {
    med_inst &in = m.inst[0];
    in.type = type, in.volume = 64, in.vol = std::move(vol), in.wf = std::move(wf), in.wfspeed = wfspeed;
    in.waves = {ramp(type == -2 ? 400 : 32, 7), ramp(type == -2 ? 32 : 64, 7), ramp(128, 4)};
    m.at(0) = N(type == -2 ? 13 : 25);
}
// Six tracks; instrument 1 loops 2000 bytes of a loud square; MMD2: mixed, track 0 at `pan`.
void loud(M &m, int version, int8_t pan = 0) {
    m.version = version, m.tracks = 6, m.inst[0].replen = 1000;
    for (size_t i = 0; i < 2000; i++) m.inst[0].data[i] = int8_t(i & 16 ? 100 : -100);
    if (version == 2) m.flags2 = 0x80, m.pans = {pan, 0, 0, 0};
}
// A mixed song's loop of 1000 bytes, silent for 500, then loud, with extension `flags`.
void pingpong(M &m, int flags) {
    loud(m, 2, -16);
    m.inst[0].data.assign(1000, 0);
    std::fill(m.inst[0].data.begin() + 500, m.inst[0].data.end(), int8_t(100));
    m.inst[0].replen = 500, m.inst[0].flags = flags, m.tracks = 4, m.at(0) = N(13);
}
// Two songs, "first" playing C-2 and "second" D-2; song `sub` chosen.
void two_songs(M &m, int version, int sub) {
    m.version = version;
    m.sub = sub;
    m.songs.resize(2);
    m.names = {"first", "second"};
    m.at(0) = N(13);
    m.at(0, 0, 0, 1) = N(15);
}

// On Paula channel 0: 'p' period, 'v' volume, 'd' 0 stopped / 1 playing / 2 started within the tick (under a
// tick's bytes at its period + 10 %), 'w' the waveform queued (-2: neither waveform 0 nor 1 plays), 'o' start
// and 'x' end of the playing block from the sample's start, 'l' 'L' the loop queued; 't' the CIA timer, 'e'
// the song's length in ticks, 'c' subsongs, 'T' 1 when the title is the chosen song's name; from the output:
// 's' sides heard (1 left, 2 right), 'g' a loud stretch over 90 ms.
int observe(kelva *k, const M &m, char what) {
    const uint32_t playing = uint32_t(k->ch[0].data - k->ram), data = m.at_[0];
    char title[32];
    switch (what) {
    case 'p': case 'v': case 't': return int(trk::observe(k, 0, what, 0));
    case 'd': return !k->aud[0].dma_running ? 0 : k->ch[0].pos < 3546895 / 50 / k->aud[0].per * 11 / 10 ? 2 : 1;
    case 'w':
        if (playing != m.at_[0] && playing != m.at_[1]) return -2;
        return int(std::find(m.at_.begin(), m.at_.end(), k->aud[0].lc) - m.at_.begin());
    case 'o': return int(playing - data);
    case 'x': return int(playing + k->ch[0].end - data);
    case 'l': return int(k->aud[0].lc - data);
    case 'L': return k->aud[0].len;
    case 'e': return int((trk::observe(k, 0, 'L', 0) + 10) / 20);
    case 'c': return int(kelva_get_subsong_count(k));
    case 'T': return kelva_get_module_name(k, title, sizeof title), m.names[size_t(std::max(m.sub, 1) - 1)] == title;
    }
    std::vector<float> b(48 * 2 * 600);
    kelva_render(k, b.data(), 48 * 600);
    float l = 0, r = 0;
    int run = 0, longest = 0;
    for (size_t i = 150 * 96; i < b.size(); i += 48) {   // every half millisecond from 150 ms
        l = std::max(l, std::fabs(b[i])), r = std::max(r, std::fabs(b[i + 1]));
        run = std::fabs(b[i]) > 0.01f ? run + 1 : 0;
        longest = std::max(longest, run);
    }
    return what == 'g' ? longest > 180 : (l > 0.01f) | (r > 0.01f) << 1;
}

// `first` on line 0 of track 0, changed by `setup`; `obs`: what each expected value looks at ("!": refused).
struct med_case {
    const char *what;
    med_cell first;
    const char *obs;
    trace expect;
    void (*setup)(M &) = nullptr;
};
#define SET(...) [](M &m) { __VA_ARGS__; }
#define SYN(...) SET(synth(m, __VA_ARGS__))

void run(const std::vector<med_case> &cases) {
    for (const med_case &c : cases) {
        SCOPED_TRACE(c.what);
        M m;
        m.at(0) = c.first;
        if (c.setup) c.setup(m);
        engine_ptr k = open_player("MED", build(m), nullptr, m.sub);
        expect_trace(k.get(), c.obs, c.expect, [&](char what) { return observe(k.get(), m, what); });
    }
}

PTK_FIXTURE(Med, "MED");

// C-1 .. C-3 at finetune 0.
const int kC1 = 856, kC2 = 428, kD2 = 381, kE2 = 339, kF2 = 320, kG2 = 285, kC3 = 214;

}  // namespace

TEST_F(Med, NotesAndCommands) {
    run({
        {"MMD0 C-2", N(13), "p", {{0, kC2}}, SET(m.version = 0)},
        // C-1; B-3, the highest; C-4 plays in the third octave; D#7 wraps down one octave, then repeats octave 3.
        {"C-1, B-3, C-4, D#7", N(1), "p", series({kC1, 113, kC3, 180}, 6),
         SET(m.at(1) = N(36), m.at(2) = N(37), m.at(3) = N(76))},
        {"finetune +1", N(1), "p", {{0, 850}}, SET(m.inst[0].finetune = 1)},
        {"finetune -1", N(1), "p", {{0, 862}}, SET(m.inst[0].finetune = -1)},
        {"song transpose +12", N(1), "p", {{0, kC2}}, SET(m.transpose = 12)},
        {"instrument transpose -12", N(13), "p", {{0, kC1}}, SET(m.inst[0].transpose = -12)},
        {"below C-1 wraps up an octave", N(1), "p", {{0, 453}}, SET(m.transpose = -1)},
        {"MMD3 notes are two octaves higher", N(25), "p", {{0, kC1}}, SET(m.version = 3)},
        {"two extra-low octaves (type 7)", N(1), "p", {{0, 4 * kC1}}, SET(m.inst[0].type = 7)},
        {"synthetic C-3", {}, "p", {{0, kC1}}, SYN({64, 0xFF}, {0, 0xFF})},
        {"synthetic C-1", {}, "p", {{0, 4 * kC1}}, SET(synth(m, {64, 0xFF}, {0, 0xFF}), m.at(0) = N(1))},
        // Three octaves (type 2) in 7 parts of 400 bytes: the lowest in 4 from byte 1200, then 2 from byte 400;
        // C-1 (line 0) and C-2 (line 1) play the lowest, C-3 (line 2) the next.
        {"type 2", N(1), "px", {{0, kC1}, {0, 2800}, {6, kC2}, {6, 2800}, {12, kC2}, {12, 1200}},
         SET(m.inst[0].type = 2, m.inst[0].data = ramp(2800, 7), m.at(1) = N(13), m.at(2) = N(25))},
        {"01 slides up on every tick, the first too", N(13, 1, 5), "p", {{0, 423}, {5, 398}}},
        {"ST sliding leaves the first tick", N(13, 1, 5), "p", {{0, kC2}, {5, 403}}, SET(m.flags = 0x20)},
        {"01 stops at 113", N(36, 1, 5), "p", {{3, 113}}},
        {"MMD0 01", N(13, 1, 2), "p", {{1, kC2 - 4}}, SET(m.version = 0)},
        {"02 slides down", N(13, 2, 3), "p", {{0, kC2 + 3}, {2, kC2 + 9}}},
        {"11, 12 slide once", N(13, 0x11, 4), "p", {{5, 424}, {11, 433}}, SET(m.at(1) = C(0x12, 9))},
        {"03 slides to the line's note; 0300 goes on", N(13), "p", {{6, 396}, {11, 236}, {12, kC3}, {17, kC3}},
         SET(m.at(1) = N(25, 3, 0x20), m.at(2) = C(3, 0))},
        // Vibrato: offset = sine x depth >> 5 (04) or >> 6 (14); speed 2 x 2 = 4 a tick.
        {"04 vibrato", N(13, 4, 0x24), "p", series({kC2, kC2 + 3, kC2 + 6, kC2 + 8})},
        {"14 vibrato, half as deep", N(13, 0x14, 0x24), "p", series({kC2, kC2 + 1, kC2 + 3, kC2 + 4})},
        {"00 arpeggio: +x, +y, 0", N(13, 0, 0x47), "p", series({kE2, kG2, kC2, kE2})},
        {"21, 22 slide by d/2048 of it", N(13, 0x21, 16), "p", {{0, 425}, {1, 422}, {6, 410 + (410 * 16 >> 11)}},
         SET(m.at(1) = C(0x22, 16))},
        {"FFD sets the period without playing", N(13), "pd", {{6, kC3}, {6, 1}}, SET(m.at(1) = N(25, 15, 0xFD))},
        {"0C is decimal", N(13, 0x0C, 0x32), "v", {{0, 32}}},
        {"MMD0 0C", N(13, 0x0C, 0x20), "v", {{0, 20}}, SET(m.version = 0)},
        {"0C is hexadecimal by the song's flag", N(13, 0x0C, 0x32), "v", {{0, 50}}, SET(m.flags = 0x10)},
        {"0C above 64 is ignored", N(13, 0x0C, 0x70), "v", {{0, 40}}},
        {"0C with bit 7 sets the instrument's volume too", N(13, 0x0C, 0x85), "v", {{0, 5}, {6, 5}},
         SET(m.flags = 0x10, m.at(1) = N(13))},
        {"0D slides down on every tick", N(13, 0x0D, 0x02), "v", {{0, 38}, {5, 28}}},
        {"0D slides up by the high nibble", N(13, 0x0D, 0x30), "v", {{0, 43}, {5, 58}}},
        {"1A, 1B slide once", N(13, 0x1A, 5), "v", {{5, 45}, {11, 36}}, SET(m.at(1) = C(0x1B, 9))},
        {"18 cuts at its tick", N(13, 0x18, 3), "v", {{2, 40}, {3, 0}}},
        // Tremolo: sine x depth >> 7, the position 4 x the speed a tick, read >> 3.
        {"07 tremolo", N(13, 7, 0x48), "v", series({40, 40 + (49 * 8 >> 7), 40 + (90 * 8 >> 7)})},
        // Hold 2 ticks, then fade by 4 a tick; an instrument-only line holds on.
        {"08 hold and decay", N(13, 8, 0x42), "v", {{1, 40}, {2, 36}, {3, 32}}},
        {"hold lines hold on", N(13, 8, 0x42), "v", {{7, 40}, {8, 36}}, SET(m.at(1) = {0, 1, 0, 0})},
        {"track volume 32 halves it", N(13), "v", {{0, 20}}, SET(m.trackvol = 32)},
        // A loop from word 100 for 500 words; 19 starts at byte 256 x its argument.
        {"a loop plays to its end, then is queued", N(13), "oxlL", {{0, 0}, {0, 1200}, {0, 200}, {0, 500}},
         SET(m.inst[0].rep = 100, m.inst[0].replen = 500)},
        {"19 starts inside the loop", N(13, 0x19, 1), "ox", {{0, 256}, {0, 1200}},
         SET(m.inst[0].rep = 100, m.inst[0].replen = 500)},
    });
}

TEST_F(Med, SequencesAndSynthSounds) {
    run({
        {"F00: the next block", N(13, 15, 0), "p", series({kC2, kD2}, 6), SET(m.at(0, 0, 1) = N(15), m.seq = {0, 1})},
        {"1D goes to the next block's line", N(13, 0x1D, 2), "p", series({kC2, kE2}, 6),
         SET(m.at(2, 0, 1) = N(17), m.seq = {0, 1})},
        {"0B jumps to a position", N(13, 0x0B, 2), "p", series({kC2, kF2}, 6),
         SET(m.at(0, 0, 1) = N(15), m.at(0, 0, 2) = N(18), m.seq = {0, 1, 2})},
        {"16 repeats lines", N(13), "p", series({kC2, kD2, kE2, kD2, kE2, kD2, kE2, kF2}, 6),
         SET(m.at(1) = N(15, 0x16, 0), m.at(2) = N(17, 0x16, 2), m.at(3) = N(18))},
        {"09: ticks per line", N(13, 9, 3), "p", series({kC2, kD2, kE2}, 3), SET(m.at(1) = N(15), m.at(2) = N(17))},
        {"1E repeats the line", N(13, 0x1E, 2), "p", {{17, kC2}, {18, kD2}}, SET(m.at(1) = N(15))},
        {"FFF turns the track off", N(13), "d", {{5, 1}, {6, 0}}, SET(m.at(1) = C(15, 0xFF))},
        // 'd' is 2 when the note started within the tick.
        {"1F delays by the high nibble", N(13, 0x1F, 0x30), "d", {{2, 0}, {3, 2}}},
        {"1F retriggers every low-nibble ticks", N(13, 0x1F, 0x02), "d", {{2, 2}, {3, 1}}},
        {"F1 plays twice", N(13, 15, 0xF1), "d", {{3, 2}}},
        {"F2 delays by half a line", N(13, 15, 0xF2), "d", {{2, 0}, {3, 2}}},
        {"F3 plays three times", N(13, 15, 0xF3), "d", {{4, 2}}},
        {"F4 delays by a third", N(13, 15, 0xF4), "d", {{1, 0}, {2, 2}}},
        // Song lengths in ticks: two blocks of 4 lines in the sequence.
        {"the sequence wraps", N(13), "e", {{-1, 8 * 6}}, SET(m.lines = 4, m.at(0, 0, 1), m.seq = {0, 1})},
        {"0B jumps back", N(13), "e", {{-1, 7 * 6}}, SET(m.lines = 4, m.at(2, 0, 1) = C(0x0B, 1), m.seq = {0, 1})},
        {"FFE stops the song", N(13), "e", {{-1, 1 * 6}}, SET(m.lines = 4, m.at(1) = C(15, 0xFE), m.seq = {0, 1})},
        {"a repeat loop plays on", N(13), "e", {{-1, 14 * 6}},
         SET(m.lines = 4, m.at(1) = C(0x16, 0), m.at(2) = C(0x16, 3), m.at(0, 0, 1), m.seq = {0, 1})},
        {"MMD1 song 1 of 2", {}, "pcT", {{0, kC2}, {0, 2}, {0, 1}}, SET(two_songs(m, 1, 1))},
        {"MMD1 song 2", {}, "pcT", {{0, kD2}, {0, 2}, {0, 1}}, SET(two_songs(m, 1, 2))},
        {"MMD2 song 1", {}, "pcT", {{0, kC2}, {0, 2}, {0, 1}}, SET(two_songs(m, 2, 1))},
        {"MMD2 song 2", {}, "pcT", {{0, kD2}, {0, 2}, {0, 1}}, SET(two_songs(m, 2, 2))},
        // Synthetic sounds: SPD takes effect from the next step; CHU/CHD act at the start of each step,
        // before its commands; WAI t skips t steps.
        {"volumes step by the speed", {}, "v", series({40, 30, 30, 20}), SYN({0xF0, 2, 40, 30, 20, 0xFF}, {0, 0xFF})},
        {"CHD with WAI", {}, "v", series({40, 40, 36, 16, 12, 8}), SYN({40, 0xF2, 4, 0xF1, 2, 0x10, 0xFF}, {0, 0xFF})},
        {"JMP loops", {}, "v", series({40, 30, 40, 30}), SYN({40, 30, 0xFE, 0}, {0, 0xFF})},
        {"HLT holds", {}, "v", series({40, 40, 40}), SYN({40, 0xFB, 30}, {0, 0xFF})},
        {"EN1: the envelope wave sets the volume", {}, "v", series({0, 32, 33, 34}), SYN({0xF4, 2, 0xFF}, {0, 0xFF})},
        {"JVS moves the volumes", {}, "v", series({40, 30, 10}), SYN({40, 30, 20, 10, 0xFF}, {0, 0xFA, 3, 0xFF})},
        {"decay continues the volume sequence", {}, "v", series({40, 40, 20}),
         SET(synth(m, {40, 0xFB, 0, 20, 0xFF}, {0, 0xFF}), m.inst[0].hold = 2, m.inst[0].decay = 3)},
        {"JWS moves the waveforms", {}, "w", series({0, 1}), SYN({40, 0xFA, 3, 0xFF}, {0, 0xFF, 0xFF, 1, 0xFF})},
        {"waveforms step by the speed", {}, "w", series({0, 0, 1}), SYN({64, 0xFF}, {0, 1, 0xFF}, -1, 2)},
        {"WAI waits", {}, "w", series({0, 0, 0, 1}), SYN({64, 0xFF}, {0, 0xF1, 2, 1, 0xFF})},
        {"a wait before the first waveform", {}, "w", {{2, 1}}, SYN({64, 0xFF}, {0xF1, 2, 1, 0xFF})},
        {"CHU changes the period", {}, "p", series({kC1, kC1, kC1 - 2, kC1 - 4}), SYN({64, 0xFF}, {0, 0xF3, 2, 0xFF})},
        {"RES resets it", {}, "p", series({kC1, kC1, kC1, kC1 + 3, kC1 + 6}),
         SYN({64, 0xFF}, {0, 0xF2, 3, 0xF1, 1, 0xF6, 0xFF})},
        {"ARP plays its notes, one a tick", {}, "p", series({kC1, kC1, 678, 570, kC1}),
         SYN({64, 0xFF}, {0, 0xFC, 0, 4, 7, 0xFD, 0xFF})},
        {"VBD/VBS: wave x depth >> 8", {}, "p", series({kC1, kC1, kC1 + (90 * 32 >> 8), kC1 + (127 * 32 >> 8)}),
         SYN({64, 0xFF}, {0, 0xF4, 32, 0xF5, 64, 0xFF})},
        // A hybrid plays its sample at a sample's period, then queues waveform 1 behind it.
        {"hybrid", {}, "pw", {{0, kC2}, {1, 1}}, SET(synth(m, {64, 0xFF}, {0xF1, 1, 1, 0xFF}, -2))},
    });
}

// CIA cycles per tick (the timer is one less): SPD 11-240: 468190 / tempo; SPD 1-10: 2417 x tempo; BPM: 4 x
// (1773447 / (tempo x lines per beat) + 1), a quotient too large for 16 bits leaving 0x0F87; 5-8 channel
// mode: 1773447 / BPM of the tempo's buffer size; slower than the timer reaches: halved until it fits (ticks
// then every second interrupt).
TEST_F(Med, TemposMixingAndDamagedModules) {
    run({
        {"SPD 33", {}, "t", {{0, 468190 / 33 - 1}}},
        {"SPD 6, SoundTracker-compatible", {}, "t", {{0, 2417 * 6 - 1}}, SET(m.tempo = 6)},
        {"BPM 125, 4 lines per beat", {}, "t", {{0, 4 * (1773447 / 500 + 1) - 1}}, SET(m.tempo = 125, m.flags2 = 0x23)},
        {"BPM 6: the divide overflows", {}, "t", {{0, 4 * (0x0F87 + 1) - 1}}, SET(m.tempo = 6, m.flags2 = 0x23)},
        {"BPM 32 at 3 lines: halved", {}, "t", {{0, 2 * (1773447 / 96 + 1) - 1}}, SET(m.tempo = 32, m.flags2 = 0x22)},
        {"5-8 channels, tempo 6 = 123 BPM", {}, "t", {{0, 1773447 / 123 - 1}}, SET(m.tempo = 6, m.flags = 0x40)},
        {"mixed MMD2, tempo below 8", {}, "t", {{0, 11234 - 1}}, SET(m.version = 2, m.tempo = 5, m.flags2 = 0x80)},
        {"0F; F01/F02 at 112 BPM", C(15, 0x40), "t", {{1, 468190 / 64 - 1}, {7, 709379 * 5 / (2 * 112) - 1}},
         SET(m.at(1) = C(15, 0x02))},
        // Six tracks: track 4 shares Paula channel 0 (left), track 5 channel 1 (right). Mixed MMD2 songs pan
        // each track (-16 left .. 16 right) by the song's table or command 2E, and play ping-pong loops (flags
        // 9) forwards and back: a loop silent for 500 bytes, then loud, is loud for 60 ms at a time forwards
        // (C-2: 8287 Hz), 120 ms back and forth.
        {"track 4: left", {}, "s", {{-1, 1}}, SET(loud(m, 1), m.at(0, 4) = N(13))},
        {"track 5: right", {}, "s", {{-1, 2}}, SET(loud(m, 1), m.at(0, 5) = N(13))},
        {"a track at volume 0 is silent", {}, "s", {{-1, 0}}, SET(loud(m, 1), m.at(0, 4) = N(13, 0x0C, 0))},
        {"pan -16", N(13), "s", {{-1, 1}}, SET(loud(m, 2, -16))},
        {"pan 16", N(13), "s", {{-1, 2}}, SET(loud(m, 2, 16))},
        {"pan 0", N(13), "s", {{-1, 3}}, SET(loud(m, 2, 0))},
        {"2E10 pans right", N(13, 0x2E, 0x10), "s", {{-1, 2}}, SET(loud(m, 2, -16))},
        {"ping-pong", {}, "g", {{-1, 1}}, SET(pingpong(m, 9))},
        {"forwards", {}, "g", {{-1, 0}}, SET(pingpong(m, 1))},
        {"cut in the song structure", {}, "!", {}, SET(m.cut = 52 + 780)},
        {"no blocks", {}, "!", {}, SET(m.songs[0].clear())},
        {"a sample cut by the file's end plays what is there", N(13), "ox", {{0, 0}, {0, 1000}}, SET(m.cut = -1000)},
        {"sequences jumping to themselves (track 1): the song plays on", {}, "p", {{6, kC2}},
         SET(m.inst.push_back(m.inst[0]), m.inst[1].type = -1, m.inst[1].vol = m.inst[1].wf = {0xFE, 0},
             m.inst[1].waves = {ramp(32, 7)}, m.at(0, 1) = N(25, 0, 0, 2), m.at(1) = N(13))},
    });
}

TEST_F(Med, Med2SongsLoadTheirInstrumentsFromFiles) {
    // "MED\x02": names (40 x 32), volumes, loop starts and lengths, block count, 100 orders, length, tempo,
    // flags, sliding, jump mask, colours; blocks of 64 lines x 4 tracks (period, instrument/command, data).
    const size_t p = 4 + 1280 + 32 + 128, cells = p + 2 + 100 + 8 + 4 + 16 + 4;
    std::vector<uint8_t> f(cells + 1024);
    memcpy(&f[0], "MED\x02", 4);
    memcpy(&f[4 + 40], "bass", 4);
    f[4 + 1280 + 1] = 50;   // volume of instrument 1; one block, song length 1, tempo 192 / 32 = 6 ticks
    put(f, p, {{0, 2, 1}, {102, 2, 1}, {104, 2, 32}, {108, 2, 6}});   // a line, sliding on every tick
    put(f, cells, {{0, 2, uint64_t(kD2)}, {2, 1, 0x10}});             // instrument 1, no command
    // An 8SVX file: FORM, VHDR of 20 bytes (one octave), BODY of 1000 bytes.
    const char head[] = "FORM\0\0\0\0" "8SVXVHDR\0\0\0\x14" "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\1\0\0\0\0\0" "BODY\0\0\3\xE8";
    std::vector<uint8_t> iff(head, head + 48);
    iff.resize(48 + 1000, 0x40);
    const std::pair<std::vector<uint8_t>, uint32_t> files[] = {{std::vector<uint8_t>(1000, 0x40), 0}, {iff, 48}};
    for (const auto &file : files) {   // the file follows the module; its sample starts at `second`
        memory_files mf{{{"/m/bass", file.first}}, {}};
        engine_ptr k = open_player("MED", f, "/m/song", 0, &mf);
        ASSERT_TRUE(k);
        EXPECT_STREQ(kelva_get_format_name(k.get()), "MED (MED2)");
        trk::expect_probes(k.get(), "@1 p0=381 v0=50 a0=0", ((kModule + uint32_t(f.size()) + 1) & ~1u) + file.second);
    }
    f.pop_back();   // its only block cut short: refused
    EXPECT_FALSE(open_player("MED", f));
}
