/* The expiry of keys as time passes. The sweep looks at most once a second, and so each test that
 * waits for it takes a second or more: the keys of a test share one daemon and one stretch of time.
 */

#include <stdint.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>

#include "tests/system/model/frames.h"
#include "tests/system/support/daemon_test.h"
#include "tests/system/support/log_text.h"

using namespace system_test;

namespace {

typedef std::vector<std::string> words;

const std::string OK = "+OK\r\n";

/* How long after its last second a key may still be there, in ms: up to a second until the next
 * look, and what a busy machine adds. */
constexpr int64_t LATE_MS = 10000;

/* Milliseconds of the wall clock, which is what the daemon goes by when it looks. */
int64_t wall_ms() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_usec / 1000;
}

std::string in_an_hour() {
    return std::to_string(time(nullptr) + 3600);
}

/* The second in which the daemon takes an expiry to be set. Around the turn of a second this clock
 * is a tick of the kernel behind the other. */
int64_t stamped_second() {
    return time(nullptr);
}

/* What was seen of a key while time passed. Seconds are those in which an expiry is taken to be
 * set; the rest is in ms of the wall clock. */
struct life {
    int64_t from_second = 0; /* the expiry was set between these two */
    int64_t to_second = 0;
    int64_t last_seen = 0;  /* asked for at this time, it was there */
    int64_t found_gone = 0; /* this was known by then; 0 while it is there */
    int round = 0;          /* the round of questions in which that was found */
};

class expiry : public daemon_test {
  protected:
    /* Starts the daemon, in place of one that runs already. */
    void launch_daemon(const words& arguments = {}) {
        if (daemon != nullptr) {
            daemon->stop();
        }
        launched_at = wall_ms();
        daemon = &start(arguments);
        client.emplace();
    }

    std::string call(const words& request) {
        return client->call(request);
    }

    /* Sends a request that gives the key its expiry, and begins to watch the key. */
    void give(const std::string& key, const words& request, const std::string& reply) {
        life& one = lives[key];
        one = {};
        one.last_seen = wall_ms();
        one.from_second = stamped_second();
        EXPECT_EQ(call(request), reply) << ::testing::PrintToString(request);
        one.to_second = stamped_second();
    }

    void give_seconds(const std::string& key, const std::string& seconds) {
        give(key, {"expire", key, seconds}, ":1\r\n");
    }

    /* Asks for every watched key that is still there. */
    void look() {
        rounds++;
        for (auto& [key, one] : lives) {
            if (one.found_gone != 0) {
                continue;
            }
            int64_t asked = wall_ms();
            if (call({"exists", key}) == ":1\r\n") {
                one.last_seen = asked;
            } else {
                one.found_gone = wall_ms();
                one.round = rounds;
            }
        }
    }

    /* Looks until every watched key is gone. */
    bool watch_until_gone() {
        return eventually([&] {
            look();
            return std::all_of(lives.begin(), lives.end(),
                               [](const auto& one) { return one.second.found_gone != 0; });
        });
    }

    /* The key was there until so many seconds of the clock were over, counted from that in which it
     * got its expiry, and not much longer. */
    void expect_gone_after(const std::string& key, int64_t seconds) {
        const life& one = lives[key];
        ASSERT_NE(one.found_gone, 0) << key;
        EXPECT_GE(one.found_gone / 1000, one.from_second + seconds) << key << " went too early";
        EXPECT_LE(one.last_seen, (one.to_second + seconds) * 1000 + LATE_MS)
            << key << " went too late";
    }

    static void wait_for_a_new_second() {
        const int64_t second = stamped_second();
        EXPECT_TRUE(eventually([&] { return stamped_second() != second; }));
    }

    /* Does the steps and tells whether all of them have fallen into one second of the clock. If so,
     * no key to which they gave an end after that second can have gone meanwhile. */
    static bool fell_into_one_second(const std::function<void()>& steps) {
        const int64_t second = stamped_second();
        steps();
        return wall_ms() / 1000 == second;
    }

    /* Does them until they have. */
    static bool in_one_second(const std::function<void()>& steps) {
        return eventually([&] { return fell_into_one_second(steps); });
    }

    /* Sets the key and sends the requests, all in one second. Returns the replies to the latter. */
    words replies_in_one_second(const std::string& key, const std::vector<words>& requests) {
        words replies;
        EXPECT_TRUE(in_one_second([&] {
            EXPECT_EQ(call({"set", key, "v"}), OK);
            replies.clear();
            for (const words& request : requests) {
                replies.push_back(call(request));
            }
        })) << key;
        return replies;
    }

