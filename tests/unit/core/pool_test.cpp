#include "core/pool.h"

#include <gtest/gtest.h>

#include <malloc.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <set>
#include <string>
#include <vector>

#include "tests/unit/support/resources.h"

namespace {

#define SKIP_WITHOUT_SLABS()                                                                       \
    if (POOL_OWN_BLOCKS)                                                                           \
    GTEST_SKIP() << "in this build every block is an allocation of its own, so there are no slabs"

/* The device's figures, and those of a target with pointers of 8 bytes. */
constexpr size_t on_target(size_t with_4_bytes, size_t with_8_bytes) {
    return sizeof(void*) == 4 ? with_4_bytes : with_8_bytes;
}

void* first_word(const void* block) {
    void* word;
    memcpy(&word, block, sizeof word);
    return word;
}

/* Takes blocks of one size from a class whose free list is empty at first, so that every block
 * comes from a slab that was fetched for it. At the end the class has all its blocks back, those
 * that other cases freed included. */
class taken_blocks {
  public:
    explicit taken_blocks(size_t size)
        : size_(size), class_(&pool_classes[(size + 3) >> 2]), freed_by_others_(class_->free) {
        class_->free = nullptr;
    }
    ~taken_blocks() {
        while (class_->free != nullptr) {
            take();
        }
        class_->free = freed_by_others_;
        for (void* block : blocks_) {
            pool_free(block, size_);
        }
    }
    taken_blocks(const taken_blocks&) = delete;
    taken_blocks& operator=(const taken_blocks&) = delete;

    char* take() {
        const pool_link* newest = class_->slabs;
        void* block = pool_alloc(size_);
        took_slab_ = class_->slabs != newest;
        blocks_.push_back(block);
        return static_cast<char*>(block);
    }

    /* The first block of a slab that the pool has fetched for it. */
    char* take_from_new_slab() {
        while (class_->free != nullptr) {
            take();
        }
        char* block = take();
        EXPECT_TRUE(took_slab_);
        return block;
    }

    bool took_slab() const {
        return took_slab_;
    }

  private:
    size_t size_;
    pool_class* class_;
    pool_link* freed_by_others_;
    bool took_slab_ = false;
    std::vector<void*> blocks_;
};

} // namespace

TEST(pool_test, size_zero_gives_no_block) {
    EXPECT_EQ(pool_alloc(0), nullptr);
    EXPECT_EQ(pool_alloc_zeroed(0), nullptr);
}

TEST(pool_test, the_largest_pooled_size_is_204) {
    EXPECT_EQ(POOL_MAX_SIZE, 204u);
}

TEST(pool_test, every_block_has_the_bytes_it_was_asked_for) {
    struct taken {
        unsigned char* block;
        size_t size;
    };
    std::vector<taken> all;
    for (int round = 0; round < 3; round++) {
        for (size_t size = 1; size <= 260; size++) {
            unsigned char* block = static_cast<unsigned char*>(pool_alloc(size));
            ASSERT_NE(block, nullptr);
            memset(block, static_cast<int>((size + all.size()) & 0xff), size);
            all.push_back({block, size});
        }
    }

    for (size_t i = 0; i < all.size(); i++) {
        for (size_t k = 0; k < all[i].size; k++) {
            ASSERT_EQ(all[i].block[k], static_cast<unsigned char>((all[i].size + i) & 0xff))
                << "byte " << k << " of block " << i << " was overwritten by another block";
        }
        pool_free(all[i].block, all[i].size);
    }
}

TEST(pool_test, blocks_are_aligned_to_a_pointer) {
    for (size_t size = 1; size <= 210; size++) {
        void* first = pool_alloc(size);
        void* second = pool_alloc(size);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % sizeof(void*), 0u) << size;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(second) % sizeof(void*), 0u) << size;
        pool_free(first, size);
        pool_free(second, size);
    }
}

