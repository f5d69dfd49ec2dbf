// Player support functions: the services a replay routine asks of its host.
// Players reach them in two ways, both ending in a line-A trap:
//
//   * group 4 ($A4nn): the function pointers in the player globals at
//     $F90000 + 56 point to stubs "$A400+nn; rts", so nn is the function;
//   * group 5 ($A500): the negative-offset entries below $F90000 all hold
//     the same trap word; the entry is worked out from the program counter,
//     which points just behind the trap word of entry k at $F90002 - 6k.
//
// Companion files (sample banks and the like) are loaded whole into chip RAM
// behind the module and remembered in a list of at most 16 entries.
//
// Module patching (group-4 function 30)
// -------------------------------------
// The parameter block lives in the globals record (offsets from $F90000):
//   290  long  must be 5, else result 39 and nothing else happens
//   294  long  start of the area to search; on return the result code
//   298  long  length of the area (rounded down to even); on return the
//              number of patches applied
//   302  long  address of the patch table
//   306  long  flags: bits 8-15 must be 0 (else result 40); bits 24-31 = 0
//              enable the relative-address wildcard, bits 16-23 = 0 the
//              operand wildcard
//   310  long  wildcard words: high word relative-address, low word operand
//
// Patch-table layout. The table is a list of entries of three big-endian
// words, all offsets counted in bytes from the start of the table:
//   +0  pattern offset       (unsigned; a 0 here ends the table)
//   +2  pattern length       (bytes, rounded down to even; 0 = entry skipped)
//   +4  replacement offset   (unsigned; the replacement is as long as the
//                             pattern and overwrites the matched bytes)
//
// Matching. A pattern is compared word by word with the area at every
// position start, start+2, ... that leaves room for the whole pattern. A
// pattern word equal to an enabled wildcard matches any word and captures:
//   * relative-address wildcard: the 32-bit address the displacement at that
//     place points to (address of the word + the word sign-extended); it
//     takes 4 bytes of the entry's capture space;
//   * operand wildcard: the word itself; 2 bytes of capture space.
// When both wildcards are enabled and equal, the relative-address one wins.
// Capture space is counted per match attempt; a capture wanted when 200 or
// more bytes are already captured ends the whole table with result 34.
//
// Replacement. The replacement words are written over the match with
// write16. A replacement word equal to an enabled wildcard takes the next
// unused capture of its kind, in the order the captures were made:
//   * relative-address: written back as a displacement from the replacement
//     word's own address to the captured target (low 16 bits), so a branch
//     that the patch moves within the matched code still reaches its target;
//   * operand: the captured word as it was.
// A wildcard word with no capture of its kind left is written literally.
//
// Order. Entries are worked in table order, each over the whole area, so an
// entry sees the patches of the entries before it. Within one entry the
// area is scanned upwards; after a match the scan resumes behind the
// replaced bytes, so of two overlapping matches the lower one is taken and
// a match never starts inside bytes that were just replaced.
//
// Results: 0 when the table was worked through, 34 as above; for both D0 = 0
// and the count of patches is stored at 298. For 39 and 40 only the result
// code is stored and D0 is left as it was.
//
// Bounds: the area is cut at the end of the 24-bit space, at most 4096 table
// entries are read, and one call makes at most 2^28 word compares; a search
// that runs out prints "deli_patch: search budget exhausted ..." and ends
// like a worked-through table (result 0, the patches made so far stay).
//
// Trace: k->support_trace (0 unless a debugging session sets it) prints the
// first 8 calls of every negative-offset entry.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "amigaos/amigaos.h"
#include "engine/engine.h"
#include "hardware/bus.h"
#include "selection/datatree.h"

