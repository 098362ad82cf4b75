#pragma once

#include <stdint.h>

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "tests/system/model/growing_table.h"

/* What the daemon answers and announces, worked out a second time in the plainest way: no buffers,
 * no pooled records, no borrowed strings. Tests send the same commands to both and compare byte by
 * byte.
 *
 * Left out: what depends on the clock. Keys may carry an expiry, but it must lie beyond the end of
 * the test, so that "expireat" must not get a number, and "ttl" must not be asked of such a key
 * (see expires()). */

namespace system_test {

/* A number as the daemon reads it from a text: blanks and a sign before it and anything behind it.
 */
struct read_number {
    bool digits;   /* some were there */
    int64_t value; /* 0 without digits; the nearest that the width holds */
};
read_number parse_number(const std::string& text, int base, int bits);

class store_model {
  public:
    /* The keyspace of a daemon that holds this many keys already, none of which is ever asked for.
     */
    explicit store_model(size_t other_keys) : keys(other_keys) {}

    struct outcome {
        std::string reply; /* the frame, or "" where the daemon keeps silent */
        std::vector<std::string>
            events;         /* the frames that every observer but the issuer gets, in order */
        std::string dumped; /* what a dump writes */
    };

    /* Carries out a command. `observed` tells whether any client observes at that moment, the
     * issuer included. For "load", `file` is what stands in the file; files are always there. */
    outcome run(const std::vector<std::string>& words, bool observed, const std::string& file = "");

    /* True when it knows the command. */
    static bool has(const std::string& name);

    bool expires(const std::string& key);
    size_t key_count() const {
        return keys.size();
    }

  private:
    enum class kind { none, string, list, hash };

    struct field {
        std::string value;
        bool modified = false;
        bool doomed = false;
    };

    struct value {
        kind type = kind::none;
        bool dead = false;
        bool expires = false;
        bool waits = false; /* changed by a command that announces at its end */
        std::optional<std::string> text;
        std::deque<std::string> items;
        uint16_t cap = 65535;
        growing_table<field> fields;
    };

    typedef growing_table<value>::entry key_entry;
    typedef std::vector<std::string> text_list;

    struct command {
        const char* name;
        bool (*accepts)(size_t arguments);
        std::string (store_model::*carry_out)(const text_list& arguments);
    };
    static const command commands[];

    key_entry* lookup(const std::string& key);
    key_entry* lookup(const std::string& key, kind type);
    key_entry* lookup_or_create(const std::string& key, kind type);

    void announce_string(const key_entry& key);
    void announce_hash(key_entry& key);
    void assign(key_entry& key, const std::string& text);
    void announce_pairs(const text_list& arguments);
    size_t assign_pairs(const text_list& arguments);
    bool set_field(key_entry& key, const std::string& name, const std::string& text);
    void push(value& list, const std::string& text, bool at_head);
    std::string add_number(const std::string& key, int64_t number, bool is_number = true);
    std::string push_all(const text_list& arguments, bool at_head);
    std::string push_first(const text_list& arguments, bool at_head);
    std::string pop(const text_list& arguments, bool at_head);
    std::string show_fields(const text_list& arguments, bool names, bool values);
    static std::optional<int64_t> add(std::optional<std::string>* text, int64_t number);

    std::string hello(const text_list&);
    std::string ping(const text_list&);
    std::string dump(const text_list&);
    std::string load(const text_list&);
    std::string list_keys(const text_list&);
    std::string exists(const text_list&);
    std::string expire(const text_list&);
    std::string expireat(const text_list&);
    std::string persist(const text_list&);
    std::string del(const text_list&);
    std::string ttl(const text_list&);
    std::string type(const text_list&);
    std::string append(const text_list&);
    std::string incr(const text_list&);
    std::string decr(const text_list&);
    std::string incrby(const text_list&);
    std::string decrby(const text_list&);
    std::string get(const text_list&);
    std::string set(const text_list&);
    std::string getset(const text_list&);
    std::string strlen(const text_list&);
    std::string setex(const text_list&);
    std::string setnx(const text_list&);
    std::string mget(const text_list&);
    std::string mset(const text_list&);
    std::string msetnx(const text_list&);
    std::string hlen(const text_list&);
    std::string hexists(const text_list&);
    std::string hkeys(const text_list&);
    std::string hvals(const text_list&);
    std::string hgetall(const text_list&);
    std::string hget(const text_list&);
    std::string hmget(const text_list&);
    std::string hset(const text_list&);
    std::string hsetnx(const text_list&);
    std::string hincrby(const text_list&);
    std::string hmset(const text_list&);
    std::string hdel(const text_list&);
    std::string lpush(const text_list&);
    std::string lpushx(const text_list&);
    std::string lpop(const text_list&);
    std::string rpush(const text_list&);
    std::string rpushx(const text_list&);
    std::string rpop(const text_list&);
    std::string llen(const text_list&);
    std::string lmaxlen(const text_list&);
    std::string lrange(const text_list&);
    std::string lindex(const text_list&);

    growing_table<value> keys;

    /* Of the command that is being carried out. */
    bool is_observed = false;
    std::string loaded;
    outcome result;
};

} // namespace system_test
