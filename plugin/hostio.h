// The plugin's file handling that does not need the host library: subtune
// suffixes, whole-file reads, and the engine's file loader, which reaches the
// host's virtual file system only through the small table `host`. The plugin
// fills the table with the host's functions at start-up; everything else
// (tests, tools) gets plain local-file versions.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Size of the caller-supplied buffers for file names and URIs.
constexpr uint32_t kNameCap = 4096;
// Size of the caller-supplied buffers for player paths.
constexpr uint32_t kPlayerPathCap = 1024;

// What the plugin needs from the host's file system. Every function is
// called from the playback, tag-reading and scanner threads and must be safe
// for that.
struct host_ops {
    // URI -> local file name; 0 when the URI has none.
    int (*uri_to_name)(const char *uri, char *out, uint32_t capacity);
    // Local file name -> URI; 0 when it cannot be converted.
    int (*name_to_uri)(const char *name, char *out, uint32_t capacity);
    // Reads the file behind a URI whole: -1 when it cannot be opened, 0 when
    // it opened but is empty or unreadable, 1 with a malloc'd buffer.
    int (*read_uri)(const char *uri, uint8_t **out_data, uint32_t *out_len);
    // Lists a folder (URI ending in "/") as full entry URIs, in the host's
    // order; false when the folder cannot be read.
    bool (*list_folder)(const char *uri, std::vector<std::string> *out);
    // Asks the host to read a file's tags again (may be null).
    void (*rescan)(const char *uri);
};

// The table in use; starts with the local-file versions below.
extern host_ops host;
// The local-file versions ("file://" URIs with %XX escapes).
host_ops host_ops_local();

// Splits a "?N" subtune suffix off a URI. When the last "?" is followed by
// at least one byte and only decimal digits, copies the text before it into
// `out` and returns N (saturated at INT32_MAX); otherwise copies the whole
// URI and returns -1. Copies at most kNameCap - 1 bytes.
int32_t split_subtune(const char *uri, char out[kNameCap]);

// Splits the suffix off and converts the rest to a local file name (the
// text itself when it has none). `base` receives the URI without suffix,
// `name` the file name. Returns the subtune as split_subtune does.
int32_t module_name_of(const char *uri, char base[kNameCap], char name[kNameCap]);

// Reads a whole local file into a malloc'd buffer; null for an empty file, a
// short read, a file of 4 GiB or more, or a failed allocation.
uint8_t *slurp_path(const char *path, uint32_t *out_len);

// The engine's file loader: reads `path` (a URI, or a file name converted to
// one) through `host`, falling back to a case-insensitive search of the
// file's folder. Returns 1 with a malloc'd buffer, or 0.
int vfs_load(void *user, const char *path, uint8_t **out_data, uint32_t *out_len);

// The last component of a path or URI (the text after the last "/").
const char *last_component(const char *path);
