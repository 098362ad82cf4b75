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

TEST(Pattern, PlainTextMatchesItselfAlone) {
    EXPECT_EQ(matching("abc", {"", "ab", "abc", "abcd", "xabc", "ABC"}), (texts{"abc"}));
}

TEST(Pattern, TheEmptyPatternMatchesTheEmptyTextAlone) {
    EXPECT_EQ(matching("", {"", "a"}), (texts{""}));
}

TEST(Pattern, AStarMatchesAnyTextTheEmptyOneIncluded) {
    EXPECT_EQ(matching("*", {"", "a", ".a", "a/b", "\xFF"}), (texts{"", "a", ".a", "a/b", "\xFF"}));
    EXPECT_EQ(matching("a*c", {"ac", "abc", "abbc", "abcd", "bc"}), (texts{"ac", "abc", "abbc"}));
    EXPECT_EQ(matching("a**", {"a", "ab", "b"}), (texts{"a", "ab"}));
}

TEST(Pattern, AQuestionMarkTakesExactlyOneByte) {
    EXPECT_EQ(matching("a?c", {"ac", "abc", "abbc", "a?c",
                               "a\xC3\xA4"
                               "c"}),
              (texts{"abc", "a?c"}));
    EXPECT_EQ(matching("*??", {"", "a", "ab", "abc"}), (texts{"ab", "abc"}));
    EXPECT_EQ(matching("?*?", {"", "a", "ab", "abc"}), (texts{"ab", "abc"}));
}

TEST(Pattern, WhatStandsBeforeTheFirstAndBehindTheLastStarMayNotShareBytes) {
    EXPECT_EQ(matching("ab*ba", {"aba", "abba", "abxba"}), (texts{"abba", "abxba"}));
    EXPECT_EQ(matching("ab*b*ba", {"abba", "abbba"}), (texts{"abbba"}));
}

TEST(Pattern, TextBetweenStarsIsFoundInOrder) {
    EXPECT_EQ(matching("*one*two*", {"onetwo", "twoone", "one two one", "ontwo"}),
              (texts{"onetwo", "one two one"}));
    EXPECT_TRUE(matches("*aab*b", "aaabxb"));
    EXPECT_FALSE(matches("*aab*b", "aaab"));
}

TEST(Pattern, BracketsTakeOneOfTheirBytes) {
    EXPECT_EQ(bytes_of("[ab]"), "ab");
    EXPECT_EQ(bytes_of("[a-c]"), "abc");
    EXPECT_EQ(bytes_of("[a-cx-z]"), "abcxyz");
    EXPECT_EQ(bytes_of("[c-a]"), "");
    EXPECT_EQ(bytes_of("[*?]"), "*?");
}

TEST(Pattern, AnExclamationMarkOrACircumflexNegatesABracket) {
    EXPECT_EQ(bytes_of("[!\x02-\xFE]"), "\x01\xFF");
    EXPECT_EQ(bytes_of("[^\x02-\xFE]"), "\x01\xFF");
    EXPECT_EQ(bytes_of("[a!^]"), "!^a");
    EXPECT_FALSE(matches("[!a]", ""));
}

TEST(Pattern, AClosingBracketThatComesFirstIsAMember) {
    EXPECT_EQ(bytes_of("[]]"), "]");
    EXPECT_EQ(bytes_of("[]a]"), "]a");
    EXPECT_EQ(bytes_of("[]-a]"), "]^_`a");
    EXPECT_EQ(bytes_of("[!]\x02-\\\\^-\xFF]"), "\x01");
}

TEST(Pattern, AHyphenAtEitherEndOfABracketIsAMember) {
    EXPECT_EQ(bytes_of("[-a]"), "-a");
    EXPECT_EQ(bytes_of("[a-]"), "-a");
    EXPECT_EQ(bytes_of("[--/]"), "-./");
    EXPECT_EQ(bytes_of("[a-c-e]"), "-abce");
}

TEST(Pattern, RangesCompareUnsignedBytes) {
    EXPECT_EQ(bytes_of("[\x7E-\x81]"), "\x7E\x7F\x80\x81");
    EXPECT_EQ(bytes_of("[\xFD-\xFF]"), "\xFD\xFE\xFF");
}

TEST(Pattern, ABackslashTakesAwayAMeaning) {
    EXPECT_EQ(matching("\\*", {"*", "a", "\\*"}), (texts{"*"}));
    EXPECT_EQ(matching("\\a\\\\", {"a\\", "\\a\\\\"}), (texts{"a\\"}));
    EXPECT_EQ(matching("\\[a]", {"[a]", "a"}), (texts{"[a]"}));
    EXPECT_EQ(bytes_of("[\\]a]"), "]a");
    EXPECT_EQ(bytes_of("[\\!a]"), "!a");
    EXPECT_EQ(bytes_of("[a\\-c]"), "-ac");
    EXPECT_EQ(bytes_of("[[-\\]]"), "[\\]");
}

TEST(Pattern, ATrailingBackslashMatchesNothing) {
    EXPECT_EQ(matching("a\\", {"a", "a\\", "a\\\\"}), (texts{}));
    EXPECT_EQ(matching("*\\", {"", "a", "\\"}), (texts{}));
    EXPECT_EQ(matching("[a\\", {"a", "[a", "[a\\"}), (texts{}));
}

