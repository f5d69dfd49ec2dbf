// The ProTracker-family players on synthetic modules: each effect pinned
// down by the Paula latches and channel state it leaves after N ticks.
//
// Timing: at 48 kHz a tick is 960 frames; the first tick of a song reads
// row 0, so after run_ticks(k, 1 + r * 6 + t) the player has just done tick
// t of row r at speed 6.
#include <gtest/gtest.h>

#include "ptk_support.h"
#include "support/modbuild.h"

using namespace ptk_test;

namespace {

constexpr uint32_t kModule = 0x010000;

// A four-channel module with `patterns` patterns played in order and two
// samples: 1 = 2000 words, volume 40, no loop; 2 = 100 words, volume 64,
// looping from word 10 for 50 words.
mod_builder base_module(uint32_t patterns, const char *tag = "M.K.") {
    mod_builder m = mod_new(tag, patterns);
    mod_set_sample(m, 0, smp(2000, 40, 0, 1));
    mod_set_sample(m, 1, smp(100, 64, 10, 50));
    mod_set_song(m, uint8_t(patterns), 0);
    for (uint32_t p = 0; p < patterns; p++) mod_set_order(m, int(p), uint8_t(p));
    return m;
}

// A note cell: period, sample, command, parameter.
void note(mod_builder &m, uint32_t pattern, int row, int ch, uint16_t period, uint8_t sample, uint8_t cmd = 0,
          uint8_t param = 0) {
    uint32_t o = 1084 + pattern * 1024 + uint32_t(row) * 16 + uint32_t(ch) * 4;
    mod_poke(m, o, uint8_t((sample & 0xF0) | (period >> 8)));
    mod_poke(m, o + 1, uint8_t(period));
    mod_poke(m, o + 2, uint8_t((sample << 4) | (cmd & 15)));
    mod_poke(m, o + 3, param);
}

uint32_t sample_data(uint32_t patterns) { return kModule + 1084 + 1024 * patterns; }

// Opens a player (PTK-Prowiz unless named) on the module; without a module
// path the player takes the variant from the module's tag.
engine_ptr open_player(const std::vector<uint8_t> &mod, const char *player = "PTK-Prowiz",
                       const char *module_path = nullptr) {
    kelva_global_init();
    engine_ptr k = make_engine(48000);
    std::vector<uint8_t> p = read_bytes(player_path(player));
    std::string pp = player_path(player);
    EXPECT_EQ(kelva_open(k.get(), p.data(), uint32_t(p.size()), mod.data(), uint32_t(mod.size()), pp.c_str(),
                         module_path, 0),
              0);
    return k;
}

uint16_t per(const engine_ptr &k, int c = 0) { return k->aud[c].per; }
uint8_t vol(const engine_ptr &k, int c = 0) { return k->aud[c].vol; }
// Byte offset of the sample being played by channel c.
uint32_t play_addr(const engine_ptr &k, int c = 0) { return uint32_t(k->ch[c].data - k->ram); }

class PtkEffects : public ::testing::Test {
  protected:
    void SetUp() override { PTK_REQUIRE_PLAYER("PTK-Prowiz"); }
};

}  // namespace

TEST_F(PtkEffects, NoteStartsSampleWithItsVolumeAndQueuesTheLoop) {
    mod_builder m = base_module(1);
    note(m, 0, 0, 0, 428, 1);
    note(m, 0, 0, 1, 856, 2);   // slow enough to be still in the first pass after a tick
    engine_ptr k = open_player(mod_finish(m));
    run_ticks(k.get(), 1);
    EXPECT_EQ(per(k, 0), 428);
    EXPECT_EQ(vol(k, 0), 40);
    EXPECT_TRUE(k->aud[0].dma_running);
    EXPECT_EQ(play_addr(k, 0), sample_data(1));
    EXPECT_EQ(vol(k, 1), 64);
    EXPECT_EQ(play_addr(k, 1), sample_data(1) + 4000);
    // Sample 2 plays to the end of its loop (10 + 50 words), then the loop
    // from word 10 is queued; sample 1 has no loop: silence is queued.
    EXPECT_EQ(k->ch[1].end, 120u);
    EXPECT_EQ(k->aud[1].lc, sample_data(1) + 4000 + 20);
    EXPECT_EQ(k->aud[1].len, 50);
    EXPECT_EQ(k->aud[0].len, 1);
    EXPECT_NE(k->aud[0].lc, sample_data(1));
}

