// eagleplayer.conf: choosing a player for a module and the player's options.
//
// Each non-comment line of the file names a player (the first word, a file
// in players/ of the data tree) followed by tokens; "prefixes=a,b,c" lists
// the file-name prefixes/extensions it takes (written without the dot) and
// "epopt=..." the option string handed to the player.
#pragma once

#include <cstdint>

struct kelva;

// Finds the player for a module. `path` is the module's path or URI (only
// its last component counts), `data`/`size` its whole contents. On success
// writes the player file's full host path into `out` and returns 1; returns
// 0 (leaving `out` alone) when no configured player fits.
int epconf_identify(const char *path, const uint8_t *data, uint32_t size, char *out, uint32_t capacity);

// Fills k->epopt from the configuration line of the player at `player_path`
// that lists the module's extension, refined from the module contents for
// the ProTracker-family option "type:pt30". Paths may be null.
void epconf_resolve_epopt(kelva *k, const char *player_path, const char *module_path, const uint8_t *data,
                          uint32_t size);

// The player the 15-instrument content test chooses for a module without a
// 31-instrument tag, or null when the module should be classified as a
// 31-instrument one instead (size must be at least 2652).
const char *st15_choose_player(const uint8_t *data, uint32_t size);

// The player the TFMX content test chooses, or null for no proposal.
const char *tfmx_choose_player(const uint8_t *data, uint32_t size);
