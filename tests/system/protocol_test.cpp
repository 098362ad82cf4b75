/* The wire: requests, replies, what closes a connection, the limits of connections, and the traces
 * of all that in the log. */

#include <stdlib.h>

#include "tests/support/commands.h"
#include "tests/system/model/written_frames.h"
#include "tests/system/support/daemon_test.h"
#include "tests/system/support/log_text.h"

using namespace system_test;

namespace {

const std::string PING = "*1\r\n$4\r\nPING\r\n";

class requests : public daemon_test {
  protected:
    /* The bytes close a connection without a word, and others are not disturbed. */
    static void expect_refused(const std::string& bytes) {
        SCOPED_TRACE(::testing::PrintToString(bytes.substr(0, 80)));
        resp_client client;
        EXPECT_TRUE(client.send(bytes));
        EXPECT_EQ(client.until_closed(), "");
    }

    /* The bytes are a ping. */
    static void expect_pong(const std::string& bytes) {
        SCOPED_TRACE(::testing::PrintToString(bytes.substr(0, 80)));
        resp_client client;
        EXPECT_TRUE(client.send(bytes));
        EXPECT_EQ(client.frame(), "+OK\r\n");
        EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    }

    /* Returns when everything that was sent to the daemon before has been carried out. The first
     * reply comes from a pass over all clients that sees what was sent before it, the second from a
     * later pass. */
    static void let_it_catch_up(resp_client& other) {
        EXPECT_EQ(other.call({"ping"}), "+OK\r\n");
        EXPECT_EQ(other.call({"ping"}), "+OK\r\n");
    }
};

class replies : public requests {
  protected:
    /* A value in which a lost, doubled or moved piece shows. */
    static std::string value_of(size_t size) {
        std::string value;
        for (size_t i = 0; value.size() < size; i++) {
            value += std::to_string(i) + ",";
        }
        value.resize(size);
        return value;
    }
};

class arguments : public daemon_test {
  protected:
    static std::vector<std::string> request_for(const described_command& command,
                                                const std::vector<std::string>& arguments) {
        std::vector<std::string> request = {command.name};
        request.insert(request.end(), arguments.begin(), arguments.end());
        return request;
    }
};

struct exchange {
    std::vector<std::string> request;
    std::string reply;
};

class limits : public requests {};

class traces : public daemon_test {
  protected:
    process& start_tracing() {
        return start({"-l", "debug", "-f", "stdout"});
    }

    /* The messages about clients and their requests once there are so many; timers write others in
     * between.
     */
    static std::vector<std::string> client_messages(const process& daemon, size_t count) {
        std::vector<std::string> found;
        eventually([&] {
            found = log_messages(daemon.out(),
                                 {"client", "Unknown command", "\"k\"", "\"l\"", "[POP]"});
            return found.size() >= count;
        });
        return found;
    }
};

typedef std::vector<std::string> lines;

} // namespace

TEST_F(requests, ping_is_answered_with_ok) {
    start();
    resp_client client;
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    EXPECT_EQ(client.call({"ping", "with", "arguments"}), "+OK\r\n");
}

TEST_F(requests, a_command_is_found_in_any_case) {
    start();
    resp_client client;
    EXPECT_EQ(client.call({"PiNg"}), "+OK\r\n");
    EXPECT_EQ(client.call({"PING"}), "+OK\r\n");
    EXPECT_EQ(client.call({"HELLO", "me"}), "+OK\r\n");
    EXPECT_EQ(client.call({"hElLo", "me"}), "+OK\r\n");
    EXPECT_EQ(client.call({"SET", "k", "v"}), "+OK\r\n");
    EXPECT_EQ(client.call({"gEt", "k"}), "$1\r\nv\r\n");
    EXPECT_EQ(client.call({"HgEtAlL", "none"}), "*0\r\n");
}

TEST_F(requests, an_unknown_command_is_an_error_and_keeps_the_connection) {
    start();
    resp_client client;
    for (const char* name :
         {"PONG", "pin", "pings", " ping", "ping ", "", "flushall", "p\xc3\xafng"}) {
        EXPECT_EQ(client.call({name}), "-ERR\r\n") << name;
        EXPECT_EQ(client.call({name, "a", "b"}), "-ERR\r\n") << name;
    }
    EXPECT_EQ(client.call({std::string(30000, 'x')}), "-ERR\r\n");
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
}

TEST_F(requests, only_the_first_of_two_in_one_write_is_answered) {
    start();
    resp_client client;
    EXPECT_TRUE(client.send(request_frame({"set", "k", "1"}) + request_frame({"set", "k", "2"})));
    EXPECT_EQ(client.frame(), "+OK\r\n");
    EXPECT_EQ(client.during(100), "");
    EXPECT_EQ(client.call({"get", "k"}), "$1\r\n1\r\n");
}

