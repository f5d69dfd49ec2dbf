// kelva's MED/OctaMED player: synthetic MMD modules pin down the notes,
// each command family, the synthetic sound language, the tempo modes,
// song ends, subsongs and the software-mixed layouts by the Paula
// registers and the rendered output; the shared MED modules check
// identification and lengths worked out by hand.
//
// Timing: tempo 33 in SPD mode ticks at 50 Hz (960 frames at 48 kHz); the
// first tick reads line 0, so after run_ticks(k, n) tick n - 1 has run and
// line r, tick t of a 6-tick line is tick 6r + t.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "ptk_support.h"

using namespace ptk_test;

namespace {

constexpr uint32_t kGlobals = 0xF90000;

// ---- An MMD writer ----------------------------------------------------------

struct med_inst {
    int16_t type = 0;                      // 0 sample, 1-7 octave kinds, -1 synthetic, -2 hybrid
    std::vector<int8_t> data;              // the sample (hybrid: waveform 0)
    uint16_t rep = 0, replen = 0;          // words
    uint8_t volume = 40;
    int8_t transpose = 0;
    uint8_t hold = 0, decay = 0;
    int8_t finetune = 0;
    int flags = -1;                        // extension flags (-1: the entry has none)
    std::vector<uint8_t> vol, wf;          // sequence tables
    uint8_t volspeed = 1, wfspeed = 1;
    std::vector<std::vector<int8_t>> waves;
};

struct med_cell {
    uint8_t note = 0, ins = 0, cmd = 0, data = 0;
};

struct med_block {
    uint16_t tracks = 4, lines = 16;
    std::vector<med_cell> cells = std::vector<med_cell>(64);
    med_cell &at(int line, int t) {
        cells.resize(size_t(tracks) * lines);
        return cells[size_t(line) * tracks + size_t(t)];
    }
};

struct med_song {
    std::vector<med_block> blocks = {med_block{}};
    std::vector<uint16_t> seq = {0};
    uint16_t tempo = 33;
    uint8_t tempo2 = 6;
    int8_t transpose = 0;
    uint8_t flags = 0, flags2 = 0;
    uint8_t trackvol = 64;
    std::vector<int8_t> pans;              // MMD2/3 track pans (free panning)
    std::string name;
};

struct med_module {
    int version = 1;
    std::vector<med_song> songs = {med_song{}};
    std::vector<med_inst> inst = {med_inst{}};
    // Filled by build(): where instrument i's sample data and waveform w start.
    std::vector<uint32_t> data_at;
    std::vector<std::vector<uint32_t>> wave_at;
};

void put16(std::vector<uint8_t> &v, size_t o, uint32_t x) {
    v[o] = uint8_t(x >> 8);
    v[o + 1] = uint8_t(x);
}
void put32(std::vector<uint8_t> &v, size_t o, uint32_t x) {
    put16(v, o, x >> 16);
    put16(v, o + 2, x);
}
size_t grow(std::vector<uint8_t> &v, size_t n) {
    if (v.size() & 1) v.push_back(0);
    size_t o = v.size();
    v.resize(o + n);
    return o;
}

std::vector<uint8_t> build(med_module &m) {
    std::vector<uint8_t> v;
    std::vector<size_t> headers, exps;
    const bool mmd2 = m.version >= 2;
    for (size_t si = 0; si < m.songs.size(); si++) {
        med_song &s = m.songs[si];
        size_t h = grow(v, 52);
        headers.push_back(h);
        memcpy(&v[h], si ? "MCN" : "MMD", 3);
        v[h + 3] = uint8_t('0' + m.version);
        v[h + 51] = uint8_t(m.songs.size() - 1);
        size_t sg = grow(v, 788);
        put32(v, h + 8, uint32_t(sg));
        for (size_t i = 0; i < m.inst.size(); i++) {
            put16(v, sg + 8 * i, m.inst[i].rep);
            put16(v, sg + 8 * i + 2, m.inst[i].replen);
            v[sg + 8 * i + 6] = m.inst[i].volume;
            v[sg + 8 * i + 7] = uint8_t(m.inst[i].transpose);
        }
        put16(v, sg + 504, uint32_t(s.blocks.size()));
        put16(v, sg + 764, s.tempo);
        v[sg + 766] = uint8_t(s.transpose);
        v[sg + 767] = s.flags;
        v[sg + 768] = s.flags2;
        v[sg + 769] = s.tempo2;
        v[sg + 786] = 64;
        v[sg + 787] = uint8_t(m.inst.size());
        std::vector<uint32_t> block_at;
        for (med_block &b : s.blocks) {
            b.cells.resize(size_t(b.tracks) * b.lines);
            size_t bo = grow(v, (m.version ? 8 : 2) + b.cells.size() * (m.version ? 4 : 3));
            block_at.push_back(uint32_t(bo));
            size_t c = bo;
            if (m.version) {
                put16(v, bo, b.tracks);
                put16(v, bo + 2, b.lines - 1u);
                c += 8;
            } else {
                v[bo] = uint8_t(b.tracks);
                v[bo + 1] = uint8_t(b.lines - 1);
                c += 2;
            }
            for (const med_cell &x : b.cells) {
                if (m.version) {
                    v[c] = x.note, v[c + 1] = x.ins, v[c + 2] = x.cmd, v[c + 3] = x.data;
                    c += 4;
                } else {
                    v[c] = uint8_t((x.note & 0x3F) | ((x.ins & 0x10) << 3) | ((x.ins & 0x20) << 1));
                    v[c + 1] = uint8_t((x.ins << 4) | (x.cmd & 15));
                    v[c + 2] = x.data;
                    c += 3;
                }
            }
        }
        size_t barr = grow(v, 4 * s.blocks.size());
        for (size_t i = 0; i < block_at.size(); i++) put32(v, barr + 4 * i, block_at[i]);
        put32(v, h + 16, uint32_t(barr));
        if (!mmd2) {
            put16(v, sg + 506, uint32_t(s.seq.size()));
            for (size_t i = 0; i < s.seq.size(); i++) v[sg + 508 + i] = uint8_t(s.seq[i]);
            for (int t = 0; t < 16; t++) v[sg + 770 + t] = s.trackvol;
        } else {
            size_t ps = grow(v, 42 + 2 * s.seq.size());
            put16(v, ps + 40, uint32_t(s.seq.size()));
            for (size_t i = 0; i < s.seq.size(); i++) put16(v, ps + 42 + 2 * i, s.seq[i]);
            size_t pst = grow(v, 4), sect = grow(v, 2), tv = grow(v, 64), tp = grow(v, 64);
            put32(v, pst, uint32_t(ps));
            for (int t = 0; t < 64; t++) v[tv + t] = s.trackvol;
            for (size_t t = 0; t < s.pans.size(); t++) v[tp + t] = uint8_t(s.pans[t]);
            put16(v, sg + 506, 1);
            put32(v, sg + 508, uint32_t(pst));
            put32(v, sg + 512, uint32_t(sect));
            put32(v, sg + 516, uint32_t(tv));
            put16(v, sg + 520, 64);
            put16(v, sg + 522, 1);
            put32(v, sg + 524, uint32_t(tp));
            put32(v, sg + 528, s.pans.empty() ? 0 : 2);   // free panning
        }
        size_t exp = grow(v, 80);
        exps.push_back(exp);
        put32(v, h + 32, uint32_t(exp));
        size_t esz = 4;
        for (const med_inst &in : m.inst)
            if (in.flags >= 0) esz = 6;
        size_t ext = grow(v, esz * m.inst.size());
        put32(v, exp + 4, uint32_t(ext));
        put16(v, exp + 8, uint32_t(m.inst.size()));
        put16(v, exp + 10, uint32_t(esz));
        for (size_t i = 0; i < m.inst.size(); i++) {
            const med_inst &in = m.inst[i];
            v[ext + esz * i] = in.hold;
            v[ext + esz * i + 1] = in.decay;
            v[ext + esz * i + 3] = uint8_t(in.finetune);
            if (esz > 5) v[ext + esz * i + 5] = uint8_t(in.flags >= 0 ? in.flags : in.replen > 1);
        }
        if (!s.name.empty()) {
            size_t n = grow(v, s.name.size() + 1);
            memcpy(&v[n], s.name.data(), s.name.size());
            put32(v, exp + 44, uint32_t(n));
            put32(v, exp + 48, uint32_t(s.name.size() + 1));
        }
    }
    for (size_t i = 1; i < headers.size(); i++) put32(v, exps[i - 1], uint32_t(headers[i]));
    // Instruments, shared by the songs.
    size_t smparr = grow(v, 4 * m.inst.size());
    for (size_t h : headers) put32(v, h + 24, uint32_t(smparr));
    m.data_at.assign(m.inst.size(), 0);
    m.wave_at.assign(m.inst.size(), {});
    for (size_t i = 0; i < m.inst.size(); i++) {
        const med_inst &in = m.inst[i];
        if (in.type >= 0) {
            size_t o = grow(v, 6 + in.data.size());
            put32(v, o, uint32_t(in.data.size()));
            put16(v, o + 4, uint16_t(in.type));
            memcpy(&v[o + 6], in.data.data(), in.data.size());
            put32(v, smparr + 4 * i, uint32_t(o));
            m.data_at[i] = kModule + uint32_t(o) + 6;
            continue;
        }
        size_t o = grow(v, 278 + 4 * in.waves.size());
        put32(v, smparr + 4 * i, uint32_t(o));
        put32(v, o, 272);
        put16(v, o + 4, uint16_t(in.type));
        put16(v, o + 14, uint32_t(in.vol.size()));
        put16(v, o + 16, uint32_t(in.wf.size()));
        v[o + 18] = in.volspeed;
        v[o + 19] = in.wfspeed;
        put16(v, o + 20, uint32_t(in.waves.size()));
        for (size_t k = 0; k < in.vol.size(); k++) v[o + 22 + k] = in.vol[k];
        for (size_t k = 0; k < in.wf.size(); k++) v[o + 150 + k] = in.wf[k];
        for (size_t w = 0; w < in.waves.size(); w++) {
            bool sample = in.type == -2 && w == 0;
            size_t wo = grow(v, (sample ? 6 : 2) + in.waves[w].size());
            put32(v, o + 278 + 4 * w, uint32_t(wo - o));
            if (sample) {
                put32(v, wo, uint32_t(in.waves[w].size()));
                wo += 6;
            } else {
                put16(v, wo, uint32_t(in.waves[w].size() / 2));
                wo += 2;
            }
            memcpy(&v[wo], in.waves[w].data(), in.waves[w].size());
            m.wave_at[i].push_back(kModule + uint32_t(wo));
        }
    }
    put32(v, 4, uint32_t(v.size()));
    return v;
}

std::vector<int8_t> ramp(size_t n) {
    std::vector<int8_t> d(n);
    for (size_t i = 0; i < n; i++) d[i] = int8_t(i * 7);
    return d;
}

// A module of version `version` with instrument 1 = a 2000-byte sample of
// volume 40 (no loop).
med_module sample_module(int version = 1) {
    med_module m;
    m.version = version;
    m.inst[0].data = ramp(2000);
    return m;
}

engine_ptr open_med(const std::vector<uint8_t> &mod, int32_t subsong = 0, memory_files *files = nullptr) {
    kelva_global_init();
    engine_ptr k = make_engine(48000);
    kelva_set_separation(k.get(), 1.0f);
    if (files) kelva_set_file_loader(k.get(), memory_loader, files);
    std::vector<uint8_t> p = read_bytes(player_path("MED"));
    std::string pp = player_path("MED");
    if (kelva_open(k.get(), p.data(), uint32_t(p.size()), mod.data(), uint32_t(mod.size()), pp.c_str(),
                   "/m/song.med", subsong) != 0)
        return nullptr;
    return k;
}

uint16_t per(const engine_ptr &k, int c = 0) { return k->aud[c].per; }
uint8_t vol(const engine_ptr &k, int c = 0) { return k->aud[c].vol; }
uint16_t timer(const engine_ptr &k) { return uint16_t(k->ram[kGlobals + 54] << 8 | k->ram[kGlobals + 55]); }

class Med : public ::testing::Test {
  protected:
    void SetUp() override { PTK_REQUIRE_PLAYER("MED"); }
};

// C-1 .. B-3 of finetune 0.
const uint16_t kC1 = 856, kC2 = 428, kD2 = 381, kE2 = 339, kF2 = 320, kG2 = 285, kC3 = 214;

}  // namespace

