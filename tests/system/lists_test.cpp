/* The list commands: pushing and popping at both ends, the cap and what it drops, indexes and
 * ranges, and that no number in a request decides how long the daemon works. */

#include <utility>

#include "tests/system/model/frames.h"
#include "tests/system/support/log_text.h"
#include "tests/system/support/values_test.h"

using namespace system_test;

namespace {

typedef std::vector<std::string> words;

class lists : public values_test {
  protected:
    /* All items from head to tail, read without touching the cap. */
    words items_of(const std::string& key) {
        words items;
        for (int i = 0; i < 100; i++) {
            const std::string reply = call({"lindex", key, std::to_string(i)});
            if (reply == "$-1\r\n") {
                break;
            }
            const size_t line = reply.find("\r\n") + 2;
            items.push_back(reply.substr(line, reply.size() - line - 2));
        }
        return items;
    }

    std::string cap_of(const std::string& key) {
        return call({"lmaxlen", key, "0"});
    }

    void expect_others_unchanged() {
        expect_string_unchanged();
        expect_hash_unchanged();
    }
};

class capped_lists : public lists {};
class ranges : public lists {};

class list_costs : public lists {
  protected:
    /* Pushes the numbers from 0 to count - 1 at the tail. */
    void push_numbers(int count) {
        for (int next = 0; next < count && !HasFailure();) {
            words request = {"rpush", "big"};
            for (int i = 0; i < 2500 && next < count; i++) {
                request.push_back(std::to_string(next++));
            }
            EXPECT_EQ(call(request), ":" + std::to_string(next) + "\r\n");
        }
    }

    /* What a request may use: far less than a walk for each item, or to a number of 31 bits, would
     * take. */
    static long most_ms() {
        return sandbox::emulator().empty() && !SANITIZED ? 500 : 5000;
    }

    void expect_cheap(const words& request, const std::string& reply) {
        EXPECT_LT(cost_of(1, request, reply), most_ms()) << request[0] << " " << request[2];
    }
};

class list_traces : public daemon_test {};

} // namespace

TEST_F(lists, lpush_puts_each_value_at_the_head) {
    EXPECT_EQ(call({"lpush", "k", "a", "b", "c"}), ":3\r\n");
    EXPECT_EQ(items_of("k"), (words{"c", "b", "a"}));
    EXPECT_EQ(call({"lpush", "k", "d"}), ":4\r\n");
    EXPECT_EQ(items_of("k"), (words{"d", "c", "b", "a"}));
}

TEST_F(lists, rpush_puts_each_value_at_the_tail) {
    EXPECT_EQ(items_of("l"), (words{"a", "b", "c"}));
    EXPECT_EQ(call({"rpush", "l", "d", "e"}), ":5\r\n");
    EXPECT_EQ(items_of("l"), (words{"a", "b", "c", "d", "e"}));
    EXPECT_EQ(call({"type", "l"}), "$4\r\nlist\r\n");
}

TEST_F(lists, a_push_needs_a_value) {
    for (const char* command : {"lpush", "rpush", "lpushx", "rpushx"}) {
        EXPECT_EQ(call({command}), "-ERR\r\n") << command;
        EXPECT_EQ(call({command, "k"}), "-ERR\r\n") << command;
        EXPECT_EQ(call({command, "l"}), "-ERR\r\n") << command;
    }
    EXPECT_EQ(call({"exists", "k"}), ":0\r\n");
    EXPECT_EQ(items_of("l"), (words{"a", "b", "c"}));
}

TEST_F(lists, an_item_ends_at_its_first_NUL) {
    EXPECT_EQ(call({"rpush", "k", std::string("x\0y", 3), std::string("\0z", 2), ""}), ":3\r\n");
    EXPECT_EQ(items_of("k"), (words{"x", "", ""}));
    EXPECT_EQ(call({"lpushx", "k", std::string("v\0w", 3)}), ":4\r\n");
    EXPECT_EQ(call({"lpop", "k"}), "$1\r\nv\r\n");
}

TEST_F(lists, items_keep_every_other_byte) {
    std::string item;
    for (int byte = 1; byte < 256; byte++) {
        item += static_cast<char>(byte);
    }
    EXPECT_EQ(call({"lpush", "l", item}), ":4\r\n");
    EXPECT_EQ(call({"lindex", "l", "0"}), bulk(item));
    EXPECT_EQ(call({"lpop", "l"}), bulk(item));
}

TEST_F(lists, a_push_onto_another_type_is_an_error_while_nobody_observes) {
    EXPECT_EQ(call({"lpush", "s", "x"}), "-ERR\r\n");
    EXPECT_EQ(call({"rpush", "h", "x"}), "-ERR\r\n");
    expect_others_unchanged();
}

