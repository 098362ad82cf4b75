#include "stats/stat_value.h"

#include <gtest/gtest.h>

#include <string_view>

#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_client.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

class stat_values_test : public store_test {
  protected:
    static std::string_view string_of(const char* key) {
        const object* obj = object_lookup_type(key, OBJ_TSTRING);
        return obj != nullptr ? bytes_of(obj->string) : "(no string)";
    }

    static std::string_view field_of(const object* hash, const char* field) {
        const hash_field* f = object_hash_field(hash, field);
        return f != nullptr ? bytes_of(f->value) : "(no field)";
    }
};

} // namespace

/* --- Numbers as strings --- */

TEST_F(stat_values_test, a_number_is_written_as_decimal_text_without_padding) {
    for (const auto& [value, digits] : {std::pair(0u, "0"),
                                        {7u, "7"},
                                        {100u, "100"},
                                        {2147483648u, "2147483648"},
                                        {4294967295u, "4294967295"}}) {
        stat_set_number("figure", value);
        EXPECT_EQ(string_of("figure"), digits);
    }
}

TEST_F(stat_values_test, a_shorter_number_leaves_nothing_of_a_longer_one) {
    stat_set_number("figure", 4294967295u);
    stat_set_number("figure", 3);
    EXPECT_EQ(string_of("figure"), "3");
}

TEST_F(stat_values_test, every_write_is_announced_also_of_the_same_number) {
    test_client observer;
    observer.call({"observe"});
    stat_set_number("figure", 42);
    EXPECT_EQ(observer.received(), event({"MSET", "figure", "42"}));
    stat_set_number("figure", 42);
    EXPECT_EQ(observer.received(), event({"MSET", "figure", "42"}));
}

TEST_F(stat_values_test, a_string_key_holding_a_hash_or_list_is_left_alone) {
    object_hash_set(make("h", OBJ_THASH), text("f"), text("v"));
    object_rpush(make("l", OBJ_TLIST), "item");
    test_client observer;
    observer.call({"observe"});
    stat_set_number("h", 1);
    stat_set_number("l", 1);
    EXPECT_EQ(field_of(object_lookup_type("h", OBJ_THASH), "f"), "v");
    EXPECT_EQ(object_lookup_type("l", OBJ_TLIST)->list->count, 1);
    EXPECT_EQ(observer.received(), "");
}

TEST_F(stat_values_test, a_deleted_key_comes_back) {
    stat_set_number("figure", 1);
    object_delete(object_lookup("figure"));
    ASSERT_EQ(object_lookup("figure"), nullptr);
    stat_set_number("figure", 2);
    EXPECT_EQ(string_of("figure"), "2");
}

/* --- Numbers as fields --- */

TEST_F(stat_values_test, a_field_takes_the_two_halves_of_a_64_bit_number) {
    object* hash = make("eth0", OBJ_THASH);
    stat_hset_u64(hash, text("zero"), 0, 0);
    stat_hset_u64(hash, text("low"), 4294967295u, 0);
    stat_hset_u64(hash, text("high"), 0, 1);
    stat_hset_u64(hash, text("mixed"), 705032704, 1);
    stat_hset_u64(hash, text("all"), 4294967295u, 4294967295u);
    EXPECT_EQ(field_of(hash, "zero"), "0");
    EXPECT_EQ(field_of(hash, "low"), "4294967295");
    EXPECT_EQ(field_of(hash, "high"), "4294967296");
    EXPECT_EQ(field_of(hash, "mixed"), "5000000000");
    EXPECT_EQ(field_of(hash, "all"), "18446744073709551615");
}

TEST_F(stat_values_test, a_field_takes_a_32_bit_number) {
    object* hash = make("eth0", OBJ_THASH);
    stat_hset_u32(hash, text("f"), 0);
    EXPECT_EQ(field_of(hash, "f"), "0");
    stat_hset_u32(hash, text("f"), 4294967295u);
    EXPECT_EQ(field_of(hash, "f"), "4294967295");
}

/* --- What scanf read --- */

TEST(stat_readings_test, saturate_at_32_bits_and_store_negative_ones_as_unsigned) {
    EXPECT_EQ(stat_signed_reading(0), 0u);
    EXPECT_EQ(stat_signed_reading(5), 5u);
    EXPECT_EQ(stat_signed_reading(2147483647), 2147483647u);
    EXPECT_EQ(stat_signed_reading(2147483648), 2147483647u);
    EXPECT_EQ(stat_signed_reading(INT64_MAX), 2147483647u);
    EXPECT_EQ(stat_signed_reading(-1), 4294967295u);
    EXPECT_EQ(stat_signed_reading(INT64_C(-2147483648)), 2147483648u);
    EXPECT_EQ(stat_signed_reading(INT64_C(-2147483649)), 2147483648u);
    EXPECT_EQ(stat_signed_reading(INT64_MIN), 2147483648u);
}
