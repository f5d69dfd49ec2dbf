// The Audacious input plugin: declares kelva to the host, plays songs,
// reports tags and subtunes, and connects the song-length store and the
// background scanner to the host's files and playlist. Everything that does
// not need the host library lives in hostio.cpp, scan.cpp and songdb.cpp.
#include <cstdlib>
#include <cstring>
#include <vector>

#include <libaudcore/audstrings.h>
#include <libaudcore/i18n.h>
#include <libaudcore/playlist.h>
#include <libaudcore/plugin.h>
#include <libaudcore/preferences.h>
#include <libaudcore/runtime.h>

#include "engine/kelva.h"
#include "plugin/hostio.h"
#include "plugin/modinfo.h"
#include "plugin/scan.h"
#include "plugin/songdb.h"

namespace {

constexpr int kRate = 48000;
constexpr int kBlockFrames = 4096;

const ComboItem model_items[] = {
    ComboItem("A500 (warm, ~4.4 kHz low-pass)", 0),
    ComboItem("A1200 (bright)", 1),
};

const ComboItem led_items[] = {
    ComboItem("Auto (follow the tune)", 0),
    ComboItem("Off", 1),
    ComboItem("On", 2),
};

const PreferencesWidget kelva_widgets[] = {
    WidgetLabel("<b>Paula output</b>"),
    WidgetSpin("Stereo separation (0 = mono, 1 = hard pan):", WidgetFloat("kelva", "separation"),
               {0.0, 1.0, 0.05, nullptr}),
    WidgetCombo("Amiga model:", WidgetInt("kelva", "model"), {{model_items}, nullptr}),
    WidgetCombo("Power-LED filter:", WidgetInt("kelva", "led_filter"), {{led_items}, nullptr}),
};

const PluginPreferences kelva_prefs = {{kelva_widgets}, nullptr, nullptr, nullptr};

// ---- the host's file system behind the `host` table -----------------------

int aud_uri_to_name(const char *uri, char *out, uint32_t capacity) {
    StringBuf name = uri_to_filename(uri);
    if (!name || !name[0] || strlen(name) >= capacity) return 0;
    memcpy(out, (const char *)name, strlen(name) + 1);
    return 1;
}

int aud_name_to_uri(const char *name, char *out, uint32_t capacity) {
    StringBuf uri = filename_to_uri(name);
    if (!uri || !uri[0] || strlen(uri) >= capacity) return 0;
    memcpy(out, (const char *)uri, strlen(uri) + 1);
    return 1;
}

// Copies what a host file holds into a malloc'd buffer; 0 when empty.
int copy_contents(const Index<char> &bytes, uint8_t **out_data, uint32_t *out_len) {
    if (bytes.len() <= 0) return 0;
    uint8_t *data = static_cast<uint8_t *>(malloc(size_t(bytes.len())));
    if (!data) return 0;
    memcpy(data, bytes.begin(), size_t(bytes.len()));
    *out_data = data;
    *out_len = uint32_t(bytes.len());
    return 1;
}

int aud_read_uri(const char *uri, uint8_t **out_data, uint32_t *out_len) {
    VFSFile file(uri, "r");
    if (!file) return -1;
    return copy_contents(file.read_all(), out_data, out_len);
}

bool aud_list_folder(const char *uri, std::vector<std::string> *out) {
    String error;
    Index<String> entries = VFSFile::read_folder(uri, error);
    if (error) return false;
    for (const String &e : entries) out->push_back((const char *)e);
    return true;
}

void aud_rescan(const char *uri) { Playlist::rescan_file(uri); }

// Reads a module through the host's open file (seeked to its start), or
// through the URI when the host passed none. False when the seek fails.
bool read_module(VFSFile &file, const char *base_uri, Index<char> *out) {
    if (file) {
        if (file.fseek(0, VFS_SEEK_SET) != 0) return false;
        *out = file.read_all();
        return true;
    }
    VFSFile own(base_uri, "r");
    if (own) *out = own.read_all();
    return true;
}

const uint8_t *bytes_of(const Index<char> &data) { return reinterpret_cast<const uint8_t *>(data.begin()); }

// Files of 4 GiB or more are not modules; their size does not fit the
// engine's 32-bit lengths.
bool usable_size(const Index<char> &data) { return data.len() > 0 && uint64_t(data.len()) <= UINT32_MAX; }

}  // namespace