    void expect_still_there(const std::string& key) {
        EXPECT_EQ(call({"exists", key}), ":1\r\n") << key;
    }

    /* This is all that the daemon has said of ends since it started. */
    void expect_traced(const words& expected) {
        words traced;
        EXPECT_TRUE(eventually([&] {
            traced = log_messages(daemon->out(), {"expire-TTL", "expired", "destroyed"});
            return traced.size() >= expected.size();
        }));
        EXPECT_EQ(traced, expected);
    }

    process* daemon = nullptr;
    std::optional<resp_client> client;
    int64_t launched_at = 0;
    std::map<std::string, life> lives;
    int rounds = 0;
};

} // namespace

TEST_F(expiry, comes_when_the_seconds_are_over_and_not_before) {
    launch_daemon();
    EXPECT_EQ(call({"mset", "k.0", "v", "k.1", "v", "k.3", "v", "k.wrapped", "v"}), OK);
    EXPECT_EQ(call({"rpush", "k.list", "a", "b"}), ":2\r\n");
    EXPECT_EQ(call({"hset", "k.hash", "f", "v"}), ":1\r\n");
    give_seconds("k.0", "0");
    give_seconds("k.1", "1");
    give_seconds("k.list", "1");
    give_seconds("k.hash", "1");
    give("k.setex", {"setex", "k.setex", "1", "v"}, OK);
    give_seconds("k.wrapped", "4294967297");
    give_seconds("k.3", "3");
    ASSERT_TRUE(watch_until_gone());
    expect_gone_after("k.0", 0);
    for (const char* key : {"k.1", "k.list", "k.hash", "k.setex", "k.wrapped"}) {
        expect_gone_after(key, 1);
    }
    expect_gone_after("k.3", 3);
}

TEST_F(expiry, is_left_as_it_is_by_what_changes_the_value) {
    launch_daemon();
    words replies;
    EXPECT_TRUE(in_one_second([&] {
        EXPECT_EQ(call({"set", "k", "1"}), OK);
        give_seconds("k", "1");
        replies = {call({"incr", "k"}), call({"append", "k", "0"})};
    }));
    EXPECT_EQ(replies, (words{":2\r\n", ":2\r\n"}));
    ASSERT_TRUE(watch_until_gone());
    expect_gone_after("k", 1);
}

TEST_F(expiry, is_not_put_off_by_an_absolute_time) {
    /* Such a time is only shown: whatever it is, the key goes after the second in which it was
     * given. */
    launch_daemon();
    EXPECT_TRUE(in_one_second([&] {
        EXPECT_EQ(call({"mset", "k.future", "v", "k.past", "v", "k.1", "v"}), OK);
        give("k.future", {"expireat", "k.future", in_an_hour()}, ":1\r\n");
        give_seconds("k.1", "1");
    }));
    give("k.past", {"expireat", "k.past", "1"}, ":1\r\n");
    ASSERT_TRUE(watch_until_gone());
    for (const char* key : {"k.future", "k.past", "k.1"}) {
        expect_gone_after(key, 1);
    }
    /* Both were over in the second after that in which they were given, so the same look found
     * them. */
    EXPECT_LE(std::abs(lives["k.1"].round - lives["k.future"].round), 1);
}

TEST_F(expiry, does_not_come_to_what_got_another_life) {
    launch_daemon();
    const struct {
        const char* key;
        words first;
        words second;
        std::string reply;
    } others[] = {
        {"k.persisted", {"expire", "k.persisted", "1"}, {"persist", "k.persisted"}, ":1\r\n"},
        {"k.set", {"expire", "k.set", "1"}, {"set", "k.set", "w"}, OK},
        {"k.mset", {"expire", "k.mset", "1"}, {"mset", "k.mset", "w"}, OK},
        {"k.getset", {"expire", "k.getset", "1"}, {"getset", "k.getset", "w"}, bulk("v")},
        {"k.renewed", {"expire", "k.renewed", "1"}, {"expire", "k.renewed", "1000"}, ":1\r\n"},
        {"k.relative",
         {"expireat", "k.relative", in_an_hour()},
         {"expire", "k.relative", "1000"},
         ":1\r\n"},
    };
    for (const auto& one : others) {
        EXPECT_EQ(replies_in_one_second(one.key, {one.first, one.second}),
                  (words{":1\r\n", one.reply}))
            << one.key;
    }
    EXPECT_EQ(call({"mset", "k.stays", "v", "k.negative", "v", "k.last", "v"}), OK);
    EXPECT_EQ(call({"expire", "k.negative", "-1"}), ":1\r\n");
    /* Whoever goes after a second goes with this one at the latest. */
    give_seconds("k.last", "1");
    ASSERT_TRUE(watch_until_gone());
    for (const auto& one : others) {
        expect_still_there(one.key);
    }
    expect_still_there("k.stays");
    expect_still_there("k.negative");
    EXPECT_EQ(call({"get", "k.getset"}), bulk("w"));
}

