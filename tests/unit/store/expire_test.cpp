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

class Expiry : public store_test {
  protected:
    object* string_object(const char* key) {
        object* obj = make(key, OBJ_TSTRING);
        obj->string = sstr_new("v", 1);
        return obj;
    }

    test_clock::frozen clock{START};
};

class ExpirySweep : public Expiry {
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

TEST_F(Expiry, ATimeToLiveIsCountedFromNow) {
    object* obj = string_object("k");
    log.start();
    object_expire(obj, 5);
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_EXPIRE_TTL));
    EXPECT_EQ(obj->expire_arg, 5u);
    EXPECT_EQ(obj->expire_base, START);
    EXPECT_EQ(log.text(), "debug *** \"k\"(string): set expire-TTL to 5\n");
}

TEST_F(Expiry, TheTraceNamesTheTypeAndTheUnsignedSeconds) {
    log.start();
    object_expire(make("l", OBJ_TLIST), 0);
    object_expire(make("h", OBJ_THASH), 4294967295u);
    EXPECT_EQ(log.text(), "debug *** \"l\"(list): set expire-TTL to 0\n"
                          "debug *** \"h\"(hash): set expire-TTL to 4294967295\n");
}

TEST_F(Expiry, AnAbsoluteTimeIsStoredWithTheSecondInWhichItWasSet) {
    object* obj = string_object("k");
    log.start();
    object_expire_at(obj, 123456);
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_EXPIRE_ABSOLUTE));
    EXPECT_EQ(obj->expire_arg, 123456u);
    EXPECT_EQ(obj->expire_base, START);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Expiry, TheModeThatWasSetLastHolds) {
    object* obj = string_object("k");
    object_expire(obj, 5);
    object_expire_at(obj, 6);
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_EXPIRE_ABSOLUTE));
    object_expire(obj, 7);
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_EXPIRE_TTL));
    EXPECT_EQ(obj->expire_arg, 7u);
}

TEST_F(Expiry, SettingItAgainStartsTheCountAnew) {
    object* obj = string_object("k");
    object_expire(obj, 5);
    test_clock::set(START + 3);
    object_expire(obj, 5);
    EXPECT_EQ(obj->expire_base, START + 3);
}

TEST_F(Expiry, OtherFlagsStay) {
    object* obj = string_object("k");
    obj->flags = 0x7FF & ~(OBJ_TYPE_MASK | OBJ_EXPIRE_MASK);
    obj->flags |= OBJ_TSTRING;
    object_expire(obj, 5);
    EXPECT_EQ(obj->flags, 0x7C0u | OBJ_TSTRING | unsigned{OBJ_EXPIRE_TTL});
    object_persist(obj);
    EXPECT_EQ(obj->flags, 0x7C0u | OBJ_TSTRING);
}

TEST_F(Expiry, PersistRemovesATimeToLive) {
    object* obj = string_object("k");
    object_expire(obj, 5);
    log.start();
    EXPECT_EQ(object_persist(obj), 1);
    EXPECT_EQ(obj->flags, OBJ_TSTRING);
    EXPECT_EQ(obj->expire_arg, 0u);
    EXPECT_EQ(obj->expire_base, 0u);
    EXPECT_EQ(log.text(), "debug *** \"k\"(string): remove expire-TTL\n");
}

TEST_F(Expiry, PersistRemovesAnAbsoluteTime) {
    object* obj = make("h", OBJ_THASH);
    object_expire_at(obj, 5);
    log.start();
    EXPECT_EQ(object_persist(obj), 1);
    EXPECT_EQ(obj->flags, OBJ_THASH);
    EXPECT_EQ(log.text(), "debug *** \"h\"(hash): remove expire-TTL\n");
}

