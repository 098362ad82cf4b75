#include "ctl/ctl_text.h"

#include <string.h>

ctl_text ctl_text_of(const char* string) {
    return {string, strlen(string)};
}

bool ctl_text_number(ctl_text text, int64_t least, int64_t most, int64_t* number) {
    const bool negative = least < 0 && text.length > 0 && text.bytes[0] == '-';
    const uint64_t limit =
        negative ? 0 - static_cast<uint64_t>(least) : static_cast<uint64_t>(most);
    uint64_t magnitude = 0;
    size_t i = negative ? 1 : 0;
    if (i == text.length) {
        return false;
    }
    for (; i < text.length; i++) {
        if (text.bytes[i] < '0' || text.bytes[i] > '9') {
            return false;
        }
        const uint64_t digit = static_cast<uint64_t>(text.bytes[i] - '0');
        if (digit > limit || magnitude > (limit - digit) / 10) {
            return false;
        }
        magnitude = magnitude * 10 + digit;
    }
    const int64_t value = static_cast<int64_t>(negative ? 0 - magnitude : magnitude);
    if (value < least) {
        return false;
    }
    *number = value;
    return true;
}
