// Fuzz target: player identification of a hostile module against a fixed
// eagleplayer.conf. The first input byte picks the module's name and the
// output capacity, the rest is the module. After identification the chosen
// player's options are resolved as module opening does.
#include <cstring>

#include "conf_fixture.h"
#include "engine/engine.h"
#include "fuzz_support.h"
#include "selection/epconf.h"

namespace {
kelva *k;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::make_tree(fuzz::kFixedConf, fuzz::kFixedPlayers);
    kelva_global_init();
    k = kelva_create(48000);
    return k ? 0 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > (4u << 20)) return 0;
    fuzz::input in{data, size};
    uint8_t sel = in.byte();
    const char *name = fuzz::kModuleNames[sel % fuzz::kModuleNameCount];
    // Mostly a roomy buffer, sometimes one too small for the player's path.
    uint32_t capacity = (sel & 0x80) ? 1 + (sel & 0x3F) : 4096;

    char out[4096];
    memset(out, 'Z', sizeof out);
    int found = kelva_identify(name, in.data, uint32_t(in.size), out, capacity);
    if (!found) {
        FUZZ_CHECK(out[0] == 'Z');   // left alone on failure
        return 0;
    }
    FUZZ_CHECK(memchr(out, '\0', capacity) != nullptr);

    epconf_resolve_epopt(k, out, name, in.data, uint32_t(in.size));
    FUZZ_CHECK(memchr(k->epopt, '\0', sizeof k->epopt) != nullptr);
    FUZZ_CHECK(kelva_get_format_name(k) != nullptr);
    return 0;
}
