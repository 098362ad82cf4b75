#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "loop/loop.h"
#include "tests/unit/support/test_kernel.h"

using namespace test_kernel;

namespace {

constexpr int LIMIT = 200;

typedef const loop_backend_operations* operations;

/* A descriptor and the mask that was reported for it. */
typedef std::vector<std::pair<int, unsigned>> events;

/* Descriptors that are closed with the test. */
struct descriptors {
    ~descriptors() {
        for (const int fd : all) {
            close(fd);
        }
    }

    int keep(int fd) {
        EXPECT_GE(fd, 0);
        all.push_back(fd);
        return fd;
    }

    /* Always readable, and writable too. */
    int ready() {
        return keep(eventfd(1, EFD_CLOEXEC));
    }

    /* Writable, never readable. */
    int writable() {
        return keep(eventfd(0, EFD_CLOEXEC));
    }

    /* Neither. */
    int quiet() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        keep(ends[1]);
        return keep(ends[0]);
    }

    /* The same file under a number of the test's choice. */
    int at(int number, int fd) {
        EXPECT_EQ(fcntl(number, F_GETFD), -1) << number << " is in use";
        EXPECT_EQ(dup3(fd, number, O_CLOEXEC), number);
        return keep(number);
    }

    std::vector<int> all;
};

events wait_on(operations backend, int timeout_ms) {
    loop_event found[LOOP_MAX_EVENTS];
    const int count = backend->wait(timeout_ms, found);
    EXPECT_GE(count, 0);
    EXPECT_LE(count, LOOP_MAX_EVENTS);
    events result;
    for (int i = 0; i < count; i++) {
        result.emplace_back(found[i].fd, found[i].mask);
    }
    return result;
}

struct backend_test : testing::TestWithParam<operations> {
    void SetUp() override {
        backend = GetParam();
        backend->fini();
        ASSERT_NE(backend->init(LIMIT), 0);
        control_calls.clear();
    }

    void TearDown() override {
        backend->fini();
    }

    events wait(int timeout_ms = 0) {
        return wait_on(backend, timeout_ms);
    }

    operations backend;
    descriptors open;
};

std::string backend_name(const testing::TestParamInfo<operations>& backend) {
    return backend.param == &loop_epoll_backend ? "epoll" : "select";
}

INSTANTIATE_TEST_SUITE_P(backends, backend_test,
                         testing::Values(&loop_select_backend, &loop_epoll_backend), backend_name);

TEST_P(backend_test, reports_nothing_when_nothing_is_watched) {
    EXPECT_EQ(wait(), events{});
}

TEST_P(backend_test, reports_nothing_at_the_time_out) {
    backend->add(open.quiet(), LOOP_READABLE);
    EXPECT_EQ(wait(1), events{});
}

TEST_P(backend_test, reports_only_what_is_watched) {
    const int fd = open.ready();
    backend->add(fd, LOOP_READABLE);
    EXPECT_EQ(wait(), (events{{fd, 1}}));
    backend->del(fd, LOOP_READABLE);
    backend->add(fd, LOOP_WRITABLE);
    EXPECT_EQ(wait(), (events{{fd, 2}}));
}

TEST_P(backend_test, adding_merges_with_what_is_watched) {
    const int fd = open.ready();
    backend->add(fd, LOOP_READABLE);
    backend->add(fd, LOOP_WRITABLE);
    EXPECT_EQ(wait(), (events{{fd, 3}}));
    backend->add(fd, LOOP_READABLE);
    EXPECT_EQ(wait(), (events{{fd, 3}}));
}

TEST_P(backend_test, reports_only_what_is_ready) {
    const int fd = open.writable();
    backend->add(fd, LOOP_READABLE | LOOP_WRITABLE);
    EXPECT_EQ(wait(), (events{{fd, 2}}));
}

TEST_P(backend_test, deleting_leaves_the_rest) {
    const int fd = open.ready();
    backend->add(fd, LOOP_READABLE | LOOP_WRITABLE);
    backend->del(fd, LOOP_READABLE);
    EXPECT_EQ(wait(), (events{{fd, 2}}));
    backend->del(fd, LOOP_WRITABLE);
    EXPECT_EQ(wait(), events{});
}

