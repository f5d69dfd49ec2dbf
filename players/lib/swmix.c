/* swmix.c - software mixing into Paula channels (see swmix.h). */
#include "swmix.h"

#include "kp_math.h"

uint16_t swmix_period;

/* Two buffers for each Paula channel. They lie in the player's own hunk,
 * which the engine's Paula reads like any chip memory. */
static int8_t buffers[4][2][SWMIX_MAX_BLOCK] __attribute__((aligned(2)));

/* The sum of one block, before it is scaled down to 8 bits. */
static int32_t mix_sum[SWMIX_MAX_BLOCK];

/* ---- Voices ------------------------------------------------------------ */

void swmix_voice_play(swmix_voice *v, const int8_t *sample, uint32_t length, uint32_t loop_start,
                      uint32_t loop_len, uint32_t offset) {
    v->frac = 0;
    v->next = 0;
    if (!sample || length == 0 || offset >= length) {
        v->data = 0;
        return;
    }
    if (loop_start >= length) loop_len = 0;
    if (loop_len > length - loop_start) loop_len = length - loop_start;
    v->data = sample;
    v->pos = offset;
    if (loop_len >= 2) {
        v->end = loop_start + loop_len;
        v->loop_len = loop_len;
        /* An offset into or past the loop's end starts inside the loop. */
        while (v->pos >= v->end) v->pos -= loop_len;
    } else {
        v->end = length;
        v->loop_len = 0;
    }
}

void swmix_voice_stop(swmix_voice *v) {
    v->data = 0;
    v->next = 0;
}

/* The voice's position has reached the end of its block: back into the
 * loop, on to the queued block, or the end of a one-shot (data = 0).
 * Returns the new position; the caller reloads data and end. */
static uint32_t voice_wrap(swmix_voice *v, uint32_t pos) {
    if (v->loop_len == 0) {
        if (!v->next || v->next_len < 2) {
            v->data = 0;
            v->next = 0;
            return 0;
        }
        pos -= v->end;
        v->data = v->next;
        v->end = v->loop_len = v->next_len;
        v->next = 0;
    }
    while (pos >= v->end) pos -= v->loop_len;
    return pos;
}

void swmix_voice_step(swmix_voice *v, uint32_t step) {
    v->step_int = (uint16_t)(step >> 16);
    v->step_frac = (uint16_t)step;
}

void swmix_voice_period(swmix_voice *v, uint16_t period) {
    /* Paula plays 3546895 / period samples a second and the mix runs at
     * 3546895 / swmix_period, so a voice advances swmix_period / period
     * bytes per mixed sample: (swmix_period << 16) / period in 16.16. */
    if (period == 0 || swmix_period == 0) {
        swmix_voice_step(v, 0);
        return;
    }
    swmix_voice_step(v, kp_divu32((uint32_t)swmix_period << 16, period));
}

void swmix_ring_period(swmix_voice *v, uint16_t period) {
    uint32_t step = 0;
    if (period && swmix_period) step = kp_divu32((uint32_t)swmix_period << 16, period);
    v->ring_step_int = (uint16_t)(step >> 16);
    v->ring_step_frac = (uint16_t)step;
}

/* add_voice for a ring-modulated voice: (sample x ring sample / 128) x
 * volume. */
static void add_ring_voice(int32_t *sum, uint16_t n, swmix_voice *v) {
    const int8_t *d = v->data, *r = v->ring;
    uint32_t pos = v->pos, end = v->end;
    uint32_t rpos = v->ring_pos, rlen = v->ring_len;
    uint16_t frac = v->frac, step_int = v->step_int, step_frac = v->step_frac;
    uint16_t rfrac = v->ring_frac, rstep_int = v->ring_step_int, rstep_frac = v->ring_step_frac;
    int16_t vol = (int16_t)(v->volume > 64 ? 64 : v->volume);
    if (rlen == 0) return;
    for (uint16_t i = 0; i < n; i++) {
        int16_t s = (int16_t)(kp_muls16(d[pos], r[rpos]) >> 7);
        if (s > 127) s = 127;   /* -128 x -128 */
        sum[i] += kp_muls16(s, vol);
        uint32_t f = (uint32_t)frac + step_frac;
        frac = (uint16_t)f;
        pos += step_int + (f >> 16);
        if (pos >= end) {
            pos = voice_wrap(v, pos);
            if (!v->data) return;
            d = v->data;
            end = v->end;
        }
        f = (uint32_t)rfrac + rstep_frac;
        rfrac = (uint16_t)f;
        rpos += rstep_int + (f >> 16);
        while (rpos >= rlen) rpos -= rlen;
    }
    v->pos = pos;
    v->frac = frac;
    v->ring_pos = rpos;
    v->ring_frac = rfrac;
}

