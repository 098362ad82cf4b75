#include "ctl/ctl_pings.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "tests/unit/ctl/ring_value.h"
#include "tests/unit/ctl/text_stream.h"

namespace {

struct entry {
    uint32_t max, min, avg, sent, lost;
};

/* The value of "ping.snap" with these targets. */
std::string snap(const std::map<int, entry>& targets) {
    std::string bytes;
    for (int target = 1; target <= 20; target++) {
        const auto found = targets.find(target);
        const entry e = found == targets.end() ? entry{} : found->second;
        bytes += be32(e.max) + be32(e.min) + be32(e.avg) + be32(e.sent) + be32(e.lost);
    }
    return bytes;
}

std::string table(const std::string& value) {
    stream out;
    EXPECT_TRUE(ctl_pings_table(out, text_of(value)));
    return out.text();
}

constexpr char HEAD[] = "target        max        min        avg       sent       lost     loss\n";

TEST(tessctl_pings, are_a_line_for_each_target_that_has_reported) {
    EXPECT_EQ(table(snap({{3, {40, 5, 25, 20, 2}}, {1, {9, 8, 7, 6, 0}}, {20, {1, 1, 1, 3, 3}}})),
              std::string(HEAD) +
                  "     1          9          8          7          6          0    0.0 %\n"
                  "     3         40          5         25         20          2   10.0 %\n"
                  "    20          1          1          1          3          3  100.0 %\n");
}

TEST(tessctl_pings, may_have_no_reports_yet) {
    EXPECT_EQ(table(snap({})), "no reports yet\n");
}

TEST(tessctl_pings, show_a_target_of_which_all_probes_were_lost) {
    EXPECT_EQ(table(snap({{2, {0, 0, 0, 10, 10}}})),
              std::string(HEAD) +
                  "     2          0          0          0         10         10  100.0 %\n");
}

TEST(tessctl_pings, round_the_loss_to_a_tenth) {
    EXPECT_EQ(table(snap({{1, {1, 1, 1, 3, 1}},
                          {2, {1, 1, 1, 3, 2}},
                          {3, {1, 1, 1, 2000, 1}},
                          {4, {1, 1, 1, 2001, 1}}})),
              std::string(HEAD) +
                  "     1          1          1          1          3          1   33.3 %\n"
                  "     2          1          1          1          3          2   66.7 %\n"
                  "     3          1          1          1       2000          1    0.1 %\n"
                  "     4          1          1          1       2001          1    0.0 %\n");
}

TEST(tessctl_pings, have_no_loss_where_nothing_was_sent) {
    EXPECT_EQ(table(snap({{7, {5, 5, 5, 0, 4294967295}}})),
              std::string(HEAD) +
                  "     7          5          5          5          0 4294967295        -\n");
}

TEST(tessctl_pings, count_to_the_end_of_32_bits) {
    EXPECT_EQ(table(snap({{1, {4294967295, 4294967295, 4294967295, 4294967295, 4294967295}}})),
              std::string(HEAD) +
                  "     1 4294967295 4294967295 4294967295 4294967295 4294967295  100.0 %\n");
}

TEST(tessctl_pings, are_not_read_from_a_value_of_another_length) {
    for (size_t length : {0, 1, 20, 380, 399, 401, 420}) {
        stream out;
        const std::string value(length, 'x');
        EXPECT_FALSE(ctl_pings_table(out, text_of(value))) << length;
        EXPECT_EQ(out.text(), "");
    }
}

} // namespace
