/* Observation: what is announced, to whom, in which order, and what becomes of observers that leave
 * or do not read. */

#include <poll.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include "tests/system/model/frames.h"
#include "tests/system/support/daemon_test.h"
#include "tests/system/support/log_text.h"

using namespace system_test;

namespace {

typedef std::vector<std::string> words;

/* Clients whose sockets are watched for which of them gets something first. */
class watched_clients {
  public:
    watched_clients() : ready(epoll_create1(EPOLL_CLOEXEC)) {}
    watched_clients(const watched_clients&) = delete;
    watched_clients& operator=(const watched_clients&) = delete;
    ~watched_clients() {
        for (const int fd : sockets) {
            if (fd >= 0) {
                close(fd);
            }
        }
        close(ready);
    }

    void connect_one() {
        sockaddr_un path = {};
        path.sun_family = AF_UNIX;
        strcpy(path.sun_path, "/tmp/tessard.sock");
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&path), sizeof path), 0);
        epoll_event event = {};
        event.events = EPOLLIN | EPOLLET;
        event.data.u32 = static_cast<uint32_t>(sockets.size());
        EXPECT_EQ(epoll_ctl(ready, EPOLL_CTL_ADD, fd, &event), 0);
        sockets.push_back(fd);
    }

    void leave(size_t client) {
        close(sockets[client]);
        sockets[client] = -1;
    }

    /* Sends the command and waits until its client has an answer, which is not read. */
    void ask(size_t client, const words& request) {
        const std::string frame = request_frame(request);
        EXPECT_EQ(send(sockets[client], frame.data(), frame.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(frame.size()));
        pollfd answer = {sockets[client], POLLIN, 0};
        EXPECT_EQ(poll(&answer, 1, LIMIT_MS), 1);
    }

    /* What the client has got and not read yet, up to a few small frames. */
    std::string read_some(size_t client) {
        char chunk[4096];
        const ssize_t got = recv(sockets[client], chunk, sizeof chunk, MSG_DONTWAIT);
        return std::string(chunk, got > 0 ? static_cast<size_t>(got) : 0);
    }

    /* Reads everything and returns which clients got something since the last call, in order of the
     * first byte. What they got is added to the texts. */
    std::vector<size_t> who_heard(std::vector<std::string>* texts) {
        std::vector<size_t> order;
        epoll_event events[64];
        const int count = epoll_wait(ready, events, 64, 0);
        for (int i = 0; i < count; i++) {
            order.push_back(events[i].data.u32);
            texts->push_back(read_some(events[i].data.u32));
        }
        return order;
    }

  private:
    int ready;
    std::vector<int> sockets;
};

class observing : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        if (!IsSkipped()) {
            serve({});
        }
    }

    /* Starts the daemon with an issuer and one observer. */
    void serve(const words& arguments) {
        observer.close();
        issuer.close();
        if (daemon != nullptr) {
            daemon->stop();
        }
        daemon = &start(arguments);
        issuer = resp_client();
        observer = new_observer();
    }

    static resp_client new_observer() {
        resp_client made;
        EXPECT_EQ(made.call({"observe"}), "+OK\r\n");
        return made;
    }

    std::string call(const words& request) {
        return issuer.call(request);
    }

    /* The command is answered so, and the observer hears exactly these events. */
    void expect(const words& request, const std::string& reply, const std::vector<words>& events) {
        SCOPED_TRACE(::testing::PrintToString(request));
        EXPECT_EQ(call(request), reply);
        for (const words& event : events) {
            EXPECT_EQ(next_frame(observer), event_frame(event));
        }
        EXPECT_EQ(heard(observer, 0), "");
    }

    /* Makes changes of 10,000 bytes, which the readers read, until the slow observer is closed or 3
     * MB were announced. Returns all that was announced. */
    std::string announce_until_closed(const resp_client& slow,
                                      const std::vector<resp_client*>& readers) {
        std::string announced;
        for (int i = 0; announced.size() < 3000000 && !slow.hung_up() && !HasFailure(); i++) {
            const std::string value =
                std::string(10000, static_cast<char>('a' + i % 26)) + std::to_string(i);
            EXPECT_EQ(call({"set", "large", value}), "+OK\r\n");
            const std::string frame = event_frame({"MSET", "large", value});
            for (resp_client* reader : readers) {
                EXPECT_EQ(next_frame(*reader), frame);
            }
            announced += frame;
        }
        return announced;
    }

    process* daemon = nullptr;
    resp_client issuer{"/nowhere"};
    resp_client observer{"/nowhere"};
};