/* Adds one voice's next n samples x volume to the sum and advances it. */
static void add_voice(int32_t *sum, uint16_t n, swmix_voice *v) {
    const int8_t *d = v->data;
    if (!d) return;
    if (v->ring) {
        add_ring_voice(sum, n, v);
        return;
    }
    if (n == 0) return;
    uint32_t pos = v->pos;
    if (v->volume == 0) {
        /* Silent: only the position moves on, by n steps at once. */
        uint32_t f = (uint32_t)v->frac + kp_mulu16(n, v->step_frac);
        pos += kp_mulu16(n, v->step_int) + (f >> 16);
        if (pos >= v->end) {
            pos = voice_wrap(v, pos);
            if (!v->data) return;
        }
        v->pos = pos;
        v->frac = (uint16_t)f;
        return;
    }
    const void *end = (const void *)v->end;
    uint32_t frac = (uint32_t)v->frac << 16, step_frac = (uint32_t)v->step_frac << 16, step_int = v->step_int;
    int16_t vol = (int16_t)(v->volume > 64 ? 64 : v->volume);
    int16_t left = (int16_t)(n - 1);   /* samples after the current one */
    for (;;) {
        /* Per sample: sum += data[pos] x volume; the fraction's carry (X)
         * moves pos one byte further. The loop leaves after the last sample
         * or after the sample that took pos to the end (left then counts
         * the samples still to mix). */
        int16_t scratch;
        __asm__ volatile("1:\tmove.b (%[d],%[pos].l),%[t]\n"
                         "\text.w %[t]\n"
                         "\tmuls.w %[vol],%[t]\n"
                         "\tadd.l %[t],(%[sum])+\n"
                         "\tadd.l %[sf],%[frac]\n"
                         "\taddx.l %[si],%[pos]\n"
                         "\tcmp.l %[end],%[pos]\n"
                         "\tdbcc %[left],1b"
                         : [pos] "+d"(pos), [frac] "+d"(frac), [t] "=&d"(scratch), [sum] "+a"(sum),
                           [left] "+d"(left)
                         : [d] "a"(d), [sf] "d"(step_frac), [si] "d"(step_int), [vol] "d"(vol), [end] "a"(end)
                         : "cc", "memory");
        (void)scratch;
        if (pos < (uint32_t)end) break;   /* all n mixed */
        pos = voice_wrap(v, pos);
        if (!v->data) return;   /* a one-shot sample has ended */
        d = v->data;
        end = (const void *)v->end;
        if (left <= 0) break;
        left--;
    }
    v->pos = pos;
    v->frac = (uint16_t)(frac >> 16);
}

/* ---- Byte mixing through volume tables ------------------------------------ */

/* For the usual shifts (6-9: one to eight voices at their fair share) a
 * voice's contribution (sample x volume) >> shift is read from a table
 * instead of multiplied, and added straight into the output bytes: each
 * term lies within -128 / 2^(shift - 6) .. 127 / 2^(shift - 6), so the
 * bytes never overflow, and neither the long sums nor the pass that scales
 * them down are needed. That halves the instructions per mixed sample. The
 * result differs from scaling the exact sum by less than one step per
 * voice. A table holds 65 rows (volume 0-64) of 256 bytes (the sample byte
 * as an unsigned index) and is made the first time its shift is used. */
#define SWMIX_TABLE_SHIFT0 6
#define SWMIX_TABLES 4
static int8_t volume_table[SWMIX_TABLES][65][256];
static uint8_t table_made[SWMIX_TABLES];

