#include "plugin/modinfo.h"

#include <map>
#include <mutex>

#include "engine/kelva.h"
#include "plugin/hostio.h"
#include "plugin/scan.h"
#include "plugin/songdb.h"

namespace {

// Guards info_cache; never held together with cache_mtx.
std::mutex info_mtx;
std::map<cache_key, module_info> info_cache;

bool is_alnum_latin1(uint8_t c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           (c >= 0xC0 && c != 0xD7 && c != 0xF7);
}

}  // namespace

std::string module_text_clean(const char *raw) {
    std::string out;
    bool meaningful = false;
    for (const uint8_t *p = reinterpret_cast<const uint8_t *>(raw); p && *p; p++) {
        uint8_t c = *p;
        // C0 and C1 control bytes and DEL are not text.
        if (c < 0x20 || (c >= 0x7F && c < 0xA0)) continue;
        if (c == 0xA0) c = ' ';   // no-break space pads like a space
        if (is_alnum_latin1(c)) meaningful = true;
        if (c < 0x80) {
            out.push_back(char(c));
        } else {
            out.push_back(char(0xC0 | (c >> 6)));
            out.push_back(char(0x80 | (c & 0x3F)));
        }
    }
    if (!meaningful) return std::string();
    size_t first = out.find_first_not_of(' ');
    size_t last = out.find_last_not_of(' ');
    return out.substr(first, last - first + 1);
}

void module_info_read(kelva *k, module_info *out) {
    char text[256];
    out->started = true;
    out->count = int32_t(kelva_get_subsong_count(k));
    kelva_get_module_name(k, text, sizeof text);
    out->title = module_text_clean(text);
    kelva_get_author_name(k, text, sizeof text);
    out->author = module_text_clean(text);
    out->format = module_text_clean(kelva_get_format_name(k));
    out->signals_end = (kelva_get_player_flags(k) & KELVA_PLAYER_SONGEND) != 0;
}

module_info module_info_get(const char *player_path, const char *module_name, const uint8_t *data,
                            uint32_t size) {
    cache_key key = cache_make_key(data, size, kSubsongCountSeed);
    {
        std::lock_guard<std::mutex> lock(info_mtx);
        auto it = info_cache.find(key);
        if (it != info_cache.end()) return it->second;
    }
    module_info info;
    kelva *k = open_for_scan(player_path, module_name, data, size, 0);
    if (k) {
        module_info_read(k, &info);
        kelva_destroy(k);
    }
    int32_t known = 0;
    if (!cache_lookup(key, &known)) cache_store(key, info.count, module_name);
    std::lock_guard<std::mutex> lock(info_mtx);
    info_cache.emplace(key, info);
    return info;
}

void module_info_forget() {
    std::lock_guard<std::mutex> lock(info_mtx);
    info_cache.clear();
}

std::string module_format_label(const module_info &info, const char *player_path) {
    std::string player = last_component(player_path);
    return info.format.empty() ? player : info.format + ", " + player;
}

std::string module_entry_title(const module_info &info, const char *file_name, int32_t subtune) {
    std::string title = info.title.empty() ? std::string(file_name) : info.title;
    if (subtune >= 1 && info.count > 1)
        title += " (" + std::to_string(subtune) + "/" + std::to_string(info.count) + ")";
    return title;
}