class KelvaPlugin : public InputPlugin {
public:
    static const char about[];
    static const char *const exts[];

    static constexpr PluginInfo info = {N_("kelva Amiga Music"), "kelva", about, &kelva_prefs, 0};

    constexpr KelvaPlugin() : InputPlugin(info, InputInfo(FlagSubtunes).with_priority(1).with_exts(exts)) {}

    bool init() override;
    void cleanup() override;
    bool is_our_file(const char *filename, VFSFile &file) override;
    bool read_tag(const char *filename, VFSFile &file, Tuple &tuple, Index<char> *image) override;
    bool play(const char *filename, VFSFile &file) override;

private:
    static void apply_config(kelva *k);
};

const char KelvaPlugin::about[] =
    "kelva Amiga Music - 68k Amiga music-replay core.\n"
    "\n"
    "Install the data tree at ~/.local/share/kelva_data (eagleplayer.conf +\n"
    "players/), or set $KELVA_DATA.\n"
    "\n"
    "For prefix-named modules (TFMX mdat.*, etc.) and their subtunes, enable\n"
    "\"Probe content of files with no recognized file name extension\" in the\n"
    "Audacious settings -- their name carries no usable extension to match on.";

const char *const KelvaPlugin::exts[] = {"mod", "med",  "mmd0", "mmd1", "mmd2", "ahx", "thx", "hvl",
                                         "fc",  "fc13", "fc14", "smod", "sng",  "dw",  "bd",  "okt",
                                         "dmu", "mug",  "ptm",  "tfmx", "mdat", "aon", "st",  "digi",
                                         "gmc", "sfx",  "ml",   "vss",  "ims",  nullptr};

__attribute__((visibility("default"))) KelvaPlugin aud_plugin_instance;

bool KelvaPlugin::init() {
    static const char *const defaults[] = {"separation", "0.25", "model", "0", "led_filter", "0", nullptr};
    kelva_global_init();
    aud_config_set_defaults("kelva", defaults);
    db_open();
    host = host_ops{aud_uri_to_name, aud_name_to_uri, aud_read_uri, aud_list_folder, aud_rescan};
    scan_start();
    return true;
}

void KelvaPlugin::cleanup() {
    scan_stop();
    db_close();
}

void KelvaPlugin::apply_config(kelva *k) {
    kelva_set_separation(k, float(aud_get_double("kelva", "separation")));
    kelva_set_model(k, uint32_t(aud_get_int("kelva", "model")));
    kelva_set_led_filter(k, uint32_t(aud_get_int("kelva", "led_filter")));
}

bool KelvaPlugin::is_our_file(const char *filename, VFSFile &file) {
    char base[kNameCap], name[kNameCap];
    module_name_of(filename, base, name);
    // While the host probes by content, this may be only the first part of
    // the file; identification needs no more than that.
    Index<char> data;
    if (!read_module(file, base, &data) || !usable_size(data)) return false;
    char player[kPlayerPathCap];
    return kelva_identify(name, bytes_of(data), uint32_t(data.len()), player, sizeof player) != 0;
}