static const int8_t *volume_rows(uint16_t shift) {
    uint16_t t = (uint16_t)(shift - SWMIX_TABLE_SHIFT0);
    if (t >= SWMIX_TABLES) return 0;
    if (!table_made[t]) {
        for (uint16_t v = 0; v <= 64; v++) {
            /* Row v: every sample x v, a running sum instead of a product. */
            int8_t *row = volume_table[t][v];
            int16_t up = 0, down = 0;   /* u x v and -(u + 1) x v ... */
            for (uint16_t u = 0; u < 128; u++) {
                row[u] = (int8_t)(up >> shift);
                down = (int16_t)(down - (int16_t)v);
                row[255 - u] = (int8_t)(down >> shift);   /* sample -(u + 1) */
                up = (int16_t)(up + (int16_t)v);
            }
        }
        table_made[t] = 1;
    }
    return &volume_table[t][0][0];
}

/* Mixes up to n samples of an audible, unmodulated voice into out through
 * its volume row: written (first voice) or added. Returns the samples done,
 * fewer than n when a one-shot sample ended (the voice is then silent). */
static uint16_t mix_voice_bytes(int8_t *out, uint16_t n, swmix_voice *v, const int8_t *row, int add) {
    const int8_t *d = v->data;
    uint32_t pos = v->pos;
    const void *end = (const void *)v->end;
    uint32_t frac = (uint32_t)v->frac << 16, step_frac = (uint32_t)v->step_frac << 16, step_int = v->step_int;
    uint32_t index = 0;   /* the sample byte; bits 8-15 stay clear */
    int8_t *o = out;
    /* A step moves the position at most step_int + 1 bytes. */
    const uint32_t margin = (uint32_t)(step_int + 1) << 3;
    while (n) {
        /* Eight samples at a time without looking for the end while it is
         * further than eight steps away. */
        while (n >= 8 && (uint32_t)end - pos > margin) {
            int8_t term;
            if (add)
                __asm__ volatile(".rept 8\n\tmove.b (%[d],%[pos].l),%[i]\n"
                                 "\tmove.b (%[row],%[i].w),%[t]\n"
                                 "\tadd.b %[t],(%[o])+\n"
                                 "\tadd.l %[sf],%[frac]\n"
                                 "\taddx.l %[si],%[pos]\n"
                                 "\t.endr"
                                 : [pos] "+d"(pos), [frac] "+d"(frac), [i] "+d"(index), [t] "=&d"(term), [o] "+a"(o)
                                 : [d] "a"(d), [row] "a"(row), [sf] "d"(step_frac), [si] "d"(step_int)
                                 : "cc", "memory");
            else
                __asm__ volatile(".rept 8\n\tmove.b (%[d],%[pos].l),%[i]\n"
                                 "\tmove.b (%[row],%[i].w),(%[o])+\n"
                                 "\tadd.l %[sf],%[frac]\n"
                                 "\taddx.l %[si],%[pos]\n"
                                 "\t.endr"
                                 : [pos] "+d"(pos), [frac] "+d"(frac), [i] "+d"(index), [o] "+a"(o)
                                 : [d] "a"(d), [row] "a"(row), [sf] "d"(step_frac), [si] "d"(step_int)
                                 : "cc", "memory");
            (void)term;
            n = (uint16_t)(n - 8);
        }
        if (n == 0) break;
        /* Near the end: sample by sample until the end or the last sample.
         * The loop leaves after the last sample (left = -1) or after the
         * sample that took pos to the end (left = the samples still to do). */
        int16_t left = (int16_t)(n - 1);
        int8_t term;
        if (add)
            __asm__ volatile("1:\tmove.b (%[d],%[pos].l),%[i]\n"
                             "\tmove.b (%[row],%[i].w),%[t]\n"
                             "\tadd.b %[t],(%[o])+\n"
                             "\tadd.l %[sf],%[frac]\n"
                             "\taddx.l %[si],%[pos]\n"
                             "\tcmp.l %[end],%[pos]\n"
                             "\tdbcc %[left],1b"
                             : [pos] "+d"(pos), [frac] "+d"(frac), [i] "+d"(index), [t] "=&d"(term), [o] "+a"(o),
                               [left] "+d"(left)
                             : [d] "a"(d), [row] "a"(row), [sf] "d"(step_frac), [si] "d"(step_int), [end] "a"(end)
                             : "cc", "memory");
        else
            __asm__ volatile("1:\tmove.b (%[d],%[pos].l),%[i]\n"
                             "\tmove.b (%[row],%[i].w),(%[o])+\n"
                             "\tadd.l %[sf],%[frac]\n"
                             "\taddx.l %[si],%[pos]\n"
                             "\tcmp.l %[end],%[pos]\n"
                             "\tdbcc %[left],1b"
                             : [pos] "+d"(pos), [frac] "+d"(frac), [i] "+d"(index), [o] "+a"(o), [left] "+d"(left)
                             : [d] "a"(d), [row] "a"(row), [sf] "d"(step_frac), [si] "d"(step_int), [end] "a"(end)
                             : "cc", "memory");
        (void)term;
        if (pos < (uint32_t)end) break;   /* all n mixed */
        pos = voice_wrap(v, pos);
        if (!v->data) return (uint16_t)(o - out);   /* a one-shot sample has ended */
        d = v->data;
        end = (const void *)v->end;
        n = (uint16_t)(left > 0 ? left : 0);
    }
    v->pos = pos;
    v->frac = (uint16_t)(frac >> 16);
    return (uint16_t)(o - out);
}

