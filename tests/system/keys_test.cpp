/* The keyspace as clients see it: which keys there are and of what type, what deletion does and
 * what it leaves alone, the keys that are there from the start. What happens to keys as time passes
 * is tested with the expiry. */

#include <stdint.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>

#include "tests/system/model/frames.h"
#include "tests/system/support/daemon_test.h"

using namespace system_test;

namespace {

typedef std::vector<std::string> words;

const std::string OK = "+OK\r\n";
const std::string ERROR = "-ERR\r\n";
const std::string NIL = "$-1\r\n";
const std::string NOTHING = "*0\r\n";

std::string bulks(const words& values) {
    std::string frame = "*" + std::to_string(values.size()) + "\r\n";
    for (const std::string& value : values) {
        frame += bulk(value);
    }
    return frame;
}

uint32_t now_seconds() {
    return static_cast<uint32_t>(time(nullptr));
}

/* By the clock that the daemon looks for expired keys with; the other may be a tick of the kernel
 * behind. */
uint32_t now_seconds_exactly() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    return static_cast<uint32_t>(now.tv_sec);
}

std::string seconds_reply(uint32_t seconds) {
    return ":" + std::to_string(static_cast<int32_t>(seconds)) + "\r\n";
}

class keys : public client_test {
  protected:
    /* The keys that match, in no particular order. */
    words matching(const std::string& pattern) {
        words found = elements_of(call({"keys", pattern}));
        std::sort(found.begin(), found.end());
        return found;
    }

    /* The reply is the number of seconds from then until the end, counted in 32 bits; the clock may
     * have moved on between the setting and the question. */
    void expect_ttl(const std::string& key, uint32_t end_from, uint32_t end_to) {
        uint32_t asked = now_seconds();
        std::string reply = call({"ttl", key});
        uint32_t answered = now_seconds();
        std::vector<std::string> possible;
        for (uint32_t end = end_from; end - end_from <= end_to - end_from; end++) {
            for (uint32_t now = asked; now <= answered; now++) {
                possible.push_back(seconds_reply(end - now));
            }
        }
        EXPECT_TRUE(std::find(possible.begin(), possible.end(), reply) != possible.end())
            << key << ": " << reply << "is not among " << ::testing::PrintToString(possible);
    }

    /* Sets the time to live and expects these seconds to be left of it. */
    void expect_lives(const std::string& seconds, uint32_t stored) {
        SCOPED_TRACE(seconds);
        uint32_t before = now_seconds();
        EXPECT_EQ(call({"expire", "k", seconds}), ":1\r\n");
        expect_ttl("k", before + stored, now_seconds() + stored);
        EXPECT_EQ(call({"persist", "k"}), ":1\r\n");
    }

    /* Makes the key and sends the requests, anew until they have all fallen into one second of the
     * clock: a key with an absolute time goes with the second in which it got it. Tells that
     * second. */
    words replies_in_one_second(const words& make, const std::vector<words>& requests,
                                uint32_t* second) {
        words replies;
        const bool done = eventually([&] {
            call({"del", make[1]});
            call(make);
            replies.clear();
            *second = now_seconds();
            for (const words& request : requests) {
                replies.push_back(call(request));
            }
            return now_seconds_exactly() == *second;
        });
        EXPECT_TRUE(done) << "never in one second";
        return replies;
    }

    /* Sets the absolute time and expects it to be stored as these 32 bits. */
    void expect_ends_at(const std::string& when, uint32_t stored) {
        SCOPED_TRACE(when);
        uint32_t now = 0;
        const words replies = replies_in_one_second(
            {"set", "k", "v"}, {{"expireat", "k", when}, {"ttl", "k"}, {"persist", "k"}}, &now);
        EXPECT_EQ(replies, (words{":1\r\n", seconds_reply(stored - now), ":1\r\n"}));
    }

