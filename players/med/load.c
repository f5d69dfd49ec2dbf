/* load.c - reads MMD0/MMD1/MMD2/MMD3 modules into the song model (med.h).
 *
 * An MMD file is a set of structures linked by offsets from the start of
 * the file: the header (52 bytes) points to the song structure (63 sample
 * headers of 8 bytes, then the song's fields), the block table, the
 * instrument table and the expansion structure. A multi-module chains
 * further headers (each a song with its own blocks and sequence) through
 * the expansion structure's first field; all songs share the instruments.
 *
 * Nothing is relocated or written: offsets become addresses here, each
 * checked against the module's size, and what does not fit is cut or
 * left out (a block to the lines that are present, a waveform to its
 * instrument, a missing instrument plays nothing). */
#include "med.h"
#include "kp_math.h"

struct med_song song;
struct med_instr instr[MED_MAX_INSTR];
struct med_wave *med_waves;
uint16_t med_wave_count;
uint32_t mod_base, mod_end;
char med_title[64];

#define MAX_SONGS 64

/* Header offsets of the songs of a multi-module. */
static uint32_t song_header[MAX_SONGS];
static uint16_t songs;

void *med_alloc(uint32_t bytes) {
    register uint32_t d0 __asm__("d0") = bytes;
    register uint32_t d1 __asm__("d1") = 0x10003;   /* MEMF_CLEAR | MEMF_CHIP | MEMF_PUBLIC */
    __asm__ volatile("move.l %%a6,-(%%sp)\n\tmove.l 4.w,%%a6\n\tjsr -198(%%a6)\n\tmove.l (%%sp)+,%%a6"
                     : "+d"(d0), "+d"(d1)
                     :
                     : "a0", "a1", "memory", "cc");
    return (void *)d0;
}

/* ---- Identification ------------------------------------------------------ */

static int is_mmd(uint32_t a) {
    if (!in_mod(a, 52)) return 0;
    uint8_t v = rd8(a + 3);
    return ((rd8(a) == 'M' && rd8(a + 1) == 'M' && rd8(a + 2) == 'D') ||
            (rd8(a) == 'M' && rd8(a + 1) == 'C' && rd8(a + 2) == 'N')) &&
           ((v >= '0' && v <= '3') || v == 'T');
}

/* The song structure of the header at `h` is present and sane. */
static int header_ok(uint32_t h) {
    uint32_t s = mod_base + rd32(h + 8);
    if (rd32(h + 8) < 52 || !in_mod(s, 788)) return 0;
    if (rd16(s + 504) == 0) return 0;                  /* no blocks */
    uint32_t barr = rd32(h + 16);
    if (barr < 52 || !in_mod(mod_base + barr, 4)) return 0;
    return 1;
}

uint32_t med_check(const volatile uint8_t *mod, uint32_t size) {
    mod_base = (uint32_t)mod;
    mod_end = mod_base + size;
    if (size < 4 || size > 0xF0000) return 1;
    if (mod[0] == 'M' && mod[1] == 'E' && mod[2] == 'D' && mod[3] >= 2 && mod[3] <= 4)
        return med_check_old(mod, size);
    if (size < 52 + 788 || mod[0] != 'M' || mod[1] != 'M' || mod[2] != 'D' || mod[3] < '0' || mod[3] > '3')
        return 1;
    return header_ok(mod_base) ? 0 : 1;
}

uint16_t med_song_count(void) {
    if (rd8(mod_base + 1) == 'E') return 1;            /* the old MED formats have one song */
    songs = 0;
    uint32_t h = mod_base;
    uint8_t extra = rd8(h + 51);
    while (songs < MAX_SONGS) {
        song_header[songs++] = h;
        if (songs > extra) break;
        uint32_t exp = rd32(h + 32);
        if (!exp || !in_mod(mod_base + exp, 4)) break;
        uint32_t next = rd32(mod_base + exp);
        /* Each further song lies after the one before it, so the chain ends. */
        if (next <= h - mod_base || !is_mmd(mod_base + next) || !header_ok(mod_base + next)) break;
        h = mod_base + next;
    }
    return songs;
}

