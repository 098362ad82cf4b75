#include "loop/connection.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "loop/endpoint.h"
#include "loop/loop.h"
#include "loop/server.h"
#include "tests/unit/support/backends.h"
#include "tests/unit/support/test_kernel.h"

using test_kernel::recv_answers;
using test_kernel::send_answers;

namespace {

constexpr int LIMIT = 100;

struct connection_test;

/* A connection of a test with its other end, and what the layer above was told. */
struct stream {
    connection* c; /* null once destroyed */
    int peer;
    std::function<void()> on_data;                            /* instead of taking the input */
    std::function<void()> on_destroy;                         /* in the close callback */
    std::function<const char*(uint32_t* length)> next_output; /* the producer's next chunk */

    std::string received;
    int deliveries;
    int closes;
    int reason;
    int error;
    uint32_t input_left;
};

stream& stream_of(connection* c) {
    return *static_cast<stream*>(c->user_data);
}

void note_data(connection* c) {
    stream& s = stream_of(c);
    s.deliveries++;
    if (s.on_data) {
        s.on_data();
        return;
    }
    s.received.append(c->input.data, c->input.length);
    buffer_reset(&c->input);
}

void note_close(connection* c, int reason) {
    stream& s = stream_of(c);
    s.closes++;
    s.reason = reason;
    s.error = c->error;
    s.input_left = c->input.length;
    if (s.on_destroy) {
        s.on_destroy();
    }
    s.c = nullptr;
}

const char* pull(connection* c, uint32_t* length) {
    return stream_of(c).next_output(length);
}

int note_fired(void* argument) {
    (*static_cast<std::function<void()>*>(argument))();
    return 1;
}

/* Stands last in the line of what a pass destroys, and so sees the pass as it ended. */
struct pass_end {
    loop_closing closing; /* first: a pointer to it is a pointer to the record */
    connection_test* test;
    bool behind_others;
};

void on_pass(int fd, unsigned mask, void* argument);
void on_pass_end(loop_closing* closing);

struct connection_test : testing::TestWithParam<loop_backend> {
    /* What a test does at the end of a pass; false ends the run. */
    typedef std::function<bool()> step;

    void SetUp() override {
        ASSERT_TRUE(loop_init(LIMIT, GetParam()));
        owner.fd = -1;
        owner.references = 1;
        send_answers.clear();
        recv_answers.clear();
        end.closing.destroy = on_pass_end;
        end.test = this;
        ticker = eventfd(1, EFD_CLOEXEC);
        loop_add_handler(ticker, LOOP_READABLE, on_pass, &end);
    }

    void TearDown() override {
        for (stream& s : streams) {
            s.on_destroy = {};
            if (s.c != nullptr) {
                connection_close(s.c);
            }
            close_peer(s);
        }
        /* The loop is stopped, so nobody else destroys them. It forgets its list below. */
        for (stream& s : streams) {
            if (s.c != nullptr) {
                s.c->closing.destroy(&s.c->closing);
            }
        }
        loop_init(LIMIT, GetParam());
        close(ticker);
    }

