// Builds kelva's demo tune: reads a song written in a tracker-like text
// notation (demo.song beside this file) and writes a four-channel ProTracker
// module (31 instruments, tag "M.K.") whose samples are synthesised here.
//
//   kelva_demotune SONG OUT.mod
//
// The song format is described at the top of demo.song. Every error names
// the line and what is wrong, and the program exits with status 1.
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int kChannels = 4;
constexpr int kRows = 64;
constexpr int kSamples = 31;
constexpr double kPaulaClock = 3546895.0;   // PAL

// ProTracker periods (finetune 0) for C-1 .. B-3.
constexpr uint16_t kPeriods[36] = {
    856, 808, 762, 720, 678, 640, 604, 570, 538, 508, 480, 453,
    428, 404, 381, 360, 339, 320, 302, 285, 269, 254, 240, 226,
    214, 202, 190, 180, 170, 160, 151, 143, 135, 127, 120, 113,
};

struct cell {
    uint16_t period = 0;
    uint8_t sample = 0;
    uint8_t effect = 0;
    uint8_t param = 0;
};

struct pattern {
    bool defined = false;
    cell cells[kRows][kChannels];
};

struct sample {
    bool defined = false;
    std::string name;
    std::string wave;
    uint32_t length = 0;     // bytes, even
    uint8_t volume = 64;
    bool loop = false;
    uint16_t period = 428;   // the note the sample is synthesised for
    std::vector<int8_t> data;
};

struct song {
    std::string title;
    sample samples[kSamples + 1];   // 1..31
    std::vector<uint8_t> order;
    std::vector<pattern> patterns;
};

struct parser {
    const char *file;
    int line = 0;
    bool failed = false;
};

void fail(parser *p, const char *what, const std::string &detail) {
    fprintf(stderr, "%s:%d: %s '%s'\n", p->file, p->line, what, detail.c_str());
    p->failed = true;
}

std::vector<std::string> split_words(const std::string &line) {
    std::vector<std::string> words;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) i++;
        if (i >= line.size()) break;
        if (line[i] == '"') {
            size_t end = line.find('"', i + 1);
            if (end == std::string::npos) end = line.size();
            words.push_back(line.substr(i + 1, end - i - 1));
            i = end + 1;
            continue;
        }
        size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t') i++;
        words.push_back(line.substr(start, i - start));
    }
    return words;
}

bool parse_number(const std::string &s, int base, long lo, long hi, long *out) {
    if (s.empty()) return false;
    char *end = nullptr;
    long v = strtol(s.c_str(), &end, base);
    if (*end || v < lo || v > hi) return false;
    *out = v;
    return true;
}

// "C-1" .. "B-3" (sharps as "C#2") -> period; "..." or "---" -> 0.
bool parse_note(const std::string &s, uint16_t *period) {
    if (s == "..." || s == "---") {
        *period = 0;
        return true;
    }
    static const char *names[12] = {"C-", "C#", "D-", "D#", "E-", "F-", "F#", "G-", "G#", "A-", "A#", "B-"};
    if (s.size() != 3 || s[2] < '1' || s[2] > '3') return false;
    for (int n = 0; n < 12; n++)
        if (s.compare(0, 2, names[n]) == 0) {
            *period = kPeriods[(s[2] - '1') * 12 + n];
            return true;
        }
    return false;
}

// One channel's cell: NOTE SAMPLE EFFECT, e.g. "A-2 04 C30" or "... .. ...".
bool parse_cell(parser *p, const std::vector<std::string> &w, cell *c) {
    if (w.size() != 3) {
        fail(p, "a cell needs a note, a sample and an effect, got", std::to_string(w.size()) + " words");
        return false;
    }
    if (!parse_note(w[0], &c->period)) {
        fail(p, "unknown note", w[0]);
        return false;
    }
    long v = 0;
    if (w[1] != "..") {
        if (!parse_number(w[1], 16, 1, kSamples, &v)) {
            fail(p, "sample number must be 01..1F, not", w[1]);
            return false;
        }
        c->sample = uint8_t(v);
    }
    if (w[2] != "...") {
        if (w[2].size() != 3 || !parse_number(w[2], 16, 0, 0xFFF, &v)) {
            fail(p, "effect must be three hex digits, not", w[2]);
            return false;
        }
        c->effect = uint8_t(v >> 8);
        c->param = uint8_t(v & 0xFF);
    }
    return true;
}

