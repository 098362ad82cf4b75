#include "core/pattern.h"

#include <gtest/gtest.h>

#include <fnmatch.h>

#include <random>
#include <string>
#include <vector>

namespace {

typedef std::vector<std::string> texts;

/* A compiled pattern that is freed with the test. */
struct compiled {
    explicit compiled(const std::string& text) {
        pattern_compile(&p, text.c_str());
    }

    ~compiled() {
        pattern_free(&p);
    }

    bool matches(const std::string& text) {
        return pattern_match(&p, text.c_str());
    }

    pattern p;
};

bool matches(const std::string& text, const std::string& key) {
    return compiled(text).matches(key);
}

/* Those of the texts that match. */
texts matching(const std::string& text, const texts& keys) {
    texts found;
    compiled p(text);
    for (const std::string& key : keys) {
        if (p.matches(key)) {
            found.push_back(key);
        }
    }
    return found;
}

std::string repeated(const std::string& text, int times) {
    std::string result;
    while (times-- > 0) {
        result += text;
    }
    return result;
}

/* Matches the pattern against ten random texts of less than `longest` of these bytes, as the
 * library does, which is the reference. Returns how many matched. */
size_t expect_like_library(const std::string& text, const std::string& bytes, size_t longest,
                           std::mt19937& random) {
    compiled p(text);
    size_t matched = 0;
    for (int i = 0; i < 10; i++) {
        std::string key;
        for (size_t n = random() % longest; n > 0; n--) {
            key += bytes[random() % bytes.size()];
        }
        const bool expected = fnmatch(text.c_str(), key.c_str(), 0) == 0;
        EXPECT_EQ(p.matches(key), expected) << text << " against " << key;
        matched += expected ? 1 : 0;
    }
    return matched;
}

/* All single bytes that the pattern matches, in order. */
std::string bytes_of(const std::string& text) {
    compiled p(text);
    std::string found;
    for (int byte = 1; byte < 256; byte++) {
        const std::string key(1, static_cast<char>(byte));
        if (p.matches(key)) {
            found += key;
        }
    }
    return found;
}

} // namespace

TEST(pattern_test, plain_text_matches_itself_alone) {
    EXPECT_EQ(matching("abc", {"", "ab", "abc", "abcd", "xabc", "ABC"}), (texts{"abc"}));
}

TEST(pattern_test, the_empty_pattern_matches_the_empty_text_alone) {
    EXPECT_EQ(matching("", {"", "a"}), (texts{""}));
}

TEST(pattern_test, a_star_matches_any_text_the_empty_one_included) {
    EXPECT_EQ(matching("*", {"", "a", ".a", "a/b", "\xFF"}), (texts{"", "a", ".a", "a/b", "\xFF"}));
    EXPECT_EQ(matching("a*c", {"ac", "abc", "abbc", "abcd", "bc"}), (texts{"ac", "abc", "abbc"}));
    EXPECT_EQ(matching("a**", {"a", "ab", "b"}), (texts{"a", "ab"}));
}

TEST(pattern_test, a_question_mark_takes_exactly_one_byte) {
    EXPECT_EQ(matching("a?c", {"ac", "abc", "abbc", "a?c",
                               "a\xC3\xA4"
                               "c"}),
              (texts{"abc", "a?c"}));
    EXPECT_EQ(matching("*??", {"", "a", "ab", "abc"}), (texts{"ab", "abc"}));
    EXPECT_EQ(matching("?*?", {"", "a", "ab", "abc"}), (texts{"ab", "abc"}));
}

TEST(pattern_test, what_stands_before_the_first_and_behind_the_last_star_may_not_share_bytes) {
    EXPECT_EQ(matching("ab*ba", {"aba", "abba", "abxba"}), (texts{"abba", "abxba"}));
    EXPECT_EQ(matching("ab*b*ba", {"abba", "abbba"}), (texts{"abbba"}));
}

TEST(pattern_test, text_between_stars_is_found_in_order) {
    EXPECT_EQ(matching("*one*two*", {"onetwo", "twoone", "one two one", "ontwo"}),
              (texts{"onetwo", "one two one"}));
    EXPECT_TRUE(matches("*aab*b", "aaabxb"));
    EXPECT_FALSE(matches("*aab*b", "aaab"));
}

TEST(pattern_test, brackets_take_one_of_their_bytes) {
    EXPECT_EQ(bytes_of("[ab]"), "ab");
    EXPECT_EQ(bytes_of("[a-c]"), "abc");
    EXPECT_EQ(bytes_of("[a-cx-z]"), "abcxyz");
    EXPECT_EQ(bytes_of("[c-a]"), "");
    EXPECT_EQ(bytes_of("[*?]"), "*?");
}

