// The exported setters and getters: clamping, the model flag, the LED
// modes and played time (what a reset puts back: reset_test.cpp).
#include <gtest/gtest.h>

#include <cmath>

#include "support/test_support.h"

namespace {

TEST(EngineApi, SeparationIsClampedToZeroOne) {
    auto e = make_engine();
    kelva *k = e.get();
    EXPECT_EQ(k->separation, 1.0f);
    kelva_set_separation(k, -0.5f);
    EXPECT_EQ(k->separation, 0.0f);
    kelva_set_separation(k, 7.0f);
    EXPECT_EQ(k->separation, 1.0f);
    kelva_set_separation(k, 0.25f);
    EXPECT_EQ(k->separation, 0.25f);
    kelva_set_separation(k, std::nanf(""));
    EXPECT_EQ(k->separation, 0.0f);
    kelva_destroy(nullptr);   // ignored
}

TEST(EngineApi, OnlyModelOneSelectsTheA1200Path) {
    auto e = make_engine();
    kelva *k = e.get();
    double a500 = k->mix.rc_coef;
    kelva_set_model(k, 1);
    EXPECT_EQ(k->model, 1u);
    EXPECT_EQ(k->mix.model, 1u);
    double a1200 = k->mix.rc_coef;
    EXPECT_GT(a1200, a500);   // 34 kHz corner passes more than 4.4 kHz
    for (uint32_t m : {2u, 0u, 0xFFFFFFFFu}) {
        kelva_set_model(k, 1);
        kelva_set_model(k, m);
        EXPECT_EQ(k->model, 0u) << m;
        EXPECT_EQ(k->mix.model, 0u) << m;
        EXPECT_EQ(k->mix.rc_coef, a500) << m;
    }
}

TEST(EngineApi, LedModeZeroKeepsThePlayersState) {
    auto e = make_engine();
    kelva *k = e.get();
    EXPECT_EQ(k->mix.led_on, 1u);
    k->mix.led_on = 0;   // as a player's port write left it
    kelva_set_led_filter(k, 0);
    EXPECT_EQ(k->mix.led_on, 0u);
    kelva_set_led_filter(k, 2);
    EXPECT_EQ(k->mix.led_on, 1u);
    kelva_set_led_filter(k, 7);   // unknown modes leave it too
    EXPECT_EQ(k->mix.led_on, 1u);
    kelva_set_led_filter(k, 1);
    EXPECT_EQ(k->mix.led_on, 0u);
    EXPECT_EQ(k->led_mode, 1u);
}

TEST(EngineApi, PlayedMilliseconds) {
    auto e = make_engine(48000);
    e->played_frames = 48000 * 3 + 47;
    EXPECT_EQ(kelva_played_ms(e.get()), 3000);
    e->played_frames = 1ull << 40;   // large counts do not overflow
    EXPECT_EQ(kelva_played_ms(e.get()), int64_t((1ull << 40) * 1000 / 48000));
    auto z = make_engine(0);
    ASSERT_NE(z, nullptr);
    z->played_frames = 1000;
    EXPECT_EQ(kelva_played_ms(z.get()), 0);
    auto n = make_engine(-5);
    n->played_frames = 1000;
    EXPECT_EQ(kelva_played_ms(n.get()), 0);
}

}  // namespace
