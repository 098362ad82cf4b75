#include "proto/command.h"

#include <gtest/gtest.h>

#include <time.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "tests/support/commands.h"
#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_client.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

class dispatch_test : public store_test {
  protected:
    /* A client with a name that is known, and nothing logged of that. */
    dispatch_test() {
        peer.call({"hello", "me"});
    }

    ~dispatch_test() override {
        peer.disconnect();
    }

    static std::string_view get(const char* key) {
        const object* obj = object_lookup_type(key, OBJ_TSTRING);
        return obj != nullptr ? bytes_of(object_string(obj)) : "(no string)";
    }

    static void set(const char* key, std::string_view value) {
        sstr_assign(&make(key, OBJ_TSTRING)->string, value.data(),
                    static_cast<uint32_t>(value.size()));
    }

    /* Processor time in seconds that the request takes, at best of three. The fixture's client
     * sends it. */
    double cost_of(const std::string& request) {
        double best = 1e9;
        for (int i = 0; i < 3; i++) {
            const clock_t start = clock();
            peer.deliver(request);
            best = std::min(best, static_cast<double>(clock() - start) / CLOCKS_PER_SEC);
        }
        return best;
    }

    test_client peer;
};

/* A request for so many fields of the key, all "f". */
std::string fields_request(const std::string& name, const std::string& key, size_t fields) {
    std::string bytes = "*" + std::to_string(fields + 2) + "\r\n";
    for (const std::string& word : {name, key}) {
        bytes += "$" + std::to_string(word.size()) + "\r\n" + word + "\r\n";
    }
    for (size_t i = 0; i < fields; i++) {
        bytes += "$1\r\nf\r\n";
    }
    return bytes;
}

/* A request with this many arguments, all "x". */
std::string request_of(const char* name, uint32_t argc) {
    const std::string word = name;
    std::string bytes = "*" + std::to_string(argc + 1) + "\r\n$" + std::to_string(word.size()) +
                        "\r\n" + word + "\r\n";
    for (uint32_t i = 0; i < argc; i++) {
        bytes += "$1\r\nx\r\n";
    }
    return bytes;
}

client* client_in_hook;

int look_at_client(object*) {
    client_in_hook = current_client;
    return 0;
}

} // namespace

/* --- The table --- */

TEST(command_table_test, has_every_command_in_the_order_of_the_protocol_with_its_rule) {
    ASSERT_EQ(std::size(command_table), std::size(COMMAND_LIST));
    for (size_t i = 0; i < std::size(COMMAND_LIST); i++) {
        EXPECT_STREQ(command_table[i].name, COMMAND_LIST[i].name) << i;
        EXPECT_EQ(command_table[i].arg_rule, uint32_t{COMMAND_LIST[i].rule})
            << COMMAND_LIST[i].name;
    }
}

TEST(command_table_test, has_a_handler_of_its_own_for_each_command) {
    std::set<command_handler> handlers = {nullptr};
    for (const command& row : command_table) {
        EXPECT_TRUE(handlers.insert(row.handler).second) << row.name;
    }
}

TEST(command_table_test, rules_decide_by_the_number_of_arguments) {
    const struct {
        uint32_t rule;
        const char* accepted; /* one digit for each argc from 0 to 9 */
    } rows[] = {
        {0, "1111111111"}, {1, "0111111111"}, {2, "0011111111"},
        {3, "0001111111"}, {4, "1111111111"}, {5, "1010101010"},
        {6, "1111111111"}, {7, "1111111111"}, {8, "0001010101"},
    };
    for (const auto& row : rows) {
        for (uint32_t argc = 0; argc < 10; argc++) {
            EXPECT_EQ(command_accepts(row.rule, argc), row.accepted[argc] == '1')
                << row.rule << " with " << argc;
        }
    }
    EXPECT_TRUE(command_accepts(8, 4294967295u));
    EXPECT_FALSE(command_accepts(8, 4294967294u));
    EXPECT_TRUE(command_accepts(5, 4294967294u));
}

/* --- Names --- */

TEST_F(dispatch_test, names_match_in_any_case) {
    EXPECT_EQ(peer.call({"ping"}), "+OK\r\n");
    EXPECT_EQ(peer.call({"PING"}), "+OK\r\n");
    EXPECT_EQ(peer.call({"PiNg"}), "+OK\r\n");
}

