#include "loop/loop.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "core/pool.h"
#include "tests/unit/support/backends.h"
#include "tests/unit/support/test_clock.h"
#include "tests/unit/support/test_kernel.h"

namespace {

constexpr int LIMIT = 100;
constexpr int64_t START_SECONDS = 1000000000;

typedef std::vector<std::string> names;

struct loop_test;

/* A timer of a test: tells the fixture that it fired. */
struct timer_probe {
    loop_test* test;
    std::string name;
    int result;
    std::function<void()> on_fire;
};

/* A descriptor that is always readable, and who is called for it. */
struct ready_descriptor {
    int fd;
    std::function<void(unsigned mask)> handler;
    int calls;
};

int fire(void* argument);
void on_ready(int fd, unsigned mask, void* argument);
void on_pass(int fd, unsigned mask, void* argument);

struct loop_test : testing::TestWithParam<loop_backend> {
    void SetUp() override {
        advance(0);
        ASSERT_TRUE(loop_init(LIMIT, GetParam()));
        pass_descriptor = eventfd(1, EFD_CLOEXEC);
        loop_add_handler(pass_descriptor, LOOP_READABLE, on_pass, this);
    }

    void TearDown() override {
        loop_init(LIMIT, GetParam());
        for (const ready_descriptor& r : descriptors) {
            close(r.fd);
        }
        close(pass_descriptor);
        test_clock::release();
    }

    /* Runs one pass for each entry; the entry is how many milliseconds go by while that pass waits
     * and dispatches. */
    void run_passes(std::vector<int64_t> milliseconds) {
        elapsed = std::move(milliseconds);
        EXPECT_TRUE(loop_run());
    }

    loop_timer* add(const std::string& name, uint32_t interval, int result = 0,
                    std::function<void()> on_fire = {}) {
        probes.push_back({this, name, result, std::move(on_fire)});
        return loop_add_timer(interval, fire, &probes.back());
    }

    void* probe(const std::string& name) {
        for (timer_probe& p : probes) {
            if (p.name == name) {
                return &p;
            }
        }
        return nullptr;
    }

    ready_descriptor& add_ready(std::function<void(unsigned)> handler = {}) {
        descriptors.push_back({eventfd(1, EFD_CLOEXEC), std::move(handler), 0});
        loop_add_handler(descriptors.back().fd, LOOP_READABLE, on_ready, &descriptors.back());
        return descriptors.back();
    }

    /* Takes away what ends run_passes: the test stops the loop itself. */
    void remove_pass_handler() {
        loop_remove_handler(pass_descriptor);
    }

    /* Lets time go by, also backwards. */
    void advance(int64_t milliseconds) {
        now_ms += milliseconds;
        test_clock::set(now_ms / 1000, now_ms % 1000 * 1000);
    }

