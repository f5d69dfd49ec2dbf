// The two 8520 CIAs as replay routines use them: timers A and B, the
// interrupt control register, time of day, the ports as plain storage, and
// CIA-A PRA bit 1 (/LED) as the audio filter switch. Register names follow
// the hardware manual. Timers do not count E-clock ticks: each keeps its
// period and its remaining time in output frames, and the render loop counts
// the frames it renders off them (cia_advance) and cuts its chunks at the
// next underflow (cia_frames_to_event).
#include <climits>
#include <cmath>

#include "engine/engine.h"
#include "hardware/bus.h"

namespace {

constexpr uint8_t kCrStart = 0x01;     // CRx START
constexpr uint8_t kCrRunmode = 0x08;   // CRx RUNMODE: 1 = one-shot
constexpr uint8_t kCrLoad = 0x10;      // CRx LOAD strobe, never stored
constexpr uint8_t kIcrSetClr = 0x80;   // ICR SET/CLR on write, IR on read
constexpr uint8_t kIcrTa = 0x01;
constexpr uint8_t kIcrTb = 0x02;
constexpr uint8_t kPraLed = 0x02;      // CIA-A PRA bit 1, active low
constexpr uint64_t kTodCyclesA = 141875;   // CIA-A TOD counts 50 Hz ticks
constexpr uint64_t kTodCyclesB = 454;      // CIA-B TOD counts raster lines

cia_state &cia_of(kelva *k, uint32_t address) {
    return k->cia[((address >> 12) & 0xF) == 0xE ? 0 : 1];
}
bool is_cia_a(uint32_t address) { return ((address >> 12) & 0xF) == 0xE; }

// Timer period in output frames for a latch value: (latch + 1) E-clock ticks.
double timer_period(const kelva *k, uint16_t latch) {
    double p = (double(latch) + 1.0) * double(k->rate) / double(kEClock);
    return p > 1.0 ? p : 1.0;
}

// The remaining count as the 16-bit timer would show it.
uint32_t timer_count(const kelva *k, double left) {
    if (k->rate < 1 || !(left > 0.0)) return 0;
    double t = double(kEClock) * left / double(k->rate);
    return t >= 4294967295.0 ? 0xFFFFFFFF : uint32_t(t);
}

// TAHI/TBHI: the period follows the latch; a stopped timer reloads its
// counter, and in one-shot mode the write starts it.
void write_hi(kelva *k, uint16_t latch, uint8_t &running, uint8_t oneshot, double &period, double &left) {
    period = timer_period(k, latch);
    if (!running) {
        left = period;
        if (oneshot) running = 1;
    }
}

// CRA/CRB: START, RUNMODE and the LOAD strobe.
void write_cr(kelva *k, uint8_t value, uint8_t &cr, uint16_t latch, uint8_t &running, uint8_t &oneshot,
              double &period, double &left) {
    uint8_t was_running = running;
    cr = uint8_t(value & ~kCrLoad);
    running = value & kCrStart;
    oneshot = (value & kCrRunmode) != 0;
    period = timer_period(k, latch);
    if ((value & kCrLoad) || (!was_running && running)) left = period;
}

// One timer's countdown over `frames`: every elapsed period is an underflow
// that flags the ICR and, when enabled with a handler, queues the handler.
void advance_timer(kelva *k, cia_state &c, uint8_t bit, uint32_t handler, uint8_t &running, uint8_t oneshot,
                   uint8_t &cr, double period, double &left, int32_t frames) {
    left -= double(frames);
    if (left > 0.0) return;
    for (;;) {
        c.icr_data |= bit;
        if ((c.icr_mask & bit) && handler && k->pending_count < 8) k->pending[k->pending_count++] = handler;
        if (oneshot) {
            running = 0;
            cr = uint8_t(cr & ~kCrStart);
            left = period;
            return;
        }
        // period >= 1 frame, so this ends. A stretch far longer than the
        // period (never cut so by the render loop) skips whole periods at once.
        if (-left > 65536.0 * period) left += std::floor(-left / period - 1.0) * period;
        left += period;
        if (left > 0.0) return;
    }
}

int32_t frames_until(double left) {
    if (left <= 1.0) return 1;
    double f = left + 0.999999;
    return f >= double(INT_MAX) ? INT_MAX : int32_t(f);
}

}  // namespace

void cia_reset(kelva *k) {
    for (cia_state &c : k->cia) {
        c = cia_state{};
        c.ta_period = c.ta_left = 1.0;
        c.tb_period = c.tb_left = 1.0;
    }
}

