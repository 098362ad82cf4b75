#include "stats/conn.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/big_endian.h"
#include "tests/unit/stats/late_clock.h"
#include "tests/unit/stats/statistics_test.h"

using namespace unit_test;

namespace {

class tracked_connections_test : public statistics_tools_test {
  protected:
    /* One poll of a tool that does this. */
    std::string connections_of_tool(const std::string& body) const {
        tool("conntrack", body);
        conn_poll();
        return get("conn");
    }

    static std::string connections(const std::string& text) {
        conn_update(text.c_str());
        conn_publish();
        return get("conn");
    }
};

} // namespace

TEST_F(tracked_connections_test, the_connection_figure_is_the_first_number) {
    EXPECT_EQ(connections("123\n"), "123");
    EXPECT_EQ(connections(" \n\t 45 67"), "45");
    EXPECT_EQ(connections("12abc"), "12");
    EXPECT_EQ(connections("0x10"), "0");
    EXPECT_EQ(connections("+8"), "8");
}

TEST_F(tracked_connections_test, without_a_number_the_connection_figure_is_zero) {
    for (const char* text : {"", "\n", "found=0\n", "entries\n", "-\n", "\x80\x81\n"}) {
        EXPECT_EQ(connections("123\n"), "123");
        EXPECT_EQ(connections(text), "0") << text;
    }
}

TEST_F(tracked_connections_test, the_connection_figure_is_a_signed_32_bit_reading) {
    EXPECT_EQ(connections("2147483647"), "2147483647");
    EXPECT_EQ(connections("2147483648"), "2147483647");
    EXPECT_EQ(connections("18446744073709551616"), "2147483647");
    EXPECT_EQ(connections(std::string(100000, '1')), "2147483647");
    EXPECT_EQ(connections("-3"), "4294967293");
}

TEST_F(tracked_connections_test, connection_histories_keep_the_maximum) {
    for (int tick = 1; tick <= 13; tick++) {
        connections(std::to_string(100000 * (tick <= 6 ? tick : 13 - tick)));
    }
    EXPECT_EQ(samples("conn.10m", 2, 4), be32(100000) + be32(200000));
    EXPECT_EQ(filled("conn.2h"), be32(1));
    EXPECT_EQ(samples("conn.2h", 2, 4), be32(600000) + be32(0));
}

/* --- The tool --- */

TEST_F(tracked_connections_test, are_the_second_word_of_the_tools_first_line) {
    EXPECT_EQ(connections_of_tool("echo 'entries\t 4711 4712'; echo 'searched 5'"), "4711");
    EXPECT_EQ(connections_of_tool("echo 'cpu=0 \tfound=0 invalid=12'"), "0");
    EXPECT_EQ(connections_of_tool("echo 'entries 12'; exec yes"), "12");
}

TEST_F(tracked_connections_test, are_zero_without_a_number_and_stay_when_the_tool_does_not_end) {
    EXPECT_EQ(connections_of_tool("echo 'entries 12'"), "12");
    for (const char* said : {"", "echo 'entries 13'; "}) {
        const late_clock clock(folder + "/late");
        EXPECT_EQ(connections_of_tool(said + (": >" + folder) + "/late; exec sleep 7"), "12");
    }
    EXPECT_EQ(connections_of_tool("exit 1"), "0");
    EXPECT_EQ(samples("conn.10m", 4, 4), be32(12) + be32(12) + be32(12) + be32(0));
}
