// Temporary folders, files and environment variables for tests that work on
// the data tree. Everything is undone when the record goes out of scope.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

// A fresh folder under the system's temporary directory, removed afterwards.
struct temp_dir {
    std::string path;
    temp_dir() {
        std::string tmpl = (std::filesystem::temp_directory_path() / "kelva_sel_XXXXXX").string();
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data())) path = buf.data();
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

// Remembers the variables the data-tree search reads and restores them.
struct env_guard {
    struct saved {
        const char *name;
        bool set;
        std::string value;
    };
    std::vector<saved> vars;
    env_guard() {
        for (const char *n : {"KELVA_DATA", "XDG_DATA_HOME", "HOME"}) {
            const char *v = getenv(n);
            vars.push_back({n, v != nullptr, v ? v : ""});
        }
    }
    ~env_guard() {
        for (const saved &s : vars) {
            if (s.set)
                setenv(s.name, s.value.c_str(), 1);
            else
                unsetenv(s.name);
        }
    }
};
