#include "store/object.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_client.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

class ObjectKeyspace : public store_test {};

class StringObjects : public store_test {
  protected:
    /* The object with a value, without any trace or event of it. */
    static object* string_object(std::string_view key, std::string_view value) {
        object* obj = make(key, OBJ_TSTRING);
        sstr_assign(&obj->string, value.data(), static_cast<uint32_t>(value.size()));
        return obj;
    }
};

class HashObjects : public store_test {
  protected:
    static object* hash_object(std::string_view key,
                               std::initializer_list<std::string_view> pairs) {
        object* obj = make(key, OBJ_THASH);
        for (auto p = pairs.begin(); p != pairs.end(); p += 2) {
            hash_field* field = pool_new<hash_field>();
            field->name = sstr_new(p[0].data(), static_cast<uint32_t>(p[0].size()));
            field->value = sstr_new(p[1].data(), static_cast<uint32_t>(p[1].size()));
            htable_put(obj->hash, field);
        }
        return obj;
    }

    static std::string_view value_of(const object* obj, const char* field) {
        const hash_field* f = object_hash_field(obj, field);
        return f != nullptr ? bytes_of(f->value) : "(no field)";
    }
};

class ListObjects : public store_test {
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

} // namespace

/* --- The keyspace --- */

TEST_F(ObjectKeyspace, IsMadeWithTheFirstObject) {
    EXPECT_EQ(object_keyspace(), nullptr);
    EXPECT_EQ(object_lookup("k"), nullptr);
    EXPECT_EQ(object_lookup_type("k", OBJ_TSTRING), nullptr);
    EXPECT_EQ(object_keyspace(), nullptr);
    make("k", OBJ_TSTRING);
    ASSERT_NE(object_keyspace(), nullptr);
    EXPECT_EQ(object_keyspace()->count, 1u);
}

