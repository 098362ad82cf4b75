/* The hash commands, and the order in which the fields of a hash are shown. */

#include <signal.h>

#include <algorithm>

#include "tests/system/model/frames.h"
#include "tests/system/model/growing_table.h"
#include "tests/system/support/log_text.h"
#include "tests/system/support/values_test.h"

using namespace system_test;

namespace {

typedef std::vector<std::string> words;

class hashes : public values_test {
  protected:
    void expect_others_unchanged() {
        expect_string_unchanged();
        expect_list_unchanged();
    }

    /* Makes k a hash of the fields f0, f1 and so on, each of value v. */
    void make_large_hash(int count) {
        for (int next = 0; next < count && !HasFailure();) {
            words request = {"hmset", "k"};
            for (int i = 0; i < 1500 && next < count; i++) {
                request.push_back("f" + std::to_string(next++));
                request.push_back("v");
            }
            /* In one delivery: below 32 kB the kernel hands a write on in one piece. */
            ASSERT_LT(request_frame(request).size(), 32000U);
            EXPECT_EQ(call(request), "+OK\r\n");
        }
    }
};

class fields_in_order : public hashes {
  protected:
    /* Sets the fields one after the other, each with its own name as its value. */
    void set_fields(const words& names) {
        for (const std::string& name : names) {
            EXPECT_EQ(call({"hset", "k", name, name}), ":1\r\n");
        }
    }

    void expect_order(const words& names) {
        EXPECT_EQ(elements_of(call({"hkeys", "k"})), names);
        EXPECT_EQ(elements_of(call({"hvals", "k"})), names);
        words both;
        for (const std::string& name : names) {
            both.insert(both.end(), 2, name);
        }
        EXPECT_EQ(elements_of(call({"hgetall", "k"})), both);
    }

    static words order_of(growing_table<int>& table) {
        words names;
        for (const growing_table<int>::entry* e : table.walk()) {
            names.push_back(e->name);
        }
        return names;
    }
};

class hash_traces : public daemon_test {
  protected:
    /* The messages about h, once the one is there that is the last. */
    static words messages(const process& daemon, const std::string& last) {
        words found;
        eventually([&] {
            found = log_messages(daemon.out(), {"\"h\"(hash)"});
            return !found.empty() && found.back() == last;
        });
        return found;
    }
};

} // namespace

TEST_F(hashes, hlen_counts_fields) {
    EXPECT_EQ(call({"hlen", "h"}), ":1\r\n");
    call({"hmset", "h", "a", "1", "b", "2"});
    EXPECT_EQ(call({"hlen", "h"}), ":3\r\n");
    call({"hdel", "h", "a"});
    EXPECT_EQ(call({"hlen", "h"}), ":2\r\n");
}

TEST_F(hashes, hlen_of_what_is_no_hash_is_0) {
    EXPECT_EQ(call({"hlen", "missing"}), ":0\r\n");
    EXPECT_EQ(call({"hlen", "s"}), ":0\r\n");
    EXPECT_EQ(call({"hlen", "l"}), ":0\r\n");
}

TEST_F(hashes, hexists_finds_fields_of_hashes_alone) {
    EXPECT_EQ(call({"hexists", "h", "f"}), ":1\r\n");
    EXPECT_EQ(call({"hexists", "h", "g"}), ":0\r\n");
    EXPECT_EQ(call({"hexists", "h", ""}), ":0\r\n");
    EXPECT_EQ(call({"hexists", "missing", "f"}), ":0\r\n");
    EXPECT_EQ(call({"hexists", "s", "text"}), ":0\r\n");
    EXPECT_EQ(call({"hexists", "l", "item"}), ":0\r\n");
}

TEST_F(hashes, hget_shows_a_value_or_nil) {
    EXPECT_EQ(call({"hget", "h", "f"}), "$1\r\nv\r\n");
    EXPECT_EQ(call({"hget", "h", "g"}), "$-1\r\n");
    EXPECT_EQ(call({"hget", "missing", "f"}), "$-1\r\n");
    EXPECT_EQ(call({"hget", "s", "f"}), "$-1\r\n");
    EXPECT_EQ(call({"hget", "l", "f"}), "$-1\r\n");
}

TEST_F(hashes, hmget_shows_one_value_for_each_argument) {
    call({"hset", "h", "g", "w"});
    EXPECT_EQ(call({"hmget", "h", "g"}), "*1\r\n$1\r\nw\r\n");
    EXPECT_EQ(call({"hmget", "h", "g", "none", "f", "g"}),
              "*4\r\n$1\r\nw\r\n$-1\r\n$1\r\nv\r\n$1\r\nw\r\n");
}

