// Fuzz target: the song-length database loader. The input is a
// songlengths.db; it is read from memory by db_load and from a file in a
// private XDG_DATA_HOME by db_open. Every record the loader keeps must be
// found again by cache_lookup, and the map is emptied after each input.
#include "fuzz_support.h"
#include "plugin/songdb.h"

namespace {

void check_and_clear() {
    std::map<cache_key, int32_t> copy;
    {
        std::lock_guard<std::mutex> lock(cache_mtx);
        copy = cache_val;
    }
    for (const auto &[key, value] : copy) {
        int32_t v = 0;
        FUZZ_CHECK(cache_lookup(key, &v) && v == value);
    }
    std::lock_guard<std::mutex> lock(cache_mtx);
    cache_val.clear();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::make_tree();
    setenv("XDG_DATA_HOME", fuzz::tree_dir.c_str(), 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > (1u << 20)) return 0;
    if (size > 0) {
        if (FILE *f = fmemopen(const_cast<uint8_t *>(data), size, "r")) {
            db_load(f);
            fclose(f);
        }
        check_and_clear();
    }
    // The first open creates the folder; afterwards the file is replaced,
    // under the current version line so that db_open loads it.
    db_open();
    db_close();
    std::string text = std::string(kDbHeader) + "\n" + std::string(reinterpret_cast<const char *>(data), size);
    FUZZ_CHECK(fuzz::write_file(fuzz::tree_dir + "/kelva/songlengths.db", text.data(), text.size()));
    db_open();
    db_close();
    check_and_clear();
    return 0;
}