    /* A connection over a socket pair, of a server unless `server_of` is null. */
    stream& open_stream(server* server_of) {
        int ends[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        fcntl(ends[1], F_SETFL, O_NONBLOCK);
        return add_stream(ends[0], ends[1], server_of);
    }

    stream& open_stream() {
        return open_stream(&owner);
    }

    stream& add_stream(int fd, int peer, server* server_of) {
        connection* c = loop_add_connection(fd, server_of);
        streams.push_back({c, peer, {}, {}, {}, "", 0, 0, -1, -1, 0});
        c->user_data = &streams.back();
        c->conn_ondata = note_data;
        c->on_close = note_close;
        return streams.back();
    }

    /* Runs the loop and calls `at_pass_end` after each pass until it says false. One run a test. */
    void run(step at_pass_end) {
        next = std::move(at_pass_end);
        passes = 0;
        loop_run();
    }

    /* One pass for each step. */
    void run_steps(std::vector<std::function<void()>> steps) {
        size_t done = 0;
        run([&] {
            steps[done]();
            return ++done < steps.size();
        });
        EXPECT_EQ(done, steps.size());
    }

    void run_passes(int count) {
        run([&] { return --count > 0; });
    }

    /* Whether the condition came true. */
    bool run_until(std::function<bool()> condition) {
        bool met = false;
        run([&] {
            met = condition();
            return !met;
        });
        return met;
    }

    static void close_peer(stream& s) {
        if (s.peer >= 0) {
            close(s.peer);
            s.peer = -1;
        }
    }

    static void from_peer(stream& s, const std::string& bytes) {
        ASSERT_EQ(send(s.peer, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

    /* Everything that has arrived at the other end. */
    static std::string at_peer(stream& s) {
        std::string all;
        char chunk[65536];
        for (;;) {
            const ssize_t size = read(s.peer, chunk, sizeof chunk);
            if (size <= 0) {
                return all;
            }
            all.append(chunk, static_cast<size_t>(size));
        }
    }

    static void send_text(stream& s, const std::string& bytes) {
        connection_send(s.c, bytes.data(), static_cast<uint32_t>(bytes.size()));
    }

    /* Sends until the kernel refuses some. Returns what was sent. */
    static std::string fill_kernel(stream& s) {
        std::string sent;
        while (s.c->fd >= 0 && s.c->pending.length == 0 && sent.size() < (16u << 20)) {
            const std::string frame(5000, static_cast<char>('a' + sent.size() / 5000 % 26));
            sent += frame;
            send_text(s, frame);
        }
        EXPECT_GT(s.c->pending.length, 0u);
        return sent;
    }

    /* What the backend has to report for the descriptor at this moment. */
    static unsigned ready_mask(int fd) {
        const loop_backend_operations& backend =
            GetParam() == LOOP_EPOLL ? loop_epoll_backend : loop_select_backend;
        loop_event events[LOOP_MAX_EVENTS];
        const int count = backend.wait(0, events);
        for (int i = 0; i < count; i++) {
            if (events[i].fd == fd) {
                return events[i].mask;
            }
        }
        return 0;
    }

    server owner = {};
    pass_end end = {};
    int ticker = -1;
    int passes = 0;
    step next;
    std::deque<stream> streams;
};

void on_pass(int, unsigned, void* argument) {
    loop_destroy_later(&static_cast<pass_end*>(argument)->closing);
}

void on_pass_end(loop_closing* closing) {
    pass_end* end = reinterpret_cast<pass_end*>(closing);
    closing->queued = false;
    end->behind_others = !end->behind_others;
    if (end->behind_others) {
        /* Once more, behind what was closed after the record was queued. */
        loop_destroy_later(closing);
        return;
    }
    if (!end->test->next() || ++end->test->passes > 20000) {
        loop_stop();
    }
}

INSTANTIATE_TEST_SUITE_P(backends, connection_test, testing::Values(LOOP_SELECT, LOOP_EPOLL),
                         unit_test::backend_name);

/* --- A new connection --- */

TEST_P(connection_test, is_new_with_everything_cleared) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    connection* c = loop_add_connection(ends[0], &owner);
    EXPECT_EQ(c->fd, ends[0]);
    EXPECT_EQ(c->owner, &owner);
    EXPECT_EQ(c->conn_ondata, nullptr);
    EXPECT_EQ(c->on_close, nullptr);
    EXPECT_EQ(c->producer, nullptr);
    EXPECT_EQ(c->error, 0);
    EXPECT_EQ(c->reason, 0);
    EXPECT_EQ(c->user_data, nullptr);
    EXPECT_EQ(c->jump, nullptr);
    EXPECT_FALSE(c->closing.queued);
    EXPECT_TRUE(loop_has_handler(ends[0]));
    connection_close(c);
    close(ends[1]);
    run_passes(1);
}

TEST_P(connection_test, has_three_empty_buffers_with_their_limits) {
    const connection* c = open_stream().c;
    for (const buffer* b : {&c->input, &c->output, &c->pending}) {
        EXPECT_EQ(b->length, 0u);
        EXPECT_EQ(b->initial, 4096u);
    }
    EXPECT_EQ(c->input.limit, 1048576u);
    EXPECT_EQ(c->output.limit, 65536u);
    EXPECT_EQ(c->pending.limit, 1048576u);
}

TEST_P(connection_test, makes_its_descriptor_non_blocking_and_close_on_exec) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    ASSERT_EQ(fcntl(ends[0], F_GETFD), 0);
    add_stream(ends[0], ends[1], &owner);
    EXPECT_EQ(fcntl(ends[0], F_GETFD), FD_CLOEXEC);
    EXPECT_NE(fcntl(ends[0], F_GETFL) & O_NONBLOCK, 0);
}

TEST_P(connection_test, is_watched_for_input_alone) {
    stream& s = open_stream();
    EXPECT_EQ(ready_mask(s.c->fd), 0u);
    from_peer(s, "x");
    EXPECT_EQ(ready_mask(s.c->fd), 1u);
}

TEST_P(connection_test, a_descriptor_whose_flags_cannot_be_set_makes_none) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    /* The first question or change fails, or a later one. */
    for (const std::deque<int>& failures :
         {std::deque<int>{EIO}, std::deque<int>{EIO, EIO}, std::deque<int>{EIO, EIO, EIO}}) {
        test_kernel::fcntl_failures = failures;
        EXPECT_EQ(loop_add_connection(ends[0], &owner), nullptr);
        test_kernel::fcntl_failures.clear();
        EXPECT_FALSE(loop_has_handler(ends[0]));
        EXPECT_GE(fcntl(ends[0], F_GETFD), 0) << "it is still the caller's";
    }
    EXPECT_EQ(owner.references, 1u);
    EXPECT_EQ(owner.connections, nullptr);
    close(ends[0]);
    close(ends[1]);
}

TEST_P(connection_test, stands_at_the_front_of_its_servers_list_and_is_counted) {
    stream& first = open_stream();
    stream& second = open_stream();
    stream& third = open_stream();
    EXPECT_EQ(owner.references, 4u);
    EXPECT_EQ(owner.connections, third.c);
    EXPECT_EQ(third.c->next, second.c);
    EXPECT_EQ(second.c->next, first.c);
    EXPECT_EQ(first.c->next, nullptr);
    EXPECT_EQ(first.c->prev, second.c);
    EXPECT_EQ(second.c->prev, third.c);
    EXPECT_EQ(third.c->prev, nullptr);
}

TEST_P(connection_test, of_no_server_is_in_no_list) {
    stream& s = open_stream(nullptr);
    EXPECT_EQ(s.c->owner, nullptr);
    EXPECT_EQ(s.c->prev, nullptr);
    EXPECT_EQ(s.c->next, nullptr);
    EXPECT_EQ(owner.references, 1u);
}

TEST_P(connection_test, a_descriptor_at_the_limit_aborts) {
    EXPECT_DEATH(loop_add_connection(LIMIT, &owner),
                 "loop:690: loop_add_connection: Assertion "
                 "`fd < maxfd && files\\[fd\\]\\.cb == \\(\\(void "
                 "\\*\\)0\\)' failed");
}

TEST_P(connection_test, a_descriptor_that_has_a_handler_aborts) {
    EXPECT_EXIT(loop_add_connection(ticker, &owner), testing::KilledBySignal(SIGABRT),
                "fd < maxfd && files\\[fd\\]\\.cb == \\(\\(void \\*\\)0\\)");
}

/* --- Input --- */

TEST_P(connection_test, is_read_until_the_kernel_has_no_more_and_delivers_once) {
    for (server* server_of : {&owner, static_cast<server*>(nullptr)}) {
        stream& s = open_stream(server_of);
        std::string bytes;
        for (int i = 0; i < 3000; i++) {
            bytes += static_cast<char>('0' + i % 10);
        }
        from_peer(s, bytes);
    }
    run_passes(3);
    for (const stream& s : streams) {
        EXPECT_EQ(s.received.size(), 3000u);
        EXPECT_EQ(s.received.substr(505, 10), "5678901234");
        EXPECT_EQ(s.deliveries, 1);
    }
}

TEST_P(connection_test, is_read_on_after_exactly_one_chunk) {
    stream& s = open_stream();
    from_peer(s, std::string(512, 'a'));
    run_passes(2);
    EXPECT_EQ(s.received, std::string(512, 'a'));
    EXPECT_EQ(s.deliveries, 1);
    EXPECT_EQ(s.closes, 0);
}

TEST_P(connection_test, keeps_input_that_is_not_consumed) {
    stream& s = open_stream();
    s.on_data = [] {};
    from_peer(s, "one");
    run_steps({[&] { from_peer(s, "two"); },
               [&] {
                   EXPECT_EQ(s.deliveries, 2);
                   EXPECT_EQ(std::string(s.c->input.data, s.c->input.length), "onetwo");
               }});
}

TEST_P(connection_test, delivers_nothing_when_the_bytes_are_gone_already) {
    stream& one = open_stream();
    stream& other = open_stream();
    from_peer(one, "x");
    from_peer(other, "x");
    /* Whoever comes first takes the other's byte away, so that its event finds nothing. */
    char byte;
    one.on_data = [&] { EXPECT_EQ(recv(other.c->fd, &byte, 1, 0), 1); };
    other.on_data = [&] { EXPECT_EQ(recv(one.c->fd, &byte, 1, 0), 1); };
    run_passes(2);
    EXPECT_EQ(one.deliveries + other.deliveries, 1);
    EXPECT_EQ(one.closes + other.closes, 0);
}

TEST_P(connection_test, without_data_callback_nothing_is_delivered_flushed_or_produced) {
    stream& s = open_stream();
    s.c->conn_ondata = nullptr;
    int pulls = 0;
    s.next_output = [&](uint32_t*) {
        pulls++;
        return nullptr;
    };
    s.c->producer = pull;
    send_text(s, "batched");
    from_peer(s, "request");
    run_passes(2);
    EXPECT_EQ(std::string(s.c->input.data, s.c->input.length), "request");
    EXPECT_EQ(std::string(s.c->output.data, s.c->output.length), "batched");
    EXPECT_EQ(pulls, 0);
    EXPECT_EQ(at_peer(s), "");
}

TEST_P(connection_test, a_pipe_without_server_is_read) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    stream& s = add_stream(ends[0], ends[1], nullptr);
    ASSERT_EQ(write(s.peer, "output", 6), 6);
    run_steps({[&] {
                   EXPECT_EQ(s.received, "output");
                   close_peer(s);
               },
               [&] {
                   EXPECT_EQ(s.closes, 1);
                   EXPECT_EQ(s.reason, 4);
                   EXPECT_EQ(s.error, 0);
               }});
}

TEST_P(connection_test, an_interrupted_read_is_tried_again) {
    stream& s = open_stream();
    from_peer(s, "request");
    recv_answers = {EINTR, EINTR};
    run_passes(1);
    EXPECT_EQ(s.received, "request");
    EXPECT_EQ(s.closes, 0);
    EXPECT_TRUE(recv_answers.empty());
}

TEST_P(connection_test, a_failed_read_closes_with_reason_1_and_its_error_number) {
    stream& s = open_stream();
    from_peer(s, "request");
    recv_answers = {EIO};
    run_passes(1);
    EXPECT_EQ(s.deliveries, 0);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.reason, 1);
    EXPECT_EQ(s.error, EIO);
}

