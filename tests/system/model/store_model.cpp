#include "tests/system/model/store_model.h"

#include <fnmatch.h>
#include <stdlib.h>

#include <algorithm>

#include "tests/system/model/written_frames.h"

namespace system_test {

namespace {

const std::string OK = "+OK\r\n";
const std::string ERROR = "-ERR\r\n";
const std::string NIL = "$-1\r\n";

std::string integer(int64_t number) {
    return ":" + std::to_string(number) + "\r\n";
}

bool is_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/* 36 and above for what is no digit at all. */
unsigned digit_value(char c) {
    if (c >= '0' && c <= '9') {
        return static_cast<unsigned>(c - '0');
    }
    if (c >= 'a' && c <= 'z') {
        return static_cast<unsigned>(c - 'a') + 10;
    }
    if (c >= 'A' && c <= 'Z') {
        return static_cast<unsigned>(c - 'A') + 10;
    }
    return 99;
}

uint32_t big_endian(const std::string& bytes, size_t at) {
    uint32_t word = 0;
    for (size_t i = 0; i < 4; i++) {
        word = word << 8 | static_cast<unsigned char>(bytes[at + i]);
    }
    return word;
}

std::string big_endian(size_t word) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(word >> shift & 0xFF);
    }
    return bytes;
}

bool is_private(const std::string& key) {
    return !key.empty() && key[0] == '_';
}

bool matches(const std::string& pattern, const std::string& key) {
    return fnmatch(pattern.c_str(), key.c_str(), 0) == 0;
}

bool any_count(size_t) {
    return true;
}

bool one_or_more(size_t arguments) {
    return arguments >= 1;
}

bool two_or_more(size_t arguments) {
    return arguments >= 2;
}

bool three_or_more(size_t arguments) {
    return arguments >= 3;
}

bool pairs(size_t arguments) {
    return arguments % 2 == 0;
}

bool key_and_pairs(size_t arguments) {
    return arguments >= 3 && arguments % 2 == 1;
}

} // namespace

read_number parse_number(const std::string& text, int base, int bits) {
    const std::string all = before_nul(text);
    size_t at = 0;
    while (at < all.size() && is_blank(all[at])) {
        at++;
    }
    bool negative = false;
    if (at < all.size() && (all[at] == '+' || all[at] == '-')) {
        negative = all[at++] == '-';
    }
    if (base == 0) {
        base = 10;
        if (at < all.size() && all[at] == '0') {
            base = 8;
            if (at + 2 < all.size() && (all[at + 1] == 'x' || all[at + 1] == 'X') &&
                digit_value(all[at + 2]) < 16) {
                base = 16;
                at += 2;
            }
        }
    }
    const uint64_t largest = (uint64_t{1} << (bits - 1)) - (negative ? 0 : 1);
    const uint64_t step = static_cast<uint64_t>(base);
    uint64_t magnitude = 0;
    bool digits = false;
    for (; at < all.size() && digit_value(all[at]) < step; at++) {
        const uint64_t digit = digit_value(all[at]);
        digits = true;
        magnitude = magnitude > (largest - digit) / step ? largest : magnitude * step + digit;
    }
    return {digits, static_cast<int64_t>(negative ? -magnitude : magnitude)};
}

