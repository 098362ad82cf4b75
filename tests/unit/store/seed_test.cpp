#include "store/seed.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_client.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

class seeding_test : public store_test {
  protected:
    static std::string_view string_value(const char* key) {
        const object* obj = object_lookup_type(key, OBJ_TSTRING);
        return obj != nullptr ? bytes_of(obj->string) : "(no string)";
    }

    static std::string_view field_value(const char* key, const char* field) {
        const object* obj = object_lookup_type(key, OBJ_THASH);
        const hash_field* f = obj != nullptr ? object_hash_field(obj, field) : nullptr;
        return f != nullptr ? bytes_of(f->value) : "(no field)";
    }

    static void seed_builtin() {
        object_seed(seed_builtin_strings, seed_builtin_hashes);
    }
};

const seed_string some_strings[] = {{"s", "seeded", 0}, {"t", "", 1}, {nullptr, nullptr, 0}};
const seed_field some_fields[] = {
    {"f", "seeded", 0}, {"g", "", 1}, {"n", "x", -1}, {nullptr, nullptr, 0}};
const seed_hash some_hashes[] = {{"h", some_fields, 0, 0}, {nullptr, nullptr, 0, 0}};

} // namespace

TEST_F(seeding_test, the_built_in_string_is_there) {
    seed_builtin();
    EXPECT_EQ(string_value("fhour.interval"), "30");
    EXPECT_EQ(object_lookup("fhour.interval")->flags, flags_of(OBJ_TSTRING, OBJ_PROTECTED));
}

TEST_F(seeding_test, the_built_in_hash_has_its_four_fields) {
    seed_builtin();
    const object* run = object_lookup_type("tessard.run", OBJ_THASH);
    ASSERT_NE(run, nullptr);
    EXPECT_EQ(run->flags,
              flags_of(OBJ_THASH, unsigned{OBJ_PROTECTED} | unsigned{OBJ_FIELDS_PROTECTED}));
    EXPECT_EQ(run->hash->count, 4u);
    EXPECT_EQ(field_value("tessard.run", "logfile"), "/tmp/tessard.log");
    EXPECT_EQ(field_value("tessard.run", "loglevel"), "info");
    EXPECT_EQ(field_value("tessard.run", "pid"), "none");
    EXPECT_EQ(field_value("tessard.run", "history-iface-algor"), "max");
    for (const char* field : {"logfile", "loglevel", "pid", "history-iface-algor"}) {
        EXPECT_EQ(object_hash_field(run, field)->fflags, FIELD_PROTECTED) << field;
    }
}

TEST_F(seeding_test, nothing_else_is_built_in) {
    seed_builtin();
    EXPECT_EQ(object_keyspace()->count, 2u);
}

TEST_F(seeding_test, what_is_built_in_cannot_be_deleted) {
    seed_builtin();
    object* run = object_lookup("tessard.run");
    EXPECT_EQ(object_delete(object_lookup("fhour.interval")), 0);
    EXPECT_EQ(object_delete(run), 0);
    for (const char* field : {"logfile", "loglevel", "pid", "history-iface-algor"}) {
        EXPECT_EQ(object_hash_del(run, field), 0) << field;
    }
    EXPECT_EQ(run->hash->count, 4u);
}

TEST_F(seeding_test, what_is_built_in_can_be_overwritten) {
    seed_builtin();
    object_set_string(object_lookup("fhour.interval"), text("60"));
    EXPECT_EQ(object_hash_set(object_lookup("tessard.run"), text("pid"), text("42")), 0);
    EXPECT_EQ(string_value("fhour.interval"), "60");
    EXPECT_EQ(field_value("tessard.run", "pid"), "42");
}

TEST_F(seeding_test, a_field_that_a_client_adds_to_a_protected_hash_cannot_be_deleted_either) {
    seed_builtin();
    object* run = object_lookup("tessard.run");
    object_hash_set(run, text("mine"), text("v"));
    EXPECT_EQ(object_hash_del(run, "mine"), 0);
}

TEST_F(seeding_test, either_table_may_be_missing) {
    object_seed(nullptr, nullptr);
    EXPECT_EQ(object_keyspace(), nullptr);
    object_seed(some_strings, nullptr);
    EXPECT_EQ(object_keyspace()->count, 2u);
    object_seed(nullptr, some_hashes);
    EXPECT_EQ(object_keyspace()->count, 3u);
}

TEST_F(seeding_test, protection_is_set_where_the_table_asks_for_it) {
    object_seed(some_strings, some_hashes);
    EXPECT_EQ(object_lookup("s")->flags, OBJ_TSTRING);
    EXPECT_EQ(object_lookup("t")->flags, flags_of(OBJ_TSTRING, OBJ_PROTECTED));
    const object* hash = object_lookup("h");
    EXPECT_EQ(hash->flags, OBJ_THASH);
    EXPECT_EQ(object_hash_field(hash, "f")->fflags, 0);
    EXPECT_EQ(object_hash_field(hash, "g")->fflags, FIELD_PROTECTED);
    EXPECT_EQ(object_hash_field(hash, "n")->fflags, 0);
}

