// One song from start to end, as render and play both need it: the module
// loaded, its subsong chosen, its length known, the engine opened with the
// user's settings, and blocks of audio until the end.
#pragma once

#include <cstdint>
#include <string>

#include "cli/cli.h"

struct playback {
    module_file module;
    kelva *engine = nullptr;
    int32_t count = 1;             // subsongs of the module
    int32_t subsong = 0;           // the number kelva_open and the database use
    subsong_length length;         // how long the song is and how that was found
    int32_t rate = 48000;
    int64_t target_frames = 0;     // where rendering stops at the latest
    int64_t done_frames = 0;
    bool ended = false;            // the player signalled its song end
};

// Frames per block handed to the sink.
constexpr int32_t kBlockFrames = 4096;

// Loads, picks the subsong, finds the length and opens the engine. Returns
// kExitOk, or prints one line and returns kExitFailure / kExitUsage.
int playback_start(const char *file, const play_settings &s, playback *p);
// Renders the next block into `buf` (kBlockFrames stereo frames); returns
// the frames produced, 0 when the song is over.
int32_t playback_next(playback *p, float *buf);
void playback_end(playback *p);
// "subsong 2 of 5", or "" for a single song.
std::string playback_subsong_text(const playback &p);
