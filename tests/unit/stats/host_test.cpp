#include "stats/host.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/big_endian.h"
#include "tests/unit/stats/late_clock.h"
#include "tests/unit/stats/statistics_test.h"

using namespace unit_test;

namespace {

class online_hosts_test : public statistics_tools_test {
  protected:
    /* One poll of a tool that does this. */
    std::string hosts_of_tool(const std::string& body) const {
        tool("hostmon", body);
        host_poll();
        return get("host.num") + " of " + get("host.maxnum");
    }

    static std::string hosts(const std::string& text) {
        host_update(text.c_str());
        host_publish();
        return get("host.num") + " of " + get("host.maxnum");
    }
};

} // namespace

TEST_F(online_hosts_test, both_lines_of_the_host_tool_are_taken) {
    EXPECT_EQ(hosts("Online hosts: 5\nMax Online hosts: 9\n"), "5 of 9");
    EXPECT_EQ(hosts("Online hosts: 7\nMax Online hosts: 12"), "7 of 12");
}

TEST_F(online_hosts_test, without_the_second_line_the_maximum_stays) {
    EXPECT_EQ(hosts("Online hosts: 3\nMax Online hosts: 9\n"), "3 of 9");
    EXPECT_EQ(hosts("Online hosts: 5\n"), "5 of 9");
    EXPECT_EQ(hosts("Online hosts: 6"), "6 of 9");
    EXPECT_EQ(hosts("Online hosts: 7\nMaximum: 10\n"), "7 of 9");
    EXPECT_EQ(hosts("Online hosts: 8\nMax Online hosts: many\n"), "8 of 9");
}

TEST_F(online_hosts_test, what_the_host_tool_does_not_say_stays) {
    EXPECT_EQ(hosts(""), "0 of 0");
    EXPECT_EQ(hosts("Online hosts: 3\nMax Online hosts: 9\n"), "3 of 9");
    for (const char* text :
         {"", "garbage\n", "Max Online hosts: 20\n", "Online hosts: none\nMax Online hosts: 20\n",
          "online hosts: 4\n", "12\n", "\xff\xfe\x01"}) {
        EXPECT_EQ(hosts(text), "3 of 9") << text;
    }
}

TEST_F(online_hosts_test, host_figures_are_signed_32_bit_readings) {
    EXPECT_EQ(hosts("Online hosts: 2147483647\nMax Online hosts: 2147483648\n"),
              "2147483647 of 2147483647");
    EXPECT_EQ(hosts("Online hosts: 99999999999999999999999\nMax Online hosts: -1\n"),
              "2147483647 of 4294967295");
    EXPECT_EQ(hosts("Online hosts: -5\nMax Online hosts: -99999999999999999999999\n"),
              "4294967291 of 2147483648");
    EXPECT_EQ(hosts("Online hosts: 0\nMax Online hosts: 0\n"), "0 of 0");
}

TEST_F(online_hosts_test, host_histories_keep_the_maximum_whatever_interfaces_do) {
    history_iface_algor = 0;
    for (int tick = 1; tick <= 24; tick++) {
        hosts("Online hosts: " + std::to_string(tick == 5 ? 300 : tick) + "\n");
    }
    EXPECT_EQ(filled("host.10m"), be32(24));
    EXPECT_EQ(samples("host.10m", 6, 4),
              be32(1) + be32(2) + be32(3) + be32(4) + be32(300) + be32(6));
    EXPECT_EQ(filled("host.2h"), be32(2));
    EXPECT_EQ(samples("host.2h", 2, 4), be32(300) + be32(24));
    EXPECT_EQ(filled("conn.10m"), be32(0)) << "each figure has histories of its own";
}

/* --- The tool --- */

TEST_F(online_hosts_test, are_read_however_the_tool_breaks_its_lines) {
    EXPECT_EQ(hosts_of_tool("printf 'Online hosts:\\n5\\nMax Online hosts: 9'"), "5 of 9");
    EXPECT_EQ(hosts_of_tool("printf 'Online hosts:\\n\\n6 \\n\\n  Max Online hosts:\\n10\\n'"),
              "6 of 10");
    EXPECT_EQ(hosts_of_tool("printf 'Online hosts: 7 Max\\nOnline\\thosts:11 of them\\n'"),
              "7 of 11");
    EXPECT_EQ(hosts_of_tool("printf '\\nOnline hosts: 8\\nMax Online hosts: 12\\n'"), "7 of 11")
        << "nothing stands before them";
}

TEST_F(online_hosts_test, are_read_whole_although_the_digits_come_one_by_one) {
    EXPECT_EQ(
        hosts_of_tool("printf 'Online hosts: 1'; sleep 0.05; printf '2\\nMax Online hosts: 3';"
                      "sleep 0.05; echo 4"),
        "12 of 34");
}

TEST_F(online_hosts_test, are_read_before_a_list_of_any_length) {
    EXPECT_EQ(hosts_of_tool("echo 'Online hosts: 5'; echo 'Max Online hosts: 9'; exec yes host"),
              "5 of 9");
}

TEST_F(online_hosts_test, stay_when_the_tool_does_not_end) {
    EXPECT_EQ(hosts_of_tool("echo 'Online hosts: 5'; echo 'Max Online hosts: 9'"), "5 of 9");
    const late_clock clock(folder + "/late");
    EXPECT_EQ(hosts_of_tool("echo 'Online hosts: 6'; echo 'Max Online hosts: 10'; : >" + folder +
                            "/late; exec sleep 7"),
              "5 of 9");
    EXPECT_EQ(samples("host.10m", 2, 4), be32(5) + be32(5)) << "the histories go on";
}