// "RR  cell | cell | cell | cell" (RR: row number 00..63 in decimal).
void parse_row(parser *p, const std::string &line, pattern *pat) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t bar; (bar = line.find('|', start)) != std::string::npos; start = bar + 1)
        parts.push_back(line.substr(start, bar - start));
    parts.push_back(line.substr(start));
    if (parts.size() != kChannels) {
        fail(p, "a row needs four cells separated by '|', got", std::to_string(parts.size()));
        return;
    }
    std::vector<std::string> first = split_words(parts[0]);
    long row = 0;
    if (first.empty() || !parse_number(first[0], 10, 0, kRows - 1, &row)) {
        fail(p, "a row starts with its number 00..63, not", first.empty() ? "" : first[0]);
        return;
    }
    first.erase(first.begin());
    for (int ch = 0; ch < kChannels; ch++)
        if (!parse_cell(p, ch == 0 ? first : split_words(parts[ch]), &pat->cells[row][ch])) return;
}

// sample N "name" WAVE length=BYTES volume=V note=NOTE [loop]
void parse_sample(parser *p, const std::vector<std::string> &w, song *s) {
    long n = 0;
    if (w.size() < 4 || !parse_number(w[1], 10, 1, kSamples, &n)) {
        fail(p, "expected: sample N \"name\" WAVE length=.. volume=.. note=.. [loop], got", w.size() > 1 ? w[1] : "");
        return;
    }
    sample &smp = s->samples[n];
    smp.defined = true;
    smp.name = w[2];
    smp.wave = w[3];
    for (size_t i = 4; i < w.size(); i++) {
        long v = 0;
        const std::string &a = w[i];
        if (a == "loop") {
            smp.loop = true;
        } else if (a.rfind("length=", 0) == 0 && parse_number(a.substr(7), 10, 2, 65534, &v) && v % 2 == 0) {
            smp.length = uint32_t(v);
        } else if (a.rfind("volume=", 0) == 0 && parse_number(a.substr(7), 10, 0, 64, &v)) {
            smp.volume = uint8_t(v);
        } else if (a.rfind("note=", 0) == 0 && parse_note(a.substr(5), &smp.period) && smp.period) {
        } else {
            fail(p, "bad sample setting (length=even 2..65534, volume=0..64, note=C-1..B-3, loop)", a);
            return;
        }
    }
    if (smp.length == 0) fail(p, "sample without length=", smp.name);
}

bool parse_song(const char *path, song *s) {
    parser p{path};
    FILE *f = fopen(path, "r");
    if (!f) {
        fprintf(stderr, "%s: cannot open: %s\n", path, strerror(errno));
        return false;
    }
    pattern *current = nullptr;
    char buf[1024];
    while (!p.failed && fgets(buf, sizeof buf, f)) {
        p.line++;
        std::string line = buf;
        size_t hash = line.find('#');
        if (hash != std::string::npos) line.resize(hash);
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r' || line.back() == ' ')) line.pop_back();
        std::vector<std::string> w = split_words(line);
        if (w.empty()) continue;
        long v = 0;
        if (w[0] == "title") {
            s->title = w.size() > 1 ? w[1] : "";
        } else if (w[0] == "sample") {
            parse_sample(&p, w, s);
        } else if (w[0] == "order") {
            for (size_t i = 1; i < w.size() && !p.failed; i++) {
                if (!parse_number(w[i], 10, 0, 63, &v)) fail(&p, "pattern number must be 0..63, not", w[i]);
                s->order.push_back(uint8_t(v));
            }
        } else if (w[0] == "pattern") {
            if (w.size() != 2 || !parse_number(w[1], 10, 0, 63, &v)) {
                fail(&p, "expected: pattern N (0..63), got", line);
                break;
            }
            if (s->patterns.size() <= size_t(v)) s->patterns.resize(size_t(v) + 1);
            current = &s->patterns[size_t(v)];
            if (current->defined) fail(&p, "pattern defined twice:", w[1]);
            current->defined = true;
        } else if (current && w[0].size() == 2 && isdigit(uint8_t(w[0][0]))) {
            parse_row(&p, line, current);
        } else {
            fail(&p, "unknown line", line);
        }
    }
    fclose(f);
    if (p.failed) return false;
    if (s->order.empty() || s->order.size() > 128) {
        fprintf(stderr, "%s: the order list needs 1..128 entries\n", path);
        return false;
    }
    for (uint8_t o : s->order)
        if (o >= s->patterns.size() || !s->patterns[o].defined) {
            fprintf(stderr, "%s: the order list names pattern %d, which is not defined\n", path, o);
            return false;
        }
    return true;
}

// ---- sample synthesis ----------------------------------------------------------

// A fixed pseudo-random sequence, so the module is the same on every build.
struct noise {
    uint32_t state = 0x12345678;
    double next() {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return double(state & 0xFFFF) / 32768.0 - 1.0;
    }
};

int8_t to_byte(double v) {
    double x = std::round(v * 127.0);
    if (x > 127) x = 127;
    if (x < -128) x = -128;
    return int8_t(x);
}

