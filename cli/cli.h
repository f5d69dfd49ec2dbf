// The kelva command-line tool: shared pieces of its subcommands.
//
// Every subcommand is a function (argument count, argument vector) -> exit
// code. Failures print one line "kelva: ..." naming the file and the reason
// and give kExitFailure; wrong usage gives kExitUsage.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

struct kelva;

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// Set by SIGINT/SIGTERM; long loops check it and stop cleanly.
extern std::atomic<bool> cli_interrupted;

// ---- command-line options ------------------------------------------------

// One parsed command line: options by name (without the leading dashes) and
// the positional arguments in order.
struct cli_args {
    std::vector<std::pair<std::string, std::string>> options;
    std::vector<std::string> positional;
    bool help = false;
};

// Describes the options a subcommand accepts: names that take a value and
// names that are plain switches.
struct option_set {
    std::vector<std::string> with_value;
    std::vector<std::string> switches;
};

// Parses argv[first..argc) against `opts` ("--name value", "--name=value",
// "-o value" for the short forms listed as "o"; "--help"/"-h" sets help;
// "--" ends the options). On a usage error prints one line naming the
// command and returns false.
bool parse_args(const char *command, int argc, char **argv, int first, const option_set &opts, cli_args *out);
// The last value given for an option, or null.
const char *arg_value(const cli_args &args, const char *name);
bool arg_switch(const cli_args &args, const char *name);

// Prints "kelva: <text>" as one line on stderr.
void cli_error(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// Prints a usage error with a hint to the command's --help; returns kExitUsage.
int cli_usage_error(const char *command, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// ---- playback settings ---------------------------------------------------

struct play_settings {
    int32_t rate = 48000;
    float separation = 0.25f;   // the plugin's default
    uint32_t model = 0;         // 0 = A500, 1 = A1200
    uint32_t led = 0;           // 0 = follow the player, 1 = off, 2 = on
    int32_t subsong = -1;       // -1 = not given
    double seconds = 0;         // 0 = not given
};

// Reads --rate, --model, --separation, --led, --subsong and --seconds.
// Prints a usage error and returns false on a bad value.
bool read_play_settings(const char *command, const cli_args &args, play_settings *out);
void apply_settings(kelva *k, const play_settings &s);
// The options read_play_settings understands.
void add_play_options(option_set *opts);

// ---- modules -------------------------------------------------------------

// A module file read whole and matched to a player.
struct module_file {
    std::string shown;       // the path as the user wrote it (for messages)
    std::string path;        // absolute path, given to the engine and the database
    uint8_t *data = nullptr; // malloc'd
    uint32_t size = 0;
    std::string player;      // full host path of the player file
};

// Reads the file and finds its player. On failure fills `error` with one
// line naming the file and the reason (without the "kelva: " prefix).
bool module_load(const char *path, module_file *m, std::string *error);
void module_free(module_file *m);
// The player file's name (the last path component).
std::string module_player_name(const module_file &m);

// Reads the player and opens the module at `rate` for `subsong` (below 1:
// the player's default). Null on failure, with `error` filled.
kelva *module_open(const module_file &m, int32_t rate, int32_t subsong, std::string *error);

// ---- lengths ---------------------------------------------------------------

// How a length was found.
enum class length_reason { database, song_end, silence, limit, repetition, failed, cancelled };
// The name used in JSON ("song_end") and the text for people ("song end").
const char *length_reason_name(length_reason r);
const char *length_reason_text(length_reason r);

struct subsong_length {
    int32_t subsong = 0;     // the number the database and kelva_open use
    int32_t ms = -1;         // -1 = unknown
    length_reason reason = length_reason::failed;
};

// What opening the module for subsong 0 tells: the subsong count (from the
// database when it knows it, else from the player, and then stored), the
// format name, the player's own name, and the module's title and author.
struct module_facts {
    int32_t count = 1;
    std::string format;
    std::string player_title;
    std::string title;          // the module's title as a playlist shows it (file name when none)
    std::string author;         // empty when the module names none
    bool signals_end = false;   // the player's song-end flag: lengths come from its SongEnd
};
// Opens the module once at 48 kHz. False (with `error` set) when it does
// not start; the records the plugin would keep for it are stored then.
bool module_probe(const module_file &m, module_facts *facts, std::string *error);

// The subsong count, from the database or found by opening the module and
// stored, as the plugin does (a module that does not start counts as one).
int32_t module_subsong_count(const module_file &m, bool *from_database);
// The subsong numbers the plugin lists for a count: 0 for a single song,
// 1..count (at most 256) otherwise.
std::vector<int32_t> subsong_numbers(int32_t count);
// The length of one subsong, from the database or measured and stored as the
// plugin does (600 s limit, 30 s silence, -1 stored when it failed).
subsong_length module_length(const module_file &m, int32_t subsong);

// "m:ss.mmm"
std::string format_ms(int64_t ms);

// ---- progress ----------------------------------------------------------------

// A one-line progress bar on stderr, drawn only when stderr is a terminal.
struct progress_bar {
    bool enabled = false;
    int64_t last_draw_ms = -1000000;
};
void progress_init(progress_bar *p);
// Redraws at most ten times a second (always when `force`).
void progress_draw(progress_bar *p, double fraction, const std::string &text, bool force = false);
void progress_done(progress_bar *p);
int64_t monotonic_ms();

// ---- subcommands -------------------------------------------------------------

int cmd_render(int argc, char **argv, int first);
int cmd_info(int argc, char **argv, int first);
int cmd_scan(int argc, char **argv, int first);
int cmd_play(int argc, char **argv, int first);
