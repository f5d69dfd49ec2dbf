// elf2hunk: turns a 68k ELF executable into an AmigaOS hunk executable.
//
// The input is a player linked at address 0 with its relocations kept
// (`-Wl,-q`, see players/include/player.ld). Every allocated section with
// contents becomes one hunk, in address order: executable sections become
// HUNK_CODE, other initialised sections HUNK_DATA, NOBITS sections HUNK_BSS.
// Each absolute 32-bit relocation (R_68K_32) becomes a HUNK_RELOC32 entry and
// the long word at its place is rewritten to the offset inside its target
// hunk, which is what the hunk loader adds the target's load address to.
// PC-relative relocations inside one hunk need nothing. Anything a hunk file
// cannot express (a PC-relative reference between hunks, a 16- or 8-bit
// absolute reference to a relocatable symbol, unknown relocation types)
// stops the conversion with a message naming the place.
//
// Usage: elf2hunk <input.elf> <output>
#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr uint32_t kHunkHeader = 0x3F3;
constexpr uint32_t kHunkCode = 0x3E9;
constexpr uint32_t kHunkData = 0x3EA;
constexpr uint32_t kHunkBss = 0x3EB;
constexpr uint32_t kHunkReloc32 = 0x3EC;
constexpr uint32_t kHunkEnd = 0x3F2;

// ELF constants used here (32-bit, big-endian, Motorola 68000).
constexpr uint16_t kEtExec = 2;
constexpr uint16_t kEm68k = 4;
constexpr uint32_t kShtProgbits = 1;
constexpr uint32_t kShtSymtab = 2;
constexpr uint32_t kShtRela = 4;
constexpr uint32_t kShtNobits = 8;
constexpr uint32_t kShtRel = 9;
constexpr uint32_t kShfAlloc = 2;
constexpr uint32_t kShfExec = 4;
constexpr uint16_t kShnUndef = 0;
constexpr uint16_t kShnAbs = 0xFFF1;

enum : uint32_t {
    R_68K_NONE = 0,
    R_68K_32 = 1,
    R_68K_16 = 2,
    R_68K_8 = 3,
    R_68K_PC32 = 4,
    R_68K_PC16 = 5,
    R_68K_PC8 = 6,
};

const char *g_input = "";

[[noreturn]] void fail(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    fprintf(stderr, "elf2hunk: %s: ", g_input);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
    exit(1);
}

// Bounded big-endian reads from the input file.
struct image {
    std::vector<uint8_t> bytes;

    void need(uint64_t off, uint64_t len, const char *what) const {
        if (off > bytes.size() || len > bytes.size() - off) fail("truncated file (%s)", what);
    }
    uint32_t u8(uint64_t off) const {
        need(off, 1, "byte");
        return bytes[off];
    }
    uint32_t u16(uint64_t off) const {
        need(off, 2, "half word");
        return uint32_t(bytes[off]) << 8 | bytes[off + 1];
    }
    uint32_t u32(uint64_t off) const {
        need(off, 4, "word");
        return u16(off) << 16 | u16(off + 2);
    }
};

struct section {
    std::string name;
    uint32_t type, flags, addr, offset, size, link, info, entsize;
};

struct symbol {
    uint32_t value;
    uint16_t shndx;
    std::string name;
};

struct hunk {
    uint32_t kind;          // kHunkCode, kHunkData or kHunkBss
    uint32_t section;       // ELF section index
    uint32_t addr;          // link address
    uint32_t size;          // bytes, a multiple of 4
    std::vector<uint8_t> data;   // empty for BSS
    std::map<uint32_t, std::vector<uint32_t>> relocs;   // target hunk -> offsets
};

std::vector<uint8_t> read_file(const char *path) {
    FILE *f = fopen(path, "rb");
    if (!f) fail("cannot open");
    std::vector<uint8_t> out;
    uint8_t buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.insert(out.end(), buf, buf + n);
    fclose(f);
    return out;
}

void put32(std::vector<uint8_t> &out, uint32_t v) {
    out.push_back(uint8_t(v >> 24));
    out.push_back(uint8_t(v >> 16));
    out.push_back(uint8_t(v >> 8));
    out.push_back(uint8_t(v));
}

