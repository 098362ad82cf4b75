#include "store/dlist.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <vector>

namespace {

/* Values are pointers that nobody follows; the test tells them apart by their number. */
void* value(intptr_t number) {
    return reinterpret_cast<void*>(number);
}

intptr_t number(const void* v) {
    return reinterpret_cast<intptr_t>(v);
}

class bounded_list_test : public ::testing::Test {
  protected:
    ~bounded_list_test() override {
        dlist_free(list);
    }

    /* From head to tail, after a check that the way back is the same. */
    std::vector<intptr_t> values() const {
        std::vector<intptr_t> forward;
        for (const dlist_node* node = list->head; node != nullptr; node = node->next) {
            forward.push_back(number(node->value));
        }
        std::vector<intptr_t> backward;
        for (const dlist_node* node = list->tail; node != nullptr; node = node->prev) {
            backward.insert(backward.begin(), number(node->value));
        }
        EXPECT_EQ(forward, backward);
        EXPECT_EQ(list->head == nullptr, list->tail == nullptr);
        return forward;
    }

    void push_tail(std::initializer_list<intptr_t> all) {
        for (const intptr_t n : all) {
            EXPECT_EQ(dlist_push_tail(list, value(n)), nullptr);
        }
    }

    typedef std::vector<intptr_t> numbers;

    dlist* list = dlist_new(DLIST_UNCAPPED);
};

} // namespace

TEST_F(bounded_list_test, a_new_list_is_empty_and_has_the_cap_that_was_asked_for) {
    EXPECT_EQ(list->count, 0);
    EXPECT_EQ(list->max, 0xFFFF);
    EXPECT_EQ(values(), numbers{});
    dlist* small = dlist_new(7);
    EXPECT_EQ(small->max, 7);
    dlist_free(small);
}

TEST_F(bounded_list_test, pushes_at_the_head_stand_in_reverse_order) {
    for (intptr_t n = 1; n <= 3; n++) {
        EXPECT_EQ(dlist_push_head(list, value(n)), nullptr);
    }
    EXPECT_EQ(values(), (numbers{3, 2, 1}));
    EXPECT_EQ(list->count, 3);
}

TEST_F(bounded_list_test, pushes_at_the_tail_stand_in_their_order) {
    push_tail({1, 2, 3});
    EXPECT_EQ(values(), (numbers{1, 2, 3}));
    EXPECT_EQ(list->count, 3);
}

TEST_F(bounded_list_test, a_push_at_the_head_of_a_full_list_hands_back_the_tail) {
    list->max = 3;
    push_tail({1, 2, 3});
    EXPECT_EQ(number(dlist_push_head(list, value(4))), 3);
    EXPECT_EQ(values(), (numbers{4, 1, 2}));
    EXPECT_EQ(list->count, 3);
}

TEST_F(bounded_list_test, a_push_at_the_tail_of_a_full_list_hands_back_the_head) {
    list->max = 3;
    push_tail({1, 2, 3});
    EXPECT_EQ(number(dlist_push_tail(list, value(4))), 1);
    EXPECT_EQ(values(), (numbers{2, 3, 4}));
    EXPECT_EQ(list->count, 3);
}

TEST_F(bounded_list_test, the_node_that_falls_off_a_full_list_is_used_again) {
    list->max = 2;
    push_tail({1, 2});
    const dlist_node* tail = list->tail;
    dlist_push_head(list, value(3));
    EXPECT_EQ(list->head, tail);
    const dlist_node* head = list->head;
    dlist_push_tail(list, value(4));
    EXPECT_EQ(list->tail, head);
}

TEST_F(bounded_list_test, a_list_of_one_swaps_its_value) {
    list->max = 1;
    push_tail({1});
    const dlist_node* only = list->head;
    EXPECT_EQ(number(dlist_push_head(list, value(2))), 1);
    EXPECT_EQ(number(dlist_push_tail(list, value(3))), 2);
    EXPECT_EQ(values(), (numbers{3}));
    EXPECT_EQ(list->head, only);
    EXPECT_EQ(list->count, 1);
}

TEST_F(bounded_list_test, an_empty_list_with_cap_zero_hands_the_value_back) {
    list->max = 0;
    EXPECT_EQ(number(dlist_push_head(list, value(1))), 1);
    EXPECT_EQ(number(dlist_push_tail(list, value(2))), 2);
    EXPECT_EQ(values(), numbers{});
    EXPECT_EQ(list->count, 0);
}

TEST_F(bounded_list_test, a_list_above_its_cap_keeps_its_length) {
    push_tail({1, 2, 3});
    for (const uint16_t cap : {uint16_t{0}, uint16_t{1}, uint16_t{2}}) {
        list->max = cap;
        const intptr_t first = number(list->head->value);
        EXPECT_EQ(number(dlist_push_tail(list, value(cap + 10))), first) << cap;
        EXPECT_EQ(list->count, 3) << cap;
    }
    EXPECT_EQ(values(), (numbers{10, 11, 12}));
    EXPECT_EQ(number(dlist_push_head(list, value(20))), 12);
    EXPECT_EQ(values(), (numbers{20, 10, 11}));
}

TEST_F(bounded_list_test, an_uncapped_list_holds_65535_values) {
    for (intptr_t n = 1; n <= 65535; n++) {
        ASSERT_EQ(dlist_push_tail(list, value(n)), nullptr);
    }
    EXPECT_EQ(list->count, 65535);
    EXPECT_EQ(number(dlist_push_tail(list, value(65536))), 1);
    EXPECT_EQ(list->count, 65535);
    EXPECT_EQ(number(dlist_index(list, 65534)), 65536);
    EXPECT_EQ(number(dlist_index(list, -65535)), 2);
}

