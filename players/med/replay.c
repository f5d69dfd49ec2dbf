/* replay.c - the replay of kelva's MED/OctaMED player.
 *
 * Timing. A tick is one timer interrupt; every `tempo2` ticks ("timing
 * pulses per line") a line of the current block is read. The tick rate
 * follows the song's tempo mode:
 *   - SPD mode, tempo 1-10: SoundTracker-compatible speeds (tempo 6 is
 *     about 49 Hz, tempo N takes N/6 as long);
 *   - SPD mode, tempo 11-240: 1.515 x tempo ticks per second (33 ~ 50 Hz);
 *   - BPM mode: tempo x (lines per beat) / 4 beats per minute in the
 *     ProTracker sense (a tick is 2.5 s / BPM), computed as the tracker's
 *     timer did, overflow for very slow tempos included;
 *   - OctaMED's 5-8 channel mode: tempo 1-10 picks one of ten mixing
 *     buffer sizes (179 down to 99 BPM);
 *   - software-mixed MMD2/MMD3 songs: tempos below 8 run at 157.86 BPM.
 * The rate is handed to the host as a CIA timer value (DTG_SetTimer);
 * rates slower than the timer reaches are divided down in software.
 *
 * A line is read in three passes over its tracks, as the tracker did:
 * notes and instruments first, then the commands that act before a note
 * starts (portamento targets, hold/decay, volume, tempo, jumps, delays),
 * then the notes are played. Every tick (the first of a line included)
 * then runs hold/decay, the running commands of the line and finally
 * writes each track's period and volume, after the synthetic sounds'
 * sequences have run.
 *
 * Hold and decay. An instrument (or command 08) may hold its note for a
 * number of ticks: the note is held on while the following lines carry
 * only an instrument number (or a note with command 03), each such line
 * adding one line's ticks. When the hold runs out the note decays: a
 * sample fades by `decay` per tick (0 cuts it), a synthetic or hybrid
 * sound continues its volume sequence at position `decay`.
 *
 * Song end. One bit per song position and line records what has been
 * played; a line read a second time (the sequence wrapped, a jump went
 * back) ends the song, which plays on from there. A repeat loop (command
 * 16) clears the bits of the lines it repeats. Command FFE and the STOP
 * command of a play sequence end the song; it then starts again. */
#include "med.h"
#include "kp_math.h"

/* ---- Period tables -------------------------------------------------------- */

/* ProTracker's periods of C-1..B-3 for the 16 finetunes (0..7, then -8..-1). */
static const uint16_t base_periods[16][36] = {
    {856,808,762,720,678,640,604,570,538,508,480,453,428,404,381,360,339,320,302,285,269,254,240,226,214,202,190,180,170,160,151,143,135,127,120,113},
    {850,802,757,715,674,637,601,567,535,505,477,450,425,401,379,357,337,318,300,284,268,253,239,225,213,201,189,179,169,159,150,142,134,126,119,113},
    {844,796,752,709,670,632,597,563,532,502,474,447,422,398,376,355,335,316,298,282,266,251,237,224,211,199,188,177,167,158,149,141,133,125,118,112},
    {838,791,746,704,665,628,592,559,528,498,470,444,419,395,373,352,332,314,296,280,264,249,235,222,209,198,187,176,166,157,148,140,132,125,118,111},
    {832,785,741,699,660,623,588,555,524,495,467,441,416,392,370,350,330,312,294,278,262,247,233,220,208,196,185,175,165,156,147,139,131,124,117,110},
    {826,779,736,694,655,619,584,551,520,491,463,437,413,390,368,347,328,309,292,276,260,245,232,219,206,195,184,174,164,155,146,138,130,123,116,109},
    {820,774,730,689,651,614,580,547,516,487,460,434,410,387,365,345,325,307,290,274,258,244,230,217,205,193,183,172,163,154,145,137,129,122,115,109},
    {814,768,725,684,646,610,575,543,513,484,457,431,407,384,363,342,323,305,288,272,256,242,228,216,204,192,181,171,161,152,144,136,128,121,114,108},
    {907,856,808,762,720,678,640,604,570,538,508,480,453,428,404,381,360,339,320,302,285,269,254,240,226,214,202,190,180,170,160,151,143,135,127,120},
    {900,850,802,757,715,675,636,601,567,535,505,477,450,425,401,379,357,337,318,300,284,268,253,238,225,212,200,189,179,169,159,150,142,134,126,119},
    {894,844,796,752,709,670,632,597,563,532,502,474,447,422,398,376,355,335,316,298,282,266,251,237,223,211,199,188,177,167,158,149,141,133,125,118},
    {887,838,791,746,704,665,628,592,559,528,498,470,444,419,395,373,352,332,314,296,280,264,249,235,222,209,198,187,176,166,157,148,140,132,125,118},
    {881,832,785,741,699,660,623,588,555,524,494,467,441,416,392,370,350,330,312,294,278,262,247,233,220,208,196,185,175,165,156,147,139,131,123,117},
    {875,826,779,736,694,655,619,584,551,520,491,463,437,413,390,368,347,328,309,292,276,260,245,232,219,206,195,184,174,164,155,146,138,130,123,116},
    {868,820,774,730,689,651,614,580,547,516,487,460,434,410,387,365,345,325,307,290,274,258,244,230,217,205,193,183,172,163,154,145,137,129,122,115},
    {862,814,768,725,684,646,610,575,543,513,484,457,431,407,384,363,342,323,305,288,272,256,242,228,216,203,192,181,171,161,152,144,136,128,121,114},
};

/* Per finetune, 96 periods: two extra-low octaves (synthetic sounds and
 * extra-low samples start there), C-1..B-3, and three more octaves. On
 * Paula's own channels the top three repeat B-3's octave (the tracker's
 * samples span three octaves); software-mixed songs get real octaves. */
#define ROW 96
#define SAMPLE_BASE 24
static uint16_t periods[16 * ROW];

