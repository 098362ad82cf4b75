#include "core/text.h"

#include <gtest/gtest.h>

#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

namespace {

/* A modifiable C string. */
class line {
  public:
    explicit line(const std::string& text) : bytes_(text.begin(), text.end()) {
        bytes_.push_back('\0');
    }
    operator char*() {
        return bytes_.data();
    }
    std::string bytes() const {
        return std::string(bytes_.begin(), bytes_.end() - 1);
    }

  private:
    std::vector<char> bytes_;
};

std::vector<std::string> split(const std::string& text, const char* delimiters) {
    line modified(text);
    char* argv[32] = {};
    str_split(modified, argv, delimiters);
    const uintptr_t count = reinterpret_cast<uintptr_t>(argv[0]);
    std::vector<std::string> tokens;
    for (uintptr_t i = 1; i <= count && i < 32; i++) {
        tokens.push_back(argv[i]);
    }
    return tokens;
}

std::string trimmed(const std::string& text) {
    line modified(text);
    return str_trim(modified);
}

std::string unquoted(const std::string& text) {
    line modified(text);
    return str_unquote(modified);
}

typedef std::vector<std::string> words;

/* What the shared buffer's block holds, at first and once a text of 300 characters has been in it.
 */
struct growth {
    size_t first;
    size_t second;
};

size_t room_for(const char* text) {
    return malloc_usable_size(const_cast<char*>(str_format("%s", text)));
}

/* The buffer never shrinks and the cases of one process share it, so the question is put before any
 * of them, to a process that formats nothing else. */
growth growth_from_the_start() {
    growth seen = {};
    int ends[2];
    if (pipe(ends) != 0) {
        return seen;
    }
    const pid_t child = fork();
    if (child == 0) {
        seen.first = room_for("small");
        seen.second = room_for(std::string(300, 'a').c_str());
        _exit(write(ends[1], &seen, sizeof seen) == ssize_t{sizeof seen} ? 0 : 1);
    }
    close(ends[1]);
    if (read(ends[0], &seen, sizeof seen) != ssize_t{sizeof seen}) {
        seen = {};
    }
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return seen;
}

const growth at_start = growth_from_the_start();

/* What malloc may add to the size that it was asked for. */
constexpr size_t ROUNDING = 32;

} // namespace

/* str_format */

TEST(TextFormat, FormatsIntoASharedBufferThatTheNextCallOverwrites) {
    const char* first = str_format("%d apples", 12);
    EXPECT_STREQ(first, "12 apples");
    const char* second = str_format("%s", "pears");
    EXPECT_STREQ(second, "pears");
    EXPECT_EQ(second, first);
}

TEST(TextFormat, AnEmptyResultIsNull) {
    EXPECT_EQ(str_format("%s", ""), nullptr);
    EXPECT_STREQ(str_format("%s", "x"), "x");
}

TEST(TextFormat, AFormatThatCannotBePrintedGivesNull) {
    EXPECT_EQ(str_format("%lc", static_cast<wint_t>(0x4e00)), nullptr)
        << "not a character of the C locale";
}

TEST(TextFormat, TextsAroundTheFirstCapacityComeOutWhole) {
    for (size_t length = 250; length <= 260; length++) {
        const std::string text(length, 'y');
        EXPECT_EQ(str_format("%s", text.c_str()), text);
    }
}

TEST(TextFormat, TheBufferHas256BytesAtFirst) {
    EXPECT_GE(at_start.first, 256u);
    EXPECT_LT(at_start.first, 256u + ROUNDING);
}

TEST(TextFormat, ATextOf300CharactersGrowsTheBufferTo512Bytes) {
    EXPECT_GE(at_start.second, 512u);
    EXPECT_LT(at_start.second, 512u + ROUNDING);
}