    int pass_descriptor = -1;
    int64_t now_ms = START_SECONDS * 1000;
    size_t pass = 0; /* counts from 1 */
    std::vector<int64_t> elapsed;
    std::deque<timer_probe> probes;
    std::deque<ready_descriptor> descriptors;
    names fired; /* "timer@pass" */
};

int fire(void* argument) {
    timer_probe* p = static_cast<timer_probe*>(argument);
    p->test->fired.push_back(p->name + "@" + std::to_string(p->test->pass));
    if (p->on_fire) {
        p->on_fire();
    }
    return p->result;
}

int fire_otherwise(void*) {
    return 0;
}

int stop_on_fire(void*) {
    loop_stop();
    return 0;
}

void on_ready(int, unsigned mask, void* argument) {
    ready_descriptor* r = static_cast<ready_descriptor*>(argument);
    r->calls++;
    if (r->handler) {
        r->handler(mask);
    }
}

void on_pass(int, unsigned, void* argument) {
    loop_test* test = static_cast<loop_test*>(argument);
    if (test->pass == test->elapsed.size()) {
        loop_stop();
        return;
    }
    test->advance(test->elapsed[test->pass]);
    test->pass++;
}

INSTANTIATE_TEST_SUITE_P(backends, loop_test, testing::Values(LOOP_SELECT, LOOP_EPOLL),
                         unit_test::backend_name);

/* --- Timers --- */

TEST_P(loop_test,
       a_timer_fires_at_the_first_scan_at_which_its_interval_has_passed_and_counts_on_from_there) {
    add("a", 250);
    run_passes({100, 100, 100, 100, 100, 100, 100});
    EXPECT_EQ(fired, (names{"a@3", "a@6"}));
}

TEST_P(loop_test, a_timer_is_due_at_exactly_its_interval) {
    add("a", 100);
    run_passes({99, 1, 99, 1});
    EXPECT_EQ(fired, (names{"a@2", "a@4"}));
}

TEST_P(loop_test, a_timer_is_not_due_a_millisecond_before_its_interval) {
    add("a", 201);
    run_passes({100, 100, 100});
    EXPECT_EQ(fired, (names{"a@3"}));
}

TEST_P(loop_test, timers_are_scanned_at_most_every_100_milliseconds) {
    add("a", 0);
    run_passes({50, 50, 50, 50, 99, 1});
    EXPECT_EQ(fired, (names{"a@2", "a@4", "a@6"}));
}

TEST_P(loop_test, an_interval_of_zero_fires_at_every_scan) {
    add("a", 0);
    run_passes({100, 100, 100});
    EXPECT_EQ(fired, (names{"a@1", "a@2", "a@3"}));
}

TEST_P(loop_test, missed_intervals_are_not_made_up_for) {
    add("a", 100);
    run_passes({1000, 99, 1});
    EXPECT_EQ(fired, (names{"a@1", "a@3"}));
}

TEST_P(loop_test, timers_are_scanned_newest_first) {
    add("a", 100);
    add("b", 100);
    add("c", 100);
    run_passes({100});
    EXPECT_EQ(fired, (names{"c@1", "b@1", "a@1"}));
}

TEST_P(loop_test, a_timer_added_during_the_scan_is_first_visited_at_the_next_scan) {
    add("a", 100, 1, [this] { add("b", 0); });
    run_passes({100, 100});
    EXPECT_EQ(fired, (names{"a@1", "b@2"}));
}

TEST_P(loop_test, a_timer_added_during_the_scan_counts_from_that_scan) {
    add("a", 100, 1, [this] { add("b", 100); });
    run_passes({150, 99, 1});
    EXPECT_EQ(fired, (names{"a@1", "b@3"}));
}

TEST_P(loop_test, a_new_timer_counts_from_the_loops_time_not_from_the_clock) {
    advance(5000);
    const loop_timer* timer = add("a", 100);
    EXPECT_EQ(timer->last.sec, START_SECONDS);
    EXPECT_EQ(timer->last.usec, 0u);
    EXPECT_EQ(timer->interval_ms, 100u);
}

TEST_P(loop_test, a_timer_that_returns_non_zero_is_removed) {
    add("a", 0, 1);
    add("b", 0, -1);
    add("c", 0, 0);
    run_passes({100, 100});
    EXPECT_EQ(fired, (names{"c@1", "b@1", "a@1", "c@2"}));
}

TEST_P(loop_test, a_timer_that_deletes_itself_is_freed_only_after_its_callback_returned) {
    loop_timer* timer = nullptr;
    timer = add("a", 0, 0, [&] {
        loop_del_timer(timer);
        EXPECT_EQ(timer->callback, nullptr);
        EXPECT_EQ(timer->argument, probe("a"));
    });
    add("b", 0);
    run_passes({100, 100});
    EXPECT_EQ(fired, (names{"b@1", "a@1", "b@2"}));
}

TEST_P(loop_test, a_timer_that_deletes_itself_and_returns_non_zero_is_removed_once) {
    add("a", 0);
    loop_timer* timer = nullptr;
    timer = add("b", 0, 1, [&] {
        loop_del_timer(timer);
        loop_del_timer(timer);
    });
    run_passes({100, 100});
    EXPECT_EQ(fired, (names{"b@1", "a@1", "a@2"}));
}

TEST_P(loop_test, a_timer_may_delete_itself_by_match) {
    add("a", 0, 0, [this] { loop_del_timer_match(fire, probe("a")); });
    run_passes({100, 100});
    EXPECT_EQ(fired, (names{"a@1"}));
}

TEST_P(loop_test, a_timer_that_deleted_itself_may_add_its_successor) {
    loop_timer* timer = nullptr;
    timer = add("a", 0, 0, [&] {
        loop_del_timer(timer);
        timer = add("b", 0);
    });
    run_passes({100, 100, 100});
    EXPECT_EQ(fired, (names{"a@1", "b@2", "b@3"}));
}

TEST_P(loop_test, a_timer_may_delete_the_one_that_comes_next) {
    add("a", 0);
    loop_timer* next = add("b", 0);
    add("c", 0, 0, [&] {
        loop_del_timer(next);
        next = nullptr;
    });
    run_passes({100, 100});
    EXPECT_EQ(fired, (names{"c@1", "a@1", "c@2", "a@2"}));
}

TEST_P(loop_test, a_timer_may_delete_the_one_that_came_before) {
    loop_timer* before = nullptr;
    add("a", 0, 0, [&] {
        loop_del_timer(before);
        before = nullptr;
    });
    before = add("b", 0);
    run_passes({100, 100});
    EXPECT_EQ(fired, (names{"b@1", "a@1", "a@2"}));
}

TEST_P(loop_test, a_timer_may_delete_every_other_and_itself) {
    std::vector<loop_timer*> all;
    all.push_back(add("a", 0));
    all.push_back(add("b", 0, 0, [&] {
        for (loop_timer* timer : all) {
            loop_del_timer(timer);
        }
    }));
    all.push_back(add("c", 0));
    run_passes({100, 100});
    EXPECT_EQ(fired, (names{"c@1", "b@1"}));
}

TEST_P(loop_test, a_timer_that_fired_last_may_be_deleted_outside_of_the_scan) {
    loop_timer* const last = add("a", 0);
    ready_descriptor* r = nullptr;
    r = &add_ready([&](unsigned) {
        if (fired.size() == 1) {
            loop_del_timer(last);
            loop_remove_handler(r->fd);
        }
    });
    run_passes({100, 100, 100});
    EXPECT_EQ(fired, (names{"a@1"}));
}

TEST_P(loop_test, deleting_a_null_timer_does_nothing) {
    add("a", 0);
    loop_del_timer(nullptr);
    run_passes({100});
    EXPECT_EQ(fired, (names{"a@1"}));
}

TEST_P(loop_test, deletion_by_match_takes_the_newest_timer_with_both_callback_and_argument) {
    add("a", 0);
    loop_add_timer(0, fire, probe("a"));
    add("b", 0);
    const loop_timer* left = loop_add_timer(0, fire_otherwise, probe("a"));
    loop_del_timer_match(fire, probe("a"));
    EXPECT_EQ(left->callback, fire_otherwise);
    run_passes({100});
    EXPECT_EQ(fired, (names{"b@1", "a@1"})); /* the older of the two is behind "b" */
}

TEST_P(loop_test, deletion_by_match_without_a_match_does_nothing) {
    add("a", 0);
    loop_del_timer_match(fire, nullptr);
    loop_del_timer_match(fire_otherwise, probe("a"));
    run_passes({100});
    EXPECT_EQ(fired, (names{"a@1"}));
}

TEST_P(loop_test, a_clock_that_is_set_back_resets_each_stored_time_without_firing) {
    add("a", 0);
    /* After the jump the scan's own time is reset first, a scan later the timer's. */
    run_passes({100, -3600000, 100, 100});
    EXPECT_EQ(fired, (names{"a@1", "a@4"}));
}

TEST_P(loop_test, a_clock_that_is_set_forward_fires_once) {
    add("a", 1000);
    run_passes({3600000, 100, 900});
    EXPECT_EQ(fired, (names{"a@1", "a@3"}));
}

TEST_P(loop_test, an_interval_above_24_days_is_kept) {
    const int64_t thirty_days = 2592000000;
    add("a", 2592000000u);
    add("b", 4294967295u);
    run_passes({thirty_days - 1, 100, 4294967295 - thirty_days - 100, 100});
    EXPECT_EQ(fired, (names{"a@2", "b@4"}));
}

TEST_P(loop_test, a_timers_block_goes_back_to_the_pool_when_it_is_removed) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "every block is an allocation of its own here, and is not handed out again";
#endif
    loop_timer* deleted = add("deleted", 0);
    loop_del_timer(deleted);
    void* block = pool_alloc(sizeof(loop_timer));
    EXPECT_EQ(block, deleted); /* the block freed last is handed out first */
    pool_free(block, sizeof(loop_timer));