TEST_F(hashes, hmget_of_what_is_no_hash_is_all_nils) {
    EXPECT_EQ(call({"hmget", "missing", "f", "g"}), "*2\r\n$-1\r\n$-1\r\n");
    EXPECT_EQ(call({"hmget", "s", "f"}), "*1\r\n$-1\r\n");
    EXPECT_EQ(call({"hmget", "l", "f", "g", "h"}), "*3\r\n$-1\r\n$-1\r\n$-1\r\n");
}

TEST_F(hashes, hkeys_hvals_and_hgetall_show_names_values_or_both) {
    EXPECT_EQ(call({"hkeys", "h"}), "*1\r\n$1\r\nf\r\n");
    EXPECT_EQ(call({"hvals", "h"}), "*1\r\n$1\r\nv\r\n");
    EXPECT_EQ(call({"hgetall", "h"}), "*2\r\n$1\r\nf\r\n$1\r\nv\r\n");
}

TEST_F(hashes, a_walk_over_what_is_no_hash_shows_an_empty_array) {
    for (const char* command : {"hkeys", "hvals", "hgetall"}) {
        for (const char* key : {"missing", "s", "l"}) {
            EXPECT_EQ(call({command, key}), "*0\r\n") << command << " " << key;
        }
    }
    EXPECT_EQ(call({"exists", "missing"}), ":0\r\n");
}

TEST_F(hashes, an_empty_field_name_and_an_empty_value_are_like_any_other) {
    EXPECT_EQ(call({"hset", "h", "", ""}), ":1\r\n");
    EXPECT_EQ(call({"hget", "h", ""}), "$0\r\n\r\n");
    EXPECT_EQ(call({"hexists", "h", ""}), ":1\r\n");
    EXPECT_EQ(call({"hmget", "h", ""}), "*1\r\n$0\r\n\r\n");
    /* The empty name hashes to bucket 0, f to bucket 3. */
    EXPECT_EQ(call({"hgetall", "h"}), "*4\r\n$0\r\n\r\n$0\r\n\r\n$1\r\nf\r\n$1\r\nv\r\n");
    EXPECT_EQ(call({"hdel", "h", ""}), ":1\r\n");
    EXPECT_EQ(call({"hlen", "h"}), ":1\r\n");
}

TEST_F(hashes, values_keep_every_byte) {
    std::string value;
    for (int byte = 0; byte < 256; byte++) {
        value += static_cast<char>(byte);
    }
    EXPECT_EQ(call({"hset", "h", "bytes", value}), ":1\r\n");
    EXPECT_EQ(call({"hget", "h", "bytes"}), bulk(value));
}

TEST_F(hashes, a_field_is_found_by_the_bytes_before_its_first_NUL) {
    const std::string long_name("a\0b", 3);
    EXPECT_EQ(call({"hset", "k", long_name, "1"}), ":1\r\n");
    EXPECT_EQ(call({"hget", "k", "a"}), "$1\r\n1\r\n");
    EXPECT_EQ(call({"hset", "k", "a", "2"}), ":0\r\n");
    EXPECT_EQ(call({"hget", "k", std::string("a\0c", 3)}), "$1\r\n2\r\n");
    EXPECT_EQ(call({"hkeys", "k"}), "*1\r\n" + bulk(long_name));
    EXPECT_EQ(call({"hdel", "k", "a"}), ":1\r\n");
    EXPECT_EQ(call({"hlen", "k"}), ":0\r\n");
}

TEST_F(hashes, a_large_field_and_value_are_kept_whole) {
    const std::string name(5000, 'n');
    const std::string value(25000, 'v');
    EXPECT_EQ(call({"hset", "h", name, value}), ":1\r\n");
    EXPECT_EQ(call({"hget", "h", name}), bulk(value));
    EXPECT_EQ(call({"hget", "h", name + "n"}), "$-1\r\n");
}

TEST_F(hashes, hset_tells_whether_the_field_is_new) {
    EXPECT_EQ(call({"hset", "h", "g", "1"}), ":1\r\n");
    EXPECT_EQ(call({"hset", "h", "g", "2"}), ":0\r\n");
    EXPECT_EQ(call({"hset", "h", "g", "2"}), ":0\r\n");
    EXPECT_EQ(call({"hget", "h", "g"}), "$1\r\n2\r\n");
}

