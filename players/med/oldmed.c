/* oldmed.c - MED 2/3/4 songs ("MED" and a version byte 2, 3 or 4).
 *
 * The songs of MED before the MMD modules store their parts one after the
 * other, most of them packed:
 *
 *   MED2 (MED 1.x): 32 instrument names of 40 bytes, volumes, loops, 100
 *        orders, then blocks of 64 lines x 4 tracks of ProTracker-like
 *        cells (a period, instrument and command nibbles, a data byte).
 *        The samples are files named by the instruments.
 *   MED3 (MED 2.0): NUL-terminated instrument names, then volumes and
 *        loops each behind a 32-bit mask of the instruments present, the
 *        orders and tempo; blocks of 64 lines whose cells are nibble
 *        packed behind line masks (which lines carry notes, which carry
 *        commands) and per-line track masks; then the samples behind a
 *        mask, or none (the samples are files).
 *   MED4 (MED 2.1-3.x): instrument records behind a mask of up to 64
 *        instruments (flags say which fields follow), orders, tempo,
 *        secondary tempo, track volumes; blocks of up to 16 tracks and 256
 *        lines packed like MED3's; samples, synthetic and hybrid sounds
 *        behind a 64-bit mask; then IFF-style chunks (version, notes).
 *
 * Each song becomes the song model of med.h: its blocks are unpacked into
 * memory as 4-byte cells (note, instrument, command, data), the orders
 * into one play sequence. Commands keep their MMD numbers, except where
 * the old versions differed: F2 cut the note at the third tick and F3
 * delayed it by three ticks (later F2 delays, F3 plays three times), FE
 * did nothing; MED2's volumes were hexadecimal and its E command slid the
 * volume like D.
 *
 * Instruments the file does not hold are loaded, when a file of their
 * name lies in the song's folder, through the host's LoadFile: IFF 8SVX
 * samples (multi-octave ones as IFF octave instruments), MED synthetic or
 * hybrid sound files ("MSH"), or raw sample data. */
#include "med.h"
#include "kp_math.h"

/* The reading position; reads past the end return 0 and set `overrun`. */
static uint32_t cur;
static uint8_t overrun;

static uint8_t g8(void) {
    if (cur >= mod_end) {
        overrun = 1;
        return 0;
    }
    return rd8(cur++);
}
static uint16_t g16(void) {
    uint16_t v = (uint16_t)(g8() << 8);
    return (uint16_t)(v | g8());
}
static uint32_t g32(void) {
    uint32_t v = (uint32_t)g16() << 16;
    return v | g16();
}
static int have(uint32_t n) { return cur <= mod_end && n <= mod_end - cur; }

/* Instrument names (for files to load) and loops, by model index. */
static char names[MED_MAX_INSTR][41];
static uint8_t version;

/* ---- Nibble streams --------------------------------------------------------- */

static uint32_t nib_pos, nib_end;   /* in nibbles, from nib_base */
static uint32_t nib_base;

static uint8_t nib(void) {
    if (nib_pos >= nib_end) {
        overrun = 1;
        return 0;
    }
    uint8_t b = rd8(nib_base + (nib_pos >> 1));
    uint8_t v = (nib_pos & 1) ? (uint8_t)(b & 15) : (uint8_t)(b >> 4);
    nib_pos++;
    return v;
}
static uint16_t nibs(uint8_t n) {
    uint16_t v = 0;
    while (n--) v = (uint16_t)(v << 4 | nib());
    return v;
}

/* ---- Cells ---------------------------------------------------------------------- */

/* Writes a note in the 4-byte layout: the note byte holds the note in
 * its low 6 bits and instrument bits 4 and 5 in bits 7 and 6. */
static void put_note(uint8_t *c, uint8_t note_byte, uint8_t ins_low) {
    c[0] = note_byte & 0x3F;
    c[1] = (uint8_t)(ins_low | ((note_byte & 0x80) >> 3) | ((note_byte & 0x40) >> 1));
}

