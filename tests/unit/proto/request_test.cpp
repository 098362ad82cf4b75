#include "proto/request.h"

#include <gtest/gtest.h>

#include <string.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

/* A parsed request, and the input as the parser left it. The input is an allocation of exactly the
 * size of the bytes, so that a sanitizer sees every access beyond them. */
class parsed {
  public:
    explicit parsed(std::string_view bytes) : bytes_left(new char[bytes.size()]) {
        memcpy(bytes_left.get(), bytes.data(), bytes.size());
        const uint32_t length = static_cast<uint32_t>(bytes.size());
        buffer input = {};
        input.base = bytes_left.get();
        input.mark = input.base;
        input.data = input.base;
        input.capacity = length;
        input.length = length;
        r = request_parse(&input);
        input_kept_its_place = input.data == bytes_left.get() && input.length == length;
    }

    ~parsed() {
        if (r != nullptr) {
            request_free(r);
        }
    }

    parsed(const parsed&) = delete;
    parsed& operator=(const parsed&) = delete;

    /* The name and the arguments; a single "(refused)" when there is no request. */
    std::vector<std::string> words() const {
        if (r == nullptr) {
            return {"(refused)"};
        }
        std::vector<std::string> all = {std::string(bytes_of(r->name))};
        for (uint32_t i = 0; i < r->argc; i++) {
            all.emplace_back(bytes_of(r->argv[i]));
        }
        return all;
    }

    std::unique_ptr<char[]> bytes_left;
    bool input_kept_its_place;
    request* r;
};

typedef std::vector<std::string> words;

words words_of(std::string_view bytes) {
    return parsed(bytes).words();
}

const words REFUSED = {"(refused)"};

/* The grammar once more, read plainly from a copy of the bytes. */
class plain_reading {
  public:
    explicit plain_reading(std::string_view bytes) : rest(bytes) {}

    words all() {
        uint32_t count;
        if (!header('*', &count) || count == 0) {
            return REFUSED;
        }
        words result;
        while (result.size() < count) {
            uint32_t length;
            if (!header('$', &length) || rest.size() < uint64_t{length} + 2 ||
                rest.substr(length, 2) != "\r\n") {
                return REFUSED;
            }
            result.emplace_back(rest.substr(0, length));
            rest.remove_prefix(length + 2);
        }
        return result;
    }

  private:
    /* A line of the lead and a number, up to its line feed. One that begins with a NUL is none. */
    bool header(char lead, uint32_t* number) {
        const size_t end = rest.find('\n');
        if (end == std::string_view::npos || rest[0] == '\0') {
            return false;
        }
        std::string line(rest.substr(0, end));
        rest.remove_prefix(end + 1);
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        return line.size() >= 2 && line[0] == lead && leading_number(line.substr(1), number);
    }

    /* As strtoul reads it where a long has 32 bits. */
    static bool leading_number(const std::string& text, uint32_t* number) {
        constexpr uint64_t TOO_LARGE = uint64_t{UINT32_MAX} + 1;
        size_t at = std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size());
        const bool negative = text[at] == '-';
        at += negative || text[at] == '+' ? 1 : 0;
        const size_t first = at;
        uint64_t magnitude = 0;
        for (; text[at] >= '0' && text[at] <= '9'; at++) {
            magnitude = std::min(magnitude * 10 + static_cast<uint64_t>(text[at] - '0'), TOO_LARGE);
        }
        const uint64_t value = negative ? -magnitude : magnitude;
        *number = magnitude == TOO_LARGE ? UINT32_MAX : static_cast<uint32_t>(value);
        return at > first;
    }

    std::string_view rest;
};

words reference(std::string_view bytes) {
    return plain_reading(bytes).all();
}

/* A literal with its NULs. */
template <size_t N> std::string_view raw(const char (&literal)[N]) {
    return std::string_view(literal, N - 1);
}

} // namespace