TEST_F(lists, a_push_onto_another_type_is_not_answered_while_anyone_observes) {
    resp_client observer;
    EXPECT_EQ(observer.call({"observe"}), "+OK\r\n");
    for (const char* command : {"lpush", "rpush"}) {
        for (const char* key : {"s", "h"}) {
            EXPECT_TRUE(client.send(request_frame({command, key, "x"})));
            let_it_catch_up(observer);
            EXPECT_EQ(client.during(0), "") << command << " " << key;
        }
    }
    expect_others_unchanged();
    EXPECT_EQ(call({"rpush", "l", "d"}), ":4\r\n");
    EXPECT_EQ(call({"lpush", "new", "d"}), ":1\r\n");
    observer.close();
    let_it_catch_up(client);
    EXPECT_EQ(call({"lpush", "s", "x"}), "-ERR\r\n");
}

TEST_F(lists, the_observer_itself_gets_no_answer_to_a_push_onto_another_type) {
    EXPECT_EQ(call({"observe"}), "+OK\r\n");
    EXPECT_TRUE(client.send(request_frame({"lpush", "s", "x"})));
    resp_client other;
    let_it_catch_up(other);
    EXPECT_EQ(heard(client, 0), "");
    EXPECT_TRUE(client.send(request_frame({"get", "s"})));
    EXPECT_EQ(next_frame(client), "$4\r\ntext\r\n");
}

TEST_F(lists, pushes_and_pops_are_announced_to_nobody) {
    resp_client observer;
    EXPECT_EQ(observer.call({"observe"}), "+OK\r\n");
    call({"lpush", "l", "x"});
    call({"rpushx", "l", "y"});
    call({"lpop", "l"});
    call({"rpop", "l"});
    call({"lmaxlen", "l", "1"});
    call({"lrange", "l", "0", "100"});
    call({"set", "done", "1"});
    EXPECT_EQ(next_frame(observer), event_frame({"MSET", "done", "1"}));
}

TEST_F(lists, lpushx_and_rpushx_push_the_first_value_alone) {
    EXPECT_EQ(call({"rpushx", "l", "d", "e", "f"}), ":4\r\n");
    EXPECT_EQ(call({"lpushx", "l", "z", "y"}), ":5\r\n");
    EXPECT_EQ(items_of("l"), (words{"z", "a", "b", "c", "d"}));
}

TEST_F(lists, lpushx_and_rpushx_push_onto_lists_alone) {
    for (const char* command : {"lpushx", "rpushx"}) {
        for (const char* key : {"missing", "s", "h"}) {
            EXPECT_EQ(call({command, key, "x"}), ":0\r\n") << command << " " << key;
        }
    }
    EXPECT_EQ(call({"exists", "missing"}), ":0\r\n");
    expect_others_unchanged();
}

TEST_F(lists, lpop_and_rpop_take_items_off_the_ends) {
    EXPECT_EQ(call({"lpop", "l"}), "$1\r\na\r\n");
    EXPECT_EQ(call({"rpop", "l"}), "$1\r\nc\r\n");
    EXPECT_EQ(items_of("l"), (words{"b"}));
    EXPECT_EQ(call({"rpop", "l", "ignored"}), "$1\r\nb\r\n");
    EXPECT_EQ(call({"llen", "l"}), ":0\r\n");
}

TEST_F(lists, there_is_nothing_to_pop_but_from_a_list_with_items) {
    call({"lmaxlen", "l", "1"});
    call({"lpop", "l"});
    for (const char* command : {"lpop", "rpop"}) {
        for (const char* key : {"l", "missing", "s", "h"}) {
            EXPECT_EQ(call({command, key}), "$-1\r\n") << command << " " << key;
        }
        EXPECT_EQ(call({command}), "-ERR\r\n") << command;
    }
    EXPECT_EQ(call({"exists", "missing"}), ":0\r\n");
    expect_others_unchanged();
}

TEST_F(lists, an_empty_list_is_still_a_list_and_can_be_filled_at_both_ends) {
    for (int i = 0; i < 3; i++) {
        call({"lpop", "l"});
    }
    EXPECT_EQ(call({"exists", "l"}), ":1\r\n");
    EXPECT_EQ(call({"type", "l"}), "$4\r\nlist\r\n");
    EXPECT_EQ(call({"rpushx", "l", "x"}), ":1\r\n");
    EXPECT_EQ(call({"lpushx", "l", "w"}), ":2\r\n");
    EXPECT_EQ(call({"rpop", "l"}), "$1\r\nx\r\n");
    EXPECT_EQ(call({"rpop", "l"}), "$1\r\nw\r\n");
    EXPECT_EQ(call({"rpop", "l"}), "$-1\r\n");
}