/* Writes a command, with the old versions' meanings. */

static void put_cmd(uint8_t *c, uint8_t cmd, uint8_t data) {
    if (cmd == 0x0F) {
        if (data == 0xF2) {
            cmd = 0x18;   /* cut at the third tick */
            data = 3;
        } else if (data == 0xF3) {
            cmd = 0x1F;   /* delay by three ticks */
            data = 0x30;
        } else if (data > 0xF3 && data != 0xF8 && data != 0xF9 && data != 0xFF) {
            cmd = data = 0;
        }
    }
    if (version == 2 && cmd == 0x0E) cmd = 0x0D;
    c[2] = cmd;
    c[3] = data;
}

/* ---- Blocks ------------------------------------------------------------------------- */

static struct med_block *new_block(uint16_t b, uint16_t tracks, uint16_t lines) {
    struct med_block *bl = &song.block[b];
    bl->tracks = bl->stride = tracks;
    bl->lines = lines;
    bl->cell = 4;
    bl->data = (uint32_t)med_alloc(kp_mulu16(tracks, lines) << 2);   /* at most 16 x 256 cells */
    if (!bl->data) {
        bl->tracks = bl->stride = 0;
        bl->lines = 1;
    }
    if (tracks > song.tracks) song.tracks = (uint8_t)tracks;
    return bl;
}

static uint8_t *cell_at(struct med_block *bl, uint16_t line, uint16_t t) {
    return (uint8_t *)(bl->data + ((uint32_t)(uint16_t)(kp_mulu16(line, bl->stride) + t) << 2));
}

/* A MED3 block: 4 tracks, 64 lines. */
static int block_med3(uint16_t b, int build) {
    if (!have(4)) return 1;
    uint8_t tracks = g8();
    uint8_t flags = g8();
    uint16_t size = g16();
    if (tracks == 0 || tracks > 16 || (tracks & 3)) tracks = 4;
    uint32_t mask[4];
    static const uint8_t zero[4] = {0x10, 0x20, 0x40, 0x80}, full[4] = {0x01, 0x02, 0x04, 0x08};
    for (int i = 0; i < 4; i++) mask[i] = (flags & zero[i]) ? 0 : (flags & full[i]) ? 0xFFFFFFFFu : g32();
    if (!have(size)) return 1;
    nib_base = cur;
    nib_pos = 0;
    nib_end = (uint32_t)size << 1;
    cur += size;
    if (!build) return 0;
    struct med_block *bl = new_block(b, tracks, 64);
    if (!bl->data) return 0;
    for (uint16_t line = 0; line < 64 && !overrun; line++) {
        uint32_t bit = 0x80000000u >> (line & 31);
        uint32_t lm = mask[line >> 5], fm = mask[2 + (line >> 5)];
        if (lm & bit) {
            uint16_t tm = (uint16_t)(nibs((uint8_t)(tracks >> 2)) << (16 - tracks));
            for (uint16_t t = 0; t < tracks; t++, tm = (uint16_t)(tm << 1)) {
                if (!(tm & 0x8000)) continue;
                uint8_t nb = (uint8_t)nibs(2);
                put_note(cell_at(bl, line, t), nb, nib());
            }
        }
        if (fm & bit) {
            uint16_t tm = (uint16_t)(nibs((uint8_t)(tracks >> 2)) << (16 - tracks));
            for (uint16_t t = 0; t < tracks; t++, tm = (uint16_t)(tm << 1)) {
                if (!(tm & 0x8000)) continue;
                uint8_t cmd = nib();
                uint8_t data = (uint8_t)nibs(2);
                put_cmd(cell_at(bl, line, t), cmd, data);
            }
        }
    }
    return 0;
}

