#include "store/expire.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_client.h"
#include "tests/unit/support/test_clock.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

/* Every test begins at this second. */
constexpr uint32_t START = 1000;

class expiry_test : public store_test {
  protected:
    object* string_object(const char* key) {
        object* obj = make(key, OBJ_TSTRING);
        obj->string = sstr_new("v", 1);
        return obj;
    }

    test_clock::frozen clock{START};
};

class expiry_sweep_test : public expiry_test {
  protected:
    static void sweep_at(int64_t sec, int64_t usec = 0) {
        test_clock::set(sec, usec);
        object_expire_sweep();
    }

    static bool stands(const char* key) {
        return object_keyspace() != nullptr && htable_get(object_keyspace(), key) != nullptr;
    }
};

int hook_called;

int count_calls(object*) {
    hook_called++;
    return 0;
}

} // namespace

/* --- What a key carries --- */

TEST_F(expiry_test, a_time_to_live_is_counted_from_now) {
    object* obj = string_object("k");
    log.start();
    object_expire(obj, 5);
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_EXPIRE_TTL));
    EXPECT_EQ(obj->expire_arg, 5u);
    EXPECT_EQ(obj->expire_base, START);
    EXPECT_EQ(log.text(), "debug *** \"k\"(string): set expire-TTL to 5\n");
}

TEST_F(expiry_test, the_trace_names_the_type_and_the_unsigned_seconds) {
    log.start();
    object_expire(make("l", OBJ_TLIST), 0);
    object_expire(make("h", OBJ_THASH), 4294967295u);
    EXPECT_EQ(log.text(), "debug *** \"l\"(list): set expire-TTL to 0\n"
                          "debug *** \"h\"(hash): set expire-TTL to 4294967295\n");
}

TEST_F(expiry_test, an_absolute_time_is_stored_with_the_second_in_which_it_was_set) {
    object* obj = string_object("k");
    log.start();
    object_expire_at(obj, 123456);
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_EXPIRE_ABSOLUTE));
    EXPECT_EQ(obj->expire_arg, 123456u);
    EXPECT_EQ(obj->expire_base, START);
    EXPECT_EQ(log.text(), "");
}

TEST_F(expiry_test, the_mode_that_was_set_last_holds) {
    object* obj = string_object("k");
    object_expire(obj, 5);
    object_expire_at(obj, 6);
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_EXPIRE_ABSOLUTE));
    object_expire(obj, 7);
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_EXPIRE_TTL));
    EXPECT_EQ(obj->expire_arg, 7u);
}

TEST_F(expiry_test, setting_it_again_starts_the_count_anew) {
    object* obj = string_object("k");
    object_expire(obj, 5);
    test_clock::set(START + 3);
    object_expire(obj, 5);
    EXPECT_EQ(obj->expire_base, START + 3);
}

TEST_F(expiry_test, other_flags_stay) {
    object* obj = string_object("k");
    obj->flags = 0x7FF & ~(OBJ_TYPE_MASK | OBJ_EXPIRE_MASK);
    obj->flags |= OBJ_TSTRING;
    object_expire(obj, 5);
    EXPECT_EQ(obj->flags, 0x7C0u | OBJ_TSTRING | unsigned{OBJ_EXPIRE_TTL});
    object_persist(obj);
    EXPECT_EQ(obj->flags, 0x7C0u | OBJ_TSTRING);
}

TEST_F(expiry_test, persist_removes_a_time_to_live) {
    object* obj = string_object("k");
    object_expire(obj, 5);
    log.start();
    EXPECT_EQ(object_persist(obj), 1);
    EXPECT_EQ(obj->flags, OBJ_TSTRING);
    EXPECT_EQ(obj->expire_arg, 0u);
    EXPECT_EQ(obj->expire_base, 0u);
    EXPECT_EQ(log.text(), "debug *** \"k\"(string): remove expire-TTL\n");
}

TEST_F(expiry_test, persist_removes_an_absolute_time) {
    object* obj = make("h", OBJ_THASH);
    object_expire_at(obj, 5);
    log.start();
    EXPECT_EQ(object_persist(obj), 1);
    EXPECT_EQ(obj->flags, OBJ_THASH);
    EXPECT_EQ(log.text(), "debug *** \"h\"(hash): remove expire-TTL\n");
}