TEST_F(ObjectKeyspace, ANewStringHasNoValueAndNothingElseEither) {
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

TEST_F(ObjectKeyspace, ANewListIsEmptyAndUncapped) {
    const object* obj = make("k", OBJ_TLIST);
    EXPECT_EQ(obj->flags, 0x02);
    EXPECT_EQ(obj->list->count, 0);
    EXPECT_EQ(obj->list->max, 0xFFFF);
}

TEST_F(ObjectKeyspace, ANewHashIsAnEmptyTable) {
    const object* obj = make("k", OBJ_THASH);
    EXPECT_EQ(obj->flags, 0x03);
    EXPECT_EQ(obj->hash->count, 0u);
    EXPECT_EQ(obj->hash->nbuckets, 0u);
}

TEST_F(ObjectKeyspace, ATypelessObjectGetsTheTypeThatIsAskedForFirst) {
    object* obj = make("k", OBJ_TNONE);
    ASSERT_NE(obj, nullptr);
    EXPECT_EQ(obj->flags, 0);
    EXPECT_EQ(object_lookup("k"), obj);
    EXPECT_EQ(make("k", OBJ_TLIST), obj);
    EXPECT_EQ(object_type(obj), OBJ_TLIST);
    EXPECT_EQ(obj->list->max, 0xFFFF);
    EXPECT_EQ(make("k", OBJ_TNONE), nullptr);
}

TEST_F(ObjectKeyspace, AnObjectOfTheTypeIsHandedOutUnchanged) {
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

TEST_F(ObjectKeyspace, AClashOfTypesGivesNothingAndLeavesTheObject) {
    object* obj = make("k", OBJ_TSTRING);
    obj->string = sstr_new("v", 1);
    EXPECT_EQ(make("k", OBJ_THASH), nullptr);
    EXPECT_EQ(make("k", OBJ_TLIST), nullptr);
    EXPECT_EQ(object_lookup("k"), obj);
    EXPECT_EQ(object_type(obj), OBJ_TSTRING);
    EXPECT_EQ(bytes_of(obj->string), "v");
}

TEST_F(ObjectKeyspace, LookupByTypeWantsTheType) {
    const object* obj = make("k", OBJ_THASH);
    EXPECT_EQ(object_lookup_type("k", OBJ_THASH), obj);
    EXPECT_EQ(object_lookup_type("k", OBJ_TSTRING), nullptr);
    EXPECT_EQ(object_lookup_type("k", OBJ_TLIST), nullptr);
    EXPECT_EQ(object_lookup_type("other", OBJ_THASH), nullptr);
}

TEST_F(ObjectKeyspace, ADeletedObjectIsAbsentButItsRecordStands) {
    object* obj = make("k", OBJ_TSTRING);
    EXPECT_EQ(object_delete(obj), 1);
    EXPECT_EQ(obj->flags, 0x01 | OBJ_DEAD);
    EXPECT_EQ(object_lookup("k"), nullptr);
    EXPECT_EQ(object_lookup_type("k", OBJ_TSTRING), nullptr);
    EXPECT_EQ(object_keyspace()->count, 1u);
}

TEST_F(ObjectKeyspace, AProtectedObjectCannotBeDeleted) {
    object* obj = make("k", OBJ_TSTRING);
    obj->flags |= OBJ_PROTECTED;
    EXPECT_EQ(object_delete(obj), 0);
    EXPECT_EQ(object_lookup("k"), obj);
}

TEST_F(ObjectKeyspace, TheProtectionOfFieldsDoesNotProtectTheKey) {
    object* obj = make("k", OBJ_THASH);
    obj->flags |= OBJ_FIELDS_PROTECTED;
    EXPECT_EQ(object_delete(obj), 1);
}

TEST_F(ObjectKeyspace, ADeadKeyComesBackFreshWithAnyType) {
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

TEST_F(ObjectKeyspace, ADeadKeyKeepsItsProtectionsWhenItComesBack) {
    object* obj = make("k", OBJ_THASH);
    obj->flags |= OBJ_DEAD | OBJ_PROTECTED | OBJ_FIELDS_PROTECTED;
    obj->aux = reinterpret_cast<history_series*>(obj);
    make("k", OBJ_TSTRING);
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_PROTECTED | OBJ_FIELDS_PROTECTED));
    EXPECT_EQ(obj->aux, nullptr);
}

TEST_F(ObjectKeyspace, ADeadKeyThatIsAskedForWithoutATypeComesBackTypeless) {
    object* obj = make("k", OBJ_TSTRING);
    object_delete(obj);
    EXPECT_EQ(make("k", OBJ_TNONE), obj);
    EXPECT_EQ(obj->flags, 0);
    EXPECT_EQ(obj->value, nullptr);
}

TEST_F(ObjectKeyspace, AKeyKeepsAllItsBytesAndIsFoundByThoseBeforeTheFirstNul) {
    const std::string_view key("ab\0cd", 5);
    object* obj = make(key, OBJ_TSTRING);
    EXPECT_EQ(bytes_of(obj->key), key);
    EXPECT_EQ(object_lookup("ab"), obj);
    EXPECT_EQ(make("ab", OBJ_TSTRING), obj);
    EXPECT_EQ(make(std::string_view("ab\0xy", 5), OBJ_TSTRING), obj);
}

TEST_F(ObjectKeyspace, TheLengthOfAKeyMayBeLeftToItsNul) {
    const object* obj = object_get_or_create("abc", SSTR_CSTRING, OBJ_TSTRING);
    EXPECT_EQ(bytes_of(obj->key), "abc");
}

TEST_F(ObjectKeyspace, TypesHaveNames) {
    EXPECT_STREQ(object_type_name(make("n", OBJ_TNONE)), "none");
    EXPECT_STREQ(object_type_name(make("s", OBJ_TSTRING)), "string");
    EXPECT_STREQ(object_type_name(make("l", OBJ_TLIST)), "list");
    EXPECT_STREQ(object_type_name(make("h", OBJ_THASH)), "hash");
    EXPECT_STREQ(object_type_name(nullptr), "none");
    for (uint16_t type = 4; type < 16; type++) {
        object odd = {};
        odd.flags = type;
        EXPECT_STREQ(object_type_name(&odd), "none");
    }
}

TEST_F(ObjectKeyspace, ATypeNameIsMadeOnce) {
    const object* obj = make("s", OBJ_TSTRING);
    EXPECT_EQ(object_type_name(obj), object_type_name(obj));
    EXPECT_EQ(sstr_length(object_type_name(obj)), 6u);
    EXPECT_EQ(object_type_name(nullptr), object_type_name(make("n", OBJ_TNONE)));
}

TEST_F(ObjectKeyspace, FreeingAValueWithResetLeavesTheProtectionsAlone) {
    object* obj = make("k", OBJ_TLIST);
    object_rpush(obj, "v");
    obj->flags = 0x7FF & ~OBJ_TYPE_MASK;
    obj->flags |= OBJ_TLIST;
    object_free_value(obj, true);
    EXPECT_EQ(obj->flags, OBJ_PROTECTED | OBJ_FIELDS_PROTECTED);
    EXPECT_EQ(obj->value, nullptr);
}

TEST_F(ObjectKeyspace, FreeingAValueWithoutResetLeavesTheFlags) {
    object* obj = make("k", OBJ_THASH);
    object_hash_set(obj, text("f"), text("v"));
    object_free_value(obj, false);
    EXPECT_EQ(obj->flags, OBJ_THASH);
    obj->value = nullptr;
}

TEST_F(ObjectKeyspace, FreeingWhatHasNoValueIsAllowed) {
    object* obj = make("k", OBJ_TSTRING);
    object_free_value(obj, true);
    object_free_value(obj, true);
    EXPECT_EQ(obj->flags, 0);
}

TEST_F(ObjectKeyspace, ResetForgetsEverything) {
    make("a", OBJ_TSTRING);
    object_rpush(make("b", OBJ_TLIST), "v");
    object_hash_set(make("c", OBJ_THASH), text("f"), text("v"));
    object_reset();
    EXPECT_EQ(object_keyspace(), nullptr);
    EXPECT_EQ(object_lookup("a"), nullptr);
}

/* --- Strings --- */

TEST_F(StringObjects, AssignmentStoresTracesAndAnnounces) {
    test_client observer;
    observers_add(observer.record());
    object* obj = make("k", OBJ_TSTRING);
    object_set_string(obj, text("v"));
    EXPECT_EQ(bytes_of(obj->string), "v");
    EXPECT_EQ(obj->flags, OBJ_TSTRING);
    EXPECT_EQ(observer.received(), "!3\r\n$4\r\nMSET\r\n$1\r\nk\r\n$1\r\nv\r\n");
}

TEST_F(StringObjects, AssignmentIsTracedWithKeyAndNewValue) {
    object* obj = make("k", OBJ_TSTRING);
    log.start();
    object_set_string(obj, text("some value"));
    EXPECT_EQ(log.text(), "debug *** \"k\"(string): updated to \"some value\"\n");
}

TEST_F(StringObjects, NothingIsTracedAboveDebugLevel) {
    log.start(LOG_INFO);
    object* obj = make("k", OBJ_TSTRING);
    object_set_string_ttl(obj, 5, text("1"));
    object_persist(obj);
    object_append(obj, text("2"));
    EXPECT_EQ(log.text(), "");
}

TEST_F(StringObjects, AValueMayHoldAnyByte) {
    test_client observer;
    observers_add(observer.record());
    const std::string_view value("a\0b\r\n", 5);
    object* obj = make("k", OBJ_TSTRING);
    object_set_string(obj, text(value));
    EXPECT_EQ(bytes_of(obj->string), value);
    EXPECT_EQ(observer.received(), event({"MSET", "k", value}));
}

TEST_F(StringObjects, AssigningNoValueFreesTheOldOne) {
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

TEST_F(StringObjects, AStringWithoutValueReadsAsTheEmptyString) {
    const object* obj = make("k", OBJ_TSTRING);
    ASSERT_NE(object_string(obj), nullptr);
    EXPECT_EQ(sstr_length(object_string(obj)), 0u);
    EXPECT_EQ(sstr_length(object_string(obj)), 0u);
}

TEST_F(StringObjects, AssignmentDiscardsAList) {
    object* obj = make("k", OBJ_TLIST);
    object_rpush(obj, "item");
    object_set_string(obj, text("v"));
    EXPECT_EQ(object_type(obj), OBJ_TSTRING);
    EXPECT_EQ(bytes_of(obj->string), "v");
}

TEST_F(StringObjects, AssignmentDiscardsAHash) {
    object* obj = make("k", OBJ_THASH);
    object_hash_set(obj, text("f"), text("v"));
    object_set_string_ttl(obj, 9, text("v"));
    EXPECT_EQ(object_type(obj), OBJ_TSTRING);
    EXPECT_EQ(bytes_of(obj->string), "v");
}

TEST_F(StringObjects, AssigningNoValueToAHashLeavesAStringWithoutValue) {
    object* obj = make("k", OBJ_THASH);
    object_hash_set(obj, text("f"), text("v"));
    object_set_string(obj, nullptr);
    EXPECT_EQ(object_type(obj), OBJ_TSTRING);
    EXPECT_EQ(obj->value, nullptr);
}

TEST_F(StringObjects, AssignmentGivesATypelessObjectItsType) {
    object* obj = make("k", OBJ_TNONE);
    object_set_string(obj, text("v"));
    EXPECT_EQ(obj->flags, OBJ_TSTRING);
}

TEST_F(StringObjects, AssignmentKeepsProtections) {
    object* obj = make("k", OBJ_THASH);
    obj->flags |= OBJ_PROTECTED | OBJ_FIELDS_PROTECTED;
    object_set_string(obj, text("v"));
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_PROTECTED | OBJ_FIELDS_PROTECTED));
}