/* A MED4 block: up to 16 tracks and 256 lines. */
static int block_med4(uint16_t b, int build) {
    if (!have(5)) return 1;
    uint8_t hdr = g8();
    uint32_t start = cur;
    uint8_t tracks = g8();
    uint16_t lines = (uint16_t)(g8() + 1);
    uint16_t size = g16();
    if (tracks == 0 || tracks > 16) return 1;
    uint8_t ctl[4] = {0, 0, 0, 0};
    for (uint16_t j = 0; j < 4 && lines > (uint16_t)(j << 6); j++) ctl[j] = g8();
    uint32_t lmask[8], fmask[8];
    for (uint16_t y = 0; y < 8; y++) {
        lmask[y] = fmask[y] = 0;
        if (lines <= (uint16_t)(y << 5)) continue;
        uint8_t c = ctl[y >> 1], s = (uint8_t)((y & 1) << 2);
        lmask[y] = (c & (0x80 >> s)) ? 0xFFFFFFFFu : (c & (0x40 >> s)) ? 0 : g32();
        fmask[y] = (c & (0x20 >> s)) ? 0xFFFFFFFFu : (c & (0x10 >> s)) ? 0 : g32();
    }
    cur = start + hdr;
    if (!have(size)) return 1;
    nib_base = cur;
    nib_pos = 0;
    nib_end = (uint32_t)size << 1;
    cur += size;
    if (!build) return 0;
    struct med_block *bl = new_block(b, tracks, lines);
    if (!bl->data) return 0;
    uint8_t tn = (uint8_t)((tracks + 3) >> 2);   /* nibbles of a track mask */
    for (uint16_t line = 0; line < lines && !overrun; line++) {
        uint32_t bit = 0x80000000u >> (line & 31);
        if (lmask[line >> 5] & bit) {
            uint16_t tm = (uint16_t)(nibs(tn) << (16 - (tn << 2)));
            for (uint16_t t = 0; t < tracks; t++, tm = (uint16_t)(tm << 1)) {
                if (!(tm & 0x8000)) continue;
                uint16_t x = nibs(3);
                put_note(cell_at(bl, line, t), (uint8_t)(x >> 4), (uint8_t)(x & 15));
            }
        }
        if (fmask[line >> 5] & bit) {
            uint16_t tm = (uint16_t)(nibs(tn) << (16 - (tn << 2)));
            for (uint16_t t = 0; t < tracks; t++, tm = (uint16_t)(tm << 1)) {
                if (!(tm & 0x8000)) continue;
                uint16_t x = nibs(3);
                put_cmd(cell_at(bl, line, t), (uint8_t)(x >> 8), (uint8_t)x);
            }
        }
    }
    return 0;
}

/* A MED2 block: 64 lines x 4 tracks of period, instrument/command, data. */
static const uint16_t periods_c1[36] = {856,808,762,720,678,640,604,570,538,508,480,453,428,404,381,360,339,320,
                                        302,285,269,254,240,226,214,202,190,180,170,160,151,143,135,127,120,113};

static int block_med2(uint16_t b, int build) {
    if (!have(4 + 1024)) return 1;
    uint32_t at = cur + 4;
    cur += 4 + 1024;
    if (!build) return 0;
    struct med_block *bl = new_block(b, 4, 64);
    if (!bl->data) return 0;
    for (uint16_t line = 0; line < 64; line++) {
        for (uint16_t t = 0; t < 4; t++) {
            uint32_t a = at + ((uint32_t)((line << 2) + t) << 2);
            uint16_t per = rd16(a) & 0x0FFF;
            uint8_t x = rd8(a + 2);
            uint8_t *c = cell_at(bl, line, t);
            if (per) {   /* the nearest note of C-1..B-3 */
                uint8_t n = 0;
                uint16_t best = 0xFFFF;
                for (uint8_t i = 0; i < 36; i++) {
                    uint16_t d = per > periods_c1[i] ? (uint16_t)(per - periods_c1[i]) : (uint16_t)(periods_c1[i] - per);
                    if (d < best) {
                        best = d;
                        n = i;
                    }
                }
                c[0] = (uint8_t)(n + 1);
            }
            c[1] = x >> 4;
            put_cmd(c, x & 15, rd8(a + 3));
        }
    }
    return 0;
}