TEST_F(hashes, hset_makes_the_hash) {
    EXPECT_EQ(call({"hset", "new", "f", "1"}), ":1\r\n");
    EXPECT_EQ(call({"type", "new"}), "$4\r\nhash\r\n");
    EXPECT_EQ(call({"hgetall", "new"}), "*2\r\n$1\r\nf\r\n$1\r\n1\r\n");
}

TEST_F(hashes, hset_looks_at_its_first_three_arguments_alone) {
    EXPECT_EQ(call({"hset", "h", "g", "1", "i", "2"}), ":1\r\n");
    EXPECT_EQ(call({"hlen", "h"}), ":2\r\n");
    EXPECT_EQ(call({"hexists", "h", "i"}), ":0\r\n");
}

TEST_F(hashes, hset_refuses_strings_and_lists) {
    EXPECT_EQ(call({"hset", "s", "f", "1"}), "-ERR\r\n");
    EXPECT_EQ(call({"hset", "l", "f", "1"}), "-ERR\r\n");
    expect_others_unchanged();
}

TEST_F(hashes, hsetnx_sets_new_fields_alone) {
    EXPECT_EQ(call({"hsetnx", "h", "f", "other"}), ":0\r\n");
    EXPECT_EQ(call({"hget", "h", "f"}), "$1\r\nv\r\n");
    EXPECT_EQ(call({"hsetnx", "h", "g", "1"}), ":1\r\n");
    EXPECT_EQ(call({"hget", "h", "g"}), "$1\r\n1\r\n");
    EXPECT_EQ(call({"hsetnx", "new", "f", "1"}), ":1\r\n");
    EXPECT_EQ(call({"hgetall", "new"}), "*2\r\n$1\r\nf\r\n$1\r\n1\r\n");
}

TEST_F(hashes, hsetnx_refuses_strings_and_lists) {
    EXPECT_EQ(call({"hsetnx", "s", "f", "1"}), "-ERR\r\n");
    EXPECT_EQ(call({"hsetnx", "l", "f", "1"}), "-ERR\r\n");
    expect_others_unchanged();
}

TEST_F(hashes, hincrby_adds_to_a_number) {
    call({"hset", "h", "n", "5"});
    EXPECT_EQ(call({"hincrby", "h", "n", "3"}), ":8\r\n");
    EXPECT_EQ(call({"hincrby", "h", "n", "-10"}), ":-2\r\n");
    EXPECT_EQ(call({"hget", "h", "n"}), "$2\r\n-2\r\n");
}

TEST_F(hashes, hincrby_makes_hash_and_field) {
    EXPECT_EQ(call({"hincrby", "new", "n", "7"}), ":7\r\n");
    EXPECT_EQ(call({"hgetall", "new"}), "*2\r\n$1\r\nn\r\n$1\r\n7\r\n");
    EXPECT_EQ(call({"hincrby", "h", "n", "-7"}), ":-7\r\n");
    EXPECT_EQ(call({"hget", "h", "n"}), "$2\r\n-7\r\n");
}

TEST_F(hashes, hincrby_reads_hexadecimal_and_octal) {
    EXPECT_EQ(call({"hincrby", "h", "x", "0x0A"}), ":10\r\n");
    EXPECT_EQ(call({"hincrby", "h", "x", "010"}), ":18\r\n");
    call({"hset", "h", "y", "0x10"});
    EXPECT_EQ(call({"hincrby", "h", "y", "1"}), ":17\r\n");
    call({"hset", "h", "z", "012 apples"});
    EXPECT_EQ(call({"hincrby", "h", "z", " +2pears"}), ":12\r\n");
}

TEST_F(hashes, hincrby_by_what_is_no_number_adds_nothing) {
    call({"hset", "h", "n", "5"});
    EXPECT_EQ(call({"hincrby", "h", "n", "abc"}), ":5\r\n");
    EXPECT_EQ(call({"hincrby", "h", "n", ""}), ":5\r\n");
    EXPECT_EQ(call({"hincrby", "h", "n", "-"}), ":5\r\n");
    EXPECT_EQ(call({"hget", "h", "n"}), "$1\r\n5\r\n");
    EXPECT_EQ(call({"hincrby", "h", "new", "abc"}), ":0\r\n");
    EXPECT_EQ(call({"hget", "h", "new"}), "$1\r\n0\r\n");
    EXPECT_EQ(call({"hincrby", "k", "new", ""}), ":0\r\n");
    EXPECT_EQ(call({"hgetall", "k"}), "*2\r\n$3\r\nnew\r\n$1\r\n0\r\n");
}