TEST(TextFormat, TheBufferGrowsToTheNeedRoundedUpTo256) {
    const std::string text(70299, 'a');
    const char* scratch = str_format("%s%d", text.c_str(), 7);
    ASSERT_NE(scratch, nullptr);
    EXPECT_EQ(scratch, text + "7");
    EXPECT_GE(malloc_usable_size(const_cast<char*>(scratch)), 70400u);
    EXPECT_LT(malloc_usable_size(const_cast<char*>(scratch)), 70400u + ROUNDING);
}

TEST(TextFormat, TheBufferOnlyGrows) {
    const std::string text(3000, 'a');
    const char* large = str_format("%s", text.c_str());
    const size_t capacity = malloc_usable_size(const_cast<char*>(large));
    const char* small = str_format("%s", "b");
    EXPECT_EQ(small, large);
    EXPECT_EQ(malloc_usable_size(const_cast<char*>(small)), capacity);
}

/* Numbers to text */

TEST(TextNumber, WritesZeroAndSmallNumbers) {
    EXPECT_STREQ(text_number(0), "0");
    EXPECT_STREQ(text_number(7), "7");
    EXPECT_STREQ(text_number(10), "10");
    EXPECT_STREQ(text_number(-1), "-1");
    EXPECT_STREQ(text_number(-42), "-42");
}

TEST(TextNumber, WritesNumbersAroundThe32BitLimits) {
    EXPECT_STREQ(text_number(2147483647), "2147483647");
    EXPECT_STREQ(text_number(2147483648), "2147483648");
    EXPECT_STREQ(text_number(-2147483648), "-2147483648");
    EXPECT_STREQ(text_number(4294967295), "4294967295");
    EXPECT_STREQ(text_number(4294967296), "4294967296");
    EXPECT_STREQ(text_number(-4294967296), "-4294967296");
    EXPECT_STREQ(text_number(42949672950), "42949672950");
    EXPECT_STREQ(text_number(42949672960), "42949672960");
    EXPECT_STREQ(text_number(10000000000), "10000000000");
}

TEST(TextNumber, WritesThe64BitLimitsInFull) {
    EXPECT_STREQ(text_number(INT64_MAX), "9223372036854775807");
    EXPECT_STREQ(text_number(-INT64_MAX), "-9223372036854775807");
    EXPECT_STREQ(text_number(INT64_MIN), "-9223372036854775808");
}

TEST(TextNumber, TellsTheLengthWithoutTheNul) {
    uint32_t length = 0;
    text_number(0, &length);
    EXPECT_EQ(length, 1u);
    text_number(-42, &length);
    EXPECT_EQ(length, 3u);
    text_number(INT64_MIN, &length);
    EXPECT_EQ(length, 20u);
}

TEST(TextNumber, EndsAlwaysAtTheSameNul) {
    uint32_t length = 0;
    const char* first = text_number(123456, &length);
    const char* end = first + length;
    const char* second = text_number(-9, &length);
    EXPECT_EQ(second + length, end);
    EXPECT_EQ(*end, '\0');
}

TEST(TextNumber, IsTheSameAsPrintfForNumbersOfEveryLength) {
    int64_t value = 1;
    for (int digits = 1; digits <= 18; digits++, value = value * 10 + digits % 10) {
        EXPECT_EQ(text_number(value), std::to_string(value));
        EXPECT_EQ(text_number(-value), std::to_string(-value));
    }
}

TEST(TextUnsigned, WritesTheWholeUnsignedRange) {
    uint32_t length = 0;
    EXPECT_STREQ(text_unsigned(0, &length), "0");
    EXPECT_EQ(length, 1u);
    EXPECT_STREQ(text_unsigned(4294967295), "4294967295");
    EXPECT_STREQ(text_unsigned(9223372036854775808u), "9223372036854775808");
    EXPECT_STREQ(text_unsigned(UINT64_MAX, &length), "18446744073709551615");
    EXPECT_EQ(length, 20u);
}

TEST(TextDigits, AreCountedUpToTheLargestNumber) {
    EXPECT_EQ(text_digit_count(0), 1u);
    EXPECT_EQ(text_digit_count(UINT64_MAX), 20u);
    uint64_t power = 10;
    for (uint32_t digits = 2; digits <= 20; digits++, power *= 10) {
        EXPECT_EQ(text_digit_count(power - 1), digits - 1);
        EXPECT_EQ(text_digit_count(power), digits);
    }
}