TEST(pattern_test, an_exclamation_mark_or_a_circumflex_negates_a_bracket) {
    EXPECT_EQ(bytes_of("[!\x02-\xFE]"), "\x01\xFF");
    EXPECT_EQ(bytes_of("[^\x02-\xFE]"), "\x01\xFF");
    EXPECT_EQ(bytes_of("[a!^]"), "!^a");
    EXPECT_FALSE(matches("[!a]", ""));
}

TEST(pattern_test, a_closing_bracket_that_comes_first_is_a_member) {
    EXPECT_EQ(bytes_of("[]]"), "]");
    EXPECT_EQ(bytes_of("[]a]"), "]a");
    EXPECT_EQ(bytes_of("[]-a]"), "]^_`a");
    EXPECT_EQ(bytes_of("[!]\x02-\\\\^-\xFF]"), "\x01");
}

TEST(pattern_test, a_hyphen_at_either_end_of_a_bracket_is_a_member) {
    EXPECT_EQ(bytes_of("[-a]"), "-a");
    EXPECT_EQ(bytes_of("[a-]"), "-a");
    EXPECT_EQ(bytes_of("[--/]"), "-./");
    EXPECT_EQ(bytes_of("[a-c-e]"), "-abce");
}

TEST(pattern_test, ranges_compare_unsigned_bytes) {
    EXPECT_EQ(bytes_of("[\x7E-\x81]"), "\x7E\x7F\x80\x81");
    EXPECT_EQ(bytes_of("[\xFD-\xFF]"), "\xFD\xFE\xFF");
}

TEST(pattern_test, a_backslash_takes_away_a_meaning) {
    EXPECT_EQ(matching("\\*", {"*", "a", "\\*"}), (texts{"*"}));
    EXPECT_EQ(matching("\\a\\\\", {"a\\", "\\a\\\\"}), (texts{"a\\"}));
    EXPECT_EQ(matching("\\[a]", {"[a]", "a"}), (texts{"[a]"}));
    EXPECT_EQ(bytes_of("[\\]a]"), "]a");
    EXPECT_EQ(bytes_of("[\\!a]"), "!a");
    EXPECT_EQ(bytes_of("[a\\-c]"), "-ac");
    EXPECT_EQ(bytes_of("[[-\\]]"), "[\\]");
}

TEST(pattern_test, a_trailing_backslash_matches_nothing) {
    EXPECT_EQ(matching("a\\", {"a", "a\\", "a\\\\"}), (texts{}));
    EXPECT_EQ(matching("*\\", {"", "a", "\\"}), (texts{}));
    EXPECT_EQ(matching("[a\\", {"a", "[a", "[a\\"}), (texts{}));
}

TEST(pattern_test, the_twelve_classes_are_those_of_ascii) {
    EXPECT_EQ(bytes_of("[[:digit:]]"), "0123456789");
    EXPECT_EQ(bytes_of("[[:xdigit:]]"), "0123456789ABCDEFabcdef");
    EXPECT_EQ(bytes_of("[[:upper:]]"), "ABCDEFGHIJKLMNOPQRSTUVWXYZ");
    EXPECT_EQ(bytes_of("[[:lower:]]"), "abcdefghijklmnopqrstuvwxyz");
    EXPECT_EQ(bytes_of("[[:alpha:]]"), bytes_of("[A-Za-z]"));
    EXPECT_EQ(bytes_of("[[:alnum:]]"), bytes_of("[0-9A-Za-z]"));
    EXPECT_EQ(bytes_of("[[:blank:]]"), "\t ");
    EXPECT_EQ(bytes_of("[[:space:]]"), "\t\n\v\f\r ");
    EXPECT_EQ(bytes_of("[[:cntrl:]]"), bytes_of("[\x01-\x1F\x7F]"));
    EXPECT_EQ(bytes_of("[[:print:]]"), bytes_of("[ -~]"));
    EXPECT_EQ(bytes_of("[[:graph:]]"), bytes_of("[\\!-~]"));
    EXPECT_EQ(bytes_of("[[:punct:]]"), "!\"#$%&'()*+,-./:;<=>?@[\\]^_`{|}~");
    EXPECT_EQ(bytes_of("[x[:digit:]-]"), "-0123456789x");
    EXPECT_EQ(bytes_of("[![:print:][:cntrl:]\x80-\xFE]"), "\xFF");
}