    loop_timer* self = nullptr;
    self = add("self", 0, 0, [&] { loop_del_timer(self); });
    run_passes({100});
    block = pool_alloc(sizeof(loop_timer));
    EXPECT_EQ(block, self);
    pool_free(block, sizeof(loop_timer));
}

TEST_P(loop_test, a_timer_that_returns_non_zero_gives_its_block_back) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "every block is an allocation of its own here, and is not handed out again";
#endif
    const loop_timer* timer = add("a", 0, 1);
    run_passes({100});
    void* block = pool_alloc(sizeof(loop_timer));
    EXPECT_EQ(block, timer);
    pool_free(block, sizeof(loop_timer));
}

TEST_P(loop_test, a_stop_from_a_timer_lets_the_scan_end) {
    add("a", 0);
    add("b", 0, 0, loop_stop);
    run_passes({100, 100});
    EXPECT_EQ(fired, (names{"b@1", "a@1"}));
}

/* --- Time as the loop shows it --- */

TEST_P(loop_test, the_time_is_read_at_the_top_of_the_pass_and_again_before_the_scan) {
    int64_t seen_by_handler = 0;
    int64_t seen_by_timer = 0;
    add_ready([&](unsigned) {
        if (pass == 0 || seen_by_handler == 0) {
            seen_by_handler = loop_now()->sec - START_SECONDS;
        }
    });
    add("a", 0, 1, [&] { seen_by_timer = loop_now()->sec - START_SECONDS; });
    advance(3000);
    run_passes({4000});
    EXPECT_EQ(seen_by_handler, 3);
    EXPECT_EQ(seen_by_timer, 7);
}