    /* Makes a string, a list and a hash. */
    void make_one_of_each() {
        EXPECT_EQ(call({"set", "k.string", "v"}), OK);
        EXPECT_EQ(call({"rpush", "k.list", "item"}), ":1\r\n");
        EXPECT_EQ(call({"hset", "k.hash", "f", "v"}), ":1\r\n");
    }

    /* The next event about a key that a test made. The daemon's own figures are announced in
     * between. */
    static std::string next_event(resp_client& observer) {
        const long end = now_ms() + LIMIT_MS;
        while (now_ms() < end) {
            std::string event = observer.frame(static_cast<int>(end - now_ms()));
            words parts = elements_of(event);
            if (parts.size() < 2 || parts[1].compare(0, 2, "k.") == 0) {
                return event;
            }
        }
        return "<nothing came>";
    }
};

} // namespace

TEST_F(keys, of_every_type_are_listed) {
    make_one_of_each();
    EXPECT_EQ(matching("k.*"), (words{"k.hash", "k.list", "k.string"}));
}

TEST_F(keys, are_listed_as_an_empty_array_when_none_matches) {
    EXPECT_EQ(call({"keys", "k.*"}), NOTHING);
    EXPECT_EQ(call({"keys", ""}), NOTHING);
    EXPECT_EQ(call({"set", "k.a", "v"}), OK);
    EXPECT_EQ(call({"keys", "k.b"}), NOTHING);
}

TEST_F(keys, are_listed_in_the_order_of_their_hash) {
    /* The sum of bytes times powers of 31 gives p.a, p.b and p.c the hashes 109155 to 109157, which
     * are neighbours in a table of 11, 23, 97 and 397 buckets alike. */
    for (const char* key : {"p.c", "p.a", "p.b"}) {
        EXPECT_EQ(call({"set", key, "v"}), OK);
    }
    EXPECT_EQ(call({"keys", "p.*"}), bulks({"p.a", "p.b", "p.c"}));
}

TEST_F(keys, of_one_bucket_are_listed_newest_first) {
    /* So many keys that the table is large enough for all that follows: growing turns a bucket
     * round. */
    for (int i = 0; i < 120; i++) {
        EXPECT_EQ(call({"set", "fill." + std::to_string(i), "v"}), OK);
    }
    /* "Aa" and "BB" have the same hash, and so has every word made of them. */
    for (const char* key : {"q.AaAa", "q.BBBB", "q.AaBB", "q.BBAa"}) {
        EXPECT_EQ(call({"set", key, "v"}), OK);
    }
    EXPECT_EQ(call({"keys", "q.*"}), bulks({"q.BBAa", "q.AaBB", "q.BBBB", "q.AaAa"}));
    EXPECT_EQ(call({"set", "q.AaAa", "again"}), OK);
    EXPECT_EQ(call({"keys", "q.*"}), bulks({"q.BBAa", "q.AaBB", "q.BBBB", "q.AaAa"}));
    for (const char* key : {"q.AaAa", "q.BBBB", "q.AaBB", "q.BBAa"}) {
        EXPECT_EQ(call({"set", key, key}), OK);
    }
    for (const char* key : {"q.AaAa", "q.BBBB", "q.AaBB", "q.BBAa"}) {
        EXPECT_EQ(call({"get", key}), bulk(key));
    }
}