const char *med_format_name(void) {
    static const char *const names[] = {
        "MED (MED2)", "MED (MED3)", "MED (MED4)", "MED (MMD0)",
        "OctaMED (MMD1)", "OctaMED (MMD2)", "OctaMED Soundstudio (MMD3)",
    };
    if (song.format == FMT_MMD0 && (song.flags & SF_8CHANNEL)) return "OctaMED (MMD0)";
    return names[song.format];
}

/* ---- Blocks ------------------------------------------------------------- */

/* Lines of `bytes_per_line` bytes from `data` that lie in the module, at most `lines`. */
static uint16_t lines_present(uint32_t data, uint32_t bytes_per_line, uint32_t lines) {
    if (!bytes_per_line || data < mod_base || data > mod_end) return 0;
    uint32_t avail = mod_end - data;
    if (bytes_per_line > 0xFFFF) return 0;
    uint32_t fit = kp_divu32(avail, (uint16_t)bytes_per_line);
    return (uint16_t)(fit < lines ? fit : lines);
}

static void read_block(struct med_block *b, uint32_t at, uint8_t version) {
    uint32_t lines, tracks, data;
    b->data = 0;
    b->tracks = 0;
    b->stride = 0;
    b->lines = 1;
    b->pages = 0;
    b->vol7bit = 0;
    if (version == 0) {
        if (!in_mod(at, 2)) return;
        tracks = rd8(at);
        lines = (uint32_t)rd8(at + 1) + 1;
        data = at + 2;
        b->cell = 3;
    } else {
        if (!in_mod(at, 8)) return;
        tracks = rd16(at);
        lines = (uint32_t)rd16(at + 2) + 1;
        data = at + 8;
        b->cell = 4;
    }
    if (tracks == 0) return;
    uint32_t per_line = kp_mulu16((uint16_t)tracks, b->cell);
    uint16_t n = lines_present(data, per_line, lines);
    if (n == 0) return;
    b->data = data;
    b->lines = n;
    b->stride = (uint16_t)tracks;
    b->tracks = (uint16_t)(tracks > MED_MAX_TRACKS ? MED_MAX_TRACKS : tracks);
    if (version == 0) return;
    /* Block info: extra command pages and the command extension table. */
    uint32_t info = rd32(at + 4);
    if (!info || !in_mod(mod_base + info, 20)) return;
    info += mod_base;
    if (rd32(info + 16)) b->vol7bit = 1;
    uint32_t pt = rd32(info + 12);
    if (!pt || !in_mod(mod_base + pt, 4)) return;
    pt += mod_base;
    uint16_t pages = rd16(pt);
    uint32_t page_bytes = kp_mulu16(b->stride, 2);
    for (uint16_t p = 0; p < pages && b->pages < MED_MAX_PAGES; p++) {
        if (!in_mod(pt + 4 + 4 * (uint32_t)p, 4)) break;
        uint32_t off = rd32(pt + 4 + 4 * (uint32_t)p);
        /* A page shorter than the block cannot be read safely: leave it out. */
        if (!off || lines_present(mod_base + off, page_bytes, b->lines) < b->lines) continue;
        b->page[b->pages++] = mod_base + off;
    }
}

/* ---- Instruments -------------------------------------------------------- */

/* A copy of a sample in the 8-bit mono form Paula plays: the high bytes
 * of 16-bit samples, delta coding undone, a stereo sample's two channels
 * averaged. */