TEST_F(expiry, takes_the_settings_that_are_protected_from_deletion) {
    launch_daemon();
    give_seconds("fhour.interval", "0");
    give_seconds("tessard.run", "1");
    ASSERT_TRUE(watch_until_gone());
    expect_gone_after("fhour.interval", 0);
    expect_gone_after("tessard.run", 1);
    EXPECT_EQ(call({"hget", "tessard.run", "pid"}), "$-1\r\n");

    /* What is made in their place has no protection. */
    EXPECT_EQ(call({"rpush", "fhour.interval", "x"}), ":1\r\n");
    EXPECT_EQ(call({"del", "fhour.interval"}), ":1\r\n");
    EXPECT_EQ(call({"hset", "tessard.run", "pid", "x"}), ":1\r\n");
    EXPECT_EQ(call({"hdel", "tessard.run", "pid"}), ":1\r\n");
}

TEST_F(expiry, leaves_no_trace_of_a_key) {
    launch_daemon();
    EXPECT_EQ(call({"mset", "k.0", "v", "k.1", "v"}), OK);
    EXPECT_EQ(call({"rpush", "k.list", "a", "b"}), ":2\r\n");
    EXPECT_EQ(call({"hset", "k.hash", "f", "v"}), ":1\r\n");
    for (const char* key : {"k.0", "k.1", "k.list", "k.hash"}) {
        give_seconds(key, "0");
    }
    ASSERT_TRUE(watch_until_gone());
    EXPECT_EQ(call({"keys", "k.*"}), "*0\r\n");
    EXPECT_EQ(call({"get", "k.1"}), "$-1\r\n");
    EXPECT_EQ(call({"ttl", "k.1"}), ":-2\r\n");
    EXPECT_EQ(call({"llen", "k.list"}), ":0\r\n");
    EXPECT_EQ(call({"hgetall", "k.hash"}), "*0\r\n");

    /* What is made again is new, of any type and without expiry. */
    EXPECT_EQ(call({"hset", "k.1", "f", "v"}), ":1\r\n");
    EXPECT_EQ(call({"ttl", "k.1"}), ":-1\r\n");
    EXPECT_EQ(call({"append", "k.hash", "x"}), ":1\r\n");
}

TEST_F(expiry, takes_the_record_of_a_deleted_key_along) {
    launch_daemon();
    EXPECT_EQ(replies_in_one_second(
                  "k.expires",
                  {{"expire", "k.expires", "1"}, {"del", "k.expires"}, {"keys", "k.expires"}}),
              (words{":1\r\n", ":1\r\n", "*1\r\n" + bulk("k.expires")}));
    EXPECT_EQ(call({"mset", "k.never", "v", "k.last", "v"}), OK);
    EXPECT_EQ(call({"del", "k.never"}), ":1\r\n");
    EXPECT_EQ(call({"keys", "k.never"}), "*1\r\n" + bulk("k.never"));
    give_seconds("k.last", "1");
    ASSERT_TRUE(watch_until_gone());
    EXPECT_EQ(call({"keys", "k.expires"}), "*0\r\n");
    EXPECT_EQ(call({"keys", "k.never"}), "*1\r\n" + bulk("k.never"));
}

TEST_F(expiry, is_announced_to_nobody) {
    launch_daemon();
    resp_client observer;
    EXPECT_EQ(observer.call({"observe"}), OK);
    EXPECT_EQ(call({"set", "k.string", "v"}), OK);
    EXPECT_EQ(call({"hset", "k.hash", "f", "v"}), ":1\r\n");
    for (const char* key : {"k.string", "k.hash", "tessard.run"}) {
        give_seconds(key, "0");
    }
    ASSERT_TRUE(watch_until_gone());
    EXPECT_EQ(call({"hset", "k.string", "f", "v"}), ":1\r\n");
    EXPECT_EQ(call({"append", "k.hash", "x"}), ":1\r\n");
    EXPECT_EQ(call({"hset", "tessard.run", "pid", "x"}), ":1\r\n");
    EXPECT_EQ(call({"hdel", "tessard.run", "pid"}), ":1\r\n");
    EXPECT_EQ(call({"set", "k.end", "v"}), OK);

    words heard;
    const int64_t asked = now_ms();
    do {
        ASSERT_LT(now_ms() - asked, LIMIT_MS) << "the last event does not come";
        heard.push_back(next_frame(observer));
    } while (heard.back().starts_with('!') && heard.back().find("k.end") == std::string::npos);
    EXPECT_EQ(
        heard,
        (words{event_frame({"MSET", "k.string", "v"}), event_frame({"HMSET", "k.hash", "f", "v"}),
               event_frame({"HMSET", "k.string", "f", "v"}), event_frame({"MSET", "k.hash", "x"}),
               event_frame({"HMSET", "tessard.run", "pid", "x"}),
               event_frame({"HDEL", "tessard.run", "pid"}), event_frame({"MSET", "k.end", "v"})}));
}

