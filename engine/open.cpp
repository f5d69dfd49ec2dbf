// Opening a module: load the player's hunks, read its tag list, install the
// module in chip RAM and call the player's set-up routines in the order of
// the player interface. Closing calls its shut-down routines.
#include <cstdio>
#include <cstring>

#include "amigaos/amigaos.h"
#include "engine/call.h"
#include "engine/engine.h"
#include "hardware/bus.h"
#include "selection/epconf.h"

namespace {

// Player tags. The first block is 'DT' + n, the second 'EP' + n.
constexpr uint32_t TAG_REQUEST_VERSION = 0x80004456;
constexpr uint32_t TAG_PLAYER_VERSION = 0x80004458;
constexpr uint32_t TAG_PLAYER_NAME = 0x80004459;
constexpr uint32_t TAG_CREATOR = 0x8000445A;
constexpr uint32_t TAG_CHECK1 = 0x8000445B;
constexpr uint32_t TAG_CHECK2 = 0x8000445C;
constexpr uint32_t TAG_EXTLOAD = 0x8000445D;
constexpr uint32_t TAG_INTERRUPT = 0x8000445E;
constexpr uint32_t TAG_CONFIG = 0x80004460;
constexpr uint32_t TAG_SUBSONGRANGE = 0x80004462;
constexpr uint32_t TAG_INITPLAYER = 0x80004463;
constexpr uint32_t TAG_ENDPLAYER = 0x80004464;
constexpr uint32_t TAG_INITSOUND = 0x80004465;
constexpr uint32_t TAG_ENDSOUND = 0x80004466;
constexpr uint32_t TAG_STARTINT = 0x80004467;
constexpr uint32_t TAG_STOPINT = 0x80004468;
constexpr uint32_t TAG_VOLUME = 0x80004469;
constexpr uint32_t TAG_BALANCE = 0x8000446A;
constexpr uint32_t TAG_GLOBALS_POINTER = 0x80004473;
constexpr uint32_t TAG_VOICES = 0x80004552;
constexpr uint32_t TAG_MODULE_NAME = 0x80004483;
constexpr uint32_t TAG_FORMAT_NAME = 0x80004484;
constexpr uint32_t TAG_AUTHOR_NAME = 0x80004485;
constexpr uint32_t TAG_EP_FLAGS = 0x8000455E;
constexpr uint32_t TAG_INITHOOK = 0x80004573;
constexpr uint32_t TAG_EAGLE_GLOBALS_POINTER = 0x8000457A;

constexpr uint32_t kMaxTagPairs = 256;

// Runs a routine with the standard call when the player has it.
uint32_t call_if(kelva *k, deli_routine r) {
    uint32_t addr = k->routines[r];
    return addr ? deli_call(k, addr) : 0;
}

// Reads the tag list; returns 0 when it is empty.
int scan_tags(kelva *k) {
    uint32_t list = read32(k, k->hunk_addr[0] + 12);
    if (list == 0) {
        fprintf(stderr, "deli_scan_tags: empty tag list at entry %08x\n", k->hunk_addr[0]);
        return 0;
    }
    for (uint32_t i = 0; i < kMaxTagPairs; i++) {
        uint32_t tag = read32(k, list + 8 * i);
        if (tag == 0) break;
        uint32_t v = read32(k, list + 8 * i + 4);
        switch (tag) {
        case TAG_REQUEST_VERSION: k->request_version = uint16_t(v); break;
        case TAG_PLAYER_VERSION: k->player_version = uint16_t(v >> 16); break;
        case TAG_PLAYER_NAME: k->player_name_addr = v; break;
        case TAG_CREATOR: k->creator_addr = v; break;
        case TAG_CHECK1: k->routines[DELI_CHECK1] = v; break;
        case TAG_CHECK2: k->routines[DELI_CHECK2] = v; break;
        case TAG_EXTLOAD: k->routines[DELI_EXTLOAD] = v; break;
        case TAG_INTERRUPT: k->routines[DELI_INTERRUPT] = v; break;
        case TAG_CONFIG: k->routines[DELI_CONFIG] = v; break;
        case TAG_SUBSONGRANGE: k->routines[DELI_SUBSONGRANGE] = v; break;
        case TAG_INITPLAYER: k->routines[DELI_INITPLAYER] = v; break;
        case TAG_ENDPLAYER: k->routines[DELI_ENDPLAYER] = v; break;
        case TAG_INITSOUND: k->routines[DELI_INITSOUND] = v; break;
        case TAG_ENDSOUND: k->routines[DELI_ENDSOUND] = v; break;
        case TAG_STARTINT: k->routines[DELI_STARTINT] = v; break;
        case TAG_STOPINT: k->routines[DELI_STOPINT] = v; break;
        case TAG_VOLUME: k->routines[DELI_VOLUME] = v; break;
        case TAG_BALANCE: k->routines[DELI_BALANCE] = v; break;
        case TAG_VOICES: k->routines[DELI_VOICES] = v; break;
        case TAG_EP_FLAGS: k->player_flags = v; break;
        case TAG_MODULE_NAME: k->module_name_ref = v; break;
        case TAG_AUTHOR_NAME: k->author_name_ref = v; break;
        case TAG_FORMAT_NAME: k->format_name_ref = v; break;
        case TAG_INITHOOK: k->routines[DELI_INITHOOK] = v; break;
        case TAG_GLOBALS_POINTER:
        case TAG_EAGLE_GLOBALS_POINTER:
            if (v) write32(k, v, kGlobals);
            break;
        default: break;   // tags the engine does not use
        }
    }
    return 1;
}

// Copies the module into chip RAM; 0 when it does not fit or is empty.
int install_module(kelva *k, const uint8_t *module, uint32_t len) {
    if (len > kModuleMax) {
        fprintf(stderr, "mod_install: %u bytes exceeds chip-RAM window (%u)\n", len, kModuleMax);
        return 0;
    }
    k->module_addr = kModuleAddr;
    k->module_size = len;
    if (len == 0 || !module) {
        k->module_size = 0;
        return 0;
    }
    memcpy(k->ram + kModuleAddr, module, len);
    ram_put32(k, kGlobals + 36, kModuleAddr);
    ram_put32(k, kGlobals + 40, len);
    k->comp_addr[0] = kModuleAddr;
    k->comp_size[0] = len;
    k->comp_count = 1;
    k->comp_next = (kModuleAddr + len + 1) & ~1u;
    return 1;
}

// Writes the module's path, directory and file name for the player.
void install_paths(kelva *k, const char *path) {
    size_t n = strnlen(path, 1023);
    memcpy(k->ram + kPathFull, path, n);
    k->ram[kPathFull + n] = 0;
    size_t cut = 0;   // position after the last '/'
    for (size_t i = 0; i < n; i++)
        if (path[i] == '/') cut = i + 1;
    memcpy(k->ram + kPathDir, path, cut);
    k->ram[kPathDir + cut] = 0;
    memcpy(k->ram + kPathFile, path + cut, n - cut);
    k->ram[kPathFile + n - cut] = 0;
    ram_put32(k, kGlobals + 32, kPathFull);
    ram_put32(k, kGlobals + 24, kPathDir);
    ram_put32(k, kGlobals + 28, kPathFile);
}

}  // namespace