TEST_F(expiry_test, persist_without_an_expiry_does_nothing) {
    object* obj = string_object("k");
    log.start();
    EXPECT_EQ(object_persist(obj), 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(expiry_test, persist_of_a_typeless_object_does_nothing) {
    object* obj = make("n", OBJ_TNONE);
    obj->flags = OBJ_EXPIRE_TTL;
    log.start();
    EXPECT_EQ(object_persist(obj), 0);
    EXPECT_EQ(obj->flags, OBJ_EXPIRE_TTL);
    EXPECT_EQ(log.text(), "");
}

TEST_F(expiry_test, a_time_to_live_wants_a_type) {
    object* obj = make("n", OBJ_TNONE);
    EXPECT_ASSERTION(object_expire(obj, 5), "obj->type != OBJ_TNONE", "object", 567);
}

TEST_F(expiry_test, an_absolute_time_wants_a_type) {
    object* obj = make("n", OBJ_TNONE);
    EXPECT_ASSERTION(object_expire_at(obj, 5), "obj->type != OBJ_TNONE", "object", 576);
}

/* --- When the sweep scans --- */

TEST_F(expiry_sweep_test, the_first_tick_only_takes_the_time) {
    object_expire(string_object("k"), 0);
    sweep_at(START + 100);
    EXPECT_TRUE(stands("k"));
    sweep_at(START + 101);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, a_tick_before_the_first_key_does_not_count) {
    sweep_at(START);
    EXPECT_EQ(object_keyspace(), nullptr);
    object_expire(string_object("k"), 0);
    sweep_at(START + 10);
    EXPECT_TRUE(stands("k"));
    sweep_at(START + 11);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, a_second_must_have_passed_since_the_last_scan) {
    string_object("keep");
    sweep_at(START, 300000);
    object_expire(string_object("k"), 0);
    sweep_at(START + 1, 299000);
    EXPECT_TRUE(stands("k"));
    sweep_at(START + 1, 300000);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, a_tick_that_comes_too_early_does_not_move_the_clock) {
    string_object("keep");
    sweep_at(START);
    for (int64_t usec = 100000; usec < 1000000; usec += 100000) {
        sweep_at(START, usec);
    }
    object_expire(string_object("k"), 0);
    sweep_at(START + 1);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, the_next_second_is_counted_from_the_last_scan) {
    string_object("keep");
    sweep_at(START);
    sweep_at(START + 1, 900000);
    object_expire(string_object("k"), 0);
    sweep_at(START + 2, 899000);
    EXPECT_TRUE(stands("k"));
    sweep_at(START + 2, 900000);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test,
       microseconds_are_cut_to_milliseconds_toward_zero_before_seconds_are_added) {
    object_expire(string_object("k"), 0);
    sweep_at(START, 1500);
    /* -1500 us are -1 ms, so 999. */
    sweep_at(START + 1, 0);
    EXPECT_TRUE(stands("k"));
    /* -999 us are 0 ms, so 1000. */
    sweep_at(START + 1, 501);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, a_clock_that_was_set_back_skips_the_scan_and_takes_the_time) {
    object* obj = string_object("k");
    sweep_at(START);
    object_expire(obj, 0);
    obj->expire_base = 0;
    sweep_at(START - 500);
    EXPECT_TRUE(stands("k"));
    sweep_at(START - 500, 999000);
    EXPECT_TRUE(stands("k"));
    sweep_at(START - 499);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, a_step_back_of_less_than_a_millisecond_is_none) {
    object_expire(string_object("k"), 0);
    sweep_at(START, 999);
    sweep_at(START, 0);
    /* Had the step counted, only 999 ms would have passed now. */
    sweep_at(START + 1, 0);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, the_elapsed_milliseconds_are_signed_32_bit_numbers) {
    object_expire(string_object("k"), 0);
    sweep_at(START);
    /* 2147484000 ms lie beyond the largest: the clock seems to have been set back. */
    sweep_at(START + 2147484);
    EXPECT_TRUE(stands("k"));
    sweep_at(START + 2147484, 999000);
    EXPECT_TRUE(stands("k"));
    sweep_at(START + 2147485);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, a_leap_that_wraps_to_less_than_a_second_is_not_yet_one) {
    object_expire(string_object("k"), 0);
    sweep_at(START);
    /* 4294968000 ms wrap to 704, and the time is not taken. */
    sweep_at(START + 4294968);
    EXPECT_TRUE(stands("k"));
    sweep_at(START + 4294968, 295000);
    EXPECT_TRUE(stands("k"));
    sweep_at(START + 4294968, 296000);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, a_leap_of_24_days_scans_at_once) {
    object_expire(string_object("k"), 0);
    sweep_at(START);
    /* 2147483000 ms */
    sweep_at(START + 2147483);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, the_timer_calls_it_and_stays) {
    object_expire(string_object("k"), 0);
    EXPECT_EQ(expire_timer_cb(nullptr), 0);
    test_clock::set(START + 1);
    EXPECT_EQ(expire_timer_cb(nullptr), 0);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, init_forgets_the_last_scan) {
    object_expire(string_object("k"), 0);
    sweep_at(START);
    expire_init();
    sweep_at(START + 5);
    EXPECT_TRUE(stands("k"));
}

/* --- What expires --- */

TEST_F(expiry_sweep_test, a_time_to_live_expires_with_its_last_second) {
    object_expire(string_object("k"), 5);
    sweep_at(START);
    for (int64_t second = 1; second <= 4; second++) {
        sweep_at(START + second, 999999);
        EXPECT_TRUE(stands("k")) << second;
    }
    sweep_at(START + 6, 0);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, a_time_to_live_expires_in_the_first_scan_of_its_second) {
    object_expire(string_object("k"), 5);
    sweep_at(START);
    sweep_at(START + 5);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, the_longest_time_to_live_does_not_wrap) {
    object_expire(string_object("k"), 4294967295u);
    sweep_at(START);
    sweep_at(START + 1);
    EXPECT_TRUE(stands("k"));
}

TEST_F(expiry_sweep_test, times_beyond_2038_work) {
    test_clock::set(3000000000);
    object_expire(string_object("k"), 2);
    sweep_at(3000000000);
    sweep_at(3000000001);
    EXPECT_TRUE(stands("k"));
    sweep_at(3000000002);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, a_clock_that_was_set_back_restarts_the_count_of_a_time_to_live) {
    object* obj = string_object("k");
    object_expire(obj, 5);
    sweep_at(START);
    sweep_at(500);
    EXPECT_EQ(obj->expire_base, START);
    sweep_at(501);
    EXPECT_EQ(obj->expire_base, 501u);
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_EXPIRE_TTL));
    sweep_at(505);
    EXPECT_TRUE(stands("k"));
    sweep_at(506);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, a_time_to_live_of_zero_goes_in_a_scan_of_the_same_second) {
    object* obj = string_object("k");
    sweep_at(START - 1);
    test_clock::set(START);
    object_expire(obj, 0);
    sweep_at(START);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, a_restarted_count_spares_even_a_time_to_live_of_zero_for_one_scan) {
    object_expire(string_object("k"), 0);
    sweep_at(START);
    sweep_at(500);
    sweep_at(501);
    EXPECT_TRUE(stands("k"));
    sweep_at(502);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, an_absolute_time_expires_in_a_later_second_whatever_it_says) {
    string_object("keep");
    sweep_at(START - 1, 500000);
    for (const uint32_t when : {0u, START - 100, START, START + 1, START + 1000000, 4294967295u}) {
        const std::string key = "k" + std::to_string(when);
        test_clock::set(START);
        object_expire_at(string_object(key.c_str()), when);
    }
    sweep_at(START, 500000);
    EXPECT_EQ(object_keyspace()->count, 7u);
    sweep_at(START + 1, 500000);
    EXPECT_EQ(object_keyspace()->count, 1u);
    EXPECT_TRUE(stands("keep"));
}

