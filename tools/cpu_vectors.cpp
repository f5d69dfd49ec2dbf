// kelva-cpu-vectors: runs single-step processor test vectors.
//
// Each case is five lines (test, init, final, iram, fram; format in the
// vector folder's README). For every case the runner clears RAM, stores the
// initial bytes, loads the registers (SR stored as is, no stack exchange),
// performs exactly one step and compares registers, SR under the case's
// mask, the inactive stack pointer, the listed RAM bytes and the fault code.
//
// Usage: kelva-cpu-vectors [--skip-missing] [--verbose] <file or folder>...
// Prints one line per file and finally "N passed, N failed"; exits 1 when
// anything failed, 77 with --skip-missing when a path does not exist.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cpu/cpu.h"
#include "engine/engine.h"

namespace {

constexpr int kSkip = 77;
constexpr int kMaxReports = 5;   // failure details printed per file

struct ram_run {
    uint32_t addr;
    std::vector<uint8_t> bytes;
};

struct state {
    uint32_t v[20];   // D0-D7, A0-A7, USP, SSP, SR, PC
};

struct vcase {
    std::string title;
    uint32_t index = 0;
    uint32_t srmask = 0xFFFF;
    state init{}, final{};
    std::vector<ram_run> iram, fram;
};

struct options {
    bool verbose = false;
    bool skip_missing = false;
};

bool parse_hex(const char *s, uint32_t *out) {
    if (!*s) return false;
    uint64_t v = 0;
    for (const char *p = s; *p; p++) {
        int d;
        if (*p >= '0' && *p <= '9') d = *p - '0';
        else if (*p >= 'a' && *p <= 'f') d = *p - 'a' + 10;
        else if (*p >= 'A' && *p <= 'F') d = *p - 'A' + 10;
        else return false;
        v = v * 16 + uint64_t(d);
        if (v > 0xFFFFFFFFu) return false;
    }
    *out = uint32_t(v);
    return true;
}

std::vector<std::string> split(const std::string &line) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r')) i++;
        size_t j = i;
        while (j < line.size() && line[j] != ' ' && line[j] != '\t' && line[j] != '\r') j++;
        if (j > i) out.push_back(line.substr(i, j - i));
        i = j;
    }
    return out;
}

bool parse_state(const std::vector<std::string> &f, state *s) {
    if (f.size() != 21) return false;
    for (int i = 0; i < 20; i++)
        if (!parse_hex(f[size_t(i) + 1].c_str(), &s->v[i])) return false;
    return true;
}

bool parse_ram(const std::vector<std::string> &f, std::vector<ram_run> *out) {
    if (f.size() % 2 != 1) return false;
    for (size_t i = 1; i + 1 < f.size(); i += 2) {
        ram_run run;
        if (!parse_hex(f[i].c_str(), &run.addr) || run.addr > kAddrMask) return false;
        const std::string &b = f[i + 1];
        if (b.size() % 2 != 0 || b.size() / 2 > kRamSize - run.addr) return false;
        for (size_t j = 0; j < b.size(); j += 2) {
            uint32_t v;
            if (!parse_hex(b.substr(j, 2).c_str(), &v)) return false;
            run.bytes.push_back(uint8_t(v));
        }
        out->push_back(std::move(run));
    }
    return true;
}

// Reads every case of a file; false with a message on a malformed file.
bool load_file(const std::string &path, std::vector<vcase> *cases, std::string *error) {
    FILE *f = fopen(path.c_str(), "r");
    if (!f) {
        *error = "cannot open";
        return false;
    }
    std::string line;
    int lineno = 0;
    int expect = 0;   // 0 test, 1 init, 2 iram, 3 final, 4 fram
    vcase cur;
    char buf[65536];
    bool ok = true;
    while (fgets(buf, sizeof buf, f)) {
        lineno++;
        line = buf;
        if (!line.empty() && line.back() != '\n' && !feof(f)) {
            *error = "line " + std::to_string(lineno) + " too long";
            ok = false;
            break;
        }
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        std::vector<std::string> w = split(line);
        static const char *const kKeys[] = {"test", "init", "iram", "final", "fram"};
        if (w.empty() || w[0] != kKeys[expect]) {
            *error = "line " + std::to_string(lineno) + ": expected '" + kKeys[expect] + "'";
            ok = false;
            break;
        }
        bool good = true;
        switch (expect) {
        case 0:
            cur = vcase{};
            good = w.size() >= 5 && parse_hex(w[3].c_str(), &cur.srmask) && cur.srmask <= 0xFFFF;
            if (good) {
                cur.index = uint32_t(strtoul(w[1].c_str(), nullptr, 10));
                cur.title = line.substr(5);
            }
            break;
        case 1: good = parse_state(w, &cur.init); break;
        case 2: good = parse_ram(w, &cur.iram); break;
        case 3: good = parse_state(w, &cur.final); break;
        case 4:
            good = parse_ram(w, &cur.fram);
            if (good) cases->push_back(cur);
            break;
        }
        if (!good) {
            *error = "line " + std::to_string(lineno) + ": malformed '" + w[0] + "' line";
            ok = false;
            break;
        }
        expect = (expect + 1) % 5;
    }
    fclose(f);
    if (ok && expect != 0) {
        *error = "file ends inside a case";
        ok = false;
    }
    return ok;
}

const char *const kRegNames[20] = {"D0", "D1", "D2", "D3", "D4", "D5", "D6", "D7", "A0", "A1",
                                   "A2", "A3", "A4", "A5", "A6", "A7", "USP", "SSP", "SR", "PC"};