TEST_F(keys, are_matched_by_shell_patterns) {
    const words all = {"z", "z1", "z2", "z10", "zA", "z*", "z/x", "z.x", "z[x", "z\\x", "z-", "z^"};
    for (const std::string& key : all) {
        EXPECT_EQ(call({"set", key, "v"}), OK);
    }
    auto sorted = [](words list) {
        std::sort(list.begin(), list.end());
        return list;
    };
    EXPECT_EQ(matching("z*"), sorted(all));
    EXPECT_EQ(matching("z"), (words{"z"}));
    EXPECT_EQ(matching("Z*"), (words{}));
    EXPECT_EQ(matching("z?"), sorted({"z1", "z2", "zA", "z*", "z-", "z^"}));
    EXPECT_EQ(matching("z??"), sorted({"z10", "z/x", "z.x", "z[x", "z\\x"}));
    EXPECT_EQ(matching("z[12]"), (words{"z1", "z2"}));
    EXPECT_EQ(matching("z[0-9]"), (words{"z1", "z2"}));
    EXPECT_EQ(matching("z[0-9]*"), sorted({"z1", "z2", "z10"}));
    EXPECT_EQ(matching("z[!0-9]"), sorted({"zA", "z*", "z-", "z^"}));
    EXPECT_EQ(matching("z[[:digit:]]"), (words{"z1", "z2"}));
    EXPECT_EQ(matching("z[[:upper:]]"), (words{"zA"}));
    EXPECT_EQ(matching("z[-1]"), sorted({"z-", "z1"}));
    EXPECT_EQ(matching("z\\*"), (words{"z*"}));
    EXPECT_EQ(matching("z\\\\x"), (words{"z\\x"}));
    EXPECT_EQ(matching("z[[]x"), (words{"z[x"}));
    EXPECT_EQ(matching("z[x"), (words{"z[x"}));
    EXPECT_EQ(matching("z*x"), sorted({"z/x", "z.x", "z[x", "z\\x"}));
    EXPECT_EQ(matching("*z1*"), sorted({"z1", "z10"}));
    EXPECT_EQ(matching("z***1***"), sorted({"z1", "z10"}));
    EXPECT_EQ(matching("z+(1|2)"), (words{}));
    EXPECT_EQ(matching("~z"), (words{}));
}

TEST_F(keys, that_begin_with_a_dot_or_are_empty_match_a_star) {
    EXPECT_EQ(call({"set", ".zz", "v"}), OK);
    EXPECT_EQ(call({"set", "", "v"}), OK);
    EXPECT_EQ(matching("*zz"), (words{".zz"}));
    EXPECT_EQ(matching("?zz"), (words{".zz"}));
    EXPECT_EQ(matching("[.]zz"), (words{".zz"}));
    EXPECT_EQ(matching(""), (words{""}));
    words every = matching("*");
    EXPECT_TRUE(std::find(every.begin(), every.end(), "") != every.end());
    EXPECT_TRUE(std::find(every.begin(), every.end(), ".zz") != every.end());
}

TEST_F(keys, keep_the_bytes_behind_a_nul_but_are_found_by_those_before) {
    const std::string with_nul("k.a\0b", 5);
    EXPECT_EQ(call({"set", with_nul, "1"}), OK);
    EXPECT_EQ(call({"get", "k.a"}), bulk("1"));
    EXPECT_EQ(call({"keys", "k.*"}), bulks({with_nul}));
    EXPECT_EQ(call({"set", std::string("k.a\0other", 9), "2"}), OK);
    EXPECT_EQ(call({"keys", "k.*"}), bulks({with_nul}));
    EXPECT_EQ(call({"get", with_nul}), bulk("2"));
    EXPECT_EQ(call({"keys", std::string("k.a\0zzz", 7)}), bulks({with_nul}));
    EXPECT_EQ(call({"exists", "k.a"}), ":1\r\n");
    EXPECT_EQ(call({"del", "k.a"}), ":1\r\n");
    EXPECT_EQ(call({"exists", with_nul}), ":0\r\n");
}

TEST_F(keys, of_any_bytes_and_lengths_are_told_apart) {
    words made;
    for (int byte = 1; byte < 256; byte++) {
        made.push_back("k." + std::string(1, static_cast<char>(byte)));
    }
    for (size_t length : {198u, 199u, 200u, 201u, 1000u, 30000u}) {
        made.push_back("k.long" + std::string(length - 6, 'x'));
    }
    for (size_t i = 0; i < made.size(); i++) {
        EXPECT_EQ(call({"set", made[i], std::to_string(i)}), OK);
    }
    for (size_t i = 0; i < made.size(); i++) {
        EXPECT_EQ(call({"get", made[i]}), bulk(std::to_string(i))) << i;
    }
    EXPECT_EQ(matching("k.long*").size(), 6u);
}

