// The song-length store: a process-wide map from a content key to a length
// in milliseconds (or a subsong count), persisted as one text line per record
// in songlengths.db. It does not depend on the host library, so the plugin,
// the command-line tool and the tests share it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <utility>

// 128-bit XXH3 of a module's whole contents with a 64-bit seed: the subtune
// number for a length, -1 (all bits set) for the subsong count.
struct cache_key {
    uint64_t high;
    uint64_t low;
    bool operator<(const cache_key &o) const { return high != o.high ? high < o.high : low < o.low; }
    bool operator==(const cache_key &o) const { return high == o.high && low == o.low; }
};

constexpr int64_t kSubsongCountSeed = -1;

cache_key cache_make_key(const uint8_t *data, uint32_t size, int64_t seed);
// 32 lower-case hex digits, high half first.
void cache_key_hex(const cache_key &key, char out[33]);

extern std::map<cache_key, int32_t> cache_val;
extern std::mutex cache_mtx;

// The first line of a database file. Its number is the measurement
// version: a file written under another version (or an older file without
// the line) holds lengths measured by other rules, so db_open moves it aside
// to songlengths.db.old and starts afresh. Version 2: songs of players that
// signal their end are no longer cut at a repetition of the loudness.
constexpr const char *kDbHeader = "# kelva song lengths, measurement version 2";

// Opens (creating if needed) the database under XDG_DATA_HOME or HOME and
// loads every parsable line; a later line for the same key wins. Called once
// before any other thread uses the store.
void db_open();
// Loads records from an open stream into the map (used by db_open and tests).
void db_load(FILE *f);
// Closes the database file if it is open.
void db_close();
// Directory of the database ("" when neither XDG_DATA_HOME nor HOME is set).
void db_dir(char *out, uint32_t capacity);

bool cache_lookup(const cache_key &key, int32_t *value);
// Stores a new record; the first value stored for a key stands. Returns true
// when the record was new.
bool cache_store(const cache_key &key, int32_t value, const char *file_name);