// ---- Notes ---------------------------------------------------------------------

TEST_F(Med, NotesBecomePeriodsByVersionTransposeFinetuneAndKind) {
    struct row {
        const char *what;
        int version;
        int16_t type;
        uint8_t note;            // 1 = C-1
        int8_t song_tr, inst_tr, finetune;
        uint16_t period;
    };
    const row rows[] = {
        {"MMD0 C-2", 0, 0, 13, 0, 0, 0, kC2},
        {"C-1", 1, 0, 1, 0, 0, 0, kC1},
        {"B-3, the highest", 1, 0, 36, 0, 0, 0, 113},
        {"C-4 plays in the third octave", 1, 0, 37, 0, 0, 0, kC3},
        {"D#7 wraps down one octave, then repeats octave 3", 1, 0, 76, 0, 0, 0, 180},
        {"finetune +1", 1, 0, 1, 0, 0, 1, 850},
        {"finetune -1", 1, 0, 1, 0, 0, -1, 862},
        {"song transpose +12", 1, 0, 1, 12, 0, 0, kC2},
        {"instrument transpose -12", 1, 0, 13, 0, -12, 0, kC1},
        {"below C-1 wraps up an octave", 1, 0, 1, -1, 0, 0, 453},
        {"MMD3 notes are two octaves higher", 3, 0, 25, 0, 0, 0, kC1},
        {"two extra-low octaves (type 7)", 1, 7, 1, 0, 0, 0, 4 * kC1},
        {"synthetic C-3", 1, -1, 25, 0, 0, 0, kC1},
        {"synthetic C-1", 1, -1, 1, 0, 0, 0, 4 * kC1},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        med_module m = sample_module(r.version);
        m.inst[0].type = r.type;
        m.inst[0].transpose = r.inst_tr;
        m.inst[0].finetune = r.finetune;
        if (r.type < 0) {
            m.inst[0].vol = {64, 0xFF};
            m.inst[0].wf = {0, 0xFF};
            m.inst[0].waves = {ramp(32)};
        }
        m.songs[0].transpose = r.song_tr;
        m.songs[0].blocks[0].at(0, 0) = {r.note, 1, 0, 0};
        engine_ptr k = open_med(build(m));
        ASSERT_TRUE(k);
        run_ticks(k.get(), 1);
        EXPECT_EQ(per(k), r.period);
    }
}