TEST(TextDigits, AreWrittenJustBeforeTheEndAndNothingElseIs) {
    char bytes[24];
    memset(bytes, '#', sizeof bytes);
    text_put_digits(bytes + 10, 4294967296);
    EXPECT_EQ(std::string(bytes, sizeof bytes), "4294967296##############");
    memset(bytes, '#', sizeof bytes);
    text_put_digits(bytes + 22, UINT64_MAX);
    EXPECT_EQ(std::string(bytes, sizeof bytes), "##18446744073709551615##");
    memset(bytes, '#', sizeof bytes);
    text_put_digits(bytes + 2, 0);
    EXPECT_EQ(std::string(bytes, 4), "#0##");
}

TEST(TextDigits, LeaveTheNumberOfAnEarlierCallAlone) {
    const char* number = text_number(-77);
    char bytes[4];
    text_put_digits(bytes + 4, 1234);
    EXPECT_STREQ(number, "-77");
}

/* Numbers from text */

TEST(TextParseInt32, ReadsSignsBlanksAndStopsBehindTheDigits) {
    char* end;
    const char* text = " \t-17x";
    EXPECT_EQ(text_parse_int32(text, &end, 10), -17);
    EXPECT_EQ(end, text + 5);
    EXPECT_EQ(text_parse_int32("+5", nullptr, 10), 5);
}

TEST(TextParseInt32, LeavesTheEndAtTheTextWhenThereAreNoDigits) {
    char* end;
    const char* text = "  abc";
    EXPECT_EQ(text_parse_int32(text, &end, 10), 0);
    EXPECT_EQ(end, text);
    text = "";
    EXPECT_EQ(text_parse_int32(text, &end, 10), 0);
    EXPECT_EQ(end, text);
}

TEST(TextParseInt32, SaturatesAt32BitsOnEveryTarget) {
    EXPECT_EQ(text_parse_int32("2147483647", nullptr, 10), 2147483647);
    EXPECT_EQ(text_parse_int32("2147483648", nullptr, 10), 2147483647);
    EXPECT_EQ(text_parse_int32("4294967297", nullptr, 10), 2147483647);
    EXPECT_EQ(text_parse_int32("-2147483648", nullptr, 10), INT32_MIN);
    EXPECT_EQ(text_parse_int32("-2147483649", nullptr, 10), INT32_MIN);
    EXPECT_EQ(text_parse_int32("99999999999999999999", nullptr, 10), 2147483647);
    EXPECT_EQ(text_parse_int32("-99999999999999999999", nullptr, 10), INT32_MIN);
}

TEST(TextParseInt32, BaseZeroTakesHexadecimalAndOctal) {
    EXPECT_EQ(text_parse_int32("0x1f", nullptr, 0), 31);
    EXPECT_EQ(text_parse_int32("-0X10", nullptr, 0), -16);
    EXPECT_EQ(text_parse_int32("017", nullptr, 0), 15);
    EXPECT_EQ(text_parse_int32("17", nullptr, 0), 17);
}

TEST(TextParseInt32, BaseZeroKnowsNoBinaryPrefix) {
    char* end;
    const char* text = "0b11";
    EXPECT_EQ(text_parse_int32(text, &end, 0), 0);
    EXPECT_EQ(end, text + 1);
}

TEST(TextParseInt32, BaseTenTakesALeadingZeroAsADigit) {
    char* end;
    const char* text = "0x1f";
    EXPECT_EQ(text_parse_int32("017", nullptr, 10), 17);
    EXPECT_EQ(text_parse_int32(text, &end, 10), 0);
    EXPECT_EQ(end, text + 1);
}

TEST(TextParseUint32, ReadsTheUnsignedRange) {
    char* end;
    const char* text = "4294967295\r";
    EXPECT_EQ(text_parse_uint32(text, &end, 10), 4294967295u);
    EXPECT_EQ(end, text + 10);
    EXPECT_EQ(text_parse_uint32("0", nullptr, 10), 0u);
    EXPECT_EQ(text_parse_uint32(" +7", nullptr, 10), 7u);
}

