#include "cli/playback.h"

#include <cmath>

#include "engine/kelva.h"
#include "plugin/scan.h"

namespace {

// The subsong to open: the user's choice checked against the count, or the
// first one. A single song is subsong 0, as the plugin lists it.
bool choose_subsong(const play_settings &s, playback *p) {
    int32_t wanted = s.subsong;
    if (p->count < 2) {
        if (wanted > 1) {
            cli_error("%s has a single subsong; --subsong %d does not exist", p->module.shown.c_str(), wanted);
            return false;
        }
        p->subsong = 0;
        return true;
    }
    if (wanted < 0) wanted = 1;
    int32_t last = p->count > kMaxSubtunes ? kMaxSubtunes : p->count;
    if (wanted < 1 || wanted > last) {
        cli_error("%s has subsongs 1 to %d; --subsong %d does not exist", p->module.shown.c_str(), last, wanted);
        return false;
    }
    p->subsong = wanted;
    return true;
}

int64_t frames_of_ms(double ms, int32_t rate) { return int64_t(std::floor(ms * rate / 1000.0)); }

}  // namespace

int playback_start(const char *file, const play_settings &s, playback *p) {
    std::string error;
    if (!module_load(file, &p->module, &error)) {
        cli_error("%s", error.c_str());
        return kExitFailure;
    }
    module_facts facts;
    if (!module_probe(p->module, &facts, &error)) {
        cli_error("%s", error.c_str());
        return kExitFailure;
    }
    p->count = facts.count;
    if (!choose_subsong(s, p)) return kExitFailure;

    p->length = module_length(p->module, p->subsong);
    if (p->length.reason == length_reason::cancelled || cli_interrupted.load()) {
        cli_error("interrupted while measuring %s", p->module.shown.c_str());
        return kExitFailure;
    }

    p->rate = s.rate;
    p->engine = module_open(p->module, s.rate, p->subsong, &error);
    if (!p->engine) {
        cli_error("%s", error.c_str());
        return kExitFailure;
    }
    apply_settings(p->engine, s);

    // Stop at the known length, after the requested seconds, or at the
    // measurement limit when neither is known; the song's own end stops it
    // earlier.
    double stop_ms = p->length.ms > 0 ? double(p->length.ms) : double(kScanMaxMs);
    if (s.seconds > 0 && s.seconds * 1000.0 < stop_ms) stop_ms = s.seconds * 1000.0;
    p->target_frames = frames_of_ms(stop_ms, p->rate);
    if (p->target_frames < 1) p->target_frames = 1;
    return kExitOk;
}

int32_t playback_next(playback *p, float *buf) {
    if (p->ended || p->done_frames >= p->target_frames || cli_interrupted.load()) return 0;
    int64_t left = p->target_frames - p->done_frames;
    int32_t n = left < kBlockFrames ? int32_t(left) : kBlockFrames;
    kelva_render(p->engine, buf, n);
    p->done_frames += n;
    if (kelva_song_ended(p->engine)) p->ended = true;
    return n;
}

void playback_end(playback *p) {
    if (p->engine) {
        kelva_close(p->engine);
        kelva_destroy(p->engine);
        p->engine = nullptr;
    }
    module_free(&p->module);
}

std::string playback_subsong_text(const playback &p) {
    if (p.count < 2) return "";
    return "subsong " + std::to_string(p.subsong) + " of " + std::to_string(p.count);
}