static uint32_t convert_sample(uint32_t data, uint32_t frames, uint16_t type) {
    int8_t *out = (int8_t *)med_alloc(frames + 2);
    if (!out) return 0;
    const volatile uint8_t *l = (const volatile uint8_t *)data;
    uint8_t wide = (type & 0x10) ? 1 : 0;
    const volatile uint8_t *r = (type & 0x20) ? l + (frames << wide) : l;
    /* Each frame is a handful of instructions: a module's samples convert
     * well within one start-up routine's budget. */
    if (!(type & 0x40)) {
        for (uint32_t i = 0; i < frames; i++, l += 1 + wide, r += 1 + wide)
            out[i] = (int8_t)(((int16_t)(int8_t)*l + (int8_t)*r) >> 1);
        return (uint32_t)out;
    }
    /* Delta coded: each value is the difference to the one before. */
    uint16_t acc_l = 0, acc_r = 0;
    for (uint32_t i = 0; i < frames; i++, l += 1 + wide, r += 1 + wide) {
        acc_l = (uint16_t)(acc_l + (wide ? (uint16_t)(l[0] << 8 | l[1]) : (uint16_t)(l[0] << 8)));
        acc_r = (uint16_t)(acc_r + (wide ? (uint16_t)(r[0] << 8 | r[1]) : (uint16_t)(r[0] << 8)));
        out[i] = (int8_t)(((int16_t)acc_l >> 9) + ((int16_t)acc_r >> 9));
    }
    return (uint32_t)out;
}

/* Reads the waveform table of a synthetic or hybrid sound at `at`. */
static void read_waves(struct med_instr *in, uint32_t at, uint32_t end, uint16_t count, int hybrid) {
    in->wave = med_wave_count;
    in->waves = 0;
    if (count > MED_MAX_WAVES) count = MED_MAX_WAVES;
    for (uint16_t w = 0; w < count; w++) {
        struct med_wave *wv = &med_waves[med_wave_count + w];
        wv->data = 0;
        wv->words = 1;
        uint32_t off = rd32(at + 278 + 4 * (uint32_t)w);
        if (hybrid && w == 0) continue;   /* waveform 0 of a hybrid is its sample */
        if (off < 278 || off > end - at || end - at - off < 4) continue;
        uint32_t wf = at + off;
        uint32_t words = rd16(wf);
        uint32_t room = (end - wf - 2) >> 1;
        if (words > room) words = room;
        if (words == 0) continue;
        wv->data = wf + 2;
        wv->words = (uint16_t)words;
    }
    in->waves = (uint8_t)count;
    med_wave_count = (uint16_t)(med_wave_count + count);
}

