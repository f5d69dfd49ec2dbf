// Soundtracker/ProTracker-family classification over a module's bytes.
//
// Many Amiga tracker formats share one layout: a 20-byte title, sample
// headers of 30 bytes, song length, restart byte, a 128-byte order list, a
// 4-byte tag at offset 1080 (31-instrument modules only), then patterns of
// 64 rows x 4 channels x 4 bytes and the sample data. These functions tell
// the variants apart; every read is checked against the given size.
#pragma once

#include <cstdint>

// Result codes of mod31_classify.
enum mod31_kind : int {
    MOD31_PROTRACKER = 0,     // plain ProTracker, or nothing special found
    MOD31_ST24 = 1,           // repeat start counted in bytes
    MOD31_FLT4 = 2,           // four-channel Startrekker
    MOD31_SCULPTURE = 3,      // Startrekker tag with sample-data marks
    MOD31_MK_NOISE = 4,       // M&K! tag
    MOD31_NT20 = 5,
    MOD31_NT10 = 6,
    MOD31_COMP = 7,           // multichannel, or written by a PC tracker
};

// Effect usage over a run of patterns. A cell's command is the low 4 bits of
// its third byte, the parameter its fourth byte.
struct cell_tally {
    uint32_t count[16];       // cells per command; command 0 counts only arpeggios (nonzero parameter)
    uint32_t max_param[16];   // highest parameter per command (same rule for command 0)
    uint32_t ext[16];         // command 14 cells by sub-command (parameter's high nibble)
    uint32_t speed_lo;        // command 15 with parameter below 32
    uint32_t speed_hi;        // command 15 with parameter 32 or more
};

// Tallies patterns 0 .. count-1 of 1024 bytes starting at `first`, but only
// those that lie wholly inside the data.
void tally_patterns(const uint8_t *data, uint32_t size, uint32_t first, uint32_t count, cell_tally *t);

// Whether the tag at offset 1080 marks a 31-instrument module. False when
// the data is shorter than 1084 bytes.
bool mod_tag_is_31(const uint8_t *data, uint32_t size);

// Names the variant of a 31-instrument module (a mod31_kind). 0 when the
// data is shorter than 1084 bytes.
int mod31_classify(const uint8_t *data, uint32_t size);

// Whether the data has the Images Music System layout: the Soundtracker
// header of 31 samples, but patterns of 768 bytes (three-byte cells) and at
// 1080, instead of a tag, the offset of the sample data, 1084 + 768 x the
// patterns stored. The song must name only stored patterns, the volumes be
// at most 64, and the sample data fill the rest of the file to within 1 KB.
bool ims_layout(const uint8_t *data, uint32_t size);
