// The engine record: one complete emulated Amiga in one plain allocation.
// Every internal function takes it as its first argument.
#pragma once

#include <cstddef>
#include <cstdint>

#include "engine/kelva.h"
#include "hardware/hardware.h"

constexpr uint32_t kRamSize = 0x1000000;   // the whole 24-bit address space
constexpr uint32_t kAddrMask = 0xFFFFFF;

// Fixed addresses of the memory layout every player starts in.
constexpr uint32_t kExecBase = 0xF80000;
constexpr uint32_t kDosBase = 0xF81000;
constexpr uint32_t kLib2Base = 0xF82000;     // names beginning "in"
constexpr uint32_t kLib3Base = 0xF83000;     // names beginning "gr"
constexpr uint32_t kUaBase = 0xF84000;       // names beginning "ua": option lookup
constexpr uint32_t kCiaAResource = 0xF86000;
constexpr uint32_t kCiaBResource = 0xF87000;
constexpr uint32_t kGlobals = 0xF90000;      // player globals, passed in A5
constexpr uint32_t kSupportStubs = 0xF95000;
constexpr uint32_t kPathFull = 0xF81400;
constexpr uint32_t kPathDir = 0xF81800;
constexpr uint32_t kPathFile = 0xF81A00;
constexpr uint32_t kModuleAddr = 0x010000;
constexpr uint32_t kModuleMax = 0xF0000;     // 983,040 bytes
constexpr uint32_t kPlayerBase = 0x200000;
constexpr uint32_t kSlabStart = 0x400000;
constexpr uint32_t kSlabEnd = 0x800000;
constexpr uint32_t kStackTop = 0x00EEFFFC;
constexpr uint32_t kReturnSentinel = 0x00EFFFF0;
constexpr uint32_t kStepBudget = 50000000;

// Player-interface routines kept from the tag list, by slot.
enum deli_routine : uint32_t {
    DELI_CHECK1,
    DELI_CHECK2,
    DELI_EXTLOAD,
    DELI_INTERRUPT,
    DELI_CONFIG,
    DELI_SUBSONGRANGE,
    DELI_INITPLAYER,
    DELI_ENDPLAYER,
    DELI_INITSOUND,
    DELI_ENDSOUND,
    DELI_STARTINT,
    DELI_STOPINT,
    DELI_VOLUME,
    DELI_BALANCE,
    DELI_VOICES,
    DELI_INITHOOK,
    DELI_ROUTINE_COUNT
};

// One open dos.library file: the whole file in a host buffer.
struct dos_handle {
    uint8_t *data;   // null when the slot is free
    uint32_t size;
    uint32_t position;
};

constexpr int kSupportEntries = 66;   // negative-offset entries 1..65 (index 0 unused)

struct kelva {
    // 1. Processor state.
    uint32_t d[8];
    uint32_t a[8];     // a[7] is the active stack pointer
    uint32_t usp;
    uint32_t ssp;
    uint32_t pc;
    uint32_t vbr;
    uint16_t sr;
    uint8_t stopped;
    uint8_t fault;
    uint64_t cycles;

    // 2. The address space, big-endian.
    uint8_t ram[kRamSize];

    // 3. Hardware.
    paula_mixer mix;
    paula_fast_tables mix_fast[2];   // [led_on]: the frame-at-a-time tables, built on first use
    uint8_t mix_per_tick;            // non-zero: mix one tick at a time (the reference path)
    paula_channel ch[4];
    audio_latch aud[4];
    uint16_t dmacon;
    uint16_t intena;
    uint16_t intreq;
    uint16_t adkcon;
    cia_state cia[2];   // [0] = CIA-A, [1] = CIA-B

    // 4. Interrupt hooks: exec's vector table (5 = vertical blank,
    // 7..10 = AUD0..AUD3) and the CIA handlers due after a chunk.
    uint32_t int_vectors[16];
    uint32_t pending[8];
    uint32_t pending_count;