TEST_F(dispatch_test, every_command_is_found_by_its_name_in_upper_and_lower_case) {
    for (const command& row : command_table) {
        std::string upper = row.name;
        for (char& c : upper) {
            c = static_cast<char>(c - 'a' + 'A');
        }
        for (const std::string& name : {std::string(row.name), upper}) {
            /* The trace says whether it was found. Refused by its rule, where it has one, it does
             * nothing. */
            log.start();
            peer.deliver(request_of(name.c_str(), row.arg_rule == 5 ? 1 : 0));
            EXPECT_EQ(log.text().find("Unknown command"), std::string::npos) << name;
        }
    }
    peer.disconnect();
}

TEST_F(dispatch_test, an_unknown_name_is_an_error_and_the_connection_stays) {
    EXPECT_EQ(peer.call({"PONG"}), "-ERR\r\n");
    EXPECT_FALSE(peer.is_closed());
    EXPECT_EQ(peer.call({"ping"}), "+OK\r\n");
}

TEST_F(dispatch_test, names_must_match_whole) {
    for (const char* name : {"", "PIN", "PINGS", " PING", "PING ", "*1", "GET SET"}) {
        EXPECT_EQ(peer.call({name}), "-ERR\r\n") << name;
    }
}

TEST_F(dispatch_test, a_name_ends_at_its_first_nul) {
    EXPECT_EQ(peer.call({std::string_view("ping\0more", 9)}), "+OK\r\n");
    EXPECT_EQ(peer.call({std::string_view("\0ping", 5)}), "-ERR\r\n");
}

TEST_F(dispatch_test, only_ascii_letters_are_folded) {
    log.start();
    EXPECT_EQ(peer.call({"\xe4\xf6z{`@["}), "-ERR\r\n");
    EXPECT_EQ(log.text(), "debug *** Unknown command \"\xe4\xf6Z{`@[\", replying error.\n");
}

TEST_F(dispatch_test, an_unknown_name_is_traced_in_upper_case_and_nothing_else_is) {
    log.start();
    peer.call({"pong%s", "argument"});
    EXPECT_EQ(log.text(), "debug *** Unknown command \"PONG%S\", replying error.\n");
}

TEST_F(dispatch_test, nothing_is_traced_above_debug_level) {
    log.start(LOG_INFO);
    peer.call({"pong"});
    peer.call({"set", "k", "v"});
    peer.call({"get"});
    peer.call({"rpush", "l", "v"});
    peer.call({"rpop", "l"});
    peer.call({"hello", "other"});
    EXPECT_EQ(log.text(), "");
}

/* --- Arguments --- */

TEST_F(dispatch_test, too_few_arguments_are_an_error_that_neither_runs_nor_traces) {
    log.start();
    for (const command& row : command_table) {
        for (uint32_t argc = 0; argc < 8; argc++) {
            if (!command_accepts(row.arg_rule, argc)) {
                EXPECT_EQ(peer.deliver(request_of(row.name, argc)), "-ERR\r\n")
                    << row.name << " with " << argc;
            }
        }
    }
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(object_keyspace(), nullptr);
    EXPECT_EQ(bytes_of(peer.record()->name), "me");
}

TEST_F(dispatch_test, mset_takes_pairs_and_none) {
    EXPECT_EQ(peer.deliver(request_of("mset", 0)), "+OK\r\n");
    EXPECT_EQ(peer.deliver(request_of("mset", 1)), "-ERR\r\n");
    EXPECT_EQ(peer.deliver(request_of("mset", 2)), "+OK\r\n");
    EXPECT_EQ(peer.deliver(request_of("mset", 3)), "-ERR\r\n");
}

TEST_F(dispatch_test, hmset_takes_a_key_and_pairs) {
    for (uint32_t argc = 0; argc < 8; argc++) {
        const bool accepted = argc == 3 || argc == 5 || argc == 7;
        EXPECT_EQ(peer.deliver(request_of("hmset", argc)), accepted ? "+OK\r\n" : "-ERR\r\n")
            << argc;
    }
}