TEST_F(StringObjects, AssignmentRemovesTheExpiry) {
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

TEST_F(StringObjects, AssignmentWithATimeToLiveSetsIt) {
    object* obj = string_object("k", "old");
    log.start();
    object_set_string_ttl(obj, 4294967295u, text("v"));
    EXPECT_EQ(log.text(), "debug *** \"k\"(string): updated to \"v\"\n"
                          "debug *** \"k\"(string): set expire-TTL to 4294967295\n");
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_EXPIRE_TTL));
    EXPECT_EQ(obj->expire_arg, 4294967295u);
}

TEST_F(StringObjects, AssignmentWithATimeToLiveAnnouncesOnce) {
    test_client observer;
    observers_add(observer.record());
    object_set_string_ttl(make("k", OBJ_TSTRING), 5, text("v"));
    EXPECT_EQ(observer.received(), event({"MSET", "k", "v"}));
}

TEST_F(StringObjects, AppendingAddsToTheValueAndAnnouncesTheWhole) {
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

TEST_F(StringObjects, AppendingToNoValueSetsIt) {
    object* obj = make("k", OBJ_TSTRING);
    object_append(obj, text("v"));
    EXPECT_EQ(bytes_of(obj->string), "v");
}

TEST_F(StringObjects, AppendingNothingIsAChangeToo) {
    test_client observer;
    observers_add(observer.record());
    object_append(string_object("k", "v"), text(""));
    EXPECT_EQ(observer.received(), event({"MSET", "k", "v"}));
}

TEST_F(StringObjects, AppendingKeepsTheExpiry) {
    object* obj = string_object("k", "v");
    object_expire(obj, 60);
    object_append(obj, text("w"));
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_EXPIRE_TTL));
}

