#include "store/object.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/support/made_objects.h"
#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_client.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

class object_keyspace_test : public store_test {};

class string_objects_test : public store_test {};

class hash_objects_test : public store_test {};

class list_objects_test : public store_test {
  protected:
    static object* list_object(std::string_view key, std::initializer_list<const char*> items) {
        object* obj = make(key, OBJ_TLIST);
        for (const char* item : items) {
            dlist_push_tail(obj->list, sstr_new(item, SSTR_CSTRING));
        }
        return obj;
    }

    static std::vector<std::string> items(const object* obj) {
        std::vector<std::string> all;
        for (const dlist_node* node = obj->list->head; node != nullptr; node = node->next) {
            all.emplace_back(bytes_of(static_cast<char*>(node->value)));
        }
        return all;
    }

    static std::string take(sstr item) {
        std::string result(bytes_of(item));
        sstr_free(&item);
        return result;
    }

    typedef std::vector<std::string> texts;
};

} // namespace

/* --- The keyspace --- */

TEST_F(object_keyspace_test, is_made_with_the_first_object) {
    EXPECT_EQ(object_keyspace(), nullptr);
    EXPECT_EQ(object_lookup("k"), nullptr);
    EXPECT_EQ(object_lookup_type("k", OBJ_TSTRING), nullptr);
    EXPECT_EQ(object_keyspace(), nullptr);
    make("k", OBJ_TSTRING);
    ASSERT_NE(object_keyspace(), nullptr);
    EXPECT_EQ(object_keyspace()->count, 1u);
}

TEST_F(object_keyspace_test, a_new_string_has_no_value_and_nothing_else_either) {
    const object* obj = make("k", OBJ_TSTRING);
    ASSERT_NE(obj, nullptr);
    EXPECT_EQ(bytes_of(obj->key), "k");
    EXPECT_EQ(obj->flags, 0x01);
    EXPECT_EQ(obj->value, nullptr);
    EXPECT_EQ(obj->aux, nullptr);
    EXPECT_EQ(obj->expire_arg, 0u);
    EXPECT_EQ(obj->expire_base, 0u);
    EXPECT_EQ(object_lookup("k"), obj);
}

TEST_F(object_keyspace_test, a_new_list_is_empty_and_uncapped) {
    const object* obj = make("k", OBJ_TLIST);
    EXPECT_EQ(obj->flags, 0x02);
    EXPECT_EQ(obj->list->count, 0);
    EXPECT_EQ(obj->list->max, 0xFFFF);
}

TEST_F(object_keyspace_test, a_new_hash_is_an_empty_table) {
    const object* obj = make("k", OBJ_THASH);
    EXPECT_EQ(obj->flags, 0x03);
    EXPECT_EQ(obj->hash->count, 0u);
    EXPECT_EQ(obj->hash->nbuckets, 0u);
}

TEST_F(object_keyspace_test, a_typeless_object_gets_the_type_that_is_asked_for_first) {
    object* obj = make("k", OBJ_TNONE);
    ASSERT_NE(obj, nullptr);
    EXPECT_EQ(obj->flags, 0);
    EXPECT_EQ(object_lookup("k"), obj);
    EXPECT_EQ(make("k", OBJ_TLIST), obj);
    EXPECT_EQ(object_type(obj), OBJ_TLIST);
    EXPECT_EQ(obj->list->max, 0xFFFF);
    EXPECT_EQ(make("k", OBJ_TNONE), nullptr);
}

TEST_F(object_keyspace_test, an_object_of_the_type_is_handed_out_unchanged) {
    object* obj = make("k", OBJ_TSTRING);
    obj->string = sstr_new("v", 1);
    obj->flags = 0x01 | OBJ_CHANGED | OBJ_DEFERRED | OBJ_EXPIRE_TTL | OBJ_PROTECTED;
    obj->expire_arg = 7;
    EXPECT_EQ(make("k", OBJ_TSTRING), obj);
    EXPECT_EQ(obj->flags, 0x01 | OBJ_CHANGED | OBJ_DEFERRED | OBJ_EXPIRE_TTL | OBJ_PROTECTED);
    EXPECT_EQ(bytes_of(obj->string), "v");
    EXPECT_EQ(obj->expire_arg, 7u);
    EXPECT_EQ(object_keyspace()->count, 1u);
}