TEST_F(PtkEffects, FinetuneFromSampleAndE5x) {
    mod_builder m = base_module(1);
    mod_set_sample(m, 0, smp(2000, 40, 0, 1, 1));   // finetune +1
    note(m, 0, 0, 0, 428, 1);
    note(m, 0, 1, 0, 428, 2, 0xE, 0x5F);   // finetune -1 for this note
    note(m, 0, 2, 0, 428, 0);              // keeps -1
    note(m, 0, 3, 0, 428, 2);              // the sample's own finetune again (0)
    engine_ptr k = open_player(mod_finish(m));
    run_ticks(k.get(), 1);
    EXPECT_EQ(per(k), 425);
    run_ticks(k.get(), 6);
    EXPECT_EQ(per(k), 431);
    run_ticks(k.get(), 6);
    EXPECT_EQ(per(k), 431);
    run_ticks(k.get(), 6);
    EXPECT_EQ(per(k), 428);
}

TEST_F(PtkEffects, ArpeggioCyclesThreeNotes) {
    mod_builder m = base_module(1);
    note(m, 0, 0, 0, 428, 1, 0x0, 0x37);
    engine_ptr k = open_player(mod_finish(m));
    const uint16_t expect[] = {428, 360, 285, 428, 360, 285};
    for (uint16_t e : expect) {
        run_ticks(k.get(), 1);
        EXPECT_EQ(per(k), e);
    }
}

TEST_F(PtkEffects, PortamentoUpDownAndTheirLimits) {
    mod_builder m = base_module(1);
    note(m, 0, 0, 0, 428, 1, 0x1, 0x05);
    note(m, 0, 0, 1, 120, 1, 0x1, 0x10);
    note(m, 0, 0, 2, 428, 1, 0x2, 0x05);
    note(m, 0, 0, 3, 808, 1, 0x2, 0x30);
    note(m, 0, 1, 0, 0, 0, 0xE, 0x13);    // fine slide: once, on tick 0
    engine_ptr k = open_player(mod_finish(m));
    run_ticks(k.get(), 3);                 // tick 0 sets, ticks 1, 2 slide
    EXPECT_EQ(per(k, 0), 418);
    EXPECT_EQ(per(k, 1), 113);
    EXPECT_EQ(per(k, 2), 438);
    EXPECT_EQ(per(k, 3), 856);
    run_ticks(k.get(), 3);                 // rest of row 0
    EXPECT_EQ(per(k, 0), 403);
    run_ticks(k.get(), 6);
    EXPECT_EQ(per(k, 0), 400);
}

TEST_F(PtkEffects, TonePortamentoSlidesToTheNoteAndStops) {
    mod_builder m = base_module(1);
    note(m, 0, 0, 0, 428, 1);
    note(m, 0, 1, 0, 214, 0, 0x3, 0x20);
    note(m, 0, 2, 0, 0, 0, 0x3, 0x00);     // continues at the same speed
    note(m, 0, 3, 0, 0, 0, 0x3, 0x00);
    engine_ptr k = open_player(mod_finish(m));
    run_ticks(k.get(), 7);                 // row 1 tick 0: the target is set, no jump
    EXPECT_EQ(per(k), 428);
    run_ticks(k.get(), 5);
    EXPECT_EQ(per(k), 428 - 5 * 32);
    run_ticks(k.get(), 6);                 // would pass 214 on the way: stops there
    EXPECT_EQ(per(k), 214);
    run_ticks(k.get(), 6);
    EXPECT_EQ(per(k), 214);
}

