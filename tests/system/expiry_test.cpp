/*
 * The expiry of keys as time passes. The sweep looks at most once a second, so each test here takes
 * a few seconds; as many keys as possible share one daemon and one stretch of time.
 */

#include <stdint.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>

#include "tests/system/support/daemon_test.h"
#include "tests/system/support/log_text.h"

using namespace system_test;

namespace {

using words = std::vector<std::string>;

const std::string OK = "+OK\r\n";

/* How long after its last second a key may still be there, in ms: up to a second until the next
 * look, and what a busy machine adds. */
constexpr int64_t LATE_MS = 10000;

std::string bulk(const std::string& value) {
    return "$" + std::to_string(value.size()) + "\r\n" + value + "\r\n";
}

/* Milliseconds of the wall clock, which is what the daemon goes by when it looks. */
int64_t wall_ms() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_usec / 1000;
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

    bool watch_until_gone(const words& expected) {
        return eventually(
            [&] {
                look();
                return std::all_of(expected.begin(), expected.end(), [&](const std::string& key) {
                    return lives[key].found_gone != 0;
                });
            },
            LIMIT_MS);
    }

    /* The key was there until so many seconds of the clock were over, counted from that in which it
       got its expiry, and not much longer. */
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
       no key to which they gave an end after that second can have gone meanwhile. */
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

    process* daemon = nullptr;
    std::optional<resp_client> client;
    int64_t launched_at = 0;
    std::map<std::string, life> lives;
    int rounds = 0;
};

} // namespace