TEST_F(requests, bytes_behind_the_first_request_are_dropped) {
    start();
    expect_pong(PING + "garbage");
    expect_pong(PING + "*1\r\n$4\r\nPI");
    expect_pong(PING + std::string(3, '\0'));
}

TEST_F(requests, one_that_is_split_over_two_deliveries_closes_the_connection) {
    start();
    resp_client client;
    EXPECT_TRUE(client.send("*2\r\n$3\r\nGET\r\n"));
    EXPECT_EQ(client.until_closed(), "");
    EXPECT_FALSE(client.send("$1\r\nk\r\n"));
}

TEST_F(requests, a_later_one_that_is_split_closes_the_connection_too) {
    start();
    resp_client client;
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    EXPECT_TRUE(client.send("*1\r\n"));
    EXPECT_EQ(client.until_closed(), "");
}

TEST_F(requests, inline_forms_and_empty_arrays_close_the_connection) {
    start();
    for (const char* bytes :
         {"PING\r\n", "ping\n", "*0\r\n", "*x\r\n", "*\r\n", "*", "\r\n", "\n",
          " *1\r\n$4\r\nPING\r\n", "$4\r\nPING\r\n", "+PING\r\n", "!1\r\n$4\r\nPING\r\n"}) {
        expect_refused(bytes);
    }
    expect_refused(std::string("\0", 1) + PING);
    expect_refused(std::string(5000, '*'));
}

TEST_F(requests, a_malformed_element_closes_the_connection) {
    start();
    for (const char* bytes :
         {"*1\r\n", "*1\r\n\r\n", "*1\r\n$\r\nPING\r\n", "*1\r\n$x\r\nPING\r\n",
          "*1\r\n+4\r\nPING\r\n", "*1\r\n4\r\nPING\r\n", "*1\r\n$4\r\nPING", "*1\r\n$4\r\nPING\n\n",
          "*1\r\n$4\r\nPING\r\r", "*1\r\n$4\r\nPING\n\r", "*1\r\n$4\r\nPINGX\r\n",
          "*1\r\n$3\r\nPING\r\n", "*1\r\n$5\r\nPING\r\n", "*2\r\n$4\r\nPING\r\n",
          "*2\r\n$4\r\nPING\r\n*1\r\n", "*2\r\n$3\r\nGET\r\n$5\r\nab",
          "*2\r\n$3\r\nGET\r\n$5\r\nab\r\n"}) {
        expect_refused(bytes);
    }
}

TEST_F(requests, counts_beyond_what_was_delivered_close_the_connection) {
    process& daemon = start();
    for (const char* count :
         {"3", "1000", "1000000000", "2147483647", "2147483648", "4294967295", "4294967296",
          "18446744073709551615", "99999999999999999999999", "-1"}) {
        expect_refused("*" + std::string(count) + "\r\n$4\r\nPING\r\n$1\r\nx\r\n");
    }
    for (const char* length :
         {"6", "1000", "2147483647", "4294967294", "4294967295", "18446744073709551614",
          "18446744073709551615", "99999999999999999999999", "-1", "-2"}) {
        expect_refused("*1\r\n$" + std::string(length) + "\r\nPING\r\n");
    }
    EXPECT_TRUE(daemon.running());
    expect_pong(PING);
}

TEST_F(requests, counts_are_read_leniently) {
    start();
    for (const char* bytes :
         {"* 1\r\n$4\r\nPING\r\n", "*+1\r\n$+4\r\nPING\r\n", "*1x\r\n$4y\r\nPING\r\n",
          "*01\r\n$0004\r\nPING\r\n", "*1\n$4\nPING\r\n", "*\t1\r\n$ 4\r\nPING\r\n"}) {
        expect_pong(bytes);
    }
}

TEST_F(requests, an_empty_argument_is_an_argument) {
    start();
    resp_client client;
    EXPECT_EQ(client.call({"set", "", "empty key"}), "+OK\r\n");
    EXPECT_EQ(client.call({"get", ""}), "$9\r\nempty key\r\n");
    EXPECT_EQ(client.call({"set", "k", ""}), "+OK\r\n");
    EXPECT_EQ(client.call({"get", "k"}), "$0\r\n\r\n");
}

TEST_F(requests, arguments_hold_any_byte) {
    start();
    resp_client client;
    std::string every;
    for (int byte = 0; byte < 256; byte++) {
        every += static_cast<char>(byte);
    }
    EXPECT_EQ(client.call({"set", "k", every}), "+OK\r\n");
    EXPECT_EQ(client.call({"get", "k"}), "$256\r\n" + every + "\r\n");
}

TEST_F(requests, one_cut_short_at_any_byte_closes_the_connection) {
    start();
    std::string whole = request_frame({"GET", "k"});
    for (size_t length = 1; length < whole.size(); length++) {
        expect_refused(whole.substr(0, length));
    }
    resp_client client;
    EXPECT_TRUE(client.send(whole));
    EXPECT_EQ(client.frame(), "$-1\r\n");
}

