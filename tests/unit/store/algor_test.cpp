#include "store/algor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

/* What the table links: a record whose first member points to its key. */
struct record {
    explicit record(std::string k) : key(std::move(k)), key_pointer(key.c_str()) {}
    void* item() {
        return &key_pointer;
    }
    std::string key;
    const char* key_pointer;
};

std::string key_of(const void* item) {
    return *static_cast<const char* const*>(item);
}

std::vector<std::string> walk_keys(const htable* t) {
    std::vector<std::string> keys;
    htable_walk walk = htable_walk_start(t);
    while (const void* item = htable_walk_next(&walk)) {
        keys.push_back(key_of(item));
    }
    return keys;
}

/* A second, slower opinion on the order of iteration. */
class table_model {
  public:
    static uint32_t hash(const std::string& key) {
        uint64_t h = 0;
        for (const unsigned char byte : key) {
            const int64_t value = byte < 128 ? byte : int64_t{byte} - 256;
            h = (h * 31 + static_cast<uint64_t>(value)) % (uint64_t{1} << 32);
        }
        return static_cast<uint32_t>(h);
    }

    void insert(const std::string& key) {
        if (size() >= buckets.size() / 2) {
            std::vector<std::list<std::string>> old(next_size());
            old.swap(buckets);
            for (const std::list<std::string>& chain : old) {
                for (const std::string& moved : chain) {
                    chain_of(moved).push_front(moved);
                }
            }
        }
        chain_of(key).push_front(key);
    }

    void remove(const std::string& key) {
        chain_of(key).remove(key);
    }

    size_t size() const {
        return keys().size();
    }

    std::vector<std::string> keys() const {
        std::vector<std::string> all;
        for (const std::list<std::string>& chain : buckets) {
            all.insert(all.end(), chain.begin(), chain.end());
        }
        return all;
    }

  private:
    std::list<std::string>& chain_of(const std::string& key) {
        return buckets[hash(key) % buckets.size()];
    }

    size_t next_size() const {
        for (const size_t size : {11, 23, 97, 397, 1597, 6577, 25523, 99793}) {
            if (size > buckets.size()) {
                return size;
            }
        }
        return 0;
    }

    std::vector<std::list<std::string>> buckets;
};

class hash_table_test : public ::testing::Test {
  protected:
    ~hash_table_test() override {
        htable_free(table);
    }

    record* put(const std::string& key) {
        records.push_back(std::make_unique<record>(key));
        htable_put(table, records.back()->item());
        return records.back().get();
    }

    void put_all(std::initializer_list<const char*> keys) {
        for (const char* key : keys) {
            put(key);
        }
    }

    /* Numbered keys up to this many entries in all. */
    void fill(uint32_t count) {
        while (table->count < count) {
            put("key" + std::to_string(table->count));
        }
    }

    bool has(const std::string& key) {
        return htable_get(table, key.c_str()) != nullptr;
    }

    htable* table = htable_new();
    std::vector<std::unique_ptr<record>> records;
};

} // namespace

TEST(key_hash_test, the_empty_key_hashes_to_zero) {
    EXPECT_EQ(htable_hash(""), 0u);
}

TEST(key_hash_test, each_byte_is_added_to_thirty_one_times_the_hash_so_far) {
    EXPECT_EQ(htable_hash("a"), 97u);
    EXPECT_EQ(htable_hash("ab"), 97u * 31 + 98);
    EXPECT_EQ(htable_hash("abc"), (97u * 31 + 98) * 31 + 99);
    EXPECT_EQ(htable_hash("hello"), 99162322u);
}

TEST(key_hash_test, overflow_wraps_at_32_bits) {
    EXPECT_EQ(htable_hash("polygenelubricants"), 0x80000000u);
}

TEST(key_hash_test, bytes_above_127_count_as_negative_numbers) {
    EXPECT_EQ(htable_hash("\xff"), 0xFFFFFFFFu);
    EXPECT_EQ(htable_hash("\x80"), 0xFFFFFF80u);
    EXPECT_EQ(htable_hash("\x7f"), 0x7Fu);
    EXPECT_EQ(htable_hash("a\x80"), 97u * 31 - 128);
    EXPECT_EQ(htable_hash("\xff"
                          "a"),
              0u - 31 + 97);
}