bool KelvaPlugin::play(const char *filename, VFSFile &file) {
    char base[kNameCap], name[kNameCap];
    int32_t subtune = module_name_of(filename, base, name);

    Index<char> module;
    if (!read_module(file, base, &module)) return false;
    if (!usable_size(module)) {
        AUDERR("kelva: empty or unreadable file %s\n", name);
        return false;
    }
    const uint8_t *mod = bytes_of(module);
    uint32_t mod_len = uint32_t(module.len());

    char player_path[kPlayerPathCap];
    if (!kelva_identify(name, mod, mod_len, player_path, sizeof player_path)) {
        AUDERR("kelva: no player matches %s\n", name);
        return false;
    }
    uint32_t player_len = 0;
    uint8_t *player = slurp_path(player_path, &player_len);
    if (!player) {
        AUDERR("kelva: cannot read player %s (install kelva_data under ~/.local/share, /usr/local/share, or "
               "/usr/share)\n",
               player_path);
        return false;
    }
    kelva *k = kelva_create(kRate);
    if (!k) {
        free(player);
        return false;
    }
    if (subtune < 0) subtune = 0;
    kelva_set_file_loader(k, vfs_load, nullptr);
    if (kelva_open(k, player, player_len, mod, mod_len, player_path, name, subtune) != 0) {
        AUDERR("kelva: %s failed to start on %s\n", name, player_path);
        kelva_destroy(k);
        free(player);
        return false;
    }
    apply_config(k);
    open_audio(FMT_FLOAT, kRate, 2);

    int32_t length = -1;
    cache_lookup(cache_make_key(mod, mod_len, subtune), &length);

    std::vector<float> block(size_t(kBlockFrames) * 2);
    bool ok = true;
    while (!check_stop()) {
        int seek = check_seek();
        if (seek >= 0) {
            // The emulation cannot jump in time: restart the song and render
            // silently up to the target.
            if (kelva_open(k, player, player_len, mod, mod_len, player_path, name, subtune) != 0) {
                ok = false;
                break;
            }
            apply_config(k);
            int64_t skip = int64_t(seek) * (kRate / 1000);
            while (skip > 0 && !check_stop()) {
                int32_t n = skip < kBlockFrames ? int32_t(skip) : kBlockFrames;
                kelva_render(k, block.data(), n);
                skip -= n;
            }
            if (skip > 0) break;
        }
        kelva_render(k, block.data(), kBlockFrames);
        write_audio(block.data(), int(block.size() * sizeof(float)));
        bool more = !kelva_song_ended(k) && (length <= 0 || kelva_played_ms(k) < length);
        // With "no advance" set the host expects the song to go on until it
        // stops it.
        if (!more && !aud_get_bool(nullptr, "no_playlist_advance")) break;
    }

    kelva_close(k);
    kelva_destroy(k);
    free(player);
    return ok;
}

bool KelvaPlugin::read_tag(const char *filename, VFSFile &file, Tuple &tuple, Index<char> *image) {
    char base[kNameCap], name[kNameCap];
    int32_t subtune = module_name_of(filename, base, name);
    Index<char> module;
    if (!read_module(file, base, &module) || !usable_size(module)) return false;
    const uint8_t *mod = bytes_of(module);
    uint32_t mod_len = uint32_t(module.len());

    char player_path[kPlayerPathCap];
    if (!kelva_identify(name, mod, mod_len, player_path, sizeof player_path)) return false;

    // One start of the module (once per process; cached) gives its
    // subsongs, the title and author its player reports, and its format.
    module_info info = module_info_get(player_path, name, mod, mod_len);
    tuple.set_str(Tuple::Title, module_entry_title(info, last_component(name), subtune).c_str());
    if (!info.author.empty()) tuple.set_str(Tuple::Artist, info.author.c_str());
    tuple.set_format(module_format_label(info, player_path).c_str(), 2, kRate, 0);

    if (subtune < 0 && info.count > 1) {
        short subs[kMaxSubtunes];
        int n = info.count < kMaxSubtunes ? info.count : kMaxSubtunes;
        for (int i = 0; i < n; i++) subs[i] = short(i + 1);
        tuple.set_subtunes(short(n), subs);
        return true;
    }

    int32_t song = subtune < 0 ? 0 : subtune;
    cache_key key = cache_make_key(mod, mod_len, song);
    int32_t length = -1;
    if (!cache_lookup(key, &length)) {
        if (!image) {
            scan_enqueue(filename);
            return true;
        }
        scan_subsong(player_path, name, mod, mod_len, song);
        cache_lookup(key, &length);
    }
    if (length > 0) tuple.set_int(Tuple::Length, length);
    return true;
}