namespace {

constexpr uint32_t kCompMax = 16;
constexpr uint32_t kChipEnd = 0x100000;
constexpr uint32_t kAddrSpace = 0x1000000;
// String copies in emulated memory stop here even without a NUL.
constexpr uint32_t kStrBound = 0x1000000;
constexpr uint32_t kLastFn = 32;

// Globals offsets.
constexpr uint32_t kGDir = 24;
constexpr uint32_t kGFile = 28;
constexpr uint32_t kGPath = 32;
constexpr uint32_t kGTimer = 54;

constexpr uint32_t kDmacon = 0xDFF096;
constexpr uint32_t kAudBase = 0xDFF0A0;   // AUD0LCH; channels 16 bytes apart

// Names of the negative-offset entries, index k = offset / 6.
constexpr const char *kNegNames[kSupportEntries] = {
    "",
    "AllocSampleStruct", "NewLoadFile2", "MakeDirCorrect", "TestAufHide", "ClearCache",
    "CopyMemQuick", "GetPassword", "StringCopy2", "ScreenToFront", "WindowToFront",
    "GetListData", "LoadFile", "CopyDir", "CopyFile", "CopyString",
    "AllocAudio", "FreeAudio", "StartInterrupt", "StopInterrupt", "SongEnd",
    "CutSuffix", "SetTimer", "WaitAudioDMA", "SaveMem", "FileReq",
    "TextRequest", "LoadExecutable", "NewLoadFile", "ScrollText", "LoadPlConfig",
    "SavePlConfig", "FindTag", "FindAuthor", "Hexdez", "TypeText",
    "ModuleChange", "ModuleRestore", "StringCopy", "CalcStringSize", "StringCMP",
    "DMAMask", "PokeAdr", "PokeLen", "PokePer", "PokeVol",
    "PokeCommand", "Amplifier", "TestAbortGadget", "GetEPNrfromMessage", "InitDisplay",
    "FillDisplay", "RemoveDisplay", "GetLocaleString", "SetWaitPointer", "ClearWaitPointer",
    "OpenCatalog", "CloseCatalog", "AllocAmigaAudio", "FreeAmigaAudio", "RawToFormat",
    "FindAmplifier", "UserCallup5", "GetLoadListData", "SetListData", "GetHardwareType",
};

// Entries with behaviour, by index.
enum neg_entry : uint32_t {
    NEG_GETLISTDATA = 11,
    NEG_ALLOCAUDIO = 16,
    NEG_FREEAUDIO = 17,
    NEG_STARTINTERRUPT = 18,
    NEG_SONGEND = 20,
    NEG_SETTIMER = 22,
    NEG_DMAMASK = 41,
    NEG_POKEADR = 42,
    NEG_POKELEN = 43,
    NEG_POKEPER = 44,
    NEG_POKEVOL = 45,
};

// PCs that can follow a trap word of the negative-offset table.
constexpr uint32_t kNegPcLo = 0xF8F403;
constexpr uint32_t kNegPcHi = 0xF90002;

uint32_t path_buffer(kelva *k) { return read32(k, kGlobals + kGPath); }

void get_list_data(kelva *k) {
    uint32_t i = k->d[0];
    if (i < k->comp_count && i < kCompMax) {
        k->a[0] = k->comp_addr[i];
        k->d[0] = k->comp_size[i];
    } else {
        k->a[0] = 0;
        k->d[0] = 0;
    }
}

void song_end(kelva *k) {
    if (k->song_end_frame == 0) k->song_end_frame = k->played_frames ? k->played_frames : 1;
}

// Length of the string at addr, found with read8; stops at the bound.
uint32_t amiga_strlen(kelva *k, uint32_t addr) {
    uint32_t n = 0;
    while (n < kStrBound && read8(k, addr + n) != 0) n++;
    return n;
}

bool ends_with(kelva *k, uint32_t addr, uint32_t len, const char *suffix) {
    uint32_t s = uint32_t(strlen(suffix));
    if (len < s) return false;
    for (uint32_t i = 0; i < s; i++)
        if (read8(k, addr + len - s + i) != uint8_t(suffix[i])) return false;
    return true;
}

// CutSuffix: "name.xpk" and "name.pp" lose their packer suffix.
void cut_suffix(kelva *k) {
    uint32_t buf = path_buffer(k);
    uint32_t len = amiga_strlen(k, buf);
    if (len > 3 && ends_with(k, buf, len, ".xpk"))
        write8(k, buf + len - 4, 0);
    else if (len >= 3 && ends_with(k, buf, len, ".pp"))
        write8(k, buf + len - 3, 0);
}

void custom_write(kelva *k, uint32_t reg, uint32_t value) { custom_write_word(k, reg, value & 0xFFFF); }

// ---- module patching ----

constexpr uint32_t kPatchMagic = 5;
constexpr uint32_t kPatchBlock = kGlobals + 290;
constexpr uint32_t kPatchBadMagic = 39;
constexpr uint32_t kPatchBadFlags = 40;
constexpr uint32_t kPatchCaptureFull = 34;
constexpr uint32_t kCaptureSpace = 200;
// A table is a few dozen entries; more than this is not a table.
constexpr uint32_t kPatchMaxEntries = 4096;
// Word compares allowed for one call, so that a hostile table cannot keep
// the host busy for long.
constexpr uint64_t kPatchBudget = uint64_t(1) << 28;

struct patch_capture {
    uint32_t value;
    uint8_t relative;
};

struct patch_state {
    uint16_t rel_wild, op_wild;
    bool rel_on, op_on;
    uint64_t budget;
};

enum match_result { MATCH_NO, MATCH_YES, MATCH_FULL };

match_result patch_match(kelva *k, patch_state &ps, uint32_t pos, const std::vector<uint16_t> &pat,
                         std::vector<patch_capture> &caps) {
    caps.clear();
    uint32_t used = 0;
    for (size_t i = 0; i < pat.size(); i++) {
        if (ps.budget == 0) return MATCH_NO;
        ps.budget--;
        uint32_t at = pos + 2 * uint32_t(i);
        uint16_t w = uint16_t(read16(k, at));
        bool rel = ps.rel_on && pat[i] == ps.rel_wild;
        bool op = !rel && ps.op_on && pat[i] == ps.op_wild;
        if (rel || op) {
            if (used >= kCaptureSpace) return MATCH_FULL;
            if (rel) {
                caps.push_back({(at + uint32_t(int32_t(int16_t(w)))) & kAddrMask, 1});
                used += 4;
            } else {
                caps.push_back({w, 0});
                used += 2;
            }
        } else if (w != pat[i]) {
            return MATCH_NO;
        }
    }
    return MATCH_YES;
}

void patch_apply(kelva *k, const patch_state &ps, uint32_t pos, const std::vector<uint16_t> &rep,
                 const std::vector<patch_capture> &caps) {
    size_t next_rel = 0, next_op = 0;
    for (size_t i = 0; i < rep.size(); i++) {
        uint32_t at = pos + 2 * uint32_t(i);
        uint32_t out = rep[i];
        bool rel = ps.rel_on && rep[i] == ps.rel_wild;
        bool op = !rel && ps.op_on && rep[i] == ps.op_wild;
        if (rel) {
            while (next_rel < caps.size() && !caps[next_rel].relative) next_rel++;
            if (next_rel < caps.size()) out = (caps[next_rel++].value - at) & 0xFFFF;
        } else if (op) {
            while (next_op < caps.size() && caps[next_op].relative) next_op++;
            if (next_op < caps.size()) out = caps[next_op++].value;
        }
        write16(k, at, out);
    }
}

void read_words(kelva *k, uint32_t addr, uint32_t count, std::vector<uint16_t> &out) {
    out.resize(count);
    for (uint32_t i = 0; i < count; i++) out[i] = uint16_t(read16(k, addr + 2 * i));
}

void module_patch(kelva *k) {
    if (read32(k, kPatchBlock) != kPatchMagic) {
        write32(k, kPatchBlock + 4, kPatchBadMagic);
        return;
    }
    uint32_t start = read32(k, kPatchBlock + 4) & kAddrMask;
    uint32_t length = read32(k, kPatchBlock + 8) & ~1u;
    uint32_t table = read32(k, kPatchBlock + 12);
    uint32_t flags = read32(k, kPatchBlock + 16);
    uint32_t wild = read32(k, kPatchBlock + 20);
    if (flags & 0x0000FF00) {
        write32(k, kPatchBlock + 4, kPatchBadFlags);
        return;
    }
    patch_state ps{};
    ps.rel_wild = uint16_t(wild >> 16);
    ps.op_wild = uint16_t(wild);
    ps.rel_on = (flags & 0xFF000000) == 0;
    ps.op_on = (flags & 0x00FF0000) == 0;
    ps.budget = kPatchBudget;
    if (length > kAddrSpace - start) length = (kAddrSpace - start) & ~1u;   // stay inside the space
    uint32_t end = start + length;

    uint32_t result = 0, patches = 0;
    std::vector<uint16_t> pat, rep;
    std::vector<patch_capture> caps;
    for (uint32_t e = 0; e < kPatchMaxEntries && result == 0; e++) {
        uint32_t entry = table + 6 * e;
        uint32_t pat_off = read16(k, entry);
        if (pat_off == 0) break;
        uint32_t pat_len = read16(k, entry + 2) & ~1u;
        uint32_t rep_off = read16(k, entry + 4);
        if (pat_len == 0) continue;
        read_words(k, table + pat_off, pat_len / 2, pat);
        read_words(k, table + rep_off, pat_len / 2, rep);
        for (uint32_t pos = start; pos < end && pat_len <= end - pos;) {
            if (ps.budget == 0) break;
            match_result m = patch_match(k, ps, pos, pat, caps);
            if (m == MATCH_FULL) {
                result = kPatchCaptureFull;
                break;
            }
            if (m == MATCH_YES) {
                patch_apply(k, ps, pos, rep, caps);
                patches++;
                pos += pat_len;
            } else {
                pos += 2;
            }
        }
        if (ps.budget == 0) {
            fprintf(stderr, "deli_patch: search budget exhausted after %u patches\n", patches);
            break;
        }
    }
    write32(k, kPatchBlock + 4, result);
    write32(k, kPatchBlock + 8, patches);
    k->d[0] = 0;
}

}  // namespace