static void read_instrument(uint8_t i, uint32_t at, uint32_t song_s) {
    struct med_instr *in = &instr[i];
    uint32_t s = song_s + 8 * (uint32_t)i;
    in->rep = (uint32_t)rd16(s) << 1;
    in->replen = (uint32_t)rd16(s + 2) << 1;
    in->volume = rd8(s + 6) > 64 ? 64 : rd8(s + 6);
    in->transpose = (int8_t)rd8(s + 7);
    in->loop = in->replen > 2;
    uint8_t midi = rd8(s + 4);
    in->kind = INS_NONE;
    if (!at || !in_mod(at, 6) || (midi >= 1 && midi <= 16)) return;
    uint32_t length = rd32(at);
    int16_t type = (int16_t)rd16(at + 4);
    uint32_t end = mod_end;
    if (length <= mod_end - at - 6) end = at + 6 + length;
    if (type == -1 || type == -2) {
        if (end - at < 278 || !in_mod(at, 278)) return;
        in->volspeed = rd8(at + 18);
        in->wfspeed = rd8(at + 19);
        uint16_t wforms = rd16(at + 20);
        in->voltbl = at + 22;
        in->wftbl = at + 150;
        if (wforms > MED_MAX_WAVES) wforms = wforms == 0xFFFF ? 0 : MED_MAX_WAVES;
        /* Waveform pointers reach to the end of the file (some savers count
         * the synthetic sound's length without them). */
        uint32_t wend = mod_end;
        if (!in_mod(at + 278, 4 * (uint32_t)wforms)) wforms = (uint16_t)((mod_end - at - 278) >> 2);
        read_waves(in, at, wend, wforms, type == -2);
        in->kind = INS_SYNTH;
        if (type == -1) return;
        /* Hybrid: waveform 0 is a sample with a header of its own. */
        uint32_t off = wforms ? rd32(at + 278) : 0;
        uint32_t smp = at + off;
        if (!off || off > mod_end - at || !in_mod(smp, 6)) {
            in->kind = INS_NONE;
            return;
        }
        length = rd32(smp);
        if (length > mod_end - smp - 6) length = mod_end - smp - 6;
        in->data = smp + 6;
        in->length = length;
        in->octaves = 0;
        in->kind = INS_HYBRID;
        return;
    }
    if (type < 0 || (type & 0x80)) return;   /* packed samples and plug-in instruments */
    uint32_t bytes = end - at - 6;
    in->octaves = (uint8_t)(type & 0x0F);
    if (in->octaves > 7) return;
    in->data = at + 6;
    in->length = bytes;
    if (type & 0x70) {
        uint32_t frames = bytes;
        if (type & 0x10) frames >>= 1;
        if (type & 0x20) {
            /* The length counts one channel; the other follows it. */
            if (length <= (mod_end - at - 6) >> 1) frames = (type & 0x10) ? length >> 1 : length;
            else frames >>= 1;
        }
        in->data = convert_sample(at + 6, frames, (uint16_t)type);
        in->length = in->data ? frames : 0;
        if (!in->data) return;
    }
    in->kind = INS_SAMPLE;
}

/* A ping-pong loop, as the software mixer of mixed MMD2/MMD3 songs played
 * it (forwards, then backwards, and again): the sample up to the loop's
 * end, then the loop reversed, looping over both. */
static void unfold_pingpong(struct med_instr *in) {
    uint32_t rep = in->rep, len = in->replen;
    if (rep >= in->length || len < 2) return;
    if (len > in->length - rep) len = in->length - rep;
    uint32_t end = rep + len;
    int8_t *out = (int8_t *)med_alloc(end + len);
    if (!out) return;   /* it loops forwards */
    const volatile int8_t *src = (const volatile int8_t *)in->data;
    for (uint32_t i = 0; i < end; i++) out[i] = src[i];
    for (uint32_t i = 0; i < len; i++) out[end + i] = src[end - 1 - i];
    in->data = (uint32_t)out;
    in->length = end + len;
    in->rep = rep;
    in->replen = len << 1;
}

/* Instrument extensions (hold, decay, finetune, flags, long loops). */
static void read_instr_ext(uint32_t exp, uint8_t count) {
    if (!exp || !in_mod(mod_base + exp, 12)) return;
    exp += mod_base;
    uint32_t tbl = rd32(exp + 4);
    uint16_t entries = rd16(exp + 8), size = rd16(exp + 10);
    if (!tbl || !size) return;
    tbl += mod_base;
    for (uint16_t i = 0; i < entries && i < count; i++) {
        uint32_t r = tbl + kp_mulu16(i, size);
        if (!in_mod(r, size)) break;
        struct med_instr *in = &instr[i];
        uint8_t pingpong = 0;
        in->hold = rd8(r);
        if (size > 1) in->decay = rd8(r + 1);
        if (size > 3) {
            int8_t ft = (int8_t)rd8(r + 3);
            in->finetune = ft < -8 ? -8 : ft > 7 ? 7 : ft;
        }
        if (size > 5) {
            uint8_t f = rd8(r + 5);
            in->loop = f & 1;
            in->disabled = (f >> 2) & 1;
            pingpong = (f & 9) == 9;   /* a loop, played forwards and back */
        }
        if (size >= 18 && in->kind == INS_SAMPLE) {
            /* 32-bit loop in sample frames (the 8-bit copies have one byte per frame). */
            in->rep = rd32(r + 10);
            in->replen = rd32(r + 14);
        }
        /* Only the mixer played ping-pong loops; Paula's channels loop forwards. */
        if (pingpong && in->kind == INS_SAMPLE && (in->octaves == 0 || in->octaves == 7) &&
            song.format >= FMT_MMD2 && (song.flags2 & SF2_MIX))
            unfold_pingpong(in);
    }
}