TEST_F(StringObjects, AnIncrementStoresTracesAndAnnouncesTheSum) {
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

TEST_F(StringObjects, AnIncrementOfNoValueStartsFromTheIncrement) {
    object* obj = make("k", OBJ_TSTRING);
    int64_t delta = -3;
    EXPECT_EQ(object_incr(obj, &delta), 1);
    EXPECT_EQ(delta, -3);
    EXPECT_EQ(bytes_of(obj->string), "-3");
}

TEST_F(StringObjects, AFailedIncrementChangesNothingAndTellsNobody) {
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

TEST_F(StringObjects, DeferredChangesAreAnnouncedOnceByTheFlush) {
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

TEST_F(StringObjects, AFlushWithoutABeginningDoesNothing) {
    test_client observer;
    observers_add(observer.record());
    object* obj = string_object("k", "v");
    obj->flags |= OBJ_CHANGED;
    object_flush(obj);
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_CHANGED));
    EXPECT_EQ(observer.received(), "");
}

TEST_F(StringObjects, AFlushWithoutAChangeOnlyEndsTheSteps) {
    test_client observer;
    observers_add(observer.record());
    object* obj = string_object("k", "v");
    object_defer(obj);
    object_flush(obj);
    EXPECT_EQ(obj->flags, OBJ_TSTRING);
    EXPECT_EQ(observer.received(), "");
}

TEST_F(StringObjects, AFlushOfADeadObjectAnnouncesIt) {
    test_client observer;
    observers_add(observer.record());
    object* obj = string_object("k", "v");
    object_defer(obj);
    object_delete(obj);
    object_flush(obj);
    EXPECT_EQ(observer.received(), event({"MSET", "k", "v"}));
}

TEST_F(StringObjects, TheFlushOfListsIsNotForStrings) {
    object* obj = string_object("k", "v");
    object_defer(obj);
    object_flush_list(obj);
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_DEFERRED));
}

