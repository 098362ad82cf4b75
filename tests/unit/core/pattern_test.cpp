#include "core/pattern.h"

#include <gtest/gtest.h>

#include <fnmatch.h>
#include <string.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/support/no_more_memory.h"

namespace {

typedef std::vector<std::string> texts;

/* A compiled pattern that is freed with the test. */
struct compiled {
    explicit compiled(const std::string& text) {
        EXPECT_TRUE(pattern_compile(&p, text.c_str()));
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
    EXPECT_FALSE(pattern_spent(&p.p)) << text;
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
    EXPECT_EQ(matching("a?c", {"ac", "abc", "abbc", "a?c", "a\u00e4c"}), (texts{"abc", "a?c"}));
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

TEST(pattern_test, a_class_that_does_not_exist_is_made_of_ordinary_members) {
    EXPECT_EQ(matching("[[:word:]]", {"w]", ":]", "[]", "w", "]", "a]"}),
              (texts{"w]", ":]", "[]"}));
    EXPECT_EQ(matching("[![:word:]]", {"a]", "w]", "a"}), (texts{"a]"}));
    EXPECT_EQ(matching("[[:digit]]", {"d]", "1]", "1"}), (texts{"d]"}));
    EXPECT_EQ(matching("[[:" + repeated("a", 300) + ":]]", {"a]", ":]", "a"}), (texts{"a]", ":]"}));
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

TEST(pattern_test, a_range_without_end_belongs_to_a_bracket_without_end) {
    EXPECT_EQ(matching("[a-", {"a", "[a-", "-"}), (texts{"[a-"}));
    EXPECT_EQ(matching("[a-\\", {"a", "[a-", "[a-\\"}), (texts{}));
}

TEST(pattern_test, a_class_is_no_end_of_a_range) {
    EXPECT_EQ(bytes_of("[[:digit:]-z]"), "-0123456789z");
    EXPECT_EQ(matching("[A-[:digit:]]", {"B]", "[]", ":]", "d]", "5]", "5"}),
              (texts{"B]", "[]", ":]", "d]"}));
}

TEST(pattern_test, what_only_looks_like_a_symbol_or_an_equivalence_is_made_of_ordinary_members) {
    EXPECT_EQ(matching("[[.hyphen.]]", {"h]", ".]", "-", "a]"}), (texts{"h]", ".]"}));
    EXPECT_EQ(bytes_of("[[.]"), ".[");
    EXPECT_EQ(bytes_of("[x[=a]"), "=[ax");
    EXPECT_EQ(matching("[[.a", {"[[.a", "a"}), (texts{"[[.a"}));
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
                          "[[:alnum:][:blank:]]",
                          "[[.].]]",
                          "[--/]",
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

/* So that a pattern of many is read in time that grows with its length. */
TEST(pattern_test, behind_a_bracket_without_end_all_are_ordinary) {
    EXPECT_EQ(matching("[[[[", {"[[[[", "["}), (texts{"[[[["}));
    EXPECT_EQ(matching("[[:alpha:]", {"[[:alpha:]", "[:", "[a"}), (texts{"[[:alpha:]"}));
    EXPECT_EQ(matching("[[=a=]", {"[[=a=]", "[=", "[a"}), (texts{"[[=a=]"}));
    EXPECT_EQ(matching("[a]*[?[\\]", {"ax[y[]", "a[[[]", "ax[[]"}), (texts{"ax[y[]", "a[[[]"}));
}

/* --- What a pattern may cost --- */

TEST(pattern_test, at_most_one_element_is_kept_for_each_byte) {
    for (const char* text : {"",
                             "a",
                             "*",
                             "****",
                             "?",
                             "\\",
                             "\\a",
                             "[a]",
                             "[!a]",
                             "[]]",
                             "[a-c]",
                             "[abc]",
                             "[",
                             "[[[[",
                             "[abc",
                             "[[:punct:]]",
                             "[[:punct:][:punct:]",
                             "[[:blank:][:xdigit:]]",
                             "[[=a=]]",
                             "[[.a.]-[.c.]]",
                             "a*[!b-cd]?\\*"}) {
        compiled p(text);
        EXPECT_LE(p.p.end - p.p.elements, static_cast<ptrdiff_t>(strlen(text))) << text;
    }
}

TEST(pattern_test, each_byte_and_range_of_a_bracket_is_a_step_and_so_is_each_other_element) {
    const std::pair<const char*, int> costs[] = {
        {"a", 1},     {"?", 1},       {"\\a", 1},         {"[a]", 1},         {"[0-a]", 1},
        {"[!bc]", 2}, {"[abc-d]", 3}, {"[[:alpha:]]", 2}, {"[[:punct:]a]", 5}};
    for (const auto& [text, cost] : costs) {
        compiled p(text);
        EXPECT_TRUE(p.matches("a")) << text;
        EXPECT_EQ(p.p.steps, PATTERN_STEPS - cost) << text;
    }
}

TEST(pattern_test, all_texts_share_the_budget) {
    const std::string text(100000, 'a');
    compiled p("*aaaaaaaab*");
    int asked = 0;
    while (!pattern_spent(&p.p) && asked < 100) {
        EXPECT_FALSE(p.matches(text));
        asked++;
    }
    /* Nine elements and the place for each byte are 13 steps, with the search for the end 1306250
     * for each text. */
    EXPECT_EQ(asked, 10);
}

/* The same answers as before, but not in seconds. */
TEST(pattern_test, what_takes_too_long_spends_the_budget) {
    const std::string text(1000000, 'a');
    for (const std::string& hostile :
         texts{"*" + std::string(500000, '?') + "b*", "*" + std::string(63, 'a') + "b*",
               "*" + repeated("[ab]", 100000) + "b*", "*[" + std::string(500000, 'b') + "]*",
               "*" + repeated("[[:alnum:]]", 50) + "b*", "*aaaaaaaaaaaaaaaab*",
               "*[!" + repeated("[:alpha:]", 1000) + "]*"}) {
        compiled p(hostile);
        EXPECT_FALSE(p.matches(text)) << hostile.substr(0, 40);
        EXPECT_TRUE(pattern_spent(&p.p)) << hostile.substr(0, 40);
        EXPECT_GT(p.p.steps, -1000000) << "a text more may not cost as much again";
    }
}

TEST(pattern_test, everyday_patterns_leave_most_of_the_budget_on_a_full_keyspace) {
    std::string key;
    while (key.size() < 100) {
        key += "eth" + std::to_string(key.size()) + ".load.";
    }
    key.resize(100);
    for (const char* text :
         {"*", "?*", "eth*", "*.day", "*x*", "*load*", "*.cpu.*.mem.*", "*load.*.conn", "*[A-Z]*",
          "[a-z]*[0-9]*x", "*.eth?.*", "eth0.load.eth9.load.*", "???.*"}) {
        compiled p(text);
        for (int i = 0; i < 49896; i++) {
            p.matches(key);
        }
        EXPECT_GT(p.p.steps, PATTERN_STEPS / 4) << text;
    }
}

TEST(pattern_test, a_byte_is_looked_for_in_megabytes) {
    const std::string text(1000000, 'a');
    compiled p("*x*");
    for (int i = 0; i < 50; i++) {
        EXPECT_FALSE(p.matches(text));
    }
    EXPECT_GT(p.p.steps, PATTERN_STEPS / 2);
}

TEST(pattern_test, without_memory_nothing_is_compiled) {
    if (!unit_test::no_more_memory::possible()) {
        GTEST_SKIP() << "memory cannot be limited here";
    }
    const std::string text(unit_test::no_more_memory::SIZE / sizeof(uint32_t), 'a');
    pattern p;
    bool done;
    {
        const unit_test::no_more_memory limit;
        done = pattern_compile(&p, text.c_str());
    }
    pattern_free(&p);
    EXPECT_FALSE(done);
}