TEST_F(hashes, hincrby_by_what_is_no_number_still_rewrites_the_field_as_a_number) {
    call({"hset", "h", "n", "0x1F and more"});
    EXPECT_EQ(call({"hincrby", "h", "n", "abc"}), ":31\r\n");
    EXPECT_EQ(call({"hget", "h", "n"}), "$2\r\n31\r\n");
}

/* Even when the increment names the field: its text is what a missing number is told by. */
TEST_F(hashes, hincrby_by_the_name_of_the_field_adds_nothing) {
    call({"hset", "h", "n", "5"});
    EXPECT_EQ(call({"hincrby", "h", "n", "n"}), ":5\r\n");
}

TEST_F(hashes, hincrby_refuses_a_field_that_is_no_number) {
    EXPECT_EQ(call({"hincrby", "h", "f", "1"}), "-ERR\r\n");
    EXPECT_EQ(call({"hget", "h", "f"}), "$1\r\nv\r\n");
    call({"hset", "h", "empty", ""});
    EXPECT_EQ(call({"hincrby", "h", "empty", "1"}), "-ERR\r\n");
    EXPECT_EQ(call({"hget", "h", "empty"}), "$0\r\n\r\n");
    EXPECT_EQ(call({"hincrby", "h", "f", "abc"}), "-ERR\r\n");
    EXPECT_EQ(call({"hlen", "h"}), ":2\r\n");
}

TEST_F(hashes, hincrby_keeps_64_bits_first_and_wraps_in_32_then) {
    EXPECT_EQ(call({"hincrby", "h", "n", "9223372036854775807"}), ":9223372036854775807\r\n");
    EXPECT_EQ(call({"hget", "h", "n"}), "$19\r\n9223372036854775807\r\n");
    EXPECT_EQ(call({"hincrby", "h", "n", "1"}), ":0\r\n");
    EXPECT_EQ(call({"hincrby", "h", "n", "2147483647"}), ":2147483647\r\n");
    EXPECT_EQ(call({"hincrby", "h", "n", "1"}), ":-2147483648\r\n");
    EXPECT_EQ(call({"hincrby", "h", "n", "4294967296"}), ":-2147483648\r\n");
    EXPECT_EQ(call({"hincrby", "h", "n", "-1"}), ":2147483647\r\n");
    EXPECT_EQ(call({"hincrby", "h", "m", "-9223372036854775808"}), ":-9223372036854775808\r\n");
    EXPECT_EQ(call({"hincrby", "h", "o", "-99999999999999999999"}), ":-9223372036854775808\r\n");
    EXPECT_EQ(call({"hincrby", "h", "p", "99999999999999999999"}), ":9223372036854775807\r\n");
}

TEST_F(hashes, hincrby_refuses_strings_and_lists) {
    EXPECT_EQ(call({"hincrby", "s", "f", "1"}), "-ERR\r\n");
    EXPECT_EQ(call({"hincrby", "l", "f", "1"}), "-ERR\r\n");
    expect_others_unchanged();
}

TEST_F(hashes, hmset_sets_all_pairs) {
    EXPECT_EQ(call({"hmset", "h", "f", "1", "g", "2", "i", "3"}), "+OK\r\n");
    EXPECT_EQ(call({"hmget", "h", "f", "g", "i"}), "*3\r\n$1\r\n1\r\n$1\r\n2\r\n$1\r\n3\r\n");
    EXPECT_EQ(call({"hmset", "new", "a", "1"}), "+OK\r\n");
    EXPECT_EQ(call({"hgetall", "new"}), "*2\r\n$1\r\na\r\n$1\r\n1\r\n");
}

TEST_F(hashes, hmset_of_a_field_twice_keeps_the_last_value) {
    EXPECT_EQ(call({"hmset", "h", "g", "1", "g", "2", "g", "3"}), "+OK\r\n");
    EXPECT_EQ(call({"hget", "h", "g"}), "$1\r\n3\r\n");
    EXPECT_EQ(call({"hlen", "h"}), ":2\r\n");
}

TEST_F(hashes, hmset_needs_whole_pairs) {
    EXPECT_EQ(call({"hmset"}), "-ERR\r\n");
    EXPECT_EQ(call({"hmset", "k"}), "-ERR\r\n");
    EXPECT_EQ(call({"hmset", "k", "a"}), "-ERR\r\n");
    EXPECT_EQ(call({"hmset", "k", "a", "1", "b"}), "-ERR\r\n");
    EXPECT_EQ(call({"exists", "k"}), ":0\r\n");
    EXPECT_EQ(call({"hmset", "k", "a", "1", "b", "2"}), "+OK\r\n");
}