TEST_P(loop_test, init_reads_the_clock) {
    EXPECT_EQ(loop_now()->sec, START_SECONDS);
}

TEST_P(loop_test, each_pass_waits_at_most_100_milliseconds) {
    const bool epoll = GetParam() == LOOP_EPOLL;
    test_kernel::epoll_timeout = -1;
    test_kernel::select_timeout = {-1, -1};
    add("a", 5000); /* neither the timers nor their absence change it */
    run_passes({0, 0});
    EXPECT_EQ(test_kernel::epoll_timeout, epoll ? 100 : -1);
    EXPECT_EQ(test_kernel::select_timeout.tv_sec, epoll ? -1 : 0);
    EXPECT_EQ(test_kernel::select_timeout.tv_usec, epoll ? -1 : 100000);
}

TEST_P(loop_test, without_any_event_a_pass_ends_after_100_milliseconds) {
    test_clock::release();
    loop_init(LIMIT, GetParam());
    timespec before;
    timespec after;
    clock_gettime(CLOCK_MONOTONIC, &before);
    loop_add_timer(100, stop_on_fire, nullptr);
    EXPECT_TRUE(loop_run());
    clock_gettime(CLOCK_MONOTONIC, &after);
    const int64_t milliseconds =
        int64_t{after.tv_sec - before.tv_sec} * 1000 + (after.tv_nsec - before.tv_nsec) / 1000000;
    EXPECT_GE(milliseconds, 95);
    EXPECT_LT(milliseconds, 5000);
}

/* --- Handlers --- */

TEST_P(loop_test, a_handler_is_called_with_its_descriptor_mask_and_argument) {
    struct call {
        int fd;
        unsigned mask;
    } seen = {-1, 0};
    const int fd = eventfd(1, EFD_CLOEXEC);
    remove_pass_handler();
    loop_add_handler(
        fd, LOOP_READABLE | LOOP_WRITABLE,
        [](int ready, unsigned mask, void* argument) {
            *static_cast<call*>(argument) = {ready, mask};
            loop_stop();
        },
        &seen);
    EXPECT_TRUE(loop_run());
    EXPECT_EQ(seen.fd, fd);
    EXPECT_EQ(seen.mask, 3u);
    close(fd);
}

TEST_P(loop_test, registering_again_replaces_handler_and_argument) {
    ready_descriptor& first = add_ready();
    ready_descriptor second = {first.fd, {}, 0};
    loop_add_handler(first.fd, LOOP_READABLE, on_ready, &second);
    run_passes({0});
    EXPECT_EQ(first.calls, 0);
    EXPECT_GE(second.calls, 1);
}

TEST_P(loop_test, an_event_of_a_handler_that_was_removed_earlier_in_the_batch_is_skipped) {
    ready_descriptor* one = nullptr;
    ready_descriptor* other = nullptr;
    one = &add_ready([&](unsigned) { loop_remove_handler(other->fd); });
    other = &add_ready([&](unsigned) { loop_remove_handler(one->fd); });
    run_passes({0, 0});
    EXPECT_EQ(std::min(one->calls, other->calls), 0);
    EXPECT_GE(std::max(one->calls, other->calls), 1);
}

