// The plugin's host-free file handling: subtune suffixes, the local-file
// host table, whole-file reads and the engine's file loader with its
// case-insensitive fallback.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "plugin/hostio.h"
#include "support/temptree.h"

namespace {

TEST(HostIo, SubtuneSuffixIsTheNumberAfterTheLastQuestionMark) {
    const std::string longuri(5000, 'a'), cut(kNameCap - 1, 'a');
    const struct { std::string uri, base; int32_t sub; } cases[] = {
        {"file:///m/song.mod?2", "file:///m/song.mod", 2}, {"file:///a?b/song.mod?12", "file:///a?b/song.mod", 12},
        {"song.mod?0", "song.mod", 0}, {"?7", "", 7}, {"song.mod?99999999999999999999", "song.mod", INT32_MAX},
        {"song.mod?2147483647", "song.mod", INT32_MAX}, {longuri, cut, -1}, {longuri + "?3", cut, 3},
        {"song.mod", "song.mod", -1}, {"song.mod?", "song.mod?", -1}, {"song.mod?x", "song.mod?x", -1},
        {"song.mod?1a", "song.mod?1a", -1}, {"song.mod?-1", "song.mod?-1", -1}, {"song?1.mod", "song?1.mod", -1},
        {"song.mod? 1", "song.mod? 1", -1}, {"", "", -1},
    };
    for (const auto &c : cases) {
        char out[kNameCap];
        memset(out, 'X', sizeof out);
        EXPECT_EQ(split_subtune(c.uri.c_str(), out), c.sub) << c.uri.substr(0, 40);
        EXPECT_EQ(std::string(out), c.base) << c.uri.substr(0, 40);
    }
}

// Local names become "file://" URIs with every byte but A-Z a-z 0-9 / - . _ ~ as %XX, and back.
TEST(HostIo, LocalNamesAndUris) {
    host_ops h = host_ops_local();
    char out[kNameCap];
    const std::pair<const char *, const char *> names[] = {
        {"/m/AZaz09-._~/x", "file:///m/AZaz09-._~/x"}, {"/a b%", "file:///a%20b%25"},
        {"/@[`{:+", "file:///%40%5B%60%7B%3A%2B"}, {"/\xC3\xA9\x01", "file:///%C3%A9%01"}};
    for (auto [name, uri] : names) {
        ASSERT_EQ(h.name_to_uri(name, out, sizeof out), 1) << name;
        EXPECT_STREQ(out, uri);
        ASSERT_EQ(h.uri_to_name(uri, out, sizeof out), 1) << uri;
        EXPECT_STREQ(out, name);
    }
    EXPECT_EQ(h.name_to_uri("relative", out, sizeof out), 0);
    EXPECT_EQ(h.name_to_uri("/abc", out, 8), 0);   // does not fit
    ASSERT_EQ(h.uri_to_name("file:///%zz%4", out, sizeof out), 1);   // not an escape: kept
    EXPECT_STREQ(out, "/%zz%4");
    for (const char *bad : {"file:///a%00b", "http://host/x", "file://host/x", "mem://x"})
        EXPECT_EQ(h.uri_to_name(bad, out, sizeof out), 0) << bad;
    // A folder's entries are URIs of their own, with or without the folder's final slash.
    temp_dir dir;
    ASSERT_TRUE(write_file(dir / "a b", "x"));
    for (std::string folder : {"file://" + dir.path, "file://" + dir.path + "/"}) {
        std::vector<std::string> entries;
        ASSERT_TRUE(h.list_folder(folder.c_str(), &entries)) << folder;
        EXPECT_EQ(entries, std::vector<std::string>{"file://" + dir.path + "/a%20b"}) << folder;
    }
}

std::string take(uint8_t *data, uint32_t len) {
    std::string s(reinterpret_cast<char *>(data), len);
    free(data);
    return s;
}

TEST(HostIo, SlurpReadsWholeFilesAndRefusesEmptyOrMissingOnes) {
    temp_dir dir;
    std::string big(300000, '\0');
    for (size_t i = 0; i < big.size(); i++) big[i] = char(i * 7);
    ASSERT_TRUE(write_file(dir / "big.bin", big) && write_file(dir / "empty", ""));
    uint32_t len = 0;
    uint8_t *data = slurp_path((dir / "big.bin").c_str(), &len);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(take(data, len), big);
    len = 12345;
    for (std::string p : {dir / "empty", dir / "missing", dir.path})
        EXPECT_EQ(slurp_path(p.c_str(), &len), nullptr) << p;
    EXPECT_EQ(len, 12345u);
    // Through the URI: -1 when nothing opens (no local file behind it, or missing), 0 when empty.
    uint8_t *got = nullptr;
    host_ops local = host_ops_local();
    EXPECT_EQ(local.read_uri("http://example.org/big.bin", &got, &len), -1);
    EXPECT_EQ(local.read_uri(("file://" + dir / "missing").c_str(), &got, &len), -1);
    EXPECT_EQ(local.read_uri(("file://" + dir / "empty").c_str(), &got, &len), 0);
    ASSERT_EQ(local.read_uri(("file://" + dir / "big.bin").c_str(), &got, &len), 1);
    EXPECT_EQ(take(got, len), big);
}

TEST(ModuleName, UriAndSuffixBecomeALocalFileName) {
    host = host_ops_local();
    char base[kNameCap], name[kNameCap];
    EXPECT_EQ(module_name_of("file:///music/My%20Song.mod?3", base, name), 3);
    EXPECT_STREQ(base, "file:///music/My%20Song.mod");
    EXPECT_STREQ(name, "/music/My Song.mod");
    EXPECT_EQ(module_name_of("/music/plain.mod", base, name), -1);   // not a file URI: its own name
    EXPECT_STREQ(name, "/music/plain.mod");
    EXPECT_EQ(module_name_of("http://host/x.mod?1", base, name), 1);
    EXPECT_STREQ(name, "http://host/x.mod");
}

// A host whose folder listing is scripted: the first entry that matches in
// the host's order is the one read.
std::vector<std::string> fake_listing, fake_reads;
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

struct VfsLoad : testing::Test {
    temp_dir dir;
    void SetUp() override { host = host_ops_local(); }
    void TearDown() override { host = host_ops_local(); }
    // The bytes the loader gives, or "-" when it fails (leaving its outputs alone).
    std::string load(const std::string &path) {
        uint8_t *data = nullptr;
        uint32_t len = 0;
        if (vfs_load(nullptr, path.c_str(), &data, &len)) return take(data, len);
        EXPECT_TRUE(data == nullptr && len == 0) << path;
        return "-";
    }
};

TEST_F(VfsLoad, ExactNamesOtherLetterCaseAndFailures) {
    ASSERT_TRUE(write_file(dir / "Smp.Piano", "piano") && write_file(dir / "with space.bin", "spaced") &&
                write_file(dir / "empty", "") && write_file(dir / "other", "x"));
    const std::pair<std::string, const char *> cases[] = {
        {dir / "Smp.Piano", "piano"}, {"file://" + dir.path + "/Smp.Piano", "piano"},
        {dir / "with space.bin", "spaced"}, {dir / "SMP.PIANO", "piano"},
        {"file://" + dir.path + "/smp.piano", "piano"},
        {dir / "missing", "-"}, {dir / "empty", "-"} /* opens, but has nothing to give */, {dir / "EMPTY", "-"},
        {dir / "nofolder/other", "-"}, {"relative-name", "-"} /* not convertible to a URI */, {"mem://noslash", "-"}};
    for (const auto &[path, want] : cases) EXPECT_EQ(load(path), want) << path;
}

TEST_F(VfsLoad, FirstMatchInTheHostsOrderWins) {
    host.read_uri = fake_read;
    host.list_folder = fake_list;
    fake_reads.clear();
    fake_listing = {"mem://box/other", "mem://box/Wanted", "mem://box/wanted"};
    EXPECT_EQ(load("mem://box/WANTED"), "from Wanted");
    EXPECT_EQ(fake_reads, (std::vector<std::string>{"mem://box/WANTED", "mem://box/Wanted"}));
    fake_listing = {"mem://box/other", "mem://box/wantedx"};   // similar names are not matches
    EXPECT_EQ(load("mem://box/WANTED"), "-");
}

}  // namespace