TEST_F(Med, IffOctaveSamplesPlayTheOctavesPart) {
    // Three octaves (type 2) of 7 parts: 4 parts for the lowest, 2, then 1.
    // C-1 and C-2 play the 4-part octave (at 856 and 428), C-3 the 2-part one.
    struct row {
        uint8_t note;
        uint32_t offset, length;
        uint16_t period;
    } rows[] = {{1, 3 * 400, 4 * 400, kC1}, {13, 3 * 400, 4 * 400, kC2}, {25, 400, 2 * 400, kC2}};
    for (const row &r : rows) {
        med_module m = sample_module();
        m.inst[0].type = 2;
        m.inst[0].data = ramp(7 * 400);
        m.songs[0].blocks[0].at(0, 0) = {r.note, 1, 0, 0};
        std::vector<uint8_t> f = build(m);
        engine_ptr k = open_med(f);
        ASSERT_TRUE(k);
        run_ticks(k.get(), 1);
        EXPECT_EQ(per(k), r.period) << int(r.note);
        // The channel latched the part; the silent word is queued behind it.
        EXPECT_EQ(uint32_t(k->ch[0].data - k->ram) + k->ch[0].end, m.data_at[0] + r.offset + r.length);
    }
}

// ---- Commands -------------------------------------------------------------------

namespace {

struct cmd_case {
    const char *what;
    std::vector<std::pair<int, med_cell>> cells;   // line, cell on track 0
    uint8_t flags;
    std::vector<std::pair<int, uint16_t>> periods;   // tick, period
    std::vector<std::pair<int, uint8_t>> volumes;    // tick, volume
};

void run_case(const cmd_case &c, int version = 1) {
    SCOPED_TRACE(c.what);
    med_module m = sample_module(version);
    m.songs[0].flags = c.flags;
    for (const auto &x : c.cells) m.songs[0].blocks[0].at(x.first, 0) = x.second;
    engine_ptr k = open_med(build(m));
    ASSERT_TRUE(k);
    int done = 0;
    size_t pi = 0, vi = 0;
    while (pi < c.periods.size() || vi < c.volumes.size()) {
        int next = 1 << 30;
        if (pi < c.periods.size()) next = std::min(next, c.periods[pi].first);
        if (vi < c.volumes.size()) next = std::min(next, c.volumes[vi].first);
        run_ticks(k.get(), next + 1 - done);
        done = next + 1;
        if (pi < c.periods.size() && c.periods[pi].first == next) {
            EXPECT_EQ(per(k), c.periods[pi++].second) << next;
        }
        if (vi < c.volumes.size() && c.volumes[vi].first == next) {
            EXPECT_EQ(vol(k), c.volumes[vi++].second) << next;
        }
    }
}

med_cell N(uint8_t note, uint8_t cmd = 0, uint8_t data = 0, uint8_t ins = 1) { return {note, ins, cmd, data}; }
med_cell C(uint8_t cmd, uint8_t data) { return {0, 0, cmd, data}; }

}  // namespace

TEST_F(Med, PitchCommands) {
    const cmd_case cases[] = {
        {"01 slides up on every tick, the first too", {{0, N(13, 0x01, 5)}}, 0, {{0, kC2 - 5}, {5, kC2 - 30}}, {}},
        {"ST sliding leaves the first tick", {{0, N(13, 0x01, 5)}}, 0x20, {{0, kC2}, {5, kC2 - 25}}, {}},
        {"01 stops at 113", {{0, N(36, 0x01, 5)}}, 0, {{3, 113}}, {}},
        {"02 slides down", {{0, N(13, 0x02, 3)}}, 0, {{0, kC2 + 3}, {2, kC2 + 9}}, {}},
        {"11 and 12 slide once", {{0, N(13, 0x11, 4)}, {1, C(0x12, 9)}}, 0, {{5, kC2 - 4}, {11, kC2 + 5}}, {}},
        {"03 slides to the line's note", {{0, N(13)}, {1, N(25, 0x03, 0x20)}, {2, C(0x03, 0)}}, 0,
         {{6, kC2 - 32}, {11, kC2 - 192}, {12, kC3}, {17, kC3}}, {}},
        // Vibrato: offset = sine x depth >> 5 (04) or >> 6 (14); speed 2 x 2 = 4 a tick.
        {"04 vibrato", {{0, N(13, 0x04, 0x24)}}, 0, {{0, kC2}, {1, kC2 + 3}, {2, kC2 + 6}, {3, kC2 + 8}}, {}},
        {"14 vibrato, half as deep", {{0, N(13, 0x14, 0x24)}}, 0, {{1, kC2 + 1}, {2, kC2 + 3}, {3, kC2 + 4}}, {}},
        {"00 arpeggio: +x, +y, 0", {{0, N(13, 0x00, 0x47)}}, 0, {{0, kE2}, {1, kG2}, {2, kC2}, {3, kE2}}, {}},
        {"21 and 22 slide by d/2048 of the period", {{0, N(13, 0x21, 16)}, {1, C(0x22, 16)}}, 0,
         {{0, 425}, {1, 422}, {6, 410 + (410 * 16 >> 11)}}, {}},
        {"FFD sets the line note's period without playing it", {{0, N(13)}, {1, N(25, 0x0F, 0xFD)}}, 0,
         {{6, kC3}}, {}},
    };
    for (const cmd_case &c : cases) run_case(c);
}