TEST_F(requests, one_that_is_larger_than_a_single_read_is_still_one_delivery) {
    process& daemon = start();
    resp_client client;
    std::string value(100000, 'v');
    ASSERT_TRUE(deliver(daemon, client, request_frame({"set", "k", value})));
    EXPECT_EQ(client.frame(), "+OK\r\n");
    EXPECT_EQ(client.call({"strlen", "k"}), ":100000\r\n");
}

TEST_F(requests, one_whose_size_meets_the_read_size_is_served) {
    process& daemon = start();
    for (size_t total : {511u, 512u, 513u, 1024u, 4095u, 4096u, 4097u, 8192u}) {
        resp_client client;
        size_t fill = total - request_frame({"set", "k", ""}).size();
        while (request_frame({"set", "k", std::string(fill, 'v')}).size() > total) {
            fill--;
        }
        std::string frame = request_frame({"set", "k", std::string(fill, 'v')});
        ASSERT_EQ(frame.size(), total);
        ASSERT_TRUE(deliver(daemon, client, frame));
        EXPECT_EQ(client.frame(), "+OK\r\n");
        EXPECT_EQ(client.call({"strlen", "k"}), ":" + std::to_string(fill) + "\r\n");
    }
}

TEST_F(requests, one_that_is_followed_by_a_close_is_carried_out) {
    process& daemon = start();
    resp_client client;
    ASSERT_TRUE(daemon.halt());
    EXPECT_TRUE(client.send(request_frame({"set", "k", "v"})));
    client.close();
    daemon.resume();
    resp_client other;
    EXPECT_TRUE(eventually([&] { return other.call({"get", "k"}) == "$1\r\nv\r\n"; }));
}

TEST_F(requests, one_that_is_already_followed_by_the_end_is_answered_first) {
    process& daemon = start();
    resp_client client;
    ASSERT_TRUE(daemon.halt());
    EXPECT_TRUE(client.send(PING));
    client.end_sending();
    daemon.resume();
    EXPECT_EQ(client.until_closed(), "+OK\r\n");
}

TEST_F(requests, a_client_that_leaves_before_its_reply_harms_nobody) {
    process& daemon = start();
    resp_client other;
    ASSERT_TRUE(deliver(daemon, other, request_frame({"set", "big", std::string(150000, 'v')})));
    EXPECT_EQ(other.frame(), "+OK\r\n");
    for (int round = 0; round < 20; round++) {
        resp_client client;
        ASSERT_TRUE(daemon.halt());
        EXPECT_TRUE(client.send(request_frame({"get", "big"})));
        client.close();
        daemon.resume();
        EXPECT_EQ(other.call({"ping"}), "+OK\r\n");
    }
    EXPECT_TRUE(daemon.running());
}

TEST_F(requests, a_client_that_says_nothing_is_left_alone) {
    start();
    resp_client silent;
    resp_client other;
    EXPECT_EQ(other.call({"ping"}), "+OK\r\n");
    EXPECT_EQ(silent.during(100), "");
    EXPECT_EQ(silent.call({"ping"}), "+OK\r\n");
}

TEST_F(requests, clients_take_turns) {
    start();
    std::vector<resp_client> clients(20);
    for (int round = 1; round <= 5; round++) {
        for (size_t i = 0; i < clients.size(); i++) {
            EXPECT_EQ(clients[i].call({"incr", "k" + std::to_string(i)}),
                      ":" + std::to_string(round) + "\r\n");
        }
    }
}

TEST_F(requests, the_wire_is_the_same_over_tcp) {
    process& daemon = start({"-a", "127.0.0.1", "-p", "7100"}, "127.0.0.1", 7100);
    resp_client client("127.0.0.1", 7100);
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    EXPECT_TRUE(client.send(PING + PING));
    EXPECT_EQ(client.frame(), "+OK\r\n");
    EXPECT_EQ(client.during(100), "");
    std::string value(60000, 'v');
    ASSERT_TRUE(deliver(daemon, client, request_frame({"set", "k", value})));
    EXPECT_EQ(client.frame(), "+OK\r\n");
    EXPECT_EQ(client.call({"get", "k"}), "$60000\r\n" + value + "\r\n");
    EXPECT_TRUE(client.send("*1\r\n"));
    EXPECT_EQ(client.until_closed(), "");
}

TEST_F(arguments, with_just_enough_every_command_is_accepted) {
    start();
    resp_client client;
    for (const described_command& one : COMMAND_LIST) {
        EXPECT_EQ(client.call(request_for(one, one.arguments)), one.reply) << one.name;
    }
}

