// What starting a module once tells about it: its number of subsongs, the
// title and author its player reports, and its format, kept per module
// content for the life of the process. The plugin's tags and the command
// line's info read it, so both show the same title, artist and format.
#pragma once

#include <cstdint>
#include <string>

struct kelva;

struct module_info {
    bool started = false;       // the module started with its player
    int32_t count = 1;          // subsongs (1 when it did not start)
    std::string title;          // UTF-8, cleaned; empty when the module names none
    std::string author;
    std::string format;         // the format's name; empty when the player names none
    bool signals_end = false;   // the player signals the song's end itself
};

// Turns text a player reports (ISO-8859-1 bytes, as the Amiga stored them)
// into UTF-8 for display: control bytes are dropped and padding is trimmed.
// Text without a single letter or digit is taken for garbage: the result is
// then empty.
std::string module_text_clean(const char *raw);

// Reads the count, names and format of an opened engine.
void module_info_read(kelva *k, module_info *out);

// The module's info from the process-wide cache, keyed by its content, or
// found by starting it once for its default subsong and then cached. The
// subsong count is stored in the song-length store when the store does not
// know it yet (it is the count the scanner would store).
module_info module_info_get(const char *player_path, const char *module_name, const uint8_t *data,
                            uint32_t size);
// Empties the cache (tests).
void module_info_forget();

// The format as listeners see it: "<format name>, <player>", or the player's
// file name alone when the player names no format.
std::string module_format_label(const module_info &info, const char *player_path);

// The title of a playlist entry: the module's title, or the file name when
// it has none; a subtune's entry adds " (n/count)".
std::string module_entry_title(const module_info &info, const char *file_name, int32_t subtune);