TEST_F(Med, VolumeCommands) {
    const cmd_case cases[] = {
        {"0C is decimal", {{0, N(13, 0x0C, 0x32)}}, 0, {}, {{0, 32}}},
        {"0C is hexadecimal with the song's flag", {{0, N(13, 0x0C, 0x32)}}, 0x10, {}, {{0, 50}}},
        {"0C above 64 is ignored", {{0, N(13, 0x0C, 0x70)}}, 0, {}, {{0, 40}}},
        {"0C with bit 7 sets the instrument's volume too", {{0, N(13, 0x0C, 0x85)}, {1, N(13)}}, 0x10, {},
         {{0, 5}, {6, 5}}},
        {"0D slides down on every tick", {{0, N(13, 0x0D, 0x02)}}, 0, {}, {{0, 38}, {5, 28}}},
        {"0D slides up by the high nibble", {{0, N(13, 0x0D, 0x30)}}, 0, {}, {{0, 43}, {5, 58}}},
        {"1A and 1B slide once", {{0, N(13, 0x1A, 5)}, {1, C(0x1B, 9)}}, 0, {}, {{5, 45}, {11, 36}}},
        {"18 cuts at its tick", {{0, N(13, 0x18, 3)}}, 0, {}, {{2, 40}, {3, 0}}},
        // Tremolo: sine x depth >> 7, the position 4 x the speed a tick, read >> 3.
        {"07 tremolo", {{0, N(13, 0x07, 0x48)}}, 0, {}, {{0, 40}, {1, 40 + (49 * 8 >> 7)}, {2, 40 + (90 * 8 >> 7)}}},
        // Hold 2 ticks, then fade by 4 a tick; an instrument-only line holds
        // on for one more line.
        {"08 hold and decay", {{0, N(13, 0x08, 0x42)}}, 0, {}, {{1, 40}, {2, 36}, {3, 32}}},
        {"hold lines hold on", {{0, N(13, 0x08, 0x42)}, {1, {0, 1, 0, 0}}}, 0, {}, {{7, 40}, {8, 36}}},
    };
    for (const cmd_case &c : cases) run_case(c);
}

TEST_F(Med, MmdZeroCommandsAreFourBits) {
    run_case({"MMD0 0C", {{0, N(13, 0x0C, 0x20)}}, 0, {}, {{0, 20}}}, 0);
    run_case({"MMD0 01", {{0, N(13, 0x01, 2)}}, 0, {{1, kC2 - 4}}, {}}, 0);
}

TEST_F(Med, SequenceCommandsPickTheLines) {
    struct flow {
        const char *what;
        std::vector<std::pair<int, med_cell>> b0, b1, b2;   // line, track-0 cell per block
        std::vector<uint16_t> seq;
        std::vector<uint16_t> line_periods;   // the period each successive line starts with
    };
    const flow flows[] = {
        {"F00 goes to the next block", {{0, N(13, 0x0F, 0)}}, {{0, N(15)}}, {}, {0, 1}, {kC2, kD2}},
        {"1D goes to the next block's line", {{0, N(13, 0x1D, 2)}}, {{2, N(17)}}, {}, {0, 1}, {kC2, kE2}},
        {"0B jumps to a position", {{0, N(13, 0x0B, 2)}}, {{0, N(15)}}, {{0, N(18)}}, {0, 1, 2}, {kC2, kF2}},
        {"16 repeats lines",
         {{0, N(13)}, {1, N(15, 0x16, 0)}, {2, N(17, 0x16, 2)}, {3, N(18)}},
         {},
         {},
         {0},
         {kC2, kD2, kE2, kD2, kE2, kD2, kE2, kF2}},
        {"09 sets the ticks per line", {{0, N(13, 0x09, 3)}, {1, N(15)}, {2, N(17)}}, {}, {}, {0},
         {kC2, kD2, kE2}},
    };
    for (const flow &f : flows) {
        SCOPED_TRACE(f.what);
        med_module m = sample_module();
        med_song &s = m.songs[0];
        s.blocks.resize(3);
        for (const auto &x : f.b0) s.blocks[0].at(x.first, 0) = x.second;
        for (const auto &x : f.b1) s.blocks[1].at(x.first, 0) = x.second;
        for (const auto &x : f.b2) s.blocks[2].at(x.first, 0) = x.second;
        s.seq = f.seq;
        engine_ptr k = open_med(build(m));
        ASSERT_TRUE(k);
        bool three = strncmp(f.what, "09", 2) == 0;
        for (size_t i = 0; i < f.line_periods.size(); i++) {
            run_ticks(k.get(), i == 0 ? 1 : three ? 3 : 6);
            EXPECT_EQ(per(k), f.line_periods[i]) << "line " << i;
        }
    }
}

TEST_F(Med, BlockDelayRepeatsTheLine) {
    med_module m = sample_module();
    m.songs[0].blocks[0].at(0, 0) = N(13, 0x1E, 2);
    m.songs[0].blocks[0].at(1, 0) = N(15);
    engine_ptr k = open_med(build(m));
    ASSERT_TRUE(k);
    run_ticks(k.get(), 18);
    EXPECT_EQ(per(k), kC2);
    run_ticks(k.get(), 1);
    EXPECT_EQ(per(k), kD2);
}