TEST_F(keys, that_were_deleted_are_listed_until_their_record_is_gone_although_they_do_not_exist) {
    make_one_of_each();
    EXPECT_EQ(call({"del", "k.string", "k.list"}), ":2\r\n");
    EXPECT_EQ(matching("k.*"), (words{"k.hash", "k.list", "k.string"}));
    EXPECT_EQ(call({"exists", "k.string"}), ":0\r\n");
    EXPECT_EQ(call({"exists", "k.list"}), ":0\r\n");
    EXPECT_EQ(call({"exists", "k.hash"}), ":1\r\n");
}

TEST_F(keys, exist_whatever_their_type) {
    make_one_of_each();
    EXPECT_EQ(call({"exists", "k.string"}), ":1\r\n");
    EXPECT_EQ(call({"exists", "k.list"}), ":1\r\n");
    EXPECT_EQ(call({"exists", "k.hash"}), ":1\r\n");
    EXPECT_EQ(call({"exists", "k.none"}), ":0\r\n");
    EXPECT_EQ(call({"exists", "K.STRING"}), ":0\r\n");
    EXPECT_EQ(call({"exists", "k.none", "k.string"}), ":0\r\n");
    EXPECT_EQ(call({"exists", "k.string", "k.none"}), ":1\r\n");
}

TEST_F(keys, have_a_type) {
    make_one_of_each();
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(call({"type", "k.string"}), bulk("string"));
        EXPECT_EQ(call({"type", "k.list"}), bulk("list"));
        EXPECT_EQ(call({"type", "k.hash"}), bulk("hash"));
        EXPECT_EQ(call({"type", "k.none"}), bulk("none"));
    }
    EXPECT_EQ(call({"del", "k.hash"}), ":1\r\n");
    EXPECT_EQ(call({"type", "k.hash"}), bulk("none"));
    EXPECT_EQ(call({"lpop", "k.list"}), bulk("item"));
    EXPECT_EQ(call({"type", "k.list"}), bulk("list"));
}

TEST_F(keys, are_counted_as_they_are_deleted) {
    make_one_of_each();
    EXPECT_EQ(call({"del", "k.none"}), ":0\r\n");
    EXPECT_EQ(call({"del", "k.none", "k.string", "k.none", "k.list", "k.hash"}), ":3\r\n");
    EXPECT_EQ(call({"del", "k.string", "k.list", "k.hash"}), ":0\r\n");
    EXPECT_EQ(call({"set", "k.string", "v"}), OK);
    EXPECT_EQ(call({"del", "k.string", "k.string", "k.string"}), ":1\r\n");
}

TEST_F(keys, that_were_deleted_read_as_missing_everywhere) {
    make_one_of_each();
    EXPECT_EQ(call({"del", "k.string", "k.list", "k.hash"}), ":3\r\n");
    EXPECT_EQ(call({"get", "k.string"}), NIL);
    EXPECT_EQ(call({"strlen", "k.string"}), ":0\r\n");
    EXPECT_EQ(call({"mget", "k.string"}), "*1\r\n" + NIL);
    EXPECT_EQ(call({"getset", "k.string", "new"}), NIL);
    EXPECT_EQ(call({"exists", "k.string"}), ":0\r\n");
    EXPECT_EQ(call({"ttl", "k.string"}), ":-2\r\n");
    EXPECT_EQ(call({"expire", "k.string", "100"}), ":0\r\n");
    EXPECT_EQ(call({"expireat", "k.string", "2000000000"}), ":0\r\n");
    EXPECT_EQ(call({"persist", "k.string"}), ":0\r\n");
    EXPECT_EQ(call({"hlen", "k.hash"}), ":0\r\n");
    EXPECT_EQ(call({"hgetall", "k.hash"}), NOTHING);
    EXPECT_EQ(call({"hget", "k.hash", "f"}), NIL);
    EXPECT_EQ(call({"hexists", "k.hash", "f"}), ":0\r\n");
    EXPECT_EQ(call({"hdel", "k.hash", "f"}), ":0\r\n");
    EXPECT_EQ(call({"llen", "k.list"}), ":0\r\n");
    EXPECT_EQ(call({"lpop", "k.list"}), NIL);
    EXPECT_EQ(call({"lpushx", "k.list", "x"}), ":0\r\n");
    EXPECT_EQ(call({"lmaxlen", "k.list", "3"}), ":0\r\n");
    EXPECT_EQ(call({"lindex", "k.list", "0"}), ERROR);
}