// Runs one case; returns an empty string on success, else what differed.
std::string run_case(kelva *k, const vcase &c) {
    for (const ram_run &r : c.iram) memcpy(k->ram + r.addr, r.bytes.data(), r.bytes.size());
    for (int i = 0; i < 8; i++) k->d[i] = c.init.v[i];
    for (int i = 0; i < 8; i++) k->a[i] = c.init.v[8 + i];
    k->usp = c.init.v[16];
    k->ssp = c.init.v[17];
    k->sr = uint16_t(c.init.v[18]);
    k->pc = c.init.v[19];
    k->vbr = 0;
    k->fault = 0;

    cpu_step(k);

    std::string diff;
    char line[160];
    uint32_t got[20];
    for (int i = 0; i < 8; i++) got[i] = k->d[i];
    for (int i = 0; i < 8; i++) got[8 + i] = k->a[i];
    got[16] = k->usp;
    got[17] = k->ssp;
    got[18] = k->sr;
    got[19] = k->pc;
    for (int i = 0; i < 20; i++) {
        uint32_t want = c.final.v[i], have = got[i];
        if (i == 16 && !(c.final.v[18] & kSrS)) continue;   // USP is live in A7
        if (i == 17 && (c.final.v[18] & kSrS)) continue;    // SSP is live in A7
        if (i == 18) {
            want &= c.srmask;
            have &= c.srmask;
        }
        if (want != have) {
            snprintf(line, sizeof line, " %s=%08x (want %08x)", kRegNames[i], have, want);
            diff += line;
        }
    }
    for (const ram_run &r : c.fram) {
        for (size_t j = 0; j < r.bytes.size(); j++) {
            uint32_t a = r.addr + uint32_t(j);
            if (k->ram[a] != r.bytes[j]) {
                snprintf(line, sizeof line, " [%06x]=%02x (want %02x)", a, k->ram[a], r.bytes[j]);
                diff += line;
            }
        }
    }
    if (k->fault) {
        snprintf(line, sizeof line, " fault=%u", k->fault);
        diff += line;
    }
    // Back to all-zero RAM for the next case.
    for (const ram_run &r : c.iram) memset(k->ram + r.addr, 0, r.bytes.size());
    for (const ram_run &r : c.fram) memset(k->ram + r.addr, 0, r.bytes.size());
    return diff;
}

// Any byte left non-zero after a file's cases were cleaned up was written
// where no case said it would be.
uint32_t stray_bytes(kelva *k) {
    uint32_t n = 0;
    for (uint32_t a = 0; a < kRamSize; a++) {
        if (k->ram[a]) {
            n++;
            k->ram[a] = 0;
        }
    }
    return n;
}

bool is_dir(const std::string &p) {
    struct stat st;
    return stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool exists(const std::string &p) {
    struct stat st;
    return stat(p.c_str(), &st) == 0;
}

std::vector<std::string> vector_files(const std::string &dir) {
    std::vector<std::string> out;
    DIR *d = opendir(dir.c_str());
    if (!d) return out;
    while (dirent *e = readdir(d)) {
        std::string n = e->d_name;
        if (n.size() > 4 && n.compare(n.size() - 4, 4, ".txt") == 0) out.push_back(dir + "/" + n);
    }
    closedir(d);
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace

int main(int argc, char **argv) {
    options opt;
    std::vector<std::string> paths;
    for (int i = 1; i < argc; i++) {
        if (!strcmp(argv[i], "--verbose")) opt.verbose = true;
        else if (!strcmp(argv[i], "--skip-missing")) opt.skip_missing = true;
        else paths.push_back(argv[i]);
    }
    if (paths.empty()) {
        fprintf(stderr, "usage: kelva-cpu-vectors [--skip-missing] [--verbose] <file or folder>...\n");
        return 2;
    }

    std::vector<std::string> files;
    for (const std::string &p : paths) {
        if (!exists(p)) {
            if (opt.skip_missing) {
                printf("cpu-vectors: %s not found; skipping (set KELVA_SHARED_DIR to the shared data)\n",
                       p.c_str());
                return kSkip;
            }
            fprintf(stderr, "cpu-vectors: %s: not found\n", p.c_str());
            return 2;
        }
        if (is_dir(p)) {
            std::vector<std::string> in = vector_files(p);
            files.insert(files.end(), in.begin(), in.end());
        } else {
            files.push_back(p);
        }
    }

    kelva_global_init();
    kelva *k = kelva_create(48000);
    if (!k) {
        fprintf(stderr, "cpu-vectors: out of memory\n");
        return 2;
    }
    memset(k->ram, 0, kRamSize);

    uint64_t total_pass = 0, total_fail = 0;
    for (const std::string &file : files) {
        std::vector<vcase> cases;
        std::string error;
        const char *name = strrchr(file.c_str(), '/') ? strrchr(file.c_str(), '/') + 1 : file.c_str();
        if (!load_file(file, &cases, &error)) {
            printf("%-20s unreadable: %s\n", name, error.c_str());
            total_fail++;
            continue;
        }
        uint32_t pass = 0, fail = 0, reported = 0;
        for (const vcase &c : cases) {
            std::string diff = run_case(k, c);
            if (diff.empty()) {
                pass++;
                continue;
            }
            fail++;
            if (opt.verbose || reported < kMaxReports) {
                printf("  FAIL %s:%s\n      %s\n", name, c.title.c_str(), diff.c_str());
                reported++;
            }
        }
        uint32_t stray = stray_bytes(k);
        if (stray) {
            printf("  FAIL %s: %u bytes written outside the listed RAM\n", name, stray);
            fail++;
        }
        printf("%-20s %4u passed, %4u failed\n", name, pass, fail);
        total_pass += pass;
        total_fail += fail;
    }
    kelva_destroy(k);
    printf("%llu passed, %llu failed\n", (unsigned long long)total_pass, (unsigned long long)total_fail);
    return total_fail ? 1 : 0;
}