TEST_F(lists, large_items_come_back_whole) {
    const std::string item(30000, 'x');
    EXPECT_EQ(call({"lpush", "l", item}), ":4\r\n");
    EXPECT_EQ(call({"lpush", "l", item + "y"}), ":5\r\n");
    EXPECT_EQ(call({"lpop", "l"}), bulk(item + "y"));
    EXPECT_EQ(call({"lpop", "l"}), bulk(item));
}

TEST_F(lists, llen_counts_items) {
    EXPECT_EQ(call({"llen", "l"}), ":3\r\n");
    EXPECT_EQ(call({"llen", "missing"}), ":0\r\n");
    EXPECT_EQ(call({"llen", "s"}), "-ERR\r\n");
    EXPECT_EQ(call({"llen", "h"}), "-ERR\r\n");
    EXPECT_EQ(call({"llen"}), "-ERR\r\n");
}

TEST_F(lists, lindex_counts_from_either_end) {
    EXPECT_EQ(call({"lindex", "l", "0"}), "$1\r\na\r\n");
    EXPECT_EQ(call({"lindex", "l", "2"}), "$1\r\nc\r\n");
    EXPECT_EQ(call({"lindex", "l", "-1"}), "$1\r\nc\r\n");
    EXPECT_EQ(call({"lindex", "l", "-3"}), "$1\r\na\r\n");
    EXPECT_EQ(call({"lindex", "l", "-0"}), "$1\r\na\r\n");
}

TEST_F(lists, lindex_beyond_either_end_is_nil) {
    for (const char* index :
         {"3", "5", "-4", "2147483647", "-2147483648", "2147483648", "-2147483649", "4294967296",
          "-4294967297", "9223372036854775807", "-99999999999999999999"}) {
        EXPECT_EQ(call({"lindex", "l", index}), "$-1\r\n") << index;
    }
}

TEST_F(lists, lindex_reads_decimal_alone) {
    EXPECT_EQ(call({"lindex", "l", "0x2"}), "$1\r\na\r\n");
    EXPECT_EQ(call({"lindex", "l", "01"}), "$1\r\nb\r\n");
    EXPECT_EQ(call({"lindex", "l", " +2nd"}), "$1\r\nc\r\n");
}

TEST_F(lists, lindex_without_digits_is_the_first_item) {
    EXPECT_EQ(call({"lindex", "l", "abc"}), "$1\r\na\r\n");
    EXPECT_EQ(call({"lindex", "l", ""}), "$1\r\na\r\n");
    EXPECT_EQ(call({"lindex", "l", "-"}), "$1\r\na\r\n");
}

TEST_F(lists, lindex_of_an_empty_list_is_nil_and_without_digits_the_empty_bulk) {
    for (int i = 0; i < 3; i++) {
        call({"lpop", "l"});
    }
    EXPECT_EQ(call({"lindex", "l", "0"}), "$-1\r\n");
    EXPECT_EQ(call({"lindex", "l", "-1"}), "$-1\r\n");
    EXPECT_EQ(call({"lindex", "l", "abc"}), "$0\r\n\r\n");
}

TEST_F(lists, lindex_of_what_is_no_list_is_an_error) {
    for (const char* key : {"missing", "s", "h"}) {
        EXPECT_EQ(call({"lindex", key, "0"}), "-ERR\r\n") << key;
    }
    EXPECT_EQ(call({"lindex", "l"}), "-ERR\r\n");
}

TEST_F(lists, a_deleted_list_comes_back_empty_and_uncapped) {
    EXPECT_EQ(call({"lmaxlen", "l", "2"}), ":2\r\n");
    EXPECT_EQ(call({"del", "l"}), ":1\r\n");
    EXPECT_EQ(call({"llen", "l"}), ":0\r\n");
    EXPECT_EQ(call({"lpop", "l"}), "$-1\r\n");
    EXPECT_EQ(call({"lpushx", "l", "x"}), ":0\r\n");
    EXPECT_EQ(call({"lmaxlen", "l", "5"}), ":0\r\n");
    EXPECT_EQ(call({"rpush", "l", "1", "2", "3"}), ":3\r\n");
    EXPECT_EQ(cap_of("l"), ":65535\r\n");
    EXPECT_EQ(call({"del", "s", "h"}), ":2\r\n");
    EXPECT_EQ(call({"lpush", "s", "x"}), ":1\r\n");
    EXPECT_EQ(call({"rpush", "h", "x"}), ":1\r\n");
}

TEST_F(capped_lists, a_new_list_may_hold_65535_items) {
    EXPECT_EQ(cap_of("l"), ":65535\r\n");
    EXPECT_EQ(call({"lpush", "k", "x"}), ":1\r\n");
    EXPECT_EQ(cap_of("k"), ":65535\r\n");
}