TEST_F(keys, that_were_deleted_come_back_fresh_and_of_any_type) {
    EXPECT_EQ(call({"setex", "k.a", "1000", "old"}), OK);
    EXPECT_EQ(call({"del", "k.a"}), ":1\r\n");
    EXPECT_EQ(call({"append", "k.a", "new"}), ":3\r\n");
    EXPECT_EQ(call({"get", "k.a"}), bulk("new"));
    EXPECT_EQ(call({"ttl", "k.a"}), ":-1\r\n");

    EXPECT_EQ(call({"del", "k.a"}), ":1\r\n");
    EXPECT_EQ(call({"incr", "k.a"}), ":1\r\n");
    EXPECT_EQ(call({"del", "k.a"}), ":1\r\n");
    EXPECT_EQ(call({"setnx", "k.a", "v"}), ":1\r\n");
    EXPECT_EQ(call({"del", "k.a"}), ":1\r\n");
    EXPECT_EQ(call({"msetnx", "k.a", "w"}), ":1\r\n");
    EXPECT_EQ(call({"get", "k.a"}), bulk("w"));

    EXPECT_EQ(call({"del", "k.a"}), ":1\r\n");
    EXPECT_EQ(call({"hset", "k.a", "f", "v"}), ":1\r\n");
    EXPECT_EQ(call({"hlen", "k.a"}), ":1\r\n");
    EXPECT_EQ(call({"del", "k.a"}), ":1\r\n");
    EXPECT_EQ(call({"rpush", "k.a", "x", "y"}), ":2\r\n");
    EXPECT_EQ(call({"lmaxlen", "k.a", "2"}), ":2\r\n");
    EXPECT_EQ(call({"del", "k.a"}), ":1\r\n");
    EXPECT_EQ(call({"rpush", "k.a", "x", "y", "z"}), ":3\r\n");
    EXPECT_EQ(call({"lmaxlen", "k.a", "0"}), ":65535\r\n");
    EXPECT_EQ(call({"del", "k.a"}), ":1\r\n");
    EXPECT_EQ(call({"set", "k.a", "v"}), OK);
    EXPECT_EQ(call({"type", "k.a"}), bulk("string"));
    EXPECT_EQ(matching("k.a"), (words{"k.a"}));
}

TEST_F(keys, that_are_deleted_are_announced_to_nobody) {
    make_one_of_each();
    resp_client observer;
    EXPECT_EQ(observer.call({"observe"}), OK);
    EXPECT_EQ(call({"del", "k.string", "k.list", "k.hash"}), ":3\r\n");
    EXPECT_EQ(call({"set", "k.end", "v"}), OK);
    EXPECT_EQ(next_event(observer), "!3\r\n" + bulk("MSET") + bulk("k.end") + bulk("v"));
}

TEST_F(keys, that_are_deleted_set_nothing_else_in_motion) {
    /* A report is folded in whenever the key is written; entry 1 begins with max, min, avg, total,
     * loss. */
    const std::string report = "id=1,max=4,min=2,avg=3,total=10,loss=1";
    const std::string entry("\0\0\0\4\0\0\0\2\0\0\0\3\0\0\0\12\0\0\0\1", 20);
    EXPECT_EQ(call({"set", "ping.data", report}), OK);
    EXPECT_EQ(call({"get", "ping.snap"}), bulk(entry + std::string(380, '\0')));
    EXPECT_EQ(call({"del", "ping.data"}), ":1\r\n");
    EXPECT_EQ(call({"get", "ping.snap"}), bulk(entry + std::string(380, '\0')));
}