TEST(TextParseUint32, SaturatesAboveTheRange) {
    EXPECT_EQ(text_parse_uint32("4294967296", nullptr, 10), 4294967295u);
    EXPECT_EQ(text_parse_uint32("18446744073709551617", nullptr, 10), 4294967295u);
    EXPECT_EQ(text_parse_uint32("99999999999999999999999", nullptr, 10), 4294967295u);
}

TEST(TextParseUint32, ANegativeNumberWrapsUntilItsMagnitudeLeavesTheRange) {
    EXPECT_EQ(text_parse_uint32("-1", nullptr, 10), 4294967295u);
    EXPECT_EQ(text_parse_uint32(" \v\f\r\n\t-4294967295", nullptr, 10), 1u);
    EXPECT_EQ(text_parse_uint32("-4294967296", nullptr, 10), 4294967295u);
    EXPECT_EQ(text_parse_uint32("-18446744073709551615", nullptr, 10), 4294967295u);
    EXPECT_EQ(text_parse_uint32("-99999999999999999999999", nullptr, 10), 4294967295u);
}

TEST(TextParseUint32, LeavesTheEndAtTheTextWhenThereAreNoDigits) {
    char* end;
    const char* text = "-x";
    EXPECT_EQ(text_parse_uint32(text, &end, 10), 0u);
    EXPECT_EQ(end, text);
}

TEST(TextParseUint32, BaseZeroTakesHexadecimalAndOctalAndKnowsNoBinaryPrefix) {
    EXPECT_EQ(text_parse_uint32("0xffffffff", nullptr, 0), 4294967295u);
    EXPECT_EQ(text_parse_uint32("017", nullptr, 0), 15u);
    for (const char* text : {"0b11", "0B11", "+0b1", " -0b1"}) {
        char* end;
        EXPECT_EQ(text_parse_uint32(text, &end, 0), 0u) << text;
        EXPECT_EQ(end, strchr(text, '0') + 1) << text;
    }
}

TEST(TextParseInt64, BaseZeroTakesHexadecimalAndOctalAndKnowsNoBinaryPrefix) {
    EXPECT_EQ(text_parse_int64("0x7fffffffffffffff", nullptr, 0), INT64_MAX);
    EXPECT_EQ(text_parse_int64("-017", nullptr, 0), -15);
    for (const char* text : {"0b11", "0B11", "+0b1", " -0b1"}) {
        char* end;
        EXPECT_EQ(text_parse_int64(text, &end, 0), 0) << text;
        EXPECT_EQ(end, strchr(text, '0') + 1) << text;
    }
}

/* str_split */

TEST(TextSplit, SplitsAtBlanksTabsAndLineEndsByDefault) {
    EXPECT_EQ(split("one two\tthree\r\nfour", nullptr), (words{"one", "two", "three", "four"}));
}

TEST(TextSplit, RunsOfDelimitersAreOne) {
    EXPECT_EQ(split("  a   b\t\t c \r\n", nullptr), (words{"a", "b", "c"}));
}

TEST(TextSplit, TakesTheGivenDelimitersAndNoOthers) {
    EXPECT_EQ(split("a b,c:d", ",:"), (words{"a b", "c", "d"}));
}

TEST(TextSplit, ATextWithoutTokensHasACountOfZero) {
    EXPECT_EQ(split("", nullptr), words{});
    EXPECT_EQ(split(" \t\r\n", nullptr), words{});
}

TEST(TextSplit, TheTokensStandInTheLineItself) {
    line text("ab cd");
    char* argv[3];
    str_split(text, argv, nullptr);
    EXPECT_EQ(argv[1], static_cast<char*>(text));
    EXPECT_EQ(argv[2], static_cast<char*>(text) + 3);
    EXPECT_EQ(text.bytes(), std::string("ab\0cd", 5));
}