TEST_F(Expiry, PersistWithoutAnExpiryDoesNothing) {
    object* obj = string_object("k");
    log.start();
    EXPECT_EQ(object_persist(obj), 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Expiry, PersistOfATypelessObjectDoesNothing) {
    object* obj = make("n", OBJ_TNONE);
    obj->flags = OBJ_EXPIRE_TTL;
    log.start();
    EXPECT_EQ(object_persist(obj), 0);
    EXPECT_EQ(obj->flags, OBJ_EXPIRE_TTL);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Expiry, ATimeToLiveWantsAType) {
    object* obj = make("n", OBJ_TNONE);
    EXPECT_ASSERTION(object_expire(obj, 5), "obj->type != OBJ_TNONE", "object", 567);
}

TEST_F(Expiry, AnAbsoluteTimeWantsAType) {
    object* obj = make("n", OBJ_TNONE);
    EXPECT_ASSERTION(object_expire_at(obj, 5), "obj->type != OBJ_TNONE", "object", 576);
}

/* --- When the sweep scans --- */

TEST_F(ExpirySweep, TheFirstTickOnlyTakesTheTime) {
    object_expire(string_object("k"), 0);
    sweep_at(START + 100);
    EXPECT_TRUE(stands("k"));
    sweep_at(START + 101);
    EXPECT_FALSE(stands("k"));
}

TEST_F(ExpirySweep, ATickBeforeTheFirstKeyDoesNotCount) {
    sweep_at(START);
    EXPECT_EQ(object_keyspace(), nullptr);
    object_expire(string_object("k"), 0);
    sweep_at(START + 10);
    EXPECT_TRUE(stands("k"));
    sweep_at(START + 11);
    EXPECT_FALSE(stands("k"));
}

TEST_F(ExpirySweep, ASecondMustHavePassedSinceTheLastScan) {
    string_object("keep");
    sweep_at(START, 300000);
    object_expire(string_object("k"), 0);
    sweep_at(START + 1, 299000);
    EXPECT_TRUE(stands("k"));
    sweep_at(START + 1, 300000);
    EXPECT_FALSE(stands("k"));
}

TEST_F(ExpirySweep, ATickThatComesTooEarlyDoesNotMoveTheClock) {
    string_object("keep");
    sweep_at(START);
    for (int64_t usec = 100000; usec < 1000000; usec += 100000) {
        sweep_at(START, usec);
    }
    object_expire(string_object("k"), 0);
    sweep_at(START + 1);
    EXPECT_FALSE(stands("k"));
}

TEST_F(ExpirySweep, TheNextSecondIsCountedFromTheLastScan) {
    string_object("keep");
    sweep_at(START);
    sweep_at(START + 1, 900000);
    object_expire(string_object("k"), 0);
    sweep_at(START + 2, 899000);
    EXPECT_TRUE(stands("k"));
    sweep_at(START + 2, 900000);
    EXPECT_FALSE(stands("k"));
}

TEST_F(ExpirySweep, MicrosecondsAreCutToMillisecondsTowardZeroBeforeSecondsAreAdded) {
    object_expire(string_object("k"), 0);
    sweep_at(START, 1500);
    /* -1500 us are -1 ms, so 999. */
    sweep_at(START + 1, 0);
    EXPECT_TRUE(stands("k"));
    /* -999 us are 0 ms, so 1000. */
    sweep_at(START + 1, 501);
    EXPECT_FALSE(stands("k"));
}

TEST_F(ExpirySweep, AClockThatWasSetBackSkipsTheScanAndTakesTheTime) {
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

TEST_F(ExpirySweep, AStepBackOfLessThanAMillisecondIsNone) {
    object_expire(string_object("k"), 0);
    sweep_at(START, 999);
    sweep_at(START, 0);
    /* Had the step counted, only 999 ms would have passed now. */
    sweep_at(START + 1, 0);
    EXPECT_FALSE(stands("k"));
}

TEST_F(ExpirySweep, TheElapsedMillisecondsAreSigned32BitNumbers) {
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

TEST_F(ExpirySweep, ALeapThatWrapsToLessThanASecondIsNotYetOne) {
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

TEST_F(ExpirySweep, ALeapOf24DaysScansAtOnce) {
    object_expire(string_object("k"), 0);
    sweep_at(START);
    /* 2147483000 ms */
    sweep_at(START + 2147483);
    EXPECT_FALSE(stands("k"));
}

TEST_F(ExpirySweep, TheTimerCallsItAndStays) {
    object_expire(string_object("k"), 0);
    EXPECT_EQ(expire_timer_cb(nullptr), 0);
    test_clock::set(START + 1);
    EXPECT_EQ(expire_timer_cb(nullptr), 0);
    EXPECT_FALSE(stands("k"));
}

TEST_F(ExpirySweep, InitForgetsTheLastScan) {
    object_expire(string_object("k"), 0);
    sweep_at(START);
    expire_init();
    sweep_at(START + 5);
    EXPECT_TRUE(stands("k"));
}

/* --- What expires --- */

TEST_F(ExpirySweep, ATimeToLiveExpiresWithItsLastSecond) {
    object_expire(string_object("k"), 5);
    sweep_at(START);
    for (int64_t second = 1; second <= 4; second++) {
        sweep_at(START + second, 999999);
        EXPECT_TRUE(stands("k")) << second;
    }
    sweep_at(START + 6, 0);
    EXPECT_FALSE(stands("k"));
}

TEST_F(ExpirySweep, ATimeToLiveExpiresInTheFirstScanOfItsSecond) {
    object_expire(string_object("k"), 5);
    sweep_at(START);
    sweep_at(START + 5);
    EXPECT_FALSE(stands("k"));
}

TEST_F(ExpirySweep, TheLongestTimeToLiveDoesNotWrap) {
    object_expire(string_object("k"), 4294967295u);
    sweep_at(START);
    sweep_at(START + 1);
    EXPECT_TRUE(stands("k"));
}

TEST_F(ExpirySweep, TimesBeyond2038Work) {
    test_clock::set(3000000000);
    object_expire(string_object("k"), 2);
    sweep_at(3000000000);
    sweep_at(3000000001);
    EXPECT_TRUE(stands("k"));
    sweep_at(3000000002);
    EXPECT_FALSE(stands("k"));
}

TEST_F(ExpirySweep, AClockThatWasSetBackRestartsTheCountOfATimeToLive) {
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

TEST_F(ExpirySweep, ATimeToLiveOfZeroGoesInAScanOfTheSameSecond) {
    object* obj = string_object("k");
    sweep_at(START - 1);
    test_clock::set(START);
    object_expire(obj, 0);
    sweep_at(START);
    EXPECT_FALSE(stands("k"));
}

TEST_F(ExpirySweep, ARestartedCountSparesEvenATimeToLiveOfZeroForOneScan) {
    object_expire(string_object("k"), 0);
    sweep_at(START);
    sweep_at(500);
    sweep_at(501);
    EXPECT_TRUE(stands("k"));
    sweep_at(502);
    EXPECT_FALSE(stands("k"));
}

TEST_F(ExpirySweep, AnAbsoluteTimeExpiresInALaterSecondWhateverItSays) {
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

TEST_F(ExpirySweep, AnAbsoluteTimeWaitsForAClockThatWasSetBack) {
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

TEST_F(ExpirySweep, KeysWithoutAnExpiryAreNeverCollected) {
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

TEST_F(ExpirySweep, ADeadKeyWithAnExpiryIsCollectedWhenItExpires) {
    object* obj = string_object("k");
    object_expire(obj, 3);
    object_delete(obj);
    sweep_at(START);
    sweep_at(START + 2);
    EXPECT_TRUE(stands("k"));
    sweep_at(START + 3);
    EXPECT_FALSE(stands("k"));
}

TEST_F(ExpirySweep, ProtectionDoesNotHoldAgainstIt) {
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

TEST_F(ExpirySweep, TheLastFoundIsDestroyedFirst) {
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

TEST_F(ExpirySweep, EveryTypeIsDestroyedUnderItsName) {
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

TEST_F(ExpirySweep, AScanThatFindsNothingTracesNothing) {
    string_object("k");
    sweep_at(START);
    log.start();
    sweep_at(START + 1);
    EXPECT_EQ(log.text(), "");
}

TEST_F(ExpirySweep, NobodyIsToldOfAnExpiry) {
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

TEST_F(ExpirySweep, AnExpiredKeyIsMadeAnewWithANewRecord) {
    object_expire(string_object("k"), 0);
    sweep_at(START);
    sweep_at(START + 1);
    EXPECT_EQ(object_lookup("k"), nullptr);
    const object* again = make("k", OBJ_TLIST);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->flags, OBJ_TLIST);
    EXPECT_EQ(object_keyspace()->count, 1u);
}

TEST_F(ExpirySweep, AThousandKeysGoInOneScan) {
    for (int i = 0; i < 1000; i++) {
        object_expire(string_object(("k" + std::to_string(i)).c_str()), i % 2 == 0 ? 1 : 2);
    }
    sweep_at(START);
    sweep_at(START + 1);
    EXPECT_EQ(object_keyspace()->count, 500u);
    sweep_at(START + 2);
    EXPECT_EQ(object_keyspace()->count, 0u);
}