TEST_F(arguments, with_too_few_a_command_is_refused_and_nothing_is_run_or_traced) {
    process& daemon = start({"-l", "debug", "-f", "stdout"});
    resp_client client;
    for (const described_command& one : COMMAND_LIST) {
        for (size_t count = 0; count < one.arguments.size(); count++) {
            if (!fits(one.rule, count)) {
                EXPECT_EQ(client.call(request_for(one, lines(count, "1"))), "-ERR\r\n")
                    << one.name << " with " << count;
            }
        }
    }
    EXPECT_EQ(log_messages(daemon.out(), {"Received", "Replied"}), lines{});
    EXPECT_EQ(client.call({"exists", "1"}), ":0\r\n");
}

TEST_F(arguments, keys_and_values_must_come_in_pairs) {
    start();
    resp_client client;
    for (const char* name : {"mset", "msetnx"}) {
        EXPECT_EQ(client.call({name, "a"}), "-ERR\r\n");
        EXPECT_EQ(client.call({name, "a", "1", "b"}), "-ERR\r\n");
        EXPECT_EQ(client.call({name, "a", "1", "b", "2", "c"}), "-ERR\r\n");
    }
    EXPECT_EQ(client.call({"keys", "[abc]"}), "*0\r\n");
    EXPECT_EQ(client.call({"mset"}), "+OK\r\n");
    EXPECT_EQ(client.call({"msetnx"}), ":1\r\n");
    EXPECT_EQ(client.call({"hmset"}), "-ERR\r\n");
    EXPECT_EQ(client.call({"hmset", "h"}), "-ERR\r\n");
    EXPECT_EQ(client.call({"hmset", "h", "f"}), "-ERR\r\n");
    EXPECT_EQ(client.call({"hmset", "h", "f", "1", "g"}), "-ERR\r\n");
    EXPECT_EQ(client.call({"exists", "h"}), ":0\r\n");
    EXPECT_EQ(client.call({"hmset", "h", "f", "1", "g", "2"}), "+OK\r\n");
}

TEST_F(arguments, more_than_needed_are_accepted) {
    start();
    resp_client client;
    EXPECT_EQ(client.call({"hello", "me", "and", "you"}), "+OK\r\n");
    EXPECT_EQ(client.call({"set", "k", "v", "w", "x"}), "+OK\r\n");
    EXPECT_EQ(client.call({"get", "k", "other"}), "$1\r\nv\r\n");
    EXPECT_EQ(client.call({"ttl", "k", "other"}), ":-1\r\n");
    EXPECT_EQ(client.call({"incr", "n", "5"}), ":1\r\n");
    EXPECT_EQ(client.call({"setex", "k", "100", "v", "w"}), "+OK\r\n");
    EXPECT_EQ(client.call({"hset", "h", "f", "v", "g", "w"}), ":1\r\n");
    EXPECT_EQ(client.call({"hlen", "h", "other"}), ":1\r\n");
    EXPECT_EQ(client.call({"rpush", "l", "a"}), ":1\r\n");
    EXPECT_EQ(client.call({"rpushx", "l", "b", "c", "d"}), ":2\r\n");
    EXPECT_EQ(client.call({"lrange", "l", "0", "1", "2"}), "*2\r\n$1\r\na\r\n$1\r\nb\r\n");
    EXPECT_EQ(client.call({"observe", "all"}), "+OK\r\n");
    EXPECT_EQ(client.call(std::vector<std::string>(1000, "ping")), "+OK\r\n");
}

TEST_F(replies, of_every_size_come_whole) {
    process& daemon = start();
    resp_client client;
    /* 1990 and 1991 make frames of 1999 and 2000 bytes, where batching ends. */
    for (size_t size :
         {0u,    1u,    9u,    10u,   511u,  512u,  1989u,  1990u,  1991u,  1992u,  3989u,  3990u,
          3991u, 3992u, 4087u, 4088u, 4089u, 4096u, 65526u, 65527u, 65528u, 65536u, 150000u}) {
        SCOPED_TRACE(size);
        std::string value = value_of(size);
        ASSERT_TRUE(deliver(daemon, client, request_frame({"set", "k", value})));
        EXPECT_EQ(client.frame(), "+OK\r\n");
        EXPECT_TRUE(client.call({"get", "k"}) == bulk(value));
    }
    EXPECT_EQ(client.during(50), "");
}

TEST_F(replies, of_nearly_a_mebibyte_come_whole) {
    process& daemon = start();
    resp_client client;
    if (!client.hold_unread(1048576)) {
        GTEST_SKIP() << "the kernel holds too few bytes for an ordinary user";
    }
    std::string value = value_of(1000000);
    ASSERT_TRUE(deliver(daemon, client, request_frame({"set", "k", value})));
    EXPECT_EQ(client.frame(), "+OK\r\n");
    for (int round = 0; round < 3; round++) {
        EXPECT_TRUE(client.call({"get", "k"}) == bulk(value));
    }
}