TEST_F(keys, hold_the_daemons_settings_from_the_start) {
    EXPECT_EQ(call({"type", "fhour.interval"}), bulk("string"));
    EXPECT_EQ(call({"get", "fhour.interval"}), bulk("30"));
    EXPECT_EQ(call({"ttl", "fhour.interval"}), ":-1\r\n");
    EXPECT_EQ(call({"type", "tessard.run"}), bulk("hash"));
    EXPECT_EQ(call({"hlen", "tessard.run"}), ":4\r\n");
    EXPECT_EQ(call({"hmget", "tessard.run", "logfile", "loglevel", "pid", "history-iface-algor"}),
              bulks({"/tmp/tessard.log", "info", "none", "max"}));
    EXPECT_EQ(call({"ttl", "tessard.run"}), ":-1\r\n");
}

TEST_F(keys, of_settings_cannot_be_deleted) {
    EXPECT_EQ(call({"del", "fhour.interval"}), ":0\r\n");
    EXPECT_EQ(call({"del", "tessard.run"}), ":0\r\n");
    EXPECT_EQ(call({"set", "k.a", "v"}), OK);
    EXPECT_EQ(call({"del", "tessard.run", "k.a", "fhour.interval"}), ":1\r\n");
    EXPECT_EQ(call({"get", "fhour.interval"}), bulk("30"));
    for (const char* field : {"logfile", "loglevel", "pid", "history-iface-algor"}) {
        EXPECT_EQ(call({"hdel", "tessard.run", field}), ":0\r\n") << field;
    }
    EXPECT_EQ(call({"hlen", "tessard.run"}), ":4\r\n");
}

TEST_F(keys, of_settings_can_be_overwritten_and_stay_protected) {
    EXPECT_EQ(call({"set", "fhour.interval", "60"}), OK);
    EXPECT_EQ(call({"del", "fhour.interval"}), ":0\r\n");
    EXPECT_EQ(call({"incr", "fhour.interval"}), ":61\r\n");
    EXPECT_EQ(call({"hset", "tessard.run", "pid", "7"}), ":0\r\n");
    EXPECT_EQ(call({"hget", "tessard.run", "pid"}), bulk("7"));
    EXPECT_EQ(call({"hdel", "tessard.run", "pid"}), ":0\r\n");
    /* The protection of all fields covers those that come later, too. */
    EXPECT_EQ(call({"hset", "tessard.run", "own", "v"}), ":1\r\n");
    EXPECT_EQ(call({"hdel", "tessard.run", "own"}), ":0\r\n");
    EXPECT_EQ(call({"hlen", "tessard.run"}), ":5\r\n");
    EXPECT_EQ(call({"set", "tessard.run", "v"}), OK);
    EXPECT_EQ(call({"type", "tessard.run"}), bulk("string"));
    EXPECT_EQ(call({"del", "tessard.run"}), ":0\r\n");
}

TEST_F(keys, of_histories_can_be_overwritten_but_not_deleted) {
    for (const char* key : {"cpu.10m", "cpu.2h", "host.day", "conn.week", "cpu.mon", "ping.snap"}) {
        SCOPED_TRACE(key);
        EXPECT_EQ(call({"exists", key}), ":1\r\n");
        EXPECT_EQ(call({"del", key}), ":0\r\n");
        EXPECT_EQ(call({"exists", key}), ":1\r\n");
        EXPECT_EQ(call({"set", key, "v"}), OK);
        EXPECT_EQ(call({"get", key}), bulk("v"));
        EXPECT_EQ(call({"del", key}), ":0\r\n");
    }
}

TEST_F(keys, without_an_expiry_or_missing_have_a_ttl_of_their_own_kind) {
    make_one_of_each();
    EXPECT_EQ(call({"ttl", "k.none"}), ":-2\r\n");
    EXPECT_EQ(call({"ttl", "k.string"}), ":-1\r\n");
    EXPECT_EQ(call({"ttl", "k.list"}), ":-1\r\n");
    EXPECT_EQ(call({"ttl", "k.hash"}), ":-1\r\n");
}