static void read_name(uint32_t exp) {
    med_title[0] = 0;
    if (!exp || !in_mod(mod_base + exp, 52)) return;
    uint32_t name = rd32(mod_base + exp + 44), len = rd32(mod_base + exp + 48);
    if (!name) return;
    name += mod_base;
    uint32_t i = 0;
    while (i < len && i < sizeof med_title - 1 && in_mod(name + i, 1) && rd8(name + i)) {
        med_title[i] = (char)rd8(name + i);
        i++;
    }
    med_title[i] = 0;
}

/* ---- The song ----------------------------------------------------------- */

static void read_sequences_mmd2(uint32_t s) {
    uint32_t pst = rd32(s + 508), sect = rd32(s + 512);
    uint16_t nsect = rd16(s + 506), npseq = rd16(s + 522);
    song.pseqs = 0;
    if (pst && in_mod(mod_base + pst, 4)) {
        pst += mod_base;
        if (!in_mod(pst, 4 * (uint32_t)npseq)) npseq = (uint16_t)((mod_end - pst) >> 2);
        song.pseq = (struct med_pseq *)med_alloc(kp_mulu16(sizeof(struct med_pseq), npseq ? npseq : 1));
        if (!song.pseq) npseq = 0;
        for (uint16_t i = 0; i < npseq; i++) {
            struct med_pseq *p = &song.pseq[i];
            uint32_t a = rd32(pst + 4 * (uint32_t)i);
            p->length = 0;
            p->cmds = 0;
            p->wide = 1;
            if (!a || !in_mod(mod_base + a, 42)) continue;
            a += mod_base;
            uint16_t len = rd16(a + 40);
            uint32_t room = (mod_end - a - 42) >> 1;
            p->entries = a + 42;
            p->length = (uint16_t)(len < room ? len : room);
            uint32_t c = rd32(a + 32);
            if (c && in_mod(mod_base + c, 4)) {
                p->cmds = mod_base + c;
                p->cmds_end = mod_end;
            }
        }
        song.pseqs = npseq;
    }
    song.section = 0;
    song.sections = 1;
    if (sect && nsect && in_mod(mod_base + sect, 2)) {
        sect += mod_base;
        uint32_t room = (mod_end - sect) >> 1;
        song.section = sect;
        song.sections = (uint16_t)(nsect < room ? nsect : room);
    }
}

