// The Amiga OS emulation: hunk loader, line-A host calls (exec.library,
// CIA resources, option lookup), dos.library and the player support
// functions. 68k code reaches all of it through line-A trap words.
#pragma once

#include <cstdint>

struct kelva;

// Hunk executables (hunk.cpp).
int hunk_parse_header(kelva *k, const uint8_t *data, uint32_t size, uint32_t *offset);
int hunk_read_contents(kelva *k, const uint8_t *data, uint32_t size, uint32_t offset);
// A player: the hunks one after another from kPlayerBase. Returns 1 on success.
int hunk_load_player(kelva *k, const uint8_t *data, uint32_t size);
void dos_load_seg(kelva *k);   // name at D1 -> segment list BCPL pointer in D0

// Line-A entry (line_a.cpp): every $Axxx opcode word comes here.
void op_line_a(kelva *k, uint16_t opcode);
// Condition codes from D0 (N, Z; V and C cleared; X kept), as after every host call.
void trap_set_cc_from_d0(kelva *k);
// Copies a NUL-terminated string out of emulated memory (at most max - 1 bytes).
void amiga_read_string(kelva *k, uint32_t addr, char *out, uint32_t max);

// dos.library (dos.cpp): open/close/read/seek/lock by function number.
void dos_dispatch(kelva *k, uint32_t fn);

// Player support functions (support.cpp).
void deli_support_call(kelva *k, uint32_t fn);      // group 4, through the globals table
void deli_support_negative(kelva *k);               // group 5, entry found by PC
int deli_load_companion(kelva *k);                  // D0 result: 0 ok, 1 failed
void deli_str_append(kelva *k, uint32_t dst, uint32_t src);
// SetTimer: the tick interval from the timer value at globals + 54.
void deli_set_timer(kelva *k);