/* Trimming */

TEST(TextTrim, BlanksAreSpaceTabLineFeedAndCarriageReturn) {
    EXPECT_EQ(trimmed(" \t\r\n a b \n\r\t "), "a b");
    EXPECT_EQ(trimmed("\v a \f"), "\v a \f");
}

TEST(TextTrim, LtrimSkipsLeadingBlanksOnly) {
    line text(" \tab ");
    char* result = str_ltrim(text);
    EXPECT_EQ(result, static_cast<char*>(text) + 2);
    EXPECT_STREQ(result, "ab ");
}

TEST(TextTrim, RtrimCutsTrailingBlanksInPlaceAndReturnsTheText) {
    line text(" ab\r\n ");
    EXPECT_EQ(str_rtrim(text), static_cast<char*>(text));
    EXPECT_STREQ(text, " ab");
}

TEST(TextTrim, NothingIsLeftOfBlanks) {
    EXPECT_EQ(trimmed(""), "");
    EXPECT_EQ(trimmed(" \n "), "");
    line blanks(" \t");
    EXPECT_STREQ(str_rtrim(blanks), "");
}

/* str_unquote */

TEST(TextUnquote, CutsTheQuotesOffAQuotedText) {
    EXPECT_EQ(unquoted("\"a\""), "a");
    EXPECT_EQ(unquoted("\"two words\""), "two words");
}

TEST(TextUnquote, ALoneQuoteStaysAsItIs) {
    EXPECT_EQ(unquoted("\""), "\"");
    EXPECT_EQ(unquoted(" \" "), "\"");
}

TEST(TextUnquote, TwoQuotesGiveAnEmptyText) {
    EXPECT_EQ(unquoted("\"\""), "");
}

TEST(TextUnquote, TrimsBeforeItLooksForQuotesAndNotBehind) {
    EXPECT_EQ(unquoted(" \" a \"\r\n"), " a ");
    EXPECT_EQ(unquoted("  plain\t"), "plain");
}

TEST(TextUnquote, AQuoteAtOneEndOnlyStays) {
    EXPECT_EQ(unquoted("\"a"), "\"a");
    EXPECT_EQ(unquoted("a\""), "a\"");
    EXPECT_EQ(unquoted(""), "");
}

TEST(TextUnquote, OnlyTheOuterPairIsCut) {
    EXPECT_EQ(unquoted("\"\"a\"\""), "\"a\"");
    EXPECT_EQ(unquoted("'a'"), "'a'");
}

/* Copies and case */

TEST(TextDup, ReturnsACopyThatFreeTakes) {
    line text("copy me");
    char* copy = str_dup(text);
    EXPECT_NE(copy, static_cast<char*>(text));
    EXPECT_STREQ(copy, "copy me");
    free(copy);
    copy = str_dup("");
    EXPECT_STREQ(copy, "");
    free(copy);
}

TEST(TextCase, ChangesAsciiLettersInPlaceAndNothingElse) {
    line text("aZ@[`{09 \xc3\xa4\xc3\x84");
    str_toupper(text);
    EXPECT_EQ(text.bytes(), "AZ@[`{09 \xc3\xa4\xc3\x84");
    str_tolower(text);
    EXPECT_EQ(text.bytes(), "az@[`{09 \xc3\xa4\xc3\x84");
}

TEST(TextCase, ChangesEveryLetter) {
    line text("abcdefghijklmnopqrstuvwxyz");
    str_toupper(text);
    EXPECT_EQ(text.bytes(), "ABCDEFGHIJKLMNOPQRSTUVWXYZ");
    str_tolower(text);
    EXPECT_EQ(text.bytes(), "abcdefghijklmnopqrstuvwxyz");
}

/* buf_getline */

namespace {

class TextGetline : public testing::Test {
  protected:
    void look_at(const std::string& bytes) {
        bytes_.assign(bytes.begin(), bytes.end());
        view_ = {bytes_.data(), static_cast<uint32_t>(bytes_.size())};
    }
    char* next(bool need_newline) {
        length_ = 0xdead;
        return buf_getline(&view_, &length_, need_newline);
    }