TEST_P(loop_test, events_are_dispatched_in_the_order_in_which_the_backend_gives_them) {
    names order;
    remove_pass_handler();
    ready_descriptor& lower = add_ready([&](unsigned) { order.push_back("lower"); });
    ready_descriptor& middle = add_ready([&](unsigned) { order.push_back("middle"); });
    ready_descriptor& higher = add_ready([&](unsigned) { order.push_back("higher"); });
    ASSERT_LT(lower.fd, middle.fd);
    ASSERT_LT(middle.fd, higher.fd);
    static loop_closing end;
    end = {nullptr, false, [](loop_closing*) { loop_stop(); }};
    loop_destroy_later(&end);
    if (GetParam() == LOOP_EPOLL) {
        std::vector<epoll_event> batch;
        for (const int fd : {middle.fd, higher.fd, lower.fd}) {
            batch.push_back({EPOLLIN, {.fd = fd}});
        }
        test_kernel::epoll_answers = {batch};
        EXPECT_TRUE(loop_run());
        EXPECT_EQ(order, (names{"middle", "higher", "lower"}));
    } else {
        /* The lower descriptor comes first, whichever was registered first. */
        loop_remove_handler(lower.fd);
        loop_add_handler(lower.fd, LOOP_READABLE, on_ready, &lower);
        EXPECT_TRUE(loop_run());
        EXPECT_EQ(order, (names{"lower", "middle", "higher"}));
    }
}

TEST_P(loop_test, a_handler_may_remove_itself) {
    ready_descriptor* self = nullptr;
    self = &add_ready([&](unsigned) { loop_remove_handler(self->fd); });
    run_passes({0, 0, 0});
    EXPECT_EQ(self->calls, 1);
    EXPECT_FALSE(loop_has_handler(self->fd));
}

TEST_P(loop_test, a_handler_may_add_another) {
    ready_descriptor* added = nullptr;
    ready_descriptor* self = nullptr;
    self = &add_ready([&](unsigned) {
        loop_remove_handler(self->fd);
        added = &add_ready();
    });
    run_passes({0, 0, 0});
    ASSERT_NE(added, nullptr);
    EXPECT_GE(added->calls, 1);
}

TEST_P(loop_test, a_removed_handler_may_be_added_again) {
    ready_descriptor& r = add_ready();
    loop_remove_handler(r.fd);
    EXPECT_FALSE(loop_has_handler(r.fd));
    loop_add_handler(r.fd, LOOP_READABLE, on_ready, &r);
    EXPECT_TRUE(loop_has_handler(r.fd));
    run_passes({0, 0});
    EXPECT_GE(r.calls, 1);
}

TEST_P(loop_test, modify_adds_and_then_removes_interest) {
    std::vector<unsigned> masks;
    ready_descriptor* r = nullptr;
    r = &add_ready([&](unsigned mask) {
        masks.push_back(mask);
        if (masks.size() == 1) {
            loop_modify_handler(r->fd, LOOP_WRITABLE, 0);
        } else if (masks.size() == 2) {
            loop_modify_handler(r->fd, 0, LOOP_READABLE);
        } else if (masks.size() == 3) {
            loop_modify_handler(r->fd, LOOP_READABLE, LOOP_WRITABLE);
        } else {
            /* What is in both masks is added first, and so removed. */
            loop_modify_handler(r->fd, LOOP_READABLE, LOOP_READABLE);
        }
    });
    run_passes({0, 0, 0, 0, 0, 0});
    EXPECT_EQ(masks, (std::vector<unsigned>{1, 3, 2, 1}));
    EXPECT_TRUE(loop_has_handler(r->fd));
}

TEST_P(loop_test, modify_with_empty_masks_changes_nothing) {
    ready_descriptor& r = add_ready();
    loop_modify_handler(r.fd, 0, 0);
    run_passes({0, 0});
    EXPECT_GE(r.calls, 1);
}