TEST_F(object_keyspace_test, a_clash_of_types_gives_nothing_and_leaves_the_object) {
    object* obj = make("k", OBJ_TSTRING);
    obj->string = sstr_new("v", 1);
    EXPECT_EQ(make("k", OBJ_THASH), nullptr);
    EXPECT_EQ(make("k", OBJ_TLIST), nullptr);
    EXPECT_EQ(object_lookup("k"), obj);
    EXPECT_EQ(object_type(obj), OBJ_TSTRING);
    EXPECT_EQ(bytes_of(obj->string), "v");
}

TEST_F(object_keyspace_test, lookup_by_type_wants_the_type) {
    const object* obj = make("k", OBJ_THASH);
    EXPECT_EQ(object_lookup_type("k", OBJ_THASH), obj);
    EXPECT_EQ(object_lookup_type("k", OBJ_TSTRING), nullptr);
    EXPECT_EQ(object_lookup_type("k", OBJ_TLIST), nullptr);
    EXPECT_EQ(object_lookup_type("other", OBJ_THASH), nullptr);
}

TEST_F(object_keyspace_test, a_deleted_object_is_absent_but_its_record_stands) {
    object* obj = make("k", OBJ_TSTRING);
    EXPECT_EQ(object_delete(obj), 1);
    EXPECT_EQ(obj->flags, 0x01 | OBJ_DEAD);
    EXPECT_EQ(object_lookup("k"), nullptr);
    EXPECT_EQ(object_lookup_type("k", OBJ_TSTRING), nullptr);
    EXPECT_EQ(object_keyspace()->count, 1u);
}

TEST_F(object_keyspace_test, a_protected_object_cannot_be_deleted) {
    object* obj = make("k", OBJ_TSTRING);
    obj->flags |= OBJ_PROTECTED;
    EXPECT_EQ(object_delete(obj), 0);
    EXPECT_EQ(object_lookup("k"), obj);
}

TEST_F(object_keyspace_test, the_protection_of_fields_does_not_protect_the_key) {
    object* obj = make("k", OBJ_THASH);
    obj->flags |= OBJ_FIELDS_PROTECTED;
    EXPECT_EQ(object_delete(obj), 1);
}

TEST_F(object_keyspace_test, a_dead_key_comes_back_fresh_with_any_type) {
    for (const unsigned old_type : {OBJ_TSTRING, OBJ_TLIST, OBJ_THASH}) {
        for (const unsigned new_type : {OBJ_TSTRING, OBJ_TLIST, OBJ_THASH}) {
            object_reset();
            object* obj = make("k", old_type);
            if (old_type == OBJ_TSTRING) {
                object_set_string(obj, text("v"));
            } else if (old_type == OBJ_TLIST) {
                object_rpush(obj, "v");
            } else {
                object_hash_set(obj, text("f"), text("v"));
            }
            object_expire(obj, 60);
            obj->flags |= OBJ_CHANGED | OBJ_DEFERRED;
            object_delete(obj);
            object* again = make("k", new_type);
            ASSERT_EQ(again, obj);
            EXPECT_EQ(again->flags, new_type);
            EXPECT_EQ(object_keyspace()->count, 1u);
            if (new_type == OBJ_TSTRING) {
                EXPECT_EQ(again->value, nullptr);
            } else if (new_type == OBJ_TLIST) {
                EXPECT_EQ(again->list->count, 0);
            } else {
                EXPECT_EQ(again->hash->count, 0u);
            }
        }
    }
}

TEST_F(object_keyspace_test, a_dead_key_keeps_its_protections_when_it_comes_back) {
    object* obj = make("k", OBJ_THASH);
    obj->flags |= OBJ_DEAD | OBJ_PROTECTED | OBJ_FIELDS_PROTECTED;
    obj->aux = reinterpret_cast<history_series*>(obj);
    make("k", OBJ_TSTRING);
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_PROTECTED | OBJ_FIELDS_PROTECTED));
    EXPECT_EQ(obj->aux, nullptr);
}

TEST_F(object_keyspace_test, a_dead_key_that_is_asked_for_without_a_type_comes_back_typeless) {
    object* obj = make("k", OBJ_TSTRING);
    object_delete(obj);
    EXPECT_EQ(make("k", OBJ_TNONE), obj);
    EXPECT_EQ(obj->flags, 0);
    EXPECT_EQ(obj->value, nullptr);
}

TEST_F(object_keyspace_test, a_key_keeps_all_its_bytes_and_is_found_by_those_before_the_first_nul) {
    const std::string_view key("ab\0cd", 5);
    object* obj = make(key, OBJ_TSTRING);
    EXPECT_EQ(bytes_of(obj->key), key);
    EXPECT_EQ(object_lookup("ab"), obj);
    EXPECT_EQ(make("ab", OBJ_TSTRING), obj);
    EXPECT_EQ(make(std::string_view("ab\0xy", 5), OBJ_TSTRING), obj);
}

