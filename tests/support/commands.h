#pragma once

#include <stddef.h>

#include <string>
#include <vector>

/* The commands as the protocol describes them, in its order. Written by hand and not from the
 * daemon's own table, so that tests find what is missing or wrong there. */

/* How many arguments a command takes, by the numbers that the protocol gives its rules. */
enum argument_rule : unsigned {
    TAKES_ANY = 0,
    TAKES_ONE = 1,
    TAKES_TWO = 2,
    TAKES_THREE = 3,
    TAKES_EVEN = 5,     /* none included */
    TAKES_KEY_PAIRS = 8 /* at least three, and an odd number */
};

inline bool fits(argument_rule rule, size_t arguments) {
    switch (rule) {
    case TAKES_EVEN:
        return arguments % 2 == 0;
    case TAKES_KEY_PAIRS:
        return arguments >= 3 && arguments % 2 == 1;
    default:
        return arguments >= rule;
    }
}

struct described_command {
    const char* name;
    argument_rule rule;
    /* What stands in each place: k key, f field, v value, n number, p pattern, d path of a file.
     * The last may come again any number of times when a "+" follows, the last two when "++" does.
     */
    const char* takes;
    /* The fewest arguments that make it do something, and what it answers when nothing but the
     * commands above it have been sent. The key "none" is never there. */
    std::vector<std::string> arguments;
    const char* reply;
};

inline const described_command COMMAND_LIST[] = {
    {"hello", TAKES_ONE, "v", {"me"}, "+OK\r\n"},
    {"ping", TAKES_ANY, "", {}, "+OK\r\n"},
    {"dump", TAKES_TWO, "dp", {"/tmp/dump", "none*"}, ":0\r\n"},
    {"load", TAKES_ONE, "d", {"/tmp/no.such.dump"}, ":2\r\n"},
    {"keys", TAKES_ONE, "p", {"none*"}, "*0\r\n"},
    {"exists", TAKES_ONE, "k", {"none"}, ":0\r\n"},
    {"expire", TAKES_TWO, "kn", {"none", "5"}, ":0\r\n"},
    {"persist", TAKES_ONE, "k", {"none"}, ":0\r\n"},
    {"del", TAKES_ONE, "k+", {"none"}, ":0\r\n"},
    {"expireat", TAKES_TWO, "kn", {"none", "5"}, ":0\r\n"},
    {"ttl", TAKES_ONE, "k", {"none"}, ":-2\r\n"},
    {"type", TAKES_ONE, "k", {"none"}, "$4\r\nnone\r\n"},
    {"append", TAKES_TWO, "kv", {"k.append", "x"}, ":1\r\n"},
    {"incr", TAKES_ONE, "k", {"k.incr"}, ":1\r\n"},
    {"decr", TAKES_ONE, "k", {"k.decr"}, ":-1\r\n"},
    {"decrby", TAKES_TWO, "kn", {"k.decrby", "5"}, ":-5\r\n"},
    {"incrby", TAKES_TWO, "kn", {"k.incrby", "5"}, ":5\r\n"},
    {"get", TAKES_ONE, "k", {"none"}, "$-1\r\n"},
    {"set", TAKES_TWO, "kv", {"k.set", "v"}, "+OK\r\n"},
    {"getset", TAKES_TWO, "kv", {"none", "v"}, "$-1\r\n"},
    {"strlen", TAKES_ONE, "k", {"none"}, ":0\r\n"},
    {"setex", TAKES_THREE, "knv", {"k.setex", "100", "v"}, "+OK\r\n"},
    {"setnx", TAKES_TWO, "kv", {"k.setnx", "v"}, ":1\r\n"},
    {"mget", TAKES_ONE, "k+", {"none"}, "*1\r\n$-1\r\n"},
    {"mset", TAKES_EVEN, "kv++", {"k.mset", "v"}, "+OK\r\n"},
    {"msetnx", TAKES_EVEN, "kv++", {"k.msetnx", "v"}, ":1\r\n"},
    {"hlen", TAKES_ONE, "k", {"none"}, ":0\r\n"},
    {"hexists", TAKES_TWO, "kf", {"none", "f"}, ":0\r\n"},
    {"hkeys", TAKES_ONE, "k", {"none"}, "*0\r\n"},
    {"hvals", TAKES_ONE, "k", {"none"}, "*0\r\n"},
    {"hgetall", TAKES_ONE, "k", {"none"}, "*0\r\n"},
    {"hget", TAKES_TWO, "kf", {"none", "f"}, "$-1\r\n"},
    {"hmget", TAKES_TWO, "kf+", {"none", "f"}, "*1\r\n$-1\r\n"},
    {"hset", TAKES_THREE, "kfv", {"k.hset", "f", "v"}, ":1\r\n"},
    {"hsetnx", TAKES_THREE, "kfv", {"k.hsetnx", "f", "v"}, ":1\r\n"},
    {"hincrby", TAKES_THREE, "kfn", {"k.hincrby", "f", "5"}, ":5\r\n"},
    {"hmset", TAKES_KEY_PAIRS, "kfv++", {"k.hmset", "f", "v"}, "+OK\r\n"},
    {"hdel", TAKES_TWO, "kf+", {"none", "f"}, ":0\r\n"},
    {"lpush", TAKES_TWO, "kv+", {"k.lpush", "x"}, ":1\r\n"},
    {"lpushx", TAKES_TWO, "kv", {"none", "x"}, ":0\r\n"},
    {"lpop", TAKES_ONE, "k", {"none"}, "$-1\r\n"},
    {"rpush", TAKES_TWO, "kv+", {"k.rpush", "x"}, ":1\r\n"},
    {"rpushx", TAKES_TWO, "kv", {"none", "x"}, ":0\r\n"},
    {"rpop", TAKES_ONE, "k", {"none"}, "$-1\r\n"},
    {"llen", TAKES_ONE, "k", {"none"}, ":0\r\n"},
    {"lmaxlen", TAKES_TWO, "kn", {"none", "5"}, ":0\r\n"},
    {"lrange", TAKES_THREE, "knn", {"k.lpush", "0", "1"}, "*1\r\n$1\r\nx\r\n"},
    {"lindex", TAKES_TWO, "kn", {"k.lpush", "0"}, "$1\r\nx\r\n"},
    {"observe", TAKES_ANY, "", {}, "+OK\r\n"},
};