TEST(pattern_test, a_class_that_does_not_exist_takes_no_byte_neither_does_its_opposite) {
    EXPECT_EQ(bytes_of("[[:word:]]"), "");
    EXPECT_EQ(bytes_of("[![:word:]]"), "");
    EXPECT_EQ(bytes_of("[[:digits:]a]"), "");
    EXPECT_EQ(bytes_of("[b[:digits:]a]"), "b");
    EXPECT_EQ(bytes_of("[!b[:digits:]a]"), "");
    EXPECT_EQ(bytes_of("[[:" + repeated("a", 300) + ":]]"), "");
}

TEST(pattern_test, what_only_looks_like_a_class_is_made_of_ordinary_members) {
    EXPECT_EQ(bytes_of("[[:]"), ":[");
    EXPECT_EQ(bytes_of("[[:a]"), ":[a");
    EXPECT_EQ(bytes_of("[:digit:]"), ":dgit");
    EXPECT_EQ(matching("[[:DIGIT:]]", {":]", "D]", "1"}), (texts{":]", "D]"}));
}

TEST(pattern_test, equivalences_and_collating_symbols_are_single_bytes) {
    EXPECT_EQ(bytes_of("[[=a=]]"), "a");
    EXPECT_EQ(bytes_of("[[=]=]x]"), "]x");
    EXPECT_EQ(bytes_of("[[.a.]]"), "a");
    EXPECT_EQ(bytes_of("[[.].]x]"), "]x");
    EXPECT_EQ(bytes_of("[[.a.]-[.c.]]"), "abc");
}

TEST(pattern_test, a_bracket_without_end_is_an_ordinary_one) {
    EXPECT_EQ(matching("[", {"[", "a"}), (texts{"["}));
    EXPECT_EQ(matching("[ab", {"[ab", "a", "b"}), (texts{"[ab"}));
    EXPECT_EQ(matching("[]", {"[]", "]", ""}), (texts{"[]"}));
    EXPECT_EQ(matching("[!", {"[!", "a"}), (texts{"[!"}));
    EXPECT_EQ(matching("[!]", {"[!]", "a"}), (texts{"[!]"}));
    EXPECT_EQ(matching("[*", {"[", "[abc", "a"}), (texts{"[", "[abc"}));
}

TEST(pattern_test, a_range_without_end_matches_nothing) {
    EXPECT_EQ(matching("[a-", {"a", "[a-", "-"}), (texts{}));
    EXPECT_EQ(matching("[a-\\", {"a", "[a-", "[a-\\"}), (texts{}));
}

TEST(pattern_test, what_only_looks_like_a_symbol_or_an_equivalence_is_made_of_ordinary_members) {
    EXPECT_EQ(matching("[[.hyphen.]]", {"h]", ".]", "-", "a]"}), (texts{"h]", ".]"}));
    EXPECT_EQ(bytes_of("[[.]"), ".[");
    EXPECT_EQ(bytes_of("[x[=a]"), "=[ax");
    EXPECT_EQ(matching("[[.a", {"[[.a", "a"}), (texts{"[[.a"}));
}

/* Runs of many elements are searched in pieces where they may begin in many places. */
TEST(pattern_test, runs_of_any_length_are_found_between_stars) {
    for (const int length : {1, 2, 63, 64, 65, 127, 128, 129, 200, 1000}) {
        const std::string run = repeated("a", length - 1) + "b";
        for (const int room : {0, 1, 254, 255, 256, 257, 700, 16383, 16384, 16385, 40000}) {
            const std::string before = repeated("a", room);
            const std::string behind = repeated("y", room);
            EXPECT_TRUE(matches("*" + run + "*", before + run)) << length << " " << room;
            EXPECT_TRUE(matches("*" + run + "*", run + behind)) << length << " " << room;
            EXPECT_TRUE(matches("*" + run + "*", before + run + behind)) << length << " " << room;
            EXPECT_TRUE(
                matches("x*" + repeated("?", length) + "*" + run, "x" + before + run + run));
            EXPECT_FALSE(matches("*" + run + "*", run.substr(1) + behind)) << length << " " << room;
            EXPECT_FALSE(matches("*" + run + "*", before + repeated("a", length)))
                << length << " " << room;
            EXPECT_FALSE(matches("*" + run + "*" + run, behind + run + run.substr(1)));
            for (const int place : {0, length / 2, length - 1}) {
                std::string wrong = run;
                wrong[static_cast<size_t>(place)] = 'x';
                EXPECT_FALSE(matches("*" + run + "*", behind + wrong + behind))
                    << length << " " << place;
            }
        }
    }
}