TEST_F(replies, of_many_elements_come_whole) {
    start();
    resp_client client;
    std::string value = value_of(1000);
    EXPECT_EQ(client.call({"set", "k", value}), "+OK\r\n");
    for (size_t count : {1u, 2u, 4u, 5u, 64u, 65u, 200u, 900u}) {
        SCOPED_TRACE(count);
        std::vector<std::string> words(count + 1, "k");
        words[0] = "mget";
        std::string expected = "*" + std::to_string(count) + "\r\n";
        for (size_t i = 0; i < count; i++) {
            expected += bulk(value);
        }
        EXPECT_TRUE(client.call(words) == expected);
    }
}

TEST_F(replies, that_would_pend_beyond_a_mebibyte_close_the_connection) {
    process& daemon = start();
    resp_client other;
    std::string value = value_of(100000);
    ASSERT_TRUE(deliver(daemon, other, request_frame({"set", "k", value})));
    EXPECT_EQ(other.frame(), "+OK\r\n");
    resp_client client;
    std::vector<std::string> words(31, "k");
    words[0] = "mget";
    EXPECT_TRUE(client.send(request_frame(words)));
    /* Nothing is read while the daemon writes: the kernel takes a part, and the rest does not fit.
     */
    EXPECT_TRUE(eventually([&] { return client.hung_up(); }));
    EXPECT_LT(client.until_closed().size(), 1048576u);
    EXPECT_EQ(other.call({"ping"}), "+OK\r\n");
}

TEST_F(limits, a_client_that_never_reads_is_closed_at_a_pending_mebibyte_while_others_are_served) {
    process& daemon = start();
    resp_client deaf;
    resp_client other;
    EXPECT_EQ(deaf.call({"ping"}), "+OK\r\n");
    ASSERT_TRUE(deliver(daemon, other, request_frame({"set", "k", std::string(100000, 'v')})));
    EXPECT_EQ(other.frame(), "+OK\r\n");
    int asked = 0;
    while (asked < 50 && !deaf.hung_up()) {
        deaf.send(request_frame({"get", "k"}));
        asked++;
        let_it_catch_up(other);
    }
    /* Ten replies of 100010 bytes fit into a mebibyte; the kernel holds a few more on the way. */
    EXPECT_GT(asked, 10);
    EXPECT_LT(asked, 20);
    std::string got = deaf.until_closed();
    EXPECT_LT(got.size(), 20u * 100010);
    EXPECT_EQ(other.call({"strlen", "k"}), ":100000\r\n");
}

TEST_F(limits, a_slow_reader_gets_everything_in_order) {
    process& daemon = start();
    resp_client slow;
    resp_client other;
    ASSERT_TRUE(deliver(daemon, other, request_frame({"set", "k", std::string(100000, 'v')})));
    EXPECT_EQ(other.frame(), "+OK\r\n");
    std::string expected;
    for (int i = 0; i < 8; i++) {
        EXPECT_TRUE(slow.send(request_frame({"get", "k"})));
        let_it_catch_up(other);
        EXPECT_TRUE(slow.send(request_frame({"incr", "n"})));
        let_it_catch_up(other);
        expected +=
            "$100000\r\n" + std::string(100000, 'v') + "\r\n:" + std::to_string(i + 1) + "\r\n";
    }
    std::string got;
    while (got.size() < expected.size()) {
        std::string piece = slow.bytes(std::min<size_t>(7777, expected.size() - got.size()));
        ASSERT_EQ(piece.find('<'), std::string::npos) << piece.substr(piece.find('<'));
        got += piece;
    }
    EXPECT_TRUE(got == expected);
    EXPECT_EQ(slow.call({"ping"}), "+OK\r\n");
}

TEST_F(limits, a_burst_of_one_mebibyte_closes_the_connection_unserved_and_one_byte_less_does_not) {
    process& daemon = start();
    resp_client client;
    if (!client.hold_unread(1048576)) {
        GTEST_SKIP() << "the kernel holds too few bytes for an ordinary user";
    }
    std::string request = request_frame({"incr", "n"});
    ASSERT_TRUE(deliver(daemon, client, request + std::string(1048575 - request.size(), 'x')));
    EXPECT_EQ(client.frame(), ":1\r\n");

    ASSERT_TRUE(deliver(daemon, client, request + std::string(1048576 - request.size(), 'x')));
    EXPECT_EQ(client.until_closed(), "");
    resp_client other;
    EXPECT_EQ(other.call({"get", "n"}), "$1\r\n1\r\n");
}