static void build_periods(uint8_t extended) {
    for (uint16_t f = 0; f < 16; f++) {
        uint16_t *r = periods + kp_mulu16(f, ROW);
        for (uint16_t i = 0; i < 36; i++) r[SAMPLE_BASE + i] = base_periods[f][i];
        for (uint16_t i = 0; i < 12; i++) {
            r[i] = (uint16_t)(base_periods[f][i] << 2);
            r[12 + i] = (uint16_t)(base_periods[f][i] << 1);
        }
        for (uint16_t oct = 1; oct <= 3; oct++) {
            for (uint16_t semi = 0; semi < 12; semi++) {
                uint16_t p = base_periods[f][24 + semi];
                r[48 + 12 * oct + semi] = extended ? (uint16_t)((p + (1u << (oct - 1))) >> oct) : p;
            }
        }
    }
}

/* IFF multi-octave samples (types 1-6): for the note's octave (0-5) plus
 * 6 x (type - 1), the shift of the octave's length over the shortest, the
 * shortest octave's multiple where it starts, and the period row offset. */
static const uint8_t oct_shift[36] = {4,3,2,1,1,0, 2,2,1,1,0,0, 1,1,0,0,0,0, 3,3,2,2,1,0, 5,4,3,2,1,0, 6,5,4,3,2,1};
static const uint8_t oct_offset[36] = {15,7,3,1,1,0, 3,3,1,1,0,0, 1,1,0,0,0,0, 7,7,3,3,1,0, 31,15,7,3,1,0, 63,31,15,7,3,1};
static const uint8_t oct_start[36] = {12,12,12,12,24,24, 0,12,12,24,24,36, 0,12,12,24,36,36,
                                      0,12,12,24,24,24, 12,12,12,12,12,12, 12,12,12,12,12,12};
/* The shortest octave is the sample's length divided by this. */
static const uint8_t oct_parts[6] = {31, 7, 3, 15, 63, 127};

/* Vibrato wave (a sine period). */
static const int8_t sine[32] = {0,25,49,71,90,106,117,125,127,125,117,106,90,71,49,25,
                                0,-25,-49,-71,-90,-106,-117,-125,-127,-125,-117,-106,-90,-71,-49,-25};

/* ---- State ---------------------------------------------------------------- */

struct track {
    uint8_t prevnote;       /* last note given (1-based), for arpeggio */
    uint8_t currnote;       /* note on the current line, 0 = none */
    uint8_t instr;          /* instrument (0-based) */
    uint8_t prevvol;        /* 0..64 */
    int16_t noteoff;        /* hold counter, -1 = not holding */
    uint8_t inithold, initdecay, decay, fadespd;
    int8_t stransp, finetune;
    uint16_t soffset;       /* sample offset in bytes (command 19) */
    uint8_t cmd_e;          /* command 0E on this line: keep the waveform position */
    uint8_t noplay;         /* a command on this line plays the note itself, or not at all */
    uint16_t prevper;       /* period before vibrato and arpeggio */
    uint16_t porttrg;       /* portamento target, 0 = none */
    uint8_t portspd;
    uint8_t vibshift, vibspd, viboffs, vibsz;
    uint8_t tremoffs, tremspd, tremsz;
    int16_t tempvol;        /* volume for this tick only, -1 = none */
    int16_t vibadj, arpadj;
    uint16_t row;           /* period row of the playing note's finetune */
    uint8_t base;           /* where its note 0 lies in the row */
    /* Synthetic and hybrid sounds. */
    uint8_t synth;          /* 0 none, 1 synthetic, 2 hybrid */
    uint8_t note2;          /* the sound's note index in its period row */
    uint8_t arpg, arps;     /* arpeggio position and restart in the waveform table (0 = off) */
    uint8_t volx, wfx;      /* execution counters */
    uint8_t initvolx, initwfx;
    uint8_t volcmd, wfcmd;  /* sequence positions (entries consumed) */
    uint8_t volwait, wfwait;
    int8_t volchg;          /* CHU/CHD of the volume sequence */
    int16_t wfchg;          /* CHU/CHD of the waveform sequence (period change per step) */
    int16_t perchg;
    uint32_t env, envrestart; /* envelope waveform (EN1/EN2) */
    uint8_t envcount;
    uint8_t synvol;
    uint16_t vibdep, vibspeed, synviboffs;
    uint32_t vibwave;       /* 0 = the sine table */
};

static struct track trk[MED_MAX_TRACKS];
static kp_globals globals;
static uint8_t ready;

static uint16_t trackvol[MED_MAX_TRACKS];   /* master x track volume, 256 = full */
static uint16_t sect, pseq_no, pos;         /* section, its play sequence, position in it */
static uint16_t cur_block, cur_line;
static uint16_t fx_block, fx_line;          /* the line whose commands run */
static uint8_t fx_valid;
static uint8_t counter, tempo2;
static uint16_t blkdelay;
static int8_t nextblock;                    /* 1: next block (F00/1Dxx), -1: position jump (Bxx) */
static uint8_t keep_line;                   /* 1Dxx: the line is given */
static uint16_t nextline;                   /* line + 1 to continue at, 0 = none */
static uint16_t rptline, rptcounter;
static uint8_t ended;
static uint8_t timer_pending;
static uint16_t timer_value;
static uint8_t prescale, prescale_count;    /* ticks are every `prescale` timer interrupts */

/* Song positions: flat index of (section, position) and the first bit of
 * each position's lines in the visited map. */
static uint32_t *sect_base;                 /* per section: flat index of its position 0 */
static uint32_t *pos_bit;                   /* per flat position: first bit */
static uint32_t flat_positions;
static uint8_t *visited;
static uint32_t visited_bits;               /* a power of two */

/* ---- Small helpers ---------------------------------------------------------- */

static uint16_t pseq_of_section(uint16_t s) {
    if (!song.section) return 0;
    return rd16(song.section + ((uint32_t)s << 1));
}

static uint16_t pseq_entry(uint16_t p, uint16_t i) {
    if (p >= song.pseqs || i >= song.pseq[p].length) return 0xFFFF;
    const struct med_pseq *q = &song.pseq[p];
    return q->wide ? rd16(q->entries + ((uint32_t)i << 1)) : rd8(q->entries + i);
}

static const struct med_block *blk(uint16_t b) { return &song.block[b < song.blocks ? b : 0]; }

/* The cell of a track on a line: note (1-based, 0 = none), instrument
 * (1-based, 0 = none), command and data of page 0. */
struct cell {
    uint8_t note, ins, cmd, data;
};

