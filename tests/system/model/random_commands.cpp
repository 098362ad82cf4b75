#include "tests/system/model/random_commands.h"

#include <algorithm>

namespace system_test {

namespace {

typedef std::vector<std::string> texts;

constexpr size_t KEYS_OF_A_KIND = 22;

/* Made up so that some share a bucket of the smallest tables, and one is the beginning of another.
 */
texts make_names(const std::string& start, size_t count) {
    texts names;
    for (size_t i = 0; i < count; i++) {
        names.push_back(start + std::to_string(i * 7 % 23));
    }
    return names;
}

const texts& string_keys() {
    static const texts names = make_names("ks", KEYS_OF_A_KIND);
    return names;
}

const texts& list_keys() {
    static const texts names = make_names("kl", KEYS_OF_A_KIND);
    return names;
}

const texts& hash_keys() {
    static const texts names = make_names("kh", KEYS_OF_A_KIND);
    return names;
}

/* Private ones, and ones with every kind of byte. */
const texts& odd_keys() {
    static const texts names = {
        "_p",
        "_q",
        "_",
        "k",
        "k ",
        "k\r\n",
        "k\xff\x80",
        "k*",
        std::string("kz\0tail", 7),
        std::string(150, 'k'),
    };
    return names;
}

const texts& field_names() {
    static const texts names = [] {
        texts made = make_names("f", 12);
        for (const char* name :
             {"", "_", "\xff", "\x80\x81", "a", "l", "w", "b", "m", "field with blanks", "f\r\n"}) {
            made.push_back(name);
        }
        made.push_back(std::string("fz\0tail", 7));
        for (int i = 100; i < 140; i++) {
            made.push_back("n" + std::to_string(i));
        }
        return made;
    }();
    return names;
}

const texts& numbers() {
    static const texts values = {
        "0",
        "1",
        "-1",
        "5",
        "+3",
        " 7",
        "\t\n 9",
        "12abc",
        "0x10",
        "-0X1f",
        "0x",
        "0xg",
        "010",
        "08",
        "abc",
        "",
        "-",
        "+",
        "- 1",
        "--1",
        "2147483647",
        "-2147483648",
        "2147483648",
        "4294967295",
        "4294967296",
        "-4294967297",
        "9223372036854775807",
        "-9223372036854775808",
        "9223372036854775808",
        "99999999999999999999999",
        "-99999999999999999999999",
        "0xffffffffffffffffffff",
        std::string("4\0"
                    "2",
                    3),
    };
    return values;
}

const texts& indexes() {
    static const texts values = {"0",   "0",  "-1",  "-1", "1",     "2",     "3",     "-2",    "-3",
                                 "5",   "-5", "10",  "-9", "20",    "30",    "40",    "-40",   "x",
                                 "0x2", "02", "1e9", "-0", "65535", "65536", "65537", "131077"};
    return values;
}

const texts& caps() {
    static const texts values = {"0",     "1",     "1",     "2",          "3",    "5",
                                 "8",     "13",    "30",    "7",          "40",   "-1",
                                 "65535", "65536", "65537", "2147483647", "0x10", "none"};
    return values;
}

/* All of them so far away that no test lives to see the end. */
const texts& seconds() {
    static const texts values = {"100000", " 0100000", "2000000000", "123456s", "none", ""};
    return values;
}

const texts& no_numbers() {
    static const texts values = {"none", "", "-", "x5"};
    return values;
}

const texts& patterns() {
    static const texts values = {"k*",   "_*",   "k?1*", "k[sh]*", "k*7",   "k",
                                 "kl1?", "k\\*", "none", "[k_]*",  "k[!l]*"};
    return values;
}

} // namespace

const texts& random_commands::keys() {
    static const texts all = [] {
        texts made = odd_keys();
        for (const texts* names : {&string_keys(), &list_keys(), &hash_keys()}) {
            made.insert(made.end(), names->begin(), names->end());
        }
        return made;
    }();
    return all;
}

const std::vector<random_commands::shape>& random_commands::shapes() {
    typedef part p;
    static const std::vector<shape> all = {
        {6, "set", {p::string_key, p::text}, {}, 0},
        {1, "set", {p::any_key, p::number}, {}, 0},
        {8, "get", {p::string_key}, {}, 0},
        {3, "getset", {p::string_key, p::text}, {}, 0},
        {1, "getset", {p::any_key, p::text}, {}, 0},
        {2, "setnx", {p::string_key, p::text}, {}, 0},
        {2, "setex", {p::string_key, p::seconds, p::text}, {}, 0},
        {3, "strlen", {p::string_key}, {}, 0},
        {5, "append", {p::string_key, p::text}, {}, 0},
        {4, "incr", {p::string_key}, {}, 0},
        {4, "decr", {p::string_key}, {}, 0},
        {5, "incrby", {p::string_key, p::number}, {}, 0},
        {5, "decrby", {p::string_key, p::number}, {}, 0},
        {3, "mget", {p::string_key}, {p::any_key}, 6},
        {3, "mset", {}, {p::string_key, p::text}, 6},
        {1, "mset", {p::any_key, p::text}, {p::any_key, p::number}, 2},
        {2, "msetnx", {}, {p::string_key, p::text}, 3},
        {2, "hlen", {p::hash_key}, {}, 0},
        {2, "hexists", {p::hash_key, p::field}, {}, 0},
        {3, "hkeys", {p::hash_key}, {}, 0},
        {3, "hvals", {p::hash_key}, {}, 0},
        {6, "hgetall", {p::hash_key}, {}, 0},
        {4, "hget", {p::hash_key, p::field}, {}, 0},
        {3, "hmget", {p::hash_key, p::field}, {p::field}, 8},
        {10, "hset", {p::hash_key, p::field, p::text}, {}, 0},
        {3, "hset", {p::hash_key, p::field, p::number}, {}, 0},
        {3, "hsetnx", {p::hash_key, p::field, p::text}, {}, 0},
        {8, "hincrby", {p::hash_key, p::field, p::number}, {}, 0},
        {6, "hmset", {p::hash_key, p::field, p::text}, {p::field, p::text}, 12},
        {8, "hdel", {p::hash_key, p::field}, {p::field}, 6},
        {6, "lpush", {p::list_key, p::text}, {p::text}, 8},
        {6, "rpush", {p::list_key, p::text}, {p::text}, 8},
        {4, "lpushx", {p::list_key, p::text}, {p::text}, 1},
        {4, "rpushx", {p::list_key, p::text}, {p::text}, 1},
        {5, "lpop", {p::list_key}, {}, 0},
        {5, "rpop", {p::list_key}, {}, 0},
        {3, "llen", {p::list_key}, {}, 0},
        {6, "lindex", {p::list_key, p::index}, {}, 0},
        {10, "lrange", {p::list_key, p::index, p::index}, {}, 0},
        {2, "lrange", {p::list_key, p::number, p::number}, {}, 0},
        {4, "lmaxlen", {p::list_key, p::cap}, {}, 0},
        {4, "del", {p::any_key}, {p::any_key}, 2},
        {3, "exists", {p::any_key}, {}, 0},
        {3, "type", {p::any_key}, {}, 0},
        {2, "keys", {p::pattern}, {}, 0},
        {1, "expire", {p::any_key, p::seconds}, {}, 0},
        /* An absolute time would end the key within the test, whatever it is. */
        {1, "expireat", {p::any_key, p::no_number}, {}, 0},
        {2, "persist", {p::any_key}, {}, 0},
        {2, "ttl", {p::any_key}, {}, 0},
        {1, "ping", {}, {p::text}, 2},
        {1, "hello", {p::text}, {}, 0},
        {1, "dump", {p::path, p::pattern}, {}, 0},
        {1, "load", {p::path}, {}, 0},
        {1, "nonsense", {p::text}, {p::text}, 2},
    };
    return all;
}

bool random_commands::has(const std::string& name) {
    return std::any_of(shapes().begin(), shapes().end(),
                       [&](const shape& s) { return name == s.name; });
}

std::string random_commands::text() {
    switch (below(8)) {
    case 0:
        return one_of(numbers());
    case 1: {
        std::string bytes;
        for (size_t left = below(20); left > 0; left--) {
            bytes += static_cast<char>(below(256));
        }
        return bytes;
    }
    case 2:
        return one_in(20) ? std::string(below(5000), static_cast<char>('a' + below(26))) : "";
    default:
        return std::to_string(below(1000));
    }
}

std::string random_commands::word_for(part p) {
    /* Now and then a key of the wrong type, or an odd one. */
    if ((p == part::string_key || p == part::list_key || p == part::hash_key) && one_in(20)) {
        p = part::any_key;
    }
    switch (p) {
    case part::string_key:
        return one_of(string_keys());
    case part::list_key:
        return one_of(list_keys());
    case part::hash_key:
        return one_of(hash_keys());
    case part::field:
        return one_of(field_names());
    case part::number:
        return one_of(numbers());
    case part::index:
        return one_in(30) ? one_of(numbers()) : one_of(indexes());
    case part::cap:
        return one_of(caps());
    case part::seconds:
        return one_of(seconds());
    case part::no_number:
        return one_of(no_numbers());
    case part::pattern:
        return one_of(patterns());
    case part::path:
        return one_in(2) ? "/tmp/first.dump" : "/tmp/second.dump";
    case part::text:
        return text();
    default:
        return one_of(keys());
    }
}

texts random_commands::words_of(const shape& s) {
    texts words = {s.name};
    for (const part p : s.parts) {
        words.push_back(word_for(p));
    }
    if (!s.repeated.empty()) {
        for (size_t left = below(s.most + 1); left > 0; left--) {
            for (const part p : s.repeated) {
                words.push_back(word_for(p));
            }
        }
    }
    if (one_in(16)) {
        for (char& c : words[0]) {
            if (c >= 'a' && c <= 'z' && one_in(2)) {
                c = static_cast<char>(c - 'a' + 'A');
            }
        }
    }
    /* One argument too few, for most commands. */
    if (one_in(40) && words.size() > 1) {
        words.pop_back();
    }
    return words;
}

texts random_commands::creation(const std::string& key) {
    switch (below(3)) {
    case 0:
        return {"set", key, text()};
    case 1:
        return {"rpush", key, text(), text()};
    default:
        return {"hset", key, word_for(part::field), text()};
    }
}

texts random_commands::next(store_model& model) {
    static const unsigned total = [] {
        unsigned sum = 0;
        for (const shape& s : shapes()) {
            sum += s.weight;
        }
        return sum;
    }();
    for (;;) {
        size_t at = below(total);
        const shape* chosen = nullptr;
        for (const shape& s : shapes()) {
            if (at < s.weight) {
                chosen = &s;
                break;
            }
            at -= s.weight;
        }
        texts words = words_of(*chosen);
        const bool depends_on_the_clock =
            chosen->name == std::string("ttl") && words.size() > 1 && model.expires(words[1]);
        if (!depends_on_the_clock) {
            return words;
        }
    }
}

} // namespace system_test
