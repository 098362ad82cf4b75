#include "core/pattern.h"

#include <ctype.h>
#include <stddef.h>
#include <string.h>

#include "core/fault.h"
#include "core/pool.h"

namespace {

enum element : uint32_t {
    /* Below 256: that byte. */
    ELEMENT_ANY = 256, /* one byte, whichever */
    ELEMENT_STAR,      /* any text */
    ELEMENT_SET,       /* this and above: a byte of the set with that number less ELEMENT_SET */
};

constexpr unsigned BYTES = 256;

struct byte_set {
    uint32_t words[BYTES / 32];
};

bool set_has(const byte_set* set, unsigned byte) {
    return (set->words[byte / 32] >> byte % 32 & 1) != 0;
}

void set_add(byte_set* set, unsigned byte) {
    set->words[byte / 32] |= 1U << byte % 32;
}

void append(buffer* b, const void* bytes, uint32_t length) {
    if (buffer_append(b, bytes, length) == 0) {
        fault_no_memory();
    }
}

/* Reading brackets */

/* A bracket that turns out to have no end is an ordinary "[", and the next one may begin right
 * behind it. So that a pattern of many is read in time that grows with its length alone, no item is
 * read twice. */
struct reader {
    const char* place; /* null once the pattern broke off */
    const char* text;  /* the pattern */
    char* seen; /* for each of its bytes, 1 when an item was read there and no "]" followed */
};

/* True when a single byte stands here between [. and .] or [= and =]. */
bool is_named_byte(const char* p, char mark) {
    return p[0] == '[' && p[1] == mark && p[2] != '\0' && p[3] == mark && p[4] == ']';
}

/* Reads a byte that stands for itself, an escaped one or a symbol [.a.]. */
uint8_t read_member(reader* r) {
    const char* p = r->place;
    if (is_named_byte(p, '.')) {
        r->place = p + 5;
        return static_cast<uint8_t>(p[2]);
    }
    if (p[0] == '\\') {
        p++;
    }
    r->place = p[0] != '\0' ? p + 1 : nullptr;
    return static_cast<uint8_t>(p[0]);
}

struct byte_class {
    const char* name;
    int (*has)(int byte);
};

constexpr byte_class classes[] = {{"alnum", isalnum}, {"alpha", isalpha}, {"blank", isblank},
                                  {"cntrl", iscntrl}, {"digit", isdigit}, {"graph", isgraph},
                                  {"lower", islower}, {"print", isprint}, {"punct", ispunct},
                                  {"space", isspace}, {"upper", isupper}, {"xdigit", isxdigit}};

bool add_class(byte_set* set, const char* name, size_t length) {
    for (const byte_class& c : classes) {
        if (strlen(c.name) == length && memcmp(c.name, name, length) == 0) {
            for (int byte = 0; byte < int{BYTES}; byte++) {
                if (c.has(byte) != 0) {
                    set_add(set, static_cast<unsigned>(byte));
                }
            }
            return true;
        }
    }
    return false;
}

/* The length of the name when a class begins here, else -1. */
ptrdiff_t class_length(const char* p) {
    if (p[0] != '[' || p[1] != ':') {
        return -1;
    }
    const size_t length = strspn(p + 2, "abcdefghijklmnopqrstuvwxyz");
    return p[2 + length] == ':' && p[3 + length] == ']' ? static_cast<ptrdiff_t>(length) : -1;
}

/* Reads one member, range, class or equivalence of a bracket into the set. False for a class that
 * does not exist. */
bool read_item(reader* r, byte_set* set) {
    const char* p = r->place;
    const ptrdiff_t name_length = class_length(p);
    if (name_length >= 0) {
        r->place = p + name_length + 4;
        return add_class(set, p + 2, static_cast<size_t>(name_length));
    }
    if (is_named_byte(p, '=')) {
        r->place = p + 5;
        set_add(set, static_cast<uint8_t>(p[2]));
        return true;
    }
    const uint8_t low = read_member(r);
    uint8_t high = low;
    if (r->place != nullptr && r->place[0] == '-' && r->place[1] != ']') {
        r->place++;
        high = read_member(r);
    }
    for (unsigned byte = low; byte <= high; byte++) {
        set_add(set, byte);
    }
    return true;
}

/* Reads a bracket from behind its "[" and moves behind its "]", or to the pattern's end when that
 * breaks off within an item. False, with the place as it was, when the bracket has no end and is
 * none. */
bool read_bracket(reader* r, byte_set* set) {
    const char* start = r->place;
    const bool negated = *start == '!' || *start == '^';
    r->place += negated ? 1 : 0;
    *set = {};
    /* What stands behind a class that does not exist counts no more. */
    byte_set ignored = {};
    byte_set* members = set;
    do {
        char* seen = &r->seen[r->place - r->text];
        if (*r->place == '\0' || *seen != 0) {
            r->place = start;
            return false;
        }
        *seen = 1;
        if (!read_item(r, members)) {
            members = &ignored;
        }
        if (r->place == nullptr) {
            *set = {};
            r->place = start + strlen(start);
            return true;
        }
    } while (*r->place != ']');
    r->place++;
    if (negated) {
        for (uint32_t& word : set->words) {
            word = members == set ? ~word : 0;
        }
    }
    return true;
}

/* Matching */

const uint32_t* elements_of(const pattern* p) {
    return reinterpret_cast<const uint32_t*>(p->elements.data);
}

const byte_set* set_of(const pattern* p, uint32_t element) {
    return reinterpret_cast<const byte_set*>(p->sets.data) + (element - ELEMENT_SET);
}

bool takes(const pattern* p, uint32_t element, uint8_t byte) {
    return element < ELEMENT_ANY ? element == byte
                                 : element == ELEMENT_ANY || set_has(set_of(p, element), byte);
}

bool takes_all(const pattern* p, const uint32_t* elements, uint32_t count, const uint8_t* text) {
    for (uint32_t i = 0; i < count; i++) {
        if (!takes(p, elements[i], text[i])) {
            return false;
        }
    }
    return true;
}

/* Where the elements first take bytes of the text, which is no shorter; null when nowhere. For few
 * elements, or few places where they may begin. */
const uint8_t* find_short(const pattern* p, const uint32_t* elements, uint32_t count,
                          const uint8_t* text, const uint8_t* end) {
    const uint8_t* last = end - count;
    for (; text <= last; text++) {
        if (elements[0] < ELEMENT_ANY) {
            const void* next =
                memchr(text, static_cast<int>(elements[0]), static_cast<size_t>(last - text) + 1);
            if (next == nullptr) {
                return nullptr;
            }
            text = static_cast<const uint8_t*>(next);
        }
        if (takes_all(p, elements, count, text)) {
            return text;
        }
    }
    return nullptr;
}

/* The shift-and search for a block of up to 64 elements: bit i of the state says that the elements
 * 0 to i took the last i + 1 bytes. */
constexpr uint32_t BLOCK = 64;

struct shift_and {
    uint64_t columns[BYTES]; /* for each byte, the elements that take it */
    uint64_t last;           /* the bit of the last element */
    uint64_t state;
};

void search_start(shift_and* s, const pattern* p, const uint32_t* elements, uint32_t count) {
    memset(s->columns, 0, sizeof s->columns);
    for (uint32_t i = 0; i < count; i++) {
        const uint64_t bit = uint64_t{1} << i;
        if (elements[i] < ELEMENT_ANY) {
            s->columns[elements[i]] |= bit;
            continue;
        }
        for (unsigned byte = 0; byte < BYTES; byte++) {
            s->columns[byte] |= takes(p, elements[i], static_cast<uint8_t>(byte)) ? bit : 0;
        }
    }
    s->last = uint64_t{1} << (count - 1);
    s->state = 0;
}

bool search_step(shift_and* s, uint8_t byte) {
    s->state = (s->state << 1 | 1) & s->columns[byte];
    return (s->state & s->last) != 0;
}

/* Clears those of the starts, one for each byte from the first on, at which the block does not
 * match. */
void cross_out(const pattern* p, const uint32_t* elements, uint32_t width, const uint8_t* bytes,
               char* starts, uint32_t number) {
    shift_and search;
    search_start(&search, p, elements, width);
    for (uint32_t i = 0; i < width - 1; i++) {
        search_step(&search, bytes[i]);
    }
    bytes += width - 1;
    for (uint32_t start = 0; start < number; start++) {
        if (!search_step(&search, bytes[start])) {
            starts[start] = 0;
        }
    }
}

/* The same for many, at a cost that does not multiply: each block of them crosses out the starts at
 * which it does not match. So many starts at a time are looked at that setting up the blocks costs
 * no more. */
constexpr uint32_t WINDOW = BLOCK * BYTES;

const uint8_t* find_long(const pattern* p, const uint32_t* elements, uint32_t count,
                         const uint8_t* text, const uint8_t* end) {
    char starts[WINDOW];
    size_t left = static_cast<size_t>(end - text) - count + 1;
    while (left > 0) {
        const uint32_t number = left < WINDOW ? static_cast<uint32_t>(left) : WINDOW;
        memset(starts, 1, number);
        for (uint32_t first = 0; first < count; first += BLOCK) {
            cross_out(p, elements + first, count - first < BLOCK ? count - first : BLOCK,
                      text + first, starts, number);
        }
        const void* found = memchr(starts, 1, number);
        if (found != nullptr) {
            return text + (static_cast<const char*>(found) - starts);
        }
        text += number;
        left -= number;
    }
    return nullptr;
}

const uint8_t* find(const pattern* p, const uint32_t* elements, uint32_t count, const uint8_t* text,
                    const uint8_t* end) {
    /* Few starts cost less each by itself than the blocks take to be set up. */
    const bool few = count <= BLOCK || static_cast<size_t>(end - text) - count < BYTES;
    return few ? find_short(p, elements, count, text, end)
               : find_long(p, elements, count, text, end);
}

} // namespace