TEST_F(expiry, comes_when_the_seconds_are_over_and_not_before) {
    launch_daemon();
    resp_client observer;
    EXPECT_EQ(observer.call({"observe"}), OK);

    /* These are never over, or were given another life before the end. */
    for (const char* key : {"k.stays", "k.negative"}) {
        EXPECT_EQ(call({"set", key, "v"}), OK);
    }
    EXPECT_EQ(call({"expire", "k.negative", "-1"}), ":1\r\n");
    const std::string in_an_hour = std::to_string(time(nullptr) + 3600);
    const auto outlives = [&](const std::string& key, const words& first, const words& second,
                              const std::string& reply) {
        EXPECT_EQ(replies_in_one_second(key, {first, second}), (words{":1\r\n", reply})) << key;
    };
    outlives("k.persisted", {"expire", "k.persisted", "1"}, {"persist", "k.persisted"}, ":1\r\n");
    outlives("k.set", {"expire", "k.set", "1"}, {"set", "k.set", "w"}, OK);
    outlives("k.mset", {"expire", "k.mset", "1"}, {"mset", "k.mset", "w"}, OK);
    outlives("k.getset", {"expire", "k.getset", "1"}, {"getset", "k.getset", "w"}, bulk("v"));
    outlives("k.renewed", {"expire", "k.renewed", "1"}, {"expire", "k.renewed", "1000"}, ":1\r\n");
    outlives("k.relative", {"expireat", "k.relative", in_an_hour}, {"expire", "k.relative", "1000"},
             ":1\r\n");

    /* A deleted key's record goes with its expiry. */
    EXPECT_EQ(replies_in_one_second(
                  "k.deleted",
                  {{"expire", "k.deleted", "1"}, {"del", "k.deleted"}, {"keys", "k.deleted"}}),
              (words{":1\r\n", ":1\r\n", "*1\r\n" + bulk("k.deleted")}));
    EXPECT_EQ(call({"set", "k.dead", "v"}), OK);
    EXPECT_EQ(call({"del", "k.dead"}), ":1\r\n");
    EXPECT_EQ(call({"keys", "k.dead"}), "*1\r\n" + bulk("k.dead"));

    words will_go = {"k.0", "k.3", "k.list", "k.hash", "k.setex", "k.wrapped"};
    for (const char* key : {"k.0", "k.3", "k.wrapped", "k.past"}) {
        EXPECT_EQ(call({"set", key, "v"}), OK);
    }
    EXPECT_EQ(call({"rpush", "k.list", "a", "b"}), ":2\r\n");
    EXPECT_EQ(call({"hset", "k.hash", "f", "v"}), ":1\r\n");

    give_seconds("k.0", "0");
    give_seconds("k.list", "1");
    give_seconds("k.hash", "1");
    give("k.setex", {"setex", "k.setex", "1", "v"}, OK);
    give_seconds("k.wrapped", "4294967297");

    /* What changes a value leaves its end as it is. */
    words changed;
    EXPECT_TRUE(in_one_second([&] {
        EXPECT_EQ(call({"set", "k.incr", "1"}), OK);
        give_seconds("k.incr", "1");
        changed = {call({"incr", "k.incr"}), call({"append", "k.incr", "0"})};
    }));
    EXPECT_EQ(changed, (words{":2\r\n", ":2\r\n"}));
    will_go.push_back("k.incr");

    /* The protection of the settings is one against deletion only. */
    give_seconds("fhour.interval", "1");
    give_seconds("tessard.run", "1");
    will_go.insert(will_go.end(), {"fhour.interval", "tessard.run"});

    /* An absolute time is only shown: whatever it is, the key goes after the second in which it was
     * given. */
    EXPECT_TRUE(in_one_second([&] {
        EXPECT_EQ(call({"mset", "k.future", "v", "k.1", "v"}), OK);
        give("k.future", {"expireat", "k.future", in_an_hour}, ":1\r\n");
        give_seconds("k.1", "1");
    }));
    give("k.past", {"expireat", "k.past", "1"}, ":1\r\n");
    give_seconds("k.3", "3");
    will_go.insert(will_go.end(), {"k.1", "k.future", "k.past"});

    ASSERT_TRUE(watch_until_gone(will_go));

    expect_gone_after("k.0", 0);
    for (const char* key : {"k.1", "k.list", "k.hash", "k.setex", "k.incr", "k.wrapped",
                            "fhour.interval", "tessard.run", "k.future", "k.past"}) {
        expect_gone_after(key, 1);
    }
    expect_gone_after("k.3", 3);
    /* Both were over in the second after that in which they were given, so the same look found
     * them. */
    EXPECT_LE(std::abs(lives["k.1"].round - lives["k.future"].round), 1);
    /* The first tick only takes the time, and the first look comes a second after it at the
     * earliest. */
    EXPECT_GE(lives["k.0"].found_gone - launched_at, 1000);

    for (const char* key : {"k.stays", "k.negative", "k.persisted", "k.set", "k.mset", "k.getset",
                            "k.renewed", "k.relative"}) {
        expect_still_there(key);
    }
    EXPECT_EQ(call({"get", "k.getset"}), bulk("w"));

    /* What is gone is no longer listed, and answers as if it had never been there. */
    EXPECT_EQ(call({"keys", "k.[013]"}), "*0\r\n");
    EXPECT_EQ(call({"keys", "k.deleted"}), "*0\r\n");
    EXPECT_EQ(call({"keys", "k.dead"}), "*1\r\n" + bulk("k.dead"));
    EXPECT_EQ(call({"get", "k.1"}), "$-1\r\n");
    EXPECT_EQ(call({"ttl", "k.1"}), ":-2\r\n");
    EXPECT_EQ(call({"llen", "k.list"}), ":0\r\n");
    EXPECT_EQ(call({"hgetall", "k.hash"}), "*0\r\n");
    EXPECT_EQ(call({"hget", "tessard.run", "pid"}), "$-1\r\n");

    /* What is made again is new, of any type, without expiry and without protection. */
    EXPECT_EQ(call({"hset", "k.1", "f", "v"}), ":1\r\n");
    EXPECT_EQ(call({"ttl", "k.1"}), ":-1\r\n");
    EXPECT_EQ(call({"append", "k.hash", "x"}), ":1\r\n");
    EXPECT_EQ(call({"rpush", "fhour.interval", "x"}), ":1\r\n");
    EXPECT_EQ(call({"del", "fhour.interval"}), ":1\r\n");
    EXPECT_EQ(call({"hset", "tessard.run", "pid", "x"}), ":1\r\n");
    EXPECT_EQ(call({"hdel", "tessard.run", "pid"}), ":1\r\n");

    /* The observer hears of values alone: the last thing that was said of any of these keys is a
     * value. */
    EXPECT_EQ(call({"set", "k.end", "v"}), OK);
    std::string event;
    std::vector<std::string> of_ours;
    const int64_t asked = now_ms();
    do {
        event = observer.frame();
        ASSERT_EQ(event[0], '!') << event;
        ASSERT_LT(now_ms() - asked, LIMIT_MS) << "the last event does not come";
        if (event.find("\r\nk.") != std::string::npos ||
            event.find("tessard.run") != std::string::npos ||
            event.find("fhour.interval") != std::string::npos) {
            of_ours.push_back(event);
        }
    } while (event.find("k.end") == std::string::npos);
    const std::string mset = "!3\r\n" + bulk("MSET");
    std::vector<std::string> after_the_last_expiry(
        of_ours.end() - std::min<long>(5, std::ssize(of_ours)), of_ours.end());
    EXPECT_EQ(after_the_last_expiry,
              (words{"!4\r\n" + bulk("HMSET") + bulk("k.1") + bulk("f") + bulk("v"),
                     mset + bulk("k.hash") + bulk("x"),
                     "!4\r\n" + bulk("HMSET") + bulk("tessard.run") + bulk("pid") + bulk("x"),
                     "!3\r\n" + bulk("HDEL") + bulk("tessard.run") + bulk("pid"),
                     mset + bulk("k.end") + bulk("v")}));
    EXPECT_EQ(std::count_if(
                  of_ours.begin(), of_ours.end(),
                  [](const std::string& one) { return one.find("DEL\r\n") != std::string::npos; }),
              1);
}