void deli_str_append(kelva *k, uint32_t dst, uint32_t src) {
    uint32_t at = dst + amiga_strlen(k, dst);
    for (uint32_t i = 0; i < kStrBound; i++) {
        uint32_t c = read8(k, src + i);
        write8(k, at + i, c);
        if (c == 0) break;
    }
}

void deli_set_timer(kelva *k) {
    uint32_t t = read16(k, kGlobals + kGTimer);
    if (t == 0) return;
    double frames = double(t + 1) * double(k->rate) / double(kEClock);
    if (frames < 1.0) frames = 1.0;
    frames += 0.5;
    k->frames_per_tick = frames >= 2147483647.0 ? 2147483647 : int32_t(frames);
}

int deli_load_companion(kelva *k) {
    char name[1024];
    amiga_read_string(k, path_buffer(k), name, sizeof name);
    if (k->comp_count >= kCompMax) {
        fprintf(stderr, "deli_load_companion: list full (%u entries)\n", kCompMax);
        return 1;
    }
    uint8_t *data = nullptr;
    uint32_t size = 0;
    if (!host_load_file(k, name, &data, &size) || (!data && size)) {
        fprintf(stderr, "deli_load_companion: cannot open '%s'\n", name);
        return 1;
    }
    uint64_t p = (uint64_t(k->comp_next) + 1) & ~uint64_t(1);
    if (p + size > kChipEnd) {
        fprintf(stderr, "deli_load_companion: '%s' (%u bytes) overflows chip RAM\n", name, size);
        free(data);
        return 1;
    }
    if (size) memcpy(k->ram + p, data, size);
    free(data);
    k->comp_addr[k->comp_count] = uint32_t(p);
    k->comp_size[k->comp_count] = size;
    k->comp_count++;
    k->comp_next = uint32_t(p + size);
    return 0;
}

