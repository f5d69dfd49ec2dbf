#include "cli/json.h"

#include <cstdio>

namespace {

// Length of the valid UTF-8 sequence starting at s[i], or 0 when the bytes
// there are not one (overlong forms, surrogates and values above U+10FFFF
// are invalid).
size_t utf8_sequence(const std::string &s, size_t i) {
    auto byte = [&](size_t k) { return k < s.size() ? uint8_t(s[k]) : uint8_t(0); };
    uint8_t b0 = byte(i);
    if (b0 < 0x80) return 1;
    size_t n;
    uint32_t cp, min;
    if ((b0 & 0xE0) == 0xC0) {
        n = 2, cp = b0 & 0x1F, min = 0x80;
    } else if ((b0 & 0xF0) == 0xE0) {
        n = 3, cp = b0 & 0x0F, min = 0x800;
    } else if ((b0 & 0xF8) == 0xF0) {
        n = 4, cp = b0 & 0x07, min = 0x10000;
    } else {
        return 0;
    }
    for (size_t k = 1; k < n; k++) {
        uint8_t b = byte(i + k);
        if (i + k >= s.size() || (b & 0xC0) != 0x80) return 0;
        cp = cp << 6 | (b & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    return n;
}

}  // namespace

void json_append_string(std::string *out, const std::string &text) {
    out->push_back('"');
    for (size_t i = 0; i < text.size();) {
        unsigned char c = uint8_t(text[i]);
        size_t n = utf8_sequence(text, i);
        if (n == 0) {
            *out += "\xEF\xBF\xBD";   // U+FFFD
            i++;
            continue;
        }
        if (n > 1) {
            out->append(text, i, n);
            i += n;
            continue;
        }
        switch (c) {
        case '"': *out += "\\\""; break;
        case '\\': *out += "\\\\"; break;
        case '\n': *out += "\\n"; break;
        case '\r': *out += "\\r"; break;
        case '\t': *out += "\\t"; break;
        case '\b': *out += "\\b"; break;
        case '\f': *out += "\\f"; break;
        default:
            if (c < 0x20 || c == 0x7F) {
                char esc[8];
                snprintf(esc, sizeof esc, "\\u%04x", c);
                *out += esc;
            } else {
                out->push_back(char(c));
            }
        }
        i++;
    }
    out->push_back('"');
}