TEST_P(loop_test, modify_and_remove_ignore_descriptors_from_the_limit_on) {
    ready_descriptor& r = add_ready();
    ASSERT_EQ(fcntl(LIMIT, F_GETFD), -1);
    loop_modify_handler(LIMIT, LOOP_READABLE | LOOP_WRITABLE, 0);
    loop_modify_handler(LIMIT + 1, LOOP_READABLE, LOOP_WRITABLE);
    /* Watching a descriptor that is not open would make select fail. */
    loop_event events[LOOP_MAX_EVENTS];
    const bool epoll = GetParam() == LOOP_EPOLL;
    EXPECT_EQ((epoll ? loop_epoll_backend : loop_select_backend).wait(0, events), 2);
    loop_remove_handler(LIMIT);
    loop_remove_handler(1 << 20);
    EXPECT_TRUE(loop_has_handler(r.fd));
}

TEST_P(loop_test, modify_and_remove_ignore_the_descriptor_of_what_is_closed) {
    ready_descriptor& r = add_ready();
    const bool epoll = GetParam() == LOOP_EPOLL;
    test_kernel::control_calls.clear();
    loop_modify_handler(-1, LOOP_READABLE | LOOP_WRITABLE, 0);
    loop_modify_handler(-1, 0, LOOP_READABLE);
    loop_remove_handler(-1);
    EXPECT_EQ(test_kernel::control_calls.size(), 0u);
    /* Watching a descriptor that is not open would make select fail. */
    loop_event events[LOOP_MAX_EVENTS];
    EXPECT_EQ((epoll ? loop_epoll_backend : loop_select_backend).wait(0, events), 2);
    EXPECT_TRUE(loop_has_handler(r.fd));
}

TEST_P(loop_test, the_highest_descriptor_below_the_limit_is_served) {
    ready_descriptor& r = add_ready();
    const int highest = dup2(r.fd, LIMIT - 1);
    ASSERT_EQ(highest, LIMIT - 1);
    ready_descriptor last = {highest, {}, 0};
    loop_add_handler(highest, LOOP_READABLE, on_ready, &last);
    run_passes({0, 0});
    EXPECT_GE(last.calls, 1);
    close(highest);
}

TEST_P(loop_test, a_descriptor_at_the_limit_aborts) {
    EXPECT_DEATH(loop_add_handler(LIMIT, LOOP_READABLE, on_ready, nullptr),
                 "loop:515: loop_add_handler: Assertion `fd < maxfd' failed");
}

TEST_P(loop_test, a_descriptor_above_the_limit_aborts) {
    EXPECT_EXIT(loop_add_handler(LIMIT + 1, LOOP_READABLE, on_ready, nullptr),
                testing::KilledBySignal(SIGABRT), "fd < maxfd");
}

TEST_P(loop_test, more_ready_descriptors_than_a_batch_holds_are_served_in_later_passes) {
    constexpr int COUNT = 150;
    test_clock::release();
    loop_init(300, GetParam());
    int served = 0;
    for (int i = 0; i < COUNT; i++) {
        ready_descriptor& r = add_ready();
        ASSERT_GE(r.fd, 0);
        r.handler = [&](unsigned) {
            loop_remove_handler(r.fd);
            if (++served == COUNT) {
                loop_stop();
            }
        };
    }
    loop_add_timer(5000, stop_on_fire, nullptr);
    EXPECT_TRUE(loop_run());
    EXPECT_EQ(served, COUNT);
}

/* --- Stopping --- */

TEST_P(loop_test, a_stop_is_honoured_between_two_events_of_a_batch) {
    remove_pass_handler();
    ready_descriptor& one = add_ready([](unsigned) { loop_stop(); });
    ready_descriptor& other = add_ready([](unsigned) { loop_stop(); });
    EXPECT_TRUE(loop_run());
    EXPECT_EQ(one.calls + other.calls, 1);
}

TEST_P(loop_test, after_a_stop_from_a_handler_timers_are_not_scanned) {
    remove_pass_handler();
    add("a", 0);
    add_ready([this](unsigned) {
        advance(1000);
        loop_stop();
    });
    EXPECT_TRUE(loop_run());
    EXPECT_EQ(fired, names{});
}

TEST_P(loop_test, a_loop_that_is_stopped_before_it_runs_makes_no_pass) {
    ready_descriptor& r = add_ready();
    loop_stop();
    EXPECT_TRUE(loop_run());
    EXPECT_EQ(r.calls, 0);
}

/* --- What was closed during the pass --- */

struct closed_record {
    loop_closing closing;
    int destroyed;
    std::function<void()> on_destroy;
};

void destroy_record(loop_closing* closing) {
    closed_record* record = reinterpret_cast<closed_record*>(closing);
    record->destroyed++;
    if (record->on_destroy) {
        record->on_destroy();
    }
}