TEST(Pattern, TheTwelveClassesAreThoseOfAscii) {
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

TEST(Pattern, AClassThatDoesNotExistTakesNoByteNeitherDoesItsOpposite) {
    EXPECT_EQ(bytes_of("[[:word:]]"), "");
    EXPECT_EQ(bytes_of("[![:word:]]"), "");
    EXPECT_EQ(bytes_of("[[:digits:]a]"), "");
    EXPECT_EQ(bytes_of("[b[:digits:]a]"), "b");
    EXPECT_EQ(bytes_of("[!b[:digits:]a]"), "");
    EXPECT_EQ(bytes_of("[[:" + repeated("a", 300) + ":]]"), "");
}

TEST(Pattern, WhatOnlyLooksLikeAClassIsMadeOfOrdinaryMembers) {
    EXPECT_EQ(bytes_of("[[:]"), ":[");
    EXPECT_EQ(bytes_of("[[:a]"), ":[a");
    EXPECT_EQ(bytes_of("[:digit:]"), ":dgit");
    EXPECT_EQ(matching("[[:DIGIT:]]", {":]", "D]", "1"}), (texts{":]", "D]"}));
}

TEST(Pattern, EquivalencesAndCollatingSymbolsAreSingleBytes) {
    EXPECT_EQ(bytes_of("[[=a=]]"), "a");
    EXPECT_EQ(bytes_of("[[=]=]x]"), "]x");
    EXPECT_EQ(bytes_of("[[.a.]]"), "a");
    EXPECT_EQ(bytes_of("[[.].]x]"), "]x");
    EXPECT_EQ(bytes_of("[[.a.]-[.c.]]"), "abc");
}

TEST(Pattern, ABracketWithoutEndIsAnOrdinaryOne) {
    EXPECT_EQ(matching("[", {"[", "a"}), (texts{"["}));
    EXPECT_EQ(matching("[ab", {"[ab", "a", "b"}), (texts{"[ab"}));
    EXPECT_EQ(matching("[]", {"[]", "]", ""}), (texts{"[]"}));
    EXPECT_EQ(matching("[!", {"[!", "a"}), (texts{"[!"}));
    EXPECT_EQ(matching("[!]", {"[!]", "a"}), (texts{"[!]"}));
    EXPECT_EQ(matching("[*", {"[", "[abc", "a"}), (texts{"[", "[abc"}));
}

TEST(Pattern, ARangeWithoutEndMatchesNothing) {
    EXPECT_EQ(matching("[a-", {"a", "[a-", "-"}), (texts{}));
    EXPECT_EQ(matching("[a-\\", {"a", "[a-", "[a-\\"}), (texts{}));
}

TEST(Pattern, WhatOnlyLooksLikeASymbolOrAnEquivalenceIsMadeOfOrdinaryMembers) {
    EXPECT_EQ(matching("[[.hyphen.]]", {"h]", ".]", "-", "a]"}), (texts{"h]", ".]"}));
    EXPECT_EQ(bytes_of("[[.]"), ".[");
    EXPECT_EQ(bytes_of("[x[=a]"), "=[ax");
    EXPECT_EQ(matching("[[.a", {"[[.a", "a"}), (texts{"[[.a"}));
}

/* Runs of many elements are searched in pieces where they may begin in many places. */
TEST(Pattern, RunsOfAnyLengthAreFoundBetweenStars) {
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

TEST(Pattern, OneMatchLeavesNothingBehindForTheNext) {
    const std::string run = repeated("a", 99) + "b";
    compiled p("*" + run + "*" + run + "*");
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(p.matches(repeated("a", 500) + run + repeated("a", 500) + run));
        EXPECT_FALSE(p.matches(repeated("a", 500) + run + repeated("a", 500)));
    }
}

TEST(Pattern, TheFirstPlaceOfALongRunLeavesMostToTheRest) {
    const std::string run = repeated("ab", 50);
    EXPECT_TRUE(matches("*" + run + "*b" + run, run + "b" + run));
    EXPECT_TRUE(matches("*" + run + "*b" + run, repeated("x", 300) + run + "b" + run));
    EXPECT_TRUE(matches("*" + run + "*" + run + "*", "xab" + run + run));
}

/* Patterns from a fixed seed, made of pieces that are all well formed. */
TEST(Pattern, AnswersLikeTheLibraryForRandomPatterns) {
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
TEST(Pattern, AnswersLikeTheLibraryForRandomBytes) {
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

TEST(Pattern, AnswersLikeTheLibraryForRandomLongRuns) {
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
TEST(Pattern, ASymbolBeforeALastHyphenIsAMember) {
    EXPECT_EQ(bytes_of("[[.a.]-]"), "-a");
}

/* What was read for a bracket that has no end is not what a later one is made of. */
TEST(Pattern, BracketsMayBeginWithinOneThatHasNoEnd) {
    EXPECT_EQ(matching("[[:alpha:]", {"[:", "[a", "[h", "[z", "a"}), (texts{"[:", "[a", "[h"}));
    EXPECT_EQ(matching("[[=a=]", {"[=", "[a", "[b"}), (texts{"[=", "[a"}));
    EXPECT_EQ(matching("[[[[", {"[[[[", "["}), (texts{"[[[["}));
}