void pattern_compile(pattern* p, const char* text) {
    buffer_init(&p->elements, 256, BUFFER_UNBOUNDED);
    buffer_init(&p->sets, 256, BUFFER_UNBOUNDED);
    p->width = 0;
    p->tail = 0;
    const size_t size = strlen(text) + 1;
    reader r = {text, text, static_cast<char*>(pool_alloc_zeroed(size))};
    while (*r.place != '\0') {
        uint32_t element = static_cast<uint8_t>(*r.place++);
        byte_set set;
        if (element == '*') {
            r.place += strspn(r.place, "*");
            element = ELEMENT_STAR;
        } else if (element == '?') {
            element = ELEMENT_ANY;
        } else if (element == '\\') {
            /* With nothing to escape it stands for the end, which no byte of a text is. */
            element = static_cast<uint8_t>(*r.place);
            r.place += *r.place != '\0' ? 1 : 0;
        } else if (element == '[' && read_bracket(&r, &set)) {
            element = ELEMENT_SET + p->sets.length / static_cast<uint32_t>(sizeof set);
            append(&p->sets, &set, sizeof set);
        }
        append(&p->elements, &element, sizeof element);
        p->width += element != ELEMENT_STAR ? 1 : 0;
        p->tail = element != ELEMENT_STAR ? p->tail + 1 : 0;
    }
    pool_free(r.seen, size);
}