TEST_F(keys, of_every_type_take_an_expiry_and_give_it_up) {
    const std::vector<words> makes = {
        {"set", "k.string", "v"}, {"rpush", "k.list", "item"}, {"hset", "k.hash", "f", "v"}};
    for (const words& make : makes) {
        const std::string& key = make[1];
        SCOPED_TRACE(key);
        call(make);
        uint32_t before = now_seconds();
        EXPECT_EQ(call({"expire", key, "1000"}), ":1\r\n");
        expect_ttl(key, before + 1000, now_seconds() + 1000);
        EXPECT_EQ(call({"persist", key}), ":1\r\n");
        EXPECT_EQ(call({"persist", key}), ":0\r\n");
        EXPECT_EQ(call({"ttl", key}), ":-1\r\n");
        uint32_t now = 0;
        const words replies = replies_in_one_second(
            make, {{"expireat", key, "2000000000"}, {"ttl", key}, {"persist", key}}, &now);
        EXPECT_EQ(replies, (words{":1\r\n", seconds_reply(2000000000 - now), ":1\r\n"}));
        EXPECT_EQ(call({"ttl", key}), ":-1\r\n");
    }
    EXPECT_EQ(call({"persist", "k.none"}), ":0\r\n");
}

TEST_F(keys, that_are_missing_take_no_expiry) {
    EXPECT_EQ(call({"expire", "k.none", "100"}), ":0\r\n");
    EXPECT_EQ(call({"expire", "k.none", "abc"}), ":0\r\n");
    EXPECT_EQ(call({"expireat", "k.none", "2000000000"}), ":0\r\n");
    EXPECT_EQ(call({"exists", "k.none"}), ":0\r\n");
    EXPECT_EQ(call({"keys", "k.*"}), NOTHING);
}

