/* String commands: what each answers and stores, how numbers are read and summed, and what
 * observers hear. */

#include <stdint.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <optional>

#include "tests/system/model/written_frames.h"
#include "tests/system/support/daemon_test.h"

using namespace system_test;

namespace {

typedef std::vector<std::string> words;

const std::string OK = "+OK\r\n";
const std::string ERROR = "-ERR\r\n";
const std::string NIL = "$-1\r\n";

std::string number(long long value) {
    return ":" + std::to_string(value) + "\r\n";
}

class strings : public client_test {
  protected:
    void expect_value(const std::string& key, const std::string& value) {
        EXPECT_EQ(call({"get", key}), bulk(value)) << key;
        EXPECT_EQ(call({"strlen", key}), number(static_cast<long long>(value.size()))) << key;
    }

    /* Sets the key with so many seconds to live, and expects all of them to be left but those that
     * have gone by meanwhile. */
    void expect_lives(const words& request, uint32_t seconds) {
        SCOPED_TRACE(request[2]);
        const time_t before = time(nullptr);
        EXPECT_EQ(call(request), OK);
        const std::string left = call({"ttl", request[1]});
        const uint32_t most = static_cast<uint32_t>(time(nullptr) - before);
        words possible;
        for (uint32_t passed = 0; passed <= most; passed++) {
            possible.push_back(number(static_cast<int32_t>(seconds - passed)));
        }
        EXPECT_TRUE(std::find(possible.begin(), possible.end(), left) != possible.end())
            << left << "is not among " << ::testing::PrintToString(possible);
    }

    /* A number that is added to a missing key becomes its value. */
    void expect_reads(const std::string& text, const std::string& value) {
        SCOPED_TRACE(text);
        EXPECT_EQ(call({"del", "k"}), ":1\r\n");
        EXPECT_EQ(call({"incrby", "k", text}), ":" + value + "\r\n");
        EXPECT_EQ(call({"get", "k"}), bulk(value));
    }

    /* The value that holds the text becomes the sum. */
    void expect_sum(const std::string& text, const std::string& added, const std::string& sum) {
        SCOPED_TRACE(text + " + " + added);
        EXPECT_EQ(call({"set", "k", text}), OK);
        EXPECT_EQ(call({"incrby", "k", added}), ":" + sum + "\r\n");
        EXPECT_EQ(call({"get", "k"}), bulk(sum));
    }

    /* A list "l" of one item and a hash "h" of one field. */
    void make_list_and_hash() {
        EXPECT_EQ(call({"rpush", "l", "item"}), ":1\r\n");
        EXPECT_EQ(call({"hset", "h", "f", "v"}), ":1\r\n");
    }

    void expect_list_and_hash_untouched() {
        EXPECT_EQ(call({"type", "l"}), bulk("list"));
        EXPECT_EQ(call({"lindex", "l", "0"}), bulk("item"));
        EXPECT_EQ(call({"llen", "l"}), ":1\r\n");
        EXPECT_EQ(call({"type", "h"}), bulk("hash"));
        EXPECT_EQ(call({"hget", "h", "f"}), bulk("v"));
        EXPECT_EQ(call({"hlen", "h"}), ":1\r\n");
    }
};

/* The strings of a test that looks at events have keys with "my." in them: the daemon's own figures
 * are announced in between. */
class string_events : public strings {
  protected:
    void SetUp() override {
        strings::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        observer.emplace();
        EXPECT_EQ(observer->call({"observe"}), OK);
    }

    std::string next_event() {
        /* What does not come in one place is not waited for in others. */
        const long end = now_ms() + (HasFailure() ? 200 : LIMIT_MS);
        while (now_ms() < end) {
            std::string event = observer->frame(static_cast<int>(end - now_ms()));
            if (event[0] != '!' || event.find("my.") != std::string::npos) {
                return event;
            }
        }
        return "<nothing came>";
    }

    void expect_event(const std::string& key, const std::string& value) {
        EXPECT_EQ(next_event(), "!3\r\n" + bulk("MSET") + bulk(key) + bulk(value));
    }

