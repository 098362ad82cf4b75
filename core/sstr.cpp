#include "core/sstr.h"

#include <string.h>

#include "core/fault.h"
#include "core/pool.h"
#include "core/text.h"

namespace {

uint32_t resolved_length(const char* bytes, uint32_t length) {
    return length == SSTR_CSTRING ? static_cast<uint32_t>(strlen(bytes)) : length;
}

sstr allocate(uint64_t length) {
    if (length > UINT32_MAX - SSTR_OVERHEAD) {
        /* No length word can hold it, and no target has that much memory to spare. */
        fault_no_memory();
    }
    uint32_t* block =
        static_cast<uint32_t*>(pool_alloc(static_cast<size_t>(length) + SSTR_OVERHEAD));
    *block = static_cast<uint32_t>(length);
    return reinterpret_cast<char*>(block + 1);
}

/* As strtoll reads it with base 0. Counters are plain decimal numbers, which are read without its
 * generality.
 */
bool parse_number(const char* text, int64_t* number) {
    constexpr int SAFE_DIGITS = 18;
    const char* p = text + (text[0] == '-' ? 1 : 0);
    if (*p >= '1' && *p <= '9') {
        int64_t magnitude = 0;
        int digits = 0;
        for (; *p >= '0' && *p <= '9' && digits < SAFE_DIGITS; p++, digits++) {
            magnitude = magnitude * 10 + (*p - '0');
        }
        if (digits < SAFE_DIGITS) {
            *number = text[0] == '-' ? -magnitude : magnitude;
            return true;
        }
    }
    char* end;
    *number = text_parse_int64(text, &end, 0);
    return end != text;
}

} // namespace

sstr sstr_new(const char* bytes, uint32_t length) {
    return bytes != nullptr ? sstr_copy(bytes, resolved_length(bytes, length)) : allocate(length);
}

void sstr_assign(sstr* s, const char* bytes, uint32_t length) {
    length = resolved_length(bytes, length);
    if (*s != nullptr && sstr_length(*s) == length) {
        memmove(*s, bytes, length);
        return;
    }
    sstr_free(s);
    *s = sstr_new(bytes, length);
}

void sstr_append(sstr* s, const char* bytes, uint32_t length) {
    if (*s == nullptr) {
        *s = sstr_new(bytes, length);
        return;
    }
    length = resolved_length(bytes, length);
    const uint32_t old_length = sstr_length(*s);
    sstr joined = allocate(uint64_t{old_length} + length);
    memcpy(joined, *s, old_length);
    memcpy(joined + old_length, bytes, length);
    joined[old_length + length] = '\0';
    sstr_free(s);
    *s = joined;
}

bool sstr_incr(sstr* s, int64_t* value) {
    uint32_t length;
    if (*s == nullptr) {
        const char* text = text_number(*value, &length);
        *s = sstr_copy(text, length);
        return true;
    }
    int64_t parsed;
    if (!parse_number(*s, &parsed)) {
        return false;
    }
    const uint32_t sum = static_cast<uint32_t>(parsed) + static_cast<uint32_t>(*value);
    *value = static_cast<int32_t>(sum);
    const char* text = text_number(*value, &length);
    sstr_assign(s, text, length);
    return true;
}