TEST(request_parser_test, a_command_without_arguments_is_a_name_alone) {
    const parsed p("*1\r\n$4\r\nPING\r\n");
    ASSERT_NE(p.r, nullptr);
    EXPECT_EQ(bytes_of(p.r->name), "PING");
    EXPECT_EQ(p.r->argc, 0u);
}

TEST(request_parser_test, arguments_follow_the_name_in_order) {
    const parsed p("*4\r\n$4\r\nmset\r\n$1\r\na\r\n$2\r\nbb\r\n$3\r\nccc\r\n");
    ASSERT_NE(p.r, nullptr);
    EXPECT_EQ(p.r->argc, 3u);
    EXPECT_EQ(p.words(), (words{"mset", "a", "bb", "ccc"}));
}

TEST(request_parser_test, an_empty_bulk_is_an_empty_string) {
    const parsed p("*2\r\n$3\r\nGET\r\n$0\r\n\r\n");
    ASSERT_NE(p.r, nullptr);
    ASSERT_NE(p.r->argv[0], nullptr);
    EXPECT_EQ(sstr_length(p.r->argv[0]), 0u);
    EXPECT_EQ(p.r->argv[0][0], '\0');
}

TEST(request_parser_test, the_name_may_be_empty) {
    EXPECT_EQ(words_of("*1\r\n$0\r\n\r\n"), words{""});
}

TEST(request_parser_test, a_bulk_may_hold_any_byte) {
    EXPECT_EQ(words_of(raw("*2\r\n$3\r\nSET\r\n$8\r\n\0\r\n$1\r\n\xff\r\n")),
              (words{"SET", std::string("\0\r\n$1\r\n\xff", 8)}));
}

TEST(request_parser_test, what_follows_the_last_element_is_not_looked_at) {
    EXPECT_EQ(words_of("*1\r\n$4\r\nPING\r\n*1\r\n$4\r\nPONG\r\n"), words{"PING"});
    EXPECT_EQ(words_of("*1\r\n$4\r\nPING\r\n\r"), words{"PING"});
    EXPECT_EQ(words_of(raw("*1\r\n$4\r\nPING\r\n\0garbage")), words{"PING"});
}

TEST(request_parser_test, header_lines_may_end_in_a_bare_line_feed) {
    EXPECT_EQ(words_of("*2\n$3\nGET\r\n$1\nk\r\n"), (words{"GET", "k"}));
    /* The shortest request there is. */
    EXPECT_EQ(words_of("*1\n$0\n\r\n"), words{""});
}

TEST(request_parser_test, data_must_be_followed_by_exactly_cr_lf) {
    EXPECT_EQ(words_of("*1\r\n$4\r\nPING\n\n"), REFUSED);
    EXPECT_EQ(words_of("*1\r\n$4\r\nPING\n"), REFUSED);
    EXPECT_EQ(words_of("*1\r\n$4\r\nPING\r\r"), REFUSED);
    EXPECT_EQ(words_of("*1\r\n$4\r\nPINGxx"), REFUSED);
    EXPECT_EQ(words_of("*1\r\n$3\r\nPING\r\n"), REFUSED);
    EXPECT_EQ(words_of("*1\r\n$5\r\nPING\r\n"), REFUSED);
    EXPECT_EQ(words_of("*1\r\n$5\r\nPING\r\n\r\n"), REFUSED);
    EXPECT_EQ(words_of("*2\r\n$3\r\nGET\r\n$1\r\nkx\r\n"), REFUSED);
}

TEST(request_parser_test, the_input_keeps_its_place_and_its_data_but_not_its_line_ends) {
    const std::string_view bytes = "*2\r\n$3\r\nGET\r\n$2\nk\r\r\nrest";
    const parsed p(bytes);
    EXPECT_EQ(p.words(), (words{"GET", "k\r"}));
    EXPECT_TRUE(p.input_kept_its_place);
    EXPECT_EQ(std::string(p.bytes_left.get(), bytes.size()),
              raw("*2\0\0$3\0\0GET\r\n$2\0k\r\r\nrest"));
}