    /* Nothing was announced since the last event that was looked at. */
    void expect_silence() {
        EXPECT_EQ(call({"set", "my.end", std::to_string(++ends)}), OK);
        expect_event("my.end", std::to_string(ends));
    }

    std::optional<resp_client> observer;
    int ends = 0;
};

} // namespace

TEST_F(strings, that_are_missing_are_nil) {
    EXPECT_EQ(call({"get", "k"}), NIL);
    EXPECT_EQ(call({"exists", "k"}), ":0\r\n");
}

TEST_F(strings, hold_what_was_set_last) {
    EXPECT_EQ(call({"set", "k", "one"}), OK);
    expect_value("k", "one");
    EXPECT_EQ(call({"set", "k", "two"}), OK);
    expect_value("k", "two");
    EXPECT_EQ(call({"set", "k", "a longer one"}), OK);
    expect_value("k", "a longer one");
    EXPECT_EQ(call({"set", "k", ""}), OK);
    expect_value("k", "");
    EXPECT_EQ(call({"set", "k", "more", "and", "more"}), OK);
    expect_value("k", "more");
}

TEST_F(strings, hold_any_bytes_of_any_length) {
    std::string every;
    for (int byte = 0; byte < 256; byte++) {
        every += static_cast<char>(byte);
    }
    EXPECT_EQ(call({"set", "k", every}), OK);
    expect_value("k", every);
    EXPECT_EQ(call({"set", "k", std::string("\0", 1)}), OK);
    expect_value("k", std::string("\0", 1));
    EXPECT_EQ(call({"set", "k", "$3\r\nabc\r\n"}), OK);
    expect_value("k", "$3\r\nabc\r\n");
    /* 199 bytes are the most that the pool keeps with their length and end. */
    for (size_t length :
         {1u, 2u, 3u, 4u, 7u, 8u, 198u, 199u, 200u, 201u, 204u, 205u, 2047u, 2048u, 30000u}) {
        EXPECT_EQ(call({"set", "k", std::string(length, 'x')}), OK);
        expect_value("k", std::string(length, 'x'));
    }
}

TEST_F(strings, replace_lists_and_hashes_when_set) {
    make_list_and_hash();
    EXPECT_EQ(call({"set", "l", "v"}), OK);
    EXPECT_EQ(call({"set", "h", "v"}), OK);
    expect_value("l", "v");
    expect_value("h", "v");
    EXPECT_EQ(call({"type", "l"}), bulk("string"));
    EXPECT_EQ(call({"type", "h"}), bulk("string"));
    EXPECT_EQ(call({"hset", "h", "f", "v"}), ERROR);
    EXPECT_EQ(call({"rpush", "l", "item"}), ERROR);
}

TEST_F(strings, are_asked_of_lists_and_hashes_in_vain) {
    make_list_and_hash();
    for (const char* key : {"l", "h"}) {
        SCOPED_TRACE(key);
        EXPECT_EQ(call({"get", key}), ERROR);
        EXPECT_EQ(call({"strlen", key}), ERROR);
        EXPECT_EQ(call({"append", key, "x"}), ERROR);
        EXPECT_EQ(call({"incr", key}), ERROR);
        EXPECT_EQ(call({"decr", key}), ERROR);
        EXPECT_EQ(call({"incrby", key, "1"}), ERROR);
        EXPECT_EQ(call({"decrby", key, "1"}), ERROR);
        EXPECT_EQ(call({"setex", key, "100", "v"}), ERROR);
        EXPECT_EQ(call({"setnx", key, "v"}), ":0\r\n");
        EXPECT_EQ(call({"msetnx", key, "v"}), ":0\r\n");
        EXPECT_EQ(call({"mget", key}), "*1\r\n" + NIL);
        EXPECT_EQ(call({"ttl", key}), ":-1\r\n");
    }
    expect_list_and_hash_untouched();
}

TEST_F(strings, are_swapped_by_getset) {
    EXPECT_EQ(call({"set", "k", "old"}), OK);
    EXPECT_EQ(call({"getset", "k", "new"}), bulk("old"));
    EXPECT_EQ(call({"getset", "k", "x", "ignored"}), bulk("new"));
    EXPECT_EQ(call({"GetSet", "k", "y"}), bulk("x"));
    expect_value("k", "y");
    EXPECT_EQ(call({"getset", "k", "z"}), bulk("y"));
    EXPECT_EQ(call({"getset", "k", std::string("\0a", 2)}), bulk("z"));
    EXPECT_EQ(call({"getset", "k", ""}), bulk(std::string("\0a", 2)));
    expect_value("k", "");
}