TEST_F(object_keyspace_test, the_length_of_a_key_may_be_left_to_its_nul) {
    const object* obj = object_get_or_create("abc", SSTR_CSTRING, OBJ_TSTRING);
    EXPECT_EQ(bytes_of(obj->key), "abc");
}

TEST_F(object_keyspace_test, an_assignment_to_an_absent_key_gets_a_new_string) {
    object* obj = object_to_assign(text("k"));
    EXPECT_EQ(obj->flags, OBJ_TSTRING);
    EXPECT_EQ(obj->value, nullptr);
    EXPECT_EQ(bytes_of(obj->key), "k");
    EXPECT_EQ(object_lookup("k"), obj);
    EXPECT_EQ(object_keyspace()->count, 1u);
}

TEST_F(object_keyspace_test, an_assignment_gets_what_is_there_of_any_type) {
    for (const unsigned type : {OBJ_TSTRING, OBJ_TLIST, OBJ_THASH}) {
        object_reset();
        object* obj = make("k", type);
        EXPECT_EQ(object_to_assign(text("k")), obj);
        EXPECT_EQ(obj->flags, type);
    }
}

TEST_F(object_keyspace_test, an_assignment_brings_a_dead_key_back_as_a_string) {
    object* obj = make("k", OBJ_THASH);
    object_hash_set(obj, text("f"), text("v"));
    obj->aux = reinterpret_cast<history_series*>(obj);
    object_delete(obj);
    EXPECT_EQ(object_to_assign(text("k")), obj);
    EXPECT_EQ(obj->flags, OBJ_TSTRING);
    EXPECT_EQ(obj->value, nullptr);
    EXPECT_EQ(obj->aux, nullptr);
    EXPECT_EQ(object_keyspace()->count, 1u);
}

TEST_F(object_keyspace_test, an_assignment_keeps_all_bytes_of_a_new_key) {
    const std::string_view key("ab\0cd", 5);
    object* obj = object_to_assign(text(key));
    EXPECT_EQ(bytes_of(obj->key), key);
    EXPECT_EQ(object_to_assign(text("ab")), obj);
}

TEST_F(object_keyspace_test, reset_forgets_everything) {
    make("a", OBJ_TSTRING);
    object_rpush(make("b", OBJ_TLIST), "v");
    object_hash_set(make("c", OBJ_THASH), text("f"), text("v"));
    object_reset();
    EXPECT_EQ(object_keyspace(), nullptr);
    EXPECT_EQ(object_lookup("a"), nullptr);
}

/* --- Strings --- */

TEST_F(string_objects_test, assignment_stores_traces_and_announces) {
    test_client observer;
    observers_add(observer.record());
    object* obj = make("k", OBJ_TSTRING);
    object_set_string(obj, text("v"));
    EXPECT_EQ(bytes_of(obj->string), "v");
    EXPECT_EQ(obj->flags, OBJ_TSTRING);
    EXPECT_EQ(observer.received(), "!3\r\n$4\r\nMSET\r\n$1\r\nk\r\n$1\r\nv\r\n");
}

TEST_F(string_objects_test, assignment_is_traced_with_key_and_new_value) {
    object* obj = make("k", OBJ_TSTRING);
    log.start();
    object_set_string(obj, text("some value"));
    EXPECT_EQ(log.text(), "debug *** \"k\"(string): updated to \"some value\"\n");
}

TEST_F(string_objects_test, nothing_is_traced_above_debug_level) {
    log.start(LOG_INFO);
    object* obj = make("k", OBJ_TSTRING);
    object_set_string_ttl(obj, 5, text("1"));
    object_persist(obj);
    object_append(obj, text("2"));
    EXPECT_EQ(log.text(), "");
}

TEST_F(string_objects_test, a_value_may_hold_any_byte) {
    test_client observer;
    observers_add(observer.record());
    const std::string_view value("a\0b\r\n", 5);
    object* obj = make("k", OBJ_TSTRING);
    object_set_string(obj, text(value));
    EXPECT_EQ(bytes_of(obj->string), value);
    EXPECT_EQ(observer.received(), event({"MSET", "k", value}));
}

TEST_F(string_objects_test, assigning_no_value_frees_the_old_one) {
    test_client observer;
    observers_add(observer.record());
    object* obj = string_object("k", "old");
    log.start();
    object_set_string(obj, nullptr);
    log_set_level(LOG_FATAL);
    EXPECT_EQ(obj->string, nullptr);
    EXPECT_EQ(bytes_of(object_string(obj)), "");
    EXPECT_EQ(log.lines()[0], "debug *** \"k\"(string): updated to \"\"");
    EXPECT_EQ(observer.received(), event({"MSET", "k", ""}));
}