TEST_F(hashes, hmset_refuses_strings_and_lists) {
    EXPECT_EQ(call({"hmset", "s", "f", "1"}), "-ERR\r\n");
    EXPECT_EQ(call({"hmset", "l", "f", "1", "g", "2"}), "-ERR\r\n");
    expect_others_unchanged();
}

TEST_F(hashes, hdel_counts_the_fields_that_were_there) {
    call({"hmset", "h", "a", "1", "b", "2"});
    EXPECT_EQ(call({"hdel", "h", "a", "none"}), ":1\r\n");
    EXPECT_EQ(call({"hexists", "h", "a"}), ":0\r\n");
    EXPECT_EQ(call({"hdel", "h", "a"}), ":0\r\n");
    EXPECT_EQ(call({"hdel", "h", "b", "f"}), ":2\r\n");
    EXPECT_EQ(call({"hlen", "h"}), ":0\r\n");
}

TEST_F(hashes, hdel_of_what_is_no_hash_is_0) {
    EXPECT_EQ(call({"hdel", "missing", "f"}), ":0\r\n");
    EXPECT_EQ(call({"hdel", "s", "f"}), ":0\r\n");
    EXPECT_EQ(call({"hdel", "l", "f"}), ":0\r\n");
    expect_others_unchanged();
}

TEST_F(hashes, hdel_counts_a_field_named_twice_twice) {
    EXPECT_EQ(call({"hdel", "h", "f", "f"}), ":2\r\n");
    EXPECT_EQ(call({"hlen", "h"}), ":0\r\n");
    EXPECT_EQ(call({"hset", "h", "f", "again"}), ":1\r\n");
    EXPECT_EQ(call({"hget", "h", "f"}), "$5\r\nagain\r\n");
}

TEST_F(hashes, a_field_deleted_and_set_again_is_new) {
    EXPECT_EQ(call({"hdel", "h", "f"}), ":1\r\n");
    EXPECT_EQ(call({"hsetnx", "h", "f", "1"}), ":1\r\n");
    EXPECT_EQ(call({"hdel", "h", "f"}), ":1\r\n");
    EXPECT_EQ(call({"hincrby", "h", "f", "4"}), ":4\r\n");
    EXPECT_EQ(call({"hdel", "h", "f"}), ":1\r\n");
    EXPECT_EQ(call({"hset", "h", "f", "1"}), ":1\r\n");
}

TEST_F(hashes, a_hash_without_fields_is_still_a_hash) {
    EXPECT_EQ(call({"hdel", "h", "f"}), ":1\r\n");
    EXPECT_EQ(call({"exists", "h"}), ":1\r\n");
    EXPECT_EQ(call({"type", "h"}), "$4\r\nhash\r\n");
    EXPECT_EQ(call({"hgetall", "h"}), "*0\r\n");
    EXPECT_EQ(call({"get", "h"}), "-ERR\r\n");
}

TEST_F(hashes, fields_of_private_keys_are_deleted_too) {
    EXPECT_EQ(call({"hmset", "_private", "a", "1", "b", "2"}), "+OK\r\n");
    EXPECT_EQ(call({"hdel", "_private", "a"}), ":1\r\n");
    EXPECT_EQ(call({"hgetall", "_private"}), "*2\r\n$1\r\nb\r\n$1\r\n2\r\n");
    EXPECT_EQ(call({"hset", "_private", "a", "3"}), ":1\r\n");
    EXPECT_EQ(call({"hdel", "_private", "a", "b", "c"}), ":2\r\n");
    EXPECT_EQ(call({"hgetall", "_private"}), "*0\r\n");
}

TEST_F(hashes, protected_fields_can_be_written_but_not_deleted) {
    EXPECT_EQ(call({"hdel", "tessard.run", "pid"}), ":0\r\n");
    EXPECT_EQ(call({"hdel", "tessard.run", "pid", "logfile", "loglevel", "history-iface-algor"}),
              ":0\r\n");
    EXPECT_EQ(call({"hlen", "tessard.run"}), ":4\r\n");
    EXPECT_EQ(call({"hget", "tessard.run", "pid"}), "$4\r\nnone\r\n");
    EXPECT_EQ(call({"hset", "tessard.run", "pid", "77"}), ":0\r\n");
    EXPECT_EQ(call({"hincrby", "tessard.run", "pid", "1"}), ":78\r\n");
    EXPECT_EQ(call({"hdel", "tessard.run", "pid"}), ":0\r\n");
    EXPECT_EQ(call({"hget", "tessard.run", "pid"}), "$2\r\n78\r\n");
}

