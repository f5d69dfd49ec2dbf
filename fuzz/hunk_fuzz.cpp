// Fuzz target: the hunk loader. The input is an executable file; it is
// loaded as the engine loads a player (header, then contents at the player
// base with relocation) and twice through LoadSeg with an in-memory file
// loader, which must leave the player's hunk table as it was and return
// either 0 or a segment list inside the allocation slab.
#include "amigaos/amigaos.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > (1u << 20)) return 0;
    uint32_t len = uint32_t(size);
    kelva *k = fuzz::engine();

    k->hunk_count = 0;
    uint32_t offset = 0;
    if (hunk_parse_header(k, data, len, &offset)) {
        FUZZ_CHECK(k->hunk_count >= 1 && k->hunk_count <= 64);
        FUZZ_CHECK(offset <= len);
        uint32_t addr = kPlayerBase;
        for (uint32_t h = 0; h < k->hunk_count; h++) {
            k->hunk_addr[h] = addr;
            addr += k->hunk_size[h];
        }
        hunk_read_contents(k, data, len, offset);
    }

    // As 68k code loads a segment: two requests for the same file.
    uint32_t count = k->hunk_count, addr0 = k->hunk_addr[0];
    fuzz::memory_file file{data, size};
    kelva_set_file_loader(k, fuzz::memory_file_loader, &file);
    k->alloc_ptr = kSlabStart;
    memcpy(k->ram + 0x1000, "fuzz.seg", 9);
    for (int i = 0; i < 2; i++) {
        k->d[1] = 0x1000;
        dos_load_seg(k);
        uint32_t first_block = (k->d[0] << 2) - 4;
        FUZZ_CHECK(k->d[0] == 0 || (first_block >= kSlabStart && first_block < kSlabEnd));
        FUZZ_CHECK(k->alloc_ptr <= kSlabEnd);
        FUZZ_CHECK(k->hunk_count == count && k->hunk_addr[0] == addr0);
    }
    kelva_set_file_loader(k, nullptr, nullptr);
    return 0;
}
