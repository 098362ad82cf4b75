#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

/* Inputs of more than one step.
 *
 * A step begins with the byte 0xFF and a letter, its kind, and holds the bytes up to the next one;
 * 0xFF 0xFF stands for one byte 0xFF within a step. What stands before the first mark is a step
 * too, of kind 0, so that a plain file is an input. No mutation makes an input that cannot be read.
 */

struct fuzz_step {
    char kind;
    std::string text;
};

struct fuzz_steps {
    const uint8_t* place;
    const uint8_t* end;
    char kind; /* of the step that begins at `place` */
    bool more;
};

fuzz_steps steps_start(const uint8_t* bytes, size_t size);

/* Fills the next step. False when there is none; one step is always there. */
bool steps_next(fuzz_steps* steps, fuzz_step* step);

/* What stands between blanks, each blank ending one word, so that words may be empty. */
std::vector<std::string> words_of(std::string_view text);