TEST_F(capped_lists, lmaxlen_removes_from_the_tail) {
    EXPECT_EQ(call({"rpush", "l", "d", "e"}), ":5\r\n");
    EXPECT_EQ(call({"lmaxlen", "l", "3"}), ":3\r\n");
    EXPECT_EQ(items_of("l"), (words{"a", "b", "c"}));
    EXPECT_EQ(call({"lmaxlen", "l", "1"}), ":1\r\n");
    EXPECT_EQ(items_of("l"), (words{"a"}));
    EXPECT_EQ(call({"rpop", "l"}), "$1\r\na\r\n");
}

TEST_F(capped_lists, lmaxlen_of_the_length_or_more_removes_nothing) {
    EXPECT_EQ(call({"lmaxlen", "l", "3"}), ":3\r\n");
    EXPECT_EQ(call({"lmaxlen", "l", "4"}), ":4\r\n");
    EXPECT_EQ(call({"lmaxlen", "l", "65535"}), ":65535\r\n");
    EXPECT_EQ(items_of("l"), (words{"a", "b", "c"}));
}

TEST_F(capped_lists, lmaxlen_reads_hexadecimal_and_octal) {
    EXPECT_EQ(call({"lmaxlen", "l", "0x10"}), ":16\r\n");
    EXPECT_EQ(call({"lmaxlen", "l", "010"}), ":8\r\n");
    EXPECT_EQ(call({"lmaxlen", "l", " 7 items"}), ":7\r\n");
}

TEST_F(capped_lists, lmaxlen_of_less_than_1_or_of_no_number_tells_the_cap) {
    EXPECT_EQ(call({"lmaxlen", "l", "10"}), ":10\r\n");
    for (const char* n : {"0", "-1", "-5", "abc", "", "-99999999999999999999", "-2147483648"}) {
        EXPECT_EQ(call({"lmaxlen", "l", n}), ":10\r\n") << n;
    }
    EXPECT_EQ(items_of("l"), (words{"a", "b", "c"}));
}

TEST_F(capped_lists, lmaxlen_of_a_missing_key_is_0_and_of_another_type_an_error) {
    EXPECT_EQ(call({"lmaxlen", "missing", "5"}), ":0\r\n");
    EXPECT_EQ(call({"exists", "missing"}), ":0\r\n");
    EXPECT_EQ(call({"lmaxlen", "s", "5"}), "-ERR\r\n");
    EXPECT_EQ(call({"lmaxlen", "h", "5"}), "-ERR\r\n");
    EXPECT_EQ(call({"lmaxlen", "l"}), "-ERR\r\n");
}

TEST_F(capped_lists, a_push_onto_a_full_list_drops_the_item_at_the_far_end) {
    EXPECT_EQ(call({"lmaxlen", "l", "3"}), ":3\r\n");
    EXPECT_EQ(call({"lpush", "l", "d"}), ":3\r\n");
    EXPECT_EQ(items_of("l"), (words{"d", "a", "b"}));
    EXPECT_EQ(call({"rpush", "l", "e"}), ":3\r\n");
    EXPECT_EQ(items_of("l"), (words{"a", "b", "e"}));
    EXPECT_EQ(call({"lpushx", "l", "f"}), ":3\r\n");
    EXPECT_EQ(items_of("l"), (words{"f", "a", "b"}));
    EXPECT_EQ(call({"rpushx", "l", "g"}), ":3\r\n");
    EXPECT_EQ(items_of("l"), (words{"a", "b", "g"}));
    /* Both ends of the chain are whole. */
    EXPECT_EQ(call({"rpop", "l"}), "$1\r\ng\r\n");
    EXPECT_EQ(call({"lpop", "l"}), "$1\r\na\r\n");
    EXPECT_EQ(call({"lpop", "l"}), "$1\r\nb\r\n");
    EXPECT_EQ(call({"lpop", "l"}), "$-1\r\n");
}

TEST_F(capped_lists, one_push_may_fill_the_list_many_times_over) {
    EXPECT_EQ(call({"lmaxlen", "l", "3"}), ":3\r\n");
    EXPECT_EQ(call({"rpush", "l", "1", "2", "3", "4", "5", "6", "7"}), ":3\r\n");
    EXPECT_EQ(items_of("l"), (words{"5", "6", "7"}));
    EXPECT_EQ(call({"lpush", "l", "1", "2", "3", "4", "5"}), ":3\r\n");
    EXPECT_EQ(items_of("l"), (words{"5", "4", "3"}));
}

TEST_F(capped_lists, a_cap_of_1_keeps_the_newest_item) {
    EXPECT_EQ(call({"lmaxlen", "l", "1"}), ":1\r\n");
    EXPECT_EQ(call({"lpush", "l", "x"}), ":1\r\n");
    EXPECT_EQ(items_of("l"), (words{"x"}));
    EXPECT_EQ(call({"rpush", "l", "y", "z"}), ":1\r\n");
    EXPECT_EQ(items_of("l"), (words{"z"}));
    EXPECT_EQ(call({"rpop", "l"}), "$1\r\nz\r\n");
    EXPECT_EQ(call({"lpush", "l", "w"}), ":1\r\n");
    EXPECT_EQ(call({"lpop", "l"}), "$1\r\nw\r\n");
}