TEST(key_hash_test, the_entry_keeps_the_hash_of_its_key) {
    htable* table = htable_new();
    record r("hello");
    EXPECT_EQ(htable_put(table, r.item())->hash, 99162322u);
    htable_free(table);
}

TEST_F(hash_table_test, a_new_table_is_empty_and_has_no_buckets) {
    EXPECT_EQ(table->buckets, nullptr);
    EXPECT_EQ(table->nbuckets, 0u);
    EXPECT_EQ(table->count, 0u);
}

TEST_F(hash_table_test, an_empty_table_finds_nothing_and_stays_without_buckets) {
    htable_entry some = {};
    htable_entry* prev = &some;
    EXPECT_EQ(htable_get(table, "a"), nullptr);
    EXPECT_EQ(htable_find(table, "a", &prev, false), nullptr);
    EXPECT_EQ(prev, nullptr);
    htable_del(table, "a");
    htable_clear(table);
    EXPECT_EQ(table->nbuckets, 0u);
    EXPECT_EQ(table->buckets, nullptr);
}

TEST_F(hash_table_test, the_first_insertion_makes_eleven_buckets) {
    put("a");
    EXPECT_EQ(table->nbuckets, 11u);
    EXPECT_EQ(table->count, 1u);
}

TEST_F(hash_table_test, the_table_grows_before_it_would_be_more_than_half_full) {
    struct {
        uint32_t last_that_fits;
        uint32_t nbuckets;
        uint32_t next_nbuckets;
    } const steps[] = {
        {5, 11, 23},       {11, 23, 97},        {48, 97, 397},         {198, 397, 1597},
        {798, 1597, 6577}, {3288, 6577, 25523}, {12761, 25523, 99793},
    };
    for (const auto& step : steps) {
        fill(step.last_that_fits);
        EXPECT_EQ(table->nbuckets, step.nbuckets) << step.last_that_fits;
        fill(step.last_that_fits + 1);
        EXPECT_EQ(table->nbuckets, step.next_nbuckets) << step.last_that_fits + 1;
    }
}

TEST_F(hash_table_test, every_key_is_still_found_after_each_growth) {
    for (const uint32_t size : {6u, 12u, 49u, 199u, 799u}) {
        fill(size);
        for (const std::unique_ptr<record>& r : records) {
            EXPECT_EQ(htable_get(table, r->key.c_str()), r->item()) << r->key << " of " << size;
        }
    }
}

TEST_F(hash_table_test, a_full_table_of_99793_buckets_takes_49896_keys) {
    fill(49896);
    EXPECT_EQ(table->nbuckets, 99793u);
    EXPECT_EQ(table->count, 49896u);
}

TEST_F(hash_table_test, the_49897_th_key_aborts_the_process) {
    fill(49896);
    EXPECT_EXIT(put("one more"), ::testing::KilledBySignal(SIGABRT),
                "algor:460: next_prime: Assertion `0' failed");
}

TEST_F(hash_table_test, a_key_that_is_there_is_replaced_in_a_full_table_without_growth) {
    fill(49896);
    put("key0");
    EXPECT_EQ(table->count, 49896u);
    EXPECT_EQ(htable_find(table, "key1", nullptr, true)->item, records[1]->item());
}

TEST_F(hash_table_test, buckets_are_walked_in_order_of_their_index) {
    /* 97 to 101, so buckets 9, 10, 0, 1 and 2 of 11. */
    put_all({"a", "b", "c", "d", "e"});
    EXPECT_EQ(walk_keys(table), (std::vector<std::string>{"c", "d", "e", "a", "b"}));
    /* With 102 the table has 23 buckets, and they are 5 to 10. */
    put("f");
    EXPECT_EQ(walk_keys(table), (std::vector<std::string>{"a", "b", "c", "d", "e", "f"}));
}

TEST_F(hash_table_test, the_newest_key_heads_its_chain) {
    /* 97, 108 and 119: all in bucket 9 of 11. */
    put_all({"a", "l", "w"});
    EXPECT_EQ(walk_keys(table), (std::vector<std::string>{"w", "l", "a"}));
    EXPECT_EQ(key_of(table->buckets[9]->item), "w");
}

