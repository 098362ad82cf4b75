#include "store/event.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/support/made_objects.h"
#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_client.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

class change_events_test : public store_test {};

/* What the hooks of a test saw: the hook's name, the key and its value. */
std::vector<std::string> hook_calls;

int first_hook(object* obj) {
    hook_calls.push_back("first " + std::string(obj->key) + "=" + object_string(obj));
    return 1;
}

int second_hook(object* obj) {
    hook_calls.push_back("second " + std::string(obj->key) + "=" + object_string(obj));
    return 0;
}

/* The way out of the store, replaced by one that writes down what goes through it. */
std::vector<std::string> told;

void* write_begin(sstr name, sstr key) {
    told.push_back("begin " + std::string(name) + " " + key);
    return &told;
}

void write_add(void* event, sstr element) {
    told.push_back("add " + std::string(element));
    EXPECT_EQ(event, &told);
}

void write_send(void* event) {
    told.push_back("send");
    EXPECT_EQ(event, &told);
}

int hook_that_is_told(object*) {
    told.push_back("hook");
    return 0;
}

class announcer_test : public store_test {
  protected:
    announcer_test() {
        told.clear();
        event_announcer = {true, write_begin, write_add, write_send};
        object_register_string_hook(hook_that_is_told);
    }

    ~announcer_test() override {
        event_announcer.watched = false;
    }

    typedef std::vector<std::string> steps;
};

} // namespace

/* --- The way out of the store --- */

TEST_F(announcer_test, an_event_is_made_before_the_hooks_and_sent_after_them) {
    object_set_string(make("k", OBJ_TSTRING), text("v"));
    EXPECT_EQ(told, (steps{"begin MSET k", "add v", "hook", "send"}));
}

TEST_F(announcer_test, deletions_of_fields_are_sent_before_updates_are) {
    object* obj = hash_object("h", {"a", "1", "b", "2"});
    object_defer(obj);
    object_hash_set(obj, text("b"), text("3"));
    object_hash_del(obj, "a");
    object_flush(obj);
    /* "a" stands in bucket 9, "b" in bucket 10. */
    EXPECT_EQ(told,
              (steps{"begin HDEL h", "add a", "begin HMSET h", "add b", "add 3", "send", "send"}));
}

TEST_F(announcer_test, no_event_is_made_while_nobody_watches) {
    event_announcer.watched = false;
    object_set_string(make("k", OBJ_TSTRING), text("v"));
    object* obj = hash_object("h", {"a", "1"});
    object_hash_set(obj, text("b"), text("2"));
    object_hash_del(obj, "a");
    EXPECT_EQ(told, (steps{"hook"}));
}

TEST_F(announcer_test, no_event_is_made_of_a_private_key) {
    object_set_string(make("_k", OBJ_TSTRING), text("v"));
    object* obj = hash_object("_h", {"a", "1"});
    object_hash_set(obj, text("b"), text("2"));
    object_hash_del(obj, "a");
    EXPECT_TRUE(told.empty());
}

/* --- Changes in steps --- */

TEST_F(change_events_test, deferred_changes_are_announced_once_by_the_flush) {
    test_client observer;
    observers_add(observer.record());
    object* obj = make("k", OBJ_TSTRING);
    object_defer(obj);
    object_set_string(obj, text("1"));
    object_append(obj, text("2"));
    int64_t delta = 3;
    object_incr(obj, &delta);
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_DEFERRED | OBJ_CHANGED));
    EXPECT_EQ(observer.received(), "");
    object_flush(obj);
    EXPECT_EQ(obj->flags, OBJ_TSTRING);
    EXPECT_EQ(observer.received(), event({"MSET", "k", "15"}));
}

TEST_F(change_events_test, a_flush_without_a_beginning_does_nothing) {
    test_client observer;
    observers_add(observer.record());
    object* obj = string_object("k", "v");
    obj->flags |= OBJ_CHANGED;
    object_flush(obj);
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_CHANGED));
    EXPECT_EQ(observer.received(), "");
}

TEST_F(change_events_test, a_flush_without_a_change_only_ends_the_steps) {
    test_client observer;
    observers_add(observer.record());
    object* obj = string_object("k", "v");
    object_defer(obj);
    object_flush(obj);
    EXPECT_EQ(obj->flags, OBJ_TSTRING);
    EXPECT_EQ(observer.received(), "");
}

