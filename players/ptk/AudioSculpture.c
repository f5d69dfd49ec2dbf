/* AudioSculpture: kelva's player for Startrekker modules with AM synth
 * sounds (four channels, tag FLT4 or EXO4), whose instruments are partly
 * in a companion file named like the module plus ".nt" (am.c). The plain
 * samples play as in the Startrekker variant of PTK-Prowiz (PTK_FLT4); the
 * AM sounds are waveforms with the tracker's volume envelope, period fall
 * and vibrato (replay.c). Without the companion file the module plays its
 * samples alone. */
#include "replay.h"

const char ptk_player_name[] = "AudioSculpture";
const char ptk_player_creator[] = "kelva: Startrekker with AM synth sounds (module + .nt)";
const uint8_t ptk_player_companion = 1;
static const char format[] = "Startrekker AM (FLT4 + .nt)";
const char *const ptk_player_format = format;

int ptk_player_variant(const volatile uint8_t *mod, uint32_t size) {
    /* Only the four-channel Startrekker tags; anything else is refused. */
    if (size < 1084) return -1;
    const volatile uint8_t *t = mod + 1080;
    if (!((t[0] == 'F' && t[1] == 'L' && t[2] == 'T') || (t[0] == 'E' && t[1] == 'X' && t[2] == 'O')) || t[3] != '4')
        return -1;
    return PTK_FLT4;
}
