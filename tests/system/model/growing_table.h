#pragma once

#include <stdint.h>

#include <list>
#include <string>
#include <vector>

/* The order in which the daemon shows keys and fields, worked out a second time: chains of a prime
 * number of buckets, the newest entry first, moved one by one into more buckets when half as many
 * entries as buckets are there. A name is found by its bytes before its first NUL. */

namespace system_test {

inline std::string before_nul(const std::string& text) {
    return text.substr(0, text.find('\0'));
}

template <typename T> class growing_table {
  public:
    struct entry {
        std::string name; /* with all its bytes */
        T item;
    };

    /* A table that already holds this many entries that nobody here asks for. They only make it
     * grow earlier.
     */
    explicit growing_table(size_t others = 0) {
        while (count < others) {
            make_room();
        }
    }

    size_t size() const {
        return count;
    }
    size_t bucket_count() const {
        return buckets.size();
    }

    entry* find(const std::string& name) {
        if (!buckets.empty()) {
            for (entry& e : chain(name)) {
                if (before_nul(e.name) == before_nul(name)) {
                    return &e;
                }
            }
        }
        return nullptr;
    }

    /* The name must not be there yet. */
    entry* add(const std::string& name) {
        make_room();
        chain(name).push_front({name, T()});
        return &chain(name).front();
    }

    void remove(const std::string& name) {
        count -= chain(name).remove_if(
            [&](const entry& e) { return before_nul(e.name) == before_nul(name); });
    }

    /* Every entry in the order of a walk. */
    std::vector<entry*> walk() {
        std::vector<entry*> entries;
        for (std::list<entry>& bucket : buckets) {
            for (entry& e : bucket) {
                entries.push_back(&e);
            }
        }
        return entries;
    }

  private:
    std::list<entry>& chain(const std::string& name) {
        uint32_t hash = 0;
        for (const char c : before_nul(name)) {
            hash = hash * 31 +
                   static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(c)));
        }
        return buckets[hash % buckets.size()];
    }

    /* Counts one more entry. */
    void make_room() {
        if (count >= buckets.size() / 2) {
            size_t more = 0;
            for (const size_t prime : {99793, 25523, 6577, 1597, 397, 97, 23, 11}) {
                if (prime > buckets.size()) {
                    more = prime;
                }
            }
            std::vector<std::list<entry>> old(more);
            old.swap(buckets);
            for (std::list<entry>& bucket : old) {
                while (!bucket.empty()) {
                    std::list<entry>& target = chain(bucket.front().name);
                    target.splice(target.begin(), bucket, bucket.begin());
                }
            }
        }
        count++;
    }

    std::vector<std::list<entry>> buckets;
    size_t count = 0;
};

} // namespace system_test