TEST(request_parser_test, parsing_starts_at_the_unread_bytes) {
    buffer input;
    buffer_init(&input, 0, 0);
    const std::string bytes = "rest of what was read*1\r\n$4\r\nPING\r\n";
    buffer_append(&input, bytes.data(), static_cast<uint32_t>(bytes.size()));
    buffer_consume(&input, 21);
    request* r = request_parse(&input);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(bytes_of(r->name), "PING");
    EXPECT_EQ(input.length, 14u);
    request_free(r);
    buffer_free(&input);
}

TEST(request_parser_test, an_empty_input_is_refused) {
    EXPECT_EQ(words_of(""), REFUSED);
    buffer never_used;
    buffer_init(&never_used, 0, 0);
    EXPECT_EQ(request_parse(&never_used), nullptr);
}

TEST(request_parser_test, inline_commands_are_refused) {
    EXPECT_EQ(words_of("PING\r\n"), REFUSED);
    EXPECT_EQ(words_of("$4\r\nPING\r\n"), REFUSED);
    EXPECT_EQ(words_of("+OK\r\n"), REFUSED);
    EXPECT_EQ(words_of(" *1\r\n$4\r\nPING\r\n"), REFUSED);
    EXPECT_EQ(words_of("\r\n*1\r\n$4\r\nPING\r\n"), REFUSED);
}

TEST(request_parser_test, a_request_without_elements_is_refused) {
    EXPECT_EQ(words_of("*0\r\n"), REFUSED);
    EXPECT_EQ(words_of("*0\r\n$4\r\nPING\r\n"), REFUSED);
    EXPECT_EQ(words_of("*00\r\n$4\r\nPING\r\n"), REFUSED);
}

TEST(request_parser_test, a_count_without_digits_is_refused) {
    for (const char* line : {"*", "*x", "* ", "*-", "*+", "*--1", "*\t", "**1", "* x1"}) {
        EXPECT_EQ(words_of(std::string(line) + "\r\n$4\r\nPING\r\n"), REFUSED) << line;
        EXPECT_EQ(words_of(std::string(line) + "\n$4\r\nPING\r\n"), REFUSED) << line;
    }
}

TEST(request_parser_test, a_length_without_digits_is_refused) {
    for (const char* line : {"$", "$x", "$ ", "$-", "$+", "$$4", "4", "", "*4", " $4"}) {
        EXPECT_EQ(words_of("*1\r\n" + std::string(line) + "\r\nPING\r\n"), REFUSED) << line;
        EXPECT_EQ(words_of("*2\r\n$3\r\nGET\r\n" + std::string(line) + "\r\nPING\r\n"), REFUSED)
            << line;
    }
}

TEST(request_parser_test, numbers_are_read_as_the_c_library_reads_them) {
    for (const char* count :
         {" 1", "+1", "1x", "1 2", "1\r", "1.9", "\t1", " +1", "01", "0000000001",
          "00000000000000000000001", "1\rx", "-4294967295", "\v\f1"}) {
        EXPECT_EQ(words_of("*" + std::string(count) + "\r\n$4\r\nPING\r\n"), words{"PING"})
            << count;
    }
    for (const char* length : {" 4", "+4", "4x", "4 2", "04", "0000000004", "-4294967292", "4-1"}) {
        EXPECT_EQ(words_of("*1\r\n$" + std::string(length) + "\r\nPING\r\n"), words{"PING"})
            << length;
    }
}

TEST(request_parser_test, numbers_are_decimal) {
    EXPECT_EQ(words_of("*0x1\r\n$4\r\nPING\r\n"), REFUSED);
    EXPECT_EQ(words_of("*1\r\n$0x4\r\nPING\r\n"), REFUSED);
    EXPECT_EQ(words_of("*1\r\n$010\r\nPINGPINGPI\r\n"), words{"PINGPINGPI"});
}