static void read_cell(const struct med_block *b, uint16_t line, uint16_t t, struct cell *c) {
    c->note = c->ins = c->cmd = c->data = 0;
    if (!b->data || t >= b->tracks || line >= b->lines) return;
    uint32_t i = kp_mulu16(line, b->stride) + t;
    uint32_t a = b->data + (i << 2) - (b->cell == 3 ? i : 0);   /* 4 or 3 bytes a cell */
    if (b->cell == 3) {
        uint8_t b0 = rd8(a), b1 = rd8(a + 1);
        c->note = b0 & 0x3F;
        c->ins = (uint8_t)((b1 >> 4) | ((b0 & 0x80) >> 3) | ((b0 & 0x40) >> 1));
        c->cmd = b1 & 0x0F;
        c->data = rd8(a + 2);
    } else {
        uint8_t b0 = rd8(a);
        c->note = (b0 & 0x80) ? 0 : b0;
        c->ins = rd8(a + 1) & 0x3F;
        c->cmd = rd8(a + 2);
        c->data = rd8(a + 3);
    }
}

/* Command and data of page `p` (0 = the note cells). */
static void read_cmd(const struct med_block *b, uint16_t line, uint16_t t, uint8_t p, uint8_t *cmd, uint8_t *data) {
    *cmd = *data = 0;
    if (p == 0) {
        struct cell c;
        read_cell(b, line, t, &c);
        *cmd = c.cmd;
        *data = c.data;
        return;
    }
    if (p > b->pages || t >= b->tracks || line >= b->lines) return;
    uint32_t a = b->page[p - 1] + ((kp_mulu16(line, b->stride) + t) << 1);
    *cmd = rd8(a);
    *data = rd8(a + 1);
}

static uint16_t period_at(const struct track *tr, int16_t note) {
    int16_t i = (int16_t)(tr->base + note);
    if (i < 0) i = 0;
    if (i >= ROW) i = ROW - 1;
    return periods[tr->row + (uint16_t)i];
}

/* Reports the song's end once. */
static void song_end(void) {
    if (!ended) {
        ended = 1;
        kp_support(globals, DTG_SongEnd, 0, 0, 0);
    }
}

/* ---- Timing ------------------------------------------------------------------ */

/* CIA cycles (709379 Hz) per tick for a tempo value of the song's mode. */
static uint32_t tick_cycles(uint16_t t) {
    static const uint8_t bpm8[10] = {179, 164, 152, 141, 131, 123, 116, 110, 104, 99};
    if (song.flags & SF_8CHANNEL) {
        if (t == 0) t = 10;
        if (t > 10) t = 10;
        return kp_divu32(1773447UL, bpm8[t - 1]);
    }
    if (song.flags2 & SF2_BPM) {
        uint32_t prod = kp_mulu16(t ? t : 1, (uint16_t)((song.flags2 & SF2_BMASK) + 1));
        /* The tracker divided with divu.w: a quotient too large for 16 bits
         * left the dividend's low word in the timer. */
        uint32_t latch = prod < 28 ? 1773447UL & 0xFFFF : kp_divu32(1773447UL, (uint16_t)(prod > 0xFFFF ? 0xFFFF : prod));
        if (latch > 0xFFFF) latch = 0x0F87;
        return (latch + 1) << 2;   /* one line's tick every fourth timer interrupt */
    }
    if ((song.flags2 & SF2_MIX) && song.format >= FMT_MMD2 && t < 8) return 11234;   /* 157.86 BPM */
    if (t == 0) t = 33;
    if (t <= 10 && !((song.flags2 & SF2_MIX) && song.format >= FMT_MMD2)) return kp_mulu16(2417, t);
    return kp_divu32(468190UL, t);
}

static void set_tick_cycles(uint32_t cycles) {
    prescale = 1;
    while (cycles > 0x10000) {
        cycles >>= 1;
        prescale = (uint8_t)(prescale << 1);
    }
    if (cycles < 2) cycles = 2;
    timer_value = (uint16_t)(cycles - 1);
    timer_pending = 1;
}

static void set_tempo(uint16_t t) { set_tick_cycles(tick_cycles(t)); }

static void apply_timer(void) {
    *(volatile uint16_t *)(globals + DTG_Timer) = timer_value;
    kp_support(globals, DTG_SetTimer, 0, 0, 0);
}

/* ---- Song positions ------------------------------------------------------------- */

static uint32_t flat_pos(void) {
    uint32_t f = sect_base ? sect_base[sect < song.sections ? sect : 0] + pos : pos;
    return f < flat_positions ? f : flat_positions ? flat_positions - 1 : 0;
}

static uint32_t line_bit(uint16_t line) {
    if (!pos_bit) return 0;
    return (pos_bit[flat_pos()] + line) & (visited_bits - 1);
}

static void mark_line(uint16_t line) {
    if (!visited) return;
    uint32_t b = line_bit(line);
    uint8_t m = (uint8_t)(1u << (b & 7));
    if (visited[b >> 3] & m) song_end();
    visited[b >> 3] |= m;
}

static void unmark_lines(uint16_t from, uint16_t to) {
    if (!visited) return;
    for (uint16_t l = from; l <= to && l >= from; l++) {
        uint32_t b = line_bit(l);
        visited[b >> 3] &= (uint8_t)~(1u << (b & 7));
    }
}

/* Builds the flat position index and the visited map. */
static void build_positions(void) {
    uint16_t ns = song.section ? song.sections : 1;
    sect_base = (uint32_t *)med_alloc((uint32_t)ns << 2);
    if (!sect_base) return;
    uint32_t n = 0;
    for (uint16_t s = 0; s < ns; s++) {
        sect_base[s] = n;
        uint16_t p = pseq_of_section(s);
        if (p < song.pseqs) n += song.pseq[p].length ? song.pseq[p].length : 1;
        else n++;
        if (n > 0x40000) n = 0x40000;   /* a hostile sequence: positions beyond share bits */
    }
    flat_positions = n ? n : 1;
    pos_bit = (uint32_t *)med_alloc(flat_positions << 2);
    if (!pos_bit) return;
    uint32_t bits = 0;
    uint32_t f = 0;
    for (uint16_t s = 0; s < ns && f < flat_positions; s++) {
        uint16_t p = pseq_of_section(s);
        uint16_t len = p < song.pseqs ? song.pseq[p].length : 0;
        for (uint16_t i = 0; i < (len ? len : 1) && f < flat_positions; i++) {
            pos_bit[f++] = bits;
            uint16_t b = pseq_entry(p, i);
            bits += b < song.blocks ? blk(b)->lines : 1;
            if (bits > 0x4000000) bits = 0x4000000;
        }
    }
    /* A power of two of at most 4 Mbit (512 KB); longer songs share bits. */
    visited_bits = 8;
    while (visited_bits < bits && visited_bits < 0x400000) visited_bits <<= 1;
    visited = (uint8_t *)med_alloc(visited_bits >> 3);
}