TEST_P(backend_test, deleting_with_all_bits_stops_everything) {
    const int fd = open.ready();
    backend->add(fd, LOOP_READABLE | LOOP_WRITABLE);
    backend->del(fd, 7);
    EXPECT_EQ(wait(), events{});
}

TEST_P(backend_test, deleting_what_is_not_watched_does_nothing) {
    const int fd = open.ready();
    const int other = open.ready();
    backend->add(fd, LOOP_READABLE);
    backend->del(other, 7);
    backend->del(fd, LOOP_WRITABLE);
    EXPECT_EQ(wait(), (events{{fd, 1}}));
}

TEST_P(backend_test, a_descriptor_may_be_added_again_after_it_was_deleted) {
    const int fd = open.ready();
    backend->add(fd, LOOP_READABLE);
    backend->del(fd, 7);
    backend->add(fd, LOOP_READABLE);
    EXPECT_EQ(wait(), (events{{fd, 1}}));
}

TEST_P(backend_test, a_hang_up_is_readable) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    open.keep(ends[0]);
    close(ends[1]);
    backend->add(ends[0], LOOP_READABLE);
    EXPECT_EQ(wait(), (events{{ends[0], 1}}));
}

TEST_P(backend_test, a_signal_ends_the_wait_without_events) {
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &before);
    backend->add(open.quiet(), LOOP_READABLE);
    const itimerval soon = {{0, 20000}, {0, 20000}};
    const itimerval never = {};
    setitimer(ITIMER_REAL, &soon, nullptr);
    timespec before_wait;
    timespec after_wait;
    clock_gettime(CLOCK_MONOTONIC, &before_wait);
    EXPECT_EQ(wait(20000), events{});
    clock_gettime(CLOCK_MONOTONIC, &after_wait);
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_LT(after_wait.tv_sec - before_wait.tv_sec, 10);
    sigaction(SIGALRM, &before, nullptr);
}

TEST_P(backend_test, reports_at_most_a_batch) {
    for (int i = 0; i < LOOP_MAX_EVENTS + 20; i++) {
        backend->add(open.ready(), LOOP_READABLE);
    }
    EXPECT_EQ(wait().size(), size_t{LOOP_MAX_EVENTS});
}

TEST_P(backend_test, serves_descriptors_on_both_sides_of_every_word_of_the_sets) {
    const int source = open.ready();
    events expected;
    for (const int number : {31, 32, 33, 63, 64, 65, 95, 96, 127, 128, 199}) {
        backend->add(open.at(number, source), LOOP_READABLE);
        expected.push_back({number, 1});
    }
    events found = wait();
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, expected);
}

/* --- select alone --- */

struct select_backend_test : testing::Test {
    void SetUp() override {
        ASSERT_NE(backend->init(LIMIT), 0);
    }

    /* The highest descriptor that the backend asks the kernel about. */
    int highest() {
        select_descriptors = -100;
        wait_on(backend, 0);
        return select_descriptors - 1;
    }

    operations backend = &loop_select_backend;
    descriptors open;
};

TEST_F(select_backend_test, init_always_succeeds) {
    EXPECT_EQ(backend->init(0), 1);
    EXPECT_EQ(backend->init(4096), 1);
}

TEST_F(select_backend_test, init_forgets_what_was_watched) {
    backend->add(open.ready(), LOOP_READABLE | LOOP_WRITABLE);
    backend->init(LIMIT);
    EXPECT_EQ(wait_on(backend, 0), events{});
    EXPECT_EQ(highest(), -1);
}

TEST_F(select_backend_test, the_highest_descriptor_is_minus_one_at_first) {
    EXPECT_EQ(highest(), -1);
}

TEST_F(select_backend_test, adding_raises_the_highest_descriptor) {
    const int source = open.quiet();
    backend->add(open.at(50, source), LOOP_READABLE);
    EXPECT_EQ(highest(), 50);
    backend->add(open.at(40, source), LOOP_READABLE);
    EXPECT_EQ(highest(), 50);
    backend->add(open.at(70, source), LOOP_WRITABLE);
    EXPECT_EQ(highest(), 70);
}

