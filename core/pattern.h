#pragma once

#include <stdint.h>
#include <stdlib.h>

/* Patterns of keys, with the answers of the C library's fnmatch (flags 0, C locale):
 *
 *   *        any text, the empty one included
 *   ?        any one byte
 *   [abc]    one of the bytes; [a-c] a range; [!a] or [^a] none of them; [:digit:] and the
 *            other classes, [=a=] and [.a.] stand inside; a first "]" stands for itself
 *   \a       a itself, inside brackets too
 *
 * A pattern that ends in a single "\" matches nothing. For brackets that are not well formed each
 * library has answers of its own, and so has this unit:
 * - A "[" whose bracket has no end is an ordinary "[", and so is every "[" behind it.
 * - A "[" in a bracket that begins none of the twelve classes, no [=a=] and no [.a.] of one byte
 *   is an ordinary byte, and so is what stands behind it: the bracket ends at the next "]".
 * - The hyphen behind a class is an ordinary byte, and so is the "[" of a class behind a hyphen;
 *   [=a=] and [.a.] are the byte a at both ends of a range.
 *
 * Why not fnmatch itself: nothing bounds what it does. With a pattern of 60 kB one request would
 * keep the daemon from its other clients for many seconds. Here a pattern is read once, in time
 * that grows with its length, into an array of elements, and a budget of steps bounds what all
 * texts together may cost. */

/* The steps that a compiled pattern may take in all texts that it is matched against. To try an
 * element on a byte is one step, to try a bracket one for each byte, range and the like in it (up
 * to four for a class). To go on behind a "*", for the first time or anew, is PATTERN_PLACE_STEPS,
 * and PATTERN_SCAN bytes that the C library looks for an end or a byte are one.
 *
 * That many steps take some 15 to 25 ms on a server's processor. In a full keyspace with keys of
 * 100 bytes there are 240 for each key, two for each byte: enough for a bracket of two ranges that
 * is looked for everywhere, and twenty times what "*x*" needs. */
constexpr int32_t PATTERN_STEPS = 12000000;
constexpr int32_t PATTERN_PLACE_STEPS = 4;
constexpr uint32_t PATTERN_SCAN = 16;

struct pattern {
    uint32_t* elements;   /* at most one for each byte of the pattern */
    uint32_t* end;        /* of them */
    const uint32_t* tail; /* those behind the last "*"; all without one */
    uint32_t tail_length; /* the bytes that the tail takes */
    int32_t steps;        /* what is left of the budget */
};

/* Fills the record, to be given back with pattern_free in any case. The text is not kept. False
 * when the heap has no room for four bytes for each of the text's. */
bool pattern_compile(pattern* p, const char* text);

/* True when the whole text matches. Once the budget is spent, the answer means nothing and nothing
 * more is to be asked. */
bool pattern_match(pattern* p, const char* text);

inline bool pattern_spent(const pattern* p) {
    return p->steps <= 0;
}

/* Gives back the memory that the record owns. */
inline void pattern_free(pattern* p) {
    free(p->elements);
}