bool pattern_match(const pattern* p, const char* text) {
    const size_t length = strlen(text);
    if (length < p->width) {
        return false;
    }
    const uint8_t* place = reinterpret_cast<const uint8_t*>(text);
    const uint8_t* end = place + length;
    const uint32_t* element = elements_of(p);
    const uint32_t* behind = element + p->elements.length / sizeof(uint32_t);
    if (p->tail == static_cast<uint32_t>(behind - element)) {
        return length == p->width && takes_all(p, element, p->tail, place);
    }
    behind -= p->tail;
    end -= p->tail;
    if (!takes_all(p, behind, p->tail, end)) {
        return false;
    }
    /* Up to the first star the place is given; behind it, the first that fits leaves most to the
     * rest. */
    for (; *element != ELEMENT_STAR; element++, place++) {
        if (!takes(p, *element, *place)) {
            return false;
        }
    }
    while (++element < behind) {
        uint32_t count = 0;
        while (element[count] != ELEMENT_STAR) {
            count++;
        }
        if (static_cast<size_t>(end - place) < count) {
            return false;
        }
        place = find(p, element, count, place, end);
        if (place == nullptr) {
            return false;
        }
        place += count;
        element += count;
    }
    return true;
}

void pattern_free(pattern* p) {
    buffer_free(&p->elements);
    buffer_free(&p->sets);
}
