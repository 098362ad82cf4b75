#include "store/selection.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/support/store_test.h"

using namespace unit_test;

namespace {

typedef std::vector<std::string> texts;

class selection_test : public store_test {
  protected:
    /* The keys that are selected, in order. */
    static texts selected(const char* keys, unsigned types) {
        selection s;
        selection_make(&s, keys, types);
        texts found;
        for (uint32_t i = 0; i < s.count; i++) {
            found.push_back(s.objects[i]->key);
        }
        selection_free(&s);
        return found;
    }
};

} // namespace

TEST_F(selection_test, without_a_keyspace_nothing_is_found) {
    EXPECT_EQ(selected("*", SELECT_TYPED), (texts{}));
}

TEST_F(selection_test, keys_come_in_table_order) {
    for (const char* key : {"a", "b", "c"}) {
        make(key, OBJ_TSTRING);
    }
    /* The buckets 9, 10 and 0 of 11. */
    EXPECT_EQ(selected("*", SELECT_TYPED), (texts{"c", "a", "b"}));
    EXPECT_EQ(selected("[ab]", SELECT_TYPED), (texts{"a", "b"}));
}

TEST_F(selection_test, only_the_wanted_types_are_found) {
    make("a", OBJ_TSTRING);
    make("b", OBJ_TLIST);
    make("c", OBJ_THASH);
    make("d", OBJ_TNONE);
    EXPECT_EQ(selected("*", SELECT_TYPED), (texts{"c", "a", "b"}));
    EXPECT_EQ(selected("*", SELECT_STRINGS), (texts{"a"}));
}

TEST_F(selection_test, dead_objects_are_found_too) {
    object_delete(make("k", OBJ_TSTRING));
    EXPECT_EQ(selected("k", SELECT_STRINGS), (texts{"k"}));
}
