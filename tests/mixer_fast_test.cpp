// The mixer's frame-at-a-time path against the per-tick reference path
// (k->mix_per_tick): excerpts of real modules with their own players, both
// models, the LED filter forced on and off, separations below 1; and
// synthetic channels at rates whose frames run 36 to 254 ticks, with
// channels that stop mid-frame, play backward, fetch twice a frame, and
// volumes 0, 1, 63 and 64, with the settings changed between calls.
// tools/mixcmp.cpp compares whole songs the same way.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "hardware/bus.h"
#include "ptk_support.h"

namespace {

// Renders both engines the same way and returns the largest difference of
// their outputs; `peak` gets the reference's largest level.
double render_both(kelva *fast, kelva *ref, int32_t frames, bool engine_loop, double *peak) {
    std::vector<float> a(2 * size_t(frames), 0.0f), b(2 * size_t(frames), 0.0f);
    for (auto [k, out] : {std::pair(fast, a.data()), std::pair(ref, b.data())})
        engine_loop ? kelva_render(k, out, frames) : paula_mix_frames(k, out, frames);
    double diff = 0;
    for (size_t i = 0; i < a.size(); i++)
        diff = std::max(diff, double(std::fabs(a[i] - b[i]))), *peak = std::max(*peak, double(std::fabs(b[i])));
    return diff;
}

void expect_same_channels(const kelva *fast, const kelva *ref, const std::string &what) {
    for (int x = 0; x < 4; x++) {
        const paula_channel &f = fast->ch[x], &r = ref->ch[x];
        EXPECT_TRUE(f.pos == r.pos && f.phase == r.phase && f.pwm == r.pwm && f.active == r.active &&
                    f.sample == r.sample && (f.data ? f.data - fast->ram : -1) == (r.data ? r.data - ref->ram : -1))
            << what << ": channel " << x << " pos " << f.pos << "/" << r.pos << " phase " << f.phase << "/" << r.phase;
    }
}

// Module (under testdata/modules), model, LED mode, separation.
const struct {
    const char *file;
    uint32_t model, led_mode;
    float separation;
} kExcerpts[] = {{"debian/dreamfish-sanxion.mod", 0, 0, 1.0f}, {"debian/starpaws.mod", 1, 2, 0.25f},
                 {"st15/cant.mod", 0, 2, 0.5f},                 {"med/Synth-a-sysmic.med", 1, 1, 0.0f},
                 {"ahx/AHX.Phaser", 0, 1, 0.7f},                {"other/SFX.Crockett's_theme", 1, 0, 1.0f}};

TEST(MixerFast, RealModulesMatchThePerTickPath) {
    KELVA_REQUIRE_SHARED("testdata/modules");
    ptk_test::data_tree_env env;
    kelva_global_init();
    for (const auto &e : kExcerpts) {
        std::string path = shared_dir() + "/testdata/modules/" + e.file;
        std::vector<uint8_t> module = read_file_bytes(path), player;
        char player_path[4096];
        if (kelva_identify(path.c_str(), module.data(), uint32_t(module.size()), player_path, sizeof player_path))
            player = read_file_bytes(player_path);
        if (player.empty()) GTEST_SKIP() << "no built player for " << e.file << " (no m68k cross compiler?)";
        engine_ptr fast = make_engine(48000), ref = make_engine(48000);
        ref->mix_per_tick = 1;
        for (kelva *k : {fast.get(), ref.get()}) {
            // Opening resets the output settings: they go after it.
            ASSERT_EQ(kelva_open(k, player.data(), uint32_t(player.size()), module.data(), uint32_t(module.size()),
                                 player_path, path.c_str(), 0), 0) << e.file;
            kelva_set_model(k, e.model);
            kelva_set_led_filter(k, e.led_mode);
            kelva_set_separation(k, e.separation);
        }
        // About 1.4 seconds, in blocks of several sizes.
        double diff = 0, peak = 0;
        for (int i = 0; i < 24; i++)
            diff = std::max(diff, render_both(fast.get(), ref.get(), i % 3 ? 4096 : 333, true, &peak));
        EXPECT_LE(diff, 1e-6) << e.file;
        EXPECT_GT(peak, 0.05) << e.file << ": the excerpt should not be silent";
        expect_same_channels(fast.get(), ref.get(), e.file);
    }
}

TEST(MixerFast, SyntheticChannelsMatchThePerTickPath) {
    for (int32_t rate : {48000, 22050, 96000, 14000}) {
        engine_ptr fast = make_engine(rate), ref = make_engine(rate);
        ref->mix_per_tick = 1;
        auto both = [&](auto &&change) { change(fast.get()), change(ref.get()); };
        both([](kelva *k) {
            for (uint32_t i = 0; i < 512; i++)
                k->ram[0x20000 + i] = uint8_t(int8_t(std::lround(120 * std::sin(i * 0.07))));
            set_audio_latches(k, 0, 0x20000, 1, 113, 1);      // 2-byte loop: a block end every 226 ticks
            set_audio_latches(k, 1, 0x20040, 200, 300, 63);
            set_audio_latches(k, 2, 0x20100, 3, 150, 64);
            set_audio_latches(k, 3, 0x20020, 100, 700, 0);
            custom_write_word(k, 0xDFF096, 0x820F);
            k->ch[1].backward = 1;
            k->ch[2].loop_len = 0;   // stops after its 6 bytes, in the first long call
        });
        double peak = 0;
        const int32_t calls[] = {1, 700, 77, 1500, 2400};
        for (int i = 0; i < 5; i++) {
            std::string what = "rate " + std::to_string(rate) + " call " + std::to_string(i);
            EXPECT_LE(render_both(fast.get(), ref.get(), calls[i], false, &peak), 1e-6) << what;
            expect_same_channels(fast.get(), ref.get(), what);
            // Settings change between calls: the tables follow.
            both([i](kelva *k) {
                kelva_set_led_filter(k, i % 2 ? 2 : 1);
                kelva_set_model(k, i == 2);
                custom_write_word(k, 0xDFF0D8, uint16_t(16 * i + 1));   // AUD3VOL
                // The stopped channel 2 starts again (DMA is still on).
                if (i == 3) set_audio_latches(k, 2, 0x20100, 40, 113, 33);
            });
            EXPECT_TRUE(i != 1 || !ref->ch[2].active) << "channel 2 stopped by now";
        }
        EXPECT_TRUE(ref->ch[2].active);
        EXPECT_GT(peak, 0.1) << rate;
    }
}

}  // namespace