    // 5. AllocMem slab cursor.
    uint32_t alloc_ptr;

    // 6. Player routines, 0 = absent.
    uint32_t routines[DELI_ROUTINE_COUNT];

    // 7. Player identity.
    uint32_t player_name_addr;
    uint32_t creator_addr;
    uint16_t player_version;
    uint16_t request_version;
    // The player's flags tag (KELVA_PLAYER_* bits) and the addresses of the
    // longs through which it names the module, its author and its format
    // (each long holds the address of a NUL-terminated string, or 0).
    uint32_t player_flags;
    uint32_t module_name_ref;
    uint32_t author_name_ref;
    uint32_t format_name_ref;
    char format_name[128];   // the player's format name, copied when opened

    // 8. Subsongs.
    int32_t requested_subsong;
    uint32_t subsong_count;

    // 9. Companion files.
    uint32_t comp_addr[16];
    uint32_t comp_size[16];
    uint32_t comp_count;
    uint32_t comp_next;

    // 10. Option string from eagleplayer.conf, e.g. "type:pt30".
    char epopt[256];

    // 11. Hunk table of the loaded player (or of a LoadSeg in progress).
    uint32_t hunk_count;
    uint32_t hunk_addr[64];
    uint32_t hunk_size[64];

    // 12. Module.
    uint32_t module_addr;
    uint32_t module_size;

    // 13. File loader.
    kelva_file_loader loader;
    void *loader_user;

    // 14. Settings.
    int32_t rate;
    float separation;
    uint32_t model;
    uint32_t led_mode;

    // 15. Timing, in output frames.
    int32_t frames_per_vblank;
    int32_t frames_per_tick;
    int32_t frames_to_vblank;
    int32_t frames_to_tick;
    uint32_t tick_routine;

    // 16. Played frames and the frame at which the player signalled its end.
    uint64_t played_frames;
    uint64_t song_end_frame;

    // 17. Length measurement mode: the mixer is replaced by a level estimate.
    uint8_t measure_mode;

    // 18. Debug trace controls (only a debugging build sets them).
    uint32_t trace_enable;
    uint32_t trace_lo;
    uint32_t trace_hi;
    uint32_t break_addr;
    uint32_t break_hit;
    uint64_t trace_steps;
    uint64_t trace_limit;

    // 19. Scratch area, cleared on every reset.
    uint8_t scratch[2048];

    // Further state of the OS emulation and the routine caller.
    dos_handle files[8];
    uint8_t reg_trace;                        // print DMACON/audio latch changes
    uint8_t support_trace;                    // print support-function calls
    uint32_t support_calls[kSupportEntries];  // per negative-offset entry
    uint32_t recent_pc[256];                  // ring of the last program counters
    uint8_t recent_idx;
};

// Puts the machine into the state every player starts in (fixed layout,
// library tables, globals, default settings).
void kelva_reset(kelva *k, int32_t rate);

// Copies a NUL-terminated string out of emulated memory through the bus,
// at most capacity - 1 bytes; an address of 0 gives the empty string.
void copy_emulated_string(const kelva *k, uint32_t addr, char *out, uint32_t capacity);

// Big-endian helpers for engine code that writes plain RAM directly.
inline void ram_put16(kelva *k, uint32_t a, uint32_t v) {
    k->ram[a & kAddrMask] = uint8_t(v >> 8);
    k->ram[(a + 1) & kAddrMask] = uint8_t(v);
}
inline void ram_put32(kelva *k, uint32_t a, uint32_t v) {
    ram_put16(k, a, v >> 16);
    ram_put16(k, a + 2, v);
}
inline uint32_t ram_get16(const kelva *k, uint32_t a) {
    return uint32_t(k->ram[a & kAddrMask]) << 8 | k->ram[(a + 1) & kAddrMask];
}
inline uint32_t ram_get32(const kelva *k, uint32_t a) {
    return ram_get16(k, a) << 16 | ram_get16(k, a + 2);
}