/* --- The end of the stream --- */

TEST_P(connection_test, a_peer_that_closes_ends_it_with_reason_4) {
    stream& s = open_stream();
    close_peer(s);
    run_passes(1);
    EXPECT_EQ(s.deliveries, 0);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.reason, 4);
    EXPECT_EQ(s.error, 0);
}

TEST_P(connection_test, data_is_delivered_before_the_end_of_the_stream_is_seen) {
    for (server* server_of : {&owner, static_cast<server*>(nullptr)}) {
        stream& s = open_stream(server_of);
        from_peer(s, "last words");
        close_peer(s);
    }
    run_steps({[&] {
                   for (const stream& s : streams) {
                       EXPECT_EQ(s.received, "last words");
                       EXPECT_EQ(s.closes, 0);
                   }
               },
               [&] {
                   for (const stream& s : streams) {
                       EXPECT_EQ(s.deliveries, 1);
                       EXPECT_EQ(s.closes, 1);
                       EXPECT_EQ(s.reason, 4);
                   }
               }});
}

TEST_P(connection_test, a_peer_that_only_stops_writing_still_gets_its_reply) {
    stream& s = open_stream();
    s.on_data = [&] {
        buffer_reset(&s.c->input);
        send_text(s, "reply");
    };
    from_peer(s, "request");
    shutdown(s.peer, SHUT_WR);
    run_passes(3);
    EXPECT_EQ(at_peer(s), "reply");
    EXPECT_EQ(s.reason, 4);
}

/* What the system gives as the pending error of a socket whose peer went away with unread bytes:
 * ECONNRESET, but an emulator may show the number that it has on the machine below. */
int pending_error_of_a_reset() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    EXPECT_EQ(write(ends[0], "x", 1), 1);
    close(ends[1]);
    int error = 0;
    socklen_t size = sizeof error;
    EXPECT_EQ(getsockopt(ends[0], SOL_SOCKET, SO_ERROR, &error, &size), 0);
    EXPECT_NE(error, 0);
    close(ends[0]);
    return error;
}

TEST_P(connection_test,
       a_reset_by_the_peer_is_a_read_failure_or_a_socket_error_as_the_backend_sees_it) {
    stream& s = open_stream();
    send_text(s, "never read");
    connection_flush(s.c);
    close_peer(s); /* with unread bytes, so that the other side is reset */
    run_passes(1);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.reason, GetParam() == LOOP_EPOLL ? 3 : 1);
    EXPECT_EQ(s.error, GetParam() == LOOP_EPOLL ? pending_error_of_a_reset() : ECONNRESET);
    EXPECT_EQ(s.deliveries, 0);
}

TEST_P(connection_test, a_socket_error_closes_before_input_is_read) {
    stream& s = open_stream();
    from_peer(s, "unread");
    send_text(s, "never read");
    connection_flush(s.c);
    close_peer(s);
    run_passes(2);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.error, GetParam() == LOOP_EPOLL ? pending_error_of_a_reset() : ECONNRESET);
    EXPECT_EQ(s.deliveries, 0);
    EXPECT_EQ(s.reason, GetParam() == LOOP_EPOLL ? 3 : 1);
}