TEST_F(expiry_sweep_test, an_absolute_time_waits_for_a_clock_that_was_set_back) {
    object* obj = string_object("k");
    object_expire_at(obj, 0);
    sweep_at(START);
    sweep_at(500);
    sweep_at(501);
    EXPECT_TRUE(stands("k"));
    EXPECT_EQ(obj->expire_base, START);
    sweep_at(START);
    EXPECT_TRUE(stands("k"));
    sweep_at(START + 1);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, keys_without_an_expiry_are_never_collected) {
    string_object("live");
    make("typeless", OBJ_TNONE);
    object_delete(string_object("dead"));
    object* persisted = string_object("persisted");
    object_expire(persisted, 1);
    object_persist(persisted);
    sweep_at(START);
    sweep_at(START + 1000000);
    EXPECT_EQ(object_keyspace()->count, 4u);
    EXPECT_TRUE(stands("dead"));
}

TEST_F(expiry_sweep_test, a_dead_key_with_an_expiry_is_collected_when_it_expires) {
    object* obj = string_object("k");
    object_expire(obj, 3);
    object_delete(obj);
    sweep_at(START);
    sweep_at(START + 2);
    EXPECT_TRUE(stands("k"));
    sweep_at(START + 3);
    EXPECT_FALSE(stands("k"));
}