extern "C" int kelva_open(kelva *k, const uint8_t *player, uint32_t player_len, const uint8_t *module,
                          uint32_t module_len, const char *player_path, const char *module_path,
                          int32_t subsong) {
    kelva_reset(k, k->rate);
    k->requested_subsong = subsong;

    if (!player || !hunk_load_player(k, player, player_len)) return 1;
    if (k->hunk_count == 0 || k->hunk_addr[0] == 0) return 1;

    if (!scan_tags(k)) return 1;
    if (!k->routines[DELI_INTERRUPT] && !k->routines[DELI_INITPLAYER]) {
        fprintf(stderr, "deli_scan_tags: no Interrupt or InitPlayer tag, can't drive\n");
        return 1;
    }

    call_if(k, DELI_CONFIG);

    if (!install_module(k, module, module_len)) return 1;

    if (module_path) {
        install_paths(k, module_path);
        epconf_resolve_epopt(k, player_path, module_path, module, module_len);
    }

    uint32_t check = call_if(k, DELI_CHECK2);
    call_if(k, DELI_EXTLOAD);
    // A failing InitPlayer stops the start-up only when the player's own
    // format check also failed; players whose check passed are given the
    // benefit of the doubt.
    if (call_if(k, DELI_INITPLAYER) != 0 && check != 0) return 1;

    if (k->routines[DELI_SUBSONGRANGE]) {
        deli_call(k, k->routines[DELI_SUBSONGRANGE]);
        uint32_t first = k->d[0] & 0xFFFF, last = k->d[1] & 0xFFFF;
        k->subsong_count = (last > first ? last : first) - first + 1;
        uint32_t current = first;
        if (subsong >= 1 && uint32_t(subsong) <= k->subsong_count) current = first + uint32_t(subsong) - 1;
        ram_put16(k, kGlobals + 44, current);
    }

    call_if(k, DELI_INITHOOK);
    call_if(k, DELI_INITSOUND);
    call_if(k, DELI_STARTINT);
    call_if(k, DELI_VOLUME);
    if (k->routines[DELI_VOICES]) {
        k->d[0] = ram_get16(k, kGlobals + 0x146);
        deli_call(k, k->routines[DELI_VOICES]);
    }

    // The player's format name is fixed once the module is set up; the
    // module name and author are read whenever they are asked for.
    if (k->format_name_ref)
        copy_emulated_string(k, read32(k, k->format_name_ref), k->format_name, sizeof k->format_name);

    k->frames_to_tick = 0;
    k->tick_routine = k->routines[DELI_INTERRUPT];
    k->frames_per_vblank = k->frames_per_tick = k->frames_to_vblank = k->rate / 50;
    return 0;
}

extern "C" void kelva_close(kelva *k) {
    call_if(k, DELI_STOPINT);
    call_if(k, DELI_ENDSOUND);
    call_if(k, DELI_ENDPLAYER);
}
