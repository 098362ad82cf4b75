#include "store/record.h"

#include <gtest/gtest.h>

#include "tests/unit/support/store_test.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

class object_record_test : public store_test {};

} // namespace

TEST_F(object_record_test, types_have_names) {
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

TEST_F(object_record_test, a_type_name_is_made_once) {
    const object* obj = make("s", OBJ_TSTRING);
    EXPECT_EQ(object_type_name(obj), object_type_name(obj));
    EXPECT_EQ(sstr_length(object_type_name(obj)), 6u);
    EXPECT_EQ(object_type_name(nullptr), object_type_name(make("n", OBJ_TNONE)));
}

TEST_F(object_record_test, freeing_a_value_with_reset_leaves_the_protections_alone) {
    object* obj = make("k", OBJ_TLIST);
    object_rpush(obj, "v");
    obj->flags = 0x7FF & ~OBJ_TYPE_MASK;
    obj->flags |= OBJ_TLIST;
    object_free_value(obj, true);
    EXPECT_EQ(obj->flags, OBJ_PROTECTED | OBJ_FIELDS_PROTECTED);
    EXPECT_EQ(obj->value, nullptr);
}

TEST_F(object_record_test, freeing_a_value_without_reset_leaves_the_flags) {
    object* obj = make("k", OBJ_THASH);
    object_hash_set(obj, text("f"), text("v"));
    object_free_value(obj, false);
    EXPECT_EQ(obj->flags, OBJ_THASH);
    obj->value = nullptr;
}

TEST_F(object_record_test, freeing_what_has_no_value_is_allowed) {
    object* obj = make("k", OBJ_TSTRING);
    object_free_value(obj, true);
    object_free_value(obj, true);
    EXPECT_EQ(obj->flags, 0);
}

TEST_F(object_record_test, a_string_without_value_reads_as_the_empty_string) {
    const object* obj = make("k", OBJ_TSTRING);
    ASSERT_NE(object_string(obj), nullptr);
    EXPECT_EQ(sstr_length(object_string(obj)), 0u);
    EXPECT_EQ(sstr_length(object_string(obj)), 0u);
}