// One-shot drums are synthesised at the rate Paula plays them for the
// sample's note; the looped waveforms are one period each.
bool synthesise(sample *smp) {
    const double rate = kPaulaClock / smp->period;
    const double two_pi = 6.283185307179586;
    smp->data.assign(smp->length, 0);
    noise rnd;
    double phase = 0, last_noise = 0;
    for (uint32_t i = 0; i < smp->length; i++) {
        double t = i / rate, x = double(i) / smp->length, v = 0;
        if (smp->wave == "kick") {
            phase += two_pi * (42.0 + 120.0 * std::exp(-t / 0.025)) / rate;
            v = std::sin(phase) * std::exp(-t / 0.16);
        } else if (smp->wave == "snare") {
            phase += two_pi * 185.0 / rate;
            v = 0.75 * rnd.next() * std::exp(-t / 0.055) + 0.5 * std::sin(phase) * std::exp(-t / 0.03);
        } else if (smp->wave == "hihat") {
            double n = rnd.next();
            v = 0.9 * (n - last_noise) * 0.5 * std::exp(-t / 0.018);
            last_noise = n;
        } else if (smp->wave == "saw") {
            v = 0.85 * (1.0 - 2.0 * x);
        } else if (smp->wave == "square") {
            v = x < 0.5 ? 0.6 : -0.6;
        } else if (smp->wave == "pulse") {
            v = x < 0.25 ? 0.6 : -0.6;
        } else if (smp->wave == "triangle") {
            v = x < 0.5 ? 4.0 * x - 1.0 : 3.0 - 4.0 * x;
        } else {
            fprintf(stderr, "sample '%s': unknown wave '%s' (kick, snare, hihat, saw, square, pulse, triangle)\n",
                    smp->name.c_str(), smp->wave.c_str());
            return false;
        }
        smp->data[i] = to_byte(v);
    }
    // A sample that does not loop starts with a silent word: after its end
    // the replay routine repeats the first word.
    if (!smp->loop) smp->data[0] = smp->data[1] = 0;
    return true;
}

// ---- module writing ---------------------------------------------------------------

void put16(std::vector<uint8_t> *out, uint16_t v) {
    out->push_back(uint8_t(v >> 8));
    out->push_back(uint8_t(v));
}

void put_text(std::vector<uint8_t> *out, const std::string &text, size_t size) {
    for (size_t i = 0; i < size; i++) out->push_back(i < text.size() ? uint8_t(text[i]) : 0);
}

std::vector<uint8_t> build_module(const song &s) {
    std::vector<uint8_t> m;
    put_text(&m, s.title, 20);
    for (int i = 1; i <= kSamples; i++) {
        const sample &smp = s.samples[i];
        put_text(&m, smp.name, 22);
        put16(&m, uint16_t(smp.data.size() / 2));
        m.push_back(0);   // finetune
        m.push_back(smp.defined ? smp.volume : 0);
        put16(&m, 0);
        put16(&m, smp.loop ? uint16_t(smp.data.size() / 2) : 1);
    }
    m.push_back(uint8_t(s.order.size()));
    m.push_back(127);
    for (size_t i = 0; i < 128; i++) m.push_back(i < s.order.size() ? s.order[i] : 0);
    put_text(&m, "M.K.", 4);
    uint8_t highest = 0;
    for (uint8_t o : s.order) highest = o > highest ? o : highest;
    for (size_t p = 0; p <= highest; p++)
        for (int row = 0; row < kRows; row++)
            for (int ch = 0; ch < kChannels; ch++) {
                const cell &c = s.patterns[p].cells[row][ch];
                m.push_back(uint8_t((c.sample & 0xF0) | (c.period >> 8)));
                m.push_back(uint8_t(c.period));
                m.push_back(uint8_t((c.sample & 0x0F) << 4 | c.effect));
                m.push_back(c.param);
            }
    for (int i = 1; i <= kSamples; i++)
        for (int8_t b : s.samples[i].data) m.push_back(uint8_t(b));
    return m;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: kelva_demotune SONG OUT.mod\n");
        return 2;
    }
    static song s;
    if (!parse_song(argv[1], &s)) return 1;
    for (int i = 1; i <= kSamples; i++)
        if (s.samples[i].defined && !synthesise(&s.samples[i])) return 1;
    std::vector<uint8_t> module = build_module(s);
    FILE *f = fopen(argv[2], "wb");
    if (!f) {
        fprintf(stderr, "%s: cannot write: %s\n", argv[2], strerror(errno));
        return 1;
    }
    bool ok = fwrite(module.data(), 1, module.size(), f) == module.size();
    if (fclose(f) != 0) ok = false;
    if (!ok) {
        fprintf(stderr, "%s: write failed\n", argv[2]);
        remove(argv[2]);
        return 1;
    }
    return 0;
}