closed_record make_record() {
    closed_record record = {};
    record.closing.destroy = destroy_record;
    return record;
}

TEST_P(loop_test, a_closed_record_is_destroyed_at_the_end_of_the_pass_and_once) {
    closed_record record = make_record();
    add_ready([&](unsigned) {
        loop_destroy_later(&record.closing);
        loop_destroy_later(&record.closing);
        EXPECT_LE(record.destroyed, 1);
        if (pass == 0) {
            EXPECT_EQ(record.destroyed, 0);
        }
    });
    add("a", 0, 1, [&] { EXPECT_EQ(record.destroyed, 0); });
    run_passes({100, 0});
    EXPECT_EQ(fired, names{"a@1"});
    EXPECT_EQ(record.destroyed, 1);
}

TEST_P(loop_test, a_record_closed_by_a_timer_is_destroyed_in_the_same_pass) {
    closed_record record = make_record();
    add("a", 0, 1, [&] {
        loop_destroy_later(&record.closing);
        EXPECT_EQ(record.destroyed, 0);
        loop_stop();
    });
    run_passes({100, 0});
    EXPECT_EQ(record.destroyed, 1);
}

TEST_P(loop_test, a_record_is_destroyed_in_the_pass_that_stops_the_loop) {
    closed_record record = make_record();
    add_ready([&](unsigned) {
        loop_destroy_later(&record.closing);
        loop_stop();
    });
    remove_pass_handler();
    EXPECT_TRUE(loop_run());
    EXPECT_EQ(record.destroyed, 1);
}

TEST_P(loop_test, a_record_closed_by_a_destruction_goes_with_the_same_pass) {
    closed_record first = make_record();
    closed_record second = make_record();
    first.on_destroy = [&] { loop_destroy_later(&second.closing); };
    add("a", 0, 1, [&] {
        loop_destroy_later(&first.closing);
        loop_stop();
    });
    run_passes({100, 0});
    EXPECT_EQ(first.destroyed, 1);
    EXPECT_EQ(second.destroyed, 1);
}

/* --- Initialisation --- */

/* The mask that the write end of a pipe without a reader shows: only epoll reports errors. */
unsigned mask_of_broken_pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0) {
        return 0;
    }
    close(ends[0]);
    unsigned seen = 0;
    loop_add_handler(
        ends[1], LOOP_WRITABLE,
        [](int, unsigned mask, void* argument) {
            *static_cast<unsigned*>(argument) = mask;
            loop_stop();
        },
        &seen);
    loop_run();
    loop_remove_handler(ends[1]);
    close(ends[1]);
    return seen;
}

TEST(loop_init_test, selector_one_chooses_epoll) {
    ASSERT_TRUE(loop_init(LIMIT, 1));
    EXPECT_NE(mask_of_broken_pipe() & LOOP_ERROR, 0u);
}

TEST(loop_init_test, every_other_selector_chooses_select) {
    for (const int selector : {-1, 0, 2, 7, -100}) {
        ASSERT_TRUE(loop_init(LIMIT, selector));
        EXPECT_EQ(mask_of_broken_pipe(), 2u) << selector;
    }
}

TEST_P(loop_test, init_makes_the_loop_fresh) {
    add("a", 0);
    ready_descriptor& r = add_ready();
    loop_stop();
    ASSERT_TRUE(loop_init(50, GetParam()));
    EXPECT_EQ(loop_maxfd(), 50);
    EXPECT_FALSE(loop_has_handler(r.fd));
    loop_add_handler(pass_descriptor, LOOP_READABLE, on_pass, this);
    run_passes({100, 100});
    EXPECT_EQ(pass, 2u);
    EXPECT_EQ(fired, names{});
    EXPECT_EQ(r.calls, 0);
}

TEST_P(loop_test, the_scratch_buffers_are_two_empty_and_unbounded) {
    buffer* request = loop_request_scratch();
    buffer* reply = loop_reply_scratch();
    ASSERT_NE(request, reply);
    EXPECT_EQ(request->length, 0u);
    EXPECT_EQ(reply->length, 0u);
    /* More than the limit of a buffer that was given none. */
    EXPECT_NE(buffer_reserve(request, BUFFER_DEFAULT_LIMIT + 1), nullptr);
    EXPECT_NE(buffer_reserve(reply, BUFFER_DEFAULT_LIMIT + 1), nullptr);
}

} // namespace
