/* UltimateSoundtracker: kelva's player for 15-instrument modules of one tracker:
 * Ultimate Soundtracker (15 instruments, arpeggio and slides, speed 6).
 * The replay core in replay.c plays it with the variant PTK_UST. */
#include "replay.h"

const char ptk_player_name[] = "UltimateSoundtracker";
const char ptk_player_creator[] = "kelva: Ultimate Soundtracker (15 instruments, arpeggio and slides, speed 6)";
const uint8_t ptk_player_companion = 0;
const char *const ptk_player_format = 0;

int ptk_player_variant(const volatile uint8_t *mod, uint32_t size) {
    (void)mod;
    (void)size;
    return PTK_UST;
}