/* Clients 0 to 4 are connected. */
class order_of_notification : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        if (IsSkipped()) {
            return;
        }
        start();
        for (size_t i = 0; i < 5; i++) {
            clients.connect_one();
        }
    }

    /* The clients that hear of a change by the client, in order, the answer included. A try into
     * which one of the daemon's own figures came is made again. */
    std::vector<size_t> order_when_changed_by(size_t client,
                                              const words& request = {"set", "k", "v"}) {
        for (int attempt = 0; attempt < 10; attempt++) {
            std::vector<std::string> texts;
            clients.who_heard(&texts);
            texts.clear();
            clients.ask(client, request);
            std::vector<size_t> order = clients.who_heard(&texts);
            bool disturbed = false;
            for (const std::string& text : texts) {
                for (const std::string& frame : split_frames(text)) {
                    disturbed |= is_about_a_figure(frame);
                }
            }
            if (!disturbed) {
                return order;
            }
        }
        return {};
    }

    void observe(const std::vector<size_t>& which) {
        for (const size_t client : which) {
            clients.ask(client, {"observe"});
            clients.read_some(client);
        }
    }

    void leave(size_t client) {
        clients.leave(client);
        resp_client other;
        let_it_catch_up(other);
    }

    watched_clients clients;
};

typedef std::vector<size_t> order;

} // namespace

/* --- What is announced --- */

TEST_F(observing, every_string_command_that_changes_announces_the_new_value) {
    expect({"set", "k", "v"}, "+OK\r\n", {{"MSET", "k", "v"}});
    expect({"set", "k", "v"}, "+OK\r\n", {{"MSET", "k", "v"}});
    expect({"append", "k", "w"}, ":2\r\n", {{"MSET", "k", "vw"}});
    expect({"append", "new", "x"}, ":1\r\n", {{"MSET", "new", "x"}});
    expect({"getset", "k", "5"}, "$2\r\nvw\r\n", {{"MSET", "k", "5"}});
    expect({"setnx", "other", "1"}, ":1\r\n", {{"MSET", "other", "1"}});
    expect({"setex", "k", "1000", "7"}, "+OK\r\n", {{"MSET", "k", "7"}});
    expect({"incr", "k"}, ":8\r\n", {{"MSET", "k", "8"}});
    expect({"decr", "k"}, ":7\r\n", {{"MSET", "k", "7"}});
    expect({"incrby", "k", "0x10"}, ":23\r\n", {{"MSET", "k", "23"}});
    expect({"decrby", "k", "24"}, ":-1\r\n", {{"MSET", "k", "-1"}});
    expect({"incr", "number"}, ":1\r\n", {{"MSET", "number", "1"}});
}

TEST_F(observing, string_commands_that_change_nothing_announce_nothing) {
    expect({"set", "k", "text"}, "+OK\r\n", {{"MSET", "k", "text"}});
    expect({"get", "k"}, "$4\r\ntext\r\n", {});
    expect({"setnx", "k", "1"}, ":0\r\n", {});
    expect({"incr", "k"}, "-ERR\r\n", {});
    expect({"decrby", "k", "1"}, "-ERR\r\n", {});
    expect({"incrby", "new", "no number"}, "-ERR\r\n", {});
    expect({"setex", "k", "soon", "v"}, "-ERR\r\n", {});
    expect({"getset", "missing", "v"}, "$-1\r\n", {});
    expect({"msetnx", "k", "1", "l", "2"}, ":0\r\n", {});
    expect({"mget", "k", "l"}, "*2\r\n$4\r\ntext\r\n$-1\r\n", {});
    expect({"strlen", "k"}, ":4\r\n", {});
}

TEST_F(observing, mset_announces_each_key_by_itself_in_the_order_of_the_arguments) {
    expect({"mset", "b", "1", "a", "2", "c", "3"}, "+OK\r\n",
           {{"MSET", "b", "1"}, {"MSET", "a", "2"}, {"MSET", "c", "3"}});
    expect({"msetnx", "z", "1", "y", "2"}, ":1\r\n", {{"MSET", "z", "1"}, {"MSET", "y", "2"}});
    expect({"mset"}, "+OK\r\n", {});
}