TEST_F(limits, at_a_hundred_descriptors_new_clients_are_closed_without_a_word) {
    process& daemon = start();
    std::vector<resp_client> clients;
    for (int i = 0; i < 150; i++) {
        clients.emplace_back();
        ASSERT_TRUE(clients.back().connected());
    }
    /* Three standard descriptors, the log and the listening socket are open; an emulator needs some
     * of its own. */
    size_t served = 0;
    while (served < clients.size() && clients[served].call({"ping"}) == "+OK\r\n") {
        served++;
    }
    if (sandbox::emulator().empty()) {
        EXPECT_EQ(served, 95u);
    } else {
        EXPECT_GE(served, 50u);
    }
    EXPECT_LE(served, 95u);
    for (size_t i = served; i < clients.size(); i++) {
        EXPECT_EQ(clients[i].until_closed(), "") << i;
    }
    for (size_t i = 0; i < served; i++) {
        EXPECT_EQ(clients[i].call({"ping"}), "+OK\r\n") << i;
    }

    clients.resize(served - 10);
    for (int i = 0; i < 10; i++) {
        resp_client client;
        bool admitted = eventually([&] {
            if (client.call({"ping"}) == "+OK\r\n") {
                return true;
            }
            client = resp_client();
            return false;
        });
        EXPECT_TRUE(admitted);
        clients.push_back(std::move(client));
    }
    EXPECT_TRUE(daemon.running());
}

TEST_F(limits, many_small_deliveries_do_not_make_the_daemon_grow) {
    process_options options;
    if (SANITIZED) { /* What was freed would be kept for a while. */
        options.environment = {"ASAN_OPTIONS=quarantine_size_mb=0"};
    }
    process& daemon = start({}, "/tmp/tessard.sock", 0, options);
    int rounds = sandbox::emulator().empty() ? 20000 : 2000;
    resp_client client;
    auto all_answered = [&](const std::vector<exchange>& exchanges) {
        for (const exchange& e : exchanges) {
            EXPECT_EQ(client.call(e.request), e.reply) << e.request[0];
        }
        return !HasFailure();
    };
    const std::vector<exchange> each_round = {
        {{"ping"}, "+OK\r\n"}, {{"set", "k", "v"}, "+OK\r\n"}, {{"nothing"}, "-ERR\r\n"}};
    /* What frees something of every kind. */
    const std::string item(100, 'i');
    const std::vector<exchange> some_rounds = {
        {{"rpush", "capped", item, item, item}, ":2\r\n"}, /* two more than fit */
        {{"lpop", "capped"}, "$100\r\n" + item + "\r\n"},
        {{"hset", "h", item, item}, ":1\r\n"},
        {{"hdel", "h", item}, ":1\r\n"},
        {{"rpush", "other", item}, ":1\r\n"},
        {{"set", "other", item}, "+OK\r\n"}, /* over a list */
        {{"del", "other"}, ":1\r\n"},
        {{"rpush", "again", item}, ":1\r\n"}, /* over what was deleted */
        {{"del", "again"}, ":1\r\n"},
    };
    auto one_round = [&](int i) {
        if (!all_answered(each_round) || (i % 4 == 0 && !all_answered(some_rounds))) {
            return false;
        }
        if (i % 10 == 0) {
            resp_client other;
            return other.send("*") && other.until_closed() == "";
        }
        return true;
    };
    EXPECT_EQ(client.call({"rpush", "capped", "first"}), ":1\r\n");
    EXPECT_EQ(client.call({"lmaxlen", "capped", "2"}), ":2\r\n");
    /* Let the daemon get all that it keeps: its tables, its first second's figures. */
    ASSERT_TRUE(eventually([&] { return client.call({"exists", "conn"}) == ":1\r\n"; }));
    for (int i = 0; i < rounds / 10; i++) {
        ASSERT_TRUE(one_round(i));
    }
    long before = daemon.status_kb("VmRSS");
    for (int i = 0; i < rounds; i++) {
        ASSERT_TRUE(one_round(i));
    }
    long after = daemon.status_kb("VmRSS");
    if (sandbox::emulator().empty()) {
        ASSERT_GT(before, 0);
        /* Less than a byte for each request; a sanitizer keeps records of its own. */
        EXPECT_LE(after - before, SANITIZED ? 4000 : 64);
    }
}

TEST_F(limits, a_flood_of_connections_is_served_one_after_the_other) {
    start();
    for (int i = 0; i < 2000; i++) {
        resp_client client;
        ASSERT_EQ(client.call({"incr", "n"}), ":" + std::to_string(i + 1) + "\r\n");
    }
}

TEST_F(traces, a_request_and_its_reply_are_traced_with_the_clients_name) {
    process& daemon = start_tracing();
    resp_client client;
    EXPECT_EQ(client.call({"get", "k"}), "$-1\r\n");
    EXPECT_EQ(client.call({"set", "k", "v w"}), "+OK\r\n");
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    EXPECT_EQ(client_messages(daemon, 7), (lines{
                                              "Received from client(\"anynomous0\"):\n GET(k)",
                                              "Replied to client(\"anynomous0\"): \n$-1\r\n",
                                              "Received from client(\"anynomous0\"):\n SET(k, v w)",
                                              "\"k\"(string): updated to \"v w\"",
                                              "Replied to client(\"anynomous0\"): \n+OK\r\n",
                                              "Received from client(\"anynomous0\"):\n PING()",
                                              "Replied to client(\"anynomous0\"): \n+OK\r\n",
                                          }));
}

