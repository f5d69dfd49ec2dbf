// kelva render: one subsong to a WAV or FLAC file through libsndfile.
#include <sndfile.h>

#include <cstdio>
#include <cstring>
#include <strings.h>
#include <vector>

#include "cli/cli.h"
#include "cli/playback.h"

namespace {

const char kRenderHelp[] =
    "usage: kelva render FILE [options]\n"
    "\n"
    "Renders one subsong of FILE to a WAV or FLAC file. Rendering stops at the\n"
    "song's end, at its known or measured length, or after --seconds.\n"
    "\n"
    "  -o, --output OUT      output file (default: FILE's name with .wav or .flac,\n"
    "                        in the current directory)\n"
    "  --format wav|flac     file type (default: from OUT's extension, else wav)\n"
    "  --bits 16|24|float    sample format (default 16; float only for WAV)\n"
    "  --subsong N           subsong to render (default: the first)\n"
    "  --seconds S           stop after S seconds at the latest\n"
    "  --rate R              output rate in Hz (default 48000)\n"
    "  --model a500|a1200    output filter of the Amiga model (default a500)\n"
    "  --separation X        stereo separation 0..1, 0 = mono, 1 = hard pan (default 0.25)\n"
    "  --led auto|on|off     power-LED filter: as the player sets it, or forced (default auto)\n"
    "  --data DIR            data tree with eagleplayer.conf and players/\n";

struct output_choice {
    std::string path;
    int format = SF_FORMAT_WAV;
    int subtype = SF_FORMAT_PCM_16;
};

bool ends_with_nocase(const std::string &s, const char *suffix) {
    size_t n = strlen(suffix);
    return s.size() >= n && strcasecmp(s.c_str() + s.size() - n, suffix) == 0;
}

// The default output name: the module's file name with its last extension
// replaced, in the current directory.
std::string default_output(const std::string &module, const char *extension) {
    std::string base = module;
    size_t slash = base.rfind('/');
    if (slash != std::string::npos) base = base.substr(slash + 1);
    size_t dot = base.rfind('.');
    if (dot != std::string::npos && dot > 0) base.resize(dot);
    return base + extension;
}

bool choose_output(const cli_args &args, const std::string &module, output_choice *out) {
    const char *o = arg_value(args, "output");
    if (!o) o = arg_value(args, "o");
    const char *format = arg_value(args, "format");
    bool flac = false;
    if (format) {
        if (strcasecmp(format, "flac") == 0)
            flac = true;
        else if (strcasecmp(format, "wav") != 0) {
            cli_usage_error("render", "--format wants wav or flac, not '%s'", format);
            return false;
        }
    } else if (o) {
        flac = ends_with_nocase(o, ".flac");
    }
    out->format = flac ? SF_FORMAT_FLAC : SF_FORMAT_WAV;
    out->path = o ? o : default_output(module, flac ? ".flac" : ".wav");
    if (out->path.empty()) {
        cli_usage_error("render", "the output name is empty");
        return false;
    }

    const char *bits = arg_value(args, "bits");
    if (!bits || strcmp(bits, "16") == 0) {
        out->subtype = SF_FORMAT_PCM_16;
    } else if (strcmp(bits, "24") == 0) {
        out->subtype = SF_FORMAT_PCM_24;
    } else if (strcasecmp(bits, "float") == 0 || strcmp(bits, "32") == 0) {
        if (flac) {
            cli_usage_error("render", "FLAC holds integer samples only: use --bits 16 or 24");
            return false;
        }
        out->subtype = SF_FORMAT_FLOAT;
    } else {
        cli_usage_error("render", "--bits wants 16, 24 or float, not '%s'", bits);
        return false;
    }
    return true;
}

SNDFILE *open_output(const output_choice &o, int32_t rate) {
    SF_INFO info;
    memset(&info, 0, sizeof info);
    info.samplerate = rate;
    info.channels = 2;
    info.format = o.format | o.subtype;
    SNDFILE *f = sf_open(o.path.c_str(), SFM_WRITE, &info);
    if (!f) {
        cli_error("cannot write %s: %s", o.path.c_str(), sf_strerror(nullptr));
        return nullptr;
    }
    // Samples beyond full scale are clipped rather than wrapped around.
    sf_command(f, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    return f;
}

std::string progress_text(const playback &p) {
    return format_ms(p.done_frames * 1000 / p.rate) + " / " + format_ms(p.target_frames * 1000 / p.rate);
}

// Renders the whole song into the file; false when writing failed.
bool render_to(playback *p, SNDFILE *f, const std::string &path) {
    std::vector<float> buf(size_t(kBlockFrames) * 2);
    progress_bar bar;
    progress_init(&bar);
    while (int32_t n = playback_next(p, buf.data())) {
        if (sf_writef_float(f, buf.data(), n) != n) {
            progress_done(&bar);
            cli_error("cannot write %s: %s", path.c_str(), sf_strerror(f));
            return false;
        }
        progress_draw(&bar, double(p->done_frames) / double(p->target_frames), progress_text(*p));
    }
    progress_done(&bar);
    return true;
}

// Why rendering stopped where it did.
std::string stop_text(const playback &p, const play_settings &s) {
    if (p.ended) return "stopped at the song's end";
    if (s.seconds > 0 && (p.length.ms <= 0 || s.seconds * 1000.0 < double(p.length.ms))) return "stopped after --seconds";
    if (p.length.ms <= 0) return "stopped at the measurement limit";
    if (p.length.reason == length_reason::database) return "stopped at the length from the database";
    return std::string("stopped at the length found by ") + length_reason_text(p.length.reason);
}

}  // namespace

int cmd_render(int argc, char **argv, int first) {
    option_set opts;
    add_play_options(&opts);
    for (const char *o : {"o", "output", "format", "bits"}) opts.with_value.push_back(o);
    cli_args args;
    if (!parse_args("render", argc, argv, first, opts, &args)) return kExitUsage;
    if (args.help) {
        fputs(kRenderHelp, stdout);
        return kExitOk;
    }
    if (args.positional.size() != 1)
        return cli_usage_error("render", args.positional.empty() ? "no module file given" : "one module file at a time");
    play_settings settings;
    if (!read_play_settings("render", args, &settings)) return kExitUsage;
    output_choice out;
    if (!choose_output(args, args.positional[0], &out)) return kExitUsage;

    playback p;
    int rc = playback_start(args.positional[0].c_str(), settings, &p);
    if (rc != kExitOk) {
        playback_end(&p);
        return rc;
    }
    SNDFILE *f = open_output(out, settings.rate);
    if (!f) {
        playback_end(&p);
        return kExitFailure;
    }
    bool ok = render_to(&p, f, out.path);
    if (sf_close(f) != 0 && ok) {
        cli_error("cannot finish %s", out.path.c_str());
        ok = false;
    }
    if (ok && cli_interrupted.load()) {
        cli_error("interrupted: %s holds the first %s", out.path.c_str(), format_ms(p.done_frames * 1000 / p.rate).c_str());
        ok = false;
    }
    if (ok) {
        std::string sub = playback_subsong_text(p);
        printf("%s: %s of %s%s%s, %d Hz; %s\n", out.path.c_str(), format_ms(p.done_frames * 1000 / p.rate).c_str(),
               p.module.shown.c_str(), sub.empty() ? "" : ", ", sub.c_str(), settings.rate, stop_text(p, settings).c_str());
    }
    playback_end(&p);
    return ok ? kExitOk : kExitFailure;
}
