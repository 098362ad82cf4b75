#include "proto/observe.h"

#include <gtest/gtest.h>

#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/pool.h"
#include "proto/resp.h"
#include "store/event.h"
#include "tests/unit/support/resources.h"
#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_client.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

/* An event of the names given, and its strings. */
class made_event {
  public:
    explicit made_event(std::initializer_list<std::string_view> elements) {
        for (const std::string_view element : elements) {
            strings.push_back(sstr_new(element.data(), static_cast<uint32_t>(element.size())));
            resp_add(r, strings.back());
        }
    }

    ~made_event() {
        resp_free(r);
        for (sstr& s : strings) {
            sstr_free(&s);
        }
    }

    made_event(const made_event&) = delete;
    made_event& operator=(const made_event&) = delete;
    operator resp*() const {
        return r;
    }

  private:
    resp* r = resp_new();
    std::vector<sstr> strings;
};

class observers_test : public store_test {
  protected:
    ~observers_test() override {
        current_client = nullptr;
    }

    /* The list from its head, after a check of its links. */
    static std::vector<const client*> members() {
        std::vector<const client*> all;
        for (const client* c = observers; c != nullptr; c = c->observe_next) {
            EXPECT_EQ(c->observe_prev, all.empty() ? c : all.back());
            all.push_back(c);
        }
        return all;
    }

    typedef std::vector<const client*> clients;
};

} // namespace

/* --- The list --- */

TEST_F(observers_test, the_first_is_head_and_end) {
    test_client a;
    EXPECT_EQ(observers, nullptr);
    EXPECT_TRUE(observers_add(a.record()));
    EXPECT_EQ(members(), clients{a.record()});
    EXPECT_EQ(a.record()->observe_next, nullptr);
}

TEST_F(observers_test, the_most_recent_is_the_head) {
    test_client a;
    test_client b;
    test_client c;
    for (test_client* peer : {&a, &b, &c}) {
        EXPECT_TRUE(observers_add(peer->record()));
    }
    EXPECT_EQ(members(), (clients{c.record(), b.record(), a.record()}));
}

TEST_F(observers_test, nobody_observes_twice) {
    test_client a;
    test_client b;
    test_client c;
    EXPECT_TRUE(observers_add(a.record()));
    EXPECT_FALSE(observers_add(a.record()));
    observers_add(b.record());
    observers_add(c.record());
    for (test_client* peer : {&a, &b, &c}) {
        EXPECT_FALSE(observers_add(peer->record()));
    }
    EXPECT_EQ(members(), (clients{c.record(), b.record(), a.record()}));
}

TEST_F(observers_test, any_one_of_them_can_be_taken_off) {
    for (int victim = 0; victim < 3; victim++) {
        test_client peers[3];
        clients expected;
        for (test_client& peer : peers) {
            observers_add(peer.record());
        }
        for (int i = 2; i >= 0; i--) {
            if (i != victim) {
                expected.push_back(peers[i].record());
            }
        }
        client* gone = peers[victim].record();
        observers_remove(gone);
        EXPECT_EQ(members(), expected) << victim;
        EXPECT_EQ(gone->observe_prev, nullptr);
        EXPECT_EQ(gone->observe_next, nullptr);
    }
    EXPECT_EQ(observers, nullptr);
}

TEST_F(observers_test, who_was_taken_off_can_observe_again) {
    test_client a;
    test_client b;
    observers_add(a.record());
    observers_add(b.record());
    observers_remove(a.record());
    EXPECT_TRUE(observers_add(a.record()));
    EXPECT_EQ(members(), (clients{a.record(), b.record()}));
}

TEST_F(observers_test, who_does_not_observe_is_left_alone) {
    test_client a;
    test_client b;
    observers_add(a.record());
    observers_remove(b.record());
    EXPECT_EQ(members(), clients{a.record()});
    observers_remove(a.record());
    observers_remove(a.record());
    EXPECT_EQ(observers, nullptr);
}

TEST_F(observers_test, the_store_makes_events_from_the_first_observer_to_the_last) {
    test_client a;
    test_client b;
    EXPECT_FALSE(event_announcer.watched);
    observers_add(a.record());
    EXPECT_TRUE(event_announcer.watched);
    observers_add(b.record());
    observers_remove(b.record());
    EXPECT_TRUE(event_announcer.watched);
    observers_add(b.record());
    observers_remove(a.record());
    EXPECT_TRUE(event_announcer.watched);
    observers_remove(b.record());
    EXPECT_FALSE(event_announcer.watched);
}