TEST_F(observing, a_key_that_mset_names_twice_is_announced_once_with_its_last_value) {
    expect({"mset", "a", "1", "b", "2", "a", "3"}, "+OK\r\n",
           {{"MSET", "a", "3"}, {"MSET", "b", "2"}});
    expect({"msetnx", "c", "1", "c", "2"}, ":1\r\n", {{"MSET", "c", "2"}});
    /* Nothing is left waiting. */
    expect({"set", "a", "4"}, "+OK\r\n", {{"MSET", "a", "4"}});
    expect({"append", "c", "0"}, ":2\r\n", {{"MSET", "c", "20"}});
}

TEST_F(observing, every_hash_command_that_changes_announces_the_field) {
    expect({"hset", "h", "f", "1"}, ":1\r\n", {{"HMSET", "h", "f", "1"}});
    expect({"hset", "h", "f", "1"}, ":0\r\n", {{"HMSET", "h", "f", "1"}});
    expect({"hsetnx", "h", "g", "2"}, ":1\r\n", {{"HMSET", "h", "g", "2"}});
    expect({"hincrby", "h", "f", "5"}, ":6\r\n", {{"HMSET", "h", "f", "6"}});
    expect({"hincrby", "h", "f", "none"}, ":6\r\n", {{"HMSET", "h", "f", "6"}});
    expect({"hincrby", "h", "new", "5"}, ":5\r\n", {{"HMSET", "h", "new", "5"}});
    expect({"hmset", "h", "f", "7"}, "+OK\r\n", {{"HMSET", "h", "f", "7"}});
    expect({"hdel", "h", "f"}, ":1\r\n", {{"HDEL", "h", "f"}});
}

TEST_F(observing, hash_commands_that_change_nothing_announce_nothing) {
    expect({"hset", "h", "f", "text"}, ":1\r\n", {{"HMSET", "h", "f", "text"}});
    expect({"hsetnx", "h", "f", "1"}, ":0\r\n", {});
    expect({"hincrby", "h", "f", "1"}, "-ERR\r\n", {});
    expect({"hdel", "h", "none"}, ":0\r\n", {});
    expect({"hdel", "missing", "f"}, ":0\r\n", {});
    expect({"hgetall", "h"}, "*2\r\n$1\r\nf\r\n$4\r\ntext\r\n", {});
    expect({"hset", "h", "g", "1"}, ":1\r\n", {{"HMSET", "h", "g", "1"}});
}

TEST_F(observing, protected_fields_are_not_announced_as_deleted) {
    expect({"hdel", "tessard.run", "pid"}, ":0\r\n", {});
    expect({"hset", "tessard.run", "pid", "5"}, ":0\r\n", {{"HMSET", "tessard.run", "pid", "5"}});
}

/* The codes of a to e leave 9, 10, 0, 1 and 2 of 11 buckets: a walk finds c d e a b. */
TEST_F(observing, hmset_is_one_event_in_the_order_of_the_fields_of_the_hash) {
    expect({"hmset", "h", "a", "1", "b", "2", "c", "3", "d", "4", "e", "5"}, "+OK\r\n",
           {{"HMSET", "h", "c", "3", "d", "4", "e", "5", "a", "1", "b", "2"}});
    expect({"hmset", "h", "b", "6", "e", "7"}, "+OK\r\n", {{"HMSET", "h", "e", "7", "b", "6"}});
    expect({"hmset", "h", "b", "8", "c", "9", "b", "10"}, "+OK\r\n",
           {{"HMSET", "h", "c", "9", "b", "10"}});
}

TEST_F(observing, hdel_is_one_event_in_the_order_of_the_fields_of_the_hash) {
    call({"hmset", "h", "a", "1", "b", "2", "c", "3", "d", "4", "e", "5"});
    next_frame(observer);
    expect({"hdel", "h", "b", "none", "a", "d", "a"}, ":4\r\n", {{"HDEL", "h", "d", "a", "b"}});
    expect({"hgetall", "h"}, list_frame({"c", "3", "e", "5"}), {});
    expect({"hdel", "h", "c", "c", "c"}, ":3\r\n", {{"HDEL", "h", "c"}});
}