TEST_F(change_events_test, a_flush_of_a_dead_object_announces_it) {
    test_client observer;
    observers_add(observer.record());
    object* obj = string_object("k", "v");
    object_defer(obj);
    object_delete(obj);
    object_flush(obj);
    EXPECT_EQ(observer.received(), event({"MSET", "k", "v"}));
}

TEST_F(change_events_test, the_flush_of_lists_is_not_for_strings) {
    object* obj = string_object("k", "v");
    object_defer(obj);
    object_flush_list(obj);
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_DEFERRED));
}

TEST_F(change_events_test, the_flush_of_lists_ends_the_steps) {
    object* obj = make("l", OBJ_TLIST);
    object_defer(obj);
    object_flush_list(obj);
    EXPECT_EQ(obj->flags, OBJ_TLIST);
}

/* --- What is announced to nobody --- */

TEST_F(change_events_test, private_keys_are_traced_but_not_announced) {
    hook_calls.clear();
    object_register_string_hook(first_hook);
    test_client observer;
    observers_add(observer.record());
    object* obj = make("_k", OBJ_TSTRING);
    log.start();
    object_set_string(obj, text("v"));
    EXPECT_EQ(log.text(), "debug *** \"_k\"(string): updated to \"v\"\n");
    EXPECT_EQ(observer.received(), "");
    EXPECT_TRUE(hook_calls.empty());
}

TEST_F(change_events_test, the_empty_key_is_not_private) {
    test_client observer;
    observers_add(observer.record());
    object_set_string(make("", OBJ_TSTRING), text("v"));
    EXPECT_EQ(observer.received(), event({"MSET", "", "v"}));
}

TEST_F(change_events_test, deletion_is_announced_to_nobody) {
    hook_calls.clear();
    object_register_string_hook(first_hook);
    test_client observer;
    observers_add(observer.record());
    log.start();
    object_delete(string_object("k", "v"));
    EXPECT_EQ(observer.received(), "");
    EXPECT_TRUE(hook_calls.empty());
    EXPECT_EQ(log.text(), "");
}

/* --- The hooks of string changes --- */

class string_change_hooks_test : public store_test {
  protected:
    string_change_hooks_test() {
        hook_calls.clear();
    }

    typedef std::vector<std::string> calls;
};

TEST_F(string_change_hooks_test, are_called_in_order_of_registration_whatever_they_return) {
    object_register_string_hook(first_hook);
    object_register_string_hook(second_hook);
    object_set_string(make("k", OBJ_TSTRING), text("v"));
    EXPECT_EQ(hook_calls, (calls{"first k=v", "second k=v"}));
}

TEST_F(string_change_hooks_test, are_called_for_each_kind_of_change) {
    object_register_string_hook(first_hook);
    object* obj = make("k", OBJ_TSTRING);
    object_set_string_ttl(obj, 5, text("1"));
    object_append(obj, text("0"));
    int64_t delta = 1;
    object_incr(obj, &delta);
    EXPECT_EQ(hook_calls, (calls{"first k=1", "first k=10", "first k=11"}));
}

TEST_F(string_change_hooks_test, are_called_once_for_a_change_in_steps) {
    object_register_string_hook(first_hook);
    object* obj = make("k", OBJ_TSTRING);
    object_defer(obj);
    object_set_string(obj, text("1"));
    object_set_string(obj, text("2"));
    EXPECT_TRUE(hook_calls.empty());
    object_flush(obj);
    EXPECT_EQ(hook_calls, (calls{"first k=2"}));
}

TEST_F(string_change_hooks_test, are_not_called_for_hashes_and_lists) {
    object_register_string_hook(first_hook);
    object* hash = make("h", OBJ_THASH);
    object_hash_set(hash, text("f"), text("v"));
    object_hash_del(hash, "f");
    object* list = make("l", OBJ_TLIST);
    object_defer(list);
    object_rpush(list, "v");
    object_flush_list(list);
    EXPECT_TRUE(hook_calls.empty());
}

namespace {

test_client* watched;
uint16_t flags_in_hook;

int look_around(object* obj) {
    hook_calls.push_back("received " + watched->received());
    flags_in_hook = obj->flags;
    return 0;
}

int write_another(object* obj) {
    if (std::string_view(obj->key) == "k") {
        object_set_string(object_get_or_create("copy", SSTR_CSTRING, OBJ_TSTRING),
                          object_string(obj));
    }
    return 0;
}

} // namespace

