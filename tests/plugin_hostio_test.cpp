// The plugin's host-free file handling: subtune suffixes, whole-file reads
// and the engine's file loader with its case-insensitive fallback.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "plugin/hostio.h"

namespace {

std::string split(const char *uri, int32_t *sub) {
    char out[kNameCap];
    memset(out, 'X', sizeof out);
    *sub = split_subtune(uri, out);
    return out;
}

TEST(SplitSubtune, NumberAfterTheLastQuestionMark) {
    int32_t sub = 0;
    EXPECT_EQ(split("file:///m/song.mod?2", &sub), "file:///m/song.mod");
    EXPECT_EQ(sub, 2);
    EXPECT_EQ(split("file:///a?b/song.mod?12", &sub), "file:///a?b/song.mod");
    EXPECT_EQ(sub, 12);
    EXPECT_EQ(split("song.mod?0", &sub), "song.mod");
    EXPECT_EQ(sub, 0);
    EXPECT_EQ(split("?7", &sub), "");
    EXPECT_EQ(sub, 7);
}

TEST(SplitSubtune, AnythingElseKeepsTheWholeUri) {
    int32_t sub = 0;
    for (const char *uri : {"song.mod", "song.mod?", "song.mod?x", "song.mod?1a", "song.mod?-1", "song?1.mod",
                            "song.mod? 1", ""}) {
        EXPECT_EQ(split(uri, &sub), uri) << uri;
        EXPECT_EQ(sub, -1) << uri;
    }
}

TEST(SplitSubtune, HugeNumbersSaturate) {
    int32_t sub = 0;
    EXPECT_EQ(split("song.mod?99999999999999999999", &sub), "song.mod");
    EXPECT_EQ(sub, INT32_MAX);
    EXPECT_EQ(split("song.mod?2147483647", &sub), "song.mod");
    EXPECT_EQ(sub, INT32_MAX);
}

TEST(SplitSubtune, LongUrisAreCutToTheBuffer) {
    std::string longuri(5000, 'a');
    int32_t sub = 0;
    EXPECT_EQ(split(longuri.c_str(), &sub), std::string(kNameCap - 1, 'a'));
    EXPECT_EQ(sub, -1);
    std::string with_sub = longuri + "?3";
    EXPECT_EQ(split(with_sub.c_str(), &sub), std::string(kNameCap - 1, 'a'));
    EXPECT_EQ(sub, 3);
}

// A private folder that is removed with its contents.
class TempDir {
public:
    TempDir() {
        char tmpl[] = "/tmp/kelva-plugin-XXXXXX";
        path_ = mkdtemp(tmpl);
    }
    ~TempDir() {
        std::string cmd = "rm -rf '" + path_ + "'";
        (void)system(cmd.c_str());
    }
    std::string write(const std::string &name, const std::string &contents) const {
        std::string p = path_ + "/" + name;
        FILE *f = fopen(p.c_str(), "wb");
        if (f) {
            fwrite(contents.data(), 1, contents.size(), f);
            fclose(f);
        }
        return p;
    }
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

std::string as_string(uint8_t *data, uint32_t len) {
    std::string s(reinterpret_cast<char *>(data), len);
    free(data);
    return s;
}

TEST(SlurpPath, ReadsWholeFilesAndRefusesEmptyOrMissingOnes) {
    TempDir dir;
    std::string big(300000, '\0');
    for (size_t i = 0; i < big.size(); i++) big[i] = char(i * 7);
    std::string p = dir.write("big.bin", big);
    uint32_t len = 0;
    uint8_t *data = slurp_path(p.c_str(), &len);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(len, big.size());
    EXPECT_EQ(as_string(data, len), big);

    len = 12345;
    EXPECT_EQ(slurp_path(dir.write("empty", "").c_str(), &len), nullptr);
    EXPECT_EQ(slurp_path((dir.path() + "/missing").c_str(), &len), nullptr);
    EXPECT_EQ(slurp_path(dir.path().c_str(), &len), nullptr);  // a folder is not a file
    EXPECT_EQ(len, 12345u);
}

TEST(ModuleName, UriAndSuffixBecomeALocalFileName) {
    host = host_ops_local();
    char base[kNameCap], name[kNameCap];
    EXPECT_EQ(module_name_of("file:///music/My%20Song.mod?3", base, name), 3);
    EXPECT_STREQ(base, "file:///music/My%20Song.mod");
    EXPECT_STREQ(name, "/music/My Song.mod");
    // Text that is not a file URI is its own name.
    EXPECT_EQ(module_name_of("/music/plain.mod", base, name), -1);
    EXPECT_STREQ(name, "/music/plain.mod");
    EXPECT_EQ(module_name_of("http://host/x.mod?1", base, name), 1);
    EXPECT_STREQ(name, "http://host/x.mod");
}

class VfsLoad : public ::testing::Test {
protected:
    void SetUp() override { host = host_ops_local(); }
    void TearDown() override { host = host_ops_local(); }
    // Runs the loader; "" with ok = false when it fails.
    std::string load(const std::string &path, bool *ok) {
        uint8_t *data = nullptr;
        uint32_t len = 0;
        *ok = vfs_load(nullptr, path.c_str(), &data, &len) != 0;
        if (!*ok) {
            EXPECT_EQ(data, nullptr);
            EXPECT_EQ(len, 0u);
            return "";
        }
        return as_string(data, len);
    }
    TempDir dir_;
};

TEST_F(VfsLoad, ExactNamesAsFileNameOrUri) {
    dir_.write("Smp.Piano", "piano");
    dir_.write("with space.bin", "spaced");
    bool ok = false;
    EXPECT_EQ(load(dir_.path() + "/Smp.Piano", &ok), "piano");
    EXPECT_TRUE(ok);
    EXPECT_EQ(load("file://" + dir_.path() + "/Smp.Piano", &ok), "piano");
    EXPECT_TRUE(ok);
    EXPECT_EQ(load(dir_.path() + "/with space.bin", &ok), "spaced");
    EXPECT_TRUE(ok);
}

TEST_F(VfsLoad, OtherLetterCaseIsFoundInTheFolder) {
    dir_.write("Smp.Piano", "piano");
    bool ok = false;
    EXPECT_EQ(load(dir_.path() + "/SMP.PIANO", &ok), "piano");
    EXPECT_TRUE(ok);
    EXPECT_EQ(load("file://" + dir_.path() + "/smp.piano", &ok), "piano");
    EXPECT_TRUE(ok);
}

TEST_F(VfsLoad, FailuresLeaveTheOutputsAlone) {
    dir_.write("empty", "");
    dir_.write("other", "x");
    bool ok = true;
    load(dir_.path() + "/missing", &ok);
    EXPECT_FALSE(ok);
    load(dir_.path() + "/empty", &ok);  // opens, but has nothing to give
    EXPECT_FALSE(ok);
    load(dir_.path() + "/EMPTY", &ok);
    EXPECT_FALSE(ok);
    load(dir_.path() + "/nofolder/other", &ok);
    EXPECT_FALSE(ok);
    load("relative-name", &ok);  // not convertible to a URI
    EXPECT_FALSE(ok);
    load("mem://noslash", &ok);
    EXPECT_FALSE(ok);
}

// A host whose folder listing is scripted: the first entry that matches in
// the host's order is the one read.
std::vector<std::string> fake_listing;
std::vector<std::string> fake_reads;
int fake_read(const char *uri, uint8_t **out, uint32_t *len) {
    fake_reads.push_back(uri);
    std::string u = uri;
    if (u.rfind("mem://box/", 0) != 0 || u == "mem://box/WANTED") return -1;
    std::string body = "from " + u.substr(10);
    *out = static_cast<uint8_t *>(malloc(body.size()));
    memcpy(*out, body.data(), body.size());
    *len = uint32_t(body.size());
    return 1;
}
bool fake_list(const char *uri, std::vector<std::string> *out) {
    if (std::string(uri) != "mem://box/") return false;
    *out = fake_listing;
    return true;
}

TEST_F(VfsLoad, FirstMatchInTheHostsOrderWins) {
    host.read_uri = fake_read;
    host.list_folder = fake_list;
    fake_reads.clear();
    fake_listing = {"mem://box/other", "mem://box/Wanted", "mem://box/wanted"};
    bool ok = false;
    EXPECT_EQ(load("mem://box/WANTED", &ok), "from Wanted");
    EXPECT_TRUE(ok);
    EXPECT_EQ(fake_reads, (std::vector<std::string>{"mem://box/WANTED", "mem://box/Wanted"}));

    fake_listing = {"mem://box/other", "mem://box/wantedx"};  // similar names are not matches
    load("mem://box/WANTED", &ok);
    EXPECT_FALSE(ok);
}

}  // namespace
