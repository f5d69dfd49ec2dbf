// A small harness for processor tests: a fresh engine, code placed at
// 0x1000, supervisor mode with the stack at 0x8000, one step at a time.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>

#include "cpu/cpu.h"
#include "support/test_support.h"

constexpr uint16_t X = kSrX, N = kSrN, Z = kSrZ, V = kSrV, C = kSrC;

struct cpu_test : ::testing::Test {
    engine_ptr engine;
    kelva *k = nullptr;
    uint32_t code_at = 0x1000;

    void SetUp() override {
        kelva_global_init();
        engine = make_engine();
        ASSERT_NE(engine, nullptr);
        k = engine.get();
        memset(k->d, 0, sizeof k->d);
        memset(k->a, 0, sizeof k->a);
        k->a[7] = 0x8000;
        k->usp = 0x6000;
        k->ssp = 0;
        k->sr = 0x2700;
        k->pc = code_at;
        k->vbr = 0;
        k->fault = 0;
        k->cycles = 0;
    }
    // Places words at PC (the next instruction).
    void code(std::initializer_list<uint16_t> words) {
        uint32_t at = k->pc;
        for (uint16_t w : words) {
            write16(k, at, w);
            at += 2;
        }
    }
    void step() { cpu_step(k); }
    void run(std::initializer_list<uint16_t> words) {
        code(words);
        step();
    }
    uint16_t ccr() const { return k->sr & 0x1F; }
    void set_ccr_bits(uint16_t f) { k->sr = uint16_t((k->sr & 0xFF00) | f); }
    // Installs a vector that points at `handler`.
    void vector(int v, uint32_t handler) { write32(k, k->vbr + uint32_t(v) * 4, handler); }
};