TEST_F(hashes, fields_added_to_a_protected_hash_cannot_be_deleted_either) {
    EXPECT_EQ(call({"hset", "tessard.run", "mine", "1"}), ":1\r\n");
    EXPECT_EQ(call({"hdel", "tessard.run", "mine"}), ":0\r\n");
    EXPECT_EQ(call({"hget", "tessard.run", "mine"}), "$1\r\n1\r\n");
    EXPECT_EQ(call({"del", "tessard.run"}), ":0\r\n");
}

TEST_F(hashes, a_deleted_hash_comes_back_empty_as_any_type) {
    EXPECT_EQ(call({"del", "h"}), ":1\r\n");
    EXPECT_EQ(call({"hlen", "h"}), ":0\r\n");
    EXPECT_EQ(call({"hget", "h", "f"}), "$-1\r\n");
    EXPECT_EQ(call({"hdel", "h", "f"}), ":0\r\n");
    EXPECT_EQ(call({"hset", "h", "g", "1"}), ":1\r\n");
    EXPECT_EQ(call({"hgetall", "h"}), "*2\r\n$1\r\ng\r\n$1\r\n1\r\n");
    EXPECT_EQ(call({"del", "s", "l"}), ":2\r\n");
    EXPECT_EQ(call({"hmset", "s", "a", "1"}), "+OK\r\n");
    EXPECT_EQ(call({"hsetnx", "l", "a", "1"}), ":1\r\n");
    EXPECT_EQ(call({"del", "h"}), ":1\r\n");
    EXPECT_EQ(call({"hincrby", "h", "n", "1"}), ":1\r\n");
    EXPECT_EQ(call({"hlen", "h"}), ":1\r\n");
}

TEST_F(hashes, every_command_needs_its_arguments) {
    for (const char* command : {"hlen", "hkeys", "hvals", "hgetall"}) {
        EXPECT_EQ(call({command}), "-ERR\r\n") << command;
    }
    for (const char* command : {"hexists", "hget", "hmget", "hdel"}) {
        EXPECT_EQ(call({command}), "-ERR\r\n") << command;
        EXPECT_EQ(call({command, "h"}), "-ERR\r\n") << command;
    }
    for (const char* command : {"hset", "hsetnx", "hincrby"}) {
        EXPECT_EQ(call({command}), "-ERR\r\n") << command;
        EXPECT_EQ(call({command, "h", "f"}), "-ERR\r\n") << command;
    }
    EXPECT_EQ(call({"hgetall", "h"}), "*2\r\n$1\r\nf\r\n$1\r\nv\r\n");
}

/* a to e have the codes 97 to 101, which leave 9, 10, 0, 1 and 2 of 11 buckets. */
TEST_F(fields_in_order, five_fields_stand_in_eleven_buckets) {
    set_fields({"a", "b", "c", "d", "e"});
    expect_order({"c", "d", "e", "a", "b"});
}

/* a, l and w have the codes 97, 108 and 119, which all leave 9 of 11. */
TEST_F(fields_in_order, the_newest_field_of_a_bucket_comes_first) {
    set_fields({"a", "l", "w"});
    expect_order({"w", "l", "a"});
    EXPECT_EQ(call({"hset", "k", "l", "l"}), ":0\r\n");
    expect_order({"w", "l", "a"});
}

/* A bucket is emptied from its head, which turns the order of those that stay together. 97, 120 and
 * 51 (the digit 3) leave 5 of 23, and 9, 10 and 7 of 11; 97 and 108 leave 5 and 16 of 23. */
TEST_F(fields_in_order, the_sixth_field_moves_all_to_23_buckets) {
    set_fields({"a", "l", "x", "3", "b"});
    /* 11 buckets: 7 {3}, 9 {l, a}, 10 {b, x} */
    expect_order({"3", "l", "a", "b", "x"});
    set_fields({"c"});
    /* Moved in this order: 3, l, a, b, x. 23 buckets: 5 {x, a, 3}, 6 {b}, 7 {c}, 16 {l} */
    expect_order({"x", "a", "3", "b", "c", "l"});
}