/* --- Frames --- */

TEST_F(observers_test, an_event_reaches_every_observer) {
    test_client a;
    test_client b;
    test_client idle;
    observers_add(a.record());
    observers_add(b.record());
    idle.record();
    notify_observers(made_event({"MSET", "k", "v"}));
    EXPECT_EQ(a.received(), "!3\r\n$4\r\nMSET\r\n$1\r\nk\r\n$1\r\nv\r\n");
    EXPECT_EQ(b.received(), "!3\r\n$4\r\nMSET\r\n$1\r\nk\r\n$1\r\nv\r\n");
    EXPECT_EQ(idle.received(), "");
}

TEST_F(observers_test, the_issuer_is_not_told_of_its_own_change) {
    test_client issuer;
    test_client other;
    observers_add(issuer.record());
    observers_add(other.record());
    current_client = issuer.record();
    notify_observers(made_event({"MSET", "k", "v"}));
    current_client = nullptr;
    EXPECT_EQ(issuer.received(), "");
    EXPECT_EQ(other.received(), event({"MSET", "k", "v"}));
}

TEST_F(observers_test, each_event_is_a_frame_of_its_own) {
    test_client a;
    observers_add(a.record());
    notify_observers(made_event({"MSET", "a long key", "a long value"}));
    notify_observers(made_event({"HDEL", "h"}));
    EXPECT_EQ(a.received(), event({"MSET", "a long key", "a long value"}) + event({"HDEL", "h"}));
}

TEST_F(observers_test, nil_and_empty_elements_are_written_as_in_replies) {
    test_client a;
    observers_add(a.record());
    made_event frame_with_both({""});
    resp_add(frame_with_both, RESP_NIL);
    notify_observers(frame_with_both);
    EXPECT_EQ(a.received(), "!2\r\n$0\r\n\r\n$-1\r\n");
}

TEST_F(observers_test, the_event_stays_the_callers) {
    test_client a;
    observers_add(a.record());
    made_event e({"MSET", "k", "v"});
    notify_observers(e);
    notify_observers(e);
    EXPECT_EQ(a.received(), event({"MSET", "k", "v"}) + event({"MSET", "k", "v"}));
}

TEST_F(observers_test, a_frame_goes_behind_output_that_is_batched_already) {
    test_client a;
    observers_add(a.record());
    connection_send(a.conn, "+OK\r\n", 5);
    EXPECT_EQ(a.received(), "");
    notify_observers(made_event({"MSET", "k", "v"}));
    EXPECT_EQ(a.received(), "+OK\r\n" + event({"MSET", "k", "v"}));
}

TEST_F(observers_test, large_frames_arrive_whole) {
    test_client a;
    observers_add(a.record());
    const std::string value(100000, 'x');
    notify_observers(made_event({"MSET", "k", value}));
    EXPECT_EQ(a.received(), event({"MSET", "k", value}));
}

TEST_F(observers_test, a_large_frame_holds_no_memory_afterwards) {
    if (POOL_OWN_BLOCKS) {
        GTEST_SKIP() << "this build's allocator does not say what it has handed out";
    }
    /* Composed, but too large for any client: it goes to nobody. */
    test_client issuer;
    observers_add(issuer.record());
    current_client = issuer.record();
    made_event large({"MSET", "k", std::string(3 << 20, 'x')});
    notify_observers(made_event({"MSET", "k", "v"}));
    const size_t before = heap_in_use();
    notify_observers(large);
    EXPECT_LT(heap_in_use(), before + 5000);
}

TEST_F(observers_test, are_told_from_the_head_to_the_end) {
    /* All three write to the same peer, each with a letter of its own before its frame. */
    test_client peers[3];
    for (int i = 0; i < 3; i++) {
        observers_add(peers[i].record());
        if (i > 0) {
            ASSERT_EQ(dup2(peers[0].conn->fd, peers[i].conn->fd), peers[i].conn->fd);
        }
        connection_send(peers[i].conn, i == 0 ? "a" : i == 1 ? "b" : "c", 1);
    }
    const std::string e = event({"HDEL", "h", "f"});
    notify_observers(made_event({"HDEL", "h", "f"}));
    EXPECT_EQ(peers[0].received(), "c" + e + "b" + e + "a" + e);
}

