// Calling into 68k code: the engine runs every piece of player code as a
// subroutine call that ends on a return sentinel.
#pragma once

#include <cstdint>

struct kelva;

constexpr uint32_t kCallFault = 0xFFFFFFFF;      // fault or exhausted step budget
constexpr uint32_t kCallOutOfRange = 0xFFFFFFFE; // PC left the allowed code areas

// Steps the processor from the current PC until the routine returns to the
// sentinel (result D0), faults, leaves the code areas or runs out of budget.
// `routine` is used only in messages.
uint32_t deli_run_loop(kelva *k, uint32_t routine);
// Runs an Amiga interrupt structure (code at is+18, data at is+14).
uint32_t deli_run_handler(kelva *k, uint32_t is);
// The standard call of a player routine: A5 = globals, A6 = exec base,
// A7 = call stack with the sentinel as return address, SR = 0x2000.
uint32_t deli_call(kelva *k, uint32_t routine);
