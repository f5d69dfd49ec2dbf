// Fuzz target: the content checks over a module's bytes: the 31-instrument
// tag test and classification, the 15-instrument test, the TFMX test and
// the pattern tally. Each is given exactly the input, so a read past its end
// is an AddressSanitizer report.
#include "fuzz_support.h"
#include "selection/classify.h"
#include "selection/epconf.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > (4u << 20)) return 0;
    uint32_t len = uint32_t(size);

    bool tagged = mod_tag_is_31(data, len);
    int kind = mod31_classify(data, len);
    FUZZ_CHECK(kind >= MOD31_PROTRACKER && kind <= MOD31_COMP);
    if (len < 1084) FUZZ_CHECK(!tagged && kind == 0);
    const char *st15 = len >= 2652 ? st15_choose_player(data, len) : nullptr;
    FUZZ_CHECK(!st15 || st15[0] != '\0');
    const char *tfmx = tfmx_choose_player(data, len);
    FUZZ_CHECK(!tfmx || tfmx[0] == 'T');

    // Pattern tallies from the offsets the checks use, and from one taken
    // from the input itself.
    cell_tally t{};
    tally_patterns(data, len, 600, 64, &t);
    tally_patterns(data, len, 1084, 128, &t);
    if (len >= 8) {
        uint32_t first = uint32_t(data[0]) << 24 | uint32_t(data[1]) << 16 | uint32_t(data[2]) << 8 | data[3];
        uint32_t count = uint32_t(data[4]) << 24 | uint32_t(data[5]) << 16 | uint32_t(data[6]) << 8 | data[7];
        tally_patterns(data, len, first, count, &t);
    }
    return 0;
}