/* Looks up a play sequence command (MMD2/MMD3) for the entry `i` of
 * sequence `p`: 1 = stop, 2 = jump (target in *arg), 0 = none. */
static uint8_t pseq_command(uint16_t p, uint16_t i, uint16_t *arg) {
    if (p >= song.pseqs || !song.pseq[p].cmds) return 0;
    uint32_t a = song.pseq[p].cmds, end = song.pseq[p].cmds_end;
    for (uint16_t n = 0; n < 1024 && a + 4 <= end; n++) {
        uint16_t off = rd16(a);
        uint8_t cmd = rd8(a + 2), extra = rd8(a + 3);
        if (off == 0xFFFF) break;
        if (off == i && (cmd == 1 || cmd == 2)) {
            if (cmd == 2) {
                if (extra < 2 || a + 6 > end) return 0;
                *arg = rd16(a + 4);
            }
            return cmd;
        }
        a += 4 + (uint32_t)extra;
    }
    return 0;
}

/* Restarts the song at its first position. */
static void song_start(void) {
    sect = 0;
    pseq_no = pseq_of_section(0);
    pos = 0;
    cur_line = 0;
    uint16_t b = pseq_entry(pseq_no, 0);
    cur_block = b < song.blocks ? b : 0;
}

/* Moves to the next position of the sequence (`jump`: a position jump
 * already set `pos`). */
static void advance_position(int jump) {
    for (uint16_t guard = 0; guard < 512; guard++) {
        if (!jump) pos++;
        jump = 0;
        uint16_t len = pseq_no < song.pseqs ? song.pseq[pseq_no].length : 0;
        if (pos >= len) {
            pos = 0;
            if (song.section) {
                sect++;
                if (sect >= song.sections) sect = 0;
                pseq_no = pseq_of_section(sect);
            }
            len = pseq_no < song.pseqs ? song.pseq[pseq_no].length : 0;
            if (!len) {
                if (song.sections <= 1) break;
                jump = 1;
                pos = 0xFFFF;   /* try the next section */
                continue;
            }
        }
        uint16_t arg = 0;
        uint8_t c = pseq_command(pseq_no, pos, &arg);
        if (c == 1) {
            song_end();
            song_start();
            return;
        }
        if (c == 2) {
            pos = arg;
            jump = 1;
            if (pos >= len) pos = (uint16_t)(len - 1);
            pseq_command(pseq_no, pos, &arg);
            /* The jump target plays (a further command there is not followed). */
            break;
        }
        uint16_t b = pseq_entry(pseq_no, pos);
        if (b > 0x7FFF) continue;
        break;
    }
    uint16_t b = pseq_entry(pseq_no, pos);
    cur_block = b < song.blocks ? b : 0;
}

/* ---- Notes ----------------------------------------------------------------------------- */

/* a x b for a 32-bit a and a 16-bit b (two mulu.w). */
static uint32_t mul32(uint32_t a, uint16_t b) {
    return kp_mulu16((uint16_t)a, b) + (kp_mulu16((uint16_t)(a >> 16), b) << 16);
}

static uint16_t ft_row(int8_t ft) { return kp_mulu16((uint16_t)(ft & 15), ROW); }

/* The note index the cell's note plays at: 0-based, with the song's and
 * instrument's transposes (MMD3 notes are two octaves higher). */
static int16_t note_index(const struct track *tr, uint8_t note) {
    int16_t n = (int16_t)(note - 1 + song.transpose + tr->stransp);
    if (song.mmd3_notes) n = (int16_t)(n - 24);
    return n;
}

static void clear_synth(struct track *tr, const struct med_instr *in) {
    tr->arpg = tr->arps = 0;
    tr->volx = tr->wfx = 0;
    tr->volcmd = 0;
    if (!tr->cmd_e) tr->wfcmd = 0;
    tr->volwait = tr->wfwait = 0;
    tr->vibspeed = 0;
    tr->wfchg = 0;
    tr->perchg = 0;
    tr->env = tr->envrestart = 0;
    tr->vibdep = 0;
    tr->vibwave = 0;
    tr->synviboffs = 0;
    tr->initvolx = in->volspeed;
    tr->initwfx = in->wfspeed;
    tr->volchg = 0;
}

