// kelva info: player, format, subsongs and lengths of module files, as text
// or as JSON. Lengths the database does not know are measured and stored.
#include <cstdio>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "cli/cli.h"

namespace {

const char kInfoHelp[] =
    "usage: kelva info FILE... [--json]\n"
    "\n"
    "Shows for every FILE its title and author (as the module names them), the\n"
    "player that replays it, the module format, the number of subsongs and\n"
    "each subsong's length with how it was found:\n"
    "database, song end, silence, repetition, limit (600 s) or failed. Lengths\n"
    "the song-length database does not know are measured now and stored.\n"
    "\n"
    "  --json        one JSON array, one object per file\n"
    "  --data DIR    data tree with eagleplayer.conf and players/\n";

struct file_report {
    std::string file;
    std::string player;        // the player file's name
    std::string player_title;  // the name the player gives itself
    std::string format;
    std::string title;         // the module's title (the file name when it has none)
    std::string author;        // empty when the module names none
    bool signals_end = false;  // the player's song-end flag
    int32_t count = 0;
    std::vector<subsong_length> subsongs;
    std::string error;         // set when the file cannot be played
};

// Fills the report; false (with `error` set) when the file cannot be played.
bool inspect(const char *path, file_report *r) {
    r->file = path;
    module_file m;
    if (!module_load(path, &m, &r->error)) return false;
    r->player = module_player_name(m);

    module_facts facts;
    if (!module_probe(m, &facts, &r->error)) {
        r->count = facts.count;
        module_free(&m);
        return false;
    }
    r->count = facts.count;
    r->format = facts.format;
    r->player_title = facts.player_title;
    r->signals_end = facts.signals_end;
    r->title = facts.title;
    r->author = facts.author;
    for (int32_t s : subsong_numbers(r->count)) {
        if (cli_interrupted.load()) break;
        r->subsongs.push_back(module_length(m, s));
    }
    module_free(&m);
    if (cli_interrupted.load() && r->error.empty()) r->error = "interrupted while measuring " + r->file;
    return r->error.empty();
}

void print_text(const file_report &r) {
    printf("%s\n", r.file.c_str());
    printf("  title:    %s\n", r.title.c_str());
    if (!r.author.empty()) printf("  author:   %s\n", r.author.c_str());
    printf("  player:   %s", r.player.c_str());
    if (!r.player_title.empty() && r.player_title != r.player) printf(" (%s)", r.player_title.c_str());
    printf("\n");
    if (!r.format.empty()) printf("  format:   %s\n", r.format.c_str());
    printf("  subsongs: %d\n", r.count);
    for (const subsong_length &s : r.subsongs) {
        if (r.subsongs.size() == 1)
            printf("  length:   %s (%s)\n", format_ms(s.ms).c_str(), length_reason_text(s.reason));
        else
            printf("  subsong %d: %s (%s)\n", s.subsong, format_ms(s.ms).c_str(), length_reason_text(s.reason));
    }
}

// One file's report as a JSON object, members in the order they are listed.
nlohmann::ordered_json report_json(const file_report &r) {
    nlohmann::ordered_json o;
    o["file"] = r.file;
    if (!r.error.empty()) {
        if (!r.player.empty()) o["player"] = r.player;
        o["error"] = r.error;
        return o;
    }
    o["title"] = r.title;
    o["author"] = r.author.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(r.author);
    o["player"] = r.player;
    o["format"] = r.format;
    // Whether the player signals the song's end itself: its lengths then
    // come from that signal, never from a repetition of the loudness.
    o["player_signals_end"] = r.signals_end;
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const subsong_length &s : r.subsongs) {
        nlohmann::ordered_json so;
        so["subsong"] = s.subsong;
        so["length_ms"] = s.ms > 0 ? nlohmann::ordered_json(s.ms) : nlohmann::ordered_json(nullptr);
        so["reason"] = length_reason_name(s.reason);
        list.push_back(std::move(so));
    }
    o["subsongs"] = std::move(list);
    return o;
}

}  // namespace

int cmd_info(int argc, char **argv, int first) {
    option_set opts;
    opts.switches.push_back("json");
    cli_args args;
    if (!parse_args("info", argc, argv, first, opts, &args)) return kExitUsage;
    if (args.help) {
        fputs(kInfoHelp, stdout);
        return kExitOk;
    }
    if (args.positional.empty()) return cli_usage_error("info", "no module file given");
    bool json = arg_switch(args, "json");

    int rc = kExitOk;
    nlohmann::ordered_json files = nlohmann::ordered_json::array();
    for (const std::string &path : args.positional) {
        file_report r;
        if (!inspect(path.c_str(), &r)) {
            cli_error("%s", r.error.c_str());
            rc = kExitFailure;
        }
        if (json)
            files.push_back(report_json(r));
        else if (r.error.empty())
            print_text(r);
        if (cli_interrupted.load()) break;
    }
    // File names need not be UTF-8: bytes that are not become U+FFFD.
    if (json) printf("%s\n", files.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
    return rc;
}
