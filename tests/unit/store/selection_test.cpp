#include "store/selection.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/support/no_more_memory.h"
#include "tests/unit/support/store_test.h"

using namespace unit_test;

namespace {

typedef std::vector<std::string> texts;

class selection_test : public store_test {
  protected:
    /* The keys that are selected, in order. */
    static texts selected(const char* keys, unsigned types) {
        selection s;
        EXPECT_TRUE(selection_make(&s, keys, types));
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

TEST_F(selection_test, a_pattern_that_takes_too_long_is_given_up_and_said_once) {
    const std::string key(100000, 'a');
    make(key, OBJ_TSTRING);
    make("short", OBJ_TSTRING);
    const std::string hostile = "*" + std::string(1000, '?') + "b*";
    log.start(LOG_DEBUG);
    selection s;
    EXPECT_FALSE(selection_make(&s, hostile.c_str(), SELECT_TYPED));
    EXPECT_EQ(log.text(), "warn  *** pattern (*" + std::string(63, '?') +
                              ") is given up: " + "too many steps\n");
    EXPECT_EQ(selected("s*", SELECT_TYPED), (texts{"short"})) << "the next one has its own budget";
}

TEST_F(selection_test, a_pattern_that_came_from_outside_is_no_format) {
    make(std::string(100000, 'a'), OBJ_TSTRING);
    log.start(LOG_WARN);
    selection s;
    const std::string hostile = "*[!%s%n]" + std::string(1000, '?') + "b*";
    EXPECT_FALSE(selection_make(&s, hostile.c_str(), SELECT_STRINGS));
    EXPECT_EQ(log.text().substr(0, 29), "warn  *** pattern (*[!%s%n]??");
}

TEST_F(selection_test, giving_up_is_not_said_above_warn_level) {
    make(std::string(100000, 'a'), OBJ_TSTRING);
    log.start(LOG_ERROR);
    selection s;
    EXPECT_FALSE(selection_make(&s, ("*" + std::string(1000, '?') + "b*").c_str(), SELECT_TYPED));
    EXPECT_EQ(log.text(), "");
}

/* Many keys are as dear as a long one. */
TEST_F(selection_test, all_keys_share_one_budget) {
    for (int i = 10000; i < 14000; i++) {
        make(std::string(100, 'a') + std::to_string(i), OBJ_TSTRING);
    }
    const std::string dear = "*" + std::string(50, 'a') + "b*";
    selection s;
    EXPECT_FALSE(selection_make(&s, dear.c_str(), SELECT_TYPED));
    EXPECT_TRUE(selection_make(&s, "*aaab*", SELECT_TYPED));
    EXPECT_EQ(s.count, 0u);
    selection_free(&s);
}

TEST_F(selection_test, without_memory_for_the_pattern_it_is_given_up) {
    if (!no_more_memory::possible()) {
        GTEST_SKIP() << "memory cannot be limited here";
    }
    make("k", OBJ_TSTRING);
    const std::string keys(no_more_memory::SIZE / sizeof(uint32_t), 'a');
    log.start(LOG_WARN);
    selection s;
    bool done;
    {
        const no_more_memory limit;
        done = selection_make(&s, keys.c_str(), SELECT_TYPED);
    }
    EXPECT_FALSE(done);
    EXPECT_EQ(log.text(),
              "warn  *** pattern (" + std::string(64, 'a') + ") is given up: no memory\n");
}