const store_model::command store_model::commands[] = {
    {"hello", one_or_more, &store_model::hello},
    {"ping", any_count, &store_model::ping},
    {"dump", two_or_more, &store_model::dump},
    {"load", one_or_more, &store_model::load},
    {"keys", one_or_more, &store_model::list_keys},
    {"exists", one_or_more, &store_model::exists},
    {"expire", two_or_more, &store_model::expire},
    {"persist", one_or_more, &store_model::persist},
    {"del", one_or_more, &store_model::del},
    {"expireat", two_or_more, &store_model::expireat},
    {"ttl", one_or_more, &store_model::ttl},
    {"type", one_or_more, &store_model::type},
    {"append", two_or_more, &store_model::append},
    {"incr", one_or_more, &store_model::incr},
    {"decr", one_or_more, &store_model::decr},
    {"decrby", two_or_more, &store_model::decrby},
    {"incrby", two_or_more, &store_model::incrby},
    {"get", one_or_more, &store_model::get},
    {"set", two_or_more, &store_model::set},
    {"getset", two_or_more, &store_model::getset},
    {"strlen", one_or_more, &store_model::strlen},
    {"setex", three_or_more, &store_model::setex},
    {"setnx", two_or_more, &store_model::setnx},
    {"mget", one_or_more, &store_model::mget},
    {"mset", pairs, &store_model::mset},
    {"msetnx", pairs, &store_model::msetnx},
    {"hlen", one_or_more, &store_model::hlen},
    {"hexists", two_or_more, &store_model::hexists},
    {"hkeys", one_or_more, &store_model::hkeys},
    {"hvals", one_or_more, &store_model::hvals},
    {"hgetall", one_or_more, &store_model::hgetall},
    {"hget", two_or_more, &store_model::hget},
    {"hmget", two_or_more, &store_model::hmget},
    {"hset", three_or_more, &store_model::hset},
    {"hsetnx", three_or_more, &store_model::hsetnx},
    {"hincrby", three_or_more, &store_model::hincrby},
    {"hmset", key_and_pairs, &store_model::hmset},
    {"hdel", two_or_more, &store_model::hdel},
    {"lpush", two_or_more, &store_model::lpush},
    {"lpushx", two_or_more, &store_model::lpushx},
    {"lpop", one_or_more, &store_model::lpop},
    {"rpush", two_or_more, &store_model::rpush},
    {"rpushx", two_or_more, &store_model::rpushx},
    {"rpop", one_or_more, &store_model::rpop},
    {"llen", one_or_more, &store_model::llen},
    {"lmaxlen", two_or_more, &store_model::lmaxlen},
    {"lrange", three_or_more, &store_model::lrange},
    {"lindex", two_or_more, &store_model::lindex},
};

store_model::outcome store_model::run(const std::vector<std::string>& words, bool observed,
                                      const std::string& file) {
    is_observed = observed;
    loaded = file;
    result = {};
    result.reply = ERROR;
    std::string name = before_nul(words[0]);
    for (char& c : name) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    const text_list arguments(words.begin() + 1, words.end());
    for (const command& row : commands) {
        if (row.name == name && row.accepts(arguments.size())) {
            result.reply = (this->*row.carry_out)(arguments);
        }
    }
    return result;
}

/* --- The keyspace --- */

store_model::key_entry* store_model::lookup(const std::string& key) {
    key_entry* found = keys.find(key);
    return found != nullptr && !found->item.dead ? found : nullptr;
}

store_model::key_entry* store_model::lookup(const std::string& key, kind type) {
    key_entry* found = lookup(key);
    return found != nullptr && found->item.type == type ? found : nullptr;
}

store_model::key_entry* store_model::lookup_or_create(const std::string& key, kind type) {
    key_entry* found = keys.find(key);
    if (found == nullptr) {
        found = keys.add(key);
    }
    if (found->item.dead || found->item.type == kind::none) {
        found->item = value();
        found->item.type = type;
    }
    return found->item.type == type ? found : nullptr;
}

bool store_model::has(const std::string& name) {
    return std::any_of(std::begin(commands), std::end(commands),
                       [&](const command& one) { return name == one.name; });
}

bool store_model::expires(const std::string& key) {
    const key_entry* found = lookup(key);
    return found != nullptr && found->item.expires;
}

std::string store_model::list_keys(const text_list& arguments) {
    std::vector<std::optional<std::string>> found;
    for (const key_entry* key : keys.walk()) {
        if (key->item.type != kind::none && matches(arguments[0], key->name)) {
            found.push_back(key->name);
        }
    }
    return list_frame(found);
}

std::string store_model::exists(const text_list& arguments) {
    return integer(lookup(arguments[0]) != nullptr ? 1 : 0);
}

std::string store_model::type(const text_list& arguments) {
    const key_entry* key = lookup(arguments[0]);
    const kind type = key != nullptr ? key->item.type : kind::none;
    return bulk(type == kind::string ? "string"
                : type == kind::list ? "list"
                : type == kind::hash ? "hash"
                                     : "none");
}

std::string store_model::del(const text_list& arguments) {
    int64_t deleted = 0;
    for (const std::string& argument : arguments) {
        if (key_entry* key = lookup(argument); key != nullptr) {
            key->item.dead = true;
            deleted++;
        }
    }
    return integer(deleted);
}

std::string store_model::expire(const text_list& arguments) {
    key_entry* key = lookup(arguments[0]);
    if (key == nullptr || !parse_number(arguments[1], 10, 64).digits) {
        return integer(0);
    }
    key->item.expires = true;
    return integer(1);
}

std::string store_model::expireat(const text_list&) {
    return integer(0);
}