TEST_F(fields_in_order, fields_of_one_bucket_that_move_together_are_turned_round) {
    /* Two letters have the code 31 * first + second. "bB" has 3104, "c#" and "aa" too have others:
     * what is needed is the same code, which "bB", "c#" have: 98 * 31 + 66 = 3104 = 99 * 31 + 35.
     */
    set_fields({"bB", "c#", "1", "2"});
    expect_order({"c#", "bB", "1", "2"});
    set_fields({"4", "5"});
    const words shown = elements_of(call({"hkeys", "k"}));
    ASSERT_EQ(shown.size(), 6U);
    const auto place = [&](const char* name) {
        return std::find(shown.begin(), shown.end(), name) - shown.begin();
    };
    EXPECT_EQ(place("bB") + 1, place("c#"));
}

/* 0xFF counts as -1, in 32 bits 4294967295, which leaves 3 of 11; 0xFC as -4, 4294967292, which
 * leaves 0. As 252 it would leave 10 and come last. */
TEST_F(fields_in_order, bytes_above_127_count_as_negative) {
    set_fields({"a", "\xfc", "\xff"});
    expect_order({"\xfc", "\xff", "a"});
}

TEST_F(fields_in_order, one_to_sixty_fields_stand_in_the_order_of_the_growing_table) {
    growing_table<int> table;
    for (int i = 1; i <= 60; i++) {
        const std::string name = "field" + std::to_string(i * 37 % 61);
        table.add(name);
        set_fields({name});
        expect_order(order_of(table));
        if (HasFailure()) {
            FAIL() << "with " << i << " fields";
        }
    }
    EXPECT_EQ(table.bucket_count(), 397U);
}

TEST_F(fields_in_order, a_deleted_field_leaves_the_others_where_they_are) {
    growing_table<int> table;
    words names;
    for (int i = 0; i < 60; i++) {
        names.push_back("n" + std::to_string(i));
    }
    for (const std::string& name : names) {
        table.add(name);
    }
    set_fields(names);
    for (size_t i = 0; i < names.size(); i++) {
        const std::string& name = names[i * 7 % 60];
        table.remove(name);
        EXPECT_EQ(call({"hdel", "k", name}), ":1\r\n");
        expect_order(order_of(table));
    }
    EXPECT_EQ(call({"hlen", "k"}), ":0\r\n");
}

/* a, l, w and W share a bucket of 11 (97, 108, 119, 87 leave 9, 9, 9, 10), so head, middle and end
 * of one chain go. */
TEST_F(fields_in_order, head_middle_and_end_of_a_bucket_can_go) {
    for (const char* gone : {"w", "l", "a"}) {
        set_fields({"a", "l", "w"});
        words rest = {"w", "l", "a"};
        rest.erase(std::find(rest.begin(), rest.end(), gone));
        EXPECT_EQ(call({"hdel", "k", gone}), ":1\r\n");
        expect_order(rest);
        EXPECT_EQ(call({"hdel", "k", rest[0], rest[1]}), ":2\r\n");
    }
}

/* Fields that go leave room: the table never shrinks, and grows only when half as many fields as
 * buckets are there. */
TEST_F(fields_in_order, the_table_keeps_its_size_when_fields_go) {
    set_fields({"1", "2", "3", "4", "5", "6"});
    EXPECT_EQ(call({"hdel", "k", "1", "2", "3", "4", "5", "6"}), ":6\r\n");
    set_fields({"a", "b", "c", "d", "e"});
    /* 97 to 101 leave 5 to 9 of 23. */
    expect_order({"a", "b", "c", "d", "e"});
}

TEST_F(fields_in_order, a_hash_made_anew_begins_with_eleven_buckets) {
    set_fields({"1", "2", "3", "4", "5", "6"});
    EXPECT_EQ(call({"del", "k"}), ":1\r\n");
    set_fields({"a", "b", "c", "d", "e"});
    expect_order({"c", "d", "e", "a", "b"});
}

TEST_F(fields_in_order, one_hmset_gives_the_order_of_many_hsets) {
    growing_table<int> table;
    words request = {"hmset", "k"};
    for (int i = 0; i < 200; i++) {
        const std::string name = "name-" + std::to_string(i * 31 % 200);
        table.add(name);
        request.insert(request.end(), 2, name);
    }
    EXPECT_EQ(call(request), "+OK\r\n");
    expect_order(order_of(table));
    EXPECT_EQ(call({"hlen", "k"}), ":200\r\n");
}

