#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

/* The C library's number parsers as its newest releases have them, whichever release is here: with
 * base 0 they read "0b11" as binary. What the units read must not depend on that. */

namespace {

/* The binary digits behind "0b", null when the text is no such number. */
const char* binary_digits(const char* text, int base, bool* negative) {
    const char* p = text + strspn(text, " \t\n\v\f\r");
    *negative = *p == '-';
    if (*p == '+' || *p == '-') {
        p++;
    }
    const bool binary =
        base == 0 && p[0] == '0' && (p[1] == 'b' || p[1] == 'B') && (p[2] == '0' || p[2] == '1');
    return binary ? p + 2 : nullptr;
}

} // namespace

/* Defined in the program, these take precedence over the C library's. */

extern "C" long long strtoll(const char* text, char** end, int base) noexcept {
    bool negative;
    const char* digits = binary_digits(text, base, &negative);
    if (digits == nullptr) {
        return strtoimax(text, end, base);
    }
    const long long magnitude = strtoimax(digits, end, 2);
    return negative ? -magnitude : magnitude;
}

extern "C" unsigned long long strtoull(const char* text, char** end, int base) noexcept {
    bool negative;
    const char* digits = binary_digits(text, base, &negative);
    if (digits == nullptr) {
        return strtoumax(text, end, base);
    }
    const unsigned long long magnitude = strtoumax(digits, end, 2);
    return negative ? -magnitude : magnitude;
}
