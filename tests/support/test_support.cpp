#include "support/test_support.h"

#include <sys/stat.h>

std::string shared_dir() {
    struct stat st;
    if (stat(KELVA_SHARED_DIR, &st) != 0 || !S_ISDIR(st.st_mode)) return {};
    return KELVA_SHARED_DIR;
}

bool shared_exists(const std::string &sub) {
    struct stat st;
    return stat((std::string(KELVA_SHARED_DIR) + "/" + sub).c_str(), &st) == 0;
}

engine_ptr make_engine(int32_t rate) {
    return engine_ptr(kelva_create(rate));
}