/* ---- Instruments ------------------------------------------------------------------ */

/* A synthetic or hybrid sound in MED's own layout ("MSH" sounds, as MED4
 * songs embed them and synth files hold them): at `at` 22 bytes of header
 * (rep, replen, table lengths, speeds, waveform count), the two tables,
 * then the waveforms' offsets from `at`. The tables are copied into 128
 * bytes each, padded with END. */
static void read_msh(struct med_instr *in, uint32_t at, uint32_t end, int hybrid) {
    in->kind = INS_NONE;
    if (end > mod_end || at > end || end - at < 22) return;
    uint16_t vtl = rd16(at + 14), wtl = rd16(at + 16);
    in->volspeed = rd8(at + 18);
    in->wfspeed = rd8(at + 19);
    uint16_t wforms = rd16(at + 20);
    if (vtl > 128 || wtl > 128 || wforms > MED_MAX_WAVES) return;
    uint32_t tbl = at + 22;
    if (end - tbl < (uint32_t)vtl + wtl + ((uint32_t)wforms << 2)) return;
    uint8_t *copy = (uint8_t *)med_alloc(256);
    if (!copy) return;
    for (uint16_t i = 0; i < 256; i++) copy[i] = 0xFF;
    for (uint16_t i = 0; i < vtl; i++) copy[i] = rd8(tbl + i);
    for (uint16_t i = 0; i < wtl; i++) copy[128 + i] = rd8(tbl + vtl + i);
    in->voltbl = (uint32_t)copy;
    in->wftbl = (uint32_t)copy + 128;
    uint32_t offs = tbl + vtl + wtl;
    in->wave = med_wave_count;
    for (uint16_t w = 0; w < wforms; w++) {
        struct med_wave *wv = &med_waves[med_wave_count + w];
        wv->data = 0;
        wv->words = 1;
        uint32_t off = rd32(offs + ((uint32_t)w << 2));
        if (off > end - at || end - at - off < 2) continue;
        uint32_t wf = at + off;
        if (hybrid && w == 0) {
            /* the sample: a header of length and type, then the data */
            if (end - wf < 6) continue;
            uint32_t len = rd32(wf);
            if (len > end - wf - 6) len = end - wf - 6;
            in->data = wf + 6;
            in->length = len;
            continue;
        }
        uint32_t words = rd16(wf);
        uint32_t room = (end - wf - 2) >> 1;
        if (words > room) words = room;
        if (!words) continue;
        wv->data = wf + 2;
        wv->words = (uint16_t)words;
    }
    in->waves = (uint8_t)wforms;
    med_wave_count = (uint16_t)(med_wave_count + wforms);
    in->kind = hybrid ? (in->data ? INS_HYBRID : INS_NONE) : INS_SYNTH;
}

/* One instrument from the song's sample section: length, type, data. */
static int read_embedded(struct med_instr *in) {
    if (!have(6)) return 1;
    uint32_t len = g32();
    int16_t type = (int16_t)g16();
    uint32_t at = cur;
    uint32_t end = len <= mod_end - at ? at + len : mod_end;
    if (type == 0) {
        in->kind = INS_SAMPLE;
        in->data = at;
        in->length = end - at;
    } else if (type == -1 || type == -2) {
        read_msh(in, at, end, type == -2);
    }
    cur = end;
    return 0;
}

/* The last component of an Amiga path ("df0:samples/bass" -> "bass"). */
static const char *file_part(const char *name) {
    const char *f = name;
    for (const char *p = name; *p; p++)
        if (*p == '/' || *p == ':') f = p + 1;
    return f;
}