TEST_F(select_backend_test,
       removing_the_highest_lowers_it_to_the_next_that_is_watched_for_reading_or_writing) {
    const int source = open.writable();
    backend->add(open.at(30, source), LOOP_READABLE);
    backend->add(open.at(50, source), LOOP_WRITABLE);
    backend->add(open.at(70, source), LOOP_READABLE | LOOP_WRITABLE);
    backend->del(70, LOOP_READABLE);
    EXPECT_EQ(highest(), 70);
    backend->del(70, LOOP_WRITABLE);
    EXPECT_EQ(highest(), 50);
    backend->del(50, 7);
    EXPECT_EQ(highest(), 30);
}

TEST_F(select_backend_test, removing_another_than_the_highest_leaves_it) {
    const int source = open.quiet();
    backend->add(open.at(30, source), LOOP_READABLE);
    backend->add(open.at(50, source), LOOP_READABLE);
    backend->del(30, 7);
    EXPECT_EQ(highest(), 50);
    backend->del(50, 7);
    EXPECT_EQ(highest(), 0); /* the search ends at 0 */
}

TEST_F(select_backend_test, events_come_in_ascending_order_of_descriptors) {
    const int readable_and_writable = open.ready();
    const int writable = open.writable();
    backend->add(open.at(90, readable_and_writable), LOOP_READABLE);
    backend->add(open.at(64, writable), LOOP_READABLE | LOOP_WRITABLE);
    backend->add(open.at(32, readable_and_writable), LOOP_READABLE | LOOP_WRITABLE);
    backend->add(open.at(31, readable_and_writable), LOOP_WRITABLE);
    EXPECT_EQ(wait_on(backend, 0), (events{{31, 2}, {32, 3}, {64, 2}, {90, 1}}));
}

TEST_F(select_backend_test, the_time_out_is_given_in_seconds_and_microseconds) {
    backend->add(open.ready(), LOOP_READABLE);
    wait_on(backend, 1250);
    EXPECT_EQ(select_timeout.tv_sec, 1);
    EXPECT_EQ(select_timeout.tv_usec, 250000);
    wait_on(backend, 100);
    EXPECT_EQ(select_timeout.tv_sec, 0);
    EXPECT_EQ(select_timeout.tv_usec, 100000);
}

TEST_F(select_backend_test, an_error_is_reported_as_writable_alone) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    open.keep(ends[1]);
    close(ends[0]);
    backend->add(ends[1], LOOP_WRITABLE);
    EXPECT_EQ(wait_on(backend, 0), (events{{ends[1], 2}}));
}

TEST_F(select_backend_test, a_failed_wait_yields_no_events) {
    backend->add(open.ready(), LOOP_READABLE);
    /* A number that was open once: select() silently passes over those beyond the process's table.
     */
    const int closed = eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(closed, 0);
    close(closed);
    backend->add(closed, LOOP_READABLE);
    EXPECT_EQ(wait_on(backend, 0), events{});
    backend->del(closed, 7);
    EXPECT_EQ(wait_on(backend, 0).size(), 1u);
}

TEST_F(select_backend_test, a_descriptor_beyond_the_sets_is_ignored) {
    const int fd = open.ready();
    backend->add(fd, LOOP_READABLE);
    backend->add(FD_SETSIZE, LOOP_READABLE | LOOP_WRITABLE);
    backend->del(FD_SETSIZE, 7);
    EXPECT_EQ(wait_on(backend, 0), (events{{fd, 1}}));
    EXPECT_EQ(highest(), fd);
}

/* --- epoll alone --- */

struct epoll_backend_test : testing::Test {
    void SetUp() override {
        backend->fini();
        ASSERT_NE(backend->init(LIMIT), 0);
        control_calls.clear();
    }

    void TearDown() override {
        backend->fini();
    }

    operations backend = &loop_epoll_backend;
    descriptors open;
};

typedef std::vector<control_call> calls;