TEST(pool_test, a_zeroed_block_holds_zero_bytes_also_after_reuse) {
    const unsigned char zeroes[40] = {};
    void* block = pool_alloc_zeroed(40);
    EXPECT_EQ(memcmp(block, zeroes, 40), 0);
    memset(block, 0xee, 40);
    pool_free(block, 40);

    void* again = pool_alloc_zeroed(40);

    EXPECT_EQ(memcmp(again, zeroes, 40), 0);
    pool_free(again, 40);
}

TEST(pool_test, a_zeroed_block_beyond_the_pooled_sizes_holds_zero_bytes) {
    const std::vector<unsigned char> zeroes(1000);
    void* block = pool_alloc_zeroed(1000);
    EXPECT_EQ(memcmp(block, zeroes.data(), 1000), 0);
    pool_free(block, 1000);
}

TEST(pool_test, a_new_record_is_zeroed_also_after_reuse) {
    struct record {
        void* pointer;
        uint32_t words[9];
    };
    record* first = pool_new<record>();
    EXPECT_EQ(first->pointer, nullptr);
    first->pointer = first;
    memset(first->words, 0xee, sizeof first->words);
    pool_delete(first);

    record* second = pool_new<record>();

    EXPECT_EQ(second->pointer, nullptr);
    for (const uint32_t word : second->words) {
        EXPECT_EQ(word, 0u);
    }
    if (!POOL_OWN_BLOCKS) {
        EXPECT_EQ(second, first);
    }
    pool_delete(second);
}

TEST(pool_test, the_block_freed_last_is_handed_out_first) {
    SKIP_WITHOUT_SLABS();
    void* a = pool_alloc(24);
    void* b = pool_alloc(24);
    void* c = pool_alloc(24);
    pool_free(a, 24);
    pool_free(c, 24);
    pool_free(b, 24);

    EXPECT_EQ(pool_alloc(24), b);
    EXPECT_EQ(pool_alloc(24), c);
    EXPECT_EQ(pool_alloc(24), a);

    pool_free(a, 24);
    pool_free(b, 24);
    pool_free(c, 24);
}

TEST(pool_test, a_free_block_links_to_the_next_in_its_first_word) {
    SKIP_WITHOUT_SLABS();
    void* a = pool_alloc(24);
    void* b = pool_alloc(24);
    pool_free(a, 24);
    pool_free(b, 24);
    EXPECT_EQ(first_word(b), a);
}

TEST(pool_test, reuse_takes_nothing_from_the_heap) {
    SKIP_WITHOUT_SLABS();
    void* warm = pool_alloc(60);
    pool_free(warm, 60);
    const size_t before = unit_test::heap_in_use();

    for (int i = 0; i < 1000; i++) {
        pool_free(pool_alloc(60), 60);
    }

    EXPECT_EQ(unit_test::heap_in_use(), before);
}

TEST(pool_test, sizes_1_and_4_share_a_class_and_5_is_in_the_next) {
    SKIP_WITHOUT_SLABS();
    void* block = pool_alloc(1);
    pool_free(block, 1);
    EXPECT_EQ(pool_alloc(4), block);
    pool_free(block, 4);

    void* other = pool_alloc(5);
    EXPECT_NE(other, block);
    EXPECT_EQ(pool_alloc(1), block);

    pool_free(other, 5);
    pool_free(block, 1);
}

TEST(pool_test, each_step_of_4_bytes_is_a_class_of_its_own) {
    SKIP_WITHOUT_SLABS();
    for (size_t largest = 4; largest <= 204; largest += 4) {
        void* block = pool_alloc(largest);
        pool_free(block, largest);
        for (size_t size = largest - 3; size <= largest; size++) {
            EXPECT_EQ(pool_alloc(size), block) << size;
            pool_free(block, size);
        }
        if (largest < 204) {
            void* larger = pool_alloc(largest + 1);
            EXPECT_NE(larger, block) << largest;
            pool_free(larger, largest + 1);
        }
    }
}