TEST_F(observing, a_field_that_is_deleted_and_set_again_is_announced_in_that_order) {
    call({"hset", "h", "f", "1"});
    call({"hdel", "h", "f"});
    call({"hset", "h", "f", "2"});
    EXPECT_EQ(next_frame(observer), event_frame({"HMSET", "h", "f", "1"}));
    EXPECT_EQ(next_frame(observer), event_frame({"HDEL", "h", "f"}));
    EXPECT_EQ(next_frame(observer), event_frame({"HMSET", "h", "f", "2"}));
}

TEST_F(observing, private_keys_are_announced_to_nobody) {
    expect({"set", "_k", "v"}, "+OK\r\n", {});
    expect({"append", "_k", "v"}, ":2\r\n", {});
    expect({"incr", "_n"}, ":1\r\n", {});
    expect({"mset", "_a", "1", "b", "2", "_", "3"}, "+OK\r\n", {{"MSET", "b", "2"}});
    expect({"hset", "_h", "f", "1"}, ":1\r\n", {});
    expect({"hmset", "_h", "g", "1", "i", "2"}, "+OK\r\n", {});
    expect({"hdel", "_h", "f", "g"}, ":2\r\n", {});
    expect({"hgetall", "_h"}, list_frame({"i", "2"}), {});
    expect({"set", "k_", "v"}, "+OK\r\n", {{"MSET", "k_", "v"}});
}

TEST_F(observing, deletions_and_expiries_of_keys_are_announced_to_nobody) {
    expect({"set", "k", "v"}, "+OK\r\n", {{"MSET", "k", "v"}});
    expect({"hset", "h", "f", "v"}, ":1\r\n", {{"HMSET", "h", "f", "v"}});
    expect({"del", "k", "h"}, ":2\r\n", {});
    expect({"setex", "gone", "0", "v"}, "+OK\r\n", {{"MSET", "gone", "v"}});
    expect({"set", "stays", "v"}, "+OK\r\n", {{"MSET", "stays", "v"}});
    expect({"expire", "stays", "1000"}, ":1\r\n", {});
    expect({"persist", "stays"}, ":1\r\n", {});
    EXPECT_TRUE(eventually([&] { return call({"exists", "gone"}) == ":0\r\n"; }));
    EXPECT_EQ(heard(observer, 0), "");
}

TEST_F(observing, a_hash_or_list_that_becomes_a_string_is_announced_as_a_string) {
    call({"hset", "h", "f", "v"});
    next_frame(observer);
    call({"rpush", "l", "item"});
    expect({"set", "h", "1"}, "+OK\r\n", {{"MSET", "h", "1"}});
    expect({"mset", "l", "2"}, "+OK\r\n", {{"MSET", "l", "2"}});
}

TEST_F(observing, values_and_names_come_with_every_byte) {
    const std::string bytes("\0\r\n!3\xff", 6);
    const std::string key("k\0y", 3);
    expect({"set", key, bytes}, "+OK\r\n", {{"MSET", key, bytes}});
    expect({"set", "k", ""}, "+OK\r\n", {{"MSET", key, ""}});
    expect({"set", "", "v"}, "+OK\r\n", {{"MSET", "", "v"}});
    expect({"hset", "h", bytes, key}, ":1\r\n", {{"HMSET", "h", bytes, key}});
    expect({"hdel", "h", ""}, ":1\r\n", {{"HDEL", "h", bytes}});
}

TEST_F(observing, what_changed_before_is_not_announced_later) {
    observer.close();
    let_it_catch_up(issuer);
    call({"hmset", "h", "a", "1", "b", "2", "c", "3"});
    call({"hdel", "h", "b"});
    call({"set", "k", "v"});
    observer = new_observer();
    EXPECT_EQ(heard(observer, 0), "");
    expect({"hset", "h", "d", "4"}, ":1\r\n", {{"HMSET", "h", "d", "4"}});
    expect({"hdel", "h", "a"}, ":1\r\n", {{"HDEL", "h", "a"}});
}

TEST_F(observing, every_frame_is_whole_whatever_its_size) {
    for (const size_t size : {1900, 1999, 2000, 2001, 4000, 4096, 5000, 30000}) {
        const std::string value(size, 'v');
        expect({"set", "k", value}, "+OK\r\n", {{"MSET", "k", value}});
    }
}