TEST_F(strings, of_great_length_are_swapped_whole) {
    const std::string a(30000, 'a');
    const std::string b(30000, 'b');
    EXPECT_EQ(call({"set", "k", a}), OK);
    EXPECT_TRUE(call({"getset", "k", b}) == bulk(a));
    EXPECT_TRUE(call({"getset", "k", a}) == bulk(b));
    EXPECT_TRUE(call({"get", "k"}) == bulk(a));
}

TEST_F(strings, are_not_made_by_getset) {
    EXPECT_EQ(call({"getset", "k", "new"}), NIL);
    EXPECT_EQ(call({"exists", "k"}), ":0\r\n");
    EXPECT_EQ(call({"keys", "k"}), "*0\r\n");
    EXPECT_EQ(call({"get", "k"}), NIL);
}

TEST_F(strings, take_the_place_of_lists_and_hashes_by_getset) {
    make_list_and_hash();
    EXPECT_EQ(call({"getset", "l", "v"}), NIL);
    EXPECT_EQ(call({"getset", "h", "w"}), NIL);
    EXPECT_EQ(call({"type", "l"}), bulk("string"));
    EXPECT_EQ(call({"type", "h"}), bulk("string"));
    expect_value("l", "v");
    expect_value("h", "w");
}

TEST_F(strings, are_made_by_setnx_alone_when_missing) {
    EXPECT_EQ(call({"setnx", "k", "one"}), ":1\r\n");
    EXPECT_EQ(call({"setnx", "k", "two"}), ":0\r\n");
    expect_value("k", "one");
    EXPECT_EQ(call({"setnx", "e", ""}), ":1\r\n");
    EXPECT_EQ(call({"setnx", "e", "x"}), ":0\r\n");
    expect_value("e", "");
}

TEST_F(strings, are_set_with_an_expiry) {
    expect_lives({"setex", "k", "1000", "v"}, 1000);
    expect_value("k", "v");
    expect_lives({"setex", "k", "500x", "w", "ignored"}, 500);
    expect_value("k", "w");
    EXPECT_EQ(call({"setex", "k", "1000", ""}), OK);
    expect_value("k", "");
}

TEST_F(strings, take_expiries_of_32_bits) {
    expect_lives({"setex", "k", "2147483647", "v"}, 2147483647);
    expect_lives({"setex", "k", "2147483648", "v"}, 2147483647);
    expect_lives({"setex", "k", "4294967297", "v"}, 2147483647);
    expect_lives({"setex", "k", "99999999999999999999", "v"}, 2147483647);
    expect_lives({"setex", "k", "-1", "v"}, 4294967295U);
    expect_lives({"setex", "k", "-2147483648", "v"}, 2147483648U);
    expect_lives({"setex", "k", "-99999999999999999999", "v"}, 2147483648U);
    expect_lives({"setex", "k", "0100", "v"}, 100);
}

TEST_F(strings, are_left_behind_empty_by_an_expiry_without_digits) {
    for (const char* text : {"abc", "", "-", "+", " ", "x1"}) {
        SCOPED_TRACE(text);
        const std::string key = std::string("new.") + text;
        EXPECT_EQ(call({"setex", key, text, "v"}), ERROR);
        EXPECT_EQ(call({"type", key}), bulk("string"));
        EXPECT_EQ(call({"ttl", key}), ":-1\r\n");
        expect_value(key, "");
    }
    EXPECT_EQ(call({"set", "k", "old"}), OK);
    EXPECT_EQ(call({"setex", "k", "abc", "v"}), ERROR);
    expect_value("k", "old");
    EXPECT_EQ(call({"ttl", "k"}), ":-1\r\n");
}

