// Regression runner for a fuzz target built without libFuzzer: feeds every
// file named on the command line, and every regular file inside each folder
// named, to LLVMFuzzerTestOneInput, in name order, once each. A crash or a
// sanitizer report ends the program; otherwise it prints how many inputs ran.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

int main(int argc, char **argv) {
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::string> inputs;
    for (int i = 1; i < argc; i++) {
        if (argv[i][0] == '\0' || argv[i][0] == '-') continue;   // libFuzzer-style flags are ignored
        std::error_code ec;
        std::vector<std::string> found = fuzz::list_folder(argv[i]);
        if (!std::filesystem::is_directory(argv[i], ec)) found = {argv[i]};
        inputs.insert(inputs.end(), found.begin(), found.end());
    }
    if (inputs.empty()) {
        fprintf(stderr, "fuzz runner: no inputs (usage: %s FILE|FOLDER...)\n", argv[0]);
        return 1;
    }
    std::vector<uint8_t> data;
    for (const std::string &path : inputs) {
        if (!fuzz::read_file(path, &data)) {
            fprintf(stderr, "fuzz runner: cannot read %s\n", path.c_str());
            return 1;
        }
        fprintf(stderr, "fuzz runner: %s (%zu bytes)\n", path.c_str(), data.size());
        // A copy of exactly the file's size, so that a read past the end is
        // caught by AddressSanitizer as it would be under libFuzzer.
        uint8_t *copy = static_cast<uint8_t *>(malloc(data.size() ? data.size() : 1));
        std::copy(data.begin(), data.end(), copy);
        LLVMFuzzerTestOneInput(copy, data.size());
        free(copy);
    }
    printf("fuzz runner: %zu inputs ran\n", inputs.size());
    return 0;
}