/* --- The limit of the input --- */

TEST_P(connection_test, takes_a_mebibyte_of_input_less_a_byte) {
    stream& s = open_stream();
    s.on_data = [] {};
    size_t sent = 0;
    EXPECT_TRUE(run_until([&] {
        if (sent < 1048575) {
            const std::string bytes(std::min<size_t>(65536, 1048575 - sent), 'x');
            from_peer(s, bytes);
            sent += bytes.size();
            return false;
        }
        return true;
    }));
    EXPECT_EQ(s.closes, 0);
    EXPECT_EQ(s.c->input.length, 1048575u);
}

TEST_P(connection_test, input_that_fills_its_buffer_closes_with_reason_1) {
    stream& s = open_stream();
    s.on_data = [] {};
    size_t sent = 0;
    EXPECT_TRUE(run_until([&] {
        if (sent < 1048576) {
            from_peer(s, std::string(65536, 'x'));
            sent += 65536;
        }
        return s.closes > 0;
    }));
    EXPECT_EQ(sent, 1048576u);
    EXPECT_EQ(s.reason, 1);
    EXPECT_EQ(s.error, 79);
    EXPECT_EQ(s.input_left, 1048576u - 512u); /* the last chunk found no room */
}

TEST_P(connection_test, the_bytes_of_an_event_that_fills_the_buffer_are_not_delivered) {
    stream& s = open_stream();
    buffer_reserve(&s.c->input, 1048575);
    from_peer(s, "x");
    run_passes(1);
    EXPECT_EQ(s.deliveries, 0);
    EXPECT_EQ(s.reason, 1);
    EXPECT_EQ(s.error, 79);
}

/* --- Output --- */

TEST_P(connection_test, a_frame_of_1999_bytes_is_batched) {
    stream& s = open_stream();
    send_text(s, std::string(1999, 'x'));
    EXPECT_EQ(s.c->output.length, 1999u);
    EXPECT_EQ(at_peer(s), "");
}

TEST_P(connection_test, a_frame_of_2000_bytes_is_written_at_once) {
    stream& s = open_stream();
    send_text(s, std::string(2000, 'x'));
    EXPECT_EQ(s.c->output.length, 0u);
    EXPECT_EQ(at_peer(s), std::string(2000, 'x'));
}

TEST_P(connection_test, a_large_frame_is_written_behind_what_is_batched) {
    for (server* server_of : {&owner, static_cast<server*>(nullptr)}) {
        stream& s = open_stream(server_of);
        send_text(s, "first");
        send_text(s, std::string(2000, 'x'));
        EXPECT_EQ(at_peer(s), "first" + std::string(2000, 'x'));
        EXPECT_EQ(s.c->output.length, 0u);
    }
}

TEST_P(connection_test, the_batch_is_written_above_4000_bytes) {
    stream& s = open_stream();
    send_text(s, std::string(1999, 'a'));
    send_text(s, std::string(1999, 'b'));
    send_text(s, "cc");
    EXPECT_EQ(s.c->output.length, 4000u);
    EXPECT_EQ(at_peer(s), "");
    send_text(s, "d");
    EXPECT_EQ(s.c->output.length, 0u);
    EXPECT_EQ(at_peer(s), std::string(1999, 'a') + std::string(1999, 'b') + "ccd");
}

TEST_P(connection_test, a_frame_inside_the_batch_is_given_room_while_it_cannot_fail) {
    stream& s = open_stream();
    EXPECT_EQ(connection_batch(s.c, 1999), &s.c->output);
    EXPECT_EQ(connection_batch(s.c, 2000), nullptr);
    send_text(s, std::string(1999, 'a'));
    send_text(s, std::string(1000, 'a'));
    EXPECT_EQ(connection_batch(s.c, 1001), &s.c->output);
    EXPECT_EQ(connection_batch(s.c, 1002), nullptr);
    connection_flush(s.c);
    fill_kernel(s);
    EXPECT_EQ(connection_batch(s.c, 1), nullptr); /* it must go behind what is pending */
    connection_close(s.c);
    EXPECT_EQ(connection_batch(s.c, 1), nullptr);
}

TEST_P(connection_test, an_empty_frame_is_harmless) {
    stream& s = open_stream();
    connection_send(s.c, "", 0);
    connection_send(s.c, nullptr, 0);
    connection_flush(s.c);
    EXPECT_EQ(at_peer(s), "");
    fill_kernel(s);
    connection_send(s.c, "", 0);
    run_passes(1);
    EXPECT_EQ(s.closes, 0);
}

TEST_P(connection_test, flush_writes_the_batch) {
    stream& s = open_stream();
    send_text(s, "batched");
    connection_flush(s.c);
    EXPECT_EQ(at_peer(s), "batched");
    EXPECT_EQ(s.c->output.length, 0u);
    connection_flush(s.c);
    EXPECT_EQ(at_peer(s), "");
}

TEST_P(connection_test, replies_are_written_once_the_data_callback_returned) {
    stream& s = open_stream();
    s.on_data = [&] {
        buffer_reset(&s.c->input);
        send_text(s, "one ");
        send_text(s, "two");
        EXPECT_EQ(at_peer(s), "");
    };
    from_peer(s, "request");
    run_steps({[&] { EXPECT_EQ(at_peer(s), "one two"); }});
}

/* --- What the kernel refuses --- */

TEST_P(connection_test, what_the_kernel_refuses_waits_for_the_descriptor_to_become_writable) {
    stream& s = open_stream();
    EXPECT_EQ(ready_mask(s.c->fd), 0u);
    std::string sent = fill_kernel(s);
    std::string arrived;
    EXPECT_TRUE(run_until([&] {
        arrived += at_peer(s);
        return arrived.size() >= sent.size();
    }));
    EXPECT_EQ(arrived, sent);
    EXPECT_EQ(s.c->pending.length, 0u);
}