TEST_F(traces, a_trace_is_one_coloured_record_on_standard_output) {
    process& daemon = start_tracing();
    resp_client client;
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    std::string out = daemon.out();
    size_t start = out.find("debug *** Received");
    ASSERT_NE(start, std::string::npos);
    /* Before the level stand the colour, five bytes, and the time stamp, twenty. */
    EXPECT_EQ(out.substr(start - 25, 5), "\033[38m");
    EXPECT_EQ(out.substr(start, out.find("\n\033[", start) + 1 - start),
              "debug *** Received from client(\"anynomous0\"):\n PING()\033[0m\n");
}

TEST_F(traces, a_whole_reply_is_shown_as_it_goes_over_the_wire) {
    process& daemon = start_tracing();
    resp_client client;
    EXPECT_EQ(client.call({"mget", "k", "none"}), "*2\r\n$-1\r\n$-1\r\n");
    EXPECT_EQ(client.call({"incrby", "k", "0x10"}), ":16\r\n");
    EXPECT_EQ(client.call({"incr", "tessard.run"}), "-ERR\r\n");
    EXPECT_EQ(client_messages(daemon, 7),
              (lines{
                  "Received from client(\"anynomous0\"):\n MGET(k, none)",
                  "Replied to client(\"anynomous0\"): \n*2\r\n$-1\r\n$-1\r\n",
                  "Received from client(\"anynomous0\"):\n INCRBY(k, 0x10)",
                  "\"k\"(string): updated to \"16\"",
                  "Replied to client(\"anynomous0\"): \n:16\r\n",
                  "Received from client(\"anynomous0\"):\n INCR(tessard.run)",
                  "Replied to client(\"anynomous0\"): \n-ERR\r\n",
              }));
}

TEST_F(traces, hello_renames_the_client_before_its_reply_is_traced) {
    process& daemon = start_tracing();
    resp_client client;
    EXPECT_EQ(client.call({"hello", "panel", "extra"}), "+OK\r\n");
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    client.close();
    EXPECT_EQ(client_messages(daemon, 7),
              (lines{
                  "Received from client(\"anynomous0\"):\n HELLO(panel, extra)",
                  "HELLO from client  2",
                  "Replied to client(\"panel\"): \n+OK\r\n",
                  "Received from client(\"panel\"):\n PING()",
                  "Replied to client(\"panel\"): \n+OK\r\n",
                  "closing client(\"panel\")",
                  "client destroyed",
              }));
}

TEST_F(traces, an_unknown_command_is_named_in_upper_case_and_not_traced_as_a_request) {
    process& daemon = start_tracing();
    resp_client client;
    EXPECT_EQ(client.call({"pong%s", "a"}), "-ERR\r\n");
    EXPECT_EQ(client_messages(daemon, 1), (lines{"Unknown command \"PONG%S\", replying error."}));
}

TEST_F(traces, a_malformed_request_shows_the_closing_alone) {
    process& daemon = start_tracing();
    resp_client client;
    EXPECT_TRUE(client.send("PING\r\n"));
    EXPECT_EQ(client.until_closed(), "");
    EXPECT_EQ(client_messages(daemon, 2),
              (lines{"closing client(\"anynomous0\")", "client destroyed"}));
}

TEST_F(traces, only_clients_that_sent_something_are_numbered) {
    process& daemon = start_tracing();
    resp_client first;
    resp_client silent;
    resp_client second;
    EXPECT_EQ(first.call({"hello", "one"}), "+OK\r\n");
    EXPECT_EQ(second.call({"nonsense"}), "-ERR\r\n");
    silent.close();
    resp_client broken;
    EXPECT_TRUE(broken.send("x"));
    EXPECT_EQ(broken.until_closed(), "");
    resp_client fourth;
    EXPECT_EQ(fourth.call({"ping"}), "+OK\r\n");
    EXPECT_EQ(second.call({"ping"}), "+OK\r\n");
    EXPECT_EQ(client_messages(daemon, 10), (lines{
                                               "Received from client(\"anynomous0\"):\n HELLO(one)",
                                               "HELLO from client  1",
                                               "Replied to client(\"one\"): \n+OK\r\n",
                                               "Unknown command \"NONSENSE\", replying error.",
                                               "closing client(\"anynomous2\")",
                                               "client destroyed",
                                               "Received from client(\"anynomous3\"):\n PING()",
                                               "Replied to client(\"anynomous3\"): \n+OK\r\n",
                                               "Received from client(\"anynomous1\"):\n PING()",
                                               "Replied to client(\"anynomous1\"): \n+OK\r\n",
                                           }));
}