TEST_F(Med, DelaysAndRetriggersRestartTheSample) {
    // After the listed ticks the channel is (or is not) playing, and a note
    // started on the last of them has played less than a tick (about 166
    // samples at period 428).
    struct row {
        const char *what;
        med_cell cell;
        int ticks;
        bool playing, fresh;
    } rows[] = {
        {"1F delays by the high nibble", N(13, 0x1F, 0x30), 3, false, false},
        {"1F delayed note starts", N(13, 0x1F, 0x30), 4, true, true},
        {"1F retriggers every low-nibble ticks", N(13, 0x1F, 0x02), 3, true, true},
        {"1F retrigger skips the ticks between", N(13, 0x1F, 0x02), 4, true, false},
        {"F1 plays twice", N(13, 0x0F, 0xF1), 4, true, true},
        {"F2 delays to the fourth tick", N(13, 0x0F, 0xF2), 3, false, false},
        {"F3 plays three times", N(13, 0x0F, 0xF3), 5, true, true},
        {"F4 delays by a third", N(13, 0x0F, 0xF4), 3, true, true},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        med_module m = sample_module();
        m.songs[0].blocks[0].at(0, 0) = r.cell;
        engine_ptr k = open_med(build(m));
        ASSERT_TRUE(k);
        run_ticks(k.get(), r.ticks);
        EXPECT_EQ(bool(k->aud[0].dma_running), r.playing);
        if (r.playing) {
            EXPECT_EQ(k->ch[0].pos < 250, r.fresh) << k->ch[0].pos;
        }
    }
}

TEST_F(Med, FffTurnsTheTrackOff) {
    med_module m = sample_module();
    m.songs[0].blocks[0].at(0, 0) = N(13);
    m.songs[0].blocks[0].at(1, 0) = C(0x0F, 0xFF);
    engine_ptr k = open_med(build(m));
    ASSERT_TRUE(k);
    run_ticks(k.get(), 6);
    EXPECT_TRUE(k->aud[0].dma_running);
    run_ticks(k.get(), 1);
    EXPECT_FALSE(k->aud[0].dma_running);
}

TEST_F(Med, SampleOffsetAndLoop) {
    med_module m = sample_module();
    m.inst[0].rep = 100;      // loop from byte 200 ...
    m.inst[0].replen = 500;   // ... for 1000 bytes
    m.songs[0].blocks[0].at(0, 0) = N(13, 0x19, 1);   // from byte 256: inside the loop
    m.songs[0].blocks[0].at(0, 1) = N(13);
    engine_ptr k = open_med(build(m));
    ASSERT_TRUE(k);
    run_ticks(k.get(), 1);
    uint32_t data = m.data_at[0];
    EXPECT_EQ(uint32_t(k->ch[1].data - k->ram), data);
    EXPECT_EQ(k->ch[1].end, 1200u);   // up to the loop's end, then the loop is queued
    EXPECT_EQ(k->aud[1].lc, data + 200);
    EXPECT_EQ(k->aud[1].len, 500);
    EXPECT_EQ(uint32_t(k->ch[0].data - k->ram), data + 256);
    EXPECT_EQ(k->ch[0].end, 944u);
}

TEST_F(Med, TrackAndMasterVolumeScale) {
    med_module m = sample_module();
    m.songs[0].trackvol = 32;
    m.songs[0].blocks[0].at(0, 0) = N(13);
    engine_ptr k = open_med(build(m));
    ASSERT_TRUE(k);
    run_ticks(k.get(), 1);
    EXPECT_EQ(vol(k), 20);
}

// ---- Synthetic and hybrid sounds -------------------------------------------------

TEST_F(Med, SynthSequences) {
    struct row {
        const char *what;
        std::vector<uint8_t> vol, wf;
        uint8_t volspeed, wfspeed;
        std::vector<uint8_t> volumes;     // per tick
        std::vector<int> waves;           // waveform latched per tick (-1: not checked)
        std::vector<int16_t> offsets;     // period - 856 per tick (C-3)
        uint8_t hold, decay;
    };
    const row rows[] = {
        // SPD takes effect from the next step; CHU/CHD act at the start of
        // each step, before its commands; WAI t skips t steps.
        {"volumes step by the speed", {0xF0, 2, 40, 30, 20, 0xFF}, {0, 0xFF}, 1, 1, {40, 30, 30, 20}, {}, {}, 0, 0},
        {"CHD with WAI", {40, 0xF2, 4, 0xF1, 2, 0x10, 0xFF}, {0, 0xFF}, 1, 1, {40, 40, 36, 16, 12, 8}, {}, {}, 0, 0},
        {"JMP loops, HLT holds", {40, 30, 0xFE, 0}, {0, 0xFF}, 1, 1, {40, 30, 40, 30}, {}, {}, 0, 0},
        {"HLT", {40, 0xFB, 30}, {0, 0xFF}, 1, 1, {40, 40, 40}, {}, {}, 0, 0},
        {"EN1: the envelope waveform sets the volume", {0xF4, 2, 0xFF}, {0, 0xFF}, 1, 1, {0, 32, 33, 34}, {}, {}, 0, 0},
        {"JWS moves the waveform sequence", {40, 0xFA, 3, 0xFF}, {0, 0xFF, 0xFF, 1, 0xFF}, 1, 1, {}, {0, 1}, {}, 0, 0},
        {"waveforms step by the speed", {64, 0xFF}, {0, 1, 0xFF}, 1, 2, {}, {0, 0, 1}, {}, 0, 0},
        {"WAI waits", {64, 0xFF}, {0, 0xF1, 2, 1, 0xFF}, 1, 1, {}, {0, 0, 0, 1}, {}, 0, 0},
        {"a wait before the first waveform", {64, 0xFF}, {0xF1, 2, 1, 0xFF}, 1, 1, {}, {-1, -1, 1}, {}, 0, 0},
        {"CHU changes the period", {64, 0xFF}, {0, 0xF3, 2, 0xFF}, 1, 1, {}, {}, {0, 0, -2, -4}, 0, 0},
        {"RES resets it", {64, 0xFF}, {0, 0xF2, 3, 0xF1, 1, 0xF6, 0xFF}, 1, 1, {}, {}, {0, 0, 0, 3, 6}, 0, 0},
        {"ARP plays its notes, one a tick", {64, 0xFF}, {0, 0xFC, 0, 4, 7, 0xFD, 0xFF}, 1, 1, {}, {},
         {0, 0, 678 - 856, 570 - 856, 0}, 0, 0},
        {"VBD/VBS: vibrato = wave x depth >> 8", {64, 0xFF}, {0, 0xF4, 32, 0xF5, 64, 0xFF}, 1, 1, {}, {},
         {0, 0, 90 * 32 >> 8, 127 * 32 >> 8}, 0, 0},
        {"JVS moves the volume sequence", {40, 30, 20, 10, 0xFF}, {0, 0xFA, 3, 0xFF}, 1, 1, {40, 30, 10}, {}, {}, 0, 0},
        {"decay continues the volume sequence at its position", {40, 0xFB, 0, 20, 0xFF}, {0, 0xFF}, 1, 1,
         {40, 40, 20}, {}, {}, 2, 3},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        med_module m = sample_module();
        med_inst &in = m.inst[0];
        in.type = -1;
        in.volume = 64;
        in.vol = r.vol;
        in.wf = r.wf;
        in.volspeed = r.volspeed;
        in.wfspeed = r.wfspeed;
        in.hold = r.hold;
        in.decay = r.decay;
        std::vector<int8_t> env(128);
        for (int i = 0; i < 128; i++) env[i] = int8_t(i * 4);   // volume (b + 128) >> 2 = 32 + i
        in.waves = {ramp(32), ramp(64), env};
        m.songs[0].blocks[0].at(0, 0) = N(25);
        engine_ptr k = open_med(build(m));
        ASSERT_TRUE(k);
        size_t n = std::max({r.volumes.size(), r.waves.size(), r.offsets.size()});
        for (size_t t = 0; t < n; t++) {
            run_ticks(k.get(), 1);
            if (t < r.volumes.size()) {
                EXPECT_EQ(vol(k), r.volumes[t]) << "tick " << t;
            }
            if (t < r.waves.size() && r.waves[t] >= 0) {
                EXPECT_EQ(k->aud[0].lc, m.wave_at[0][size_t(r.waves[t])]) << t;
                // and what plays is one of the sound's waveforms, never stale memory
                uint32_t playing = uint32_t(k->ch[0].data - k->ram);
                EXPECT_TRUE(playing == m.wave_at[0][0] || playing == m.wave_at[0][1]) << t;
            }
            if (t < r.offsets.size()) {
                EXPECT_EQ(int(per(k)) - int(kC1), r.offsets[t]) << "tick " << t;
            }
        }
    }
}