TEST_P(connection_test, interest_in_writing_ends_with_the_pending_bytes) {
    stream& s = open_stream();
    fill_kernel(s);
    at_peer(s);
    EXPECT_EQ(ready_mask(s.c->fd), 2u);
    run_steps({[&] { at_peer(s); },
               [&] {
                   at_peer(s);
                   EXPECT_EQ(s.c->pending.length, 0u);
                   EXPECT_EQ(ready_mask(s.c->fd), 0u);
               }});
}

TEST_P(connection_test, pending_bytes_give_their_memory_back_once_they_are_written) {
    stream& s = open_stream();
    const size_t sent = fill_kernel(s).size() + 300000;
    send_text(s, std::string(300000, 'x'));
    EXPECT_GE(s.c->pending.capacity, 300000u);
    size_t arrived = 0;
    EXPECT_TRUE(run_until([&] {
        arrived += at_peer(s).size();
        return arrived == sent;
    }));
    EXPECT_EQ(s.c->pending.capacity, CONNECTION_BUFFER_INITIAL);
}

TEST_P(connection_test, while_bytes_are_pending_all_output_goes_behind_them) {
    stream& s = open_stream();
    fill_kernel(s);
    const uint32_t before = s.c->pending.length;
    send_text(s, "small");
    send_text(s, std::string(3000, 'x'));
    EXPECT_EQ(s.c->pending.length, before + 3005);
    EXPECT_EQ(s.c->output.length, 0u);
}

TEST_P(connection_test, a_large_frame_does_not_overtake_a_batch_that_the_kernel_has_just_refused) {
    stream& s = open_stream();
    send_text(s, "batched");
    send_answers = {EAGAIN}; /* there is room again at the next call */
    send_text(s, std::string(2000, 'x'));
    EXPECT_EQ(s.c->pending.length, 2007u);
    run_steps({[&] { EXPECT_EQ(at_peer(s), "batched" + std::string(2000, 'x')); }});
}

TEST_P(connection_test, an_interrupted_write_is_tried_again) {
    stream& s = open_stream();
    send_answers = {EINTR, EINTR};
    send_text(s, std::string(2000, 'x'));
    EXPECT_EQ(at_peer(s), std::string(2000, 'x'));
    EXPECT_EQ(s.c->pending.length, 0u);
}

TEST_P(connection_test, a_write_of_no_bytes_is_a_refusal) {
    stream& s = open_stream();
    send_answers = {0};
    send_text(s, std::string(2000, 'x'));
    EXPECT_EQ(s.c->pending.length, 2000u);
    send_answers = {0};
    run_steps({[&] { EXPECT_EQ(s.c->pending.length, 2000u); },
               [&] { EXPECT_EQ(at_peer(s), std::string(2000, 'x')); }});
}

TEST_P(connection_test, frames_of_every_size_arrive_in_the_order_of_sending) {
    for (server* server_of : {&owner, static_cast<server*>(nullptr)}) {
        open_stream(server_of);
    }
    std::vector<std::string> sent(2);
    std::vector<std::string> arrived(2);
    size_t frames = 0;
    EXPECT_TRUE(run_until([&] {
        for (size_t i = 0; i < 2; i++) {
            stream& s = streams[i];
            /* Faster than the other end reads at first, slower later. */
            for (int burst = 0; burst < 20 && frames < 4000; burst++, frames++) {
                const std::string frame(1 + frames * 37 % 4500,
                                        static_cast<char>('a' + frames % 26));
                if (s.c->pending.length + frame.size() < 900000) {
                    sent[i] += frame;
                    send_text(s, frame);
                }
            }
            char chunk[30000];
            const ssize_t size = read(s.peer, chunk, sizeof chunk);
            arrived[i].append(chunk, size > 0 ? static_cast<size_t>(size) : 0);
            connection_flush(s.c);
        }
        return frames == 4000 && arrived[0].size() == sent[0].size() &&
               arrived[1].size() == sent[1].size();
    }));
    EXPECT_GT(sent[0].size(), 1000000u);
    EXPECT_TRUE(arrived[0] == sent[0]);
    EXPECT_TRUE(arrived[1] == sent[1]);
}

TEST_P(connection_test, a_mebibyte_less_a_byte_may_be_pending) {
    stream& s = open_stream();
    fill_kernel(s);
    send_text(s, std::string(1048575 - s.c->pending.length, 'x'));
    EXPECT_EQ(s.c->pending.length, 1048575u);
    EXPECT_GE(s.c->fd, 0);
    send_text(s, "y");
    EXPECT_EQ(s.c->fd, -1);
    run_passes(1);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.reason, 2);
    EXPECT_EQ(s.error, 79);
}

TEST_P(connection_test, a_frame_that_cannot_be_pending_whole_closes_with_reason_2) {
    stream& s = open_stream();
    const std::string sent = fill_kernel(s);
    const uint32_t before = s.c->pending.length;
    send_text(s, std::string(1048576 - before, 'x'));
    EXPECT_EQ(s.c->fd, -1);
    EXPECT_EQ(s.c->pending.length, before); /* nothing of the frame */
    run_passes(1);
    EXPECT_EQ(s.reason, 2);
    EXPECT_EQ(s.error, 79);
    EXPECT_EQ(at_peer(s), sent.substr(0, sent.size() - before));
}

TEST_P(connection_test, a_frame_larger_than_kernel_and_pending_closes_with_reason_2) {
    stream& s = open_stream();
    send_text(s, std::string(8u << 20, 'x'));
    EXPECT_EQ(s.c->fd, -1);
    run_passes(1);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.reason, 2);
    EXPECT_EQ(s.error, 79);
}

TEST_P(connection_test, a_client_that_stops_reading_is_closed_once_a_mebibyte_is_pending) {
    stream& s = open_stream();
    uint32_t before = 0;
    s.on_data = [&] {
        for (int i = 0; i < 100000 && s.c->fd >= 0; i++) {
            before = s.c->pending.length;
            send_text(s, std::string(1000, 'r'));
        }
    };
    from_peer(s, "request");
    run_passes(1);
    EXPECT_LT(before, 1048576u);
    EXPECT_GE(before + 1000, 1048576u);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.reason, 2);
    EXPECT_EQ(s.error, 79);
}

/* --- Write failures --- */