TEST_F(observing, a_frame_that_is_too_large_to_be_composed_is_not_sent_at_all) {
    observer.close();
    let_it_catch_up(issuer);
    /* Above 4 MiB in steps that the kernel hands on in one piece. */
    const std::string piece(30000, 'x');
    for (size_t i = 1; i <= 142; i++) {
        EXPECT_EQ(call({"append", "huge", piece}), ":" + std::to_string(i * piece.size()) + "\r\n");
    }
    observer = new_observer();
    expect({"append", "huge", "y"}, ":4260001\r\n", {});
    expect({"set", "k", "v"}, "+OK\r\n", {{"MSET", "k", "v"}});
    expect({"set", "huge", "small"}, "+OK\r\n", {{"MSET", "huge", "small"}});
}

/* What the kernel does not take of it is more than may wait. */
TEST_F(observing, a_frame_of_more_than_may_wait_closes_its_observers) {
    observer.close();
    let_it_catch_up(issuer);
    const std::string piece(30000, 'x');
    for (size_t i = 1; i <= 100; i++) {
        EXPECT_EQ(call({"append", "large", piece}),
                  ":" + std::to_string(i * piece.size()) + "\r\n");
    }
    resp_client other = new_observer();
    observer = new_observer();
    EXPECT_EQ(call({"append", "large", "y"}), ":3000001\r\n");
    for (resp_client* one : {&observer, &other}) {
        const std::string got = heard(*one, LIMIT_MS);
        ASSERT_GT(got.size(), 8U);
        EXPECT_EQ(got.substr(got.size() - 8), "<closed>");
        EXPECT_LT(got.size(), 2000000U);
    }
    observer = new_observer();
    expect({"set", "k", "v"}, "+OK\r\n", {{"MSET", "k", "v"}});
}

/* --- To whom --- */

TEST_F(observing, the_issuer_is_not_told_of_its_own_changes) {
    EXPECT_EQ(call({"observe"}), "+OK\r\n");
    for (const words& request :
         {words{"set", "k", "1"}, words{"mset", "k", "1", "l", "2"}, words{"getset", "k", "2"},
          words{"hmset", "h", "f", "v"}, words{"hdel", "h", "f"}, words{"ping"}}) {
        EXPECT_TRUE(issuer.send(request_frame(request)));
        EXPECT_NE(next_frame(issuer).substr(0, 1), "!") << request[0];
    }
    EXPECT_EQ(heard(issuer, 0), "");
}

TEST_F(observing, a_client_hears_of_changes_by_all_others) {
    EXPECT_EQ(issuer.call({"observe"}), "+OK\r\n");
    EXPECT_TRUE(observer.send(request_frame({"set", "a", "1"})));
    EXPECT_EQ(next_frame(observer), "+OK\r\n");
    EXPECT_EQ(next_frame(issuer), event_frame({"MSET", "a", "1"}));
    EXPECT_TRUE(issuer.send(request_frame({"set", "b", "2"})));
    EXPECT_EQ(next_frame(issuer), "+OK\r\n");
    EXPECT_EQ(next_frame(observer), event_frame({"MSET", "b", "2"}));
    EXPECT_EQ(heard(issuer, 0), "");
    EXPECT_EQ(heard(observer, 0), "");
}

TEST_F(observing, clients_that_do_not_observe_hear_nothing) {
    resp_client bystander;
    EXPECT_EQ(bystander.call({"ping"}), "+OK\r\n");
    expect({"set", "k", "v"}, "+OK\r\n", {{"MSET", "k", "v"}});
    EXPECT_EQ(bystander.during(0), "");
}

TEST_F(observing, many_observers_all_hear) {
    std::vector<resp_client> many;
    for (int i = 0; i < 60; i++) {
        many.push_back(new_observer());
    }
    for (int round = 0; round < 3; round++) {
        const std::string value = std::to_string(round);
        expect({"set", "k", value}, "+OK\r\n", {{"MSET", "k", value}});
        for (resp_client& one : many) {
            EXPECT_EQ(next_frame(one), event_frame({"MSET", "k", value}));
        }
    }
}

TEST_F(observing, arguments_of_observe_are_ignored) {
    resp_client other;
    EXPECT_EQ(other.call({"observe", "anything", "else"}), "+OK\r\n");
    expect({"set", "k", "v"}, "+OK\r\n", {{"MSET", "k", "v"}});
    EXPECT_EQ(next_frame(other), event_frame({"MSET", "k", "v"}));
}