TEST_F(hash_table_test, growth_turns_chains_that_stay_together_around) {
    /* 2080, 2333 and 2586 lie 253 = 11 * 23 apart: together in bucket 1 of 11 and in bucket 10
     * of 23. */
    put_all({"AA", "IF", "QK"});
    EXPECT_EQ(walk_keys(table), (std::vector<std::string>{"QK", "IF", "AA"}));
    put_all({"a", "b", "c"});
    ASSERT_EQ(table->nbuckets, 23u);
    EXPECT_EQ(walk_keys(table), (std::vector<std::string>{"a", "b", "c", "AA", "IF", "QK"}));
}

TEST_F(hash_table_test, growth_takes_the_old_buckets_in_order) {
    /* 13 and 36 stand in the buckets 2 and 3 of 11 and share bucket 13 of 23: what comes from
     * bucket 3 comes later and is pushed in front. */
    put_all({"\x24", "\x0d", "\x01", "\x02", "\x03"});
    put("\x04");
    ASSERT_EQ(table->nbuckets, 23u);
    EXPECT_EQ(walk_keys(table),
              (std::vector<std::string>{"\x01", "\x02", "\x03", "\x04", "\x24", "\x0d"}));
}

TEST_F(hash_table_test, the_order_of_a_large_table_is_that_of_the_model) {
    table_model model;
    std::mt19937 random(1);
    for (int i = 0; i < 500; i++) {
        std::string key;
        for (size_t length = random() % 6 + 1; key.size() < length;) {
            key += static_cast<char>(random() % 255 + 1);
        }
        if (!has(key)) {
            put(key);
            model.insert(key);
        } else if (random() % 2 == 0) {
            htable_del(table, key.c_str());
            model.remove(key);
        }
        if (i % 7 == 0) {
            const std::vector<std::string> keys = model.keys();
            const std::string& victim = keys[random() % keys.size()];
            htable_del(table, victim.c_str());
            model.remove(victim);
        }
        ASSERT_EQ(walk_keys(table), model.keys()) << "step " << i;
        ASSERT_EQ(table->count, model.size());
    }
    EXPECT_EQ(table->nbuckets, 1597u);
}

TEST_F(hash_table_test, adding_a_new_record_is_the_same_as_putting_it) {
    htable* other = htable_new();
    for (int i = 0; i < 500; i++) {
        htable_add(other, put("key" + std::to_string(i))->item());
    }
    EXPECT_EQ(walk_keys(other), walk_keys(table));
    EXPECT_EQ(other->count, 500u);
    EXPECT_EQ(other->nbuckets, 1597u);
    EXPECT_EQ(htable_get(other, "key7"), htable_get(table, "key7"));
    htable_free(other);
}

TEST_F(hash_table_test, keys_with_the_same_hash_are_told_apart_by_their_text) {
    /* 65 * 31 + 97 = 66 * 31 + 66 */
    ASSERT_EQ(htable_hash("Aa"), htable_hash("BB"));
    const record* first = put("Aa");
    EXPECT_FALSE(has("BB"));
    const record* second = put("BB");
    EXPECT_EQ(table->count, 2u);
    EXPECT_EQ(htable_get(table, "Aa"), &first->key_pointer);
    EXPECT_EQ(htable_get(table, "BB"), &second->key_pointer);
}

TEST_F(hash_table_test, the_empty_key_is_a_key) {
    put("");
    EXPECT_TRUE(has(""));
    EXPECT_EQ(walk_keys(table), (std::vector<std::string>{""}));
}

TEST_F(hash_table_test, putting_a_key_that_is_there_replaces_the_record_in_place) {
    put_all({"a", "l", "w"});
    const htable_entry* before = htable_find(table, "l", nullptr, false);
    record other("l");
    EXPECT_EQ(htable_put(table, other.item()), before);
    EXPECT_EQ(table->count, 3u);
    EXPECT_EQ(htable_get(table, "l"), other.item());
    EXPECT_EQ(walk_keys(table), (std::vector<std::string>{"w", "l", "a"}));
}

TEST_F(hash_table_test, find_tells_the_entry_before_in_the_chain) {
    put_all({"a", "l", "w"});
    htable_entry* prev = nullptr;
    htable_entry* head = htable_find(table, "w", &prev, false);
    EXPECT_EQ(prev, nullptr);
    htable_entry* middle = htable_find(table, "l", &prev, false);
    EXPECT_EQ(prev, head);
    htable_entry* last = htable_find(table, "a", &prev, false);
    EXPECT_EQ(prev, middle);
    EXPECT_EQ(last->next, nullptr);
}

