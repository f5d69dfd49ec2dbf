/* UltimateSoundtracker: kelva's player for 15-instrument modules of one tracker:
 * Ultimate Soundtracker (15 instruments, arpeggio and slides, speed 6).
 * The replay core in replay.c plays it with the variant PTK_UST. */
#include "replay.h"

const char ptk_player_name[] = "UltimateSoundtracker";
const char ptk_player_creator[] = "kelva: Ultimate Soundtracker (15 instruments, arpeggio and slides, speed 6)";

int ptk_player_variant(const volatile uint8_t *mod, uint32_t size) {
    (void)mod;
    (void)size;
    return PTK_UST;
}