void deli_support_call(kelva *k, uint32_t fn) {
    switch (fn) {
    case 0: get_list_data(k); break;
    case 1: k->d[0] = uint32_t(deli_load_companion(k)); break;
    case 2: deli_str_append(k, path_buffer(k), read32(k, kGlobals + kGDir)); break;
    case 3: deli_str_append(k, path_buffer(k), read32(k, kGlobals + kGFile)); break;
    case 4: deli_str_append(k, path_buffer(k), k->a[0]); break;
    case 7: case 8: case 12: case 13: case 14: case 15: break;   // D0 unchanged
    case 9: song_end(k); break;
    case 10: cut_suffix(k); break;
    case 11: deli_set_timer(k); break;
    case 30: module_patch(k); break;
    default:
        if (fn > kLastFn) {
            fprintf(stderr, "deli_dispatch: unknown fn %u\n", fn);
            break;   // D0 unchanged
        }
        k->d[0] = 0;   // 5, 6, 16-29, 31, 32
        break;
    }
    trap_set_cc_from_d0(k);
}

void deli_support_negative(kelva *k) {
    uint32_t pc = k->pc & kAddrMask;
    if (pc < kNegPcLo || pc > kNegPcHi) {
        k->d[0] = 0;
        trap_set_cc_from_d0(k);
        return;
    }
    uint32_t entry = (kNegPcHi - pc) / 6;
    uint32_t slot = entry < uint32_t(kSupportEntries) ? entry : 0;   // unnamed offsets share slot 0
    if (k->support_trace && k->support_calls[slot] < 8)
        fprintf(stderr, "neg %-12s d0=%08x d1=%08x a0=%08x\n", kNegNames[slot], k->d[0], k->d[1], k->a[0]);
    if (k->support_calls[slot] < 0xFFFFFFFFu) k->support_calls[slot]++;

    uint32_t aud = kAudBase + 16 * (k->d[1] & 3);
    switch (slot) {
    case NEG_GETLISTDATA: get_list_data(k); break;
    case NEG_ALLOCAUDIO:
        custom_write(k, kDmacon, 0x8200);
        k->d[0] = 0;
        break;
    case NEG_FREEAUDIO:
        custom_write(k, kDmacon, 0x0200);
        k->d[0] = 0;
        break;
    case NEG_STARTINTERRUPT:   // starts the tick at the player's timer value
    case NEG_SETTIMER:
        deli_set_timer(k);
        k->d[0] = 0;
        break;
    case NEG_SONGEND:
        song_end(k);
        k->d[0] = 0;
        break;
    case NEG_DMAMASK: custom_write(k, kDmacon, (k->d[0] & 0x8000) | (k->d[1] & 15)); break;
    case NEG_POKEADR:
        custom_write(k, aud + 0, k->d[0] >> 16);   // AUDxLCH
        custom_write(k, aud + 2, k->d[0]);         // AUDxLCL
        break;
    case NEG_POKELEN: custom_write(k, aud + 4, k->d[0]); break;   // AUDxLEN
    case NEG_POKEPER: custom_write(k, aud + 6, k->d[0]); break;   // AUDxPER
    case NEG_POKEVOL: custom_write(k, aud + 8, k->d[0]); break;   // AUDxVOL
    default: k->d[0] = 0; break;
    }
    trap_set_cc_from_d0(k);
}
