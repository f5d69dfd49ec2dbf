// Fuzz target: reading a hostile eagleplayer.conf. The input is written as
// the data tree's configuration; then every fixed module name is identified
// against it (with a 31-instrument module and a TFMX header as contents) and
// the options of the chosen player are resolved.
#include "fuzz_support.h"
#include "selection/epconf.h"

namespace {

uint8_t mk_module[2652];   // a minimal "M.K." module: one pattern, all samples empty
uint8_t tfmx_module[600];

void check_options(const char *player, const char *name, const uint8_t *module, uint32_t len) {
    kelva *k = fuzz::engine();
    epconf_resolve_epopt(k, player, name, module, len);
    FUZZ_CHECK(memchr(k->epopt, '\0', sizeof k->epopt) != nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::make_tree();
    mk_module[950] = 1;
    memcpy(mk_module + 1080, "M.K.", 4);
    memcpy(tfmx_module, "TFMX-SONG ", 10);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > (1u << 20)) return 0;
    FUZZ_CHECK(fuzz::write_file(fuzz::tree_dir + "/eagleplayer.conf", data, size));
    char out[4096];
    for (unsigned i = 0; i < fuzz::kModuleNameCount; i++) {
        const char *name = fuzz::kModuleNames[i];
        const uint8_t *module = (i & 1) ? tfmx_module : mk_module;
        uint32_t len = (i & 1) ? sizeof tfmx_module : sizeof mk_module;
        if (!kelva_identify(name, module, len, out, sizeof out)) continue;
        FUZZ_CHECK(memchr(out, '\0', sizeof out) != nullptr);
        check_options(out, name, module, len);
    }
    // Option lookup for players the configuration may name.
    for (const char *p : {"PTK-Prowiz", "A", "B"})
        check_options((fuzz::tree_dir + "/players/" + p).c_str(), "tune.mod", mk_module, sizeof mk_module);
    return 0;
}