TEST_F(capped_lists, a_cap_of_2_drops_at_the_far_end) {
    EXPECT_EQ(call({"lmaxlen", "l", "2"}), ":2\r\n");
    EXPECT_EQ(call({"lpush", "l", "x"}), ":2\r\n");
    EXPECT_EQ(items_of("l"), (words{"x", "a"}));
    EXPECT_EQ(call({"rpush", "l", "y"}), ":2\r\n");
    EXPECT_EQ(items_of("l"), (words{"a", "y"}));
}

TEST_F(capped_lists, the_cap_is_kept_in_16_bits) {
    EXPECT_EQ(call({"lmaxlen", "l", "65536"}), ":0\r\n");
    EXPECT_EQ(call({"lmaxlen", "l", "65537"}), ":1\r\n");
    EXPECT_EQ(call({"lmaxlen", "l", "2147483647"}), ":65535\r\n");
    EXPECT_EQ(call({"lmaxlen", "l", "99999999999999999999"}), ":65535\r\n");
    EXPECT_EQ(call({"lmaxlen", "l", "4294967297"}), ":65535\r\n");
    EXPECT_EQ(call({"lmaxlen", "l", "131074"}), ":2\r\n");
    /* The number itself was never below the length. */
    EXPECT_EQ(items_of("l"), (words{"a", "b", "c"}));
}

TEST_F(capped_lists, a_list_above_its_cap_keeps_its_length) {
    EXPECT_EQ(call({"lmaxlen", "l", "65537"}), ":1\r\n");
    EXPECT_EQ(call({"lpush", "l", "x"}), ":3\r\n");
    EXPECT_EQ(items_of("l"), (words{"x", "a", "b"}));
    EXPECT_EQ(call({"rpush", "l", "y", "z"}), ":3\r\n");
    EXPECT_EQ(items_of("l"), (words{"b", "y", "z"}));
    EXPECT_EQ(call({"lmaxlen", "l", "2"}), ":2\r\n");
    EXPECT_EQ(items_of("l"), (words{"b", "y"}));
}

TEST_F(capped_lists, a_cap_of_0_drops_what_is_pushed_onto_the_empty_list) {
    EXPECT_EQ(call({"lmaxlen", "l", "65536"}), ":0\r\n");
    EXPECT_EQ(call({"lpush", "l", "x"}), ":3\r\n");
    EXPECT_EQ(items_of("l"), (words{"x", "a", "b"}));
    for (int i = 0; i < 3; i++) {
        call({"lpop", "l"});
    }
    EXPECT_EQ(call({"lpush", "l", "x", "y"}), ":0\r\n");
    EXPECT_EQ(call({"rpush", "l", "x"}), ":0\r\n");
    EXPECT_EQ(call({"rpushx", "l", "x"}), ":0\r\n");
    EXPECT_EQ(call({"lpop", "l"}), "$-1\r\n");
    EXPECT_EQ(call({"lmaxlen", "l", "1"}), ":1\r\n");
    EXPECT_EQ(call({"lpushx", "l", "x"}), ":1\r\n");
}

TEST_F(ranges, from_the_head_to_the_tail) {
    EXPECT_EQ(call({"lrange", "l", "0", "2"}), list_frame({"a", "b", "c"}));
    EXPECT_EQ(call({"lrange", "l", "1", "2"}), list_frame({"b", "c"}));
    EXPECT_EQ(call({"lrange", "l", "0", "0"}), list_frame({"a"}));
    EXPECT_EQ(call({"lrange", "l", "2", "2"}), list_frame({"c"}));
    EXPECT_EQ(call({"lrange", "l", "0", "100"}), list_frame({"a", "b", "c"}));
    EXPECT_EQ(call({"lrange", "l", "1", "65534"}), list_frame({"b", "c"}));
}

TEST_F(ranges, negative_ones_walk_from_the_tail_to_the_head) {
    EXPECT_EQ(call({"lrange", "l", "-1", "-2"}), list_frame({"c", "b"}));
    EXPECT_EQ(call({"lrange", "l", "-1", "-3"}), list_frame({"c", "b", "a"}));
    EXPECT_EQ(call({"lrange", "l", "-2", "-2"}), list_frame({"b"}));
    EXPECT_EQ(call({"lrange", "l", "-2", "-100"}), list_frame({"b", "a"}));
    EXPECT_EQ(call({"lrange", "l", "-1", "-2147483648"}), list_frame({"c", "b", "a"}));
    EXPECT_EQ(call({"lrange", "l", "-1", "-99999999999999999999"}), list_frame({"c", "b", "a"}));
}