/* swmix_mix through the volume tables; 0 when the channel needs the long
 * sums (a shift without a table, saturation, a ring-modulated voice). */
static int mix_bytes(swmix_channel *c, int8_t *out, uint16_t bytes) {
    if (c->saturate) return 0;
    for (uint16_t k = 0; k < c->voices; k++)
        if (c->voice[k]->data && c->voice[k]->ring) return 0;
    const int8_t *rows = volume_rows(c->shift);
    if (!rows) return 0;
    uint16_t written = 0;   /* samples of out that hold a sum so far */
    for (uint16_t k = 0; k < c->voices; k++) {
        swmix_voice *v = c->voice[k];
        if (!v->data) continue;
        if (v->volume == 0) {
            add_voice(mix_sum, bytes, v);   /* silent: it only moves on */
            continue;
        }
        const int8_t *row = rows + kp_mulu16(v->volume > 64 ? 64 : v->volume, 256);
        if (written == bytes) {
            mix_voice_bytes(out, bytes, v, row, 1);
        } else {
            /* The first audible voice writes the bytes. When its sample
             * ends early the rest is silence, and later voices add to it. */
            uint16_t done = mix_voice_bytes(out, bytes, v, row, 0);
            for (uint16_t i = done; i < bytes; i++) out[i] = 0;
            written = bytes;
        }
    }
    if (written == 0)
        for (uint16_t i = 0; i < bytes; i++) out[i] = 0;
    return 1;
}

/* ---- Mixed channels ----------------------------------------------------- */

void swmix_channel_init(swmix_channel *c, uint16_t paula, swmix_voice *const *voices, uint16_t count) {
    if (count > SWMIX_MAX_VOICES) count = SWMIX_MAX_VOICES;
    c->voices = count;
    for (uint16_t i = 0; i < count; i++) c->voice[i] = voices[i];
    /* 6 bits undo the volume (64 = full); one more per doubling of voices. */
    c->shift = 6;
    for (uint16_t n = 1; n < count; n = (uint16_t)(n << 1)) c->shift++;
    c->paula = (uint16_t)(paula & 3);
    c->saturate = 0;
    c->running = 0;
}