TEST_F(observers_test, one_that_is_gone_does_not_keep_the_others_from_being_told) {
    test_client a;
    test_client gone;
    test_client b;
    for (test_client* peer : {&a, &gone, &b}) {
        observers_add(peer->record());
    }
    /* Writing fails from now on. */
    ASSERT_EQ(shutdown(gone.conn->fd, SHUT_WR), 0);
    notify_observers(made_event({"HDEL", "h"}));
    EXPECT_TRUE(gone.is_closed());
    EXPECT_EQ(gone.conn->reason, CONNECTION_WRITE_FAILED);
    EXPECT_EQ(a.received(), event({"HDEL", "h"}));
    EXPECT_EQ(b.received(), event({"HDEL", "h"}));
    /* Its record stays until the end of the pass, and is passed over. */
    EXPECT_EQ(members().size(), 3u);
    notify_observers(made_event({"HDEL", "h"}));
    EXPECT_EQ(b.received(), event({"HDEL", "h"}));
    gone.disconnect();
    EXPECT_EQ(members(), (clients{b.record(), a.record()}));
}

TEST_F(observers_test, who_does_not_read_is_closed_when_too_much_waits) {
    test_client slow;
    test_client quick;
    observers_add(slow.record());
    observers_add(quick.record());
    const std::string value(60000, 'x');
    const std::string e = event({"MSET", "k", value});
    made_event big({"MSET", "k", value});
    for (int i = 0; i < 100 && !slow.is_closed(); i++) {
        notify_observers(big);
        EXPECT_EQ(quick.received(), e);
    }
    EXPECT_TRUE(slow.is_closed());
    EXPECT_EQ(slow.conn->reason, CONNECTION_WRITE_FAILED);
    EXPECT_EQ(slow.conn->error, CONNECTION_BUFFER_FULL);
}

TEST_F(observers_test, an_event_that_cannot_be_composed_whole_is_sent_to_nobody) {
    test_client a;
    observers_add(a.record());
    log.start();
    notify_observers(made_event({"MSET", "k", std::string(5 << 20, 'x')}));
    EXPECT_EQ(a.received(), "");
    EXPECT_FALSE(a.is_closed());
    notify_observers(made_event({"MSET", "k", "v"}));
    EXPECT_EQ(a.received(), event({"MSET", "k", "v"}));
}

/* --- Traces --- */

TEST_F(observers_test, each_event_is_traced) {
    test_client a;
    observers_add(a.record());
    log.start();
    notify_observers(made_event({"MSET", "k", "v"}));
    EXPECT_EQ(log.text(), "debug *** notified clients with: \n"
                          "debug *** !3\r\n$4\r\nMSET\r\n$1\r\nk\r\n$1\r\nv\r\n\n");
}

TEST_F(observers_test, nothing_is_traced_above_debug_level) {
    test_client a;
    observers_add(a.record());
    log.start(LOG_INFO);
    notify_observers(made_event({"MSET", "k", "v"}));
    EXPECT_EQ(log.text(), "");
}

TEST_F(observers_test, without_observers_nothing_is_traced) {
    log.start();
    notify_observers(made_event({"MSET", "k", "v"}));
    EXPECT_EQ(log.text(), "");
}

TEST_F(observers_test, the_trace_ends_at_a_nul_but_the_frame_does_not) {
    test_client a;
    observers_add(a.record());
    log.start();
    notify_observers(made_event({"MSET", "k", std::string_view("a\0b", 3)}));
    EXPECT_EQ(a.received(), event({"MSET", "k", std::string_view("a\0b", 3)}));
    EXPECT_EQ(log.text(), "debug *** notified clients with: \n"
                          "debug *** !3\r\n$4\r\nMSET\r\n$1\r\nk\r\n$3\r\na\n");
}

TEST_F(observers_test, no_text_of_an_event_is_a_format) {
    test_client a;
    observers_add(a.record());
    log.start();
    notify_observers(made_event({"MSET", "%s%n", "%d"}));
    EXPECT_EQ(log.text(), "debug *** notified clients with: \n"
                          "debug *** !3\r\n$4\r\nMSET\r\n$4\r\n%s%n\r\n$2\r\n%d\r\n\n");
}

TEST_F(observers_test, the_trace_comes_after_the_frames_are_out) {
    test_client a;
    observers_add(a.record());
    log.start();
    /* The trace goes to the observer too, which so gets both in their order. */
    fflush(stdout);
    const int before = dup(STDOUT_FILENO);
    ASSERT_EQ(dup2(a.conn->fd, STDOUT_FILENO), STDOUT_FILENO);
    log_set_target("stdout");
    notify_observers(made_event({"HDEL", "h", "f"}));
    log.start();
    dup2(before, STDOUT_FILENO);
    close(before);
    const std::string e = event({"HDEL", "h", "f"});
    EXPECT_EQ(a.received(), e + "debug *** notified clients with: \ndebug *** " + e + "\n");
}