TEST_F(expiry_sweep_test, protection_does_not_hold_against_it) {
    object* obj = make("h", OBJ_THASH);
    object_hash_set(obj, text("f"), text("v"));
    object_hash_protect(obj, "f", true);
    obj->flags |= OBJ_PROTECTED | OBJ_FIELDS_PROTECTED;
    object_expire(obj, 1);
    sweep_at(START);
    sweep_at(START + 1);
    EXPECT_FALSE(stands("h"));
}

/* --- How it destroys --- */

TEST_F(expiry_sweep_test, the_last_found_is_destroyed_first) {
    for (const char* key : {"a", "b", "c", "d"}) {
        string_object(key);
    }
    object_expire(object_lookup("a"), 1);
    object_expire(object_lookup("b"), 1);
    object_expire_at(object_lookup("c"), 1);
    sweep_at(START);
    log.start();
    sweep_at(START + 1);
    /* The hashes 97 to 100 stand in the buckets 9, 10, 0 and 1 of 11, so the scan meets c, d, a, b.
     */
    EXPECT_EQ(log.text(), "debug *** add to expired list\n"
                          "debug *** add to expired list\n"
                          "debug *** add to expired list\n"
                          "debug *** \"b\"(string): expired.\n"
                          "debug *** \"b\"(string): destroyed\n"
                          "debug *** \"a\"(string): expired.\n"
                          "debug *** \"a\"(string): destroyed\n"
                          "debug *** \"c\"(string): expired.\n"
                          "debug *** \"c\"(string): destroyed\n");
    EXPECT_EQ(object_keyspace()->count, 1u);
    EXPECT_TRUE(stands("d"));
}

TEST_F(expiry_sweep_test, every_type_is_destroyed_under_its_name) {
    object* list = make("a", OBJ_TLIST);
    object_rpush(list, "1");
    object_rpush(list, "2");
    object* hash = make("b", OBJ_THASH);
    object_hash_set(hash, text("f"), text("v"));
    object_expire(list, 0);
    object_expire(hash, 0);
    sweep_at(START);
    log.start();
    sweep_at(START + 1);
    EXPECT_EQ(log.text(), "debug *** add to expired list\n"
                          "debug *** add to expired list\n"
                          "debug *** \"b\"(hash): expired.\n"
                          "debug *** \"b\"(hash): destroyed\n"
                          "debug *** \"a\"(list): expired.\n"
                          "debug *** \"a\"(list): destroyed\n");
    EXPECT_EQ(object_keyspace()->count, 0u);
}

TEST_F(expiry_sweep_test, a_scan_that_finds_nothing_traces_nothing) {
    string_object("k");
    sweep_at(START);
    log.start();
    sweep_at(START + 1);
    EXPECT_EQ(log.text(), "");
}

TEST_F(expiry_sweep_test, nobody_is_told_of_an_expiry) {
    test_client observer;
    observers_add(observer.record());
    hook_called = 0;
    object_register_string_hook(count_calls);
    object* obj = string_object("k");
    obj->flags |= OBJ_CHANGED | OBJ_DEFERRED;
    object_expire(obj, 0);
    sweep_at(START);
    sweep_at(START + 1);
    EXPECT_FALSE(stands("k"));
    EXPECT_EQ(observer.received(), "");
    EXPECT_EQ(hook_called, 0);
}

TEST_F(expiry_sweep_test, an_expired_key_is_made_anew_with_a_new_record) {
    object_expire(string_object("k"), 0);
    sweep_at(START);
    sweep_at(START + 1);
    EXPECT_EQ(object_lookup("k"), nullptr);
    const object* again = make("k", OBJ_TLIST);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->flags, OBJ_TLIST);
    EXPECT_EQ(object_keyspace()->count, 1u);
}

TEST_F(expiry_sweep_test, a_thousand_keys_go_in_one_scan) {
    for (int i = 0; i < 1000; i++) {
        object_expire(string_object(("k" + std::to_string(i)).c_str()), i % 2 == 0 ? 1 : 2);
    }
    sweep_at(START);
    sweep_at(START + 1);
    EXPECT_EQ(object_keyspace()->count, 500u);
    sweep_at(START + 2);
    EXPECT_EQ(object_keyspace()->count, 0u);
}