/* GetListData: A0 = the address of file `i`; its size. */
static uint32_t list_data(kp_globals g, uint32_t i, uint32_t *size) {
    register uint32_t d0 __asm__("d0") = i;
    register uint32_t a0 __asm__("a0") = 0;
    register uint32_t a1 __asm__("a1") = kp_g32(g, DTG_GetListData);
    __asm__ volatile("jsr (%%a1)" : "+d"(d0), "+a"(a0), "+a"(a1) : : "d1", "memory", "cc");
    *size = d0;
    return a0;
}

/* Loads the file named like instrument `i` from the song's folder. */
static void load_external(kp_globals g, uint8_t i) {
    struct med_instr *in = &instr[i];
    const char *name = file_part(names[i]);
    if (!*name) return;
    volatile char *path = (volatile char *)kp_g32(g, DTG_PathArrayPtr);
    if (!path) return;
    path[0] = 0;
    kp_support(g, DTG_CopyDir, 0, 0, 0);
    kp_support(g, DTG_CopyString, 0, 0, (uint32_t)name);
    if (kp_support(g, DTG_LoadFile, 0, 0, 0) != 0) return;
    uint32_t n = 0, size = 0, a = 0;
    for (uint32_t k = 0; k < 64; k++) {
        uint32_t s;
        uint32_t x = list_data(g, k, &s);
        if (!x) break;
        n = k;
        a = x;
        size = s;
    }
    if (!n || !a || !size) return;
    /* Loaded files lie in chip memory after the module: read them like it. */
    uint32_t saved_end = mod_end;
    if (a + size > mod_end) mod_end = a + size;
    if (size >= 12 && rd32(a) == 0x464F524Du && rd32(a + 8) == 0x38535658u) {   /* FORM ... 8SVX */
        uint32_t p = a + 12, end = a + size;
        uint32_t one = 0, rep = 0;
        uint8_t octaves = 1;
        while (p + 8 <= end) {
            uint32_t id = rd32(p), len = rd32(p + 4);
            uint32_t body = p + 8;
            if (len > end - body) len = end - body;
            if (id == 0x56484452u && len >= 20) {   /* VHDR */
                one = rd32(body);
                rep = rd32(body + 4);
                octaves = rd8(body + 14);
            } else if (id == 0x424F4459u) {         /* BODY */
                static const uint8_t type_of[8] = {0, 0, 3, 2, 4, 1, 5, 6};
                in->kind = INS_SAMPLE;
                in->data = body;
                in->length = len;
                in->octaves = octaves < 8 ? type_of[octaves] : 0;
                if (!in->loop && rep > 2) {
                    in->rep = one;
                    in->replen = rep;
                    in->loop = 1;
                }
                break;
            }
            p = body + ((len + 1) & ~1u);
        }
    } else if (size >= 22 && rd32(a) == 0x4D534800u) {   /* a synthetic sound */
        read_msh(in, a, a + size, (int16_t)rd16(a + 4) == -2);
    } else {
        in->kind = INS_SAMPLE;
        in->data = a;
        in->length = size;
    }
    if (in->kind == INS_NONE) mod_end = saved_end;
}

/* ---- The songs ----------------------------------------------------------------------- */

