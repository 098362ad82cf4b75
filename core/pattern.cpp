#include "core/pattern.h"

#include <stdlib.h>
#include <string.h>

namespace {

/* An element is a star, or a range of bytes: the first in its low bits, the last in the next. */
constexpr uint32_t RANGE_MORE = 0x10000;   /* the bracket goes on with the next element */
constexpr uint32_t RANGE_OTHERS = 0x20000; /* the bracket ends here and is negated */
constexpr uint32_t STAR = 0x40000;

/* A name, and behind it the first and last bytes of the ranges: less of these than of the name. */
constexpr const char* classes[] = {
    "[:alnum:]09AZaz",   "[:alpha:]AZaz",   "[:blank:]\t\t  ", "[:cntrl:]\1\x1F\x7F\x7F",
    "[:digit:]09",       "[:graph:]!~",     "[:lower:]az",     "[:print:] ~",
    "[:punct:]!/:@[`{~", "[:space:]\t\r  ", "[:upper:]AZ",     "[:xdigit:]09AFaf"};

void add_range(pattern* p, char first, char last, uint32_t flags) {
    *p->end++ = static_cast<uint8_t>(first) | uint32_t{static_cast<uint8_t>(last)} << 8 | flags;
}

/* Reads a byte that stands for itself, an escaped one, [.a.] or [=a=]. */
char read_byte(const char** place) {
    const char* text = *place;
    const bool is_named = text[0] == '[' && (text[1] == '.' || text[1] == '=') && text[2] != '\0' &&
                          text[3] == text[1] && text[4] == ']';
    const int before = is_named ? 2 : text[0] == '\\' && text[1] != '\0' ? 1 : 0;
    *place += before + (is_named ? 3 : 1);
    return text[before];
}

/* Reads a class, range or byte of a bracket and returns what stands behind it. */
const char* read_item(pattern* p, const char* text) {
    for (const char* entry : classes) {
        if (text[1] == ':' && text[2] == entry[2] &&
            strncmp(text, entry, strcspn(entry, "]") + 1) == 0) {
            const char* range = strchr(entry, ']') + 1;
            text += range - entry;
            for (; *range != '\0'; range += 2) {
                add_range(p, range[0], range[1], RANGE_MORE);
            }
            return text;
        }
    }
    const char first = read_byte(&text);
    const bool is_range = text[0] == '-' && text[1] != ']' && text[1] != '\0';
    text += is_range ? 1 : 0;
    add_range(p, first, is_range ? read_byte(&text) : first, RANGE_MORE);
    return text;
}

/* Reads a bracket from behind its "["; false, with nothing read, when it has no end. */
bool read_bracket(pattern* p, const char** place) {
    uint32_t* const start = p->end;
    const bool others = **place == '!' || **place == '^';
    const char* text = *place + (others ? 1 : 0);
    do {
        if (*text == '\0') {
            p->end = start;
            return false;
        }
        text = read_item(p, text);
    } while (*text != ']');
    p->end[-1] ^= others ? RANGE_MORE | RANGE_OTHERS : RANGE_MORE;
    *place = text + 1;
    return true;
}

/* Returns what follows the element and its bracket when it takes the byte, else null. It jumps as
 * little as may be: before the bytes of a hostile text a processor would guess wrong each time. */
inline const uint32_t* take(pattern* p, const uint32_t* element, char c) {
    const uint8_t byte = static_cast<uint8_t>(c);
    bool inside = false;
    do {
        p->steps--;
        inside |= (byte >= (*element & 0xFF)) & (byte <= (*element >> 8 & 0xFF));
    } while ((*element++ & RANGE_MORE) != 0);
    return inside != ((element[-1] & RANGE_OTHERS) != 0) ? element : nullptr;
}

/* Where the element may first take a byte; the text's end when nowhere. */
const char* find_place(pattern* p, const uint32_t* element, const char* text, const char* end) {
    p->steps -= PATTERN_PLACE_STEPS;
    if (*element == (*element & 0xFF) * 0x101) {
        const char* found = strchr(text, static_cast<int>(*element & 0xFF));
        return found != nullptr && found < end ? found : end;
    }
    while (text != end && p->steps > 0 && take(p, element, *text) == nullptr) {
        text++;
    }
    return text;
}

/* True when the elements before `goal` take the text, or with a star at the goal a part of it. */
bool reach(pattern* p, const uint32_t* element, const uint32_t* goal, const char* text,
           const char* end) {
    const uint32_t* star = nullptr; /* what stands behind the last one: to be gone back to */
    const char* again = nullptr;    /* where to try that then */
    while (element != goal && p->steps > 0) {
        if (*element == STAR) {
            star = element + 1;
            again = text;
        } else if (const uint32_t* next = text != end ? take(p, element, *text) : nullptr) {
            element = next;
            text++;
            continue;
        } else if (text == end || star == nullptr) {
            break;
        }
        element = star;
        text = find_place(p, star, again, end);
        again = text + 1;
    }
    return element == goal;
}

} // namespace

bool pattern_compile(pattern* p, const char* text) {
    uint32_t* elements = static_cast<uint32_t*>(malloc(strlen(text) * sizeof(uint32_t) + 1));
    *p = {elements, elements, elements, 0, PATTERN_STEPS};
    char opening = '['; /* NUL once a bracket has no end: those behind it have none either */
    while (const char byte = elements != nullptr ? *text++ : '\0') {
        p->tail_length++;
        if (byte == '*') {
            text += strspn(text, "*");
            *p->end++ = STAR;
            p->tail = p->end;
            p->tail_length = 0;
        } else if (byte == '?') {
            add_range(p, '\x01', '\xFF', 0);
        } else if (byte == '\\') {
            add_range(p, *text, *text, 0); /* at the pattern's end the NUL: no byte of a text */
            text += *text != '\0' ? 1 : 0;
        } else if (byte != opening || !read_bracket(p, &text)) {
            add_range(p, byte, byte, 0);
            opening = byte == '[' ? '\0' : opening;
        }
    }
    return elements != nullptr;
}

bool pattern_match(pattern* p, const char* text) {
    const size_t length = strlen(text);
    p->steps -= static_cast<int32_t>(length / PATTERN_SCAN);
    const char* const end = text + (length > p->tail_length ? length - p->tail_length : 0);
    return reach(p, p->tail, p->end, end, text + length) &&
           (p->tail == p->elements ? text == end : reach(p, p->elements, p->tail - 1, text, end));
}