TEST(pattern_test, one_match_leaves_nothing_behind_for_the_next) {
    const std::string run = repeated("a", 99) + "b";
    compiled p("*" + run + "*" + run + "*");
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(p.matches(repeated("a", 500) + run + repeated("a", 500) + run));
        EXPECT_FALSE(p.matches(repeated("a", 500) + run + repeated("a", 500)));
    }
}

TEST(pattern_test, the_first_place_of_a_long_run_leaves_most_to_the_rest) {
    const std::string run = repeated("ab", 50);
    EXPECT_TRUE(matches("*" + run + "*b" + run, run + "b" + run));
    EXPECT_TRUE(matches("*" + run + "*b" + run, repeated("x", 300) + run + "b" + run));
    EXPECT_TRUE(matches("*" + run + "*" + run + "*", "xab" + run + run));
}

/* Patterns from a fixed seed, made of pieces that are all well formed. */
TEST(pattern_test, answers_like_the_library_for_random_patterns) {
    const texts pieces = {"a",
                          "b",
                          "c",
                          "*",
                          "*",
                          "?",
                          "\\*",
                          "\\a",
                          "[ab]",
                          "[!a]",
                          "[^bc]",
                          "[a-c]",
                          "[]a]",
                          "[!]-a]",
                          "[-b]",
                          "[a-]",
                          "[c-a]",
                          "[\\]]",
                          "[[:alpha:]]",
                          "[![:digit:]]",
                          "[[=a=]b]",
                          "[[.b.]-c]",
                          "[a\\-c]",
                          "]",
                          "[[:punct:]a]",
                          "[[:nope:]]",
                          "\xC3",
                          "[\x80-\xFF]",
                          "[x[:space:]-]",
                          "-",
                          "!",
                          "[?*]"};
    const std::string bytes = "aaabbbc*?-]![\\ 1\xC3\xA4";
    std::mt19937 random(20);
    size_t matched = 0;
    for (int i = 0; i < 20000; i++) {
        std::string text;
        for (size_t n = random() % 8; n > 0; n--) {
            text += pieces[random() % pieces.size()];
        }
        matched += expect_like_library(text, bytes, 9, random);
    }
    EXPECT_GT(matched, 4000u);
}

/* Any text is a pattern. What has no end inside a bracket is left to the tests above. */
TEST(pattern_test, answers_like_the_library_for_random_bytes) {
    const std::string bytes = "aab**?[[]]!^\\-";
    std::mt19937 random(30);
    size_t matched = 0;
    for (int i = 0; i < 20000; i++) {
        std::string text;
        for (size_t n = random() % 12; n > 0; n--) {
            text += bytes[random() % bytes.size()];
        }
        text += random() % 2 == 0 ? "]" : "";
        if (!text.empty() && text.back() == '-') {
            continue;
        }
        matched += expect_like_library(text, bytes, 7, random);
    }
    EXPECT_GT(matched, 4000u);
}

TEST(pattern_test, answers_like_the_library_for_random_long_runs) {
    std::mt19937 random(40);
    size_t matched = 0;
    for (int i = 0; i < 2000; i++) {
        std::string key;
        for (size_t n = 400 + random() % 300; n > 0; n--) {
            key += random() % 16 != 0 ? 'a' : 'b';
        }
        const size_t length = 60 + random() % 80;
        const size_t start = random() % (key.size() - length);
        std::string text = "*";
        for (const char byte : key.substr(start, length)) {
            const std::string elements[] = {"?", "[ab]", std::string("[") + byte + "]", "[!x]",
                                            "[[:alpha:]]"};
            text += random() % 2 == 0 ? elements[random() % 5] : std::string(1, byte);
        }
        text += random() % 2 == 0 ? "b*" : "*";
        const bool expected = fnmatch(text.c_str(), key.c_str(), 0) == 0;
        ASSERT_EQ(matches(text, key), expected) << text << " against " << key;
        matched += expected ? 1 : 0;
    }
    EXPECT_GT(matched, 500u);
    EXPECT_LT(matched, 1900u);
}

/* The library misses it. */
TEST(pattern_test, a_symbol_before_a_last_hyphen_is_a_member) {
    EXPECT_EQ(bytes_of("[[.a.]-]"), "-a");
}

/* What was read for a bracket that has no end is not what a later one is made of. */
TEST(pattern_test, brackets_may_begin_within_one_that_has_no_end) {
    EXPECT_EQ(matching("[[:alpha:]", {"[:", "[a", "[h", "[z", "a"}), (texts{"[:", "[a", "[h"}));
    EXPECT_EQ(matching("[[=a=]", {"[=", "[a", "[b"}), (texts{"[=", "[a"}));
    EXPECT_EQ(matching("[[[[", {"[[[[", "["}), (texts{"[[[["}));
}