std::string store_model::persist(const text_list& arguments) {
    key_entry* key = lookup(arguments[0]);
    const bool removed = key != nullptr && key->item.expires;
    if (removed) {
        key->item.expires = false;
    }
    return integer(removed ? 1 : 0);
}

std::string store_model::ttl(const text_list& arguments) {
    return integer(lookup(arguments[0]) != nullptr ? -1 : -2);
}

std::string store_model::hello(const text_list&) {
    return OK;
}

std::string store_model::ping(const text_list&) {
    return OK;
}

/* --- Strings --- */

void store_model::announce_string(const key_entry& key) {
    if (!is_private(key.name)) {
        result.events.push_back(event_frame({"MSET", key.name, key.item.text.value_or("")}));
    }
}

/* Says nothing yet. */
void store_model::assign(key_entry& key, const std::string& text) {
    key.item.type = kind::string;
    key.item.text = text;
    key.item.expires = false;
}

std::optional<int64_t> store_model::add(std::optional<std::string>* text, int64_t number) {
    if (!*text) {
        *text = std::to_string(number);
        return number;
    }
    const read_number old = parse_number(**text, 0, 64);
    if (!old.digits) {
        return {};
    }
    const uint32_t sum = static_cast<uint32_t>(old.value) + static_cast<uint32_t>(number);
    *text = std::to_string(static_cast<int32_t>(sum));
    return static_cast<int32_t>(sum);
}

std::string store_model::add_number(const std::string& key, int64_t number, bool is_number) {
    key_entry* found = lookup_or_create(key, kind::string);
    if (found == nullptr || !is_number) {
        return ERROR;
    }
    const std::optional<int64_t> sum = add(&found->item.text, number);
    if (!sum) {
        return ERROR;
    }
    announce_string(*found);
    return integer(*sum);
}

std::string store_model::incr(const text_list& arguments) {
    return add_number(arguments[0], 1);
}

std::string store_model::decr(const text_list& arguments) {
    return add_number(arguments[0], -1);
}

std::string store_model::incrby(const text_list& arguments) {
    const read_number n = parse_number(arguments[1], 0, 64);
    return add_number(arguments[0], n.value, n.digits);
}

std::string store_model::decrby(const text_list& arguments) {
    const read_number n = parse_number(arguments[1], 0, 64);
    return add_number(arguments[0], static_cast<int64_t>(-static_cast<uint64_t>(n.value)),
                      n.digits);
}

std::string store_model::append(const text_list& arguments) {
    key_entry* key = lookup_or_create(arguments[0], kind::string);
    if (key == nullptr) {
        return ERROR;
    }
    key->item.text = key->item.text.value_or("") + arguments[1];
    announce_string(*key);
    return integer(static_cast<int64_t>(key->item.text->size()));
}

std::string store_model::get(const text_list& arguments) {
    const key_entry* key = lookup(arguments[0]);
    if (key == nullptr) {
        return NIL;
    }
    return key->item.type == kind::string ? bulk(key->item.text.value_or("")) : ERROR;
}

std::string store_model::set(const text_list& arguments) {
    key_entry* key = lookup(arguments[0]);
    if (key == nullptr) {
        key = lookup_or_create(arguments[0], kind::string);
    }
    assign(*key, arguments[1]);
    announce_string(*key);
    return OK;
}

std::string store_model::getset(const text_list& arguments) {
    key_entry* key = lookup(arguments[0]);
    if (key == nullptr) {
        return NIL;
    }
    std::string reply = key->item.type == kind::string ? bulk(key->item.text.value_or("")) : NIL;
    assign(*key, arguments[1]);
    announce_string(*key);
    return reply;
}

std::string store_model::setnx(const text_list& arguments) {
    if (lookup(arguments[0]) != nullptr) {
        return integer(0);
    }
    set(arguments);
    return integer(1);
}

std::string store_model::setex(const text_list& arguments) {
    key_entry* key = lookup_or_create(arguments[0], kind::string);
    if (key == nullptr || !parse_number(arguments[1], 10, 32).digits) {
        return ERROR;
    }
    assign(*key, arguments[2]);
    key->item.expires = true;
    announce_string(*key);
    return OK;
}

std::string store_model::strlen(const text_list& arguments) {
    const key_entry* key = lookup(arguments[0]);
    if (key == nullptr) {
        return integer(0);
    }
    if (key->item.type != kind::string) {
        return ERROR;
    }
    return integer(static_cast<int64_t>(key->item.text.value_or("").size()));
}

