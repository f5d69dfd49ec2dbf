// Fuzz target: reading a hostile eagleplayer.conf. The input is written as
// the data tree's configuration; then every fixed module name is identified
// against it (with a 31-instrument module and a TFMX header as contents) and
// the options of the chosen player are resolved.
#include <cstring>
#include <string>

#include "conf_fixture.h"
#include "engine/engine.h"
#include "fuzz_support.h"
#include "selection/epconf.h"

namespace {

kelva *k;
uint8_t mk_module[2652];
uint8_t tfmx_module[600];

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::make_tree(fuzz::kFixedConf, fuzz::kFixedPlayers);
    kelva_global_init();
    k = kelva_create(48000);
    // A minimal "M.K." module: one pattern, all samples empty.
    mk_module[950] = 1;
    memcpy(mk_module + 1080, "M.K.", 4);
    memcpy(tfmx_module, "TFMX-SONG ", 10);
    return k ? 0 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > (1u << 20)) return 0;
    const std::string conf = fuzz::tree_dir() + "/eagleplayer.conf";
    if (!fuzz::write_file(conf, data, size)) abort();

    char out[4096];
    for (unsigned i = 0; i < fuzz::kModuleNameCount; i++) {
        const char *name = fuzz::kModuleNames[i];
        const uint8_t *module = (i & 1) ? tfmx_module : mk_module;
        uint32_t len = (i & 1) ? sizeof tfmx_module : sizeof mk_module;
        if (!kelva_identify(name, module, len, out, sizeof out)) continue;
        FUZZ_CHECK(memchr(out, '\0', sizeof out) != nullptr);
        epconf_resolve_epopt(k, out, name, module, len);
        FUZZ_CHECK(memchr(k->epopt, '\0', sizeof k->epopt) != nullptr);
    }
    // Option lookup for players the configuration may name.
    for (const char *p : {"PTK-Prowiz", "A", "B"}) {
        std::string player = fuzz::tree_dir() + "/players/" + p;
        epconf_resolve_epopt(k, player.c_str(), "tune.mod", mk_module, sizeof mk_module);
        FUZZ_CHECK(memchr(k->epopt, '\0', sizeof k->epopt) != nullptr);
    }
    return 0;
}
