#pragma once

#include <stddef.h>
#include <stdint.h>

/* Bytes of a given number that belong to somebody else: an item of a reply, a key, a word of the
 * command line. Not terminated, and nothing is said about what is in them. A text lives no longer
 * than what it points into. */
struct ctl_text {
    const char* bytes; /* null for nil, whose length is 0 */
    size_t length;
};

/* A terminated string, without its end. */
ctl_text ctl_text_of(const char* string);

/* Reads all of the text as a decimal number from `least` to `most`, which is not negative. A "-" is
 * taken only where `least` is negative, zeros in front everywhere; blanks, a "+" and other bases
 * nowhere. False, with `*number` left alone, for anything else, for nil too. */
bool ctl_text_number(ctl_text text, int64_t least, int64_t most, int64_t* number);
