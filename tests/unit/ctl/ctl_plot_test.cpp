#include "ctl/ctl_plot.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <string>
#include <vector>

#include "tests/unit/ctl/text_stream.h"

namespace {

std::string label(uint64_t number, uint64_t top) {
    char text[CTL_PLOT_LABEL_SIZE];
    ctl_plot_label(text, number, top);
    return text;
}

std::string shortened(uint32_t number) {
    char text[CTL_PLOT_LABEL_SIZE];
    ctl_plot_short(text, number);
    return text;
}

/* A bar from its lowest character to its highest. */
std::string bar(uint32_t value, uint64_t top, unsigned height, bool utf8) {
    std::string cells;
    for (unsigned row = 0; row < height; row++) {
        cells += ctl_plot_cell(value, top, height, row, utf8);
    }
    return cells;
}

std::string drawn(const ctl_plot& plot) {
    stream out;
    ctl_plot_draw(out, &plot);
    return out.text();
}

/* The line below the axis of a plot that is `width` columns wide. */
std::string label_line(unsigned width, const char* first, const char* middle, const char* last) {
    const std::vector<uint32_t> columns(width);
    std::string text = drawn({columns.data(), width, 4, 4, false, {first, middle, last}});
    text.pop_back();
    return text.substr(text.rfind('\n') + 1);
}

TEST(tessctl_plot_scale, ends_at_four_round_steps) {
    const struct {
        uint32_t most;
        uint64_t top;
    } cases[] = {{0, 4},
                 {1, 4},
                 {4, 4},
                 {5, 8},
                 {8, 8},
                 {9, 20},
                 {20, 20},
                 {21, 40},
                 {40, 40},
                 {41, 80},
                 {80, 80},
                 {81, 100},
                 {100, 100},
                 {101, 200},
                 {200, 200},
                 {201, 400},
                 {400, 400},
                 {401, 800},
                 {801, 1000},
                 {1001, 2000},
                 {8001, 10000},
                 {100001, 200000},
                 {4000000000, 4000000000},
                 {4294967295, 8000000000}};
    for (const auto& one : cases) {
        EXPECT_EQ(ctl_plot_top(one.most), one.top) << one.most;
    }
}

TEST(tessctl_plot_scale, has_labels_in_one_unit) {
    EXPECT_EQ(label(0, 4), "0");
    EXPECT_EQ(label(3, 4), "3");
    EXPECT_EQ(label(75, 100), "75");
    EXPECT_EQ(label(2000, 2000), "2000");
    EXPECT_EQ(label(500, 2000), "500");
    EXPECT_EQ(label(1000, 4000), "1k");
    EXPECT_EQ(label(4000, 4000), "4k");
    EXPECT_EQ(label(2500, 10000), "2.5k");
    EXPECT_EQ(label(5000, 10000), "5k");
    EXPECT_EQ(label(7500, 10000), "7.5k");
    EXPECT_EQ(label(250000, 1000000), "250k");
    EXPECT_EQ(label(1000000, 1000000), "1000k");
    EXPECT_EQ(label(0, 1000000), "0");
    EXPECT_EQ(label(4000000, 4000000), "4M");
    EXPECT_EQ(label(6000000000, 8000000000), "6G");
}

TEST(tessctl_plot_numbers, are_short_and_cut) {
    EXPECT_EQ(shortened(0), "0");
    EXPECT_EQ(shortened(999), "999");
    EXPECT_EQ(shortened(1000), "1.0k");
    EXPECT_EQ(shortened(1099), "1.0k");
    EXPECT_EQ(shortened(1100), "1.1k");
    EXPECT_EQ(shortened(999999), "999.9k");
    EXPECT_EQ(shortened(1000000), "1.0M");
    EXPECT_EQ(shortened(999999999), "999.9M");
    EXPECT_EQ(shortened(1000000000), "1.0G");
    EXPECT_EQ(shortened(4294967295), "4.2G");
}

TEST(tessctl_plot_bars, have_three_heights_a_character_in_ascii) {
    EXPECT_EQ(bar(0, 6, 2, false), "  ");
    EXPECT_EQ(bar(1, 6, 2, false), ". ");
    EXPECT_EQ(bar(2, 6, 2, false), ": ");
    EXPECT_EQ(bar(3, 6, 2, false), "# ");
    EXPECT_EQ(bar(4, 6, 2, false), "#.");
    EXPECT_EQ(bar(5, 6, 2, false), "#:");
    EXPECT_EQ(bar(6, 6, 2, false), "##");
}

TEST(tessctl_plot_bars, have_eight_heights_a_character_in_utf8) {
    const std::string parts[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    for (uint32_t value = 0; value <= 8; value++) {
        EXPECT_EQ(bar(value, 8, 1, true), parts[value]);
    }
    EXPECT_EQ(bar(50, 100, 2, true), "█ ");
    EXPECT_EQ(bar(51, 100, 2, true), "█▁");
}

TEST(tessctl_plot_bars, show_whatever_is_not_nothing) {
    EXPECT_EQ(bar(1, 8000000000, 1, false), ".");
    EXPECT_EQ(bar(1, 1000, 16, true).substr(0, 3), "▁");
}

TEST(tessctl_plot_bars, end_at_the_top) {
    EXPECT_EQ(bar(255, 100, 2, false), "##");
    EXPECT_EQ(bar(4294967295, 4, 1, true), "█");
}

TEST(tessctl_plot, stands_on_a_scale_with_labels) {
    const uint32_t columns[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ(drawn({columns, 10, 4, 8, false, {"a", "m", "z"}}), "     8 +       :##\n"
                                                                  "     6 +     :####\n"
                                                                  "     4 +   :######\n"
                                                                  "     2 + :########\n"
                                                                  "     0 +-----+---+\n"
                                                                  "        a    m   z\n");
}

TEST(tessctl_plot, has_a_label_at_every_quarter_of_its_height) {
    const uint32_t columns[] = {100, 0, 50, 13, 0};
    EXPECT_EQ(drawn({columns, 5, 8, 100, false, {"a", "m", "z"}}), "   100 +#\n"
                                                                   "       |#\n"
                                                                   "    75 +#\n"
                                                                   "       |#\n"
                                                                   "    50 +# #\n"
                                                                   "       |# #\n"
                                                                   "    25 +# #.\n"
                                                                   "       |# ##\n"
                                                                   "     0 +--+-+\n"
                                                                   "        a m z\n");
}

TEST(tessctl_plot, is_drawn_with_blocks_where_the_terminal_knows_them) {
    const uint32_t columns[] = {1, 2, 3, 4};
    EXPECT_EQ(drawn({columns, 4, 4, 4, true, {"a", "", "z"}}), "     4 +   █\n"
                                                               "     3 +  ██\n"
                                                               "     2 + ███\n"
                                                               "     1 +████\n"
                                                               "     0 +--++\n"
                                                               "        a  z\n");
}

TEST(tessctl_plot, leaves_labels_out_that_have_no_room) {
    EXPECT_EQ(label_line(26, "12:00:00", "12:00:13", "12:00:25"),
              "        12:00:00 12:00:13 12:00:25");
    EXPECT_EQ(label_line(25, "12:00:00", "12:00:13", "12:00:25"),
              "        12:00:00         12:00:25");
    EXPECT_EQ(label_line(17, "12:00:00", "12:00:13", "12:00:25"), "        12:00:00 12:00:25");
    EXPECT_EQ(label_line(16, "12:00:00", "12:00:13", "12:00:25"), "        12:00:00");
    EXPECT_EQ(label_line(1, "12:00:00", "12:00:13", "12:00:25"), "        12:00:00");
}

TEST(tessctl_plot, asks_the_environment_about_utf8) {
    const struct {
        const char* all;
        const char* ctype;
        const char* lang;
        bool utf8;
    } cases[] = {
        {nullptr, nullptr, nullptr, false},      {"", "", "", false},
        {nullptr, nullptr, "de_DE.UTF-8", true}, {nullptr, nullptr, "C.utf8", true},
        {nullptr, nullptr, "C", false},          {"C", nullptr, "de_DE.UTF-8", false},
        {"", "en_GB.utf-8", "C", true},          {nullptr, "POSIX", "de_DE.UTF-8", false},
        {"de_DE.UTF-8", "C", "C", true},         {nullptr, nullptr, "de_DE.ISO-8859-1", false},
    };
    for (const auto& one : cases) {
        for (auto [name, value] : {std::pair("LC_ALL", one.all), std::pair("LC_CTYPE", one.ctype),
                                   std::pair("LANG", one.lang)}) {
            if (value == nullptr) {
                unsetenv(name);
            } else {
                setenv(name, value, 1);
            }
        }
        EXPECT_EQ(ctl_plot_utf8(), one.utf8) << (&one - cases);
    }
}

} // namespace