TEST_F(StringObjects, PrivateKeysAreTracedButNotAnnounced) {
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

TEST_F(StringObjects, TheEmptyKeyIsNotPrivate) {
    test_client observer;
    observers_add(observer.record());
    object_set_string(make("", OBJ_TSTRING), text("v"));
    EXPECT_EQ(observer.received(), event({"MSET", "", "v"}));
}

TEST_F(StringObjects, DeletionIsAnnouncedToNobody) {
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

class StringChangeHooks : public StringObjects {
  protected:
    StringChangeHooks() {
        hook_calls.clear();
    }

    typedef std::vector<std::string> calls;
};

TEST_F(StringChangeHooks, AreCalledInOrderOfRegistrationWhateverTheyReturn) {
    object_register_string_hook(first_hook);
    object_register_string_hook(second_hook);
    object_set_string(make("k", OBJ_TSTRING), text("v"));
    EXPECT_EQ(hook_calls, (calls{"first k=v", "second k=v"}));
}

TEST_F(StringChangeHooks, AreCalledForEachKindOfChange) {
    object_register_string_hook(first_hook);
    object* obj = make("k", OBJ_TSTRING);
    object_set_string_ttl(obj, 5, text("1"));
    object_append(obj, text("0"));
    int64_t delta = 1;
    object_incr(obj, &delta);
    EXPECT_EQ(hook_calls, (calls{"first k=1", "first k=10", "first k=11"}));
}

TEST_F(StringChangeHooks, AreCalledOnceForAChangeInSteps) {
    object_register_string_hook(first_hook);
    object* obj = make("k", OBJ_TSTRING);
    object_defer(obj);
    object_set_string(obj, text("1"));
    object_set_string(obj, text("2"));
    EXPECT_TRUE(hook_calls.empty());
    object_flush(obj);
    EXPECT_EQ(hook_calls, (calls{"first k=2"}));
}

TEST_F(StringChangeHooks, AreNotCalledForHashesAndLists) {
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

TEST_F(StringChangeHooks, AreCalledBeforeTheObserversAndBeforeTheChangeIsDone) {
    test_client observer;
    observers_add(observer.record());
    watched = &observer;
    object_register_string_hook(look_around);
    object_set_string(make("k", OBJ_TSTRING), text("v"));
    EXPECT_EQ(hook_calls, (calls{"received "}));
    EXPECT_EQ(flags_in_hook, flags_of(OBJ_TSTRING, OBJ_CHANGED));
    EXPECT_EQ(observer.received(), event({"MSET", "k", "v"}));
}

TEST_F(StringChangeHooks, SeeTheExpiryThatComesWithTheValue) {
    test_client observer;
    watched = &observer;
    object_register_string_hook(look_around);
    object* obj = make("k", OBJ_TSTRING);
    object_set_string_ttl(obj, 5, text("v"));
    EXPECT_EQ(flags_in_hook, flags_of(OBJ_TSTRING, OBJ_CHANGED | OBJ_EXPIRE_TTL));
    object_set_string(obj, text("v"));
    EXPECT_EQ(flags_in_hook, flags_of(OBJ_TSTRING, OBJ_CHANGED));
}

TEST_F(StringChangeHooks, MayChangeOtherKeysWhichAreThenAnnouncedFirst) {
    test_client observer;
    observers_add(observer.record());
    object_register_string_hook(write_another);
    object_set_string(make("k", OBJ_TSTRING), text("v"));
    EXPECT_EQ(observer.received(), event({"MSET", "copy", "v"}) + event({"MSET", "k", "v"}));
}

TEST_F(StringChangeHooks, AreForgottenByAReset) {
    object_register_string_hook(first_hook);
    object_reset();
    object_set_string(make("k", OBJ_TSTRING), text("v"));
    EXPECT_TRUE(hook_calls.empty());
}

/* --- Hashes --- */

TEST_F(HashObjects, ANewFieldIsStoredTracedAndAnnounced) {
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

TEST_F(HashObjects, AFieldThatIsThereIsOverwrittenAndAnnounced) {
    test_client observer;
    observers_add(observer.record());
    object* obj = hash_object("h", {"f", "old"});
    EXPECT_EQ(object_hash_set(obj, text("f"), text("new")), 0);
    EXPECT_EQ(value_of(obj, "f"), "new");
    EXPECT_EQ(obj->hash->count, 1u);
    EXPECT_EQ(observer.received(), event({"HMSET", "h", "f", "new"}));
}

TEST_F(HashObjects, SettingAFieldMakesATypelessObjectAHash) {
    object* obj = make("h", OBJ_TNONE);
    EXPECT_EQ(object_hash_set(obj, text("f"), text("v")), 1);
    EXPECT_EQ(obj->flags, OBJ_THASH);
    EXPECT_EQ(value_of(obj, "f"), "v");
}

TEST_F(HashObjects, AProtectedFieldCanBeSet) {
    object* obj = hash_object("h", {"f", "old"});
    object_hash_protect(obj, "f", true);
    obj->flags |= OBJ_FIELDS_PROTECTED;
    EXPECT_EQ(object_hash_set(obj, text("f"), text("new")), 0);
    EXPECT_EQ(value_of(obj, "f"), "new");
    EXPECT_EQ(object_hash_field(obj, "f")->fflags, FIELD_PROTECTED);
}

TEST_F(HashObjects, ThreeDeferredFieldsAreAnnouncedTogetherInTableOrder) {
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

TEST_F(HashObjects, OnlyFieldsThatChangedAreAnnounced) {
    test_client observer;
    observers_add(observer.record());
    object* obj = hash_object("h", {"a", "1", "b", "2", "c", "3"});
    object_hash_set(obj, text("b"), text("2"));
    EXPECT_EQ(observer.received(), event({"HMSET", "h", "b", "2"}));
}

TEST_F(HashObjects, AnIncrementStoresTracesAndAnnouncesTheSum) {
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

TEST_F(HashObjects, AnIncrementOfAnAbsentFieldMakesIt) {
    object* obj = make("h", OBJ_THASH);
    int64_t delta = int64_t{1} << 40;
    EXPECT_EQ(object_hash_incr(obj, text("f"), &delta), 1);
    EXPECT_EQ(delta, int64_t{1} << 40);
    EXPECT_EQ(value_of(obj, "f"), "1099511627776");
}

TEST_F(HashObjects, AFailedIncrementChangesNothingAndTellsNobody) {
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

TEST_F(HashObjects, ADeletedFieldIsTracedAnnouncedAndGone) {
    object* obj = hash_object("h", {"f", "v"});
    log.start();
    EXPECT_EQ(object_hash_del(obj, "f"), 1);
    EXPECT_EQ(log.text(), "debug *** \"h\"(hash): field \"f\" scheduled to be deleted\n"
                          "debug *** \"h\"(hash): field \"f\" deleted\n");
    EXPECT_EQ(object_hash_field(obj, "f"), nullptr);
    EXPECT_EQ(obj->hash->count, 0u);
    EXPECT_EQ(obj->flags, OBJ_THASH);
}

TEST_F(HashObjects, TheDeletionOfAFieldIsAnnounced) {
    test_client observer;
    observers_add(observer.record());
    object* obj = hash_object("h", {"f", "v", "g", "w"});
    object_hash_del(obj, "f");
    EXPECT_EQ(observer.received(), "!3\r\n$4\r\nHDEL\r\n$1\r\nh\r\n$1\r\nf\r\n");
}

TEST_F(HashObjects, AnAbsentFieldIsNotDeleted) {
    object* obj = hash_object("h", {"f", "v"});
    log.start();
    EXPECT_EQ(object_hash_del(obj, "g"), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(obj->flags, OBJ_THASH);
}

TEST_F(HashObjects, AProtectedFieldIsNotDeleted) {
    object* obj = hash_object("h", {"f", "v", "g", "w"});
    object_hash_protect(obj, "f", true);
    EXPECT_EQ(object_hash_del(obj, "f"), 0);
    EXPECT_EQ(object_hash_del(obj, "g"), 1);
    EXPECT_EQ(value_of(obj, "f"), "v");
}

TEST_F(HashObjects, NoFieldOfAProtectedHashIsDeleted) {
    object* obj = hash_object("h", {"f", "v"});
    obj->flags |= OBJ_FIELDS_PROTECTED;
    EXPECT_EQ(object_hash_del(obj, "f"), 0);
    EXPECT_EQ(value_of(obj, "f"), "v");
}

TEST_F(HashObjects, AProtectedKeyDoesNotProtectItsFields) {
    object* obj = hash_object("h", {"f", "v"});
    obj->flags |= OBJ_PROTECTED;
    EXPECT_EQ(object_hash_del(obj, "f"), 1);
    EXPECT_EQ(object_hash_field(obj, "f"), nullptr);
}

TEST_F(HashObjects, ProtectionIsSwitchedOnAndOff) {
    object* obj = hash_object("h", {"f", "v"});
    hash_field* field = object_hash_field(obj, "f");
    field->fflags = FIELD_MODIFIED;
    EXPECT_EQ(object_hash_protect(obj, "f", true), field);
    EXPECT_EQ(field->fflags, FIELD_MODIFIED | FIELD_PROTECTED);
    EXPECT_EQ(object_hash_protect(obj, "f", false), field);
    EXPECT_EQ(field->fflags, FIELD_MODIFIED);
    EXPECT_EQ(object_hash_protect(obj, "g", true), nullptr);
}

TEST_F(HashObjects, ADoomedFieldIsReadableUntilTheFlush) {
    object* obj = hash_object("h", {"f", "v"});
    object_defer(obj);
    EXPECT_EQ(object_hash_del(obj, "f"), 1);
    EXPECT_EQ(value_of(obj, "f"), "v");
    EXPECT_EQ(object_hash_field(obj, "f")->fflags, FIELD_DOOMED);
    EXPECT_EQ(obj->hash->count, 1u);
    object_flush(obj);
    EXPECT_EQ(object_hash_field(obj, "f"), nullptr);
}

TEST_F(HashObjects, AFieldThatIsDoomedTwiceCountsTwiceAndGoesOnce) {
    test_client observer;
    observers_add(observer.record());
    object* obj = hash_object("h", {"f", "v"});
    object_defer(obj);
    EXPECT_EQ(object_hash_del(obj, "f"), 1);
    EXPECT_EQ(object_hash_del(obj, "f"), 1);
    object_flush(obj);
    EXPECT_EQ(observer.received(), event({"HDEL", "h", "f"}));
}

TEST_F(HashObjects, DeletionsAreAnnouncedBeforeUpdates) {
    test_client observer;
    observers_add(observer.record());
    object* obj = hash_object("h", {"a", "1", "b", "2"});
    object_defer(obj);
    object_hash_set(obj, text("b"), text("3"));
    object_hash_del(obj, "a");
    object_flush(obj);
    EXPECT_EQ(observer.received(), event({"HDEL", "h", "a"}) + event({"HMSET", "h", "b", "3"}));
}

TEST_F(HashObjects, DoomedFieldsAreAnnouncedInTableOrderAndRemovedInReverse) {
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

TEST_F(HashObjects, SettingADoomedFieldDoesNotSaveIt) {
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

TEST_F(HashObjects, AFieldThatIsSetAndThenDeletedIsOnlyDeleted) {
    test_client observer;
    observers_add(observer.record());
    object* obj = make("h", OBJ_THASH);
    object_defer(obj);
    object_hash_set(obj, text("f"), text("v"));
    object_hash_del(obj, "f");
    object_flush(obj);
    EXPECT_EQ(observer.received(), event({"HDEL", "h", "f"}));
}

TEST_F(HashObjects, FieldsAreRemovedWithoutObserversToo) {
    object* obj = hash_object("h", {"a", "1", "b", "2"});
    object_defer(obj);
    object_hash_del(obj, "a");
    object_hash_set(obj, text("b"), text("3"));
    object_flush(obj);
    EXPECT_EQ(obj->hash->count, 1u);
    EXPECT_EQ(object_hash_field(obj, "b")->fflags, 0);
    EXPECT_EQ(obj->flags, OBJ_THASH);
}

TEST_F(HashObjects, APrivateHashIsNotAnnouncedButItsDoomedFieldsGo) {
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

TEST_F(HashObjects, ManyDoomedFieldsGoInOneFlush) {
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

/* --- Lists --- */

TEST_F(ListObjects, PushesAreTracedAndMarkTheObject) {
    object* obj = make("l", OBJ_TLIST);
    log.start();
    object_lpush(obj, "a");
    object_rpush(obj, "b");
    EXPECT_EQ(log.text(), "debug *** \"l\"(list): lpush to \"a\"\n"
                          "debug *** \"l\"(list): rpush to \"b\"\n");
    EXPECT_EQ(items(obj), (texts{"a", "b"}));
    EXPECT_EQ(obj->flags, flags_of(OBJ_TLIST, OBJ_CHANGED));
}

TEST_F(ListObjects, EitherPushAloneMarksTheObject) {
    object* left = make("left", OBJ_TLIST);
    object* right = make("right", OBJ_TLIST);
    ASSERT_EQ(left->flags, OBJ_TLIST);
    ASSERT_EQ(right->flags, OBJ_TLIST);
    object_lpush(left, "a");
    object_rpush(right, "a");
    EXPECT_EQ(left->flags, flags_of(OBJ_TLIST, OBJ_CHANGED));
    EXPECT_EQ(right->flags, flags_of(OBJ_TLIST, OBJ_CHANGED));
}

TEST_F(ListObjects, ChangesAreAnnouncedToNobody) {
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

TEST_F(ListObjects, APushOntoAFullListDropsTheFarEnd) {
    object* obj = list_object("l", {"a", "b", "c"});
    obj->list->max = 3;
    object_lpush(obj, "d");
    EXPECT_EQ(items(obj), (texts{"d", "a", "b"}));
    object_rpush(obj, "e");
    EXPECT_EQ(items(obj), (texts{"a", "b", "e"}));
}

TEST_F(ListObjects, TheTraceOfAPushNamesTheNewEnd) {
    object* obj = list_object("l", {"a"});
    obj->list->max = 1;
    log.start();
    object_lpush(obj, "b");
    object_rpush(obj, "c");
    EXPECT_EQ(log.text(), "debug *** \"l\"(list): lpush to \"b\"\n"
                          "debug *** \"l\"(list): rpush to \"c\"\n");
    EXPECT_EQ(items(obj), texts{"c"});
}

TEST_F(ListObjects, ACapOfZeroDropsWhatIsPushedOntoAnEmptyList) {
    object* obj = make("l", OBJ_TLIST);
    obj->list->max = 0;
    log.start();
    object_lpush(obj, "a");
    object_rpush(obj, "b");
    EXPECT_EQ(obj->list->count, 0);
    EXPECT_EQ(object_lpop(obj), nullptr);
}

TEST_F(ListObjects, PopsAreTraced) {
    object* obj = list_object("l", {"a", "b", "c"});
    log.start();
    EXPECT_EQ(take(object_rpop(obj)), "c");
    EXPECT_EQ(take(object_lpop(obj)), "a");
    EXPECT_EQ(log.text(), "debug *** \"l\"(list): rpop \"c\"\n"
                          "debug *** \"l\"(list): lpop \"a\"\n");
    EXPECT_EQ(items(obj), texts{"b"});
}

TEST_F(ListObjects, PopsDoNotMarkTheObject) {
    object* obj = list_object("l", {"a", "b"});
    take(object_rpop(obj));
    take(object_lpop(obj));
    EXPECT_EQ(obj->flags, OBJ_TLIST);
}

TEST_F(ListObjects, PoppingAnEmptyListGivesAndTracesNothing) {
    object* obj = make("l", OBJ_TLIST);
    log.start();
    EXPECT_EQ(object_rpop(obj), nullptr);
    EXPECT_EQ(object_lpop(obj), nullptr);
    EXPECT_EQ(log.text(), "");
}

TEST_F(ListObjects, ItemsAreFoundByIndex) {
    object* obj = list_object("l", {"a", "b", "c"});
    EXPECT_EQ(bytes_of(object_lindex(obj, 0)), "a");
    EXPECT_EQ(bytes_of(object_lindex(obj, -1)), "c");
    EXPECT_EQ(object_lindex(obj, 3), nullptr);
    EXPECT_EQ(object_lindex(obj, -4), nullptr);
    EXPECT_EQ(object_lindex(make("empty", OBJ_TLIST), -1), nullptr);
}

TEST_F(ListObjects, TrimmingRemovesItemsFromTheTail) {
    object* obj = list_object("l", {"a", "b", "c", "d"});
    log.start();
    object_ltrim_tail(obj, 0, 3);
    EXPECT_EQ(items(obj), texts{"a"});
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(obj->list->max, 0xFFFF);
}

TEST_F(ListObjects, TrimmingEndsWithTheLastItem) {
    object* obj = list_object("l", {"a", "b"});
    object_ltrim_tail(obj, 0, 100);
    EXPECT_EQ(obj->list->count, 0);
    object_ltrim_tail(obj, 0, 1);
    EXPECT_EQ(obj->list->count, 0);
}

TEST_F(ListObjects, TrimmingTakesItsNumberAs16Bits) {
    object* obj = list_object("l", {"a", "b", "c"});
    object_ltrim_tail(obj, 0, 0x10000);
    EXPECT_EQ(items(obj), (texts{"a", "b", "c"}));
    object_ltrim_tail(obj, 0, 0x10001);
    EXPECT_EQ(items(obj), (texts{"a", "b"}));
}

TEST_F(ListObjects, TrimmingInAnyOtherModeDoesNothing) {
    object* obj = list_object("l", {"a", "b", "c"});
    object_ltrim_tail(obj, 1, 2);
    object_ltrim_tail(obj, -1, 2);
    EXPECT_EQ(items(obj), (texts{"a", "b", "c"}));
}

TEST_F(ListObjects, ItemsEndAtTheirFirstNul) {
    object* obj = make("l", OBJ_TLIST);
    object_rpush(obj, text(std::string_view("ab\0cd", 5)));
    EXPECT_EQ(items(obj), texts{"ab"});
}

TEST_F(ListObjects, TheFlushOfListsEndsTheSteps) {
    object* obj = make("l", OBJ_TLIST);
    object_defer(obj);
    object_flush_list(obj);
    EXPECT_EQ(obj->flags, OBJ_TLIST);
}

/* --- Types that are asserted --- */

class ObjectAssertions : public store_test {
  protected:
    object* string = make("s", OBJ_TSTRING);
    object* list = make("l", OBJ_TLIST);
    object* hash = make("h", OBJ_THASH);
    object* none = make("n", OBJ_TNONE);
    int64_t delta = 1;
};

TEST_F(ObjectAssertions, AppendingWantsAString) {
    EXPECT_ASSERTION(object_append(hash, text("v")), "obj->type == OBJ_TSTRING", "object", 686);
    EXPECT_ASSERTION(object_append(none, text("v")), "obj->type == OBJ_TSTRING", "object", 686);
}

TEST_F(ObjectAssertions, IncrementingWantsAString) {
    EXPECT_ASSERTION(object_incr(list, &delta), "obj->type == OBJ_TSTRING", "object", 697);
}

TEST_F(ObjectAssertions, SettingAFieldWantsAHashOrATypelessObject) {
    const char* const expression = "obj->type == OBJ_THASH || obj->type == OBJ_TNONE";
    EXPECT_ASSERTION(object_hash_set(string, text("f"), text("v")), expression, "object", 718);
    EXPECT_ASSERTION(object_hash_set(list, text("f"), text("v")), expression, "object", 718);
}

TEST_F(ObjectAssertions, IncrementingAFieldWantsAHash) {
    EXPECT_ASSERTION(object_hash_incr(string, text("f"), &delta), "obj->type == OBJ_THASH",
                     "object", 749);
    EXPECT_ASSERTION(object_hash_incr(none, text("f"), &delta), "obj->type == OBJ_THASH", "object",
                     749);
}

TEST_F(ObjectAssertions, DeletingAFieldWantsAHash) {
    EXPECT_ASSERTION(object_hash_del(list, "f"), "obj->type == OBJ_THASH", "object", 771);
}

TEST_F(ObjectAssertions, ProtectingAFieldWantsAHash) {
    EXPECT_ASSERTION(object_hash_protect(string, "f", true), "obj->type == OBJ_THASH", "object",
                     791);
}

TEST_F(ObjectAssertions, PoppingWantsAList) {
    EXPECT_ASSERTION(object_rpop(string), "obj->type == OBJ_TLIST", "object", 815);
    EXPECT_ASSERTION(object_lpop(hash), "obj->type == OBJ_TLIST", "object", 841);
}

TEST_F(ObjectAssertions, ReadingAnItemWantsAList) {
    EXPECT_ASSERTION(object_lindex(none, 0), "obj->type == OBJ_TLIST", "object", 854);
}

TEST_F(ObjectAssertions, TrimmingWantsAListInAnyMode) {
    EXPECT_ASSERTION(object_ltrim_tail(string, 0, 1), "obj->type == OBJ_TLIST", "object", 861);
    EXPECT_ASSERTION(object_ltrim_tail(string, 1, 1), "obj->type == OBJ_TLIST", "object", 861);
}
