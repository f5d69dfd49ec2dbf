/* load.c - the layout of AHX and HVL files.
 *
 * AHX ("THX", versions 0 and 1), all values big-endian:
 *   0   "THX", version
 *   4   word: offset of the names (song title, then one per instrument)
 *   6   bit 7: track 0 is empty and not stored; bits 5-6: ticks per 1/50 s
 *       minus 1; bits 0-3 and byte 7: number of positions
 *   8   word: restart position
 *   10  steps per track; 11: highest track number; 12: instruments;
 *   13  subsongs
 *   14  subsong start positions (words), then the positions: per channel
 *       a track number and a signed transpose; then the tracks, 3 bytes a
 *       step: note (6 bits), instrument (6 bits), command (4 bits), param;
 *       then the instruments: 22 bytes and 4 bytes per playlist entry.
 * HVL ("HVL", versions 0 and 1) differs in:
 *   8   bits 2-7: channels minus 4; bits 0-1 and byte 9: restart position
 *   14  mixing gain; 15: stereo layout (0..4)
 *   16  subsongs, positions (one pair per channel), tracks whose steps are
 *       one byte 0x3F when empty or 5 bytes: note, instrument, two
 *       commands (4 bits each), two parameters; instruments with 5 bytes
 *       per playlist entry.
 * Every part is checked against the file's size before it is read; tracks
 * are unpacked into one layout for both formats. */
#include "ahx.h"

#include "kp_math.h"

struct ahx_song ahx_song;

static uint16_t be16(const uint8_t *p) { return (uint16_t)(p[0] << 8 | p[1]); }

/* exec AllocMem(size, MEMF_CHIP | MEMF_CLEAR). A6 is saved by hand: the
 * compiler may use it as its frame pointer. */
static void *alloc_chip(uint32_t size) {
    register uint32_t d0 __asm__("d0") = size;
    register uint32_t d1 __asm__("d1") = 0x10002;   /* MEMF_CHIP | MEMF_CLEAR */
    __asm__ volatile("move.l %%a6,-(%%sp)\n\tmove.l 4.w,%%a6\n\tjsr -198(%%a6)\n\tmove.l (%%sp)+,%%a6"
                     : "+d"(d0), "+d"(d1)
                     :
                     : "a0", "a1", "memory", "cc");
    return (void *)d0;
}

void *ahx_alloc(uint32_t size) { return alloc_chip(size); }

int32_t ahx_sdiv(int32_t a, uint16_t b) {
    if (b == 0) b = 1;
    uint32_t m = a < 0 ? (uint32_t)-a : (uint32_t)a;
    uint32_t q;
    uint32_t hi = m >> 16;
    __asm__("divu.w %1,%0" : "+d"(hi) : "dmi"(b));
    uint32_t lo = (hi & 0xFFFF0000u) | (m & 0xFFFF);
    __asm__("divu.w %1,%0" : "+d"(lo) : "dmi"(b));
    q = ((hi & 0xFFFF) << 16) | (lo & 0xFFFF);
    return a < 0 ? -(int32_t)q : (int32_t)q;
}

/* Walks the file. With `load` clear it only checks that every part lies
 * inside the file; with it set it also fills ahx_song (whose tracks must
 * have been allocated). Returns 0 when the file is good. */