TEST_F(seeding_test, each_protection_of_a_hash_is_set_for_itself) {
    const seed_hash hashes[] = {
        {"key", some_fields, 1, 0}, {"fields", some_fields, 0, 1}, {nullptr, nullptr, 0, 0}};
    object_seed(nullptr, hashes);
    EXPECT_EQ(object_lookup("key")->flags, flags_of(OBJ_THASH, OBJ_PROTECTED));
    EXPECT_EQ(object_lookup("fields")->flags, flags_of(OBJ_THASH, OBJ_FIELDS_PROTECTED));
}

TEST_F(seeding_test, empty_values_are_values) {
    object_seed(some_strings, some_hashes);
    EXPECT_EQ(string_value("t"), "");
    EXPECT_NE(object_lookup("t")->string, nullptr);
    EXPECT_EQ(field_value("h", "g"), "");
}

TEST_F(seeding_test, seeding_again_rewrites_strings_and_keeps_fields) {
    object_seed(some_strings, some_hashes);
    object_set_string(object_lookup("s"), text("changed"));
    object_hash_set(object_lookup("h"), text("f"), text("changed"));
    object_seed(some_strings, some_hashes);
    EXPECT_EQ(string_value("s"), "seeded");
    EXPECT_EQ(field_value("h", "f"), "changed");
    EXPECT_EQ(object_lookup("h")->hash->count, 3u);
    EXPECT_EQ(object_keyspace()->count, 3u);
}

TEST_F(seeding_test, a_field_that_is_to_be_deleted_keeps_its_value_as_long_as_it_stands) {
    object_seed(nullptr, some_hashes);
    object* hash = object_lookup("h");
    object_hash_set(hash, text("f"), text("changed"));
    object_defer(hash);
    ASSERT_EQ(object_hash_del(hash, "f"), 1);
    object_seed(nullptr, some_hashes);
    EXPECT_EQ(field_value("h", "f"), "changed");
    EXPECT_EQ(hash->hash->count, 3u);
    object_flush(hash);
    EXPECT_EQ(object_hash_field(hash, "f"), nullptr) << "the deletion was called off";
}

TEST_F(seeding_test, the_protection_of_a_field_follows_the_table) {
    object_seed(nullptr, some_hashes);
    object* hash = object_lookup("h");
    object_hash_protect(hash, "f", true);
    object_hash_protect(hash, "g", false);
    object_seed(nullptr, some_hashes);
    EXPECT_EQ(object_hash_field(hash, "f")->fflags, 0);
    EXPECT_EQ(object_hash_field(hash, "g")->fflags, FIELD_PROTECTED);
}

TEST_F(seeding_test, a_protection_of_a_key_is_never_taken_away) {
    object_seed(some_strings, nullptr);
    object_lookup("s")->flags |= OBJ_PROTECTED;
    object_seed(some_strings, nullptr);
    EXPECT_EQ(object_lookup("s")->flags, flags_of(OBJ_TSTRING, OBJ_PROTECTED));
}

TEST_F(seeding_test, keys_of_another_type_are_skipped) {
    object_rpush(make("t", OBJ_TLIST), "item");
    object_set_string(make("h", OBJ_TSTRING), text("v"));
    object_seed(some_strings, some_hashes);
    EXPECT_EQ(object_lookup("t")->flags, flags_of(OBJ_TLIST, OBJ_CHANGED));
    EXPECT_EQ(object_lookup("t")->list->count, 1);
    EXPECT_EQ(object_lookup("h")->flags, OBJ_TSTRING);
    EXPECT_EQ(string_value("h"), "v");
    EXPECT_EQ(string_value("s"), "seeded");
}

TEST_F(seeding_test, a_deleted_key_is_seeded_afresh) {
    object_seed(some_strings, some_hashes);
    object_hash_set(object_lookup("h"), text("f"), text("changed"));
    object_delete(object_lookup("h"));
    object_seed(some_strings, some_hashes);
    EXPECT_EQ(field_value("h", "f"), "seeded");
}

TEST_F(seeding_test, nothing_is_traced_marked_or_announced) {
    test_client observer;
    observers_add(observer.record());
    log.start();
    seed_builtin();
    seed_builtin();
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(observer.received(), "");
    EXPECT_EQ(object_lookup("fhour.interval")->flags & OBJ_CHANGED, 0);
    EXPECT_EQ(object_lookup("tessard.run")->flags & OBJ_CHANGED, 0);
}