TEST_F(Med, HybridPlaysItsSampleThenQueuesWaveforms) {
    med_module m = sample_module();
    med_inst &in = m.inst[0];
    in.type = -2;
    in.volume = 64;
    in.vol = {64, 0xFF};
    in.wf = {0xF1, 1, 1, 0xFF};
    in.waves = {ramp(400), ramp(32)};
    m.songs[0].blocks[0].at(0, 0) = N(13);
    engine_ptr k = open_med(build(m));
    ASSERT_TRUE(k);
    run_ticks(k.get(), 1);
    EXPECT_EQ(uint32_t(k->ch[0].data - k->ram), m.wave_at[0][0]);   // the sample plays
    EXPECT_EQ(per(k), kC2);
    run_ticks(k.get(), 1);
    EXPECT_EQ(k->aud[0].lc, m.wave_at[0][1]);   // waveform 1 is queued behind it
    EXPECT_EQ(uint32_t(k->ch[0].data - k->ram), m.wave_at[0][0]);
}

// ---- Tempo modes ------------------------------------------------------------------

TEST_F(Med, TempoModesSetTheTimer) {
    // CIA cycles per tick: SPD 11-240: 468190 / tempo; SPD 1-10: 2417 x
    // tempo; BPM: 4 x (1773447 / (tempo x lines per beat) + 1), a quotient
    // too large for 16 bits leaving 0x0F87; 5-8 channel mode: 1773447 / BPM
    // of the tempo's buffer size; slower than the timer reaches: halved
    // until it fits (ticks then every second interrupt). Timer = cycles - 1.
    struct row {
        const char *what;
        int version;
        uint16_t tempo;
        uint8_t flags, flags2;
        uint16_t timer;
    } rows[] = {
        {"SPD 33", 1, 33, 0, 0, 468190 / 33 - 1},
        {"SPD 6, SoundTracker-compatible", 1, 6, 0, 0, 2417 * 6 - 1},
        {"BPM 125, 4 lines per beat", 1, 125, 0, 0x23, 4 * (1773447 / 500 + 1) - 1},
        {"BPM 6: the divide overflows", 1, 6, 0, 0x23, 4 * (0x0F87 + 1) - 1},
        {"BPM 32, 3 lines per beat: halved", 1, 32, 0, 0x22, 2 * (1773447 / 96 + 1) - 1},
        {"5-8 channels, tempo 6 = 123 BPM", 1, 6, 0x40, 0, 1773447 / 123 - 1},
        {"mixed MMD2, tempo below 8", 2, 5, 0, 0x80, 11234 - 1},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        med_module m = sample_module(r.version);
        m.songs[0].tempo = r.tempo;
        m.songs[0].flags = r.flags;
        m.songs[0].flags2 = r.flags2;
        engine_ptr k = open_med(build(m));
        ASSERT_TRUE(k);
        run_ticks(k.get(), 1);
        EXPECT_EQ(timer(k), r.timer);
    }
    med_module m = sample_module();
    m.songs[0].blocks[0].at(0, 0) = C(0x0F, 0x40);
    m.songs[0].blocks[0].at(1, 0) = C(0x0F, 0x02);   // F01/F02 ran at 112 BPM
    engine_ptr k = open_med(build(m));
    ASSERT_TRUE(k);
    run_ticks(k.get(), 2);
    EXPECT_EQ(timer(k), 468190 / 64 - 1);
    run_ticks(k.get(), 6);   // line 1 (ticks are twice as fast now)
    EXPECT_EQ(timer(k), 709379 * 5 / (2 * 112) - 1);
}

// ---- Song end and subsongs ------------------------------------------------------------

TEST_F(Med, SongEndsWhereItLoops) {
    struct row {
        const char *what;
        std::vector<std::pair<int, med_cell>> b0, b1;
        uint64_t ms;   // lines x 6 ticks x 20 ms
    } rows[] = {
        {"the sequence wraps", {}, {}, 8 * 120},
        {"0B jumps back", {}, {{2, C(0x0B, 1)}}, 7 * 120},
        {"FFE stops the song", {{1, C(0x0F, 0xFE)}}, {}, 1 * 120},
        {"a repeat loop plays on", {{1, C(0x16, 0)}, {2, C(0x16, 3)}}, {}, 14 * 120},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        med_module m = sample_module();
        med_song &s = m.songs[0];
        s.blocks.resize(2);
        for (med_block &b : s.blocks) b.lines = 4;
        for (const auto &x : r.b0) s.blocks[0].at(x.first, 0) = x.second;
        for (const auto &x : r.b1) s.blocks[1].at(x.first, 0) = x.second;
        s.blocks[0].at(0, 0) = N(13, s.blocks[0].at(0, 0).cmd, s.blocks[0].at(0, 0).data);
        s.seq = {0, 1};
        engine_ptr k = open_med(build(m));
        ASSERT_TRUE(k);
        int32_t reason = 0;
        uint64_t ms = kelva_measure_length(k.get(), 60000, 0, &reason, nullptr, nullptr);
        EXPECT_EQ(reason, 1);
        EXPECT_NEAR(double(ms), double(r.ms), 25.0);
    }
}

