/* kelva: an emulated Amiga that runs replay routines and renders their audio.
 *
 * This is the whole public interface of the engine library. Everything else
 * is internal. An engine (`kelva`) is one complete emulated machine; create it
 * with the output rate, open a player and a module, render stereo float PCM.
 *
 * Threads: one engine is used by one thread at a time; different engines may
 * run on different threads once kelva_global_init() has run.
 */
#ifndef KELVA_H
#define KELVA_H

#include <stdint.h>

#if defined(__GNUC__)
#define KELVA_API __attribute__((visibility("default")))
#else
#define KELVA_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kelva kelva;

/* File loader: (user, NUL-terminated path, out malloc'd buffer, out length)
 * -> non-zero on success. The receiver frees the buffer with free(). On
 * failure the out-parameters are left untouched. */
typedef int (*kelva_file_loader)(void *user, const char *path, uint8_t **out_data, uint32_t *out_len);

/* Builds the process-wide opcode table. Call once before any engine runs
 * code; later calls do nothing. */
KELVA_API void kelva_global_init(void);

KELVA_API kelva *kelva_create(int32_t rate);
KELVA_API void kelva_destroy(kelva *k);

KELVA_API void kelva_set_separation(kelva *k, float separation);
KELVA_API void kelva_set_model(kelva *k, uint32_t model);
KELVA_API void kelva_set_led_filter(kelva *k, uint32_t mode);
KELVA_API int32_t kelva_get_mixrate(const kelva *k);
KELVA_API uint32_t kelva_get_subsong_count(const kelva *k);
KELVA_API int64_t kelva_played_ms(const kelva *k);
KELVA_API int kelva_song_ended(const kelva *k);
/* Bits of the player's flags tag. KELVA_PLAYER_SONGEND: the player signals
 * the end of the song itself, so length measurement trusts it and does not
 * look for repetitions of the loudness. */
#define KELVA_PLAYER_SONGEND 0x1u
KELVA_API uint32_t kelva_get_player_flags(const kelva *k);
/* The module's name and author as the opened player reports them (raw
 * bytes, Amiga ISO-8859-1, NUL-terminated); empty when it does not. */
KELVA_API void kelva_get_module_name(const kelva *k, char *out, uint32_t capacity);
KELVA_API void kelva_get_author_name(const kelva *k, char *out, uint32_t capacity);
KELVA_API void kelva_set_file_loader(kelva *k, kelva_file_loader loader, void *user);

/* Opens a module with a player: 0 = playing, 1 = failed. `subsong` counts
 * from 1; below 1 selects the player's default. Paths may be null. */
KELVA_API int kelva_open(kelva *k, const uint8_t *player, uint32_t player_len, const uint8_t *module,
                         uint32_t module_len, const char *player_path, const char *module_path, int32_t subsong);
KELVA_API void kelva_close(kelva *k);

/* Fills exactly `frames` interleaved stereo float frames. */
KELVA_API void kelva_render(kelva *k, float *out, int32_t frames);

/* Measures the length of the opened module in milliseconds. `reason`
 * receives 1 song end, 2 silence, 3 limit, 4 repetition, 5 cancelled. */
typedef int (*kelva_cancel_fn)(void *user);
KELVA_API uint64_t kelva_measure_length(kelva *k, int32_t max_ms, int32_t silence_ms, int32_t *reason,
                                        kelva_cancel_fn cancel, void *cancel_user);

/* Player selection: finds the player for a module (1 = found; `out` gets the
 * player file's full host path). */
KELVA_API int kelva_identify(const char *path, const uint8_t *data, uint32_t size, char *out, uint32_t capacity);
KELVA_API void kelva_get_player_name(const kelva *k, char *out, uint32_t capacity);
KELVA_API const char *kelva_get_format_name(const kelva *k);

/* The library's version text, for tools. */
KELVA_API const char *kelva_version(void);

#ifdef __cplusplus
}
#endif

#endif
