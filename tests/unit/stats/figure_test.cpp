#include "stats/figure.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/big_endian.h"
#include "tests/unit/support/store_test.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

class figure_test : public store_test {
  protected:
    ~figure_test() override {
        object_reset();
        history_free_set(load.history);
    }

    void tick(uint32_t value) {
        load.value = value;
        figure_tick(&load);
    }

    static std::string ring(const char* key) {
        return std::string(bytes_of(object_lookup_type(key, OBJ_TSTRING)->string));
    }

    figure load = {};
};

} // namespace

TEST_F(figure_test, every_tick_is_a_sample_of_the_shortest_span_and_longer_ones_keep_the_maximum) {
    figure_start(&load, "load", 4);
    for (uint32_t i = 1; i <= 24; i++) {
        tick(i == 5 ? 70000 : i);
    }
    EXPECT_EQ(ring("load.10m").substr(12, 4), be32(24));
    EXPECT_EQ(ring("load.10m").substr(20, 24),
              be32(1) + be32(2) + be32(3) + be32(4) + be32(70000) + be32(6));
    EXPECT_EQ(ring("load.2h").substr(12, 4), be32(2));
    EXPECT_EQ(ring("load.2h").substr(20, 8), be32(70000) + be32(24)) << "each begins anew";
    EXPECT_EQ(load.maximum[2], 70000u) << "the day has no sample yet";
}

TEST_F(figure_test, a_sample_holds_the_last_bytes_of_the_value) {
    figure_start(&load, "load", 1);
    tick(100);
    tick(7);
    EXPECT_EQ(ring("load.10m").size(), 20u + 600);
    EXPECT_EQ(ring("load.10m").substr(20, 3), std::string("\x64\x07\0", 3));
}

TEST_F(figure_test, a_second_start_forgets_the_first) {
    figure_start(&load, "load", 4);
    tick(9);
    object_reset();
    figure_start(&load, "load", 4);
    EXPECT_EQ(load.value, 0u);
    EXPECT_EQ(load.maximum[4], 0u);
    EXPECT_EQ(ring("load.10m").substr(12, 12), be32(0) + be32(0) + be32(0));
}