/* Keys stand in a table of the same kind. Those of the daemon itself are there before, and its
 * collectors may add some while the test runs, so only the keys of one hash code are looked at:
 * they stay together whatever happens, and the newest comes first as long as they have not been
 * moved together. */
TEST_F(hashes, keys_of_one_code_stand_in_one_bucket) {
    for (const char* key : {"~bB", "~c#"}) {
        EXPECT_EQ(call({"hset", key, "f", "v"}), ":1\r\n");
    }
    const words shown = elements_of(call({"keys", "*"}));
    const auto first = std::find(shown.begin(), shown.end(), "~bB");
    const auto second = std::find(shown.begin(), shown.end(), "~c#");
    ASSERT_NE(first, shown.end());
    ASSERT_NE(second, shown.end());
    EXPECT_EQ(std::abs(first - second), 1);
}

/* The last table has 99793 buckets, of which half may be filled: 49896 fields. One more ends the
 * daemon. */
TEST_F(hashes, the_field_beyond_the_largest_table_ends_the_daemon) {
    make_large_hash(49896);
    EXPECT_EQ(call({"hlen", "k"}), ":49896\r\n");
    EXPECT_EQ(call({"hset", "k", "f0", "w"}), ":0\r\n");
    EXPECT_EQ(call({"hget", "k", "f49895"}), "$1\r\nv\r\n");
    EXPECT_EQ(call({"hset", "k", "one more", "v"}), "<closed>");
    EXPECT_EQ(daemon->wait_exit(), KILLED_BY + SIGABRT);
    EXPECT_NE(daemon->err().find("algor"), std::string::npos) << daemon->err();
    EXPECT_NE(daemon->err().find("460"), std::string::npos) << daemon->err();
    EXPECT_NE(daemon->err().find("next_prime"), std::string::npos) << daemon->err();
}

TEST_F(hashes, a_change_of_one_field_does_not_cost_more_in_a_large_hash) {
    make_large_hash(40000);
    EXPECT_EQ(call({"hset", "small", "f7", "v"}), ":1\r\n");
    const int times = sandbox::emulator().empty() ? 6000 : 300;
    const long small = cost_of(times, {"hset", "small", "f7", "v"}, ":0\r\n");
    /* A walk over the fields for each request would take more than a second. */
    EXPECT_LT(cost_of(times, {"hset", "k", "f7", "v"}, ":0\r\n"), 3 * small + 100);
    EXPECT_LT(cost_of(times, {"hincrby", "k", "n", "0"}, ":0\r\n"), 3 * small + 100);
}

TEST_F(hash_traces, every_written_field_is_traced) {
    const process& daemon = start({"-l", "debug", "-f", "stdout"});
    resp_client client;
    client.call({"hset", "h", "f", "v"});
    client.call({"hmset", "h", "g", "1", "f", ""});
    client.call({"hsetnx", "h", "g", "2"});
    client.call({"hincrby", "h", "g", "4"});
    client.call({"hincrby", "h", "f", "1"});
    client.call({"hsetnx", "h", "last", "1"});
    const std::string last = "\"h\"(hash): field \"last\" updated to \"1\"";
    EXPECT_EQ(messages(daemon, last), (words{"\"h\"(hash): field \"f\" updated to \"v\"",
                                             "\"h\"(hash): field \"g\" updated to \"1\"",
                                             "\"h\"(hash): field \"f\" updated to \"\"",
                                             "\"h\"(hash): field \"g\" updated to \"5\"", last}));
}

/* Deleted in the turned order of the walk, which finds c d e a b. */
TEST_F(hash_traces, deleted_fields_are_traced_when_they_are_named_and_when_they_go) {
    const process& daemon = start({"-l", "debug", "-f", "stdout"});
    resp_client client;
    client.call({"hmset", "h", "a", "1", "b", "2", "c", "3", "d", "4", "e", "5"});
    EXPECT_EQ(client.call({"hdel", "h", "a", "none", "c", "e"}), ":3\r\n");
    words found = messages(daemon, "\"h\"(hash): field \"c\" deleted");
    ASSERT_EQ(found.size(), 11U);
    found.erase(found.begin(), found.begin() + 5);
    EXPECT_EQ(found, (words{"\"h\"(hash): field \"a\" scheduled to be deleted",
                            "\"h\"(hash): field \"c\" scheduled to be deleted",
                            "\"h\"(hash): field \"e\" scheduled to be deleted",
                            "\"h\"(hash): field \"a\" deleted", "\"h\"(hash): field \"e\" deleted",
                            "\"h\"(hash): field \"c\" deleted"}));
}
