// kelva: render, inspect, catalogue and play Amiga music from the command
// line. This file picks the subcommand; each lives in its own file.
#include <signal.h>

#include <cstdio>
#include <cstring>

#include "cli/cli.h"
#include "engine/kelva.h"
#include "plugin/scan.h"
#include "plugin/songdb.h"

namespace {

const char kMainHelp[] =
    "usage: kelva [--data DIR] COMMAND [options] [arguments]\n"
    "\n"
    "kelva plays Amiga music by running each format's own replay routine on an\n"
    "emulated Amiga.\n"
    "\n"
    "commands:\n"
    "  render FILE     render one subsong to a WAV or FLAC file\n"
    "  info FILE...    player, format, subsongs and lengths (--json for JSON)\n"
    "  scan DIR...     measure every module in folders into the song-length database\n"
    "  play FILE       play one subsong on the sound device\n"
    "\n"
    "  --data DIR      the data tree (eagleplayer.conf and players/); otherwise\n"
    "                  KELVA_DATA, kelva_data beside the program, then\n"
    "                  ~/.local/share, /usr/local/share and /usr/share\n"
    "  --version       print the version\n"
    "\n"
    "'kelva COMMAND --help' describes a command's options; 'man kelva' has more.\n"
    "Exit status: 0 success, 1 failure, 2 wrong usage.\n";

void on_signal(int) {
    // Both flags are lock-free atomics, safe to set from a signal handler.
    cli_interrupted.store(true);
    scan_quit.store(true);
}

void install_signal_handlers() {
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

struct command {
    const char *name;
    int (*run)(int argc, char **argv, int first);
};

const command kCommands[] = {
    {"render", cmd_render},
    {"info", cmd_info},
    {"scan", cmd_scan},
    {"play", cmd_play},
};

}  // namespace

int main(int argc, char **argv) {
    // Global options come before the command; --data is also understood
    // after it (every command's parser accepts it).
    option_set global;
    global.switches.push_back("version");
    int i = 1;
    cli_args args;
    for (; i < argc && argv[i][0] == '-'; i++) {
        int take = strcmp(argv[i], "--data") == 0 && i + 1 < argc ? 2 : 1;
        if (!parse_args("", i + take, argv, i, global, &args)) return kExitUsage;
        i += take - 1;
    }
    if (arg_switch(args, "version")) {
        printf("kelva %s\n", kelva_version());
        return kExitOk;
    }
    if (i >= argc) {
        if (args.help) {
            fputs(kMainHelp, stdout);
            return kExitOk;
        }
        fputs(kMainHelp, stderr);
        return kExitUsage;
    }
    const command *cmd = nullptr;
    for (const command &c : kCommands)
        if (strcmp(c.name, argv[i]) == 0) cmd = &c;
    if (!cmd) return cli_usage_error("", "unknown command '%s'", argv[i]);

    install_signal_handlers();
    kelva_global_init();
    db_open();
    int rc = cmd->run(argc, argv, i + 1);
    db_close();
    return rc;
}
