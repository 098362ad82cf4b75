#pragma once

#include <gtest/gtest.h>

#include <stdlib.h>
#include <time.h>

#include <string>

#include "ctl/ctl_series.h"
#include "tests/unit/ctl/ring_value.h"

/* A history of each kind, to be shown, in a zone of its own. */

/* 1700000000 is 2023-11-14 22:13:20 in UTC. */
class history_test : public ::testing::Test {
  protected:
    history_test() {
        setenv("TZ", "TEST-2", 1); /* two hours ahead */
        tzset();
    }
    ~history_test() override {
        unsetenv("TZ");
        tzset();
    }

    const ctl_series* decode(const std::string& name, const std::string& bytes) {
        key = name;
        value = bytes;
        EXPECT_EQ(ctl_series_decode(text_of(key), text_of(value), &s), nullptr);
        return &s;
    }

    void cpu() {
        decode("cpu.2h", ring_of_bytes({1700000000, 12, 3, 3, 1}, {7, 100, 0}));
    }
    void interface() {
        decode("eth0.10m", ring_of_numbers({1700000000, 1, 3, 2, 2},
                                           {4294967295, 2, 3, 4, 50, 6, 70, 8, 0, 0, 0, 0}));
    }
    void ping() {
        decode("ping3.day",
               ring_of_numbers({1700000000, 3, 2, 2, 0}, {40, 10, 20, 10, 0, 30, 5, 30, 10, 2}));
    }
    void empty() {
        decode("conn.10m", ring_of_numbers({0, 1, 2, 0, 0}, {0, 0}));
    }

    std::string key;
    std::string value;
    ctl_series s;
};