TEST_F(observing, an_observer_that_asks_again_is_told_once) {
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(observer.send(request_frame({"observe"})));
        EXPECT_EQ(next_frame(observer), "+OK\r\n");
    }
    expect({"set", "k", "v"}, "+OK\r\n", {{"MSET", "k", "v"}});
}

TEST_F(observing, asking_again_is_warned_of_with_the_name_of_the_client) {
    serve({"-l", "warn", "-f", "stdout"});
    EXPECT_EQ(call({"ping"}), "+OK\r\n");
    EXPECT_EQ(daemon->out(), "");
    EXPECT_EQ(observer.call({"observe"}), "+OK\r\n");
    EXPECT_EQ(observer.call({"hello", "panel"}), "+OK\r\n");
    EXPECT_EQ(observer.call({"observe"}), "+OK\r\n");
    EXPECT_TRUE(
        eventually([&] { return log_messages(daemon->out(), {"redundantly"}).size() == 2; }));
    /* The first client that sent anything was the observer. */
    EXPECT_EQ(
        log_messages(daemon->out(), {"redundantly"}),
        (words{"client(\"anynomous0\") redundantly watch", "client(\"panel\") redundantly watch"}));
    for (const log_record& record : parse_log(daemon->out())) {
        EXPECT_EQ(record.level, "warn  *** ");
    }
}

TEST_F(observing, asking_again_is_not_warned_of_above_that_level) {
    serve({"-l", "error", "-f", "stdout"});
    EXPECT_EQ(observer.call({"observe"}), "+OK\r\n");
    let_it_catch_up(issuer);
    EXPECT_EQ(daemon->out(), "");
}

TEST_F(observing, each_frame_is_traced) {
    serve({"-l", "debug", "-f", "stdout"});
    expect({"hset", "h", "f", "v"}, ":1\r\n", {{"HMSET", "h", "f", "v"}});
    EXPECT_TRUE(eventually([&] { return !log_messages(daemon->out(), {"$5\r\nHMSET"}).empty(); }));
    std::vector<std::string> texts;
    for (const std::string& text :
         log_messages(daemon->out(), {"notified clients with", "HMSET"})) {
        if (text.find("cpu.") == std::string::npos) {
            texts.push_back(text);
        }
    }
    const auto frame = std::find(texts.begin(), texts.end(), event_frame({"HMSET", "h", "f", "v"}));
    ASSERT_NE(frame, texts.end());
    ASSERT_NE(frame, texts.begin());
    EXPECT_EQ(*(frame - 1), "notified clients with: ");
}

TEST_F(observing, nothing_is_traced_of_frames_while_nobody_observes) {
    serve({"-l", "debug", "-f", "stdout"});
    observer.close();
    let_it_catch_up(issuer);
    const size_t before = log_messages(daemon->out(), {"notified clients with"}).size();
    EXPECT_EQ(call({"set", "k", "v"}), "+OK\r\n");
    EXPECT_TRUE(
        eventually([&] { return !log_messages(daemon->out(), {"updated to \"v\""}).empty(); }));
    let_it_catch_up(issuer);
    EXPECT_EQ(log_messages(daemon->out(), {"notified clients with"}).size(), before);
}

/* --- In which order --- */

TEST_F(order_of_notification,
       the_most_recent_observer_hears_first_and_the_issuer_is_answered_last) {
    observe({0, 1, 2});
    EXPECT_EQ(order_when_changed_by(4), (order{2, 1, 0, 4}));
    EXPECT_EQ(order_when_changed_by(3, {"hset", "h", "f", "v"}), (order{2, 1, 0, 3}));
}

TEST_F(order_of_notification, it_is_the_order_of_observing_not_of_connecting) {
    observe({3, 0, 4, 1});
    EXPECT_EQ(order_when_changed_by(2), (order{1, 4, 0, 3, 2}));
}

TEST_F(order_of_notification, an_issuer_that_observes_is_passed_over_and_answered_last) {
    observe({0, 1, 2});
    EXPECT_EQ(order_when_changed_by(2), (order{1, 0, 2}));
    EXPECT_EQ(order_when_changed_by(1), (order{2, 0, 1}));
    EXPECT_EQ(order_when_changed_by(0), (order{2, 1, 0}));
}

