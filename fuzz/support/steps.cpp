#include "fuzz/support/steps.h"

namespace {

constexpr uint8_t MARK = 0xFF;

} // namespace

fuzz_steps steps_start(const uint8_t* bytes, size_t size) {
    return {bytes, bytes + size, 0, true};
}

bool steps_next(fuzz_steps* steps, fuzz_step* step) {
    if (!steps->more) {
        return false;
    }
    step->kind = steps->kind;
    step->text.clear();
    steps->more = false;
    while (steps->place < steps->end) {
        const uint8_t byte = *steps->place++;
        if (byte != MARK) {
            step->text += static_cast<char>(byte);
            continue;
        }
        if (steps->place == steps->end) {
            break;
        }
        const uint8_t next = *steps->place++;
        if (next != MARK) {
            steps->kind = static_cast<char>(next);
            steps->more = true;
            break;
        }
        step->text += static_cast<char>(MARK);
    }
    return true;
}

std::vector<std::string> words_of(std::string_view text) {
    std::vector<std::string> words;
    for (;;) {
        const size_t blank = text.find(' ');
        words.emplace_back(text.substr(0, blank));
        if (blank == std::string_view::npos) {
            return words;
        }
        text.remove_prefix(blank + 1);
    }
}
