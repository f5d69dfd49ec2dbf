// What a module's start tells the tags: names cleaned for display, the title
// a playlist entry gets, the format label, and a real module's title.
#include <gtest/gtest.h>

#include <string>

#include "plugin/modinfo.h"
#include "plugin/songdb.h"
#include "support/test_support.h"

TEST(ModuleText, LatinOneBecomesUtf8WithoutControlBytesOrPadding) {
    const std::pair<const char *, const char *> cases[] = {
        {"astral_trip", "astral_trip"}, {"  corpses in rain   ", "corpses in rain"},
        {"Caf\xe9 \xa0", "Caf\xc3\xa9"} /* e acute; a no-break space trimmed */, {"x\xb0", "x\xc2\xb0"},
        {"9", "9"}, {"z", "z"},
        {"\x01tit\x0dle\x7f\x9b!", "title!"} /* C0, DEL and C1 dropped */,
        // Nothing readable: garbage, so the caller falls back to the file name.
        {"", ""}, {"\x01\x02\x03\x04", ""}, {"   ---   ", ""}, {nullptr, ""}};
    for (auto [in, out] : cases) EXPECT_EQ(module_text_clean(in), out) << (in ? in : "(null)");
}

TEST(ModuleText, EntryTitleAndFormatLabel) {
    module_info info;
    info.count = 5;
    EXPECT_EQ(module_entry_title(info, "song.ahx", -1), "song.ahx");
    EXPECT_EQ(module_entry_title(info, "song.ahx", 2), "song.ahx (2/5)");
    info.title = "astral_trip";
    EXPECT_EQ(module_entry_title(info, "song.ahx", 5), "astral_trip (5/5)");
    info.count = 1;
    EXPECT_EQ(module_entry_title(info, "song.ahx", 0), "astral_trip");

    EXPECT_EQ(module_format_label(info, "/data/players/PTK-Prowiz"), "PTK-Prowiz");
    info.format = "ProTracker (31-instrument M.K.)";
    EXPECT_EQ(module_format_label(info, "/data/players/PTK-Prowiz"), "ProTracker (31-instrument M.K.), PTK-Prowiz");
}

// A real module started once: its title from its first 20 bytes, the
// player's flag, and the count stored for the scanner.
TEST(ModuleInfo, ARealModuleGivesItsTitleAndStoresItsCount) {
    KELVA_REQUIRE_SHARED("testdata/modules/debian/astraltr.mod");
    std::string player = std::string(KELVA_BUILD_DATA) + "/players/PTK-Prowiz";
    if (read_file_bytes(player).empty()) GTEST_SKIP() << "PTK-Prowiz not built (no m68k cross compiler?)";
    kelva_global_init();
    std::vector<uint8_t> mod = read_file_bytes(shared_dir() + "/testdata/modules/debian/astraltr.mod");
    db_close();
    cache_val.clear();
    module_info_forget();
    module_info info = module_info_get(player.c_str(), "astraltr.mod", mod.data(), uint32_t(mod.size()));
    EXPECT_TRUE(info.started && info.signals_end);
    EXPECT_EQ(info.title + "|" + info.author + "|" + std::to_string(info.count), "astral_trip||1");
    int32_t count = 0;
    EXPECT_TRUE(cache_lookup(cache_make_key(mod.data(), uint32_t(mod.size()), kSubsongCountSeed), &count));
    EXPECT_EQ(count, 1);
    cache_val.clear();
    module_info_forget();
}