void swmix_mix(swmix_channel *c, int8_t *out, uint16_t bytes) {
    if (bytes > SWMIX_MAX_BLOCK) bytes = SWMIX_MAX_BLOCK;
    uint16_t audible = 0;
    for (uint16_t k = 0; k < c->voices; k++) audible |= c->voice[k]->data && c->voice[k]->volume;
    if (!audible) {
        /* Nothing to hear: the voices only move on. */
        for (uint16_t k = 0; k < c->voices; k++) add_voice(mix_sum, bytes, c->voice[k]);
        for (uint16_t i = 0; i < bytes; i++) out[i] = 0;
        return;
    }
    if (bytes == 0) return;
    if (mix_bytes(c, out, bytes)) return;
    int32_t *sum = mix_sum;
    int16_t count = (int16_t)(bytes - 1);
    __asm__ volatile("1:\tclr.l (%[s])+\n\tdbra %[n],1b" : [s] "+a"(sum), [n] "+d"(count) : : "cc", "memory");
    for (uint16_t k = 0; k < c->voices; k++) add_voice(mix_sum, bytes, c->voice[k]);
    /* Every voice adds between -128 x 64 and 127 x 64 per sample, so with
     * at most 2^(shift - 6) voices the shifted sum fits in a byte. */
    sum = mix_sum;
    count = (int16_t)(bytes - 1);
    int32_t scratch, shift = c->shift;
    if (c->saturate) {
        /* A louder sum than the shift allows for is held at the byte's limits. */
        __asm__ volatile("1:\tmove.l (%[s])+,%[t]\n\tasr.l %[sh],%[t]\n"
                         "\tcmp.l #127,%[t]\n\tble.s 2f\n\tmoveq #127,%[t]\n\tbra.s 3f\n"
                         "2:\tcmp.l #-128,%[t]\n\tbge.s 3f\n\tmoveq #-128,%[t]\n"
                         "3:\tmove.b %[t],(%[o])+\n\tdbra %[n],1b"
                         : [s] "+a"(sum), [o] "+a"(out), [n] "+d"(count), [t] "=&d"(scratch)
                         : [sh] "d"(shift)
                         : "cc", "memory");
        (void)scratch;
        return;
    }
    __asm__ volatile("1:\tmove.l (%[s])+,%[t]\n\tasr.l %[sh],%[t]\n\tmove.b %[t],(%[o])+\n\tdbra %[n],1b"
                     : [s] "+a"(sum), [o] "+a"(out), [n] "+d"(count), [t] "=&d"(scratch)
                     : [sh] "d"(shift)
                     : "cc", "memory");
    (void)scratch;
}

/* ---- Interrupt-driven playback ----------------------------------------- */

#define AUD_REG(x, reg) (AUD0##reg + AUDSTRIDE * (x))

/* exec SetIntVector(intNumber D0, interrupt A1) -> old interrupt in D0.
 * A6 is saved by hand: the compiler may use it as a frame pointer. */
static uint32_t set_int_vector(uint32_t number, void *irq) {
    register uint32_t d0 __asm__("d0") = number;
    register void *a1 __asm__("a1") = irq;
    __asm__ volatile("move.l %%a6,-(%%sp)\n\tmove.l 4.w,%%a6\n\tjsr -162(%%a6)\n\tmove.l (%%sp)+,%%a6"
                     : "+d"(d0), "+a"(a1)
                     :
                     : "d1", "a0", "memory", "cc");
    return d0;
}

/* The audio interrupt: called with A1 = IS_DATA (the channel). The buffer
 * that was playing has ended and Paula has started the other one: mix the
 * next block into the finished buffer and queue it behind the playing one. */
void swmix_irq(swmix_channel *c);
__asm__("\t.text\n\t.globl swmix_irq_entry\nswmix_irq_entry:\n\tmove.l %a1,-(%sp)\n"
        "\tjsr swmix_irq\n\taddq.l #4,%sp\n\tmoveq #0,%d0\n\trts\n");
void swmix_irq_entry(void);

void swmix_irq(swmix_channel *c) {
    uint16_t x = c->paula;
    KP_CUSTOM16(INTREQ) = (uint16_t)(INTF_AUD0 << x);
    if (!c->running) return;
    int8_t *b = c->buf[c->refill];
    swmix_mix(c, b, c->block);
    KP_CUSTOM32(AUD_REG(x, LC)) = (uint32_t)b;
    KP_CUSTOM16(AUD_REG(x, LEN)) = (uint16_t)(c->block >> 1);
    c->refill ^= 1;
}