TEST_F(ranges, that_go_backwards_are_nil) {
    EXPECT_EQ(call({"lrange", "l", "2", "1"}), "$-1\r\n");
    EXPECT_EQ(call({"lrange", "l", "-2", "-1"}), "$-1\r\n");
    EXPECT_EQ(call({"lrange", "l", "-3", "-1"}), "$-1\r\n");
    EXPECT_EQ(call({"lrange", "l", "-2147483648", "-1"}), "$-1\r\n");
}

TEST_F(ranges, of_mixed_signs_are_nil) {
    EXPECT_EQ(call({"lrange", "l", "0", "-1"}), "$-1\r\n");
    EXPECT_EQ(call({"lrange", "l", "-1", "0"}), "$-1\r\n");
    EXPECT_EQ(call({"lrange", "l", "-1", "2"}), "$-1\r\n");
    EXPECT_EQ(call({"lrange", "l", "2", "-2147483648"}), "$-1\r\n");
}

/* The stop is cut to the last item before it is compared with the start. */
TEST_F(ranges, that_start_behind_the_tail_are_nil) {
    EXPECT_EQ(call({"lrange", "l", "3", "3"}), "$-1\r\n");
    EXPECT_EQ(call({"lrange", "l", "3", "10"}), "$-1\r\n");
}

TEST_F(ranges, that_start_before_the_head_are_empty) {
    EXPECT_EQ(call({"lrange", "l", "-4", "-4"}), "*0\r\n");
    EXPECT_EQ(call({"lrange", "l", "-4", "-10"}), "*0\r\n");
    EXPECT_EQ(call({"lrange", "l", "-2147483648", "-2147483648"}), "*0\r\n");
}

TEST_F(ranges, that_start_beyond_the_cap_are_nil) {
    EXPECT_EQ(call({"lmaxlen", "l", "10"}), ":10\r\n");
    EXPECT_EQ(call({"lrange", "l", "10", "100"}), "$-1\r\n");
    EXPECT_EQ(call({"lrange", "l", "2147483647", "2147483647"}), "$-1\r\n");
    EXPECT_EQ(call({"lrange", "l", "10", "no number"}), "$-1\r\n");
    EXPECT_EQ(cap_of("l"), ":10\r\n");
}

TEST_F(ranges, that_reach_beyond_the_cap_raise_it) {
    EXPECT_EQ(call({"lmaxlen", "l", "10"}), ":10\r\n");
    EXPECT_EQ(call({"lrange", "l", "0", "9"}), list_frame({"a", "b", "c"}));
    EXPECT_EQ(cap_of("l"), ":10\r\n");
    EXPECT_EQ(call({"lrange", "l", "0", "10"}), list_frame({"a", "b", "c"}));
    EXPECT_EQ(cap_of("l"), ":10\r\n");
    EXPECT_EQ(call({"lrange", "l", "0", "100"}), list_frame({"a", "b", "c"}));
    EXPECT_EQ(cap_of("l"), ":100\r\n");
}

TEST_F(ranges, raise_the_cap_even_when_they_are_nil_or_empty) {
    call({"lmaxlen", "l", "10"});
    EXPECT_EQ(call({"lrange", "l", "-1", "20"}), "$-1\r\n");
    EXPECT_EQ(cap_of("l"), ":20\r\n");
    /* Behind a raised cap the stop is not cut to the last item, so the range only finds nothing. */
    EXPECT_EQ(call({"lrange", "l", "5", "30"}), "*0\r\n");
    EXPECT_EQ(cap_of("l"), ":30\r\n");
}

TEST_F(ranges, raise_the_cap_in_16_bits) {
    EXPECT_EQ(call({"lrange", "l", "0", "65535"}), list_frame({"a", "b", "c"}));
    EXPECT_EQ(cap_of("l"), ":65535\r\n");
    EXPECT_EQ(call({"lrange", "l", "0", "65537"}), list_frame({"a", "b", "c"}));
    EXPECT_EQ(cap_of("l"), ":1\r\n");
    EXPECT_EQ(call({"lrange", "l", "0", "65536"}), list_frame({"a", "b", "c"}));
    EXPECT_EQ(cap_of("l"), ":0\r\n");
    /* No start is below a cap of 0. */
    EXPECT_EQ(call({"lrange", "l", "0", "5"}), "$-1\r\n");
    EXPECT_EQ(call({"lrange", "l", "start", "5"}), list_frame({"a", "b", "c"}));
    EXPECT_EQ(cap_of("l"), ":5\r\n");
}