uint32_t med_load_song(uint16_t n) {
    uint8_t *z = (uint8_t *)&song;
    for (uint32_t i = 0; i < sizeof song; i++) z[i] = 0;
    z = (uint8_t *)instr;
    for (uint32_t i = 0; i < sizeof instr; i++) z[i] = 0;
    med_wave_count = 0;
    if (rd8(mod_base + 1) == 'E') return med_load_old();
    if (!songs) med_song_count();
    if (n >= songs) n = 0;
    uint32_t h = song_header[n];
    uint8_t version = (uint8_t)(rd8(mod_base + 3) - '0');
    song.format = (uint8_t)(FMT_MMD0 + version);
    uint32_t s = mod_base + rd32(h + 8);
    song.tempo = rd16(s + 764);
    song.transpose = (int8_t)rd8(s + 766);
    song.flags = rd8(s + 767);
    song.flags2 = rd8(s + 768);
    song.tempo2 = rd8(s + 769);
    song.mastervol = rd8(s + 786);
    if (song.mastervol == 0 || song.mastervol > 64) song.mastervol = 64;
    song.mmd3_notes = version == 3;

    /* Blocks. */
    uint32_t barr = mod_base + rd32(h + 16);
    uint16_t nblocks = rd16(s + 504);
    if (!in_mod(barr, 4 * (uint32_t)nblocks)) nblocks = (uint16_t)((mod_end - barr) >> 2);
    song.block = (struct med_block *)med_alloc(kp_mulu16(sizeof(struct med_block), nblocks ? nblocks : 1));
    if (!song.block || !nblocks) return 1;
    song.blocks = nblocks;
    for (uint16_t b = 0; b < nblocks; b++) {
        uint32_t off = rd32(barr + 4 * (uint32_t)b);
        read_block(&song.block[b], off ? mod_base + off : 0, version);
        if (song.block[b].tracks > song.tracks) song.tracks = (uint8_t)song.block[b].tracks;
    }

    /* Sequence and track volumes. */
    for (uint16_t t = 0; t < MED_MAX_TRACKS; t++) song.trackvol[t] = 64;
    if (version < 2) {
        song.pseq = (struct med_pseq *)med_alloc(sizeof(struct med_pseq));
        if (!song.pseq) return 1;
        uint16_t len = rd16(s + 506);
        song.pseq[0].entries = s + 508;
        song.pseq[0].length = len > 256 ? 256 : len;
        song.pseq[0].wide = 0;
        song.pseqs = 1;
        song.sections = 1;
        for (uint16_t t = 0; t < 16; t++) song.trackvol[t] = rd8(s + 770 + t);
    } else {
        read_sequences_mmd2(s);
        uint32_t tv = rd32(s + 516);
        uint16_t nt = rd16(s + 520);
        if (tv && in_mod(mod_base + tv, nt))
            for (uint16_t t = 0; t < nt && t < MED_MAX_TRACKS; t++) song.trackvol[t] = rd8(mod_base + tv + t);
        /* Mixed songs pan their tracks: by the song's table when it has free
         * panning (always in MMD3), else left, right, right, left. */
        song.stereo = (song.flags2 & SF2_MIX) ? 1 : 0;
        uint32_t tp = rd32(s + 524);
        uint8_t free_pan = (rd32(s + 528) & 2) || version == 3;
        for (uint16_t t = 0; t < MED_MAX_TRACKS; t++) song.trackpan[t] = ((t + 1) & 2) ? 16 : -16;
        if (free_pan && tp && in_mod(mod_base + tp, nt))
            for (uint16_t t = 0; t < nt && t < MED_MAX_TRACKS; t++) {
                int8_t p = (int8_t)rd8(mod_base + tp + t);
                song.trackpan[t] = p < -16 ? -16 : p > 16 ? 16 : p;
            }
    }
    for (uint16_t t = 0; t < MED_MAX_TRACKS; t++)
        if (song.trackvol[t] > 64) song.trackvol[t] = 64;

    /* Instruments: this song's table, else the first song's. */
    uint32_t smparr = rd32(h + 24);
    if (!smparr) smparr = rd32(mod_base + 24);
    uint8_t nsmp = rd8(s + 787);
    if (nsmp > MED_MAX_INSTR) nsmp = MED_MAX_INSTR;
    med_waves = (struct med_wave *)med_alloc(kp_mulu16(sizeof(struct med_wave) * MED_MAX_WAVES, nsmp ? nsmp : 1));
    if (!med_waves) return 1;
    if (smparr && in_mod(mod_base + smparr, 4 * (uint32_t)nsmp)) {
        for (uint8_t i = 0; i < nsmp; i++) {
            uint32_t off = rd32(mod_base + smparr + 4 * (uint32_t)i);
            read_instrument(i, off ? mod_base + off : 0, s);
        }
    }
    uint32_t exp0 = rd32(mod_base + 32), exp = rd32(h + 32);
    read_instr_ext(exp0, nsmp);
    read_name(exp ? exp : exp0);
    return 0;
}
