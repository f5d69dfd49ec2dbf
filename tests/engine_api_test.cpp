// The exported setters and getters: clamping, the model flag and played time
// (the LED modes: cia_test.cpp; what a reset puts back: reset_test.cpp).
#include <gtest/gtest.h>

#include <cmath>

#include "support/test_support.h"

namespace {

TEST(EngineApi, SettersClampAndIgnoreWhatTheyDoNotKnow) {
    auto e = make_engine();
    kelva *k = e.get();
    EXPECT_EQ(k->separation, 1.0f);
    for (auto [set, want] : {std::pair{-0.5f, 0.0f}, {7.0f, 1.0f}, {0.25f, 0.25f}, {std::nanf(""), 0.0f}}) {
        kelva_set_separation(k, set);
        EXPECT_EQ(k->separation, want) << set;
    }
    kelva_destroy(nullptr);   // ignored

    // Only model 1 is the A1200 (its 34 kHz corner passes more than 4.4 kHz).
    const double a500 = k->mix.rc_coef;
    kelva_set_model(k, 1);
    EXPECT_EQ(k->model + k->mix.model, 2u);
    EXPECT_GT(k->mix.rc_coef, a500);
    for (uint32_t m : {2u, 0u, 0xFFFFFFFFu}) {
        kelva_set_model(k, 1);
        kelva_set_model(k, m);
        EXPECT_EQ(k->model + k->mix.model, 0u) << m;
        EXPECT_EQ(k->mix.rc_coef, a500) << m;
    }
}

TEST(EngineApi, PlayedMilliseconds) {
    const struct {
        int32_t rate;
        uint64_t frames;
        int64_t ms;
    } cases[] = {{48000, 48000 * 3 + 47, 3000},
                 {48000, 1ull << 40, int64_t((1ull << 40) * 1000 / 48000)},   // no overflow
                 {0, 1000, 0},
                 {-5, 1000, 0}};
    for (const auto &c : cases) {
        auto e = make_engine(c.rate);
        ASSERT_NE(e, nullptr);
        e->played_frames = c.frames;
        EXPECT_EQ(kelva_played_ms(e.get()), c.ms) << c.rate << " " << c.frames;
    }
}

}  // namespace