TEST_F(string_change_hooks_test, are_called_before_the_observers_and_before_the_change_is_done) {
    test_client observer;
    observers_add(observer.record());
    watched = &observer;
    object_register_string_hook(look_around);
    object_set_string(make("k", OBJ_TSTRING), text("v"));
    EXPECT_EQ(hook_calls, (calls{"received "}));
    EXPECT_EQ(flags_in_hook, flags_of(OBJ_TSTRING, OBJ_CHANGED));
    EXPECT_EQ(observer.received(), event({"MSET", "k", "v"}));
}

TEST_F(string_change_hooks_test, see_the_expiry_that_comes_with_the_value) {
    test_client observer;
    watched = &observer;
    object_register_string_hook(look_around);
    object* obj = make("k", OBJ_TSTRING);
    object_set_string_ttl(obj, 5, text("v"));
    EXPECT_EQ(flags_in_hook, flags_of(OBJ_TSTRING, OBJ_CHANGED | OBJ_EXPIRE_TTL));
    object_set_string(obj, text("v"));
    EXPECT_EQ(flags_in_hook, flags_of(OBJ_TSTRING, OBJ_CHANGED));
}

TEST_F(string_change_hooks_test, may_change_other_keys_which_are_then_announced_first) {
    test_client observer;
    observers_add(observer.record());
    object_register_string_hook(write_another);
    object_set_string(make("k", OBJ_TSTRING), text("v"));
    EXPECT_EQ(observer.received(), event({"MSET", "copy", "v"}) + event({"MSET", "k", "v"}));
}

TEST_F(string_change_hooks_test, are_at_most_four) {
    for (int i = 0; i < 4; i++) {
        object_register_string_hook(first_hook);
    }
    object_set_string(make("k", OBJ_TSTRING), text("v"));
    EXPECT_EQ(hook_calls.size(), 4u);
    EXPECT_ASSERTION(object_register_string_hook(second_hook),
                     "string_change_hook_count < STRING_CHANGE_HOOKS_MAX", "object", 96);
}

TEST_F(string_change_hooks_test, are_forgotten_by_a_reset) {
    object_register_string_hook(first_hook);
    object_reset();
    object_set_string(make("k", OBJ_TSTRING), text("v"));
    EXPECT_TRUE(hook_calls.empty());
}

/* --- Hashes --- */

TEST_F(change_events_test, three_deferred_fields_are_announced_together_in_table_order) {
    test_client observer;
    observers_add(observer.record());
    object* obj = make("h", OBJ_THASH);
    object_defer(obj);
    object_hash_set(obj, text("a"), text("1"));
    object_hash_set(obj, text("b"), text("2"));
    object_hash_set(obj, text("c"), text("3"));
    EXPECT_EQ(observer.received(), "");
    EXPECT_EQ(object_hash_field(obj, "a")->fflags, FIELD_MODIFIED);
    object_flush(obj);
    /* The hashes 97, 98 and 99 stand in the buckets 9, 10 and 0 of 11. */
    EXPECT_EQ(observer.received(), event({"HMSET", "h", "c", "3", "a", "1", "b", "2"}));
    EXPECT_EQ(observer.received(), "");
    EXPECT_EQ(obj->flags, OBJ_THASH);
    EXPECT_EQ(object_hash_field(obj, "a")->fflags, 0);
}

TEST_F(change_events_test, only_fields_that_changed_are_announced) {
    test_client observer;
    observers_add(observer.record());
    object* obj = hash_object("h", {"a", "1", "b", "2", "c", "3"});
    object_hash_set(obj, text("b"), text("2"));
    EXPECT_EQ(observer.received(), event({"HMSET", "h", "b", "2"}));
}

TEST_F(change_events_test, a_doomed_field_is_readable_until_the_flush) {
    object* obj = hash_object("h", {"f", "v"});
    object_defer(obj);
    EXPECT_EQ(object_hash_del(obj, "f"), 1);
    EXPECT_EQ(value_of(obj, "f"), "v");
    EXPECT_EQ(object_hash_field(obj, "f")->fflags, FIELD_DOOMED);
    EXPECT_EQ(obj->hash->count, 1u);
    object_flush(obj);
    EXPECT_EQ(object_hash_field(obj, "f"), nullptr);
}

TEST_F(change_events_test, a_field_that_is_doomed_twice_counts_twice_and_goes_once) {
    test_client observer;
    observers_add(observer.record());
    object* obj = hash_object("h", {"f", "v"});
    object_defer(obj);
    EXPECT_EQ(object_hash_del(obj, "f"), 1);
    EXPECT_EQ(object_hash_del(obj, "f"), 1);
    object_flush(obj);
    EXPECT_EQ(observer.received(), event({"HDEL", "h", "f"}));
}

