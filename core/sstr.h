#pragma once

#include <stdint.h>
#include <string.h>

#include "core/pool.h"

/* Length-prefixed strings: the keys and values of the store.
 *
 * An `sstr` points to the first byte of its text and is usable as a C string, since a NUL follows
 * the last byte. The length (32 bits, host byte order, without the NUL) stands in the word just
 * before. The whole is one pool block of length + 5 bytes. The text may hold NUL bytes.
 *
 * A null `sstr` means "no string", which is not the same as an empty one. Whoever holds an `sstr`
 * owns it unless a header says that it is borrowed. The length never changes without reallocation,
 * so a copied pointer is invalid after sstr_assign or sstr_append on the variable that it was
 * copied from. */

typedef char* sstr;

/* As a length: take strlen of the bytes. */
constexpr uint32_t SSTR_CSTRING = 0xFFFFFFFF;

/* The length word and the NUL. */
constexpr size_t SSTR_OVERHEAD = 5;

/* The length in bytes of an existing string; `s` must not be null. */
inline uint32_t sstr_length(const char* s) {
    return reinterpret_cast<const uint32_t*>(s)[-1];
}

/* Returns a new string with a copy of `length` bytes, for lengths that are known. */
inline sstr sstr_copy(const char* bytes, uint32_t length) {
    uint32_t* block = static_cast<uint32_t*>(pool_alloc(size_t{length} + SSTR_OVERHEAD));
    *block = length;
    sstr s = reinterpret_cast<sstr>(block + 1);
    memcpy(s, bytes, length);
    s[length] = '\0';
    return s;
}

/* Returns a new string. With `bytes` null the text is left uninitialised and the caller writes it,
 * its NUL included. */
sstr sstr_new(const char* bytes, uint32_t length);

/* Frees the string, if there is one, and sets the variable to null. */
inline void sstr_free(sstr* s) {
    if (*s != nullptr) {
        pool_free(*s - sizeof(uint32_t), sstr_length(*s) + SSTR_OVERHEAD);
        *s = nullptr;
    }
}

/* Makes the variable hold a copy of the bytes. A string of the same length is overwritten in place;
 * any other is replaced. The bytes may be those of the string itself only when the length is the
 * same. */
void sstr_assign(sstr* s, const char* bytes, uint32_t length);

/* Replaces the string by itself followed by the bytes; without a string, the same as sstr_new. */
void sstr_append(sstr* s, const char* bytes, uint32_t length);

/* Adds `*value` to the number that the string holds and stores the sum in both. The text is read as
 * strtoll does with base 0 (0x1f is hexadecimal, 017 octal; what follows the digits is ignored).
 * Without a string, the string becomes the text of `*value`.
 *
 * The first number keeps its 64 bits; every later sum wraps at 32 bits and is sign-extended, on
 * purpose.
 *
 * False, with nothing changed, when the string does not begin with a number. */
bool sstr_incr(sstr* s, int64_t* value);