static uint32_t walk(const uint8_t *m, uint32_t size, uint8_t load) {
    struct ahx_song *s = &ahx_song;
    if (size < 16) return 1;
    uint8_t hvl;
    if (m[0] == 'T' && m[1] == 'H' && m[2] == 'X') hvl = 0;
    else if (m[0] == 'H' && m[1] == 'V' && m[2] == 'L') hvl = 1;
    else return 1;
    if (m[3] > 1) return 1;
    uint16_t positions = (uint16_t)(((m[6] & 15) << 8) | m[7]);
    uint8_t channels = hvl ? (uint8_t)((m[8] >> 2) + 4) : 4;
    uint16_t restart = hvl ? (uint16_t)(((m[8] & 3) << 8) | m[9]) : be16(m + 8);
    uint8_t track_length = m[10], highest_track = m[11], instruments = m[12], subsongs = m[13];
    if (positions == 0 || positions > 1000 || track_length == 0 || track_length > 64 || instruments > 64 ||
        channels > AHX_MAX_VOICES)
        return 1;
    uint32_t p = hvl ? 16 : 14;
    const uint8_t *subsong_list = m + p;
    p += (uint32_t)subsongs << 1;
    const uint8_t *position_list = m + p;
    p += kp_mulu16(positions, (uint16_t)(channels << 1));
    if (p > size) return 1;
    uint16_t first = (m[6] & 0x80) ? 1 : 0;
    for (uint16_t t = first; t <= highest_track; t++) {
        uint8_t *out = load ? s->tracks + kp_mulu16(t, AHX_TRACK_BYTES) : 0;
        for (uint8_t r = 0; r < track_length; r++) {
            if (!hvl) {
                if (p + 3 > size) return 1;
                const uint8_t *b = m + p;
                if (out) {
                    out[0] = (uint8_t)((b[0] >> 2) & 0x3F);
                    out[1] = (uint8_t)(((b[0] & 3) << 4) | (b[1] >> 4));
                    out[2] = (uint8_t)((b[1] & 15) << 4);
                    out[3] = b[2];
                    out[4] = 0;
                    out += 5;
                }
                p += 3;
            } else {
                if (p + 1 > size) return 1;
                if (m[p] == 0x3F) {
                    if (out) out += 5;   /* the tracks were allocated cleared */
                    p += 1;
                    continue;
                }
                if (p + 5 > size) return 1;
                if (out) {
                    for (int i = 0; i < 5; i++) out[i] = m[p + i];
                    out += 5;
                }
                p += 5;
            }
        }
    }
    uint8_t entry = hvl ? 5 : 4;
    for (uint8_t i = 1; i <= instruments; i++) {
        if (p + 22 > size) return 1;
        const uint8_t *b = m + p;
        uint32_t plist_bytes = kp_mulu16(b[21], entry);
        if (p + 22 + plist_bytes > size) return 1;
        if (load) {
            struct ahx_instrument *ins = &s->ins[i];
            ins->volume = b[0];
            ins->filter_speed = (uint8_t)(((b[1] >> 3) & 0x1F) | ((b[12] >> 2) & 0x20));
            ins->wave_length = (uint8_t)(b[1] & 7);
            if (ins->wave_length > 5) ins->wave_length = 5;
            ins->a_frames = b[2];
            ins->a_volume = b[3];
            ins->d_frames = b[4];
            ins->d_volume = b[5];
            ins->s_frames = b[6];
            ins->r_frames = b[7];
            ins->r_volume = b[8];
            ins->filter_lower = (uint8_t)(b[12] & 0x7F);
            ins->vibrato_delay = b[13];
            ins->hard_cut_frames = (uint8_t)((b[14] >> 4) & 7);
            ins->hard_cut_release = (uint8_t)(b[14] >> 7);
            ins->vibrato_depth = (uint8_t)(b[14] & 15);
            ins->vibrato_speed = b[15];
            ins->square_lower = b[16];
            ins->square_upper = b[17];
            ins->square_speed = b[18];
            ins->filter_upper = (uint8_t)(b[19] & 0x3F);
            ins->plist_speed = b[20];
            ins->plist_length = b[21];
            ins->plist = b + 22;
        }
        p += 22 + plist_bytes;
    }
    if (!load) return 0;
    s->mod = m;
    s->size = size;
    s->hvl = hvl;
    s->version = m[3];
    s->channels = channels;
    s->track_length = track_length;
    s->speed_multiplier = (uint8_t)(((m[6] >> 5) & 3) + 1);
    s->instruments = instruments;
    s->subsongs = subsongs;
    s->stereo = hvl ? (m[15] > 4 ? 4 : m[15]) : 4;
    s->positions = positions;
    s->restart = restart < positions ? restart : (uint16_t)(positions - 1);
    s->subsong_list = subsong_list;
    s->position_list = position_list;
    /* The title: the first name, cut at the file's end. */
    uint16_t names = be16(m + 4);
    uint16_t n = 0;
    while (n < sizeof s->title - 1 && (uint32_t)names + n < size && m[names + n]) {
        s->title[n] = (char)m[names + n];
        n++;
    }
    s->title[n] = 0;
    return 0;
}

uint32_t ahx_check(const uint8_t *mod, uint32_t size) {
    if (size > 0xF0000) return 1;
    return walk(mod, size, 0);
}

uint32_t ahx_load(const uint8_t *mod, uint32_t size) {
    uint8_t *p = (uint8_t *)&ahx_song;
    for (uint32_t i = 0; i < sizeof ahx_song; i++) p[i] = 0;
    if (ahx_check(mod, size)) return 1;
    ahx_song.tracks = alloc_chip(256 * AHX_TRACK_BYTES);
    if (!ahx_song.tracks) return 1;
    return walk(mod, size, 1);
}

/* AHX packs a playlist entry into 4 bytes:
 *   byte 0: bits 5-7 command 2, bits 2-4 command 1 (6 stands for 12 and 7
 *           for 15), bits 0-1 waveform bits 1-2
 *   byte 1: bit 7 waveform bit 0, bit 6 fixed note, bits 0-5 note
 *   bytes 2, 3: the parameters.
 * Version 0 had no filter: its toggle-modulation command (4) ignores the
 * high nibble. HVL uses 5 bytes: command 1 (low nibble of byte 0), command
 * 2 (bits 3-6 of byte 1), waveform (bits 0-2 of byte 1), fixed and note in
 * byte 2, the parameters in bytes 3 and 4. */
void ahx_plist_entry(const struct ahx_instrument *ins, uint16_t index, struct ahx_plist_entry *e) {
    if (!ahx_song.hvl) {
        const uint8_t *b = ins->plist + (index << 2);
        static const uint8_t fx_map[8] = {0, 1, 2, 3, 4, 5, 12, 15};
        e->fx[0] = fx_map[(b[0] >> 2) & 7];
        e->fx[1] = fx_map[(b[0] >> 5) & 7];
        e->waveform = (uint8_t)(((b[0] << 1) & 6) | (b[1] >> 7));
        e->fixed = (uint8_t)((b[1] >> 6) & 1);
        e->note = (uint8_t)(b[1] & 0x3F);
        e->param[0] = b[2];
        e->param[1] = b[3];
        if (ahx_song.version == 0) {
            if (e->fx[0] == 4) e->param[0] &= 0x0F;
            if (e->fx[1] == 4) e->param[1] &= 0x0F;
        }
    } else {
        const uint8_t *b = ins->plist + (index << 2) + index;
        e->fx[0] = (uint8_t)(b[0] & 15);
        e->fx[1] = (uint8_t)((b[1] >> 3) & 15);
        e->waveform = (uint8_t)(b[1] & 7);
        e->fixed = (uint8_t)((b[2] >> 6) & 1);
        e->note = (uint8_t)(b[2] & 0x3F);
        e->param[0] = b[3];
        e->param[1] = b[4];
    }
    if (e->waveform > 4) e->waveform = 0;
}