/* Starts a note on a track (the tracker's note routine). */
static void play_note(uint8_t t, uint8_t note) {
    struct track *tr = &trk[t];
    const struct med_instr *in = &instr[tr->instr];
    if (in->kind == INS_NONE) return;
    if (in->disabled) {
        out_off(t);
        tr->synth = 0;
        return;
    }
    int16_t n = note_index(tr, note);
    tr->fadespd = 0;
    tr->decay = tr->initdecay;
    tr->viboffs = 0;
    if (in->kind == INS_SYNTH && !in->data) {
        /* Synthetic: keeps running when the sound before was synthetic too. */
        out_synth(t, tr->synth != 1);
        while (n < 0) n = (int16_t)(n + 12);
        while (n >= ROW) n = (int16_t)(n - 12);
        tr->synth = 1;
        tr->note2 = (uint8_t)n;
        tr->row = ft_row(tr->finetune);
        tr->base = 0;
        tr->prevper = periods[tr->row + (uint16_t)n];
        clear_synth(tr, in);
        return;
    }
    /* A sample, an IFF multi-octave sample or a hybrid's sample. */
    uint8_t extended = song.format >= FMT_MMD2 && (song.flags2 & SF2_MIX);
    int16_t top = extended ? 71 : 62;
    while (n < 0) n = (int16_t)(n + 12);
    if (n > top) n = (int16_t)(n - 12);
    while (n > top) n = (int16_t)(n - 12);
    tr->row = ft_row(tr->finetune);
    tr->base = SAMPLE_BASE;
    uint32_t base = in->data, length = in->length, rep = in->rep, replen = in->replen;
    uint16_t per;
    if (in->octaves >= 1 && in->octaves <= 6) {
        uint16_t oct = kp_divu16((uint16_t)n, 12);
        uint16_t semi = (uint16_t)(n - kp_mulu16(oct, 12));
        if (oct > 5) oct = 5;
        uint16_t k = (uint16_t)(oct + kp_mulu16(6, (uint16_t)(in->octaves - 1)));
        uint32_t part = kp_divu32(length, oct_parts[in->octaves - 1]);
        uint8_t sh = oct_shift[k];
        base += mul32(part, oct_offset[k]);
        length = part << sh;
        rep <<= sh;
        replen <<= sh;
        per = periods[tr->row + SAMPLE_BASE + oct_start[k] + semi];
    } else {
        if (in->octaves == 7) tr->base = 0;   /* two extra-low octaves */
        per = periods[tr->row + tr->base + (uint16_t)n];
    }
    tr->prevper = per;
    uint32_t end = base + length, lc = base, loop = 0, looplen = 0, len;
    if (tr->soffset && tr->soffset < length) lc += tr->soffset;
    if (in->loop && replen > 2 && rep < length) {
        loop = base + rep;
        if (replen > end - loop) replen = end - loop;
        if (lc >= loop + replen) lc = loop;
        len = loop + replen - lc;
        looplen = replen;
    } else {
        len = end - lc;
    }
    out_play(t, lc, len, loop, looplen);
    if (in->kind == INS_HYBRID) {
        tr->synth = 2;
        tr->note2 = (uint8_t)n;
        clear_synth(tr, in);
    } else {
        tr->synth = 0;
    }
}

/* Plays the track's current note again (delays and retriggers), holding
 * it as a new note would be held. */
static void play_fx_note(uint8_t t) {
    struct track *tr = &trk[t];
    if (!tr->currnote) return;
    if (tr->noteoff >= 0) tr->noteoff = (int16_t)(tr->noteoff + counter);
    else tr->noteoff = tr->inithold ? tr->inithold : -1;
    play_note(t, tr->currnote);
}

/* ---- Synthetic sounds ----------------------------------------------------------------------- */

/* One tick of the volume and waveform sequences; returns the period. */
static uint16_t synth_tick(uint8_t t, uint16_t per) {
    struct track *tr = &trk[t];
    const struct med_instr *in = &instr[tr->instr];
    const struct med_wave *w = med_waves + in->wave;
    /* Volume sequence. */
    if (tr->volx <= 1) {
        tr->volx = tr->initvolx;
        if (tr->volchg) {
            int16_t v = (int16_t)(tr->synvol + tr->volchg);
            tr->synvol = (uint8_t)(v < 0 ? 0 : v > 64 ? 64 : v);
        }
        if (tr->env) {
            tr->synvol = (uint8_t)(((uint8_t)(rd8(tr->env) + 128)) >> 2);
            tr->env++;
            if (++tr->envcount >= 128) {
                tr->envcount = 0;
                tr->env = tr->envrestart;
            }
        }
        int run = 1;
        if (tr->volwait && --tr->volwait) run = 0;
        for (uint8_t guard = 0; run && guard < 128; guard++) {
            uint8_t c = rd8(in->voltbl + (tr->volcmd & 127));
            uint8_t arg = rd8(in->voltbl + ((tr->volcmd + 1) & 127));
            tr->volcmd++;
            if (c < 0x80) {
                tr->synvol = c > 64 ? 64 : c;
                break;
            }
            switch (c) {
            case 0xF0: tr->initvolx = arg; tr->volcmd++; break;                     /* SPD */
            case 0xF1: tr->volwait = arg; tr->volcmd++; run = 0; break;             /* WAI */
            case 0xF2: tr->volchg = (int8_t)-arg; tr->volcmd++; break;              /* CHD */
            case 0xF3: tr->volchg = (int8_t)arg; tr->volcmd++; break;               /* CHU */
            case 0xF4:                                                              /* EN1 */
            case 0xF5:                                                              /* EN2 */
                tr->env = arg < in->waves ? w[arg].data : 0;
                tr->envrestart = c == 0xF5 ? tr->env : 0;
                tr->envcount = 0;
                tr->volcmd++;
                break;
            case 0xF6: tr->env = 0; break;                                          /* EST */
            case 0xFA: tr->wfcmd = arg; tr->wfwait = 0; tr->volcmd++; break;        /* JWS */
            case 0xFE: tr->volcmd = arg; break;                                     /* JMP */
            case 0xFB:                                                              /* HLT */
            case 0xFF: tr->volcmd--; run = 0; break;                                /* END */
            default: run = 0; break;
            }
        }
    } else {
        tr->volx--;
    }
    tr->tempvol = (int16_t)(kp_mulu16(tr->synvol, tr->prevvol) >> 6);
    /* Waveform sequence. */
    if (tr->wfx <= 1) {
        tr->wfx = tr->initwfx;
        tr->perchg = (int16_t)(tr->perchg + tr->wfchg);
        int run = 1;
        if (tr->wfwait && --tr->wfwait) run = 0;
        for (uint8_t guard = 0; run && guard < 128; guard++) {
            uint8_t c = rd8(in->wftbl + (tr->wfcmd & 127));
            uint8_t arg = rd8(in->wftbl + ((tr->wfcmd + 1) & 127));
            tr->wfcmd++;
            if (c < 0x80) {
                if (c < in->waves && w[c].data) out_wave(t, w[c].data, w[c].words);
                break;
            }
            switch (c) {
            case 0xF0: tr->initwfx = arg; tr->wfcmd++; break;                       /* SPD */
            case 0xF1: tr->wfwait = arg; tr->wfcmd++; run = 0; break;               /* WAI */
            case 0xF2: tr->wfchg = arg; tr->wfcmd++; break;                         /* CHD */
            case 0xF3: tr->wfchg = (int16_t)-arg; tr->wfcmd++; break;               /* CHU */
            case 0xF4: tr->vibdep = arg; tr->wfcmd++; break;                        /* VBD */
            case 0xF5: tr->vibspeed = arg; tr->wfcmd++; break;                      /* VBS */
            case 0xF6: tr->perchg = 0; per = tr->prevper; break;                    /* RES */
            case 0xF7: tr->vibwave = arg < in->waves ? w[arg].data : 0; tr->wfcmd++; break; /* VWF */
            case 0xFA: tr->volcmd = arg; tr->volwait = 0; tr->wfcmd++; break;       /* JVS */
            case 0xFC:                                                              /* ARP */
                tr->arpg = tr->arps = tr->wfcmd;
                for (uint8_t k = 0; k < 128 && rd8(in->wftbl + (tr->wfcmd & 127)) < 0x80; k++) tr->wfcmd++;
                tr->wfcmd++;   /* past the ARE */
                break;
            case 0xFD: break;                                                       /* ARE */
            case 0xFE: tr->wfcmd = arg; break;                                      /* JMP */
            case 0xFB:                                                              /* HLT */
            case 0xFF: tr->wfcmd--; run = 0; break;                                 /* END */
            default: run = 0; break;
            }
        }
    } else {
        tr->wfx--;
    }
    /* Arpeggio of the waveform sequence: one step per tick. */
    if (tr->arpg) {
        uint8_t a = rd8(in->wftbl + (tr->arpg & 127));
        per = period_at(tr, (int16_t)(tr->note2 + a));
        tr->arpg++;
        if (rd8(in->wftbl + (tr->arpg & 127)) >= 0x80) tr->arpg = tr->arps;
    }
    /* Vibrato of the waveform sequence. */
    if (tr->vibdep) {
        uint8_t i = (uint8_t)((tr->synviboffs >> 4) & 31);
        int8_t v = tr->vibwave ? (int8_t)rd8(tr->vibwave + i) : sine[i];
        per = (uint16_t)(per + (kp_muls16(v, (int16_t)tr->vibdep) >> 8));
        tr->synviboffs = (uint16_t)(tr->synviboffs + tr->vibspeed);
    }
    return (uint16_t)(per + tr->perchg);
}