TEST_F(Med, MultiModuleSongsAreSubsongs) {
    for (int version : {1, 2}) {
        med_module m = sample_module(version);
        m.songs.resize(2);
        m.songs[0].name = "first";
        m.songs[1].name = "second";
        m.songs[0].blocks[0].at(0, 0) = N(13);
        m.songs[1].blocks[0].at(0, 0) = N(15);
        std::vector<uint8_t> f = build(m);
        for (int sub : {1, 2}) {
            engine_ptr k = open_med(f, sub);
            ASSERT_TRUE(k);
            EXPECT_EQ(kelva_get_subsong_count(k.get()), 2u);
            run_ticks(k.get(), 1);
            EXPECT_EQ(per(k), sub == 1 ? kC2 : kD2) << version;
            char name[32];
            kelva_get_module_name(k.get(), name, sizeof name);
            EXPECT_STREQ(name, sub == 1 ? "first" : "second");
        }
    }
}

// ---- Software mixing -------------------------------------------------------------------

namespace {

// Peak of the left and right output over `ms` after `skip` ms.
std::pair<float, float> side_peaks(kelva *k, int skip_ms, int ms) {
    std::vector<float> buf(48 * 2 * size_t(skip_ms + ms));
    kelva_render(k, buf.data(), 48 * (skip_ms + ms));
    float l = 0, r = 0;
    for (size_t i = size_t(48 * skip_ms) * 2; i < buf.size(); i += 2) {
        l = std::max(l, std::fabs(buf[i]));
        r = std::max(r, std::fabs(buf[i + 1]));
    }
    return {l, r};
}

}  // namespace

TEST_F(Med, WideSongsMixTrackTOntoChannelTMod4) {
    // Six tracks: track 4 shares Paula channel 0 (left), track 5 channel 1
    // (right); a track at volume 0 is silent.
    struct row {
        int track;
        uint8_t volume_cmd;
        bool left, right;
    } rows[] = {{4, 0, true, false}, {5, 0, false, true}, {4, 0x0C, false, false}};
    for (const row &r : rows) {
        med_module m = sample_module();
        m.inst[0].data = std::vector<int8_t>(2000);
        for (size_t i = 0; i < 2000; i++) m.inst[0].data[i] = int8_t(i & 16 ? 100 : -100);
        m.inst[0].rep = 0;
        m.inst[0].replen = 1000;
        med_block &b = m.songs[0].blocks[0];
        b.tracks = 6;
        b.at(0, r.track) = N(13, r.volume_cmd, 0);
        engine_ptr k = open_med(build(m));
        ASSERT_TRUE(k);
        auto p = side_peaks(k.get(), 50, 100);
        EXPECT_EQ(p.first > 0.01f, r.left) << r.track;
        EXPECT_EQ(p.second > 0.01f, r.right) << r.track;
    }
}

TEST_F(Med, MixedSongsPanTheirTracks) {
    // A software-mixed MMD2 song: the track's pan (-16 left .. 16 right)
    // from the song's table, changed by command 2E.
    struct row {
        int8_t pan;
        uint8_t cmd, data;
        bool left, right;
    } rows[] = {{-16, 0, 0, true, false}, {16, 0, 0, false, true}, {0, 0, 0, true, true}, {-16, 0x2E, 0x10, false, true}};
    for (const row &r : rows) {
        med_module m = sample_module(2);
        m.inst[0].data = std::vector<int8_t>(2000, 80);
        m.inst[0].replen = 1000;
        m.songs[0].flags2 = 0x80;
        m.songs[0].pans = {r.pan, 0, 0, 0};
        m.songs[0].blocks[0].at(0, 0) = N(13, r.cmd, r.data);
        engine_ptr k = open_med(build(m));
        ASSERT_TRUE(k);
        auto p = side_peaks(k.get(), 50, 100);
        EXPECT_EQ(p.first > 0.01f, r.left) << int(r.pan);
        EXPECT_EQ(p.second > 0.01f, r.right) << int(r.pan);
    }
}

TEST_F(Med, MixedSongsPlayPingPongLoops) {
    // A loop of 1000 bytes, silent then loud: forwards the output is loud
    // for 500 bytes at a time (60 ms at C-2's 8287 Hz), back and forth 1000.
    for (uint8_t flags : {9, 1}) {
        med_module m = sample_module(2);
        m.inst[0].data = std::vector<int8_t>(1000, 0);
        std::fill(m.inst[0].data.begin() + 500, m.inst[0].data.end(), int8_t(100));
        m.inst[0].replen = 500;
        m.inst[0].flags = flags;
        m.songs[0].flags2 = 0x80;
        m.songs[0].pans = {-16, 0, 0, 0};
        m.songs[0].blocks[0].at(0, 0) = N(13);
        engine_ptr k = open_med(build(m));
        ASSERT_TRUE(k);
        std::vector<float> buf(48 * 2 * 600);
        kelva_render(k.get(), buf.data(), 48 * 600);
        int run = 0, longest = 0;   // loud milliseconds in a row, from 150 ms on
        for (size_t i = 150 * 96; i < buf.size(); i += 96) {
            run = std::fabs(buf[i]) > 0.01f || std::fabs(buf[i + 48]) > 0.01f ? run + 1 : 0;
            longest = std::max(longest, run);
        }
        EXPECT_EQ(longest > 90, flags == 9) << longest;
    }
}

// ---- MED 1.x songs and their instrument files ------------------------------------------