TEST_F(dispatch_test, more_arguments_than_needed_are_accepted) {
    EXPECT_EQ(peer.call({"set", "k", "v", "more", "and more"}), "+OK\r\n");
    EXPECT_EQ(peer.call({"get", "k", "more"}), "$1\r\nv\r\n");
    EXPECT_EQ(peer.call({"ping", "more"}), "+OK\r\n");
}

/* --- Deliveries --- */

TEST_F(dispatch_test, a_second_request_in_one_delivery_is_dropped) {
    EXPECT_EQ(peer.deliver(frame('*', {"set", "a", "1"}) + frame('*', {"set", "b", "2"})),
              "+OK\r\n");
    EXPECT_EQ(get("a"), "1");
    EXPECT_EQ(get("b"), "(no string)");
    EXPECT_EQ(peer.conn->input.length, 0u);
    EXPECT_EQ(peer.call({"ping"}), "+OK\r\n");
}

TEST_F(dispatch_test, a_request_in_two_deliveries_closes_the_connection) {
    const std::string whole = frame('*', {"set", "k", "v"});
    for (size_t cut = 1; cut < whole.size(); cut++) {
        test_client other;
        EXPECT_EQ(other.deliver(whole.substr(0, cut)), "");
        EXPECT_TRUE(other.is_closed()) << cut;
        EXPECT_EQ(other.conn->reason, CONNECTION_CLOSED);
        EXPECT_EQ(other.conn->input.length, 0u);
    }
    EXPECT_EQ(object_keyspace(), nullptr);
}

TEST_F(dispatch_test, what_is_no_request_closes_the_connection_without_a_word) {
    for (const char* bytes : {"PING\r\n", "*0\r\n", "*x\r\n", "*\r\n", "\r\n", "x"}) {
        test_client other;
        log.start();
        EXPECT_EQ(other.deliver(bytes), "");
        EXPECT_TRUE(other.is_closed()) << bytes;
        EXPECT_EQ(log.text(), "");
        EXPECT_EQ(current_client, nullptr);
    }
}

TEST_F(dispatch_test, replies_that_are_still_batched_go_out_before_the_connection_closes) {
    const std::string ping = frame('*', {"ping"});
    buffer_append(&peer.conn->input, ping.data(), static_cast<uint32_t>(ping.size()));
    client_ondata(peer.conn);
    EXPECT_EQ(peer.deliver("nonsense"), "+OK\r\n");
    EXPECT_TRUE(peer.is_closed());
}

TEST_F(dispatch_test, the_input_is_emptied_and_shrinks_to_its_initial_size) {
    const std::string value(100000, 'x');
    EXPECT_EQ(peer.call({"set", "k", value}), "+OK\r\n");
    EXPECT_EQ(get("k"), value);
    EXPECT_EQ(peer.conn->input.length, 0u);
    EXPECT_EQ(peer.conn->input.capacity, CONNECTION_BUFFER_INITIAL);
}

TEST_F(dispatch_test, the_client_is_current_while_its_command_runs_and_not_afterwards) {
    object_register_string_hook(look_at_client);
    client_in_hook = nullptr;
    EXPECT_EQ(current_client, nullptr);
    peer.call({"set", "k", "v"});
    EXPECT_EQ(client_in_hook, peer.record());
    EXPECT_EQ(current_client, nullptr);
}

TEST_F(dispatch_test, the_client_is_still_current_in_the_post_reply_hooks) {
    set("k", "v");
    object_register_string_hook(look_at_client);
    client_in_hook = nullptr;
    peer.call({"getset", "k", "w"});
    EXPECT_EQ(client_in_hook, peer.record());
}

TEST_F(dispatch_test, request_and_reply_are_gone_afterwards) {
    for (const char* name : {"ping", "get", "nonsense"}) {
        peer.call({name});
        EXPECT_EQ(peer.record()->request, nullptr) << name;
        EXPECT_EQ(peer.record()->reply, nullptr) << name;
    }
}

/* --- Replies --- */

TEST_F(dispatch_test, replies_stand_in_the_order_of_their_requests) {
    set("big", std::string(3000, 'b'));
    const std::string ping = frame('*', {"ping"});
    buffer_append(&peer.conn->input, ping.data(), static_cast<uint32_t>(ping.size()));
    client_ondata(peer.conn);
    EXPECT_EQ(peer.received(), "");
    EXPECT_EQ(peer.call({"get", "big"}), "+OK\r\n$3000\r\n" + std::string(3000, 'b') + "\r\n");
}