/* ---- Commands before the notes ------------------------------------------------------------ */

static void pre_command(uint8_t t, uint8_t cmd, uint8_t d) {
    struct track *tr = &trk[t];
    switch (cmd) {
    case 0x03: {   /* portamento: the line's note is the target */
        if (tr->currnote) {
            int16_t n = note_index(tr, tr->currnote);
            if (n >= 0) tr->porttrg = period_at(tr, n);
        }
        if (d) tr->portspd = d;
        tr->noplay = 1;
        break;
    }
    case 0x08: tr->initdecay = d >> 4; tr->inithold = d & 15; break;
    case 0x09: tempo2 = (uint8_t)((d & 0x1F) ? (d & 0x1F) : 0x20); break;
    case 0x0B: {   /* position jump */
        uint16_t len = pseq_no < song.pseqs ? song.pseq[pseq_no].length : 0;
        if (d > len) break;
        pos = d;
        nextblock = -1;
        break;
    }
    case 0x0C: {   /* volume */
        uint8_t v = d;
        if (v & 0x80) {   /* the instrument's default volume too */
            v &= 0x7F;
            if (v > 64) break;
            instr[tr->instr].volume = v;
        } else if (blk(cur_block)->vol7bit && (song.flags & SF_VOLHEX)) {
            v = (uint8_t)((v + 1) >> 1);
        } else if (!(song.flags & SF_VOLHEX)) {
            v = (uint8_t)((v >> 4) * 10 + (v & 15));
        }
        if (v <= 64) tr->prevvol = v;
        break;
    }
    case 0x0E: tr->cmd_e = 1; tr->wfcmd = d; break;
    case 0x0F:
        if (d == 0) {
            nextblock = 1;
        } else if (d <= 0xF0) {
            if (d < 3) set_tick_cycles(15834);   /* F01/F02 ran at 112 BPM in the tracker */
            else set_tempo(d);
        } else if (d == 0xF2 || d == 0xF4 || d == 0xF5) {
            tr->noteoff = tr->inithold ? tr->inithold : -1;
            tr->noplay = 1;
        } else if (d == 0xFE) {
            song_end();
            nextblock = 2;   /* the song starts again after this line */
        } else if (d == 0xFD) {   /* the period of the line's note, without playing it */
            if (tr->currnote) {
                int16_t n = note_index(tr, tr->currnote);
                if (n >= 0) tr->prevper = period_at(tr, n);
            }
            tr->noplay = 1;
        } else if (d == 0xFF) {
            out_off(t);
            tr->synth = 0;
            tr->soffset = 0;
        }
        break;
    case 0x15:
        if ((int8_t)d >= -8 && (int8_t)d <= 7) tr->finetune = (int8_t)d;
        break;
    case 0x16:   /* repeat loop */
        if (d == 0) {
            rptline = cur_line;
        } else {
            if (rptcounter == 0) {
                rptcounter = d;
            } else if (--rptcounter == 0) {
                break;
            }
            nextline = (uint16_t)(rptline + 1);
            unmark_lines(rptline, cur_line);
        }
        break;
    case 0x19: tr->soffset = (uint16_t)(d << 8); break;
    case 0x2E:   /* track panning, -16..16 */
        if (d <= 0x10 || d >= 0xF0) out_pan(t, (int8_t)d);
        break;
    case 0x1D: nextblock = 1; keep_line = 1; nextline = (uint16_t)(d + 1); break;
    case 0x1E:
        if (blkdelay == 0) blkdelay = (uint16_t)(d + 1);
        break;
    case 0x1F:
        tr->noteoff = tr->inithold ? tr->inithold : -1;
        tr->noplay = 1;
        break;
    default: break;
    }
}

/* ---- Commands on every tick ---------------------------------------------------------------- */

static void vol_slide(struct track *tr, uint8_t d) {
    int16_t v = tr->prevvol;
    if (d & 0xF0) v = (int16_t)(v + (d >> 4));
    else v = (int16_t)(v - d);
    tr->prevvol = (uint8_t)(v < 0 ? 0 : v > 64 ? 64 : v);
}

static void portamento(struct track *tr) {
    uint16_t target = tr->porttrg;
    if (!target) return;
    uint16_t p = tr->prevper;
    if (p > target) {
        p = (uint16_t)(p - tr->portspd);
        if ((int16_t)p <= (int16_t)target) {
            p = target;
            tr->porttrg = 0;
        }
    } else {
        p = (uint16_t)(p + tr->portspd);
        if (p >= target) {
            p = target;
            tr->porttrg = 0;
        }
    }
    tr->prevper = p;
}

