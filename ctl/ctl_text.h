#pragma once

#include <stddef.h>

/* Bytes of a given number that belong to somebody else: an item of a reply, a key, a word of the
 * command line. Not terminated, and nothing is said about what is in them. A text lives no longer
 * than what it points into. */
struct ctl_text {
    const char* bytes; /* null for nil, whose length is 0 */
    size_t length;
};

/* A terminated string, without its end. */
ctl_text ctl_text_of(const char* string);
