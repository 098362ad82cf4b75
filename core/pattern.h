#pragma once

#include <stdint.h>

#include "core/buffer.h"

/* Patterns of keys, with the answers of the C library's fnmatch (flags 0, C locale):
 *
 *   *        any text, the empty one included
 *   ?        any one byte
 *   [abc]    one of the bytes; [a-c] a range; [!a] or [^a] none of them; [:digit:] and the
 *            other classes, [=a=] and [.a.] stand inside; a first "]" stands for itself
 *   \a       a itself, inside brackets too
 *
 * A bracket without end is an ordinary "[". A pattern that ends within an escape or a range matches
 * nothing. A class that does not exist adds no byte, nor does what stands behind it, and its
 * opposite matches nothing. For brackets that are not well formed each library has answers of its
 * own, and so has this unit; a symbol before a last hyphen, [[.a.]-], is a member here, as it
 * should be.
 *
 * Why not fnmatch itself: it reads the pattern anew at each place of each text. One request with a
 * pattern of 60 kB would keep the daemon from its other clients for many seconds. Here a pattern is
 * read once, in time that grows with its length. Then a text of n bytes takes 64 * n steps at most
 * for all runs of up to 64 elements between two stars, and about m * (256 + n / 32) for the m
 * elements of longer ones. */
struct pattern {
    buffer elements; /* uint32_t each: a byte, or one of pattern.cpp's ELEMENT_* */
    buffer sets;     /* the byte sets of brackets, in order */
    uint32_t width;  /* number of elements that take a byte: no shorter text matches */
    uint32_t tail;   /* how many of those stand behind the last "*" */
};

/* Fills the record, to be given back with pattern_free. The text is not kept. Takes up to 10 times
 * the pattern's length of memory, and up to 64 bytes a bracket. */
void pattern_compile(pattern* p, const char* text);

/* True when the whole text matches. */
bool pattern_match(const pattern* p, const char* text);

/* Gives back the memory that the record owns. */
void pattern_free(pattern* p);
