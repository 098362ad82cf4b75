#include "stats/mem.h"

#include <gtest/gtest.h>

#include <stdio.h>

#include <string>

#include "tests/unit/stats/statistics_test.h"

using namespace unit_test;

namespace {

class memory_load_test : public statistics_test {
  protected:
    static uint32_t mem(std::string text) {
        FILE* file =
            text.empty() ? fopen("/dev/null", "r") : fmemopen(text.data(), text.size(), "r");
        EXPECT_NE(file, nullptr);
        const uint32_t load = mem_update(file);
        fclose(file);
        return load;
    }
};

} // namespace

TEST_F(memory_load_test, memory_is_what_is_neither_free_nor_buffers_nor_cached) {
    /* 61372 - 21052 = 40320 of 61372: 65.7 percent. */
    EXPECT_EQ(
        mem("MemTotal:         61372 kB\nMemFree:           5472 kB\nBuffers:           3240 kB\n"
            "Cached:           12340 kB\nSwapCached:            0 kB\n"),
        65u);
}

TEST_F(memory_load_test, a_line_in_between_ends_the_reading) {
    /* 61372 - 5472 = 55900 of 61372: 91.08 percent. */
    EXPECT_EQ(
        mem("MemTotal:         61372 kB\nMemFree:           5472 kB\nMemAvailable:     30000 kB\n"
            "Buffers:           3240 kB\nCached:           12340 kB\n"),
        91u);
    /* 61372 - 5472 - 3240 = 52660: 85.8 percent. */
    EXPECT_EQ(
        mem("MemTotal:         61372 kB\nMemFree:           5472 kB\nBuffers:           3240 kB\n"
            "Shared:           10000 kB\nCached:           12340 kB\n"),
        85u);
}

TEST_F(memory_load_test, after_a_reading_that_does_not_match_none_is_taken) {
    EXPECT_EQ(mem("MemTotal: 100 kB\nMemFree: 10 kB\nBuffCached: 50 kB\n"), 90u);
    EXPECT_EQ(mem("MemTotal: 100 kB\nMemFree: 20 kB\nBuffers: many kB\nCached: 50 kB\n"), 80u);
    EXPECT_EQ(mem("MemTotal: 100 kB\nBuffers: 30 kB\nCached: 20 kB\n"), 100u);
    EXPECT_EQ(mem("MemTotal: 100 kB\nMemFree: 25 kB\nCached: 20 kB\n"), 75u);
    EXPECT_EQ(mem("MemTotal: 100 kB\n"), 100u);
    EXPECT_EQ(mem("MemTotal: 100 kB\nMemFree: 30"), 70u);
}

TEST_F(memory_load_test, blanks_of_any_kind_may_stand_before_the_figures) {
    EXPECT_EQ(mem("MemTotal:100 kB\nMemFree:\t\t 25 kB\n\nBuffers: 5   kB\nCached:\n10kB\n"), 60u);
}

TEST_F(memory_load_test, without_a_total_the_load_stays) {
    EXPECT_EQ(mem(""), 0u);
    EXPECT_EQ(mem("MemTotal: 100 kB\nMemFree: 58 kB\nBuffers: 0 kB\nCached: 0 kB\n"), 42u);
    for (const char* text :
         {"", "garbage", "MemTotal: 0 kB\nMemFree: 0 kB\n", "MemTotal: lots kB\nMemFree: 1 kB\n",
          "MemFree: 10 kB\nMemTotal: 100 kB\n", "\x7f\x45\x4c\x46"}) {
        EXPECT_EQ(mem(text), 42u) << text;
    }
}

TEST_F(memory_load_test, more_available_than_there_is_keeps_the_load) {
    EXPECT_EQ(mem("MemTotal: 100 kB\nMemFree: 58 kB\nBuffers: 0 kB\nCached: 0 kB\n"), 42u);
    EXPECT_EQ(mem("MemTotal: 100 kB\nMemFree: 50 kB\nBuffers: 26 kB\nCached: 25 kB\n"), 42u);
    EXPECT_EQ(mem("MemTotal: 100 kB\nMemFree: 50 kB\nBuffers: 25 kB\nCached: 25 kB\n"), 0u);
}

TEST_F(memory_load_test, the_arithmetic_has_32_bits) {
    EXPECT_EQ(mem("MemTotal: 42949672 kB\nMemFree: 0 kB\nBuffers: 0 kB\nCached: 0 kB\n"), 100u);
    /* 42949673 * 100 is 4 in 32 bits. */
    EXPECT_EQ(mem("MemTotal: 42949673 kB\nMemFree: 0 kB\nBuffers: 0 kB\nCached: 0 kB\n"), 0u);
    /* 4294967295 + 2 is 1. */
    EXPECT_EQ(mem("MemTotal: 100 kB\nMemFree: 4294967295 kB\nBuffers: 2 kB\nCached: 0 kB\n"), 99u);
    /* Figures of more than 32 bits are the largest of 32 bits: nothing is used. */
    EXPECT_EQ(mem("MemTotal: 8589934592 kB\nMemFree: 8589934592 kB\nBuffers: 0 kB\nCached: 0 kB\n"),
              0u);
}