TEST_P(connection_test, a_failed_write_closes_with_reason_2_and_its_error_number) {
    stream& s = open_stream();
    close_peer(s);
    send_text(s, std::string(2000, 'x')); /* no signal either: the process goes on */
    EXPECT_EQ(s.c->fd, -1);
    EXPECT_EQ(s.closes, 0);
    run_passes(1);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.reason, 2);
    EXPECT_EQ(s.error, EPIPE);
}

TEST_P(connection_test, a_failed_flush_closes_with_reason_2) {
    stream& s = open_stream();
    send_text(s, "small");
    close_peer(s);
    connection_flush(s.c);
    EXPECT_EQ(s.c->fd, -1);
    run_passes(1);
    EXPECT_EQ(s.reason, 2);
    EXPECT_EQ(s.error, EPIPE);
}

TEST_P(connection_test, a_failed_flush_after_the_data_callback_closes_with_reason_2) {
    stream& s = open_stream();
    s.on_data = [&] { send_text(s, "small"); };
    from_peer(s, "request");
    close_peer(s);
    run_passes(2);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.reason, 2);
    EXPECT_EQ(s.error, EPIPE);
}

TEST_P(connection_test, without_server_a_failed_write_closes_likewise) {
    (void)signal(SIGPIPE, SIG_IGN);
    stream& s = open_stream(nullptr);
    close_peer(s);
    send_text(s, std::string(2000, 'x'));
    run_passes(1);
    EXPECT_EQ(s.reason, 2);
    EXPECT_EQ(s.error, EPIPE);
    (void)signal(SIGPIPE, SIG_DFL);
}

TEST_P(connection_test, a_failed_write_of_pending_bytes_leaves_the_error_number) {
    stream& s = open_stream();
    fill_kernel(s);
    s.c->error = 5;
    shutdown(s.peer, SHUT_RD); /* our writes fail from here on; our reads do not */
    at_peer(s);                /* makes the descriptor writable */
    ASSERT_EQ(ready_mask(s.c->fd), 2u);
    run_passes(1);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.reason, 2);
    EXPECT_EQ(s.error, 5);
}

/* --- Jump targets --- */

TEST_P(connection_test, has_a_jump_target_only_during_its_operations) {
    stream& s = open_stream();
    EXPECT_EQ(s.c->jump, nullptr);
    send_text(s, "batched");
    EXPECT_EQ(s.c->jump, nullptr);
    send_text(s, std::string(2000, 'x'));
    EXPECT_EQ(s.c->jump, nullptr);
    connection_flush(s.c);
    EXPECT_EQ(s.c->jump, nullptr);
    fill_kernel(s);
    EXPECT_EQ(s.c->jump, nullptr);
    s.on_data = [&] { EXPECT_NE(s.c->jump, nullptr); };
    from_peer(s, "request");
    run_steps({[&] {
        EXPECT_EQ(s.deliveries, 1);
        EXPECT_EQ(s.c->jump, nullptr);
    }});
}

TEST_P(connection_test, a_nested_operation_restores_the_target_around_it) {
    stream& s = open_stream();
    s.on_data = [&] {
        jmp_buf* const outer = s.c->jump;
        ASSERT_NE(outer, nullptr);
        send_text(s, "small");
        EXPECT_EQ(s.c->jump, outer);
        send_text(s, std::string(2000, 'x'));
        EXPECT_EQ(s.c->jump, outer);
        connection_flush(s.c);
        EXPECT_EQ(s.c->jump, outer);
        connection_close(s.c);
        EXPECT_EQ(s.c->jump, outer);
    };
    from_peer(s, "request");
    run_passes(1);
    EXPECT_EQ(s.deliveries, 1);
    EXPECT_EQ(s.reason, 0);
}

TEST_P(connection_test, a_failure_in_a_nested_operation_ends_that_operation_alone) {
    stream& s = open_stream();
    bool came_back = false;
    s.on_data = [&] {
        jmp_buf* const outer = s.c->jump;
        send_text(s, std::string(2000, 'x'));
        came_back = true;
        EXPECT_EQ(s.c->fd, -1);
        EXPECT_EQ(s.c->jump, outer);
        send_text(s, std::string(2000, 'y'));
        connection_close(s.c);
    };
    from_peer(s, "request");
    close_peer(s);
    run_steps({[&] {
        EXPECT_TRUE(came_back);
        EXPECT_EQ(s.closes, 1);
        EXPECT_EQ(s.reason, 2);
        EXPECT_EQ(s.error, EPIPE);
    }});
}

TEST_P(connection_test, a_failure_on_another_connection_leaves_this_one_alone) {
    stream& s = open_stream();
    stream& other = open_stream();
    s.on_data = [&] {
        jmp_buf* const outer = s.c->jump;
        close_peer(other);
        send_text(other, std::string(2000, 'x'));
        EXPECT_EQ(other.c->fd, -1);
        EXPECT_EQ(s.c->jump, outer);
        send_text(s, "reply");
    };
    from_peer(s, "request");
    run_passes(1);
    EXPECT_EQ(at_peer(s), "reply");
    EXPECT_EQ(s.closes, 0);
    EXPECT_EQ(other.closes, 1);
    EXPECT_EQ(other.reason, 2);
}

/* --- Closing --- */

TEST_P(connection_test, closing_writes_what_is_batched) {
    stream& s = open_stream();
    const int fd = s.c->fd;
    send_text(s, "goodbye");
    connection_close(s.c);
    EXPECT_EQ(s.c->fd, -1);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_FALSE(loop_has_handler(fd));
    EXPECT_EQ(at_peer(s), "goodbye");
    run_passes(1);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.reason, 0);
    EXPECT_EQ(s.error, 0);
}

TEST_P(connection_test, a_flush_that_fails_in_close_replaces_the_reason) {
    stream& s = open_stream();
    send_text(s, "goodbye");
    close_peer(s);
    connection_close(s.c);
    EXPECT_EQ(s.c->fd, -1);
    EXPECT_EQ(s.c->jump, nullptr);
    run_passes(1);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.reason, 2);
    EXPECT_EQ(s.error, EPIPE);
}

