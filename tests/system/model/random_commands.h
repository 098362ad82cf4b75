#pragma once

#include <random>
#include <string>
#include <vector>

#include "tests/system/model/store_model.h"

/* Commands for comparing the daemon with the model: few keys and fields, so that commands meet each
 * other's work; numbers at and beyond every limit; texts with all kinds of bytes. The same seed
 * gives the same commands on every machine. */

namespace system_test {

class random_commands {
  public:
    explicit random_commands(uint32_t seed) : source(seed) {}

    /* All the keys that commands are about. */
    static const std::vector<std::string>& keys();

    /* A command that makes the key. */
    std::vector<std::string> creation(const std::string& key);

    /* Any command but "observe". The model is asked what depends on the clock. */
    std::vector<std::string> next(store_model& model);

    /* True when next() may return the command. */
    static bool has(const std::string& name);

    /* 0 to count - 1 */
    size_t below(size_t count) {
        return source() % count;
    }

  private:
    /* What stands at one place of a command. */
    enum class part {
        key,
        string_key,
        list_key,
        hash_key,
        field,
        text,
        number,
        index,
        cap,
        seconds,
        no_number,
        pattern,
        path,
        any_key
    };
    struct shape {
        unsigned weight;
        const char* name;
        std::vector<part> parts;
        std::vector<part> repeated; /* none to many times behind the parts */
        size_t most;                /* how many times */
    };
    static const std::vector<shape>& shapes();

    const std::string& one_of(const std::vector<std::string>& texts) {
        return texts[below(texts.size())];
    }
    bool one_in(size_t count) {
        return below(count) == 0;
    }
    std::string text();
    std::string word_for(part p);
    std::vector<std::string> words_of(const shape& s);

    std::mt19937 source;
};

} // namespace system_test