std::string store_model::mget(const text_list& arguments) {
    std::vector<std::optional<std::string>> values;
    for (const std::string& argument : arguments) {
        const key_entry* key = lookup(argument, kind::string);
        values.push_back(key != nullptr ? std::optional(key->item.text.value_or(""))
                                        : std::nullopt);
    }
    return list_frame(values);
}

size_t store_model::assign_pairs(const text_list& arguments) {
    size_t assigned = 0;
    for (size_t i = 0; i < arguments.size(); i += 2) {
        key_entry* key = lookup(arguments[i]);
        if (key == nullptr) {
            key = lookup_or_create(arguments[i], kind::string);
        }
        assign(*key, arguments[i + 1]);
        key->item.waits = true;
        assigned++;
    }
    return assigned;
}

/* One event for each key, with what it holds in the end. */
void store_model::announce_pairs(const text_list& arguments) {
    for (size_t i = 0; i < arguments.size(); i += 2) {
        key_entry* key = lookup(arguments[i]);
        if (key->item.waits) {
            key->item.waits = false;
            announce_string(*key);
        }
    }
}

std::string store_model::mset(const text_list& arguments) {
    assign_pairs(arguments);
    announce_pairs(arguments);
    return OK;
}

std::string store_model::msetnx(const text_list& arguments) {
    for (size_t i = 0; i < arguments.size(); i += 2) {
        if (lookup(arguments[i]) != nullptr) {
            return integer(0);
        }
    }
    assign_pairs(arguments);
    announce_pairs(arguments);
    return integer(1);
}

/* --- Hashes --- */

/* Deletions first, then updates; the deleted fields go. */
void store_model::announce_hash(key_entry& key) {
    std::vector<std::string> deletions = {"HDEL", key.name};
    std::vector<std::string> updates = {"HMSET", key.name};
    for (growing_table<field>::entry* f : key.item.fields.walk()) {
        if (f->item.doomed) {
            deletions.push_back(f->name);
        } else if (f->item.modified) {
            updates.push_back(f->name);
            updates.push_back(f->item.value);
        }
        f->item.modified = false;
    }
    for (size_t i = 2; i < deletions.size(); i++) {
        key.item.fields.remove(deletions[i]);
    }
    if (is_private(key.name)) {
        return;
    }
    if (deletions.size() > 2) {
        result.events.push_back(event_frame(deletions));
    }
    if (updates.size() > 2) {
        result.events.push_back(event_frame(updates));
    }
}

/* Says nothing yet. True when the field is new. */
bool store_model::set_field(key_entry& key, const std::string& name, const std::string& text) {
    growing_table<field>::entry* f = key.item.fields.find(name);
    const bool is_new = f == nullptr;
    if (is_new) {
        f = key.item.fields.add(name);
    }
    f->item.value = text;
    f->item.modified = true;
    return is_new;
}

std::string store_model::hlen(const text_list& arguments) {
    const key_entry* key = lookup(arguments[0], kind::hash);
    return integer(key != nullptr ? static_cast<int64_t>(key->item.fields.size()) : 0);
}

std::string store_model::hexists(const text_list& arguments) {
    key_entry* key = lookup(arguments[0], kind::hash);
    return integer(key != nullptr && key->item.fields.find(arguments[1]) != nullptr ? 1 : 0);
}

std::string store_model::show_fields(const text_list& arguments, bool names, bool values) {
    std::vector<std::optional<std::string>> shown;
    if (key_entry* key = lookup(arguments[0], kind::hash); key != nullptr) {
        for (const growing_table<field>::entry* f : key->item.fields.walk()) {
            if (names) {
                shown.push_back(f->name);
            }
            if (values) {
                shown.push_back(f->item.value);
            }
        }
    }
    return list_frame(shown);
}

std::string store_model::hkeys(const text_list& arguments) {
    return show_fields(arguments, true, false);
}

std::string store_model::hvals(const text_list& arguments) {
    return show_fields(arguments, false, true);
}

std::string store_model::hgetall(const text_list& arguments) {
    return show_fields(arguments, true, true);
}

std::string store_model::hget(const text_list& arguments) {
    key_entry* key = lookup(arguments[0], kind::hash);
    const growing_table<field>::entry* f =
        key != nullptr ? key->item.fields.find(arguments[1]) : nullptr;
    return f != nullptr ? bulk(f->item.value) : NIL;
}