TEST_F(string_objects_test, assignment_discards_a_list) {
    object* obj = make("k", OBJ_TLIST);
    object_rpush(obj, "item");
    object_set_string(obj, text("v"));
    EXPECT_EQ(object_type(obj), OBJ_TSTRING);
    EXPECT_EQ(bytes_of(obj->string), "v");
}

TEST_F(string_objects_test, assignment_discards_a_hash) {
    object* obj = make("k", OBJ_THASH);
    object_hash_set(obj, text("f"), text("v"));
    object_set_string_ttl(obj, 9, text("v"));
    EXPECT_EQ(object_type(obj), OBJ_TSTRING);
    EXPECT_EQ(bytes_of(obj->string), "v");
}

TEST_F(string_objects_test, assigning_no_value_to_a_hash_leaves_a_string_without_value) {
    object* obj = make("k", OBJ_THASH);
    object_hash_set(obj, text("f"), text("v"));
    object_set_string(obj, nullptr);
    EXPECT_EQ(object_type(obj), OBJ_TSTRING);
    EXPECT_EQ(obj->value, nullptr);
}

TEST_F(string_objects_test, assignment_gives_a_typeless_object_its_type) {
    object* obj = make("k", OBJ_TNONE);
    object_set_string(obj, text("v"));
    EXPECT_EQ(obj->flags, OBJ_TSTRING);
}

TEST_F(string_objects_test, assignment_keeps_protections) {
    object* obj = make("k", OBJ_THASH);
    obj->flags |= OBJ_PROTECTED | OBJ_FIELDS_PROTECTED;
    object_set_string(obj, text("v"));
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_PROTECTED | OBJ_FIELDS_PROTECTED));
}

TEST_F(string_objects_test, assignment_removes_the_expiry) {
    object* obj = string_object("k", "old");
    object_expire(obj, 60);
    log.start();
    object_set_string(obj, text("v"));
    EXPECT_EQ(log.text(), "debug *** \"k\"(string): updated to \"v\"\n"
                          "debug *** \"k\"(string): remove expire-TTL\n");
    EXPECT_EQ(obj->flags, OBJ_TSTRING);
    EXPECT_EQ(obj->expire_arg, 0u);
    EXPECT_EQ(obj->expire_base, 0u);
}

TEST_F(string_objects_test, assignment_with_a_time_to_live_sets_it) {
    object* obj = string_object("k", "old");
    log.start();
    object_set_string_ttl(obj, 4294967295u, text("v"));
    EXPECT_EQ(log.text(), "debug *** \"k\"(string): updated to \"v\"\n"
                          "debug *** \"k\"(string): set expire-TTL to 4294967295\n");
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_EXPIRE_TTL));
    EXPECT_EQ(obj->expire_arg, 4294967295u);
}

TEST_F(string_objects_test, assignment_with_a_time_to_live_announces_once) {
    test_client observer;
    observers_add(observer.record());
    object_set_string_ttl(make("k", OBJ_TSTRING), 5, text("v"));
    EXPECT_EQ(observer.received(), event({"MSET", "k", "v"}));
}

TEST_F(string_objects_test, appending_adds_to_the_value_and_announces_the_whole) {
    test_client observer;
    observers_add(observer.record());
    object* obj = string_object("k", "one");
    log.start();
    object_append(obj, text(" two"));
    log_set_level(LOG_FATAL);
    EXPECT_EQ(bytes_of(obj->string), "one two");
    EXPECT_EQ(log.lines()[0], "debug *** \"k\"(string): updated to \"one two\"");
    EXPECT_EQ(observer.received(), event({"MSET", "k", "one two"}));
}

TEST_F(string_objects_test, appending_to_no_value_sets_it) {
    object* obj = make("k", OBJ_TSTRING);
    object_append(obj, text("v"));
    EXPECT_EQ(bytes_of(obj->string), "v");
}

TEST_F(string_objects_test, appending_nothing_is_a_change_too) {
    test_client observer;
    observers_add(observer.record());
    object_append(string_object("k", "v"), text(""));
    EXPECT_EQ(observer.received(), event({"MSET", "k", "v"}));
}

TEST_F(string_objects_test, appending_keeps_the_expiry) {
    object* obj = string_object("k", "v");
    object_expire(obj, 60);
    object_append(obj, text("w"));
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_EXPIRE_TTL));
}