TEST_F(ranges, of_a_list_above_its_cap_reach_all_items) {
    EXPECT_EQ(call({"lmaxlen", "l", "65537"}), ":1\r\n");
    EXPECT_EQ(call({"lrange", "l", "0", "0"}), list_frame({"a"}));
    EXPECT_EQ(call({"lrange", "l", "-1", "-3"}), list_frame({"c", "b", "a"}));
    EXPECT_EQ(call({"lrange", "l", "0", "1"}), list_frame({"a", "b"}));
    EXPECT_EQ(cap_of("l"), ":1\r\n");
}

TEST_F(ranges, of_an_empty_list) {
    for (int i = 0; i < 3; i++) {
        call({"lpop", "l"});
    }
    /* The stop is cut to -1: one before the first item. */
    EXPECT_EQ(call({"lrange", "l", "0", "0"}), "$-1\r\n");
    EXPECT_EQ(call({"lrange", "l", "0", "100"}), "$-1\r\n");
    EXPECT_EQ(call({"lrange", "l", "-1", "-1"}), "*0\r\n");
    EXPECT_EQ(call({"lrange", "l", "-1", "5"}), "*0\r\n");
    EXPECT_EQ(call({"lrange", "l", "0", "65535"}), "*0\r\n");
}

TEST_F(ranges, read_the_start_in_any_base_and_the_stop_in_decimal) {
    EXPECT_EQ(call({"lrange", "l", "0x1", "2"}), list_frame({"b", "c"}));
    EXPECT_EQ(call({"lrange", "l", "02", "02"}), list_frame({"c"}));
    EXPECT_EQ(call({"lrange", "l", "0", "0x2"}), list_frame({"a"}));
    EXPECT_EQ(call({"lrange", "l", "0", "1 or so"}), list_frame({"a", "b"}));
    call({"rpush", "l", "d", "e", "f", "g", "h", "i", "j"});
    EXPECT_EQ(call({"lrange", "l", "010", "010"}), list_frame({"i", "j"}));
}

TEST_F(ranges, without_digits_in_the_start_begin_at_the_head) {
    EXPECT_EQ(call({"lrange", "l", "abc", "1"}), list_frame({"a", "b"}));
    EXPECT_EQ(call({"lrange", "l", "", "1"}), list_frame({"a", "b"}));
}

TEST_F(ranges, without_digits_in_the_stop_are_errors) {
    EXPECT_EQ(call({"lrange", "l", "0", "abc"}), "-ERR\r\n");
    EXPECT_EQ(call({"lrange", "l", "0", ""}), "-ERR\r\n");
    EXPECT_EQ(call({"lrange", "l", "abc", "abc"}), "-ERR\r\n");
}

TEST_F(ranges, of_what_is_no_list_are_errors) {
    for (const char* key : {"missing", "s", "h"}) {
        EXPECT_EQ(call({"lrange", key, "0", "1"}), "-ERR\r\n") << key;
    }
    EXPECT_EQ(call({"lrange", "l", "0"}), "-ERR\r\n");
    EXPECT_EQ(call({"exists", "missing"}), ":0\r\n");
}

TEST_F(list_costs, a_list_takes_65535_items_and_no_more) {
    push_numbers(65535);
    EXPECT_EQ(call({"rpush", "big", "last"}), ":65535\r\n");
    EXPECT_EQ(call({"lindex", "big", "0"}), "$1\r\n1\r\n");
    EXPECT_EQ(call({"lindex", "big", "-1"}), "$4\r\nlast\r\n");
    EXPECT_EQ(call({"lpush", "big", "first"}), ":65535\r\n");
    EXPECT_EQ(call({"lindex", "big", "-1"}), "$5\r\n65534\r\n");
    EXPECT_EQ(call({"lindex", "big", "-65535"}), "$5\r\nfirst\r\n");
    EXPECT_EQ(call({"lindex", "big", "-65536"}), "$-1\r\n");
    EXPECT_EQ(call({"lindex", "big", "65534"}), "$5\r\n65534\r\n");
    EXPECT_EQ(call({"lindex", "big", "65535"}), "$-1\r\n");
    EXPECT_EQ(call({"lmaxlen", "big", "2"}), ":2\r\n");
    EXPECT_EQ(call({"lrange", "big", "0", "1"}), list_frame({"first", "1"}));
}

TEST_F(list_costs, a_range_walks_a_long_list_once) {
    constexpr int COUNT = 60000;
    push_numbers(COUNT);
    std::vector<std::optional<std::string>> up;
    std::vector<std::optional<std::string>> down;
    for (int i = 0; i < COUNT; i++) {
        up.push_back(std::to_string(i));
        down.push_back(std::to_string(COUNT - 1 - i));
    }
    expect_cheap({"lrange", "big", "0", "59999"}, list_frame(up));
    expect_cheap({"lrange", "big", "-1", "-60000"}, list_frame(down));
    expect_cheap({"lrange", "big", "-1", "-2147483648"}, list_frame(down));
    expect_cheap({"lrange", "big", "0", "2147483647"}, list_frame(up));
}