TEST_P(connection_test, closing_does_not_wait_for_pending_bytes) {
    stream& s = open_stream();
    fill_kernel(s);
    connection_close(s.c);
    EXPECT_EQ(s.c->fd, -1);
    run_passes(1);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.reason, 0);
}

TEST_P(connection_test, a_flush_after_its_end_writes_nothing_and_keeps_the_reason) {
    stream& s = open_stream();
    send_text(s, "batched");
    connection_fail_output(s.c);
    ASSERT_EQ(s.c->output.length, 7u);
    connection_flush(s.c);
    EXPECT_EQ(s.c->reason, 2);
    EXPECT_EQ(s.c->error, CONNECTION_BUFFER_FULL);
    EXPECT_EQ(at_peer(s), "");
}

TEST_P(connection_test, closed_by_the_readable_half_of_an_event_is_not_written_in_the_other) {
    stream& s = open_stream();
    fill_kernel(s);
    at_peer(s);
    from_peer(s, "input");
    s.on_data = [&] { connection_close(s.c); };
    ASSERT_EQ(ready_mask(s.c->fd), 3u);
    run_passes(2);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.reason, 0);
}

TEST_P(connection_test, is_queued_and_destroyed_once_however_often_it_is_closed) {
    stream& s = open_stream();
    connection_close(s.c);
    connection_close(s.c);
    connection_fail_output(s.c);
    connection_flush(s.c);
    EXPECT_EQ(s.c->reason, 0);
    EXPECT_EQ(s.c->error, 0);
    run_passes(3);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.reason, 0);
}

TEST_P(connection_test, closed_from_its_data_callback_drops_sends_and_tells_once_afterwards) {
    stream& s = open_stream();
    int pulls = 0;
    s.next_output = [&](uint32_t*) {
        pulls++;
        return nullptr;
    };
    s.c->producer = pull;
    s.on_data = [&] {
        send_text(s, "goodbye");
        connection_close(s.c);
        send_text(s, "dropped");
        send_text(s, std::string(2000, 'x'));
        connection_flush(s.c);
        connection_close(s.c);
        EXPECT_EQ(s.c->fd, -1);
        EXPECT_EQ(s.c->user_data, &s);
        EXPECT_EQ(s.closes, 0);
    };
    from_peer(s, "request");
    run_passes(3);
    EXPECT_EQ(s.deliveries, 1);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.reason, 0);
    EXPECT_EQ(pulls, 0);
    EXPECT_EQ(at_peer(s), "goodbye");
}

TEST_P(connection_test, is_destroyed_after_the_timers_of_the_pass) {
    stream& s = open_stream();
    int closes_at_scan = -1;
    std::function<void()> at_scan = [&] { closes_at_scan = s.closes; };
    loop_add_timer(0, note_fired, &at_scan);
    s.on_data = [&] {
        connection_close(s.c);
        usleep(110000); /* the scan is due in this pass */
    };
    from_peer(s, "request");
    run_passes(1);
    EXPECT_EQ(closes_at_scan, 0);
    EXPECT_EQ(s.closes, 1);
}

TEST_P(connection_test,
       closed_by_another_in_the_same_batch_it_is_not_called_and_not_yet_destroyed) {
    stream& one = open_stream();
    stream& other = open_stream();
    const auto close_the_other = [](stream& closing, stream& closed) {
        connection* c = closed.c;
        connection_close(c);
        EXPECT_EQ(c->fd, -1);
        EXPECT_EQ(closed.closes, 0);
        buffer_reset(&closing.c->input);
    };
    one.on_data = [&] { close_the_other(one, other); };
    other.on_data = [&] { close_the_other(other, one); };
    from_peer(one, "x");
    from_peer(other, "x");
    run_passes(1);
    EXPECT_EQ(one.deliveries + other.deliveries, 1);
    EXPECT_EQ(one.closes + other.closes, 1);
}

TEST_P(connection_test, a_new_one_may_take_the_descriptor_of_one_that_was_closed_in_the_same_pass) {
    stream& one = open_stream();
    stream& other = open_stream();
    stream* successor = nullptr;
    const auto replace = [&](stream& closed) {
        const int fd = closed.c->fd;
        connection_close(closed.c);
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        ASSERT_EQ(ends[0], fd);
        fcntl(ends[1], F_SETFL, O_NONBLOCK);
        successor = &add_stream(ends[0], ends[1], &owner);
    };
    one.on_data = [&] { replace(other); };
    other.on_data = [&] { replace(one); };
    from_peer(one, "x");
    from_peer(other, "x");
    /* The event that still comes for the number finds no byte. */
    run_steps({[&] {
                   ASSERT_NE(successor, nullptr);
                   EXPECT_EQ(successor->deliveries, 0);
                   EXPECT_EQ(successor->closes, 0);
                   EXPECT_EQ(one.closes + other.closes, 1);
                   from_peer(*successor, "hello");
               },
               [&] { EXPECT_EQ(successor->received, "hello"); }});
}

TEST_P(connection_test, the_close_callback_may_close_another) {
    stream& s = open_stream();
    stream& other = open_stream();
    s.on_destroy = [&] { connection_close(other.c); };
    connection_close(s.c);
    run_passes(1);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(other.closes, 1);
}

TEST_P(connection_test, the_close_callback_may_still_call_the_operations) {
    stream& s = open_stream();
    s.on_destroy = [&] {
        send_text(s, "dropped");
        connection_flush(s.c);
        connection_close(s.c);
    };
    connection_close(s.c);
    run_passes(2);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(at_peer(s), "");
}

TEST_P(connection_test, without_close_callback_is_destroyed_all_the_same) {
    stream& s = open_stream();
    s.c->on_close = nullptr;
    connection_close(s.c);
    run_passes(1);
    s.c = nullptr;
    EXPECT_EQ(owner.references, 1u);
    EXPECT_EQ(owner.connections, nullptr);
}

TEST_P(connection_test, a_frame_that_could_not_be_made_whole_closes_with_reason_2) {
    stream& s = open_stream();
    send_text(s, "batched");
    connection_fail_output(s.c);
    EXPECT_EQ(s.c->fd, -1);
    EXPECT_EQ(at_peer(s), ""); /* only reason 0 writes what is batched */
    run_passes(1);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.reason, 2);
    EXPECT_EQ(s.error, 79);
}