TEST_F(dispatch_test, replies_of_any_size_arrive_whole) {
    for (const size_t size : {1u, 1900u, 1960u, 1973u, 1980u, 1988u, 1989u, 1990u, 1991u, 2000u,
                              3990u, 4000u, 5000u, 50000u, 100000u}) {
        const std::string value(size, 'v');
        set("k", value);
        EXPECT_EQ(peer.call({"get", "k"}), "$" + std::to_string(size) + "\r\n" + value + "\r\n");
    }
}

TEST_F(dispatch_test, a_reply_that_cannot_be_composed_closes_the_connection) {
    set("k", std::string(1 << 20, 'v'));
    EXPECT_EQ(peer.call({"mget", "k", "k", "k", "k", "k"}), "");
    EXPECT_TRUE(peer.is_closed());
    EXPECT_EQ(peer.conn->reason, CONNECTION_WRITE_FAILED);
    EXPECT_EQ(peer.conn->error, CONNECTION_BUFFER_FULL);
    EXPECT_EQ(current_client, nullptr);
}

TEST_F(dispatch_test, a_small_reply_that_finds_no_memory_closes_the_connection) {
    set("k", "v");
    for (const auto& request :
         {frame('*', {"ping"}), frame('*', {"get", "k"}), frame('*', {"nonsense"})}) {
        test_client other;
        /* As where the heap is exhausted: the output cannot get its first bytes of memory. */
        other.conn->output.limit = 1;
        EXPECT_EQ(other.deliver(request), "");
        EXPECT_TRUE(other.is_closed());
        EXPECT_EQ(other.conn->reason, CONNECTION_WRITE_FAILED);
        EXPECT_EQ(other.conn->error, CONNECTION_BUFFER_FULL);
    }
}

TEST_F(dispatch_test, the_next_reply_after_one_that_was_too_large_is_whole) {
    set("k", std::string(1 << 20, 'v'));
    set("middle", std::string(3000, 'm'));
    {
        test_client other;
        other.call({"mget", "k", "k", "k", "k", "k"});
    }
    EXPECT_EQ(peer.call({"get", "middle"}), "$3000\r\n" + std::string(3000, 'm') + "\r\n");
}

TEST_F(dispatch_test, a_handler_may_leave_its_reply_empty) {
    test_client observer;
    observers_add(observer.record());
    set("k", "v");
    log.start();
    EXPECT_EQ(peer.call({"rpush", "k", "item"}), "");
    EXPECT_FALSE(peer.is_closed());
    EXPECT_EQ(log.text(), "debug *** Received from client(\"me\"):\n RPUSH(k, item)\n"
                          "debug *** Replied to client(\"me\"): \n\n");
    log_set_level(LOG_FATAL);
    EXPECT_EQ(peer.call({"ping"}), "+OK\r\n");
}

/* --- Traces --- */

TEST_F(dispatch_test, request_and_reply_are_traced) {
    log.start();
    peer.call({"ping"});
    EXPECT_EQ(log.text(), "debug *** Received from client(\"me\"):\n PING()\n"
                          "debug *** Replied to client(\"me\"): \n+OK\r\n\n");
}

TEST_F(dispatch_test, arguments_are_traced_in_order_around_what_the_handler_traces) {
    log.start();
    peer.call({"Set", "k", "", "%s"});
    EXPECT_EQ(log.text(), "debug *** Received from client(\"me\"):\n SET(k, , %s)\n"
                          "debug *** \"k\"(string): updated to \"\"\n"
                          "debug *** Replied to client(\"me\"): \n+OK\r\n\n");
}

TEST_F(dispatch_test, a_trace_ends_at_the_first_nul) {
    log.start();
    peer.call({"get", std::string_view("a\0b", 3), "c"});
    EXPECT_EQ(log.text(), "debug *** Received from client(\"me\"):\n GET(a\n"
                          "debug *** Replied to client(\"me\"): \n$-1\r\n\n");
}

TEST_F(dispatch_test, long_traces_keep_their_counted_nul) {
    const std::string key(600, 'k');
    log.start();
    peer.call({"exists", key});
    EXPECT_EQ(log.text(), "debug *** Received from client(\"me\"):\n EXISTS(" + key + ")" + '\0' +
                              "\ndebug *** Replied to client(\"me\"): \n:0\r\n\n");
}

