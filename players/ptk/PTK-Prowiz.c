/* PTK-Prowiz: kelva's player for the 31-instrument ProTracker family and
 * the 15-instrument Soundtracker modules that use ProTracker's effects.
 *
 * The variant comes from the option string ("type:pt30", "type:nt10",
 * "type:nt20", "type:st24", "type:flt4", "type:m&k.", "type:comp",
 * "type:st20") that the host keeps for the module; the replay core in
 * replay.c plays it, frontend.c wires it into the player interface. */
#include "replay.h"

const char ptk_player_name[] = "PTK-Prowiz";
const char ptk_player_creator[] = "kelva: ProTracker family replay (31 and 15 instruments)";
const uint8_t ptk_player_companion = 0;
const char *const ptk_player_format = 0;

int ptk_player_variant(const volatile uint8_t *mod, uint32_t size) {
    return ptk_variant_from_option(mod, size);
}
