/* Soundtracker-IV: kelva's player for 15-instrument modules of one tracker:
 * Soundtracker IV (15 instruments, speed-only Fxx).
 * The replay core in replay.c plays it with the variant PTK_ST4. */
#include "replay.h"

const char ptk_player_name[] = "Soundtracker-IV";
const char ptk_player_creator[] = "kelva: Soundtracker IV (15 instruments, speed-only Fxx)";
const uint8_t ptk_player_companion = 0;
const char *const ptk_player_format = 0;

int ptk_player_variant(const volatile uint8_t *mod, uint32_t size) {
    (void)mod;
    (void)size;
    return PTK_ST4;
}
