// Fuzz target: player identification of a hostile module against a fixed
// eagleplayer.conf. The first input byte picks the module's name and the
// output capacity, the rest is the module. After identification the chosen
// player's options are resolved as module opening does.
#include "fuzz_support.h"
#include "selection/epconf.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::make_tree();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > (4u << 20)) return 0;
    uint8_t sel = size ? data[0] : 0;
    const uint8_t *module = size ? data + 1 : data;
    uint32_t len = uint32_t(size ? size - 1 : 0);
    const char *name = fuzz::kModuleNames[sel % fuzz::kModuleNameCount];
    // Mostly a roomy buffer, sometimes one too small for the player's path.
    uint32_t capacity = (sel & 0x80) ? 1 + (sel & 0x3F) : 4096;

    char out[4096];
    memset(out, 'Z', sizeof out);
    if (!kelva_identify(name, module, len, out, capacity)) {
        FUZZ_CHECK(out[0] == 'Z');   // left alone on failure
        return 0;
    }
    FUZZ_CHECK(memchr(out, '\0', capacity) != nullptr);
    kelva *k = fuzz::engine();
    epconf_resolve_epopt(k, out, name, module, len);
    FUZZ_CHECK(memchr(k->epopt, '\0', sizeof k->epopt) != nullptr);
    FUZZ_CHECK(kelva_get_format_name(k) != nullptr);
    return 0;
}