TEST_F(expiry, is_looked_for_once_a_second_and_traced_key_by_key) {
    words order;
    const auto make_keys = [&] {
        EXPECT_EQ(call({"mset", "e.a", "v", "e.kept", "v"}), OK);
        EXPECT_EQ(call({"rpush", "e.b", "x"}), ":1\r\n");
        EXPECT_EQ(call({"hset", "e.c", "f", "v"}), ":1\r\n");
        const std::string listed = call({"keys", "e.*"});
        order = {"e.a", "e.b", "e.c"};
        std::sort(order.begin(), order.end(), [&](const std::string& a, const std::string& b) {
            return listed.find(a) < listed.find(b);
        });
        EXPECT_EQ(call({"expire", "e.kept", "4294967295"}), ":1\r\n");
        EXPECT_EQ(call({"persist", "e.kept"}), ":1\r\n");
        EXPECT_EQ(call({"persist", "e.kept"}), ":0\r\n");
    };
    const auto give_ends = [&] {
        EXPECT_EQ(call({"expireat", "e.kept", "2000000000"}), ":1\r\n");
        EXPECT_EQ(call({"set", "e.kept", "w"}), OK);
        for (const std::string& key : order) {
            give_seconds(key, "1");
        }
    };
    /* One look finds them all when they got their ends in one second. The trace is compared from
       its start, so a daemon whose keys a slow machine has set apart gives way to another. */
    ASSERT_TRUE(eventually([&] {
        launch_daemon({"-l", "debug", "-f", "stdout"});
        make_keys();
        wait_for_a_new_second();
        return fell_into_one_second(give_ends);
    }));
    ASSERT_TRUE(watch_until_gone(order));
    /* All went in one look, the one that was found last first. */
    int64_t first_look_after = 0;
    for (const std::string& key : order) {
        first_look_after = std::max(first_look_after, lives[key].last_seen);
    }

    /* A key that is over at once stays until the next look, a second after the last. */
    EXPECT_EQ(call({"set", "e.next", "v"}), OK);
    give_seconds("e.next", "0");
    ASSERT_TRUE(watch_until_gone({"e.next"}));
    EXPECT_GE(lives["e.next"].found_gone - first_look_after, 990);
    expect_gone_after("e.next", 0);
    EXPECT_EQ(call({"setex", "e.kept", "77", "x"}), OK);

    const std::map<std::string, std::string> types = {
        {"e.a", "string"}, {"e.b", "list"}, {"e.c", "hash"}};
    words expected = {"\"e.kept\"(string): set expire-TTL to 4294967295",
                      "\"e.kept\"(string): remove expire-TTL",
                      "\"e.kept\"(string): remove expire-TTL"};
    for (const std::string& key : order) {
        expected.push_back("\"" + key + "\"(" + types.at(key) + "): set expire-TTL to 1");
    }
    for (size_t i = 0; i < order.size(); i++) {
        expected.push_back("add to expired list");
    }
    for (size_t i = order.size(); i > 0; i--) {
        const std::string who = "\"" + order[i - 1] + "\"(" + types.at(order[i - 1]) + "): ";
        expected.push_back(who + "expired.");
        expected.push_back(who + "destroyed");
    }
    for (const char* line : {"\"e.next\"(string): set expire-TTL to 0", "add to expired list",
                             "\"e.next\"(string): expired.", "\"e.next\"(string): destroyed",
                             "\"e.kept\"(string): set expire-TTL to 77"}) {
        expected.push_back(line);
    }
    words traced;
    EXPECT_TRUE(eventually([&] {
        traced = log_messages(daemon->out(), {"expire-TTL", "expired", "destroyed"});
        return traced.size() >= expected.size();
    }));
    EXPECT_EQ(traced, expected);
}