TEST_F(bounded_list_test, pops_take_from_their_end) {
    push_tail({1, 2, 3});
    EXPECT_EQ(number(dlist_pop_head(list)), 1);
    EXPECT_EQ(values(), (numbers{2, 3}));
    EXPECT_EQ(number(dlist_pop_tail(list)), 3);
    EXPECT_EQ(values(), (numbers{2}));
    EXPECT_EQ(list->count, 1);
}

TEST_F(bounded_list_test, popping_the_last_value_clears_both_ends) {
    push_tail({1});
    EXPECT_EQ(number(dlist_pop_head(list)), 1);
    EXPECT_EQ(list->head, nullptr);
    EXPECT_EQ(list->tail, nullptr);
    EXPECT_EQ(list->count, 0);
    push_tail({2});
    EXPECT_EQ(number(dlist_pop_tail(list)), 2);
    EXPECT_EQ(list->head, nullptr);
    EXPECT_EQ(list->tail, nullptr);
}

TEST_F(bounded_list_test, popping_an_empty_list_gives_nothing) {
    EXPECT_EQ(dlist_pop_head(list), nullptr);
    EXPECT_EQ(dlist_pop_tail(list), nullptr);
    EXPECT_EQ(list->count, 0);
}

TEST_F(bounded_list_test, indexes_count_from_the_head_and_from_the_tail) {
    push_tail({10, 11, 12, 13});
    const intptr_t expected[] = {10, 11, 12, 13};
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(number(dlist_index(list, i)), expected[i]);
        EXPECT_EQ(number(dlist_index(list, i - 4)), expected[i]);
        EXPECT_EQ(number(dlist_node_at(list, i)->value), expected[i]);
    }
}

TEST_F(bounded_list_test, an_index_out_of_range_gives_nothing) {
    EXPECT_EQ(dlist_index(list, -1), nullptr);
    EXPECT_EQ(dlist_index(list, 0), nullptr);
    push_tail({1, 2});
    for (const int64_t index : {int64_t{2}, int64_t{-3}, int64_t{65536}, int64_t{1} << 32,
                                (int64_t{1} << 32) + 1, INT64_MAX, INT64_MIN}) {
        EXPECT_EQ(dlist_index(list, index), nullptr) << index;
        EXPECT_EQ(dlist_node_at(list, index), nullptr) << index;
    }
}

TEST_F(bounded_list_test, removing_a_value_unlinks_its_first_node_and_leaves_the_count) {
    push_tail({1, 2, 1, 3});
    dlist_node* nodes[] = {list->head, nullptr, nullptr, nullptr};
    for (int i = 1; i < 4; i++) {
        nodes[i] = nodes[i - 1]->next;
    }
    dlist_remove_value(list, value(1));
    EXPECT_EQ(values(), (numbers{2, 1, 3}));
    dlist_remove_value(list, value(1));
    EXPECT_EQ(values(), (numbers{2, 3}));
    dlist_remove_value(list, value(3));
    EXPECT_EQ(values(), (numbers{2}));
    dlist_remove_value(list, value(2));
    EXPECT_EQ(values(), numbers{});
    EXPECT_EQ(list->count, 4);
    /* The nodes are still whole: the caller frees them, here by putting them back. */
    for (int i = 0; i < 4; i++) {
        nodes[i]->prev = i > 0 ? nodes[i - 1] : nullptr;
        nodes[i]->next = i < 3 ? nodes[i + 1] : nullptr;
    }
    list->head = nodes[0];
    list->tail = nodes[3];
    EXPECT_EQ(values(), (numbers{1, 2, 1, 3}));
}

TEST_F(bounded_list_test, removing_a_value_that_is_not_there_changes_nothing) {
    push_tail({1, 2});
    dlist_remove_value(list, value(3));
    EXPECT_EQ(values(), (numbers{1, 2}));
}

TEST_F(bounded_list_test, a_cleared_list_is_empty_and_keeps_its_cap) {
    list->max = 5;
    push_tail({1, 2, 3});
    dlist_clear(list);
    EXPECT_EQ(list->count, 0);
    EXPECT_EQ(list->max, 5);
    EXPECT_EQ(values(), numbers{});
    push_tail({4});
    EXPECT_EQ(values(), (numbers{4}));
}

TEST_F(bounded_list_test, any_mix_of_operations_keeps_the_links_right) {
    std::deque<intptr_t> model;
    std::mt19937 random(2);
    list->max = 6;
    for (intptr_t n = 1; n <= 3000; n++) {
        intptr_t out = 0;
        switch (random() % 5) {
        case 0:
            if (model.size() == 6) {
                out = model.back();
                model.pop_back();
            }
            model.push_front(n);
            ASSERT_EQ(number(dlist_push_head(list, value(n))), out);
            break;
        case 1:
        case 2:
            if (model.size() == 6) {
                out = model.front();
                model.pop_front();
            }
            model.push_back(n);
            ASSERT_EQ(number(dlist_push_tail(list, value(n))), out);
            break;
        case 3:
            if (!model.empty()) {
                out = model.front();
                model.pop_front();
            }
            ASSERT_EQ(number(dlist_pop_head(list)), out);
            break;
        default:
            if (!model.empty()) {
                out = model.back();
                model.pop_back();
            }
            ASSERT_EQ(number(dlist_pop_tail(list)), out);
            break;
        }
        ASSERT_EQ(values(), numbers(model.begin(), model.end()));
        ASSERT_EQ(list->count, model.size());
    }
}
