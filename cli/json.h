// A small JSON writer for kelva info --json: objects and arrays append to a
// string and close themselves when they go out of scope (inner scopes close
// first, so nesting follows the code's blocks).
#pragma once

#include <cstdint>
#include <string>

// Appends `text` as a JSON string literal: quotes, backslashes and control
// characters escaped, and every byte that is not part of valid UTF-8 (file
// names need not be) replaced by U+FFFD.
void json_append_string(std::string *out, const std::string &text);

struct json_object {
    std::string *out;
    bool first = true;
    bool closed = false;
    explicit json_object(std::string *o) : out(o) { out->push_back('{'); }
    ~json_object() { close(); }
    json_object(const json_object &) = delete;
    json_object &operator=(const json_object &) = delete;

    // Starts a member; the value follows with one of the calls below or a
    // nested json_object / json_array.
    json_object &key(const char *name) {
        if (!first) out->push_back(',');
        first = false;
        json_append_string(out, name);
        out->push_back(':');
        return *this;
    }
    void string(const std::string &v) { json_append_string(out, v); }
    void number(int64_t v) { *out += std::to_string(v); }
    void null() { *out += "null"; }
    void close() {
        if (!closed) out->push_back('}');
        closed = true;
    }
};

struct json_array {
    std::string *out;
    bool first = true;
    bool closed = false;
    explicit json_array(std::string *o) : out(o) { out->push_back('['); }
    ~json_array() { close(); }
    json_array(const json_array &) = delete;
    json_array &operator=(const json_array &) = delete;

    // Call before each element.
    void next() {
        if (!first) out->push_back(',');
        first = false;
    }
    void close() {
        if (!closed) out->push_back(']');
        closed = true;
    }
};