TEST_F(observers_test, an_event_of_which_nobody_is_told_is_traced_all_the_same) {
    test_client issuer;
    observers_add(issuer.record());
    current_client = issuer.record();
    log.start();
    notify_observers(made_event({"HDEL", "h", "f"}));
    EXPECT_EQ(issuer.received(), "");
    EXPECT_EQ(log.text(),
              "debug *** notified clients with: \ndebug *** " + event({"HDEL", "h", "f"}) + "\n");
}

/* --- The command --- */

TEST_F(observers_test, the_command_makes_a_client_an_observer) {
    test_client a;
    EXPECT_EQ(a.call({"observe"}), "+OK\r\n");
    EXPECT_EQ(members(), clients{a.record()});
}

TEST_F(observers_test, the_command_ignores_its_arguments) {
    test_client a;
    EXPECT_EQ(a.call({"OBSERVE", "nothing", "at", "all"}), "+OK\r\n");
    EXPECT_EQ(members(), clients{a.record()});
}

TEST_F(observers_test, observing_again_is_answered_and_warned_of_once) {
    test_client a;
    a.call({"hello", "panel"});
    log.start(LOG_WARN);
    EXPECT_EQ(a.call({"observe"}), "+OK\r\n");
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(a.call({"observe"}), "+OK\r\n");
    EXPECT_EQ(log.text(), "warn  *** client(\"panel\") redundantly watch\n");
    object_set_string(make("k", OBJ_TSTRING), text("v"));
    EXPECT_EQ(a.received(), event({"MSET", "k", "v"}));
}

TEST_F(observers_test, observing_again_is_not_warned_of_above_warn_level) {
    test_client a;
    a.call({"observe"});
    log.start(LOG_ERROR);
    EXPECT_EQ(a.call({"observe"}), "+OK\r\n");
    EXPECT_EQ(log.text(), "");
}

TEST_F(observers_test, an_observer_that_sets_a_key_gets_its_reply_alone) {
    test_client issuer;
    test_client other;
    issuer.call({"observe"});
    other.call({"observe"});
    EXPECT_EQ(issuer.call({"set", "k", "v"}), "+OK\r\n");
    EXPECT_EQ(other.received(), event({"MSET", "k", "v"}));
}

TEST_F(observers_test, hear_of_a_change_before_its_issuer_has_its_reply) {
    test_client issuer;
    test_client other;
    other.call({"observe"});
    const std::string bytes = frame('*', {"set", "k", "v"});
    buffer_append(&issuer.conn->input, bytes.data(), static_cast<uint32_t>(bytes.size()));
    client_ondata(issuer.conn);
    EXPECT_EQ(other.received(), event({"MSET", "k", "v"}));
    EXPECT_EQ(issuer.received(), "");
    connection_flush(issuer.conn);
    EXPECT_EQ(issuer.received(), "+OK\r\n");
}

TEST_F(observers_test, a_change_outside_of_commands_reaches_all_of_them) {
    test_client a;
    test_client b;
    a.call({"observe"});
    b.call({"observe"});
    object_set_string(make("cpu.load", OBJ_TSTRING), text("17"));
    EXPECT_EQ(a.received(), event({"MSET", "cpu.load", "17"}));
    EXPECT_EQ(b.received(), event({"MSET", "cpu.load", "17"}));
}

TEST_F(observers_test, do_not_hear_of_lists_deletions_and_expiries) {
    test_client issuer;
    test_client other;
    other.call({"observe"});
    issuer.call({"rpush", "l", "a"});
    issuer.call({"lpop", "l"});
    issuer.call({"setnx", "_private", "v"});
    issuer.call({"expire", "l", "100"});
    issuer.call({"persist", "l"});
    issuer.call({"del", "l"});
    EXPECT_EQ(other.received(), "");
}

TEST_F(observers_test, the_others_go_on_when_one_disconnects) {
    for (int victim = 0; victim < 3; victim++) {
        test_client peers[3];
        for (test_client& peer : peers) {
            peer.call({"observe"});
        }
        peers[victim].disconnect();
        notify_observers(made_event({"HDEL", "h"}));
        for (int i = 0; i < 3; i++) {
            EXPECT_EQ(peers[i].received(), i == victim ? "" : event({"HDEL", "h"}))
                << victim << " " << i;
        }
    }
}