const char *reloc_name(uint32_t type) {
    switch (type) {
    case R_68K_16: return "R_68K_16";
    case R_68K_8: return "R_68K_8";
    case R_68K_PC32: return "R_68K_PC32";
    case R_68K_PC16: return "R_68K_PC16";
    case R_68K_PC8: return "R_68K_PC8";
    default: return "relocation";
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: elf2hunk <input.elf> <output>\n");
        return 2;
    }
    g_input = argv[1];
    image im{read_file(argv[1])};

    // ELF header.
    im.need(0, 52, "ELF header");
    if (memcmp(im.bytes.data(), "\x7f" "ELF", 4) != 0) fail("not an ELF file");
    if (im.u8(4) != 1 || im.u8(5) != 2) fail("not a 32-bit big-endian ELF file");
    if (im.u16(18) != kEm68k) fail("not a 68k ELF file (machine %u)", im.u16(18));
    if (im.u16(16) != kEtExec)
        fail("not a linked executable (type %u); link at address 0 with -Wl,-q", im.u16(16));
    uint32_t shoff = im.u32(32);
    uint32_t shentsize = im.u16(46);
    uint32_t shnum = im.u16(48);
    uint32_t shstrndx = im.u16(50);
    if (shentsize < 40 || shnum == 0 || shstrndx >= shnum) fail("bad section header table");

    std::vector<section> secs(shnum);
    std::vector<uint32_t> name_offs(shnum);
    for (uint32_t i = 0; i < shnum; i++) {
        uint64_t o = uint64_t(shoff) + uint64_t(i) * shentsize;
        im.need(o, 40, "section header");
        section &s = secs[i];
        name_offs[i] = im.u32(o);
        s.type = im.u32(o + 4);
        s.flags = im.u32(o + 8);
        s.addr = im.u32(o + 12);
        s.offset = im.u32(o + 16);
        s.size = im.u32(o + 20);
        s.link = im.u32(o + 24);
        s.info = im.u32(o + 28);
        s.entsize = im.u32(o + 36);
    }
    const section &strs = secs[shstrndx];
    for (uint32_t i = 0; i < shnum; i++) {
        uint64_t end = uint64_t(strs.offset) + strs.size;
        for (uint64_t p = uint64_t(strs.offset) + name_offs[i]; p < end; p++) {
            char c = char(im.u8(p));
            if (!c) break;
            secs[i].name += c;
        }
    }

    // Hunks: allocated sections with a size, in address order.
    std::vector<hunk> hunks;
    for (uint32_t i = 0; i < shnum; i++) {
        const section &s = secs[i];
        if (!(s.flags & kShfAlloc) || s.size == 0) continue;
        hunk h;
        h.section = i;
        h.addr = s.addr;
        if (s.size > 0x7FFFFFF0u) fail("section %s too large", s.name.c_str());
        h.size = (s.size + 3) & ~3u;
        if (s.type == kShtNobits) {
            h.kind = kHunkBss;
        } else {
            h.kind = (s.flags & kShfExec) ? kHunkCode : kHunkData;
            im.need(s.offset, s.size, s.name.c_str());
            h.data.assign(im.bytes.begin() + s.offset, im.bytes.begin() + s.offset + s.size);
            h.data.resize(h.size, 0);
        }
        hunks.push_back(std::move(h));
    }
    if (hunks.empty()) fail("no allocated sections");
    std::sort(hunks.begin(), hunks.end(), [](const hunk &a, const hunk &b) { return a.addr < b.addr; });
    for (size_t i = 1; i < hunks.size(); i++)
        if (uint64_t(hunks[i - 1].addr) + secs[hunks[i - 1].section].size > hunks[i].addr)
            fail("sections %s and %s overlap", secs[hunks[i - 1].section].name.c_str(),
                 secs[hunks[i].section].name.c_str());
    if (hunks.size() > 64) fail("%zu sections; a hunk file may hold at most 64", hunks.size());

    auto hunk_of_section = [&](uint32_t sec) -> int {
        for (size_t i = 0; i < hunks.size(); i++)
            if (hunks[i].section == sec) return int(i);
        return -1;
    };
    // A symbol in an empty section (or a linker-script symbol at a section's
    // end) is placed by address: the hunk it lies in or ends at.
    auto hunk_of_address = [&](uint32_t a) -> int {
        for (size_t i = 0; i < hunks.size(); i++)
            if (a >= hunks[i].addr && a <= hunks[i].addr + hunks[i].size) return int(i);
        return -1;
    };

    // Relocations.
    bool have_relocs = false;
    for (uint32_t ri = 0; ri < shnum; ri++) {
        const section &rs = secs[ri];
        if (rs.type != kShtRela && rs.type != kShtRel) continue;
        if (rs.info >= shnum || !(secs[rs.info].flags & kShfAlloc)) continue;   // debug info etc.
        if (rs.type == kShtRel) fail("REL section %s is not supported (RELA expected)", rs.name.c_str());
        have_relocs = true;
        const section &target_sec = secs[rs.info];
        int site_hunk = hunk_of_section(rs.info);
        if (rs.size == 0) continue;
        if (site_hunk < 0 || target_sec.type == kShtNobits)
            fail("relocations for section %s, which has no contents", target_sec.name.c_str());
        if (rs.link >= shnum || secs[rs.link].type != kShtSymtab) fail("%s: bad symbol table link", rs.name.c_str());
        const section &symtab = secs[rs.link];
        if (symtab.link >= shnum) fail("bad string table link");
        const section &strtab = secs[symtab.link];
        uint32_t entsize = rs.entsize ? rs.entsize : 12;
        if (entsize < 12) fail("%s: bad entry size", rs.name.c_str());

        for (uint64_t o = rs.offset; o + entsize <= uint64_t(rs.offset) + rs.size; o += entsize) {
            uint32_t r_offset = im.u32(o);
            uint32_t r_info = im.u32(o + 4);
            int32_t addend = int32_t(im.u32(o + 8));
            uint32_t type = r_info & 0xFF;
            uint32_t symi = r_info >> 8;
            if (type == R_68K_NONE) continue;

            uint64_t so = uint64_t(symtab.offset) + uint64_t(symi) * 16;
            if (symi * 16ull >= symtab.size) fail("relocation at %08x: bad symbol index %u", r_offset, symi);
            symbol sym;
            sym.value = im.u32(so + 4);
            sym.shndx = uint16_t(im.u16(so + 14));
            for (uint64_t p = uint64_t(strtab.offset) + im.u32(so); p < uint64_t(strtab.offset) + strtab.size; p++) {
                char c = char(im.u8(p));
                if (!c) break;
                sym.name += c;
            }
            if (sym.name.empty() && sym.shndx < shnum) sym.name = secs[sym.shndx].name;
            const char *sname = sym.name.empty() ? "(unnamed)" : sym.name.c_str();

            if (r_offset < target_sec.addr || r_offset - target_sec.addr >= target_sec.size)
                fail("relocation at %08x lies outside section %s", r_offset, target_sec.name.c_str());
            uint32_t site = r_offset - target_sec.addr;
            if (sym.shndx == kShnUndef) fail("relocation at %08x: undefined symbol %s", r_offset, sname);

            int tgt = -1;
            if (sym.shndx != kShnAbs) {
                tgt = sym.shndx < shnum ? hunk_of_section(sym.shndx) : -1;
                if (tgt < 0) tgt = hunk_of_address(sym.value);
                if (tgt < 0) fail("relocation at %08x: symbol %s is in no hunk", r_offset, sname);
            }

            switch (type) {
            case R_68K_32: {
                if (tgt < 0) break;   // absolute symbol: the linked value is final
                if (site + 4 > secs[hunks[site_hunk].section].size)
                    fail("relocation at %08x runs past the end of section %s", r_offset, target_sec.name.c_str());
                uint8_t *p = hunks[site_hunk].data.data() + site;
                uint32_t linked = uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
                uint32_t want = sym.value + uint32_t(addend);
                if (linked != want)
                    fail("relocation at %08x: linked value %08x differs from %s%+d (%08x)", r_offset, linked, sname,
                         addend, want);
                uint32_t v = want - hunks[tgt].addr;
                p[0] = uint8_t(v >> 24);
                p[1] = uint8_t(v >> 16);
                p[2] = uint8_t(v >> 8);
                p[3] = uint8_t(v);
                hunks[site_hunk].relocs[uint32_t(tgt)].push_back(site);
                break;
            }
            case R_68K_PC32:
            case R_68K_PC16:
            case R_68K_PC8:
                if (tgt != site_hunk)
                    fail("%s at %08x refers to %s in another hunk; hunks load independently, so a PC-relative "
                         "reference between them cannot be expressed (use an absolute address)",
                         reloc_name(type), r_offset, sname);
                break;
            case R_68K_16:
            case R_68K_8:
                if (tgt >= 0)
                    fail("%s at %08x refers to relocatable symbol %s; a hunk file can only relocate 32-bit "
                         "absolute addresses",
                         reloc_name(type), r_offset, sname);
                break;
            default:
                fail("relocation at %08x has type %u, which a hunk file cannot express", r_offset, type);
            }
        }
    }
    if (!have_relocs) fail("no relocation sections; link with -Wl,-q (--emit-relocs)");

    // The hunk file.
    std::vector<uint8_t> out;
    put32(out, kHunkHeader);
    put32(out, 0);   // no resident library names
    put32(out, uint32_t(hunks.size()));
    put32(out, 0);
    put32(out, uint32_t(hunks.size() - 1));
    for (const hunk &h : hunks) put32(out, h.size / 4);
    for (const hunk &h : hunks) {
        put32(out, h.kind);
        put32(out, h.size / 4);
        out.insert(out.end(), h.data.begin(), h.data.end());
        if (!h.relocs.empty()) {
            put32(out, kHunkReloc32);
            for (auto &[target, offsets] : h.relocs) {
                std::vector<uint32_t> sorted = offsets;
                std::sort(sorted.begin(), sorted.end());
                put32(out, uint32_t(sorted.size()));
                put32(out, target);
                for (uint32_t off : sorted) put32(out, off);
            }
            put32(out, 0);
        }
        put32(out, kHunkEnd);
    }

    FILE *f = fopen(argv[2], "wb");
    if (!f) {
        fprintf(stderr, "elf2hunk: cannot create %s\n", argv[2]);
        return 1;
    }
    bool ok = fwrite(out.data(), 1, out.size(), f) == out.size();
    ok = (fclose(f) == 0) && ok;
    if (!ok) {
        fprintf(stderr, "elf2hunk: cannot write %s\n", argv[2]);
        remove(argv[2]);
        return 1;
    }
    return 0;
}
