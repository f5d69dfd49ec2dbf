// The data tree (kelva_data: eagleplayer.conf + players/) and host files.
#pragma once

#include <cstdint>

struct kelva;

// Writes dir + "/" + name into out; 0 (and nothing written) when it does not fit.
int path_join(char *out, uint32_t capacity, const char *dir, const char *name);
// ASCII case-insensitive prefix test; returns the rest of `path` or null.
const char *host_match_prefix(const char *path, const char *prefix);
// Full host path of `rel` inside the data tree; empty string on overflow.
void data_path(char *out, uint32_t capacity, const char *rel);
// The built-in file loader: reads a local file whole (case-insensitive
// fallback within its directory); empty files are refused.
int default_load(void *user, const char *path, uint8_t **out_data, uint32_t *out_len);
// Loads a file that 68k code asked for, mapping ENV: and ENVARC: into
// players/ENV/ of the data tree, through the engine's loader.
int host_load_file(kelva *k, const char *amiga_path, uint8_t **out_data, uint32_t *out_len);
