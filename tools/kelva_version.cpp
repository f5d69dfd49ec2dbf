// Prints the engine's version; used by scripts/demo.sh until the
// command-line player exists.
#include <cstdio>

#include "engine/kelva.h"

int main() {
    printf("%s\n", kelva_version());
    return 0;
}