TEST_F(hash_table_test, find_without_create_leaves_the_table_alone) {
    put_all({"a", "l", "w"});
    htable_entry* prev = table->buckets[9];
    /* 130 is bucket 9 too. */
    EXPECT_EQ(htable_find(table, "\x16", &prev, false), nullptr);
    EXPECT_EQ(table->count, 3u);
}

TEST_F(hash_table_test, find_with_create_gives_an_entry_without_a_record_at_the_head) {
    put_all({"a", "l"});
    htable_entry* prev = table->buckets[9];
    htable_entry* made = htable_find(table, "w", &prev, true);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->item, nullptr);
    EXPECT_EQ(made->hash, 119u);
    EXPECT_EQ(prev, nullptr);
    EXPECT_EQ(table->buckets[9], made);
    EXPECT_EQ(table->count, 3u);
    record r("w");
    made->item = r.item();
    EXPECT_EQ(htable_get(table, "w"), r.item());
}

TEST_F(hash_table_test, find_with_create_of_a_key_that_is_there_makes_nothing) {
    const record* r = put("a");
    EXPECT_EQ(htable_find(table, "a", nullptr, true)->item, &r->key_pointer);
    EXPECT_EQ(table->count, 1u);
}

TEST_F(hash_table_test, deleting_the_head_of_a_chain_leaves_the_others) {
    put_all({"a", "l", "w"});
    htable_del(table, "w");
    EXPECT_EQ(walk_keys(table), (std::vector<std::string>{"l", "a"}));
    EXPECT_EQ(table->count, 2u);
}

TEST_F(hash_table_test, deleting_from_the_middle_of_a_chain_leaves_the_others) {
    put_all({"a", "l", "w"});
    htable_del(table, "l");
    EXPECT_EQ(walk_keys(table), (std::vector<std::string>{"w", "a"}));
    EXPECT_TRUE(has("a"));
}

TEST_F(hash_table_test, deleting_the_end_of_a_chain_leaves_the_others) {
    put_all({"a", "l", "w"});
    htable_del(table, "a");
    EXPECT_EQ(walk_keys(table), (std::vector<std::string>{"w", "l"}));
}

TEST_F(hash_table_test, deleting_an_absent_key_changes_nothing) {
    put_all({"a", "l"});
    htable_del(table, "w");
    htable_del(table, "z");
    EXPECT_EQ(table->count, 2u);
}

TEST_F(hash_table_test, deletion_leaves_the_record_alone) {
    const record* r = put("a");
    htable_del(table, "a");
    EXPECT_EQ(r->key, "a");
    EXPECT_EQ(r->key_pointer, r->key.c_str());
    EXPECT_FALSE(has("a"));
}

TEST_F(hash_table_test, the_table_never_shrinks) {
    fill(49);
    for (const std::unique_ptr<record>& r : records) {
        htable_del(table, r->key.c_str());
    }
    EXPECT_EQ(table->count, 0u);
    EXPECT_EQ(table->nbuckets, 397u);
}

TEST_F(hash_table_test, a_cleared_table_keeps_its_buckets_and_grows_when_half_full_again) {
    fill(6);
    htable_clear(table);
    EXPECT_EQ(table->count, 0u);
    EXPECT_EQ(table->nbuckets, 23u);
    for (uint32_t i = 0; i < 23; i++) {
        EXPECT_EQ(table->buckets[i], nullptr);
    }
    EXPECT_FALSE(has("key0"));
    fill(11);
    EXPECT_EQ(table->nbuckets, 23u);
    fill(12);
    EXPECT_EQ(table->nbuckets, 97u);
}

TEST_F(hash_table_test, a_walk_over_no_table_or_an_empty_one_ends_at_once) {
    htable_walk walk = htable_walk_start(nullptr);
    EXPECT_EQ(htable_walk_next(&walk), nullptr);
    walk = htable_walk_start(table);
    EXPECT_EQ(htable_walk_next(&walk), nullptr);
    fill(6);
    htable_clear(table);
    walk = htable_walk_start(table);
    EXPECT_EQ(htable_walk_next(&walk), nullptr);
}

TEST_F(hash_table_test, a_walk_that_has_ended_stays_at_its_end) {
    put("a");
    htable_walk walk = htable_walk_start(table);
    EXPECT_NE(htable_walk_next(&walk), nullptr);
    EXPECT_EQ(htable_walk_next(&walk), nullptr);
    EXPECT_EQ(htable_walk_next(&walk), nullptr);
}
