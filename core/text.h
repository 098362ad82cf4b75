#pragma once

#include <stddef.h>
#include <stdint.h>

/* Plain C-string helpers: formatting into a shared buffer, numbers to text and back, splitting,
 * trimming and taking lines out of a byte view. Nothing here is locked: the process has one thread.
 */

/* Formats into one process-wide scratch buffer (256 bytes at first, always a multiple of 256) and
 * returns it, or null when the result is empty or the format is invalid. The text is valid until
 * the next call; callers copy it. */
const char* str_format(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* Returns the decimal text of `value` in a static buffer, valid until the next call of text_number
 * or text_unsigned. Every value is written in full, the most negative one included. `length` may be
 * null; else it receives the number of characters. */
const char* text_number(int64_t value, uint32_t* length = nullptr);

/* The same for a full unsigned 64-bit range. */
const char* text_unsigned(uint64_t value, uint32_t* length = nullptr);

/* For writing a number straight to its place: its number of decimal digits, and the digits
 * themselves, the last of them just before `end`. */
uint32_t text_digit_count(uint64_t value);
void text_put_digits(char* end, uint64_t value);

/* Numbers from text, as the device's C library reads them. There `long` has 32 bits; the daemon
 * must answer the same on every target, so these saturate at 32 bits everywhere. Blanks, a sign and
 * trailing text are accepted; base 0 knows the prefixes 0x and 0, and no others. `*end` is set
 * behind the digits, or to `text` when there were none. `end` may be null. `base` as in strtol. */
int32_t text_parse_int32(const char* text, char** end, int base);

/* The same with 64 bits. */
int64_t text_parse_int64(const char* text, char** end, int base);

/* As strtoul with a 32-bit long: a negative number wraps into the unsigned range, a magnitude above
 * 4294967295 saturates. */
uint32_t text_parse_uint32(const char* text, char** end, int base);

/* Splits `line` (modified in place) at any of `delimiters`, or at blanks, tabs and line ends when
 * that is null. argv[1..] receive the tokens and argv[0] their number, as a pointer-sized integer.
 * There is no bound: the caller supplies room for the count and every token. */
void str_split(char* line, char** argv, const char* delimiters);

/* Blank means space, tab, line feed or carriage return. ltrim returns the first character that is
 * not blank, rtrim cuts trailing blanks in place and returns `text`, trim does both. */
char* str_ltrim(char* text);
char* str_rtrim(char* text);
char* str_trim(char* text);

/* Trims; then, when at least two characters are left that begin and end with a double quote, cuts
 * the last quote and returns the text behind the first. */
char* str_unquote(char* text);

/* Returns a malloc'ed copy, which the caller frees with free(). */
char* str_dup(const char* text);

/* Change case in place, ASCII letters only. */
void str_toupper(char* text);
void str_tolower(char* text);

/* The unread part of a byte sequence. */
struct buf_view {
    char* start;
    uint32_t length;
};

/* Takes one line off the view. The line feed is overwritten with NUL, and a carriage return just
 * before it too; `*length` becomes the line's length without them and the view moves behind the
 * line feed. Without a line feed: null when `need_newline`, else the whole rest of the view is the
 * line (not terminated). An empty view, or one that begins with a NUL byte, gives null. */
char* buf_getline(buf_view* view, uint32_t* length, bool need_newline);

/* 32-bit integers in network byte order, at any alignment. */
uint32_t text_get_be32(const void* bytes);
void text_put_be32(void* bytes, uint32_t value);