/* --- hello and ping --- */

TEST_F(dispatch_test, hello_names_the_client_and_traces_its_count) {
    log.start();
    EXPECT_EQ(peer.call({"hello", "panel", "two", "three"}), "+OK\r\n");
    EXPECT_EQ(bytes_of(peer.record()->name), "panel");
    /* The name is new before the reply is traced. */
    EXPECT_EQ(log.text(), "debug *** Received from client(\"me\"):\n HELLO(panel, two, three)\n"
                          "debug *** HELLO from client  3\n"
                          "debug *** Replied to client(\"panel\"): \n+OK\r\n\n");
}

TEST_F(dispatch_test, hello_takes_an_empty_name) {
    EXPECT_EQ(peer.call({"hello", ""}), "+OK\r\n");
    EXPECT_EQ(bytes_of(peer.record()->name), "");
}

TEST_F(dispatch_test, ping_answers_a_status) {
    EXPECT_EQ(peer.call({"ping", "echo?"}), "+OK\r\n");
}

/* --- What runs after the reply --- */

TEST_F(dispatch_test, getset_replies_the_old_value_and_assigns_the_new_one_afterwards) {
    set("k", "old");
    log.start();
    EXPECT_EQ(peer.call({"getset", "k", "new"}), "$3\r\nold\r\n");
    EXPECT_EQ(get("k"), "new");
    EXPECT_EQ(log.text(), "debug *** Received from client(\"me\"):\n GETSET(k, new)\n"
                          "debug *** Replied to client(\"me\"): \n$3\r\nold\r\n\n"
                          "debug *** \"k\"(string): updated to \"new\"\n");
}

TEST_F(dispatch_test, getset_replies_a_large_old_value_whole) {
    const std::string old(5000, 'o');
    set("k", old);
    EXPECT_EQ(peer.call({"getset", "k", std::string(5000, 'n')}), "$5000\r\n" + old + "\r\n");
    EXPECT_EQ(get("k"), std::string(5000, 'n'));
}

TEST_F(dispatch_test, getset_is_announced_with_its_new_value) {
    test_client observer;
    observers_add(observer.record());
    set("k", "old");
    EXPECT_EQ(peer.call({"GetSet", "k", "new"}), "$3\r\nold\r\n");
    EXPECT_EQ(observer.received(), event({"MSET", "k", "new"}));
}

TEST_F(dispatch_test, getset_of_a_missing_key_makes_none) {
    EXPECT_EQ(peer.call({"getset", "k", "new"}), "$-1\r\n");
    EXPECT_EQ(object_lookup("k"), nullptr);
}

TEST_F(dispatch_test, getset_of_a_hash_or_list_replies_nil_and_makes_it_a_string) {
    peer.call({"hset", "h", "f", "v"});
    peer.call({"rpush", "l", "v"});
    EXPECT_EQ(peer.call({"getset", "h", "new"}), "$-1\r\n");
    EXPECT_EQ(peer.call({"getset", "l", "new"}), "$-1\r\n");
    EXPECT_EQ(get("h"), "new");
    EXPECT_EQ(get("l"), "new");
}

TEST_F(dispatch_test, getset_with_one_argument_is_an_error_and_changes_nothing) {
    set("k", "old");
    EXPECT_EQ(peer.call({"getset", "k"}), "-ERR\r\n");
    EXPECT_EQ(get("k"), "old");
}

TEST_F(dispatch_test, getset_removes_the_expiry) {
    set("k", "old");
    object_expire(object_lookup("k"), 60);
    peer.call({"getset", "k", "new"});
    EXPECT_EQ(object_lookup("k")->flags, OBJ_TSTRING);
}

