// Helpers of the MED and AHX player tests: open a built player on a module
// image, check what it plays at listed ticks, identify the shared modules.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "ptk_support.h"

namespace med_ahx {
using namespace ptk_test;

// Opens player `name` on `mod` at `subsong` (from `path`, its companion files
// served from `files`); null when kelva_open fails.
inline engine_ptr open_as(const char *name, const std::vector<uint8_t> &mod, int subsong = 0,
                          memory_files *files = nullptr, const char *path = nullptr) {
    kelva_global_init();
    engine_ptr k = make_engine(48000);
    kelva_set_separation(k.get(), 1.0f);
    if (files) kelva_set_file_loader(k.get(), memory_loader, files);
    std::string pp = player_path(name);
    std::vector<uint8_t> p = read_bytes(pp);
    bool ok = kelva_open(k.get(), p.data(), uint32_t(p.size()), mod.data(), uint32_t(mod.size()), pp.c_str(),
                         path, subsong) == 0;
    return ok ? std::move(k) : nullptr;
}

// Expected values: (tick, value); tick -1 is before the first tick.
using trace = std::vector<std::pair<int, int>>;
inline trace every(int n, std::vector<int> v) {   // the values after ticks 0, n, 2n, ...
    trace t;
    for (size_t i = 0; i < v.size(); i++) t.push_back({int(i) * n, v[i]});
    return t;
}
inline trace series(std::vector<int> v) { return every(1, std::move(v)); }

// Runs `k` through the listed ticks (in order), comparing observe() after each.
template <class F> void expect_trace(kelva *k, const trace &t, F observe) {
    int done = 0;
    for (const auto &e : t) {
        if (e.first + 1 > done) run_ticks(k, e.first + 1 - done), done = e.first + 1;
        EXPECT_EQ(observe(), e.second) << "tick " << e.first;
    }
}

// The shared module `rel` is identified as `player`'s and opens with `format`
// and `title`; returns the engine.
inline engine_ptr expect_identified(const std::string &rel, const char *player, const char *format,
                                    const char *title) {
    data_tree_env env;
    kelva_global_init();
    std::string path = shared_dir() + "/testdata/modules/" + rel;
    std::vector<uint8_t> data = read_bytes(path);
    char found[4096] = "", name[64] = "";
    EXPECT_TRUE(kelva_identify(path.c_str(), data.data(), uint32_t(data.size()), found, sizeof found)) << rel;
    EXPECT_EQ(std::string(found), player_path(player)) << rel;
    engine_ptr k = open_as(player, data, 0, nullptr, path.c_str());
    if (!k) return ADD_FAILURE() << rel << " does not open", nullptr;
    EXPECT_STREQ(kelva_get_format_name(k.get()), format) << rel;
    kelva_get_module_name(k.get(), name, sizeof name);
    EXPECT_STREQ(name, title) << rel;
    return k;
}

}  // namespace med_ahx