void swmix_start(swmix_channel *const *chs, uint16_t count, uint16_t period, uint16_t block) {
    if (period < 124) period = 124;
    block &= (uint16_t)~1u;
    if (block < 2) block = 2;
    if (block > SWMIX_MAX_BLOCK) block = SWMIX_MAX_BLOCK;
    swmix_period = period;
    uint16_t dma = 0, ints = 0;
    for (uint16_t i = 0; i < count; i++) {
        swmix_channel *c = chs[i];
        uint16_t x = c->paula;
        c->block = block;
        c->buf[0] = buffers[x][0];
        c->buf[1] = buffers[x][1];
        /* Interrupt structure: node (14 bytes) cleared, then data and code. */
        uint32_t data = (uint32_t)c, code = (uint32_t)swmix_irq_entry;
        for (int w = 0; w < 7; w++) c->irq[w] = 0;
        c->irq[7] = (uint16_t)(data >> 16);
        c->irq[8] = (uint16_t)data;
        c->irq[9] = (uint16_t)(code >> 16);
        c->irq[10] = (uint16_t)code;
        c->old_vector = set_int_vector(INTB_AUD0 + x, c->irq);
        swmix_mix(c, c->buf[0], block);
        swmix_mix(c, c->buf[1], block);
        c->refill = 0;   /* buffer 0 plays first; it is mixed again when it has played */
        c->running = 1;
        KP_CUSTOM16(DMACON) = (uint16_t)(DMAF_AUD0 << x);   /* from the start of buffer 0 */
        KP_CUSTOM32(AUD_REG(x, LC)) = (uint32_t)c->buf[0];
        KP_CUSTOM16(AUD_REG(x, LEN)) = (uint16_t)(block >> 1);
        KP_CUSTOM16(AUD_REG(x, PER)) = period;
        KP_CUSTOM16(AUD_REG(x, VOL)) = 64;
        dma |= (uint16_t)(DMAF_AUD0 << x);
        ints |= (uint16_t)(INTF_AUD0 << x);
    }
    KP_CUSTOM16(INTREQ) = ints;
    KP_CUSTOM16(INTENA) = (uint16_t)(INTF_SETCLR | INTF_INTEN | ints);
    KP_CUSTOM16(DMACON) = (uint16_t)(DMAF_SETCLR | DMAF_MASTER | dma);
    /* Paula has latched buffer 0; buffer 1 is queued to follow it. */
    for (uint16_t i = 0; i < count; i++) {
        swmix_channel *c = chs[i];
        KP_CUSTOM32(AUD_REG(c->paula, LC)) = (uint32_t)c->buf[1];
        KP_CUSTOM16(AUD_REG(c->paula, LEN)) = (uint16_t)(block >> 1);
    }
}

void swmix_stop(swmix_channel *const *chs, uint16_t count) {
    for (uint16_t i = 0; i < count; i++) {
        swmix_channel *c = chs[i];
        if (!c->running) continue;
        c->running = 0;
        KP_CUSTOM16(DMACON) = (uint16_t)(DMAF_AUD0 << c->paula);
        if (c->old_vector == SWMIX_NO_VECTOR) continue;   /* mixed at the ticks */
        KP_CUSTOM16(INTENA) = (uint16_t)(INTF_AUD0 << c->paula);
        set_int_vector(INTB_AUD0 + c->paula, (void *)c->old_vector);
    }
}

/* ---- Mixing at the player's ticks ------------------------------------------ */

void swmix_tick_start(swmix_channel *const *chs, uint16_t count, uint16_t period) {
    if (period < 124) period = 124;
    swmix_period = period;
    for (uint16_t i = 0; i < count; i++) {
        swmix_channel *c = chs[i];
        uint16_t x = c->paula;
        c->buf[0] = buffers[x][0];
        c->buf[1] = buffers[x][1];
        c->refill = 0;
        c->running = 1;
        c->old_vector = SWMIX_NO_VECTOR;
        KP_CUSTOM16(AUD_REG(x, PER)) = period;
        KP_CUSTOM16(AUD_REG(x, VOL)) = 64;
    }
}

void swmix_tick(swmix_channel *const *chs, uint16_t count, uint16_t bytes) {
    bytes = (uint16_t)((bytes + 1) & ~1u);
    if (bytes < 2) bytes = 2;
    if (bytes > SWMIX_MAX_BLOCK) bytes = SWMIX_MAX_BLOCK;
    uint16_t dma = 0;
    for (uint16_t i = 0; i < count; i++) {
        swmix_channel *c = chs[i];
        if (!c->running) continue;
        c->block = bytes;
        swmix_mix(c, c->buf[c->refill], bytes);
        dma |= (uint16_t)(DMAF_AUD0 << c->paula);
    }
    /* All channels start their new block together, now. */
    KP_CUSTOM16(DMACON) = dma;
    for (uint16_t i = 0; i < count; i++) {
        swmix_channel *c = chs[i];
        if (!c->running) continue;
        KP_CUSTOM32(AUD_REG(c->paula, LC)) = (uint32_t)c->buf[c->refill];
        KP_CUSTOM16(AUD_REG(c->paula, LEN)) = (uint16_t)(bytes >> 1);
        c->refill ^= 1;
    }
    KP_CUSTOM16(DMACON) = (uint16_t)(DMAF_SETCLR | DMAF_MASTER | dma);
}