static void vibrato(struct track *tr) {
    int16_t v = kp_muls16(sine[(tr->viboffs >> 2) & 31], tr->vibsz) >> tr->vibshift;
    tr->vibadj = v;
    tr->viboffs = (uint8_t)(tr->viboffs + tr->vibspd);
}

static void set_vibrato(struct track *tr, uint8_t d, uint8_t shift) {
    tr->vibshift = shift;
    if (counter == 0 && d) {
        if (d & 15) tr->vibsz = d & 15;
        if (d & 0xF0) tr->vibspd = (uint8_t)((d >> 3) & 0x3E);
    }
    vibrato(tr);
}

static void tick_command(uint8_t t, uint8_t cmd, uint8_t d) {
    struct track *tr = &trk[t];
    uint8_t first = counter == 0 && (song.flags & SF_STSLIDE);
    switch (cmd) {
    case 0x00:   /* arpeggio */
        if (d) {
            uint8_t ph = counter;
            while (ph >= 3) ph = (uint8_t)(ph - 3);
            uint8_t add = ph == 0 ? (uint8_t)(d >> 4) : ph == 1 ? (uint8_t)(d & 15) : 0;
            int16_t n = note_index(tr, tr->prevnote);
            tr->arpadj = (int16_t)(period_at(tr, n) - period_at(tr, (int16_t)(n + add)));
        }
        break;
    case 0x01:
        if (!first) {
            int16_t p = (int16_t)(tr->prevper - d);
            tr->prevper = (uint16_t)(p < 113 ? 113 : p);
        }
        break;
    case 0x11:
        if (counter == 0) tr->prevper = (uint16_t)(tr->prevper - d);
        break;
    case 0x02:
        if (!first) tr->prevper = (uint16_t)(tr->prevper + d);
        break;
    case 0x12:
        if (counter == 0) tr->prevper = (uint16_t)(tr->prevper + d);
        break;
    case 0x03:
        if (!first) portamento(tr);
        break;
    case 0x04: set_vibrato(tr, d, 5); break;
    case 0x14: set_vibrato(tr, d, 6); break;
    case 0x05:
        if (!first) {
            vol_slide(tr, d);
            portamento(tr);
        }
        break;
    case 0x06:
        if (!first) {
            vol_slide(tr, d);
            vibrato(tr);
        }
        break;
    case 0x07: {   /* tremolo */
        if (counter == 0 && d) {
            if (d & 15) tr->tremsz = d & 15;
            if (d & 0xF0) tr->tremspd = (uint8_t)((d >> 2) & 0x3E);
        }
        int16_t v = (int16_t)(tr->prevvol + (kp_muls16(sine[(tr->tremoffs >> 3) & 31], tr->tremsz) >> 7));
        tr->tremoffs = (uint8_t)(tr->tremoffs + tr->tremspd);
        tr->tempvol = v < 0 ? 0 : v > 64 ? 64 : v;
        break;
    }
    case 0x0A:
    case 0x0D:
        if (!first) vol_slide(tr, d);
        break;
    case 0x1A:
        if (counter == 0) {
            uint16_t v = (uint16_t)(tr->prevvol + d);
            tr->prevvol = (uint8_t)(v > 64 ? 64 : v);
        }
        break;
    case 0x1B:
        if (counter == 0) tr->prevvol = (uint8_t)(d > tr->prevvol ? 0 : tr->prevvol - d);
        break;
    case 0x13:
        if (counter < 3) tr->vibadj = (int16_t)-d;
        break;
    case 0x21:   /* slide up at a constant rate: d/2048 of the period a tick */
        if (tr->prevper > 28) tr->prevper = (uint16_t)(tr->prevper - (kp_mulu16(tr->prevper, d) >> 11));
        break;
    case 0x22:   /* slide down at a constant rate */
        if (tr->prevper < 0x7000) tr->prevper = (uint16_t)(tr->prevper + (kp_mulu16(tr->prevper, d) >> 11));
        break;
    case 0x18:
        if (counter == d) tr->prevvol = 0;
        break;
    case 0x1F: {   /* note delay (high nibble) and retrigger (low nibble) */
        uint8_t delay = d >> 4, rate = d & 15;
        if (delay) {
            if (counter < delay) break;
            if (counter == delay) {
                play_fx_note(t);
                break;
            }
        }
        if (rate) {
            uint8_t c = counter;
            while (c >= rate) c = (uint8_t)(c - rate);
            if (c == 0) play_fx_note(t);
        }
        break;
    }
    case 0x0F:
        switch (d) {
        case 0xF1:   /* play twice */
        case 0xF2:   /* delay by half a line */
            if (counter == 3) play_fx_note(t);
            break;
        case 0xF3:   /* play three times */
            if (counter && !(counter & 1) && counter <= 4) play_fx_note(t);
            break;
        case 0xF4: {   /* delay by a third */
            uint8_t third = (uint8_t)kp_divu16(tempo2, 3);
            if (counter == third) play_fx_note(t);
            break;
        }
        case 0xF5: {   /* delay by two thirds */
            uint8_t third = (uint8_t)kp_divu16(tempo2, 3);
            if (counter == (uint8_t)(third << 1)) play_fx_note(t);
            break;
        }
        case 0xF8: *(volatile uint8_t *)CIAA |= 2; break;                 /* filter off */
        case 0xF9: *(volatile uint8_t *)CIAA &= (uint8_t)~2; break;       /* filter on */
        default: break;
        }
        break;
    default: break;
    }
}

/* ---- Hold and decay --------------------------------------------------------------------------- */

static void hold_and_fade(uint8_t t) {
    struct track *tr = &trk[t];
    if (tr->noteoff >= 0 && --tr->noteoff < 0) {
        if (tr->synth) {
            tr->volcmd = tr->decay;
            tr->volwait = 0;
        } else {
            tr->fadespd = tr->decay;
            if (!tr->fadespd) out_off(t);
        }
    }
    if (tr->fadespd) {
        int16_t v = (int16_t)(tr->prevvol - tr->fadespd);
        if (v < 0) {
            v = 0;
            tr->fadespd = 0;
        }
        tr->prevvol = (uint8_t)v;
    }
}