TEST_F(strings, have_the_length_of_all_their_bytes) {
    EXPECT_EQ(call({"strlen", "none"}), ":0\r\n");
    EXPECT_EQ(call({"set", "k", std::string("a\0b\0", 4)}), OK);
    EXPECT_EQ(call({"strlen", "k"}), ":4\r\n");
    EXPECT_EQ(call({"exists", "none"}), ":0\r\n");
}

TEST_F(strings, grow_by_append) {
    EXPECT_EQ(call({"append", "k", "abc"}), ":3\r\n");
    EXPECT_EQ(call({"append", "k", "defg", "ignored"}), ":7\r\n");
    EXPECT_EQ(call({"append", "k", ""}), ":7\r\n");
    EXPECT_EQ(call({"append", "k", std::string("\0x", 2)}), ":9\r\n");
    expect_value("k", std::string("abcdefg\0x", 9));
    std::string expected;
    for (int i = 0; i < 300; i++) {
        expected += std::to_string(i);
        EXPECT_EQ(call({"append", "long", std::to_string(i)}),
                  number(static_cast<long long>(expected.size())));
    }
    expect_value("long", expected);
}

TEST_F(strings, are_made_by_an_append_of_nothing) {
    EXPECT_EQ(call({"append", "k", ""}), ":0\r\n");
    EXPECT_EQ(call({"type", "k"}), bulk("string"));
    expect_value("k", "");
    EXPECT_EQ(call({"incr", "k"}), ERROR);
}

TEST_F(strings, count_up_and_down) {
    EXPECT_EQ(call({"incr", "k"}), ":1\r\n");
    EXPECT_EQ(call({"incr", "k", "5"}), ":2\r\n");
    EXPECT_EQ(call({"decr", "k"}), ":1\r\n");
    EXPECT_EQ(call({"decr", "k", "5"}), ":0\r\n");
    EXPECT_EQ(call({"decr", "k"}), ":-1\r\n");
    expect_value("k", "-1");
    EXPECT_EQ(call({"decr", "d"}), ":-1\r\n");
    expect_value("d", "-1");
    EXPECT_EQ(call({"incrby", "k", "11"}), ":10\r\n");
    EXPECT_EQ(call({"decrby", "k", "3"}), ":7\r\n");
    EXPECT_EQ(call({"incrby", "k", "-8"}), ":-1\r\n");
    EXPECT_EQ(call({"decrby", "k", "-8"}), ":7\r\n");
    EXPECT_EQ(call({"decrby", "n", "5"}), ":-5\r\n");
    expect_value("n", "-5");
}