std::string store_model::hmget(const text_list& arguments) {
    key_entry* key = lookup(arguments[0], kind::hash);
    std::vector<std::optional<std::string>> values;
    for (size_t i = 1; i < arguments.size(); i++) {
        const growing_table<field>::entry* f =
            key != nullptr ? key->item.fields.find(arguments[i]) : nullptr;
        values.push_back(f != nullptr ? std::optional(f->item.value) : std::nullopt);
    }
    return list_frame(values);
}

std::string store_model::hset(const text_list& arguments) {
    key_entry* key = lookup_or_create(arguments[0], kind::hash);
    if (key == nullptr) {
        return ERROR;
    }
    const bool is_new = set_field(*key, arguments[1], arguments[2]);
    announce_hash(*key);
    return integer(is_new ? 1 : 0);
}

std::string store_model::hsetnx(const text_list& arguments) {
    key_entry* key = lookup_or_create(arguments[0], kind::hash);
    if (key == nullptr) {
        return ERROR;
    }
    if (key->item.fields.find(arguments[1]) != nullptr) {
        return integer(0);
    }
    set_field(*key, arguments[1], arguments[2]);
    announce_hash(*key);
    return integer(1);
}

std::string store_model::hincrby(const text_list& arguments) {
    key_entry* key = lookup_or_create(arguments[0], kind::hash);
    if (key == nullptr) {
        return ERROR;
    }
    const growing_table<field>::entry* f = key->item.fields.find(arguments[1]);
    std::optional<std::string> text;
    if (f != nullptr) {
        text = f->item.value;
    }
    const std::optional<int64_t> sum = add(&text, parse_number(arguments[2], 0, 64).value);
    if (!sum) {
        return ERROR;
    }
    set_field(*key, arguments[1], *text);
    announce_hash(*key);
    return integer(*sum);
}

std::string store_model::hmset(const text_list& arguments) {
    key_entry* key = lookup_or_create(arguments[0], kind::hash);
    if (key == nullptr) {
        return ERROR;
    }
    for (size_t i = 1; i < arguments.size(); i += 2) {
        set_field(*key, arguments[i], arguments[i + 1]);
    }
    announce_hash(*key);
    return OK;
}

std::string store_model::hdel(const text_list& arguments) {
    key_entry* key = lookup(arguments[0], kind::hash);
    if (key == nullptr) {
        return integer(0);
    }
    int64_t deleted = 0;
    for (size_t i = 1; i < arguments.size(); i++) {
        if (growing_table<field>::entry* f = key->item.fields.find(arguments[i]); f != nullptr) {
            f->item.doomed = true;
            deleted++;
        }
    }
    announce_hash(*key);
    return integer(deleted);
}

/* --- Lists --- */

void store_model::push(value& list, const std::string& text, bool at_head) {
    if (list.items.size() >= list.cap) {
        if (list.items.empty()) {
            return;
        }
        if (at_head) {
            list.items.pop_back();
        } else {
            list.items.pop_front();
        }
    }
    if (at_head) {
        list.items.push_front(before_nul(text));
    } else {
        list.items.push_back(before_nul(text));
    }
}

std::string store_model::push_all(const text_list& arguments, bool at_head) {
    const key_entry* clash = lookup(arguments[0]);
    if (clash != nullptr && clash->item.type != kind::list && !is_observed) {
        return ERROR;
    }
    key_entry* key = lookup_or_create(arguments[0], kind::list);
    if (key == nullptr) {
        return "";
    }
    for (size_t i = 1; i < arguments.size(); i++) {
        push(key->item, arguments[i], at_head);
    }
    return integer(static_cast<int64_t>(key->item.items.size()));
}

std::string store_model::push_first(const text_list& arguments, bool at_head) {
    key_entry* key = lookup(arguments[0], kind::list);
    if (key == nullptr) {
        return integer(0);
    }
    push(key->item, arguments[1], at_head);
    return integer(static_cast<int64_t>(key->item.items.size()));
}

std::string store_model::pop(const text_list& arguments, bool at_head) {
    key_entry* key = lookup(arguments[0], kind::list);
    if (key == nullptr || key->item.items.empty()) {
        return NIL;
    }
    std::deque<std::string>& items = key->item.items;
    const std::string item = at_head ? items.front() : items.back();
    if (at_head) {
        items.pop_front();
    } else {
        items.pop_back();
    }
    return bulk(item);
}