TEST(pool_test, a_wrong_size_files_the_block_under_the_wrong_class) {
    SKIP_WITHOUT_SLABS();
    void* block = pool_alloc(64);
    pool_free(block, 32);
    EXPECT_EQ(pool_alloc(32), block);
    pool_free(block, 64);
}

struct slab_figures {
    size_t size;
    size_t objsize;
    size_t blocks;
};

class pool_slab_test : public testing::TestWithParam<slab_figures> {};

TEST_P(pool_slab_test, is_cut_into_as_many_blocks_as_fit_end_to_end) {
    SKIP_WITHOUT_SLABS();
    const slab_figures& expected = GetParam();
    taken_blocks blocks(expected.size);
    char* first = blocks.take_from_new_slab();

    for (size_t i = 1; i < expected.blocks; i++) {
        EXPECT_EQ(blocks.take(), first + i * expected.objsize) << "block " << i;
        EXPECT_FALSE(blocks.took_slab()) << "block " << i;
    }

    blocks.take();
    EXPECT_TRUE(blocks.took_slab()) << "the slab holds more blocks than expected";
}

TEST_P(pool_slab_test, chains_its_blocks_in_address_order_up_to_a_null_link) {
    SKIP_WITHOUT_SLABS();
    const slab_figures& expected = GetParam();
    taken_blocks blocks(expected.size);
    char* first = blocks.take_from_new_slab();

    for (size_t i = 1; i + 1 < expected.blocks; i++) {
        EXPECT_EQ(first_word(first + i * expected.objsize), first + (i + 1) * expected.objsize)
            << i;
    }
    EXPECT_EQ(first_word(first + (expected.blocks - 1) * expected.objsize), nullptr);
}

TEST_P(pool_slab_test, is_one_allocation_of_2048_bytes_that_begins_with_a_link) {
    SKIP_WITHOUT_SLABS();
    taken_blocks blocks(GetParam().size);
    char* first = blocks.take_from_new_slab();

    void* slab = first - sizeof(void*);
    EXPECT_EQ(pool_classes[(GetParam().size + 3) >> 2].slabs, slab);
    EXPECT_GE(malloc_usable_size(slab), 2048u);
    EXPECT_LT(malloc_usable_size(slab), 2048u + 32);
}

INSTANTIATE_TEST_SUITE_P(of_size, pool_slab_test,
                         testing::Values(slab_figures{1, on_target(4, 8), on_target(511, 255)},
                                         slab_figures{4, on_target(4, 8), on_target(511, 255)},
                                         slab_figures{5, 8, 255}, slab_figures{8, 8, 255},
                                         slab_figures{9, on_target(12, 16), on_target(170, 127)},
                                         slab_figures{16, 16, 127},
                                         slab_figures{44, on_target(44, 48), on_target(46, 42)},
                                         slab_figures{97, on_target(100, 104), on_target(20, 19)},
                                         slab_figures{104, 104, 19},
                                         slab_figures{196, on_target(196, 200), 10},
                                         slab_figures{200, 200, 10},
                                         slab_figures{201, on_target(204, 208), on_target(10, 9)},
                                         slab_figures{204, on_target(204, 208), on_target(10, 9)}),
                         [](const auto& row) { return std::to_string(row.param.size); });

TEST(pool_test, the_block_size_of_a_class_is_four_times_its_index_rounded_up_to_a_pointer) {
    SKIP_WITHOUT_SLABS();
    for (size_t index = 1; index <= 51; index++) {
        pool_free(pool_alloc(4 * index), 4 * index);
        const size_t expected = on_target(4 * index, index % 2 == 0 ? 4 * index : 4 * index + 4);
        EXPECT_EQ(pool_classes[index].objsize, expected) << index;
    }
    EXPECT_EQ(pool_classes[0].objsize, 0u) << "the class of size 0 is never used";
    EXPECT_EQ(pool_classes[0].slabs, nullptr);
}