TEST_F(strings, that_are_no_number_cannot_be_counted) {
    for (const char* text : {"", "abc", "-", "+", " ", "x1", "- 1", ".5", "$1"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(call({"set", "k", text}), OK);
        EXPECT_EQ(call({"incr", "k"}), ERROR);
        EXPECT_EQ(call({"decr", "k"}), ERROR);
        EXPECT_EQ(call({"incrby", "k", "1"}), ERROR);
        EXPECT_EQ(call({"decrby", "k", "1"}), ERROR);
        expect_value("k", text);
    }
    EXPECT_EQ(call({"set", "k", std::string("\0001", 2)}), OK);
    EXPECT_EQ(call({"incr", "k"}), ERROR);
}

TEST_F(strings, that_begin_with_a_number_are_counted_from_it) {
    expect_sum("12", "1", "13");
    expect_sum(" \t\r\n12", "1", "13");
    expect_sum("+12", "1", "13");
    expect_sum("-12", "1", "-11");
    expect_sum("12abc", "1", "13");
    expect_sum("1.9", "1", "2");
    expect_sum("0x10", "1", "17");
    expect_sum("0X1f", "1", "32");
    expect_sum("-0x10", "1", "-15");
    expect_sum("0x", "1", "1");
    expect_sum("0xg", "1", "1");
    expect_sum("010", "1", "9");
    expect_sum("-010", "1", "-7");
    expect_sum("09", "1", "1");
    expect_sum("0b11", "1", "1");
    expect_sum("1e3", "1", "2");
    expect_sum(std::string("5\0006", 3), "1", "6");
}

TEST_F(strings, take_increments_of_any_base) {
    EXPECT_EQ(call({"set", "k", ""}), OK);
    expect_reads("0x10", "16");
    expect_reads("0X10", "16");
    expect_reads("-0x10", "-16");
    expect_reads("010", "8");
    expect_reads("-010", "-8");
    expect_reads("08", "0");
    expect_reads("0x", "0");
    expect_reads("0b11", "0");
    expect_reads("10", "10");
    expect_reads(" \t\n\v\f\r10", "10");
    expect_reads("+10", "10");
    expect_reads("10abc", "10");
    expect_reads("-0", "0");
    expect_reads("0", "0");
    EXPECT_EQ(call({"decrby", "d", "0x10"}), ":-16\r\n");
    EXPECT_EQ(call({"decrby", "d", "-010"}), ":-8\r\n");
}

TEST_F(strings, are_left_behind_empty_by_an_increment_without_digits) {
    for (const char* command : {"incrby", "decrby"}) {
        for (const char* text : {"abc", "", "-", "+", " ", "x1", ".5"}) {
            SCOPED_TRACE(std::string(command) + " " + text);
            const std::string key = std::string(command) + "." + text;
            EXPECT_EQ(call({command, key, text}), ERROR);
            EXPECT_EQ(call({"type", key}), bulk("string"));
            expect_value(key, "");
            EXPECT_EQ(call({"mget", key}), "*1\r\n" + bulk(""));
            EXPECT_EQ(call({"getset", key, "old"}), bulk(""));
            EXPECT_EQ(call({command, key, text}), ERROR);
            expect_value(key, "old");
        }
    }
    EXPECT_EQ(call({"set", "k", "5"}), OK);
    EXPECT_EQ(call({"incrby", "k", "abc"}), ERROR);
    EXPECT_EQ(call({"decrby", "k", "abc"}), ERROR);
    expect_value("k", "5");
}

TEST_F(strings, that_never_had_a_value_are_counted_from_nothing) {
    EXPECT_EQ(call({"incrby", "a", "abc"}), ERROR);
    EXPECT_EQ(call({"incr", "a"}), ":1\r\n");
    EXPECT_EQ(call({"incrby", "b", "abc"}), ERROR);
    EXPECT_EQ(call({"incrby", "b", "9223372036854775807"}), ":9223372036854775807\r\n");
    EXPECT_EQ(call({"setex", "c", "abc", "v"}), ERROR);
    EXPECT_EQ(call({"decr", "c"}), ":-1\r\n");
    EXPECT_EQ(call({"decrby", "d", "abc"}), ERROR);
    EXPECT_EQ(call({"append", "d", "7"}), ":1\r\n");
    EXPECT_EQ(call({"incr", "d"}), ":8\r\n");
    EXPECT_EQ(call({"incrby", "e", "abc"}), ERROR);
    EXPECT_EQ(call({"setnx", "e", "v"}), ":0\r\n");
    EXPECT_EQ(call({"incrby", "f", "abc"}), ERROR);
    EXPECT_EQ(call({"set", "f", ""}), OK);
    EXPECT_EQ(call({"incr", "f"}), ERROR);
}

TEST_F(strings, keep_all_64_bits_of_their_first_number) {
    EXPECT_EQ(call({"set", "k", ""}), OK);
    expect_reads("2147483648", "2147483648");
    expect_reads("4294967296", "4294967296");
    expect_reads("-2147483649", "-2147483649");
    expect_reads("9223372036854775807", "9223372036854775807");
    expect_reads("9223372036854775808", "9223372036854775807");
    expect_reads("99999999999999999999", "9223372036854775807");
    expect_reads("-9223372036854775808", "-9223372036854775808");
    expect_reads("-99999999999999999999", "-9223372036854775808");
    expect_reads("0x7fffffffffffffff", "9223372036854775807");
    expect_reads("0xffffffffffffffff", "9223372036854775807");

    EXPECT_EQ(call({"decrby", "a", "9223372036854775807"}), ":-9223372036854775807\r\n");
    EXPECT_EQ(call({"decrby", "b", "-9223372036854775807"}), ":9223372036854775807\r\n");
    EXPECT_EQ(call({"decrby", "c", "-9223372036854775808"}), ":-9223372036854775808\r\n");
    expect_value("c", "-9223372036854775808");
}

TEST_F(strings, are_summed_in_32_bits) {
    expect_sum("2147483647", "1", "-2147483648");
    expect_sum("-2147483648", "-1", "2147483647");
    expect_sum("2147483647", "2147483647", "-2");
    expect_sum("4294967295", "1", "0");
    expect_sum("4294967296", "1", "1");
    expect_sum("1", "4294967296", "1");
    expect_sum("1", "4294967295", "0");
    expect_sum("0", "2147483648", "-2147483648");
    expect_sum("9223372036854775807", "1", "0");
    expect_sum("99999999999999999999", "1", "0");
    expect_sum("-9223372036854775808", "1", "1");
    expect_sum("-99999999999999999999", "-1", "-1");
    expect_sum("1", "9223372036854775807", "0");
    expect_sum("5", "-9223372036854775808", "5");
    expect_sum("5", "0", "5");
    expect_sum("4294967301", "0", "5");
    EXPECT_EQ(call({"set", "k", "-2147483648"}), OK);
    EXPECT_EQ(call({"decr", "k"}), ":2147483647\r\n");
    EXPECT_EQ(call({"incr", "k"}), ":-2147483648\r\n");
    EXPECT_EQ(call({"decrby", "k", "-2147483648"}), ":0\r\n");
    EXPECT_EQ(call({"set", "k", "5"}), OK);
    EXPECT_EQ(call({"decrby", "k", "-9223372036854775808"}), ":5\r\n");
}

TEST_F(strings, are_read_together_with_nil_for_what_is_none) {
    make_list_and_hash();
    EXPECT_EQ(call({"set", "a", "1"}), OK);
    EXPECT_EQ(call({"set", "b", ""}), OK);
    EXPECT_EQ(call({"incrby", "c", "abc"}), ERROR);
    EXPECT_EQ(call({"set", "d", "deleted"}), OK);
    EXPECT_EQ(call({"del", "d"}), ":1\r\n");
    EXPECT_EQ(call({"mget", "a"}), "*1\r\n" + bulk("1"));
    EXPECT_EQ(call({"mget", "none"}), "*1\r\n" + NIL);
    EXPECT_EQ(call({"mget", "a", "h", "b", "l", "c", "none", "d", "a"}),
              "*8\r\n" + bulk("1") + NIL + bulk("") + NIL + bulk("") + NIL + NIL + bulk("1"));
}

TEST_F(strings, are_set_together) {
    EXPECT_EQ(call({"mset"}), OK);
    EXPECT_EQ(call({"set", "a", "old"}), OK);
    EXPECT_EQ(call({"mset", "a", "1", "b", "2", "c", ""}), OK);
    expect_value("a", "1");
    expect_value("b", "2");
    expect_value("c", "");
    EXPECT_EQ(call({"mset", "a", "first", "b", "between", "a", "last"}), OK);
    expect_value("a", "last");
    expect_value("b", "between");
    EXPECT_EQ(call({"mset", "a"}), ERROR);
    EXPECT_EQ(call({"mset", "a", "1", "b"}), ERROR);
    expect_value("a", "last");
}

TEST_F(strings, replace_lists_and_hashes_when_set_together) {
    make_list_and_hash();
    EXPECT_EQ(call({"mset", "l", "v", "h", "w"}), OK);
    expect_value("l", "v");
    expect_value("h", "w");
    EXPECT_EQ(call({"type", "h"}), bulk("string"));
}

TEST_F(strings, of_many_keys_are_set_and_read_together) {
    words set = {"mset"};
    words get = {"mget"};
    std::string expected = "*1000\r\n";
    for (int i = 0; i < 1000; i++) {
        set.insert(set.end(), {"k" + std::to_string(i), "v" + std::to_string(i)});
        get.push_back("k" + std::to_string(i));
        expected += bulk("v" + std::to_string(i));
    }
    EXPECT_EQ(call(set), OK);
    EXPECT_TRUE(call(get) == expected);
}

TEST_F(strings, are_set_together_when_all_are_missing_or_not_at_all) {
    EXPECT_EQ(call({"msetnx"}), ":1\r\n");
    EXPECT_EQ(call({"msetnx", "a", "1", "b", "2"}), ":1\r\n");
    expect_value("a", "1");
    expect_value("b", "2");
    EXPECT_EQ(call({"msetnx", "c", "3", "b", "other"}), ":0\r\n");
    EXPECT_EQ(call({"msetnx", "b", "other", "c", "3"}), ":0\r\n");
    EXPECT_EQ(call({"exists", "c"}), ":0\r\n");
    EXPECT_EQ(call({"keys", "c"}), "*0\r\n");
    expect_value("b", "2");
    EXPECT_EQ(call({"msetnx", "c"}), ERROR);
    EXPECT_EQ(call({"msetnx", "c", "1", "d"}), ERROR);
    EXPECT_EQ(call({"exists", "c"}), ":0\r\n");
}

TEST_F(strings, that_are_named_twice_by_msetnx_are_made_once_with_the_last_value) {
    EXPECT_EQ(call({"msetnx", "a", "1", "a", "2"}), ":1\r\n");
    expect_value("a", "2");
    EXPECT_EQ(call({"keys", "a"}), "*1\r\n" + bulk("a"));
}

TEST_F(strings, are_shared_by_all_clients) {
    resp_client other;
    EXPECT_EQ(call({"set", "k", "1"}), OK);
    EXPECT_EQ(other.call({"incr", "k"}), ":2\r\n");
    EXPECT_EQ(call({"get", "k"}), bulk("2"));
    client.close();
    EXPECT_EQ(other.call({"get", "k"}), bulk("2"));
}

TEST_F(string_events, tell_of_each_new_value) {
    EXPECT_EQ(call({"set", "my.a", "v"}), OK);
    expect_event("my.a", "v");
    EXPECT_EQ(call({"set", "my.a", "v"}), OK);
    expect_event("my.a", "v");
    EXPECT_EQ(call({"set", "my.a", ""}), OK);
    expect_event("my.a", "");
    EXPECT_EQ(call({"append", "my.a", "1"}), ":1\r\n");
    expect_event("my.a", "1");
    EXPECT_EQ(call({"append", "my.a", "0"}), ":2\r\n");
    expect_event("my.a", "10");
    EXPECT_EQ(call({"incr", "my.a"}), ":11\r\n");
    expect_event("my.a", "11");
    EXPECT_EQ(call({"decr", "my.a"}), ":10\r\n");
    expect_event("my.a", "10");
    EXPECT_EQ(call({"incrby", "my.a", "5"}), ":15\r\n");
    expect_event("my.a", "15");
    EXPECT_EQ(call({"decrby", "my.a", "5"}), ":10\r\n");
    expect_event("my.a", "10");
    EXPECT_EQ(call({"setex", "my.a", "1000", "w"}), OK);
    expect_event("my.a", "w");
    EXPECT_EQ(call({"getset", "my.a", "x"}), bulk("w"));
    expect_event("my.a", "x");
    EXPECT_EQ(call({"setnx", "my.b", "y"}), ":1\r\n");
    expect_event("my.b", "y");
    EXPECT_EQ(call({"incr", "my.c"}), ":1\r\n");
    expect_event("my.c", "1");
    expect_silence();
}

TEST_F(string_events, do_not_tell_of_what_changed_nothing) {
    EXPECT_EQ(call({"set", "my.a", "abc"}), OK);
    expect_event("my.a", "abc");
    EXPECT_EQ(call({"get", "my.a"}), bulk("abc"));
    EXPECT_EQ(call({"strlen", "my.a"}), ":3\r\n");
    EXPECT_EQ(call({"setnx", "my.a", "x"}), ":0\r\n");
    EXPECT_EQ(call({"msetnx", "my.b", "x", "my.a", "x"}), ":0\r\n");
    EXPECT_EQ(call({"incr", "my.a"}), ERROR);
    EXPECT_EQ(call({"incrby", "my.new", "abc"}), ERROR);
    EXPECT_EQ(call({"setex", "my.other", "abc", "v"}), ERROR);
    EXPECT_EQ(call({"getset", "my.none", "v"}), NIL);
    EXPECT_EQ(call({"expire", "my.a", "1000"}), ":1\r\n");
    EXPECT_EQ(call({"persist", "my.a"}), ":1\r\n");
    EXPECT_EQ(call({"mset"}), OK);
    EXPECT_EQ(call({"msetnx"}), ":1\r\n");
    EXPECT_EQ(call({"del", "my.a"}), ":1\r\n");
    expect_silence();
}

TEST_F(string_events, tell_of_each_of_several_keys_in_the_order_of_the_arguments) {
    EXPECT_EQ(call({"mset", "my.c", "1", "my.a", "2", "my.b", "3"}), OK);
    expect_event("my.c", "1");
    expect_event("my.a", "2");
    expect_event("my.b", "3");
    EXPECT_EQ(call({"msetnx", "my.f", "4", "my.e", "5"}), ":1\r\n");
    expect_event("my.f", "4");
    expect_event("my.e", "5");
    expect_silence();
}

TEST_F(string_events, tell_once_of_a_key_that_is_named_twice_and_of_its_last_value) {
    EXPECT_EQ(call({"mset", "my.a", "1", "my.b", "2", "my.a", "3"}), OK);
    expect_event("my.a", "3");
    expect_event("my.b", "2");
    EXPECT_EQ(call({"msetnx", "my.c", "1", "my.c", "2"}), ":1\r\n");
    expect_event("my.c", "2");
    expect_silence();
}

TEST_F(string_events, go_on_after_keys_were_set_together) {
    EXPECT_EQ(call({"mset", "my.a", "1", "my.a", "2"}), OK);
    expect_event("my.a", "2");
    EXPECT_EQ(call({"set", "my.a", "3"}), OK);
    expect_event("my.a", "3");
    EXPECT_EQ(call({"msetnx", "my.b", "1"}), ":1\r\n");
    expect_event("my.b", "1");
    EXPECT_EQ(call({"incr", "my.b"}), ":2\r\n");
    expect_event("my.b", "2");
    expect_silence();
}

TEST_F(string_events, tell_of_lists_and_hashes_that_became_strings) {
    EXPECT_EQ(call({"rpush", "my.l", "x"}), ":1\r\n");
    EXPECT_EQ(call({"set", "my.l", "v"}), OK);
    expect_event("my.l", "v");
    EXPECT_EQ(call({"rpush", "my.m", "x"}), ":1\r\n");
    EXPECT_EQ(call({"mset", "my.m", "v"}), OK);
    expect_event("my.m", "v");
    EXPECT_EQ(call({"rpush", "my.n", "x"}), ":1\r\n");
    EXPECT_EQ(call({"getset", "my.n", "v"}), NIL);
    expect_event("my.n", "v");
    expect_silence();
}

TEST_F(string_events, never_tell_of_private_keys) {
    EXPECT_EQ(call({"set", "_my.a", "v"}), OK);
    EXPECT_EQ(call({"append", "_my.a", "w"}), ":2\r\n");
    EXPECT_EQ(call({"incr", "_my.n"}), ":1\r\n");
    EXPECT_EQ(call({"mset", "_my.a", "x", "my.b", "y", "_my.", "z"}), OK);
    expect_event("my.b", "y");
    EXPECT_EQ(call({"get", "_my.a"}), bulk("x"));
    expect_silence();
}

TEST_F(string_events, spare_the_client_that_caused_them) {
    for (const words& request :
         {words{"set", "my.a", "v"}, words{"mset", "my.a", "1", "my.b", "2"}}) {
        EXPECT_TRUE(observer->send(request_frame(request)));
        EXPECT_EQ(next_event(), OK);
    }
    EXPECT_TRUE(observer->send(request_frame({"getset", "my.a", "w"})));
    EXPECT_EQ(next_event(), bulk("1"));
    expect_silence();
}

TEST_F(string_events, carry_values_of_any_bytes_and_length) {
    for (const std::string& value : {std::string("a\0b", 3), std::string("!1\r\n$1\r\nx\r\n"),
                                     std::string(1990, 'x'), std::string(30000, 'y')}) {
        EXPECT_EQ(call({"set", "my.a", value}), OK);
        EXPECT_TRUE(next_event() == "!3\r\n" + bulk("MSET") + bulk("my.a") + bulk(value));
    }
    expect_silence();
}