TEST_F(traces, a_popped_item_is_named_after_its_reply) {
    process& daemon = start_tracing();
    resp_client client;
    EXPECT_EQ(client.call({"rpush", "l", "x"}), ":1\r\n");
    EXPECT_EQ(client.call({"lpop", "l"}), "$1\r\nx\r\n");
    EXPECT_EQ(client.call({"rpop", "l"}), "$-1\r\n");
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    lines found = client_messages(daemon, 11);
    ASSERT_GE(found.size(), 9u);
    found.resize(9);
    EXPECT_EQ(found, (lines{
                         "Received from client(\"anynomous0\"):\n RPUSH(l, x)",
                         "\"l\"(list): rpush to \"x\"",
                         "Replied to client(\"anynomous0\"): \n:1\r\n",
                         "Received from client(\"anynomous0\"):\n LPOP(l)",
                         "\"l\"(list): lpop \"x\"",
                         "Replied to client(\"anynomous0\"): \n$1\r\nx\r\n",
                         "[POP]  destrog (x)",
                         "Received from client(\"anynomous0\"):\n RPOP(l)",
                         "Replied to client(\"anynomous0\"): \n$-1\r\n",
                     }));
}

TEST_F(traces, text_from_clients_is_never_a_format) {
    process& daemon = start_tracing();
    resp_client client;
    EXPECT_EQ(client.call({"hello", "%s%n%d"}), "+OK\r\n");
    EXPECT_EQ(client.call({"set", "k", "%s%s%n"}), "+OK\r\n");
    EXPECT_EQ(client_messages(daemon, 6),
              (lines{
                  "Received from client(\"anynomous0\"):\n HELLO(%s%n%d)",
                  "HELLO from client  1",
                  "Replied to client(\"%s%n%d\"): \n+OK\r\n",
                  "Received from client(\"%s%n%d\"):\n SET(k, %s%s%n)",
                  "\"k\"(string): updated to \"%s%s%n\"",
                  "Replied to client(\"%s%n%d\"): \n+OK\r\n",
              }));
}

TEST_F(traces, a_trace_ends_at_its_first_nul) {
    process& daemon = start_tracing();
    resp_client client;
    EXPECT_EQ(client.call({"set", "k", std::string("a\0b", 3)}), "+OK\r\n");
    EXPECT_EQ(client.call({"get", "k"}), std::string("$3\r\na\0b\r\n", 9));
    EXPECT_EQ(client_messages(daemon, 5), (lines{
                                              "Received from client(\"anynomous0\"):\n SET(k, a",
                                              "\"k\"(string): updated to \"a\"",
                                              "Replied to client(\"anynomous0\"): \n+OK\r\n",
                                              "Received from client(\"anynomous0\"):\n GET(k)",
                                              "Replied to client(\"anynomous0\"): \n$3\r\na",
                                          }));
}

TEST_F(traces, a_message_of_512_bytes_or_more_carries_a_nul_at_its_end) {
    process& daemon = start_tracing();
    resp_client client;
    /* With a key of n bytes the text below has 43 + n. */
    const std::string head = "Received from client(\"anynomous0\"):\n EXISTS(";
    for (size_t length : {511u, 512u, 600u}) {
        SCOPED_TRACE(length);
        std::string key(length - head.size() - 1, 'x');
        EXPECT_EQ(client.call({"exists", key}), ":0\r\n");
        std::string text = head + key + ")";
        ASSERT_EQ(text.size(), length);
        if (length >= 512) {
            text += '\0';
        }
        lines found;
        EXPECT_TRUE(eventually([&] {
            found = log_messages(daemon.out(), {key + ")"});
            return !found.empty();
        }));
        ASSERT_EQ(found.size(), 1u);
        EXPECT_EQ(found[0], text);
    }
}

TEST_F(traces, an_enormous_request_is_traced_without_harm) {
    process& daemon = start_tracing();
    resp_client client;
    std::string value(100000, 'v');
    EXPECT_TRUE(deliver(daemon, client, request_frame({"set", "k", value})));
    EXPECT_EQ(client.frame(), "+OK\r\n");
    lines found = client_messages(daemon, 3);
    ASSERT_EQ(found.size(), 3u);
    EXPECT_TRUE(found[0] == "Received from client(\"anynomous0\"):\n SET(k, " + value + ")" + '\0');
}

TEST_F(traces, none_is_written_above_debug_level) {
    process& daemon = start({"-l", "info", "-f", "stdout"});
    resp_client client;
    EXPECT_EQ(client.call({"hello", "me"}), "+OK\r\n");
    EXPECT_EQ(client.call({"nonsense"}), "-ERR\r\n");
    client.close();
    resp_client other;
    EXPECT_EQ(other.call({"ping"}), "+OK\r\n");
    EXPECT_EQ(log_messages(daemon.out()),
              (lines{"application started with pid " + std::to_string(daemon.pid())}));
}