TEST_F(PtkEffects, VibratoSineAndItsPosition) {
    mod_builder m = base_module(1);
    note(m, 0, 0, 0, 428, 1, 0x4, 0x48);   // speed 4, depth 8
    engine_ptr k = open_player(mod_finish(m));
    // Position advances by 16 per tick from 0; offset = sine * depth / 128.
    const uint16_t expect[] = {428, 428, 428 + 6, 428 + 11, 428 + 14};
    for (uint16_t e : expect) {
        run_ticks(k.get(), 1);
        EXPECT_EQ(per(k), e);
    }
}

TEST_F(PtkEffects, VolumeCommandsAndTremolo) {
    mod_builder m = base_module(1);
    note(m, 0, 0, 0, 428, 1, 0xA, 0x02);   // 40 down by 2 per tick
    note(m, 0, 1, 0, 0, 0, 0xA, 0x30);     // up by 3
    note(m, 0, 2, 0, 0, 0, 0xC, 0x50);     // 80 -> 64
    note(m, 0, 3, 0, 0, 0, 0xE, 0xB4);     // fine down once: 60
    note(m, 0, 0, 1, 428, 1, 0x7, 0x48);   // tremolo speed 4, depth 8 on volume 40
    engine_ptr k = open_player(mod_finish(m));
    // Tremolo: offset = sine(position) * depth / 64, position +16 per tick.
    const uint8_t trem[] = {40, 40, 40 + 12, 40 + 22, 64, 64};
    for (uint8_t t : trem) {
        run_ticks(k.get(), 1);
        EXPECT_EQ(vol(k, 1), t);
    }
    EXPECT_EQ(vol(k, 0), 30);
    run_ticks(k.get(), 6);
    EXPECT_EQ(vol(k, 0), 45);
    run_ticks(k.get(), 1);
    EXPECT_EQ(vol(k, 0), 64);
    run_ticks(k.get(), 6);
    EXPECT_EQ(vol(k, 0), 60);
    run_ticks(k.get(), 5);
    EXPECT_EQ(vol(k, 0), 60);
}

TEST_F(PtkEffects, PatternBreakAndPositionJump) {
    mod_builder m = base_module(3);
    note(m, 0, 0, 0, 428, 1, 0xD, 0x12);   // to the next position, row 12 (decimal)
    note(m, 1, 12, 0, 381, 1, 0xB, 0x00);  // back to position 0: the song's end
    note(m, 1, 13, 0, 339, 1);
    engine_ptr k = open_player(mod_finish(m));
    run_ticks(k.get(), 6);
    EXPECT_EQ(per(k), 428);
    run_ticks(k.get(), 1);
    EXPECT_EQ(per(k), 381);
    EXPECT_EQ(k->song_end_frame, 0u);
    run_ticks(k.get(), 6);
    EXPECT_EQ(per(k), 428);   // position 0 row 0 again
    EXPECT_EQ(k->song_end_frame, uint64_t(12 * kTick));   // the 13th tick found the row played
}

TEST_F(PtkEffects, PatternLoopRepeatsRows) {
    mod_builder m = base_module(1);
    note(m, 0, 0, 0, 428, 1, 0xE, 0x60);
    note(m, 0, 1, 0, 381, 1, 0xE, 0x62);   // rows 0-1 three times
    note(m, 0, 2, 0, 339, 1);
    engine_ptr k = open_player(mod_finish(m));
    run_ticks(k.get(), 5 * 6 + 1);
    EXPECT_EQ(per(k), 381);
    run_ticks(k.get(), 6);
    EXPECT_EQ(per(k), 339);
    EXPECT_EQ(k->song_end_frame, 0u);   // the repeated rows are not the song's end
}

TEST_F(PtkEffects, PatternDelayHoldsTheRow) {
    mod_builder m = base_module(1);
    note(m, 0, 0, 0, 428, 1, 0xE, 0xE2);   // row 0 lasts 3 rows' time
    note(m, 0, 0, 1, 428, 1, 0xA, 0x01);   // its slide goes on meanwhile
    note(m, 0, 1, 0, 381, 1);
    engine_ptr k = open_player(mod_finish(m));
    run_ticks(k.get(), 18);
    EXPECT_EQ(per(k), 428);
    // Ticks 1-5 of each of the three passes slide; the repeated tick 0s
    // run the running effects too.
    EXPECT_EQ(vol(k, 1), 40 - 17);
    run_ticks(k.get(), 1);
    EXPECT_EQ(per(k), 381);
}