TEST_F(change_events_test, deletions_are_announced_before_updates) {
    test_client observer;
    observers_add(observer.record());
    object* obj = hash_object("h", {"a", "1", "b", "2"});
    object_defer(obj);
    object_hash_set(obj, text("b"), text("3"));
    object_hash_del(obj, "a");
    object_flush(obj);
    EXPECT_EQ(observer.received(), event({"HDEL", "h", "a"}) + event({"HMSET", "h", "b", "3"}));
}

TEST_F(change_events_test, doomed_fields_are_announced_in_table_order_and_removed_in_reverse) {
    test_client observer;
    observers_add(observer.record());
    object* obj = hash_object("h", {"a", "1", "b", "2", "c", "3", "d", "4"});
    object_defer(obj);
    object_hash_del(obj, "a");
    object_hash_del(obj, "b");
    object_hash_del(obj, "c");
    log.start();
    object_flush(obj);
    log_set_level(LOG_FATAL);
    /* Buckets 0 for "c", 9 for "a", 10 for "b". */
    EXPECT_EQ(observer.received(), event({"HDEL", "h", "c", "a", "b"}));
    const std::vector<std::string> lines = log.lines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[0], "debug *** \"h\"(hash): field \"b\" deleted");
    EXPECT_EQ(lines[1], "debug *** \"h\"(hash): field \"a\" deleted");
    EXPECT_EQ(lines[2], "debug *** \"h\"(hash): field \"c\" deleted");
    EXPECT_EQ(lines[3], "debug *** notified clients with: ");
    EXPECT_EQ(value_of(obj, "d"), "4");
    EXPECT_EQ(obj->hash->count, 1u);
}

TEST_F(change_events_test, setting_a_doomed_field_does_not_save_it) {
    test_client observer;
    observers_add(observer.record());
    object* obj = hash_object("h", {"f", "v"});
    object_defer(obj);
    object_hash_del(obj, "f");
    EXPECT_EQ(object_hash_set(obj, text("f"), text("w")), 0);
    object_flush(obj);
    EXPECT_EQ(observer.received(), event({"HDEL", "h", "f"}));
    EXPECT_EQ(object_hash_field(obj, "f"), nullptr);
}

TEST_F(change_events_test, a_field_that_is_set_and_then_deleted_is_only_deleted) {
    test_client observer;
    observers_add(observer.record());
    object* obj = make("h", OBJ_THASH);
    object_defer(obj);
    object_hash_set(obj, text("f"), text("v"));
    object_hash_del(obj, "f");
    object_flush(obj);
    EXPECT_EQ(observer.received(), event({"HDEL", "h", "f"}));
}

TEST_F(change_events_test, fields_are_removed_without_observers_too) {
    object* obj = hash_object("h", {"a", "1", "b", "2"});
    object_defer(obj);
    object_hash_del(obj, "a");
    object_hash_set(obj, text("b"), text("3"));
    object_flush(obj);
    EXPECT_EQ(obj->hash->count, 1u);
    EXPECT_EQ(object_hash_field(obj, "b")->fflags, 0);
    EXPECT_EQ(obj->flags, OBJ_THASH);
}

TEST_F(change_events_test, a_private_hash_is_not_announced_but_its_doomed_fields_go) {
    test_client observer;
    observers_add(observer.record());
    object* obj = hash_object("_h", {"a", "1", "b", "2"});
    object_defer(obj);
    object_hash_set(obj, text("b"), text("3"));
    object_hash_del(obj, "a");
    object_flush(obj);
    EXPECT_EQ(observer.received(), "");
    EXPECT_EQ(object_hash_field(obj, "a"), nullptr);
    EXPECT_EQ(value_of(obj, "b"), "3");
}

TEST_F(change_events_test, many_doomed_fields_go_in_one_flush) {
    object* obj = make("h", OBJ_THASH);
    object_defer(obj);
    for (int i = 0; i < 500; i++) {
        object_hash_set(obj, text("field" + std::to_string(i)), text("v"));
    }
    for (int i = 0; i < 500; i += 2) {
        object_hash_del(obj, ("field" + std::to_string(i)).c_str());
    }
    object_flush(obj);
    EXPECT_EQ(obj->hash->count, 250u);
    EXPECT_EQ(object_hash_field(obj, "field0"), nullptr);
    EXPECT_NE(object_hash_field(obj, "field1"), nullptr);
}