/* Reads the song; with `build` 0 only checks that its parts fit. */
static int parse(int build) {
    cur = mod_base + 4;
    overrun = 0;
    version = rd8(mod_base + 3);
    uint16_t npat = 0, len = 0, tempo = 33;
    uint32_t orders = 0;
    uint8_t flags = 0, tempo2 = 6;
    if (version == 2) {
        if (!have(32 * 40 + 32 + 128 + 2 + 100 + 2 + 2 + 4 + 4 + 16)) return 1;
        for (uint8_t i = 1; i < 32; i++) {
            uint32_t a = cur + kp_mulu16(i, 40);
            for (uint8_t k = 0; k < 40; k++) names[i - 1][k] = (char)rd8(a + k);
            names[i - 1][40] = 0;
        }
        cur += 32 * 40;
        for (uint8_t i = 1; i < 32; i++) instr[i - 1].volume = rd8(cur + i);
        cur += 32;
        for (uint8_t i = 1; i < 32; i++) {
            instr[i - 1].rep = (uint32_t)rd16(cur + ((uint32_t)i << 1)) << 1;
            instr[i - 1].replen = (uint32_t)rd16(cur + 64 + ((uint32_t)i << 1)) << 1;
        }
        cur += 128;
        npat = g16();
        orders = cur;
        cur += 100;
        len = g16();
        if (len > 100) len = 100;
        uint16_t k = g16();
        tempo2 = (uint8_t)(k ? kp_divu16(192, k) : 6);
        flags = SF_VOLHEX;
        g16();
        if (g16() != 6) flags |= SF_STSLIDE;
        cur += 4 + 16;
    } else if (version == 3) {
        for (uint8_t i = 0; i < 32; i++) {
            uint8_t k = 0;
            for (;;) {
                uint8_t c = g8();
                if (!c || overrun) break;
                if (k < 40) {
                    if (i) names[i - 1][k] = (char)c;
                    k++;
                }
            }
            if (i) names[i - 1][k < 40 ? k : 40] = 0;
        }
        uint32_t m = g32();
        for (uint8_t i = 0; i < 32; i++, m <<= 1)
            if (m & 0x80000000u) {
                uint8_t v = g8();
                if (i) instr[i - 1].volume = v;
            }
        m = g32();
        for (uint8_t i = 0; i < 32; i++, m <<= 1)
            if (m & 0x80000000u) {
                uint16_t v = g16();
                if (i) instr[i - 1].rep = (uint32_t)v << 1;
            }
        m = g32();
        for (uint8_t i = 0; i < 32; i++, m <<= 1)
            if (m & 0x80000000u) {
                uint16_t v = g16();
                if (i) instr[i - 1].replen = (uint32_t)v << 1;
            }
        npat = g16();
        len = g16();
        orders = cur;
        cur += len;
        if (!have(6 + 20 + 8)) return 1;
        tempo = g16();
        song.transpose = (int8_t)g8();
        flags = (uint8_t)(g8() & SF_FILTERON);
        if (g16() != 6) flags |= SF_STSLIDE;
        cur += 4 + 16;
        for (int k = 0; k < 2; k++) {   /* MIDI channels and presets */
            m = g32();
            for (uint8_t i = 0; i < 32; i++, m <<= 1)
                if (m & 0x80000000u) g8();
        }
    } else {
        uint8_t m0 = g8();
        uint8_t mbytes[8];
        for (uint8_t i = 0; i < 8; i++) mbytes[i] = 0;
        /* The mask's bytes that are present follow in order, highest first. */
        uint8_t nb = 0;
        for (uint8_t i = 0; i < 8; i++)
            if (m0 & (0x80 >> i)) mbytes[nb++] = g8();
        for (uint8_t i = 0; i < 64; i++) {
            if (!(mbytes[i >> 3] & (0x80 >> (i & 7)))) continue;
            uint8_t c = g8();
            uint8_t n = g8();
            uint8_t k;
            for (k = 0; k < n; k++) {
                char ch = (char)g8();
                if (k < 40 && i < MED_MAX_INSTR) names[i][k] = ch;
            }
            uint16_t ls = 0, ll = 0;
            uint8_t vol = 64;
            int8_t tr = 0;
            if (!(c & 0x01)) ls = g16();
            if (!(c & 0x02)) ll = g16();
            if (!(c & 0x04)) g8();
            if (!(c & 0x08)) g8();
            if (!(c & 0x30)) vol = g8();
            if (!(c & 0x40)) tr = (int8_t)g8();
            if (i < MED_MAX_INSTR) {
                names[i][k < 40 ? k : 40] = 0;
                instr[i].rep = (uint32_t)ls << 1;
                instr[i].replen = (uint32_t)ll << 1;
                instr[i].volume = vol > 64 ? 64 : vol;
                instr[i].transpose = tr;
            }
        }
        npat = g16();
        len = g16();
        orders = cur;
        cur += len;
        if (!have(6 + 20 + 17)) return 1;
        tempo = g16();
        song.transpose = (int8_t)g8();
        flags = g8();
        tempo2 = (uint8_t)g16();
        cur += 20;
        for (uint8_t t = 0; t < 16; t++) song.trackvol[t] = g8();
        song.mastervol = g8();
    }
    if (overrun || npat == 0 || !have(0)) return 1;
    if (build) {
        song.flags = flags;
        song.tempo = tempo;
        song.tempo2 = tempo2;
        song.block = (struct med_block *)med_alloc(kp_mulu16(sizeof(struct med_block), npat));
        song.pseq = (struct med_pseq *)med_alloc(sizeof(struct med_pseq));
        if (!song.block || !song.pseq) return 1;
        song.blocks = npat;
        song.pseq[0].entries = orders;
        song.pseq[0].length = len ? len : 1;
        song.pseq[0].wide = 0;
        song.pseqs = 1;
        song.sections = 1;
    }
    for (uint16_t b = 0; b < npat; b++) {
        int r = version == 2 ? block_med2(b, build) : version == 3 ? block_med3(b, build) : block_med4(b, build);
        overrun = 0;   /* a short nibble stream leaves the rest of its block empty */
        if (r) {
            if (!build && b == 0) return 1;
            /* blocks cut off by the end of the file stay empty */
            if (build)
                for (uint16_t k = b; k < npat; k++) song.block[k].lines = 1;
            break;
        }
    }
    if (!build) return 0;
    /* Samples the song holds. */
    if (version == 3 && have(4)) {
        uint32_t m = g32();
        for (uint8_t i = 0; i < 32 && !overrun; i++, m <<= 1)
            if (m & 0x80000000u) {
                struct med_instr scratch;
                if (read_embedded(i ? &instr[i - 1] : &scratch)) break;
            }
    } else if (version == 4 && have(8) && rd32(cur) != 0x4D454456u) {   /* not "MEDV" */
        uint32_t hi = g32(), lo = g32();
        for (uint8_t i = 0; i < 63 && !overrun; i++) {
            /* bit 62 (after the unused instrument 0's bit 63) is instrument 1 */
            uint8_t bit = (uint8_t)(62 - i);
            uint32_t set = bit >= 32 ? hi & (1u << (bit - 32)) : lo & (1u << bit);
            if (set && read_embedded(&instr[i])) break;
        }
    }
    return 0;
}