TEST_F(order_of_notification, asking_again_does_not_change_the_order) {
    observe({0, 1, 2, 0, 1});
    EXPECT_EQ(order_when_changed_by(4), (order{2, 1, 0, 4}));
}

TEST_F(order_of_notification, the_first_in_the_order_can_leave) {
    observe({0, 1, 2, 3});
    leave(3);
    EXPECT_EQ(order_when_changed_by(4), (order{2, 1, 0, 4}));
    leave(2);
    EXPECT_EQ(order_when_changed_by(4), (order{1, 0, 4}));
}

TEST_F(order_of_notification, one_in_the_middle_can_leave) {
    observe({0, 1, 2, 3});
    leave(1);
    EXPECT_EQ(order_when_changed_by(4), (order{3, 2, 0, 4}));
    leave(2);
    EXPECT_EQ(order_when_changed_by(4), (order{3, 0, 4}));
}

TEST_F(order_of_notification, the_last_in_the_order_can_leave) {
    observe({0, 1, 2, 3});
    leave(0);
    EXPECT_EQ(order_when_changed_by(4), (order{3, 2, 1, 4}));
    leave(1);
    EXPECT_EQ(order_when_changed_by(4), (order{3, 2, 4}));
}

TEST_F(order_of_notification, all_can_leave_and_others_come) {
    observe({0, 1, 2});
    for (const size_t gone : {1, 2, 0}) {
        leave(gone);
    }
    EXPECT_EQ(order_when_changed_by(4), (order{4}));
    observe({3});
    EXPECT_EQ(order_when_changed_by(4), (order{3, 4}));
    clients.connect_one();
    observe({5});
    EXPECT_EQ(order_when_changed_by(4), (order{5, 3, 4}));
}

TEST_F(order_of_notification, after_any_one_left_the_next_to_leave_may_be_any_other) {
    for (size_t first = 0; first < 4; first++) {
        for (size_t second = 0; second < 4; second++) {
            if (second == first) {
                continue;
            }
            watched_clients others;
            for (size_t i = 0; i < 4; i++) {
                others.connect_one();
                others.ask(i, {"observe"});
            }
            order rest = {3, 2, 1, 0};
            for (const size_t gone : {first, second}) {
                others.leave(gone);
                rest.erase(std::find(rest.begin(), rest.end(), gone));
            }
            resp_client witness;
            let_it_catch_up(witness);
            std::vector<std::string> texts;
            others.who_heard(&texts);
            EXPECT_EQ(witness.call({"set", "k", "v"}), "+OK\r\n");
            EXPECT_EQ(others.who_heard(&texts), rest) << first << " and " << second << " left";
        }
    }
}

/* --- Observers that leave or do not read --- */

TEST_F(observing, an_observer_that_does_not_read_is_closed_when_a_megabyte_waits) {
    for (const size_t place : {0, 1, 2}) {
        SCOPED_TRACE(place);
        std::vector<resp_client> all;
        for (int i = 0; i < 3; i++) {
            all.push_back(new_observer());
        }
        std::vector<resp_client*> readers = {&observer};
        for (size_t i = 0; i < all.size(); i++) {
            if (i != place) {
                readers.push_back(&all[i]);
            }
        }
        const std::string announced = announce_until_closed(all[place], readers);
        EXPECT_TRUE(all[place].hung_up());
        EXPECT_GT(announced.size(), size_t{1} << 20);
        /* What the kernel had taken is still to be read, in order and with nothing left out. */
        const std::string got = heard(all[place], LIMIT_MS);
        ASSERT_GT(got.size(), 8U);
        EXPECT_EQ(got.substr(got.size() - 8), "<closed>");
        EXPECT_EQ(announced.compare(0, got.size() - 8, got, 0, got.size() - 8), 0);
        EXPECT_LT(got.size() - 8, announced.size());
        expect({"set", "k", "v"}, "+OK\r\n", {{"MSET", "k", "v"}});
        for (resp_client* reader : readers) {
            if (reader != &observer) {
                EXPECT_EQ(next_frame(*reader), event_frame({"MSET", "k", "v"}));
            }
        }
    }
}