TEST_F(expiry, is_looked_for_once_a_second) {
    launch_daemon({"-l", "debug", "-f", "stdout"});
    EXPECT_EQ(call({"mset", "k.first", "v", "k.next", "v"}), OK);
    give_seconds("k.first", "0");
    ASSERT_TRUE(watch_until_gone());
    expect_gone_after("k.first", 0);
    /* The first tick only takes the time, and the first look comes a second after it at the
     * earliest. */
    EXPECT_GE(lives["k.first"].found_gone - launched_at, 1000);

    /* A key that is over at once stays until the next look, a second after the last. */
    give_seconds("k.next", "0");
    ASSERT_TRUE(watch_until_gone());
    expect_gone_after("k.next", 0);
    EXPECT_GE(lives["k.next"].found_gone - lives["k.first"].last_seen, 990);

    expect_traced({"\"k.first\"(string): set expire-TTL to 0", "add to expired list",
                   "\"k.first\"(string): expired.", "\"k.first\"(string): destroyed",
                   "\"k.next\"(string): set expire-TTL to 0", "add to expired list",
                   "\"k.next\"(string): expired.", "\"k.next\"(string): destroyed"});
}

TEST_F(expiry, that_is_given_and_taken_is_traced) {
    launch_daemon({"-l", "debug", "-f", "stdout"});
    EXPECT_EQ(call({"set", "k", "v"}), OK);
    EXPECT_EQ(call({"expire", "k", "4294967295"}), ":1\r\n");
    EXPECT_EQ(call({"persist", "k"}), ":1\r\n");
    EXPECT_EQ(call({"persist", "k"}), ":0\r\n");
    EXPECT_EQ(call({"expireat", "k", "2000000000"}), ":1\r\n");
    EXPECT_EQ(call({"set", "k", "w"}), OK);
    EXPECT_EQ(call({"setex", "k", "77", "x"}), OK);
    expect_traced({"\"k\"(string): set expire-TTL to 4294967295",
                   "\"k\"(string): remove expire-TTL", "\"k\"(string): remove expire-TTL",
                   "\"k\"(string): set expire-TTL to 77"});
}

TEST_F(expiry, of_keys_that_go_in_one_look_is_traced_from_the_last_found_to_the_first) {
    const std::map<std::string, std::string> types = {
        {"e.a", "string"}, {"e.b", "list"}, {"e.c", "hash"}};
    words order; /* in which a walk finds them */
    /* One look finds them all when they got their ends in one second. The trace is compared from
     * its start, so a daemon whose keys a slow machine has set apart gives way to another. */
    ASSERT_TRUE(eventually([&] {
        launch_daemon({"-l", "debug", "-f", "stdout"});
        EXPECT_EQ(call({"set", "e.a", "v"}), OK);
        EXPECT_EQ(call({"rpush", "e.b", "x"}), ":1\r\n");
        EXPECT_EQ(call({"hset", "e.c", "f", "v"}), ":1\r\n");
        order = elements_of(call({"keys", "e.*"}));
        wait_for_a_new_second();
        return fell_into_one_second([&] {
            for (const std::string& key : order) {
                give_seconds(key, "1");
            }
        });
    }));
    ASSERT_TRUE(watch_until_gone());

    words expected;
    for (const std::string& key : order) {
        expected.push_back("\"" + key + "\"(" + types.at(key) + "): set expire-TTL to 1");
    }
    expected.insert(expected.end(), order.size(), "add to expired list");
    std::reverse(order.begin(), order.end());
    for (const std::string& key : order) {
        const std::string who = "\"" + key + "\"(" + types.at(key) + "): ";
        expected.insert(expected.end(), {who + "expired.", who + "destroyed"});
    }
    expect_traced(expected);
}