    std::vector<char> bytes_;
    buf_view view_ = {};
    uint32_t length_ = 0;
};

} // namespace

TEST_F(TextGetline, TakesOneLineAfterTheOther) {
    look_at("ab\ncde\nf");
    EXPECT_STREQ(next(true), "ab");
    EXPECT_EQ(length_, 2u);
    EXPECT_EQ(view_.start, bytes_.data() + 3);
    EXPECT_EQ(view_.length, 5u);
    EXPECT_STREQ(next(true), "cde");
    EXPECT_EQ(length_, 3u);
    EXPECT_EQ(view_.length, 1u);
}

TEST_F(TextGetline, CutsACarriageReturnThatStandsJustBefore) {
    look_at("*1\r\n$4\r\n");
    EXPECT_STREQ(next(true), "*1");
    EXPECT_EQ(length_, 2u);
    EXPECT_STREQ(next(true), "$4");
    EXPECT_EQ(length_, 2u);
    EXPECT_EQ(view_.length, 0u);
    EXPECT_EQ(std::string(bytes_.begin(), bytes_.end()), std::string("*1\0\0$4\0\0", 8));
}

TEST_F(TextGetline, KeepsACarriageReturnElsewhere) {
    look_at("a\rb\r\r\n");
    EXPECT_STREQ(next(true), "a\rb\r");
    EXPECT_EQ(length_, 4u);
}

TEST_F(TextGetline, EmptyLinesHaveNoLength) {
    look_at("\n\r\n\r");
    EXPECT_STREQ(next(true), "");
    EXPECT_EQ(length_, 0u);
    EXPECT_STREQ(next(true), "");
    EXPECT_EQ(length_, 0u);
    EXPECT_EQ(next(true), nullptr);
}

TEST_F(TextGetline, AnIncompleteLineIsNullAndStaysWhenALineFeedIsNeeded) {
    look_at("abc\r");
    EXPECT_EQ(next(true), nullptr);
    EXPECT_EQ(view_.start, bytes_.data());
    EXPECT_EQ(view_.length, 4u);
    EXPECT_EQ(std::string(bytes_.begin(), bytes_.end()), "abc\r");
}

TEST_F(TextGetline, TheRestIsTheLineWhenNoLineFeedIsNeeded) {
    look_at("ab\ncd");
    EXPECT_STREQ(next(false), "ab");
    EXPECT_EQ(next(false), bytes_.data() + 3);
    EXPECT_EQ(length_, 2u);
    EXPECT_EQ(view_.start, bytes_.data() + 5);
    EXPECT_EQ(view_.length, 0u);
}

TEST_F(TextGetline, AnEmptyViewIsNull) {
    look_at("");
    EXPECT_EQ(next(true), nullptr);
    EXPECT_EQ(next(false), nullptr);
}

TEST_F(TextGetline, AViewThatBeginsWithANulIsNull) {
    look_at(std::string("\0abc\n", 5));
    EXPECT_EQ(next(true), nullptr);
    EXPECT_EQ(next(false), nullptr);
    EXPECT_EQ(view_.length, 5u);
}

TEST_F(TextGetline, DoesNotLookBeyondTheView) {
    look_at("abc\n");
    view_.length = 3;
    EXPECT_EQ(next(true), nullptr);
    EXPECT_EQ(bytes_[3], '\n');
}

/* Byte order */

TEST(TextBe32, WritesAndReadsNetworkOrderAtAnyAlignment) {
    unsigned char bytes[6] = {};
    text_put_be32(bytes + 1, 0x81020304);
    const unsigned char expected[6] = {0, 0x81, 0x02, 0x03, 0x04, 0};
    EXPECT_EQ(memcmp(bytes, expected, 6), 0);
    EXPECT_EQ(text_get_be32(bytes + 1), 0x81020304u);
    EXPECT_EQ(text_get_be32("\xff\xff\xff\xff"), 0xffffffffu);
}