TEST_F(keys, are_left_untouched_by_an_expiry_without_digits) {
    EXPECT_EQ(call({"set", "k", "v"}), OK);
    for (const char* text : {"", "abc", "-", "+", " ", "x5", "- 5", ".5"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(call({"expire", "k", text}), ":0\r\n");
        EXPECT_EQ(call({"expireat", "k", text}), ":0\r\n");
        EXPECT_EQ(call({"expire", "k", std::string("\0005", 2)}), ":0\r\n");
        EXPECT_EQ(call({"ttl", "k"}), ":-1\r\n");
    }
    uint32_t before = now_seconds();
    EXPECT_EQ(call({"expire", "k", "1000"}), ":1\r\n");
    uint32_t after = now_seconds();
    EXPECT_EQ(call({"expire", "k", "abc"}), ":0\r\n");
    EXPECT_EQ(call({"expireat", "k", "abc"}), ":0\r\n");
    expect_ttl("k", before + 1000, after + 1000);
}

TEST_F(keys, take_seconds_of_64_bits_of_which_32_are_kept) {
    EXPECT_EQ(call({"set", "k", "v"}), OK);
    expect_lives("1000", 1000);
    expect_lives(" \t+1000", 1000);
    expect_lives("1000x", 1000);
    expect_lives("01000", 1000);
    expect_lives("2147483647", 2147483647);
    expect_lives("2147483648", 2147483648U);
    expect_lives("4294967295", 4294967295U);
    expect_lives("4294968296", 1000);
    expect_lives("-1", 4294967295U);
    expect_lives("-4294966296", 1000);
    expect_lives("9223372036854775807", 4294967295U);
    expect_lives("99999999999999999999", 4294967295U);
    EXPECT_EQ(call({"get", "k"}), bulk("v"));
}

TEST_F(keys, take_absolute_times_of_32_bits) {
    expect_ends_at("2000000000", 2000000000);
    expect_ends_at(" +2000000000x", 2000000000);
    expect_ends_at("0", 0);
    expect_ends_at("0x10", 0);
    expect_ends_at("2147483647", 2147483647);
    expect_ends_at("2147483648", 2147483647);
    expect_ends_at("4294967296", 2147483647);
    expect_ends_at("99999999999999999999", 2147483647);
    expect_ends_at("-1", 4294967295U);
    expect_ends_at("-2147483648", 2147483648U);
    expect_ends_at("-99999999999999999999", 2147483648U);
}

TEST_F(keys, have_the_latest_of_several_expiries) {
    uint32_t now = 0;
    words replies = replies_in_one_second(
        {"set", "k", "v"}, {{"expireat", "k", "2000000000"}, {"expire", "k", "1000"}, {"ttl", "k"}},
        &now);
    EXPECT_EQ(replies, (words{":1\r\n", ":1\r\n", ":1000\r\n"}));

    uint32_t before = now_seconds();
    EXPECT_EQ(call({"expire", "k", "2000"}), ":1\r\n");
    expect_ttl("k", before + 2000, now_seconds() + 2000);

    replies = replies_in_one_second(
        {"set", "k", "v"}, {{"expire", "k", "2000"}, {"expireat", "k", "2100000000"}, {"ttl", "k"}},
        &now);
    EXPECT_EQ(replies, (words{":1\r\n", ":1\r\n", seconds_reply(2100000000 - now)}));
}

TEST_F(keys, are_persisted_by_a_new_value_and_keep_their_expiry_when_they_are_changed) {
    struct {
        words change;
        bool keeps;
    } cases[] = {
        {{"set", "k", "1"}, false},     {{"getset", "k", "1"}, false},
        {{"mset", "k", "1"}, false},    {{"append", "k", "1"}, true},
        {{"incr", "k"}, true},          {{"decr", "k"}, true},
        {{"incrby", "k", "5"}, true},   {{"decrby", "k", "5"}, true},
        {{"setnx", "k", "1"}, true},    {{"msetnx", "k", "1"}, true},
        {{"get", "k"}, true},           {{"setex", "k", "abc", "1"}, true},
        {{"incrby", "k", "abc"}, true},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.change[0]);
        uint32_t before = now_seconds();
        EXPECT_EQ(call({"setex", "k", "1000", "1"}), OK);
        uint32_t after = now_seconds();
        call(one.change);
        if (one.keeps) {
            expect_ttl("k", before + 1000, after + 1000);
        } else {
            EXPECT_EQ(call({"ttl", "k"}), ":-1\r\n");
        }
    }
}

TEST_F(keys, that_hold_lists_and_hashes_keep_their_expiry_when_they_are_changed) {
    make_one_of_each();
    uint32_t before = now_seconds();
    EXPECT_EQ(call({"expire", "k.list", "1000"}), ":1\r\n");
    EXPECT_EQ(call({"expire", "k.hash", "1000"}), ":1\r\n");
    uint32_t after = now_seconds();
    EXPECT_EQ(call({"rpush", "k.list", "x"}), ":2\r\n");
    EXPECT_EQ(call({"lpop", "k.list"}), bulk("item"));
    EXPECT_EQ(call({"hset", "k.hash", "f", "w"}), ":0\r\n");
    EXPECT_EQ(call({"hmset", "k.hash", "g", "w"}), OK);
    EXPECT_EQ(call({"hdel", "k.hash", "f"}), ":1\r\n");
    expect_ttl("k.list", before + 1000, after + 1000);
    expect_ttl("k.hash", before + 1000, after + 1000);
    EXPECT_EQ(call({"set", "k.hash", "v"}), OK);
    EXPECT_EQ(call({"ttl", "k.hash"}), ":-1\r\n");
}

TEST_F(keys, are_deleted_with_an_expiry_as_without) {
    EXPECT_EQ(call({"setex", "k.a", "1000", "v"}), OK);
    EXPECT_EQ(call({"del", "k.a"}), ":1\r\n");
    EXPECT_EQ(call({"ttl", "k.a"}), ":-2\r\n");
    EXPECT_EQ(call({"exists", "k.a"}), ":0\r\n");
}