TEST_F(PtkEffects, NoteDelayAndNoteCut) {
    mod_builder m = base_module(1);
    note(m, 0, 0, 0, 428, 1, 0xE, 0xD3);
    note(m, 0, 0, 1, 428, 1, 0xE, 0xC2);
    engine_ptr k = open_player(mod_finish(m));
    run_ticks(k.get(), 2);
    EXPECT_FALSE(k->aud[0].dma_running);
    EXPECT_EQ(vol(k, 1), 40);
    run_ticks(k.get(), 1);
    EXPECT_FALSE(k->aud[0].dma_running);
    EXPECT_EQ(vol(k, 1), 0);   // cut on tick 2
    run_ticks(k.get(), 1);
    EXPECT_TRUE(k->aud[0].dma_running);
    EXPECT_EQ(per(k, 0), 428);
    EXPECT_EQ(play_addr(k, 0), sample_data(1));
}

TEST_F(PtkEffects, RetriggerRestartsTheSample) {
    mod_builder m = base_module(1);
    note(m, 0, 0, 0, 428, 1, 0xE, 0x92);
    note(m, 0, 0, 1, 428, 1);
    engine_ptr k = open_player(mod_finish(m));
    // About 166 samples per tick at period 428. After 5 ticks channel 1 has
    // played ~830; channel 0 restarted on tick 4 and has played ~166.
    run_ticks(k.get(), 5);
    EXPECT_GT(k->ch[1].pos, 700u);
    EXPECT_LT(k->ch[0].pos, 200u);
    EXPECT_GT(k->ch[0].pos, 100u);
}

TEST_F(PtkEffects, SampleOffsetIsAppliedTwiceToTheVoice) {
    mod_builder m = base_module(1);
    note(m, 0, 0, 0, 428, 1, 0x9, 0x02);   // starts 512 bytes in
    note(m, 0, 1, 0, 428, 0);              // the replay routine's quirk: 1024 bytes in
    note(m, 0, 2, 0, 428, 1, 0x9, 0x00);   // 9 with 0: the last offset again
    engine_ptr k = open_player(mod_finish(m));
    run_ticks(k.get(), 1);
    EXPECT_EQ(play_addr(k), sample_data(1) + 512);
    run_ticks(k.get(), 6);
    EXPECT_EQ(play_addr(k), sample_data(1) + 1024);
    run_ticks(k.get(), 6);
    EXPECT_EQ(play_addr(k), sample_data(1) + 512);
}

TEST_F(PtkEffects, SpeedAndCiaTempo) {
    mod_builder m = base_module(1);
    note(m, 0, 0, 0, 428, 1, 0xF, 0x03);
    note(m, 0, 1, 0, 381, 1, 0xF, 0x96);   // 150 BPM
    note(m, 0, 2, 0, 339, 1);
    engine_ptr k = open_player(mod_finish(m));
    run_ticks(k.get(), 3);
    EXPECT_EQ(per(k), 428);
    run_ticks(k.get(), 1);
    EXPECT_EQ(per(k), 381);
    EXPECT_EQ(uint16_t(k->ram[0xF90000 + 54] << 8 | k->ram[0xF90000 + 55]), 1773447 / 150);
    EXPECT_EQ(k->frames_per_tick, 800);    // (11823 + 1) x 48000 / 709379, rounded
}

TEST_F(PtkEffects, SongEndAtTheEndOfTheOrderList) {
    mod_builder m = base_module(2);
    note(m, 0, 0, 0, 428, 1);
    note(m, 1, 0, 0, 381, 1, 0xF, 0x03);
    engine_ptr k = open_player(mod_finish(m));
    int32_t reason = 0;
    // 64 rows at speed 6, then 64 rows at speed 3: 192 + 384 ticks of 20 ms.
    EXPECT_EQ(kelva_measure_length(k.get(), 0, 0, &reason, nullptr, nullptr), 576u * 20);
    EXPECT_EQ(reason, 1);
}
