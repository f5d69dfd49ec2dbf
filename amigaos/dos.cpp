// dos.library as 68k code sees it: open, close, read, seek and an existence
// test. A file is loaded whole through the engine's file loader when it is
// opened; reads copy from that host buffer into emulated memory. Handles are
// slot numbers plus one (1..8).
#include <cstdlib>

#include "amigaos/amigaos.h"
#include "engine/engine.h"
#include "hardware/bus.h"
#include "selection/datatree.h"

namespace {

constexpr uint32_t kNameMax = 512;   // 511 characters and the NUL
constexpr uint32_t kBadHandle = 0xFFFFFFFF;
constexpr int kSlots = int(sizeof(kelva::files) / sizeof(kelva::files[0]));

// The slot behind a handle, or null for a handle out of range or not open.
dos_handle *slot_of(kelva *k, uint32_t handle) {
    uint32_t i = handle - 1;
    if (i >= uint32_t(kSlots)) return nullptr;
    dos_handle *f = &k->files[i];
    return f->data ? f : nullptr;
}

uint32_t dos_open(kelva *k) {
    int free_slot = -1;
    for (int i = 0; i < kSlots; i++) {
        if (!k->files[i].data) {
            free_slot = i;
            break;
        }
    }
    if (free_slot < 0) return 0;
    char name[kNameMax];
    amiga_read_string(k, k->d[1], name, sizeof name);
    uint8_t *data = nullptr;
    uint32_t size = 0;
    if (!host_load_file(k, name, &data, &size) || !data) return 0;
    k->files[free_slot] = dos_handle{data, size, 0};
    return uint32_t(free_slot + 1);
}

uint32_t dos_close(kelva *k) {
    if (dos_handle *f = slot_of(k, k->d[1])) {
        free(f->data);
        *f = dos_handle{};
    }
    return kBadHandle;   // Close reports -1 whatever happened
}

uint32_t dos_read(kelva *k) {
    dos_handle *f = slot_of(k, k->d[1]);
    if (!f) return kBadHandle;
    uint32_t left = f->position < f->size ? f->size - f->position : 0;
    uint32_t n = k->d[3] < left ? k->d[3] : left;
    uint32_t dst = k->d[2];
    const uint8_t *src = f->data + f->position;
    for (uint32_t i = 0; i < n; i++) write8(k, dst + i, src[i]);
    f->position += n;
    return n;
}

uint32_t dos_seek(kelva *k) {
    dos_handle *f = slot_of(k, k->d[1]);
    if (!f) return kBadHandle;
    uint32_t old = f->position;
    int32_t mode = int32_t(k->d[3]);
    int64_t base = mode < 0 ? 0 : mode == 0 ? int64_t(f->position) : int64_t(f->size);
    int64_t pos = base + int32_t(k->d[2]);
    if (pos < 0) pos = 0;
    if (pos > int64_t(f->size)) pos = f->size;
    f->position = uint32_t(pos);
    return old;
}

uint32_t dos_lock(kelva *k) {
    char name[kNameMax];
    amiga_read_string(k, k->d[1], name, sizeof name);
    uint8_t *data = nullptr;
    uint32_t size = 0;
    if (!host_load_file(k, name, &data, &size)) return 0;
    free(data);
    return 1;
}

}  // namespace

void dos_dispatch(kelva *k, uint32_t fn) {
    switch (fn) {
    case 0: k->d[0] = dos_open(k); break;
    case 1: k->d[0] = dos_close(k); break;
    case 2: k->d[0] = dos_read(k); break;
    case 3: k->d[0] = dos_seek(k); break;
    case 4: k->d[0] = dos_lock(k); break;
    default: k->d[0] = 0; break;
    }
    trap_set_cc_from_d0(k);
}