uint32_t cia_read(kelva *k, uint32_t address) {
    cia_state &c = cia_of(k, address);
    switch ((address >> 8) & 0xF) {
    case 0x0:  // PRA
        return c.pra;
    case 0x1:  // PRB
        return c.prb;
    case 0x2:  // DDRA
        return c.ddra;
    case 0x3:  // DDRB
        return c.ddrb;
    case 0x4:  // TALO
        return timer_count(k, c.ta_left) & 0xFF;
    case 0x5:  // TAHI
        return (timer_count(k, c.ta_left) >> 8) & 0xFF;
    case 0x6:  // TBLO
        return timer_count(k, c.tb_left) & 0xFF;
    case 0x7:  // TBHI
        return (timer_count(k, c.tb_left) >> 8) & 0xFF;
    case 0x8:  // TODLO
    case 0x9:  // TODMID
    case 0xA: {  // TODHI
        uint64_t tod = k->cycles / (is_cia_a(address) ? kTodCyclesA : kTodCyclesB) & 0xFFFFFF;
        return uint32_t(tod >> (8 * (((address >> 8) & 0xF) - 0x8))) & 0xFF;
    }
    case 0xD: {  // ICR: flags, IR when an enabled one is set; reading clears them
        uint8_t v = c.icr_data;
        if (c.icr_mask & c.icr_data) v |= kIcrSetClr;
        c.icr_data = 0;
        return v;
    }
    case 0xE:  // CRA
        return c.cra;
    case 0xF:  // CRB
        return c.crb;
    default:  // $B unused, $C SDR
        return 0;
    }
}

void cia_write(kelva *k, uint32_t address, uint32_t value) {
    cia_state &c = cia_of(k, address);
    uint8_t v = uint8_t(value);
    switch ((address >> 8) & 0xF) {
    case 0x0:  // PRA
        c.pra = v;
        // CIA-A PRA bit 1 drives the power LED, active low; the audio filter
        // follows it while the LED filter mode is Auto.
        if (is_cia_a(address) && k->led_mode != 1 && k->led_mode != 2) k->mix.led_on = (v & kPraLed) ? 0 : 1;
        break;
    case 0x1:  // PRB
        c.prb = v;
        break;
    case 0x2:  // DDRA
        c.ddra = v;
        break;
    case 0x3:  // DDRB
        c.ddrb = v;
        break;
    case 0x4:  // TALO: latch only
        c.ta_latch = uint16_t((c.ta_latch & 0xFF00) | v);
        break;
    case 0x5:  // TAHI
        c.ta_latch = uint16_t((c.ta_latch & 0x00FF) | v << 8);
        write_hi(k, c.ta_latch, c.ta_running, c.ta_oneshot, c.ta_period, c.ta_left);
        break;
    case 0x6:  // TBLO
        c.tb_latch = uint16_t((c.tb_latch & 0xFF00) | v);
        break;
    case 0x7:  // TBHI
        c.tb_latch = uint16_t((c.tb_latch & 0x00FF) | v << 8);
        write_hi(k, c.tb_latch, c.tb_running, c.tb_oneshot, c.tb_period, c.tb_left);
        break;
    case 0xD:  // ICR: SET/CLR of the enable mask
        if (v & kIcrSetClr)
            c.icr_mask = uint8_t(c.icr_mask | (v & 0x1F));
        else
            c.icr_mask = uint8_t(c.icr_mask & ~(v & 0x1F));
        break;
    case 0xE:  // CRA
        write_cr(k, v, c.cra, c.ta_latch, c.ta_running, c.ta_oneshot, c.ta_period, c.ta_left);
        break;
    case 0xF:  // CRB: INMODE bits 5-6 are stored only
        write_cr(k, v, c.crb, c.tb_latch, c.tb_running, c.tb_oneshot, c.tb_period, c.tb_left);
        break;
    default:  // TODLO/TODMID/TODHI ($8-$A), $B, SDR ($C): ignored
        break;
    }
}

int32_t cia_frames_to_event(const kelva *k) {
    int32_t best = 0;
    for (const cia_state &c : k->cia) {
        if (c.ta_running) {
            int32_t f = frames_until(c.ta_left);
            if (!best || f < best) best = f;
        }
        if (c.tb_running) {
            int32_t f = frames_until(c.tb_left);
            if (!best || f < best) best = f;
        }
    }
    return best;
}

void cia_advance(kelva *k, int32_t frames) {
    if (frames <= 0) return;
    for (cia_state &c : k->cia) {
        if (c.ta_running)
            advance_timer(k, c, kIcrTa, c.handlers[0], c.ta_running, c.ta_oneshot, c.cra, c.ta_period, c.ta_left,
                          frames);
        if (c.tb_running)
            advance_timer(k, c, kIcrTb, c.handlers[1], c.tb_running, c.tb_oneshot, c.crb, c.tb_period, c.tb_left,
                          frames);
    }
}
