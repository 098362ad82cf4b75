#pragma once

#include <stdint.h>

#include "core/buffer.h"

/* Patterns of keys, with the answers of the C library's fnmatch (flags 0, C locale):
 *
 *   *        any text, the empty one included
 *   ?        any one byte
 *   [abc]    one of the bytes; [a-c] a range; [!a] or [^a] none of them; [:digit:] and the other classes,
 *            [=a=] and [.a.] stand inside; a "]" that comes first stands for itself
 *   \a       a itself, inside brackets too
 *
 * A bracket without end is an ordinary "[". A pattern that ends within an escape or a range, or a class
 * that does not exist, matches nothing. Inside brackets that are not well formed each library has answers of
 * its own, and so has this unit; a symbol before a last hyphen, [[.a.]-], is a member here, as it should be.
 *
 * Why not fnmatch itself: it reads the pattern anew at each place of each text. One request with a pattern
 * of 60 kB would keep the daemon from its other clients for many seconds. Here a pattern is read once, in
 * time that grows with its length; comparing its m elements with a text of n bytes takes at most 64 * n steps
 * for runs of up to 64 elements between two stars, and m * (256 + n / 64) for longer ones. */
struct pattern {
    buffer elements; /* uint32_t each: a byte, or one of pattern.cpp's ELEMENT_* */
    buffer sets;     /* the byte sets of brackets, in order */
    buffer scratch;
    uint32_t width; /* number of elements that take a byte: no shorter text matches */
    uint32_t tail;  /* how many of those stand behind the last "*" */
};

/* Fills the record, to be given back with pattern_free. The text is not kept. Takes about 4 times the
 * pattern's length of memory, and 32 bytes a bracket. */
void pattern_compile(pattern* p, const char* text);

/* True when the whole text matches. The record changes in its scratch space alone. */
bool pattern_match(pattern* p, const char* text);

/* Gives back the memory that the record owns. */
void pattern_free(pattern* p);