uint32_t med_check_old(const volatile uint8_t *mod, uint32_t size) {
    (void)mod;
    (void)size;
    return parse(0) ? 1 : 0;
}

extern kp_globals med_globals;

uint32_t med_load_old(void) {
    for (uint8_t i = 0; i < MED_MAX_INSTR; i++) names[i][0] = 0;
    song.format = (uint8_t)(FMT_MED2 + rd8(mod_base + 3) - 2);
    song.mastervol = 64;
    for (uint16_t t = 0; t < MED_MAX_TRACKS; t++) song.trackvol[t] = 64;
    med_waves = (struct med_wave *)med_alloc(kp_mulu16(sizeof(struct med_wave) * MED_MAX_WAVES, MED_MAX_INSTR));
    if (!med_waves) return 1;
    if (parse(1)) return 1;
    if (song.mastervol == 0 || song.mastervol > 64) song.mastervol = 64;
    for (uint16_t t = 0; t < MED_MAX_TRACKS; t++)
        if (song.trackvol[t] > 64) song.trackvol[t] = 64;
    for (uint8_t i = 0; i < MED_MAX_INSTR; i++) {
        struct med_instr *in = &instr[i];
        if (in->volume > 64) in->volume = 64;
        in->loop = in->replen > 2;
        if (in->kind == INS_NONE && names[i][0]) load_external(med_globals, i);
        if (in->kind != INS_NONE) in->loop = in->replen > 2;
    }
    med_title[0] = 0;
    return 0;
}