/* After moving to a new line: notes held on through it. */
static void check_holds(void) {
    const struct med_block *b = blk(cur_block);
    for (uint8_t t = 0; t < b->tracks; t++) {
        struct track *tr = &trk[t];
        if (tr->noteoff < 0) continue;
        struct cell c;
        read_cell(b, cur_line, t, &c);
        if (((!c.note && c.ins) || (c.note && c.cmd == 3)) && tr->noteoff < 30000)
            tr->noteoff = (int16_t)(tr->noteoff + tempo2);
    }
}

/* ---- The line ----------------------------------------------------------------------------------- */

static void advance_line(void) {
    fx_block = cur_block;
    fx_line = cur_line;
    fx_valid = 1;
    if (nextblock == 2) {   /* FFE: the song starts again */
        nextblock = 0;
        nextline = 0;
        keep_line = 0;
        song_start();
        check_holds();
        return;
    }
    uint16_t line;
    if (nextline) {
        line = (uint16_t)(nextline - 1);
        nextline = 0;
    } else {
        line = (uint16_t)(cur_line + 1);
    }
    if (line >= blk(cur_block)->lines || nextblock) {
        if (!keep_line) line = 0;
        advance_position(nextblock < 0);
        nextblock = 0;
        keep_line = 0;
    }
    if (line >= blk(cur_block)->lines) line = (uint16_t)(blk(cur_block)->lines - 1);
    cur_line = line;
    check_holds();
}

static void read_line(void) {
    const struct med_block *b = blk(cur_block);
    mark_line(cur_line);
    uint8_t ntr = (uint8_t)b->tracks;
    for (uint8_t t = 0; t < ntr; t++) {
        struct track *tr = &trk[t];
        struct cell c;
        read_cell(b, cur_line, t, &c);
        tr->currnote = c.note;
        if (c.note) tr->prevnote = c.note;
        tr->noplay = 0;
        if (c.ins && c.ins <= MED_MAX_INSTR) {
            const struct med_instr *in = &instr[c.ins - 1];
            tr->instr = (uint8_t)(c.ins - 1);
            tr->prevvol = in->volume;
            tr->stransp = in->transpose;
            tr->inithold = in->hold;
            tr->initdecay = in->decay;
            tr->finetune = in->finetune;
            tr->soffset = 0;
            tr->cmd_e = 0;
        }
    }
    /* Commands acting before the notes, page by page. */
    for (uint8_t p = 0; p <= b->pages; p++) {
        for (uint8_t t = 0; t < ntr; t++) {
            uint8_t cmd, d;
            read_cmd(b, cur_line, t, p, &cmd, &d);
            if (!cmd && !d) continue;
            if (b->cell == 3) cmd &= 0x0F;
            pre_command(t, cmd, d);
        }
    }
    for (uint8_t t = 0; t < ntr; t++) {
        struct track *tr = &trk[t];
        if (tr->noplay || !tr->currnote) continue;
        tr->noteoff = tr->inithold ? tr->inithold : -1;
        play_note(t, tr->currnote);
    }
    advance_line();
}

static void do_effects(void) {
    uint8_t ntr = song.tracks;
    for (uint8_t t = 0; t < ntr; t++) hold_and_fade(t);
    if (fx_valid) {
        const struct med_block *b = blk(fx_block);
        uint16_t line = fx_line < b->lines ? fx_line : (uint16_t)(b->lines - 1);
        for (uint8_t p = 0; p <= b->pages; p++) {
            for (uint8_t t = 0; t < b->tracks; t++) {
                uint8_t cmd, d;
                read_cmd(b, line, t, p, &cmd, &d);
                if (!cmd && !d) continue;
                if (b->cell == 3) cmd &= 0x0F;
                tick_command(t, cmd, d);
            }
        }
    }
    for (uint8_t t = 0; t < ntr; t++) {
        struct track *tr = &trk[t];
        uint16_t per = tr->prevper;
        if (tr->synth) per = synth_tick(t, per);
        per = (uint16_t)(per + tr->vibadj - tr->arpadj);
        tr->vibadj = tr->arpadj = 0;
        uint16_t vol = tr->tempvol >= 0 ? (uint16_t)tr->tempvol : tr->prevvol;
        tr->tempvol = -1;
        vol = (uint16_t)(kp_mulu16(vol, trackvol[t]) >> 8);
        out_per_vol(t, per, (uint8_t)(vol > 64 ? 64 : vol));
    }
}

void med_tick(void) {
    if (!ready) return;
    if (timer_pending) {
        timer_pending = 0;
        prescale_count = 0;
        apply_timer();
    }
    if (prescale > 1) {
        if (++prescale_count < prescale) return;
        prescale_count = 0;
    }
    if (++counter >= tempo2) {
        counter = 0;
        if (blkdelay && --blkdelay) {
            /* the line is repeated: its commands run again, no notes */
        } else {
            read_line();
        }
    }
    do_effects();
    out_commit();
}

void med_replay_init(kp_globals g) {
    globals = g;
    ready = 0;
    uint8_t *z = (uint8_t *)trk;
    for (uint32_t i = 0; i < sizeof trk; i++) z[i] = 0;
    for (uint8_t t = 0; t < MED_MAX_TRACKS; t++) {
        trk[t].noteoff = -1;
        trk[t].tempvol = -1;
        trk[t].base = SAMPLE_BASE;
        trackvol[t] = (uint16_t)(kp_mulu16(song.mastervol, song.trackvol[t]) >> 4);
    }
    build_periods(song.format >= FMT_MMD2 && (song.flags2 & SF2_MIX));
    build_positions();
    tempo2 = song.tempo2 ? (song.tempo2 > 32 ? 32 : song.tempo2) : 1;
    counter = tempo2;   /* the first tick reads line 0 */
    blkdelay = 0;
    nextblock = 0;
    keep_line = 0;
    nextline = 0;
    rptline = rptcounter = 0;
    fx_valid = 0;
    ended = 0;
    song_start();
    set_tempo(song.tempo);
    /* The audio filter as the song saved it. */
    volatile uint8_t *pra = (volatile uint8_t *)CIAA;
    if (song.flags & SF_FILTERON) *pra &= (uint8_t)~2;
    else *pra |= 2;
    out_init(song.tracks, song.tracks > 4 || song.stereo, song.stereo);
    ready = 1;
}

void med_stop(void) {
    ready = 0;
    out_shutdown();
}