TEST_F(observing, an_observer_that_reads_late_gets_everything_in_order) {
    resp_client late = new_observer();
    std::string announced;
    /* Less than a megabyte: nothing is lost even if the kernel takes none of it. */
    for (int i = 0; i < 95; i++) {
        const std::string value =
            std::string(10000, static_cast<char>('a' + i % 26)) + std::to_string(i);
        EXPECT_EQ(call({"set", "large", value}), "+OK\r\n");
        EXPECT_EQ(next_frame(observer), event_frame({"MSET", "large", value}));
    }
    EXPECT_FALSE(late.hung_up());
    for (int i = 0; i < 95; i++) {
        const std::string value =
            std::string(10000, static_cast<char>('a' + i % 26)) + std::to_string(i);
        EXPECT_EQ(next_frame(late), event_frame({"MSET", "large", value}));
    }
    EXPECT_EQ(call({"set", "k", "v"}), "+OK\r\n");
    EXPECT_EQ(next_frame(late), event_frame({"MSET", "k", "v"}));
}

/* The daemon finds the sockets closed in the middle of telling them, when the issuer is served
 * before they are, or has just closed them itself, when they are served first: it goes through its
 * clients in the order of connecting. */
TEST_F(observing, observers_that_close_just_before_a_change_harm_nobody) {
    for (const bool issuer_is_served_first : {true, false}) {
        for (unsigned gone = 1; gone < 16; gone++) {
            SCOPED_TRACE("closed: " + std::to_string(gone));
            if (issuer_is_served_first) {
                issuer = resp_client();
            }
            EXPECT_EQ(call({"ping"}), "+OK\r\n");
            std::vector<resp_client> all;
            for (int i = 0; i < 4; i++) {
                all.push_back(new_observer());
            }
            if (!issuer_is_served_first) {
                issuer = resp_client();
                EXPECT_EQ(call({"ping"}), "+OK\r\n");
            }
            ASSERT_TRUE(daemon->halt());
            for (unsigned i = 0; i < all.size(); i++) {
                if ((gone >> i & 1) != 0) {
                    all[i].close();
                }
            }
            EXPECT_TRUE(issuer.send(request_frame({"hset", "h", "f", "v"})));
            daemon->resume();
            EXPECT_EQ(issuer.frame().substr(0, 1), ":");
            EXPECT_EQ(next_frame(observer), event_frame({"HMSET", "h", "f", "v"}));
            EXPECT_EQ(call({"set", "k", "v"}), "+OK\r\n");
            EXPECT_EQ(next_frame(observer), event_frame({"MSET", "k", "v"}));
            for (unsigned i = 0; i < all.size(); i++) {
                if ((gone >> i & 1) == 0) {
                    EXPECT_EQ(next_frame(all[i]), event_frame({"HMSET", "h", "f", "v"}));
                    EXPECT_EQ(next_frame(all[i]), event_frame({"MSET", "k", "v"}));
                }
            }
        }
    }
}

TEST_F(observing, an_issuer_that_observes_and_closes_at_once_has_its_change_announced) {
    resp_client brief;
    EXPECT_EQ(brief.call({"observe"}), "+OK\r\n");
    ASSERT_TRUE(daemon->halt());
    EXPECT_TRUE(brief.send(request_frame({"set", "k", "last words"})));
    brief.close();
    daemon->resume();
    EXPECT_EQ(next_frame(observer), event_frame({"MSET", "k", "last words"}));
    expect({"set", "k", "v"}, "+OK\r\n", {{"MSET", "k", "v"}});
}

TEST_F(observing, an_observer_whose_request_cannot_be_read_is_closed_and_told_nothing_more) {
    EXPECT_TRUE(observer.send("observe\r\n"));
    const std::string rest = heard(observer, 2000);
    EXPECT_EQ(rest, "<closed>");
    EXPECT_EQ(call({"set", "k", "v"}), "+OK\r\n");
    observer = new_observer();
    expect({"set", "k", "w"}, "+OK\r\n", {{"MSET", "k", "w"}});
}

TEST_F(observing, observers_come_and_go_a_thousand_times) {
    for (int i = 0; i < (sandbox::emulator().empty() ? 1000 : 100) && !HasFailure(); i++) {
        resp_client brief = new_observer();
        const std::string value = std::to_string(i);
        expect({"set", "k", value}, "+OK\r\n", {{"MSET", "k", value}});
        EXPECT_EQ(next_frame(brief), event_frame({"MSET", "k", value}));
    }
}