TEST_F(Med, Med2SongsLoadTheirInstrumentsFromFiles) {
    // "MED\x02": names (40 bytes x 32, slot 0 unused), volumes, loop starts
    // and lengths (32 each), block count, 100 orders, length, tempo, flags,
    // sliding, jump mask, colours; then blocks of 64 lines x 4 tracks of
    // period, instrument/command and data, after a 4-byte header.
    std::vector<uint8_t> f(4 + 32 * 40 + 32 + 64 + 64 + 2 + 100 + 2 + 2 + 2 + 2 + 4 + 16 + 4 + 1024);
    memcpy(&f[0], "MED\x02", 4);
    memcpy(&f[4 + 40], "bass", 4);
    f[4 + 1280 + 1] = 50;                       // volume of instrument 1
    size_t p = 4 + 1280 + 32 + 128;
    put16(f, p, 1);                             // one block
    put16(f, p + 102, 1);                       // song length
    put16(f, p + 104, 32);                      // tempo: 192 / 32 = 6 ticks a line
    put16(f, p + 108, 6);                       // sliding on every tick
    size_t cells = p + 2 + 100 + 2 + 2 + 2 + 2 + 4 + 16 + 4;
    put16(f, cells, kD2);
    f[cells + 2] = 0x10;                        // instrument 1, no command
    struct row {
        const char *what;
        std::vector<uint8_t> file;
        uint32_t data_offset;
    };
    std::vector<uint8_t> iff = {'F', 'O', 'R', 'M', 0, 0, 0, 0, '8', 'S', 'V', 'X', 'V', 'H', 'D', 'R', 0, 0, 0, 20};
    iff.resize(iff.size() + 20);
    iff[20 + 14] = 1;                           // VHDR: one octave
    for (const char *c = "BODY"; *c; c++) iff.push_back(uint8_t(*c));
    put_be32(iff, 1000);
    iff.resize(iff.size() + 1000, 0x40);
    const row rows[] = {{"raw sample", std::vector<uint8_t>(1000, 0x40), 0}, {"IFF 8SVX", iff, 48}};
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        memory_files files;
        files.files["/m/bass"] = r.file;
        engine_ptr k = open_med(f, 0, &files);
        ASSERT_TRUE(k);
        EXPECT_STREQ(kelva_get_format_name(k.get()), "MED (MED2)");
        run_ticks(k.get(), 1);
        EXPECT_EQ(per(k), kD2);
        EXPECT_EQ(vol(k), 50);
        uint32_t loaded = (kModule + uint32_t(f.size()) + 1) & ~1u;
        EXPECT_EQ(uint32_t(k->ch[0].data - k->ram), loaded + r.data_offset);
    }
}

// ---- The shared modules ----------------------------------------------------------------------

TEST_F(Med, SharedModulesIdentifyAndLastAsWorkedOut) {
    KELVA_REQUIRE_SHARED("testdata/modules/med");
    kelva_global_init();
    data_tree_env env;
    // Lengths: lines x ticks per line x frames per tick (the engine rounds
    // a tick to whole frames: 960 at 50 Hz).
    struct row {
        const char *file, *format, *title;
        double seconds;
    } rows[] = {
        // BPM 125 at 4 lines per beat: 50 Hz; 5 blocks of 64 lines at 7 ticks.
        {"fair.med", "OctaMED (MMD1)", "fairlight", 5 * 64 * 7 * 960 / 48000.0},
        // SPD 33: 50 Hz; 4 + 13 x 32 lines at 9 ticks, and four lines that
        // command 1E07 plays 8 times.
        {"chip_happy.med", "OctaMED (MMD1)", "", (420 + 4 * 7) * 9 * 960 / 48000.0},
        // One 64-line block at 6 ticks: 24 and 16 lines at tempo 32 (14631
        // cycles: 990 frames), 24 lines at tempo 192 (2438 cycles: 165).
        {"med3song.med", "MED (MED3)", "", (40 * 6 * 990 + 24 * 6 * 165) / 48000.0},
        // 3296 lines at 6 ticks, tempo 35 (13376 cycles: 905 frames).
        {"Synth-a-sysmic.med", "MED (MED4)", "", 3296 * 6 * 905 / 48000.0},
        {"finetune.med", "MED (MMD0)", "", 16 * 6 * 960 / 48000.0},
        {"stereo.med", "OctaMED Soundstudio (MMD3)", "Stereo Samples", 0},
        {"instruments.mmd3", "OctaMED Soundstudio (MMD3)", "MMD3 Instrument Testing", 0},
        {"memories of anna.mmd1", "OctaMED (MMD1)", "", 0},
        {"mmd2_compat_tempo.med", "OctaMED (MMD2)", "<unnamed>", 0},
        {"med4song.med", "MED (MED4)", "", 0},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.file);
        std::string path = shared_dir() + "/testdata/modules/med/" + r.file;
        std::vector<uint8_t> data = read_bytes(path);
        char player[4096];
        ASSERT_TRUE(kelva_identify(path.c_str(), data.data(), uint32_t(data.size()), player, sizeof player));
        EXPECT_STREQ(strrchr(player, '/') + 1, "MED");
        engine_ptr k = make_engine(48000);
        std::vector<uint8_t> p = read_bytes(player);
        ASSERT_EQ(kelva_open(k.get(), p.data(), uint32_t(p.size()), data.data(), uint32_t(data.size()), player,
                             path.c_str(), 0),
                  0);
        EXPECT_STREQ(kelva_get_format_name(k.get()), r.format);
        char title[64];
        kelva_get_module_name(k.get(), title, sizeof title);
        EXPECT_STREQ(title, r.title);
        if (r.seconds > 0) {
            int32_t reason = 0;
            uint64_t ms = kelva_measure_length(k.get(), 0, 0, &reason, nullptr, nullptr);
            EXPECT_EQ(reason, 1);
            EXPECT_NEAR(double(ms), r.seconds * 1000, 25.0);
        }
    }
}

// ---- Damaged modules -------------------------------------------------------------------------

TEST_F(Med, TruncatedModulesFailOrPlaySafely) {
    std::vector<std::vector<uint8_t>> mods;
    for (int v = 0; v <= 3; v++) {
        med_module m = sample_module(v);
        m.inst.push_back(m.inst[0]);
        m.inst[1].type = -1;
        m.inst[1].vol = {0xFE, 0};   // jump to themselves: bounded by the player
        m.inst[1].wf = {0xFE, 0};
        m.inst[1].waves = {ramp(32)};
        m.songs[0].blocks[0].at(0, 0) = N(13);
        m.songs[0].blocks[0].at(0, 1) = N(25, 0, 0, 2);
        mods.push_back(build(m));
    }
    if (!shared_dir().empty()) {
        for (const char *f : {"med3song.med", "finetune.med", "moods-yeah.med"}) {
            std::vector<uint8_t> d = read_bytes(shared_dir() + "/testdata/modules/med/" + f);
            if (!d.empty()) mods.push_back(d);
        }
    }
    for (const std::vector<uint8_t> &full : mods) {
        for (int cut = 1; cut < 24; cut++) {
            std::vector<uint8_t> d(full.begin(), full.begin() + long(full.size() * size_t(cut) / 24));
            engine_ptr k = open_med(d);
            if (!k) continue;
            std::vector<float> buf(9600 * 2);
            kelva_render(k.get(), buf.data(), 9600);
            for (float x : buf) ASSERT_TRUE(std::isfinite(x));
        }
    }
}
