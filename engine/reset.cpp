// Machine reset: the fixed memory layout in which every player starts.
#include <cstdlib>
#include <cstring>

#include "engine/engine.h"
#include "hardware/bus.h"
#include "selection/datatree.h"

namespace {

constexpr uint16_t kMoveq0 = 0x7000;   // moveq #0,d0
constexpr uint16_t kRts = 0x4E75;

// Fills `entries` jump-table slots below `base` with the default stub
// (moveq #0,d0; rts): an unimplemented library call returns 0.
void default_table(kelva *k, uint32_t base, int entries) {
    for (int i = 1; i <= entries; i++) {
        ram_put16(k, base - 6 * uint32_t(i), kMoveq0);
        ram_put16(k, base - 6 * uint32_t(i) + 2, kRts);
    }
}

// A trap stub: the line-A word enters the host, the rts returns.
void trap_stub(kelva *k, uint32_t addr, uint16_t trap) {
    ram_put16(k, addr, trap);
    ram_put16(k, addr + 2, kRts);
}

void write_libraries(kelva *k) {
    default_table(k, kExecBase, 200);
    trap_stub(k, kExecBase - 198, 0xA000);   // AllocMem
    trap_stub(k, kExecBase - 210, 0xA001);   // FreeMem
    trap_stub(k, kExecBase - 552, 0xA002);   // OpenLibrary
    trap_stub(k, kExecBase - 408, 0xA002);   // OldOpenLibrary
    trap_stub(k, kExecBase - 414, 0xA003);   // CloseLibrary
    trap_stub(k, kExecBase - 534, 0xA004);   // TypeOfMem
    trap_stub(k, kExecBase - 498, 0xA005);   // OpenResource
    trap_stub(k, kExecBase - 168, 0xA006);   // AddIntServer
    trap_stub(k, kExecBase - 162, 0xA007);   // SetIntVector
    trap_stub(k, kExecBase - 180, 0xA008);   // Cause

    default_table(k, kDosBase, 80);
    trap_stub(k, kDosBase - 30, 0xA100);    // Open
    trap_stub(k, kDosBase - 36, 0xA101);    // Close
    trap_stub(k, kDosBase - 42, 0xA102);    // Read
    trap_stub(k, kDosBase - 66, 0xA103);    // Seek
    trap_stub(k, kDosBase - 84, 0xA104);    // Lock
    trap_stub(k, kDosBase - 90, 0xA105);    // UnLock
    trap_stub(k, kDosBase - 150, 0xA106);   // LoadSeg
    trap_stub(k, kDosBase - 156, 0xA107);   // UnLoadSeg

    default_table(k, kLib2Base, 120);
    default_table(k, kLib3Base, 120);
    default_table(k, kUaBase, 40);
    trap_stub(k, kUaBase - 24, 0xA800);     // option lookup

    for (uint32_t i = 1; i <= 4; i++) {     // AddICRVector, RemICRVector, AbleICR, SetICR
        trap_stub(k, kCiaAResource - 6 * i, uint16_t(0xA600 + i));
        trap_stub(k, kCiaBResource - 6 * i, uint16_t(0xA700 + i));
    }

    // Catch-all table below the globals: support entries found by PC.
    for (uint32_t i = 1; i <= 500; i++) trap_stub(k, kGlobals - 6 * i, 0xA500);
}

void write_globals(kelva *k) {
    ram_put16(k, kExecBase + 0x212, 0x3232);   // 50 Hz vertical blank and power supply
    ram_put32(k, kGlobals + 4, kDosBase);
    ram_put32(k, kGlobals + 8, kLib2Base);
    ram_put32(k, kGlobals + 12, kLib3Base);
    ram_put16(k, kGlobals + 46, 64);   // volume
    ram_put16(k, kGlobals + 48, 64);   // left balance
    ram_put16(k, kGlobals + 50, 64);   // right balance
    ram_put16(k, kGlobals + 54, 14188);   // CIA timer value for 50 Hz
    for (uint32_t i = 0; i <= 32; i++) {
        trap_stub(k, kSupportStubs + 4 * i, uint16_t(0xA400 + i));
        ram_put32(k, kGlobals + 56 + 4 * i, kSupportStubs + 4 * i);
    }
    ram_put16(k, kGlobals + 0x146, 0x000F);   // voice-enable mask
    for (uint32_t i = 0; i < 4; i++) ram_put16(k, kGlobals + 0x148 + 2 * i, 64);
    ram_put32(k, 4, kExecBase);
}

}  // namespace

void kelva_reset(kelva *k, int32_t rate) {
    memset(k->ram, 0, sizeof k->ram);

    k->rate = rate;
    k->requested_subsong = 0;
    k->subsong_count = 1;
    k->measure_mode = 0;
    k->played_frames = 0;
    k->song_end_frame = 0;

    if (!k->loader) {
        k->loader = default_load;
        k->loader_user = nullptr;
    }

    k->separation = 1.0f;
    k->model = 0;
    k->led_mode = 0;

    write_libraries(k);
    write_globals(k);
    k->alloc_ptr = kSlabStart;

    paula_reset(k);
    cia_reset(k);
    k->dmacon = k->intena = k->intreq = k->adkcon = 0;
    memset(k->int_vectors, 0, sizeof k->int_vectors);
    memset(k->pending, 0, sizeof k->pending);
    k->pending_count = 0;
    k->mix.led_on = 1;

    memset(k->routines, 0, sizeof k->routines);
    k->player_name_addr = k->creator_addr = 0;
    k->player_flags = k->module_name_ref = k->author_name_ref = k->format_name_ref = 0;
    k->format_name[0] = '\0';
    k->player_version = k->request_version = 0;
    memset(k->epopt, 0, sizeof k->epopt);
    k->comp_count = 0;
    k->comp_next = kModuleAddr;
    memset(k->scratch, 0, sizeof k->scratch);

    k->hunk_count = 0;
    k->module_addr = k->module_size = 0;
    k->tick_routine = 0;
    k->frames_per_vblank = k->frames_per_tick = k->frames_to_vblank = k->frames_to_tick = 0;
    for (dos_handle &f : k->files) {
        free(f.data);
        f = dos_handle{};
    }
    memset(k->support_calls, 0, sizeof k->support_calls);

    custom_write_word(k, 0xDFF096, 0x8200);   // DMA master on, no channel running
}