TEST_F(string_objects_test, an_increment_stores_traces_and_announces_the_sum) {
    test_client observer;
    observers_add(observer.record());
    object* obj = string_object("k", "12");
    int64_t delta = 5;
    log.start();
    EXPECT_EQ(object_incr(obj, &delta), 1);
    log_set_level(LOG_FATAL);
    EXPECT_EQ(delta, 17);
    EXPECT_EQ(bytes_of(obj->string), "17");
    EXPECT_EQ(log.lines()[0], "debug *** \"k\"(string): updated to \"17\"");
    EXPECT_EQ(observer.received(), event({"MSET", "k", "17"}));
}

TEST_F(string_objects_test, an_increment_of_no_value_starts_from_the_increment) {
    object* obj = make("k", OBJ_TSTRING);
    int64_t delta = -3;
    EXPECT_EQ(object_incr(obj, &delta), 1);
    EXPECT_EQ(delta, -3);
    EXPECT_EQ(bytes_of(obj->string), "-3");
}

TEST_F(string_objects_test, a_failed_increment_changes_nothing_and_tells_nobody) {
    test_client observer;
    observers_add(observer.record());
    object* obj = string_object("k", "abc");
    int64_t delta = 5;
    log.start();
    EXPECT_EQ(object_incr(obj, &delta), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(bytes_of(obj->string), "abc");
    EXPECT_EQ(obj->flags, OBJ_TSTRING);
    EXPECT_EQ(observer.received(), "");
}

/* --- Hashes --- */

TEST_F(hash_objects_test, a_new_field_is_stored_traced_and_announced) {
    test_client observer;
    observers_add(observer.record());
    object* obj = make("h", OBJ_THASH);
    log.start();
    EXPECT_EQ(object_hash_set(obj, text("f"), text("v")), 1);
    log_set_level(LOG_FATAL);
    EXPECT_EQ(value_of(obj, "f"), "v");
    EXPECT_EQ(log.lines()[0], "debug *** \"h\"(hash): field \"f\" updated to \"v\"");
    EXPECT_EQ(observer.received(), "!4\r\n$5\r\nHMSET\r\n$1\r\nh\r\n$1\r\nf\r\n$1\r\nv\r\n");
    EXPECT_EQ(obj->flags, OBJ_THASH);
    EXPECT_EQ(object_hash_field(obj, "f")->fflags, 0);
}

TEST_F(hash_objects_test, a_field_that_is_there_is_overwritten_and_announced) {
    test_client observer;
    observers_add(observer.record());
    object* obj = hash_object("h", {"f", "old"});
    EXPECT_EQ(object_hash_set(obj, text("f"), text("new")), 0);
    EXPECT_EQ(value_of(obj, "f"), "new");
    EXPECT_EQ(obj->hash->count, 1u);
    EXPECT_EQ(observer.received(), event({"HMSET", "h", "f", "new"}));
}

TEST_F(hash_objects_test, setting_a_field_makes_a_typeless_object_a_hash) {
    object* obj = make("h", OBJ_TNONE);
    EXPECT_EQ(object_hash_set(obj, text("f"), text("v")), 1);
    EXPECT_EQ(obj->flags, OBJ_THASH);
    EXPECT_EQ(value_of(obj, "f"), "v");
}

TEST_F(hash_objects_test, a_protected_field_can_be_set) {
    object* obj = hash_object("h", {"f", "old"});
    object_hash_protect(obj, "f", true);
    obj->flags |= OBJ_FIELDS_PROTECTED;
    EXPECT_EQ(object_hash_set(obj, text("f"), text("new")), 0);
    EXPECT_EQ(value_of(obj, "f"), "new");
    EXPECT_EQ(object_hash_field(obj, "f")->fflags, FIELD_PROTECTED);
}

TEST_F(hash_objects_test, an_increment_stores_traces_and_announces_the_sum) {
    test_client observer;
    observers_add(observer.record());
    object* obj = hash_object("h", {"f", "5"});
    int64_t delta = 7;
    log.start();
    EXPECT_EQ(object_hash_incr(obj, text("f"), &delta), 1);
    log_set_level(LOG_FATAL);
    EXPECT_EQ(delta, 12);
    EXPECT_EQ(value_of(obj, "f"), "12");
    EXPECT_EQ(log.lines()[0], "debug *** \"h\"(hash): field \"f\" updated to \"12\"");
    EXPECT_EQ(observer.received(), event({"HMSET", "h", "f", "12"}));
}

TEST_F(hash_objects_test, an_increment_of_an_absent_field_makes_it) {
    object* obj = make("h", OBJ_THASH);
    int64_t delta = int64_t{1} << 40;
    EXPECT_EQ(object_hash_incr(obj, text("f"), &delta), 1);
    EXPECT_EQ(delta, int64_t{1} << 40);
    EXPECT_EQ(value_of(obj, "f"), "1099511627776");
}

TEST_F(hash_objects_test, a_failed_increment_changes_nothing_and_tells_nobody) {
    test_client observer;
    observers_add(observer.record());
    object* obj = hash_object("h", {"f", "abc"});
    int64_t delta = 7;
    log.start();
    EXPECT_EQ(object_hash_incr(obj, text("f"), &delta), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(value_of(obj, "f"), "abc");
    EXPECT_EQ(object_hash_field(obj, "f")->fflags, 0);
    EXPECT_EQ(obj->flags, OBJ_THASH);
    EXPECT_EQ(observer.received(), "");
}

TEST_F(hash_objects_test, a_deleted_field_is_traced_announced_and_gone) {
    object* obj = hash_object("h", {"f", "v"});
    log.start();
    EXPECT_EQ(object_hash_del(obj, "f"), 1);
    EXPECT_EQ(log.text(), "debug *** \"h\"(hash): field \"f\" scheduled to be deleted\n"
                          "debug *** \"h\"(hash): field \"f\" deleted\n");
    EXPECT_EQ(object_hash_field(obj, "f"), nullptr);
    EXPECT_EQ(obj->hash->count, 0u);
    EXPECT_EQ(obj->flags, OBJ_THASH);
}

TEST_F(hash_objects_test, the_deletion_of_a_field_is_announced) {
    test_client observer;
    observers_add(observer.record());
    object* obj = hash_object("h", {"f", "v", "g", "w"});
    object_hash_del(obj, "f");
    EXPECT_EQ(observer.received(), "!3\r\n$4\r\nHDEL\r\n$1\r\nh\r\n$1\r\nf\r\n");
}

TEST_F(hash_objects_test, an_absent_field_is_not_deleted) {
    object* obj = hash_object("h", {"f", "v"});
    log.start();
    EXPECT_EQ(object_hash_del(obj, "g"), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(obj->flags, OBJ_THASH);
}

TEST_F(hash_objects_test, a_protected_field_is_not_deleted) {
    object* obj = hash_object("h", {"f", "v", "g", "w"});
    object_hash_protect(obj, "f", true);
    EXPECT_EQ(object_hash_del(obj, "f"), 0);
    EXPECT_EQ(object_hash_del(obj, "g"), 1);
    EXPECT_EQ(value_of(obj, "f"), "v");
}

TEST_F(hash_objects_test, no_field_of_a_protected_hash_is_deleted) {
    object* obj = hash_object("h", {"f", "v"});
    obj->flags |= OBJ_FIELDS_PROTECTED;
    EXPECT_EQ(object_hash_del(obj, "f"), 0);
    EXPECT_EQ(value_of(obj, "f"), "v");
}

TEST_F(hash_objects_test, a_protected_key_does_not_protect_its_fields) {
    object* obj = hash_object("h", {"f", "v"});
    obj->flags |= OBJ_PROTECTED;
    EXPECT_EQ(object_hash_del(obj, "f"), 1);
    EXPECT_EQ(object_hash_field(obj, "f"), nullptr);
}

TEST_F(hash_objects_test, protection_is_switched_on_and_off) {
    object* obj = hash_object("h", {"f", "v"});
    hash_field* field = object_hash_field(obj, "f");
    field->fflags = FIELD_MODIFIED;
    EXPECT_EQ(object_hash_protect(obj, "f", true), field);
    EXPECT_EQ(field->fflags, FIELD_MODIFIED | FIELD_PROTECTED);
    EXPECT_EQ(object_hash_protect(obj, "f", false), field);
    EXPECT_EQ(field->fflags, FIELD_MODIFIED);
    EXPECT_EQ(object_hash_protect(obj, "g", true), nullptr);
}

/* --- Lists --- */

TEST_F(list_objects_test, pushes_are_traced_and_mark_the_object) {
    object* obj = make("l", OBJ_TLIST);
    log.start();
    object_lpush(obj, "a");
    object_rpush(obj, "b");
    EXPECT_EQ(log.text(), "debug *** \"l\"(list): lpush to \"a\"\n"
                          "debug *** \"l\"(list): rpush to \"b\"\n");
    EXPECT_EQ(items(obj), (texts{"a", "b"}));
    EXPECT_EQ(obj->flags, flags_of(OBJ_TLIST, OBJ_CHANGED));
}

TEST_F(list_objects_test, either_push_alone_marks_the_object) {
    object* left = make("left", OBJ_TLIST);
    object* right = make("right", OBJ_TLIST);
    ASSERT_EQ(left->flags, OBJ_TLIST);
    ASSERT_EQ(right->flags, OBJ_TLIST);
    object_lpush(left, "a");
    object_rpush(right, "a");
    EXPECT_EQ(left->flags, flags_of(OBJ_TLIST, OBJ_CHANGED));
    EXPECT_EQ(right->flags, flags_of(OBJ_TLIST, OBJ_CHANGED));
}

TEST_F(list_objects_test, changes_are_announced_to_nobody) {
    test_client observer;
    observers_add(observer.record());
    object* obj = make("l", OBJ_TLIST);
    object_lpush(obj, "a");
    object_defer(obj);
    object_rpush(obj, "b");
    object_flush_list(obj);
    EXPECT_EQ(obj->flags, flags_of(OBJ_TLIST, OBJ_CHANGED));
    object_defer(obj);
    object_flush(obj);
    EXPECT_EQ(obj->flags, flags_of(OBJ_TLIST, OBJ_CHANGED | OBJ_DEFERRED));
    object_notify(obj);
    EXPECT_EQ(take(object_lpop(obj)), "a");
    EXPECT_EQ(observer.received(), "");
}

TEST_F(list_objects_test, a_push_onto_a_full_list_drops_the_far_end) {
    object* obj = list_object("l", {"a", "b", "c"});
    obj->list->max = 3;
    object_lpush(obj, "d");
    EXPECT_EQ(items(obj), (texts{"d", "a", "b"}));
    object_rpush(obj, "e");
    EXPECT_EQ(items(obj), (texts{"a", "b", "e"}));
}

TEST_F(list_objects_test, the_trace_of_a_push_names_the_new_end) {
    object* obj = list_object("l", {"a"});
    obj->list->max = 1;
    log.start();
    object_lpush(obj, "b");
    object_rpush(obj, "c");
    EXPECT_EQ(log.text(), "debug *** \"l\"(list): lpush to \"b\"\n"
                          "debug *** \"l\"(list): rpush to \"c\"\n");
    EXPECT_EQ(items(obj), texts{"c"});
}

TEST_F(list_objects_test, a_cap_of_zero_drops_what_is_pushed_onto_an_empty_list) {
    object* obj = make("l", OBJ_TLIST);
    obj->list->max = 0;
    log.start();
    object_lpush(obj, "a");
    object_rpush(obj, "b");
    EXPECT_EQ(obj->list->count, 0);
    EXPECT_EQ(object_lpop(obj), nullptr);
}

TEST_F(list_objects_test, pops_are_traced) {
    object* obj = list_object("l", {"a", "b", "c"});
    log.start();
    EXPECT_EQ(take(object_rpop(obj)), "c");
    EXPECT_EQ(take(object_lpop(obj)), "a");
    EXPECT_EQ(log.text(), "debug *** \"l\"(list): rpop \"c\"\n"
                          "debug *** \"l\"(list): lpop \"a\"\n");
    EXPECT_EQ(items(obj), texts{"b"});
}

TEST_F(list_objects_test, pops_do_not_mark_the_object) {
    object* obj = list_object("l", {"a", "b"});
    take(object_rpop(obj));
    take(object_lpop(obj));
    EXPECT_EQ(obj->flags, OBJ_TLIST);
}

TEST_F(list_objects_test, popping_an_empty_list_gives_and_traces_nothing) {
    object* obj = make("l", OBJ_TLIST);
    log.start();
    EXPECT_EQ(object_rpop(obj), nullptr);
    EXPECT_EQ(object_lpop(obj), nullptr);
    EXPECT_EQ(log.text(), "");
}

TEST_F(list_objects_test, items_are_found_by_index) {
    object* obj = list_object("l", {"a", "b", "c"});
    EXPECT_EQ(bytes_of(object_lindex(obj, 0)), "a");
    EXPECT_EQ(bytes_of(object_lindex(obj, -1)), "c");
    EXPECT_EQ(object_lindex(obj, 3), nullptr);
    EXPECT_EQ(object_lindex(obj, -4), nullptr);
    EXPECT_EQ(object_lindex(make("empty", OBJ_TLIST), -1), nullptr);
}

TEST_F(list_objects_test, trimming_removes_items_from_the_tail) {
    object* obj = list_object("l", {"a", "b", "c", "d"});
    log.start();
    object_ltrim_tail(obj, 0, 3);
    EXPECT_EQ(items(obj), texts{"a"});
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(obj->list->max, 0xFFFF);
}

TEST_F(list_objects_test, trimming_ends_with_the_last_item) {
    object* obj = list_object("l", {"a", "b"});
    object_ltrim_tail(obj, 0, 100);
    EXPECT_EQ(obj->list->count, 0);
    object_ltrim_tail(obj, 0, 1);
    EXPECT_EQ(obj->list->count, 0);
}

TEST_F(list_objects_test, trimming_takes_its_number_as_16_bits) {
    object* obj = list_object("l", {"a", "b", "c"});
    object_ltrim_tail(obj, 0, 0x10000);
    EXPECT_EQ(items(obj), (texts{"a", "b", "c"}));
    object_ltrim_tail(obj, 0, 0x10001);
    EXPECT_EQ(items(obj), (texts{"a", "b"}));
}

TEST_F(list_objects_test, trimming_in_any_other_mode_does_nothing) {
    object* obj = list_object("l", {"a", "b", "c"});
    object_ltrim_tail(obj, 1, 2);
    object_ltrim_tail(obj, -1, 2);
    EXPECT_EQ(items(obj), (texts{"a", "b", "c"}));
}

TEST_F(list_objects_test, items_end_at_their_first_nul) {
    object* obj = make("l", OBJ_TLIST);
    object_rpush(obj, text(std::string_view("ab\0cd", 5)));
    EXPECT_EQ(items(obj), texts{"ab"});
}

/* --- Types that are asserted --- */

class object_assertions_test : public store_test {
  protected:
    object* string = make("s", OBJ_TSTRING);
    object* list = make("l", OBJ_TLIST);
    object* hash = make("h", OBJ_THASH);
    object* none = make("n", OBJ_TNONE);
    int64_t delta = 1;
};

TEST_F(object_assertions_test, appending_wants_a_string) {
    EXPECT_ASSERTION(object_append(hash, text("v")), "obj->type == OBJ_TSTRING", "object", 686);
    EXPECT_ASSERTION(object_append(none, text("v")), "obj->type == OBJ_TSTRING", "object", 686);
}

TEST_F(object_assertions_test, incrementing_wants_a_string) {
    EXPECT_ASSERTION(object_incr(list, &delta), "obj->type == OBJ_TSTRING", "object", 697);
}

TEST_F(object_assertions_test, setting_a_field_wants_a_hash_or_a_typeless_object) {
    const char* const expression = "obj->type == OBJ_THASH || obj->type == OBJ_TNONE";
    EXPECT_ASSERTION(object_hash_set(string, text("f"), text("v")), expression, "object", 718);
    EXPECT_ASSERTION(object_hash_set(list, text("f"), text("v")), expression, "object", 718);
}

TEST_F(object_assertions_test, incrementing_a_field_wants_a_hash) {
    EXPECT_ASSERTION(object_hash_incr(string, text("f"), &delta), "obj->type == OBJ_THASH",
                     "object", 749);
    EXPECT_ASSERTION(object_hash_incr(none, text("f"), &delta), "obj->type == OBJ_THASH", "object",
                     749);
}

TEST_F(object_assertions_test, deleting_a_field_wants_a_hash) {
    EXPECT_ASSERTION(object_hash_del(list, "f"), "obj->type == OBJ_THASH", "object", 771);
}

TEST_F(object_assertions_test, protecting_a_field_wants_a_hash) {
    EXPECT_ASSERTION(object_hash_protect(string, "f", true), "obj->type == OBJ_THASH", "object",
                     791);
}

TEST_F(object_assertions_test, popping_wants_a_list) {
    EXPECT_ASSERTION(object_rpop(string), "obj->type == OBJ_TLIST", "object", 815);
    EXPECT_ASSERTION(object_lpop(hash), "obj->type == OBJ_TLIST", "object", 841);
}

TEST_F(object_assertions_test, reading_an_item_wants_a_list) {
    EXPECT_ASSERTION(object_lindex(none, 0), "obj->type == OBJ_TLIST", "object", 854);
}

TEST_F(object_assertions_test, trimming_wants_a_list_in_any_mode) {
    EXPECT_ASSERTION(object_ltrim_tail(string, 0, 1), "obj->type == OBJ_TLIST", "object", 861);
    EXPECT_ASSERTION(object_ltrim_tail(string, 1, 1), "obj->type == OBJ_TLIST", "object", 861);
}