TEST_F(list_costs, an_item_near_either_end_is_found_from_there) {
    push_numbers(60000);
    const int times = sandbox::emulator().empty() ? 5000 : 500;
    const long in_short_list = cost_of(times, {"lindex", "l", "0"}, "$1\r\na\r\n");
    /* A walk from the other end for each request would take about a second. */
    for (const auto& [index, item] :
         {std::pair("9", "9"), {"-60000", "0"}, {"-1", "59999"}, {"59990", "59990"}}) {
        EXPECT_LT(cost_of(times, {"lindex", "big", index}, bulk(item)), 3 * in_short_list + 100)
            << index;
    }
}

TEST_F(list_costs, what_lies_beyond_a_long_list_costs_nothing) {
    push_numbers(60000);
    const long before = daemon->cpu_ms();
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(call({"lindex", "big", "2147483647"}), "$-1\r\n");
        EXPECT_EQ(call({"lindex", "big", "-2147483648"}), "$-1\r\n");
        EXPECT_EQ(call({"lrange", "big", "60000", "65534"}), "$-1\r\n");
        EXPECT_EQ(call({"lrange", "big", "-2147483648", "-2147483648"}), "*0\r\n");
    }
    EXPECT_LT(daemon->cpu_ms() - before, most_ms());
}

TEST_F(list_costs, what_lies_far_beyond_a_short_list_costs_nothing) {
    expect_cheap({"lrange", "l", "0", "2147483647"}, list_frame({"a", "b", "c"}));
    expect_cheap({"lrange", "l", "1", "99999999999999999999"}, list_frame({"b", "c"}));
    expect_cheap({"lrange", "l", "-1", "-2147483648"}, list_frame({"c", "b", "a"}));
    expect_cheap({"lrange", "l", "-2147483647", "-2147483648"}, "*0\r\n");
    expect_cheap({"lindex", "l", "-2147483648"}, "$-1\r\n");
}

TEST_F(list_costs, cutting_a_long_list_takes_one_walk) {
    push_numbers(60000);
    const long before = daemon->cpu_ms();
    EXPECT_EQ(call({"lmaxlen", "big", "1"}), ":1\r\n");
    EXPECT_EQ(call({"llen", "big"}), ":1\r\n");
    EXPECT_EQ(call({"lpop", "big"}), "$1\r\n0\r\n");
    EXPECT_LT(daemon->cpu_ms() - before, most_ms());
}

TEST_F(list_traces, pushes_show_the_new_end_and_pops_what_was_taken) {
    const process& daemon = start({"-l", "debug", "-f", "stdout"});
    resp_client client;
    client.call({"lpush", "k", "a", "b"});
    client.call({"rpush", "k", "c"});
    client.call({"lmaxlen", "k", "1"});
    client.call({"rpushx", "k", "d", "e"});
    client.call({"lpushx", "k", "f"});
    client.call({"lpop", "k"});
    client.call({"rpop", "k"});
    client.call({"rpush", "k", "g"});
    client.call({"rpop", "k"});
    words found;
    EXPECT_TRUE(eventually([&] {
        found = log_messages(daemon.out(), {"\"k\"(list)", "[POP]"});
        return found.size() >= 10;
    }));
    EXPECT_EQ(found, (words{"\"k\"(list): lpush to \"a\"", "\"k\"(list): lpush to \"b\"",
                            "\"k\"(list): rpush to \"c\"", "\"k\"(list): rpush to \"d\"",
                            "\"k\"(list): lpush to \"f\"", "\"k\"(list): lpop \"f\"",
                            "[POP]  destrog (f)", "\"k\"(list): rpush to \"g\"",
                            "\"k\"(list): rpop \"g\"", "[POP]  destrog (g)"}));
}

TEST_F(list_traces, ranges_show_their_numbers_as_they_were_read) {
    const process& daemon = start({"-l", "debug", "-f", "stdout"});
    resp_client client;
    client.call({"rpush", "k", "a", "b"});
    client.call({"lrange", "k", "0x1", "5"});
    client.call({"lrange", "k", "-1", "-99999999999"});
    client.call({"lrange", "k", "start", "stop"});
    client.call({"lrange", "k", "65535", "1"});
    client.call({"lrange", "missing", "7", "7"});
    client.call({"lrange", "k", "0", "99999999999"});
    words found;
    EXPECT_TRUE(eventually([&] {
        found = log_messages(daemon.out(), {"start with ("});
        return found.size() >= 4;
    }));
    EXPECT_EQ(
        found,
        (words{"start with (1) and stop with (5).", "start with (-1) and stop with (-2147483648).",
               "start with (0) and stop with (0).", "start with (0) and stop with (2147483647)."}));
}