std::string store_model::lpush(const text_list& arguments) {
    return push_all(arguments, true);
}

std::string store_model::rpush(const text_list& arguments) {
    return push_all(arguments, false);
}

std::string store_model::lpushx(const text_list& arguments) {
    return push_first(arguments, true);
}

std::string store_model::rpushx(const text_list& arguments) {
    return push_first(arguments, false);
}

std::string store_model::lpop(const text_list& arguments) {
    return pop(arguments, true);
}

std::string store_model::rpop(const text_list& arguments) {
    return pop(arguments, false);
}

std::string store_model::llen(const text_list& arguments) {
    const key_entry* key = lookup(arguments[0]);
    if (key == nullptr) {
        return integer(0);
    }
    if (key->item.type != kind::list) {
        return ERROR;
    }
    return integer(static_cast<int64_t>(key->item.items.size()));
}

std::string store_model::lindex(const text_list& arguments) {
    const key_entry* key = lookup(arguments[0], kind::list);
    if (key == nullptr) {
        return ERROR;
    }
    const std::deque<std::string>& items = key->item.items;
    const int64_t count = static_cast<int64_t>(items.size());
    const read_number index = parse_number(arguments[1], 10, 32);
    if (index.digits && (index.value > count - 1 || index.value < -count)) {
        return NIL;
    }
    if (items.empty()) {
        return bulk("");
    }
    return bulk(items[static_cast<size_t>(index.value < 0 ? count + index.value : index.value)]);
}

std::string store_model::lrange(const text_list& arguments) {
    key_entry* key = lookup(arguments[0], kind::list);
    if (key == nullptr) {
        return ERROR;
    }
    const std::deque<std::string>& items = key->item.items;
    const int64_t count = static_cast<int64_t>(items.size());
    const read_number start = parse_number(arguments[1], 0, 32);
    if (start.digits && start.value > key->item.cap - 1) {
        return NIL;
    }
    const read_number given_stop = parse_number(arguments[2], 10, 32);
    if (!given_stop.digits) {
        return ERROR;
    }
    int64_t stop = given_stop.value;
    if (stop <= key->item.cap - 1) {
        stop = std::min(stop, count - 1);
    } else {
        key->item.cap = static_cast<uint16_t>(stop);
    }
    if ((start.value < 0) != (stop < 0)) {
        return NIL;
    }
    const int64_t first = std::abs(start.value);
    const int64_t last = std::abs(stop);
    if (last < first) {
        return NIL;
    }
    std::vector<std::optional<std::string>> found;
    for (int64_t i = first; i <= last && i <= count; i++) {
        const int64_t index = start.value < 0 ? count - i : i;
        if (index >= 0 && index < count) {
            found.push_back(items[static_cast<size_t>(index)]);
        }
    }
    return list_frame(found);
}

std::string store_model::lmaxlen(const text_list& arguments) {
    key_entry* key = lookup(arguments[0]);
    if (key == nullptr) {
        return integer(0);
    }
    if (key->item.type != kind::list) {
        return ERROR;
    }
    const read_number n = parse_number(arguments[1], 0, 32);
    if (n.digits && n.value >= 1) {
        while (static_cast<int64_t>(key->item.items.size()) > n.value) {
            key->item.items.pop_back();
        }
        key->item.cap = static_cast<uint16_t>(n.value);
    }
    return integer(key->item.cap);
}

/* --- Files: keys of histories are not part of the model --- */

std::string store_model::dump(const text_list& arguments) {
    for (const key_entry* key : keys.walk()) {
        if (key->item.type == kind::string && matches(arguments[1], key->name)) {
            const std::string text = key->item.text.value_or("");
            result.dumped +=
                big_endian(key->name.size()) + key->name + big_endian(text.size()) + text;
        }
    }
    return integer(0);
}

std::string store_model::load(const text_list&) {
    for (size_t at = 0; loaded.size() - at >= 9;) {
        const uint64_t left = loaded.size() - at;
        const uint64_t name_length = big_endian(loaded, at);
        if (name_length + 8 > left) {
            break;
        }
        const uint64_t length = big_endian(loaded, at + 4 + name_length);
        if (name_length + length + 8 > left) {
            break;
        }
        key_entry* key = lookup(loaded.substr(at + 4, name_length), kind::string);
        if (key != nullptr) {
            key->item.text = loaded.substr(at + 8 + name_length, length);
        }
        at += 8 + name_length + length;
    }
    return integer(0);
}

} // namespace system_test