TEST_F(dispatch_test, a_popped_item_is_freed_after_the_reply) {
    peer.call({"rpush", "l", "a", "b"});
    log.start();
    EXPECT_EQ(peer.call({"lpop", "l"}), "$1\r\na\r\n");
    EXPECT_EQ(log.text(), "debug *** Received from client(\"me\"):\n LPOP(l)\n"
                          "debug *** \"l\"(list): lpop \"a\"\n"
                          "debug *** Replied to client(\"me\"): \n$1\r\na\r\n\n"
                          "debug *** [POP]  destrog (a)\n");
    log.start();
    EXPECT_EQ(peer.call({"RPop", "l"}), "$1\r\nb\r\n");
    EXPECT_EQ(log.text(), "debug *** Received from client(\"me\"):\n RPOP(l)\n"
                          "debug *** \"l\"(list): rpop \"b\"\n"
                          "debug *** Replied to client(\"me\"): \n$1\r\nb\r\n\n"
                          "debug *** [POP]  destrog (b)\n");
}

TEST_F(dispatch_test, a_pop_that_finds_nothing_frees_nothing) {
    peer.call({"rpush", "l", "a"});
    peer.call({"lpop", "l"});
    set("s", "v");
    for (const char* key : {"missing", "l", "s"}) {
        for (const char* name : {"lpop", "rpop"}) {
            log.start();
            EXPECT_EQ(peer.call({name, key}), "$-1\r\n");
            EXPECT_EQ(log.text().find("[POP]"), std::string::npos) << name << " " << key;
        }
    }
}

TEST_F(dispatch_test, a_pop_without_a_key_is_an_error_and_frees_nothing) {
    EXPECT_EQ(peer.call({"lpop"}), "-ERR\r\n");
    EXPECT_EQ(peer.call({"rpop"}), "-ERR\r\n");
}

TEST_F(dispatch_test, a_large_item_is_replied_whole_before_it_is_freed) {
    const std::string item(5000, 'i');
    peer.call({"rpush", "l", item});
    EXPECT_EQ(peer.call({"rpop", "l"}), "$5000\r\n" + item + "\r\n");
}

TEST_F(dispatch_test, a_popped_item_is_freed_also_when_the_reply_finds_nobody) {
    peer.call({"rpush", "l", "a"});
    ASSERT_EQ(shutdown(peer.conn->fd, SHUT_WR), 0);
    EXPECT_EQ(peer.call({"rpop", "l"}), "");
    EXPECT_EQ(object_lookup("l")->list->count, 0);
}

/* --- What long requests cost and keep --- */

TEST_F(dispatch_test, many_fields_of_a_long_key_cost_one_lookup_of_the_key) {
    constexpr size_t FIELDS = 2000;
    const std::string key(500000, 'k');
    for (const char* command : {"hmget", "hdel", "hmset"}) {
        peer.call({"hset", key, "f", "v"});
        peer.call({"hset", "short", "f", "v"});
        const double one = cost_of(fields_request(command, key, 2));
        const double many = cost_of(fields_request(command, "short", FIELDS));
        /* A lookup for each field would take a thousand times as long. */
        EXPECT_LT(cost_of(fields_request(command, key, FIELDS)), 20 * (one + many)) << command;
    }
}

TEST_F(dispatch_test, hdel_counts_beyond_16_bits) {
    peer.call({"hset", "h", "f", "v"});
    EXPECT_EQ(peer.deliver(fields_request("hdel", "h", 70000)), ":70000\r\n");
}

TEST_F(dispatch_test, mset_keeps_all_bytes_of_its_keys) {
    const std::string key("a\0b", 3);
    peer.call({"mset", key, "v"});
    EXPECT_EQ(peer.call({"keys", "a"}), frame('*', {key}));
}

TEST_F(dispatch_test, a_key_without_a_type_is_there_for_nobody) {
    (void)object_get_or_create("typeless", SSTR_CSTRING, OBJ_TNONE);
    EXPECT_EQ(peer.call({"keys", "typeless"}), "*0\r\n");
    EXPECT_EQ(peer.call({"del", "typeless"}), ":0\r\n");
    EXPECT_EQ(peer.call({"get", "typeless"}), "$-1\r\n");
}

TEST_F(dispatch_test, a_silent_command_behind_a_nearly_full_batch_keeps_the_connection) {
    set("k", "v");
    test_client watcher;
    watcher.call({"observe"});
    const std::string batched(3990, 'x');
    ASSERT_EQ(buffer_append(&peer.conn->output, batched.data(), 3990), 3990u);
    EXPECT_EQ(peer.call({"lpush", "k", "v"}), batched);
    EXPECT_GE(peer.conn->fd, 0);
    watcher.disconnect();
}