TEST_F(epoll_backend_test, tells_the_kernel_the_merged_mask) {
    const int fd = open.ready();
    backend->add(fd, LOOP_READABLE);
    backend->add(fd, LOOP_WRITABLE);
    backend->del(fd, LOOP_READABLE);
    backend->del(fd, LOOP_WRITABLE);
    ASSERT_EQ(control_calls.size(), 4u);
    EXPECT_EQ(control_calls[0], (control_call{EPOLL_CTL_ADD, fd, EPOLLIN}));
    EXPECT_EQ(control_calls[1], (control_call{EPOLL_CTL_MOD, fd, EPOLLIN | EPOLLOUT}));
    EXPECT_EQ(control_calls[2], (control_call{EPOLL_CTL_MOD, fd, EPOLLOUT}));
    EXPECT_EQ(control_calls[3].operation, EPOLL_CTL_DEL);
}

TEST_F(epoll_backend_test, a_mask_without_readable_and_writable_is_not_added) {
    backend->add(open.ready(), LOOP_ERROR);
    backend->add(open.ready(), 0);
    EXPECT_EQ(control_calls, calls{});
}

TEST_F(epoll_backend_test, descriptors_from_the_limit_on_are_ignored) {
    backend->add(LIMIT, LOOP_READABLE);
    backend->add(LIMIT + 1, LOOP_READABLE);
    backend->del(LIMIT, 7);
    EXPECT_EQ(control_calls, calls{});
    const int last = open.at(LIMIT - 1, open.ready());
    backend->add(last, LOOP_READABLE);
    EXPECT_EQ(wait_on(backend, 0), (events{{last, 1}}));
}

TEST_F(epoll_backend_test, an_error_is_reported_with_its_own_bit) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    open.keep(ends[1]);
    close(ends[0]);
    backend->add(ends[1], LOOP_WRITABLE);
    EXPECT_EQ(wait_on(backend, 0), (events{{ends[1], 6}}));
}

TEST_F(epoll_backend_test, an_error_is_reported_even_when_only_reading_is_watched) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    open.keep(ends[1]);
    close(ends[0]);
    backend->add(ends[1], LOOP_READABLE);
    EXPECT_EQ(wait_on(backend, 0), (events{{ends[1], 4}}));
}

TEST_F(epoll_backend_test, a_failed_registration_is_ignored) {
    const int fd = open.ready();
    ASSERT_EQ(fcntl(150, F_GETFD), -1);
    backend->add(150, LOOP_READABLE);
    backend->add(fd, LOOP_READABLE);
    EXPECT_EQ(wait_on(backend, 0), (events{{fd, 1}}));
}

TEST_F(epoll_backend_test, a_second_init_keeps_the_descriptor_and_what_is_watched) {
    const int fd = open.ready();
    backend->add(fd, LOOP_READABLE);
    const int before = control_descriptor;
    EXPECT_NE(backend->init(LIMIT), 0);
    EXPECT_EQ(wait_on(backend, 0), (events{{fd, 1}}));
    backend->del(fd, 7);
    EXPECT_EQ(control_descriptor, before);
}

TEST_F(epoll_backend_test, its_descriptor_is_close_on_exec) {
    backend->add(open.ready(), LOOP_READABLE);
    EXPECT_EQ(fcntl(control_descriptor, F_GETFD), FD_CLOEXEC);
}

TEST_F(epoll_backend_test, fini_closes_the_descriptor_and_forgets_the_limit) {
    const int fd = open.ready();
    backend->add(fd, LOOP_READABLE);
    const int epoll = control_descriptor;
    backend->fini();
    EXPECT_EQ(fcntl(epoll, F_GETFD), -1);
    control_calls.clear();
    backend->add(fd, LOOP_WRITABLE);
    backend->del(fd, LOOP_READABLE);
    EXPECT_EQ(control_calls, calls{});
    EXPECT_EQ(wait_on(backend, 0), events{});
    ASSERT_NE(backend->init(LIMIT), 0);
    backend->add(fd, LOOP_READABLE);
    EXPECT_EQ(wait_on(backend, 0), (events{{fd, 1}}));
}

TEST_F(epoll_backend_test, init_fails_without_descriptors) {
    backend->fini();
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int result = backend->init(LIMIT);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(result, 0);
}

} // namespace
