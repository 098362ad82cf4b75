#include <gtest/gtest.h>

#include <time.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "proto/cmd.h"
#include "tests/unit/support/made_objects.h"
#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_client.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

class string_commands_test : public store_test {
  protected:
    ~string_commands_test() override {
        peer.disconnect();
        observer.disconnect();
    }

    void observe() {
        observers_add(observer.record());
    }

    test_client peer;
    test_client observer;
};

/* Changes the other key while "first" is being announced. */
int delete_second(object* obj) {
    if (object_key_is(obj, "first")) {
        object_delete(object_lookup("second"));
    }
    return 0;
}

int set_second(object* obj) {
    if (object_key_is(obj, "first")) {
        object_set_string(object_lookup("second"), text("from the hook"));
    }
    return 0;
}

} // namespace

/* --- The announcements of mset --- */

TEST_F(string_commands_test, mset_does_not_announce_a_key_that_a_hook_deletes_before_its_turn) {
    observe();
    object_register_string_hook(delete_second);
    EXPECT_EQ(peer.call({"mset", "first", "1", "second", "2"}), "+OK\r\n");
    EXPECT_EQ(observer.received(), event({"MSET", "first", "1"}));
}

TEST_F(string_commands_test, mset_announces_once_what_a_hook_makes_of_a_key_before_its_turn) {
    observe();
    object_register_string_hook(set_second);
    EXPECT_EQ(peer.call({"mset", "first", "1", "second", "2"}), "+OK\r\n");
    EXPECT_EQ(observer.received(),
              event({"MSET", "first", "1"}) + event({"MSET", "second", "from the hook"}));
}

TEST_F(string_commands_test, mset_takes_keys_that_differ_behind_a_nul_for_one) {
    observe();
    const std::string_view first("k\0a", 3);
    const std::string_view second("k\0b", 3);
    EXPECT_EQ(peer.call({"mset", first, "1", second, "2"}), "+OK\r\n");
    EXPECT_EQ(observer.received(), event({"MSET", first, "2"}));
}

TEST_F(string_commands_test, mset_brings_deleted_keys_back) {
    observe();
    object_delete(string_object("k", "old"));
    object_delete(hash_object("h", {"f", "v"}));
    EXPECT_EQ(peer.call({"mset", "k", "1", "h", "2"}), "+OK\r\n");
    EXPECT_EQ(peer.call({"mget", "k", "h"}), "*2\r\n$1\r\n1\r\n$1\r\n2\r\n");
    EXPECT_EQ(observer.received(), event({"MSET", "k", "1"}) + event({"MSET", "h", "2"}));
    EXPECT_EQ(object_lookup("k")->flags, OBJ_TSTRING);
}

/* --- What mset costs --- */

namespace {

constexpr unsigned STANDING = 5000;
constexpr unsigned NAMED = 100;
constexpr unsigned ROUNDS = 15;

class colliding_keys_test : public string_commands_test {
  protected:
    colliding_keys_test() {
        for (unsigned i = 0; i < STANDING; i += 1000) {
            peer.deliver(request("mset", next_keys(1000)));
        }
    }

    /* Keys that were not given out before. "Aa" and "BB" have one hash value, and so have all words
     * of 16 of them. */
    std::vector<std::string> next_keys(unsigned count) {
        std::vector<std::string> keys;
        for (; count > 0; count--, given++) {
            std::string key;
            for (int bit = 15; bit >= 0; bit--) {
                key += (given >> bit & 1) != 0 ? "BB" : "Aa";
            }
            keys.push_back(key);
        }
        return keys;
    }

    /* The command with the keys, each followed by a value unless it is "mget". */
    static std::string request(const std::string& name, const std::vector<std::string>& keys) {
        const bool with_values = name != "mget";
        const size_t words = 1 + keys.size() * (with_values ? 2 : 1);
        std::string bytes = "*" + std::to_string(words) + "\r\n$" + std::to_string(name.size()) +
                            "\r\n" + name + "\r\n";
        for (const std::string& key : keys) {
            bytes += "$32\r\n" + key + "\r\n" + (with_values ? "$1\r\nv\r\n" : "");
        }
        return bytes;
    }

    /* Processor time of the command on new keys. */
    double cost_of(const std::string& name) {
        const std::string bytes = request(name, next_keys(NAMED));
        const clock_t start = clock();
        peer.deliver(bytes);
        return static_cast<double>(clock() - start) / CLOCKS_PER_SEC;
    }

    /* How many searches the command makes for each new key: its time by that of "mget", which makes
     * one. Both at best of all rounds, taken in turns, since a busy machine only adds. */
    double searches_of(const std::string& name) {
        double one_search = 1e9;
        double all = 1e9;
        for (unsigned i = 0; i < ROUNDS; i++) {
            one_search = std::min(one_search, cost_of("mget"));
            all = std::min(all, cost_of(name));
        }
        return all / one_search;
    }

    unsigned given = 0;
};

} // namespace

TEST_F(colliding_keys_test, mset_searches_for_each_new_key_once) {
    EXPECT_LT(searches_of("mset"), 1.5);
    EXPECT_EQ(object_keyspace()->count, STANDING + ROUNDS * NAMED);
}

TEST_F(colliding_keys_test, msetnx_searches_for_each_new_key_twice) {
    EXPECT_LT(searches_of("msetnx"), 2.5);
    EXPECT_EQ(object_keyspace()->count, STANDING + ROUNDS * NAMED);
}
