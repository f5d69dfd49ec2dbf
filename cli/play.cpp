// kelva play: one subsong to the sound device through libao.
#include <ao/ao.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "cli/cli.h"
#include "cli/playback.h"

namespace {

const char kPlayHelp[] =
    "usage: kelva play FILE [options]\n"
    "\n"
    "Plays one subsong of FILE on the default sound device (libao). Playback\n"
    "stops at the song's end, at its known or measured length, after\n"
    "--seconds, or on Ctrl-C.\n"
    "\n"
    "  --subsong N           subsong to play (default: the first)\n"
    "  --seconds S           stop after S seconds at the latest\n"
    "  --rate R              output rate in Hz (default 48000)\n"
    "  --model a500|a1200    output filter of the Amiga model (default a500)\n"
    "  --separation X        stereo separation 0..1 (default 0.25)\n"
    "  --led auto|on|off     power-LED filter (default auto)\n"
    "  --data DIR            data tree with eagleplayer.conf and players/\n";

const char *ao_error_text(int e) {
    switch (e) {
    case AO_ENODRIVER: return "no driver";
    case AO_ENOTLIVE: return "the driver is not a live output";
    case AO_EBADOPTION: return "bad driver option";
    case AO_EOPENDEVICE: return "the device cannot be opened";
    case AO_EBADFORMAT: return "the sample format is not supported";
    default: return "unknown libao error";
    }
}

// Runs `f` with the standard error stream sent to /dev/null: the sound
// libraries below libao print several lines of their own when there is no
// device, and kelva says what happened in one line instead.
template <typename F>
auto quietly(F f) {
    fflush(stderr);
    int saved = dup(STDERR_FILENO);
    int null_fd = open("/dev/null", O_WRONLY);
    if (saved >= 0 && null_fd >= 0) dup2(null_fd, STDERR_FILENO);
    if (null_fd >= 0) close(null_fd);
    auto result = f();
    if (saved >= 0) {
        dup2(saved, STDERR_FILENO);
        close(saved);
    }
    return result;
}

// Opens the default live output; null with one line printed when there is
// no usable sound device.
ao_device *open_device(int32_t rate) {
    int driver = quietly([] { return ao_default_driver_id(); });
    if (driver < 0) {
        cli_error("no sound device: libao found no usable output driver (try 'kelva render' instead)");
        return nullptr;
    }
    ao_sample_format fmt;
    memset(&fmt, 0, sizeof fmt);
    fmt.bits = 16;
    fmt.rate = rate;
    fmt.channels = 2;
    fmt.byte_format = AO_FMT_NATIVE;
    int error = 0;
    ao_device *dev = quietly([&] {
        errno = 0;
        ao_device *d = ao_open_live(driver, &fmt, nullptr);
        error = errno;
        return d;
    });
    if (!dev) {
        ao_info *info = ao_driver_info(driver);
        cli_error("no sound device: cannot open libao driver '%s' (%s)", info && info->short_name ? info->short_name : "?",
                  ao_error_text(error));
    }
    return dev;
}

void to_int16(const float *in, int16_t *out, size_t samples) {
    for (size_t i = 0; i < samples; i++) {
        float v = in[i] * 32767.0f;
        if (v > 32767.0f) v = 32767.0f;
        if (v < -32768.0f) v = -32768.0f;
        out[i] = int16_t(std::lrint(v));
    }
}

bool play_to(playback *p, ao_device *dev) {
    std::vector<float> buf(size_t(kBlockFrames) * 2);
    std::vector<int16_t> pcm(buf.size());
    progress_bar bar;
    progress_init(&bar);
    while (int32_t n = playback_next(p, buf.data())) {
        to_int16(buf.data(), pcm.data(), size_t(n) * 2);
        if (!ao_play(dev, reinterpret_cast<char *>(pcm.data()), uint32_t(n) * 4)) {
            progress_done(&bar);
            cli_error("the sound device stopped accepting audio while playing %s", p->module.shown.c_str());
            return false;
        }
        progress_draw(&bar, double(p->done_frames) / double(p->target_frames),
                      format_ms(p->done_frames * 1000 / p->rate) + " / " + format_ms(p->target_frames * 1000 / p->rate));
    }
    progress_done(&bar);
    return true;
}

}  // namespace

int cmd_play(int argc, char **argv, int first) {
    option_set opts;
    add_play_options(&opts);
    cli_args args;
    if (!parse_args("play", argc, argv, first, opts, &args)) return kExitUsage;
    if (args.help) {
        fputs(kPlayHelp, stdout);
        return kExitOk;
    }
    if (args.positional.size() != 1)
        return cli_usage_error("play", args.positional.empty() ? "no module file given" : "one module file at a time");
    play_settings settings;
    if (!read_play_settings("play", args, &settings)) return kExitUsage;

    playback p;
    int rc = playback_start(args.positional[0].c_str(), settings, &p);
    if (rc != kExitOk) {
        playback_end(&p);
        return rc;
    }
    ao_initialize();
    ao_device *dev = open_device(settings.rate);
    bool ok = false;
    if (dev) {
        std::string sub = playback_subsong_text(p);
        printf("playing %s%s%s (%s, %s)\n", p.module.shown.c_str(), sub.empty() ? "" : ", ", sub.c_str(),
               module_player_name(p.module).c_str(), format_ms(p.target_frames * 1000 / p.rate).c_str());
        fflush(stdout);
        ok = play_to(&p, dev);
        ao_close(dev);
    }
    ao_shutdown();
    playback_end(&p);
    return ok ? kExitOk : kExitFailure;
}
