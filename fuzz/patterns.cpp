/* A pattern, a line feed and texts, each a line: the answers must be the C library's where it
 * defines them. */

#include <fnmatch.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>

#include "core/pattern.h"
#include "fuzz/support/check.h"

namespace {

/* The library reads the pattern anew at each place of a text. */
constexpr size_t STARS_MAX = 4;

const char* const classes[] = {"alnum", "alpha", "blank", "cntrl", "digit", "graph",
                               "lower", "print", "punct", "space", "upper", "xdigit"};

/* Moves behind a class such as [:digit:]. */
bool skip_class(const char** place) {
    for (const char* name : classes) {
        const size_t length = strlen(name);
        const char* p = *place;
        if (p[0] == '[' && p[1] == ':' && strncmp(p + 2, name, length) == 0 &&
            p[2 + length] == ':' && p[3 + length] == ']') {
            *place += length + 4;
            return true;
        }
    }
    return false;
}

/* Moves behind a byte that stands for itself in a bracket, perhaps escaped. What begins like a
 * class, a symbol or an equivalence is none. */
bool skip_member(const char** place) {
    const char* p = *place;
    if (p[0] == '[' && strchr(":.=", p[1]) != nullptr) {
        return false;
    }
    const size_t length = p[0] == '\\' ? 2 : 1;
    if (strnlen(p, length) < length) {
        return false;
    }
    *place += length;
    return true;
}

/* Moves from behind "[" to behind "]". False for what is not well formed. */
bool skip_bracket(const char** place) {
    *place += **place == '!' || **place == '^' ? 1 : 0;
    for (bool first = true; first || **place != ']'; first = false) {
        if (skip_class(place)) {
            continue;
        }
        if (!skip_member(place)) {
            return false;
        }
        const char* p = *place;
        if (p[0] == '-' && p[1] != ']') {
            *place += 1;
            if (!skip_member(place)) {
                return false;
            }
        }
    }
    *place += 1;
    return true;
}

/* True for a pattern that every library reads alike. */
bool is_well_formed(const char* p) {
    size_t stars = 0;
    while (*p != '\0') {
        const char c = *p++;
        if (c == '*' && ++stars > STARS_MAX) {
            return false;
        }
        if (c == '\\' && *p++ == '\0') {
            return false;
        }
        if (c == '[' && !skip_bracket(&p)) {
            return false;
        }
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const std::string all(reinterpret_cast<const char*>(bytes), size);
    size_t end = all.find('\n');
    const std::string text = all.substr(0, end);
    const bool compared = is_well_formed(text.c_str());
    pattern p;
    fuzz_require(pattern_compile(&p, text.c_str()), "no room for a pattern");
    while (end != std::string::npos) {
        const size_t start = end + 1;
        end = all.find('\n', start);
        const std::string key = all.substr(start, end - start);
        const bool matches = pattern_match(&p, key.c_str());
        if (compared && !pattern_spent(&p)) {
            fuzz_require(matches == (fnmatch(text.c_str(), key.c_str(), 0) == 0),
                         "the library answers otherwise");
        }
    }
    pattern_free(&p);
    return 0;
}
