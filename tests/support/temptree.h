// Temporary folders, files and environment variables for data-tree tests, undone when the record goes out of scope.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

// A fresh folder under the system's temporary directory, removed afterwards.
struct temp_dir {
    std::string path = (std::filesystem::temp_directory_path() / "kelva_sel_XXXXXX").string();
    temp_dir() {
        if (!mkdtemp(path.data())) path.clear();
    }
    ~temp_dir() {
        std::error_code ec;
        if (!path.empty()) std::filesystem::remove_all(path, ec);
    }
    std::string operator/(const std::string &rel) const { return path + "/" + rel; }
};

// Writes a file (creating its folders); returns whether it worked.
inline bool write_file(const std::string &path, const std::string &bytes) {
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    FILE *f = fopen(path.c_str(), "wb");
    if (!f) return false;
    bool ok = fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return fclose(f) == 0 && ok;
}
inline bool write_file(const std::string &path, const std::vector<uint8_t> &bytes) {
    return write_file(path, std::string(bytes.begin(), bytes.end()));
}

// Remembers the variables the data-tree and database searches read and restores them.
struct env_guard {
    static constexpr const char *kNames[3] = {"KELVA_DATA", "XDG_DATA_HOME", "HOME"};
    std::optional<std::string> saved[3];
    env_guard() {
        for (int i = 0; i < 3; i++)
            if (const char *v = getenv(kNames[i])) saved[i] = v;
    }
    ~env_guard() {
        for (int i = 0; i < 3; i++) saved[i] ? setenv(kNames[i], saved[i]->c_str(), 1) : unsetenv(kNames[i]);
    }
};