TEST_P(connection_test, destruction_unlinks_from_the_server_wherever_it_stands) {
    const std::vector<std::vector<size_t>> orders = {{0, 1, 2}, {1, 0, 2}, {2, 1, 0}, {1, 2, 0}};
    std::vector<std::function<void()>> steps;
    for (const std::vector<size_t>& order : orders) {
        for (size_t done = 0; done <= order.size(); done++) {
            steps.push_back([this, order, done] {
                if (done == 0) {
                    streams.clear();
                    for (int i = 0; i < 3; i++) {
                        open_stream();
                    }
                }
                uint32_t linked = 0;
                const connection* before = nullptr;
                for (const connection* c = owner.connections; c != nullptr; c = c->next) {
                    EXPECT_EQ(c->prev, before);
                    before = c;
                    linked++;
                }
                EXPECT_EQ(linked, 3 - done);
                EXPECT_EQ(owner.references, 1 + linked);
                if (done < 3) {
                    connection_close(streams[order[done]].c);
                    close_peer(streams[order[done]]);
                }
            });
        }
    }
    run_steps(steps);
}

/* --- The producer --- */

/* A producer of so many numbered chunks of one size, and all that it gave. */
struct chunks {
    int count;
    size_t size;
    std::string given = "";
    std::string current = "";

    const char* next(uint32_t* length) {
        if (count == 0) {
            return nullptr;
        }
        count--;
        current.assign(size, static_cast<char>('a' + count % 26));
        given += current;
        *length = static_cast<uint32_t>(current.size());
        return current.data();
    }
};

TEST_P(connection_test, the_producer_runs_after_the_data_callback_behind_its_reply) {
    stream& s = open_stream();
    chunks source = {3, 100};
    std::string arrived;
    s.next_output = [&](uint32_t* length) {
        if (source.count == 3) {
            arrived = at_peer(s);
        }
        return source.next(length);
    };
    s.on_data = [&] {
        buffer_reset(&s.c->input);
        send_text(s, "reply");
        s.c->producer = pull;
        EXPECT_EQ(source.count, 3);
    };
    from_peer(s, "request");
    run_steps({[&] {
        EXPECT_EQ(arrived, "reply");
        EXPECT_EQ(source.given.size(), 300u);
        EXPECT_EQ(at_peer(s), source.given);
        EXPECT_EQ(s.c->producer, nullptr);
        EXPECT_EQ(s.c->output.length, 0u);
    }});
}

TEST_P(connection_test, the_producer_stops_at_a_pending_byte_and_is_resumed_by_the_writable_event) {
    std::deque<chunks> producing;
    for (const size_t size : {700u, 3000u}) { /* batched, and written through */
        producing.push_back({static_cast<int>(2000000 / size), size});
        chunks& source = producing.back();
        stream& s = open_stream();
        s.next_output = [&source](uint32_t* length) { return source.next(length); };
        s.on_data = [&s] { s.c->producer = pull; };
        from_peer(s, "request");
    }
    std::vector<std::string> arrived(2);
    int passes_unfinished = 0;
    EXPECT_TRUE(run_until([&] {
        bool finished = true;
        for (size_t i = 0; i < 2; i++) {
            const connection* c = streams[i].c;
            if (c->producer != nullptr) {
                EXPECT_GT(c->pending.length, 0u); /* nothing else stops it */
                passes_unfinished++;
            }
            finished = finished && c->producer == nullptr && c->pending.length == 0;
            arrived[i] += at_peer(streams[i]);
        }
        return finished;
    }));
    EXPECT_GT(passes_unfinished, 2);
    for (size_t i = 0; i < 2; i++) {
        EXPECT_EQ(producing[i].given.size(), 2000000 / producing[i].size * producing[i].size);
        EXPECT_TRUE(arrived[i] == producing[i].given);
        EXPECT_EQ(ready_mask(streams[i].c->fd), 0u);
    }
}

TEST_P(connection_test, a_writable_event_starts_the_producer_and_ends_the_interest_with_it) {
    stream& s = open_stream();
    chunks source = {2, 10};
    s.next_output = [&](uint32_t* length) { return source.next(length); };
    s.c->producer = pull;
    loop_modify_handler(s.c->fd, LOOP_WRITABLE, 0);
    run_steps({[&] {
        EXPECT_EQ(at_peer(s), source.given);
        EXPECT_EQ(source.given.size(), 20u);
        EXPECT_EQ(s.c->producer, nullptr);
        EXPECT_EQ(ready_mask(s.c->fd), 0u);
    }});
}

TEST_P(connection_test, a_writable_event_with_nothing_to_write_ends_the_interest) {
    stream& s = open_stream();
    loop_modify_handler(s.c->fd, LOOP_WRITABLE, 0);
    EXPECT_EQ(ready_mask(s.c->fd), 2u);
    run_steps({[&] { EXPECT_EQ(ready_mask(s.c->fd), 0u); }});
    EXPECT_EQ(s.closes, 0);
}

TEST_P(connection_test, a_producer_may_close_its_connection) {
    stream& s = open_stream();
    int pulls = 0;
    s.next_output = [&](uint32_t* length) {
        pulls++;
        connection_close(s.c);
        *length = 4;
        return "lost";
    };
    s.on_data = [&] { s.c->producer = pull; };
    from_peer(s, "request");
    run_passes(3);
    EXPECT_EQ(pulls, 1);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.reason, 0);
}

TEST_P(connection_test, a_producer_whose_output_fails_is_asked_no_more) {
    stream& s = open_stream();
    int pulls = 0;
    const std::string chunk(2000, 'x');
    s.next_output = [&](uint32_t* length) {
        pulls++;
        *length = 2000;
        return chunk.data();
    };
    s.on_data = [&] { s.c->producer = pull; };
    from_peer(s, "request");
    close_peer(s);
    run_passes(3);
    EXPECT_EQ(pulls, 1);
    EXPECT_EQ(s.closes, 1);
    EXPECT_EQ(s.reason, 2);
    EXPECT_EQ(s.error, EPIPE);
}

} // namespace