TEST(request_parser_test, the_byte_behind_the_nine_is_no_digit) {
    std::string ten = "*:\r\n";
    for (int i = 0; i < 10; i++) {
        ten += "$1\r\nx\r\n";
    }
    EXPECT_EQ(words_of(ten), REFUSED);
    EXPECT_EQ(words_of("*1\r\n$:\r\n0123456789\r\n"), REFUSED);
    EXPECT_EQ(words_of("*1\r\n$1:\r\nx\r\n"), words{"x"});
}

TEST(request_parser_test, a_number_ends_at_a_nul) {
    EXPECT_EQ(words_of(raw("*1\0009\r\n$4\0008\r\nPING\r\n")), words{"PING"});
}

TEST(request_parser_test, a_line_that_begins_with_a_nul_is_refused) {
    EXPECT_EQ(words_of(raw("\0*1\r\n$4\r\nPING\r\n")), REFUSED);
    EXPECT_EQ(words_of(raw("*1\r\n\0$4\r\nPING\r\n")), REFUSED);
    EXPECT_EQ(words_of(raw("*\0001\r\n$4\r\nPING\r\n")), REFUSED);
}

TEST(request_parser_test, lengths_of_any_number_of_digits_are_read) {
    for (const size_t length : {9u, 10u, 99u, 100u, 999u, 1000u, 99999u, 1000000u}) {
        const std::string value(length, 'v');
        EXPECT_EQ(
            words_of("*2\r\n$3\r\nSET\r\n$" + std::to_string(length) + "\r\n" + value + "\r\n"),
            (words{"SET", value}))
            << length;
    }
}

TEST(request_parser_test, counts_of_any_number_of_digits_are_read) {
    for (const size_t count : {9u, 10u, 11u, 99u, 100u, 101u, 12345u}) {
        std::string bytes = "*" + std::to_string(count) + "\r\n";
        words expected;
        for (size_t i = 0; i < count; i++) {
            bytes += "$1\r\nx\r\n";
            expected.push_back("x");
        }
        EXPECT_EQ(words_of(bytes), expected) << count;
    }
}

TEST(request_parser_test, counts_that_cannot_fit_into_the_bytes_are_refused) {
    for (const char* count : {"2",
                              "3",
                              "10",
                              "1000000",
                              "99999999",
                              "100000000",
                              "1073741824",
                              "1073741825",
                              "2147483647",
                              "2147483648",
                              "4294967294",
                              "4294967295",
                              "4294967296",
                              "4294967297",
                              "18446744073709551615",
                              "18446744073709551617",
                              "99999999999999999999999999",
                              "-1",
                              "-2",
                              "-4294967296",
                              "-4294967297",
                              "-18446744073709551615"}) {
        EXPECT_EQ(words_of("*" + std::string(count) + "\r\n$4\r\nPING\r\n"), REFUSED) << count;
    }
}

TEST(request_parser_test, every_element_needs_its_bytes) {
    const std::string shortest = "$0\n\r\n";
    EXPECT_EQ(words_of("*3\n" + shortest + shortest + shortest), (words{"", "", ""}));
    EXPECT_EQ(words_of("*4\n" + shortest + shortest + shortest), REFUSED);
    EXPECT_EQ(words_of("*4\n" + shortest + shortest + shortest + "$0\n\r"), REFUSED);
}

TEST(request_parser_test, lengths_beyond_the_bytes_are_refused) {
    for (const char* length : {"5",
                               "6",
                               "7",
                               "100",
                               "1000000",
                               "2147483647",
                               "2147483648",
                               "4294967290",
                               "4294967293",
                               "4294967294",
                               "4294967295",
                               "4294967296",
                               "4294967300",
                               "18446744073709551615",
                               "18446744073709551620",
                               "99999999999999999999999999",
                               "-1",
                               "-2",
                               "-3",
                               "-4"}) {
        EXPECT_EQ(words_of("*1\r\n$" + std::string(length) + "\r\nPING\r\n"), REFUSED) << length;
    }
}