TEST(pool_test, an_empty_free_list_is_null_after_the_last_block_of_a_slab) {
    SKIP_WITHOUT_SLABS();
    taken_blocks blocks(188);
    blocks.take_from_new_slab();
    for (int i = 1; i < 10; i++) {
        EXPECT_NE(pool_classes[47].free, nullptr);
        blocks.take();
    }
    EXPECT_EQ(pool_classes[47].free, nullptr);
}

TEST(pool_test, the_two_newest_slabs_point_at_each_other) {
    SKIP_WITHOUT_SLABS();
    taken_blocks blocks(180);
    char* first = blocks.take_from_new_slab() - sizeof(void*);
    char* second = blocks.take_from_new_slab() - sizeof(void*);
    EXPECT_EQ(first_word(first), second);
    EXPECT_EQ(first_word(second), first);

    char* third = blocks.take_from_new_slab() - sizeof(void*);

    EXPECT_EQ(first_word(first), second);
    EXPECT_EQ(first_word(second), third);
    EXPECT_EQ(first_word(third), second);
}

TEST(pool_test, slabs_are_never_given_back_to_the_system) {
    SKIP_WITHOUT_SLABS();
    std::vector<void*> blocks;
    blocks.reserve(100);
    for (int i = 0; i < 100; i++) {
        blocks.push_back(pool_alloc(150));
    }
    const std::set<void*> taken(blocks.begin(), blocks.end());
    const size_t before = unit_test::heap_in_use();

    for (void* block : blocks) {
        pool_free(block, 150);
    }

    EXPECT_EQ(unit_test::heap_in_use(), before);
    for (void*& block : blocks) {
        block = pool_alloc(150);
    }
    EXPECT_EQ(std::set<void*>(blocks.begin(), blocks.end()), taken);
    for (void* block : blocks) {
        pool_free(block, 150);
    }
}

TEST(pool_test, blocks_of_205_bytes_come_from_malloc) {
    if (POOL_OWN_BLOCKS) {
        GTEST_SKIP() << "in this build the sanitizer compares sizes, which malloc does not know";
    }
    void* block = pool_alloc(205);
    EXPECT_GE(malloc_usable_size(block), 205u);
    free(block);
}

TEST(pool_test, blocks_of_205_bytes_go_back_to_free) {
    if (POOL_OWN_BLOCKS) {
        GTEST_SKIP() << "in this build the sanitizer compares sizes, which malloc does not know";
    }
    pool_free(malloc(205), 205);
    void* block = malloc(100000);
    memset(block, 1, 100000);
    pool_free(block, 100000);
}

TEST(pool_test, a_size_that_is_not_the_blocks_is_caught_by_sanitizers) {
    if (!POOL_OWN_BLOCKS) {
        GTEST_SKIP() << "blocks bear no size in this build";
    }
    EXPECT_DEATH(pool_free(pool_alloc(40), 44), "new-delete-type-mismatch");
    EXPECT_DEATH(pool_free(pool_alloc(300), 304), "new-delete-type-mismatch");
}

TEST(pool_test, a_null_pointer_may_be_freed_with_a_size_above_the_pooled_ones) {
    pool_free(nullptr, 205);
    void* block = pool_alloc(205);
    EXPECT_NE(block, nullptr);
    pool_free(block, 205);
}

TEST(pool_death_test, exhausted_memory_ends_the_process) {
    if (POOL_OWN_BLOCKS) {
        GTEST_SKIP() << "the sanitizer reports a failed allocation itself";
    }
    /* More than any allocator gives, even where an emulator has the whole address space to spare.
     */
    EXPECT_EXIT(pool_alloc(SIZE_MAX / 2 + 1), testing::KilledBySignal(SIGABRT), "^out of memory\n");
}
