// Helpers shared by the unit tests.
#pragma once

#include <memory>
#include <string>

#include "engine/engine.h"

// Path of the shared test data folder, or empty when it is absent.
std::string shared_dir();
// Skips the current test with a clear message when the shared folder (or a
// subfolder of it) is missing.
#define KELVA_REQUIRE_SHARED(sub)                                                          \
    do {                                                                                   \
        if (shared_dir().empty() || !shared_exists(sub))                                   \
            GTEST_SKIP() << "shared test data not found (" << KELVA_SHARED_DIR << "/" << sub \
                         << "); set KELVA_SHARED_DIR at configure time";                   \
    } while (0)
bool shared_exists(const std::string &sub);

struct engine_deleter {
    void operator()(kelva *k) const { kelva_destroy(k); }
};
using engine_ptr = std::unique_ptr<kelva, engine_deleter>;
// A fresh engine at the given rate (tests that run 68k code call
// kelva_global_init() themselves).
engine_ptr make_engine(int32_t rate = 48000);