TEST(request_parser_test, a_request_that_is_cut_anywhere_is_refused) {
    const std::string requests[] = {
        "*1\r\n$4\r\nPING\r\n",
        "*3\r\n$3\r\nSET\r\n$3\r\nkey\r\n$12\r\nsome\r\nvalue\n\r\n",
        "*12\n$4\nmget\r\n$0\n\r\n$0\n\r\n$0\n\r\n$0\n\r\n$0\n\r\n$0\n\r\n$0\n\r\n$0\n\r\n$0\n\r\n$"
        "0\n\r\n$"
        "1\na\r\n",
        "* 2x\r\n$+3\r\nGET\r\n$0000000000000000000001\r\nk\r\n",
    };
    for (const std::string& whole : requests) {
        EXPECT_NE(words_of(whole), REFUSED);
        for (size_t length = 0; length < whole.size(); length++) {
            EXPECT_EQ(words_of(whole.substr(0, length)), REFUSED) << whole << " cut at " << length;
        }
    }
}

TEST(request_parser_test, a_broken_byte_anywhere_is_refused_or_read_as_another_request) {
    const std::string whole = "*3\r\n$3\r\nSET\r\n$3\r\nkey\r\n$11\r\nsome\r\nvalue\r\n";
    ASSERT_EQ(reference(whole), (words{"SET", "key", "some\r\nvalue"}));
    size_t accepted = 0;
    for (size_t at = 0; at < whole.size(); at++) {
        for (int byte = 0; byte < 256; byte++) {
            std::string broken = whole;
            broken[at] = static_cast<char>(byte);
            const words got = words_of(broken);
            accepted += got != REFUSED ? 1 : 0;
            ASSERT_EQ(got, reference(broken)) << testing::PrintToString(broken);
        }
    }
    /* Any byte of the three elements, if nothing else. */
    EXPECT_GE(accepted, 17 * 256u);
}

TEST(request_parser_test, random_bytes_are_refused_or_read_as_they_stand) {
    std::mt19937 random(3);
    const std::string_view alphabet = raw("*$\r\n\0"
                                          "0123456789 +-x");
    size_t accepted = 0;
    for (int i = 0; i < 40000; i++) {
        std::string bytes = i % 2 == 0 ? "*1\r\n$" : "*";
        for (size_t length = random() % 40; bytes.size() < length;) {
            bytes += i % 4 == 0 && random() % 4 == 0
                         ? "\r\n"
                         : std::string(1, alphabet[random() % alphabet.size()]);
        }
        const words got = words_of(bytes);
        accepted += got != REFUSED ? 1 : 0;
        ASSERT_EQ(got, reference(bytes)) << testing::PrintToString(bytes);
    }
    EXPECT_GT(accepted, 100u);
}

TEST(request_parser_test, the_largest_delivery_may_be_all_elements) {
    /* Nearly 1 MiB. */
    const uint32_t count = 209000;
    std::string bytes = "*" + std::to_string(count) + "\n";
    for (uint32_t i = 0; i < count; i++) {
        bytes += "$0\n\r\n";
    }
    const parsed p(bytes);
    ASSERT_NE(p.r, nullptr);
    EXPECT_EQ(p.r->argc, count - 1);
    EXPECT_EQ(bytes_of(p.r->argv[count - 2]), "");
}

TEST(request_parser_test, a_request_that_fails_at_its_last_element_is_freed) {
    std::string bytes = "*1000\r\n";
    for (int i = 0; i < 999; i++) {
        bytes += "$300\r\n" + std::string(300, 'x') + "\r\n";
    }
    EXPECT_EQ(words_of(bytes + "$300\r\n" + std::string(300, 'x') + "\r\r"), REFUSED);
}
