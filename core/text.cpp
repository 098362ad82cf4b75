#include "core/text.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/fault.h"

namespace {

char* scratch;
size_t scratch_capacity;

/* 20 digits, a sign and the NUL. */
char number_buffer[22];

/* Writes the digits backwards from `p` and returns the first. */
char* put_digits_before(char* p, uint64_t magnitude) {
    /* 32-bit division is far cheaper on the device, and nearly every number fits. */
    while (magnitude > UINT32_MAX) {
        *--p = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    }
    uint32_t rest = static_cast<uint32_t>(magnitude);
    do {
        *--p = static_cast<char>('0' + rest % 10);
        rest /= 10;
    } while (rest != 0);
    return p;
}

/* The same before the fixed NUL at the end of the static buffer. */
char* digits_before_end(uint64_t magnitude) {
    return put_digits_before(number_buffer + sizeof number_buffer - 1, magnitude);
}

const char* number_result(const char* first, uint32_t* length) {
    if (length != nullptr) {
        *length = static_cast<uint32_t>(number_buffer + sizeof number_buffer - 1 - first);
    }
    return first;
}

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

/* As the C library's number parsers skip it. */
const char* skip_space(const char* text) {
    while (is_blank(*text) || *text == '\v' || *text == '\f') {
        text++;
    }
    return text;
}

/* Newer C libraries read "0b11" with base 0 as binary. The device's do not, and clients must get
 * the same answer everywhere: the 0, and text behind it. */
bool has_binary_prefix(const char* text) {
    const char* p = skip_space(text);
    if (*p == '+' || *p == '-') {
        p++;
    }
    return p[0] == '0' && (p[1] == 'b' || p[1] == 'B');
}

} // namespace

const char* str_format(const char* format, ...) {
    if (scratch == nullptr) {
        scratch_capacity = 256;
        scratch = static_cast<char*>(malloc(scratch_capacity));
        if (scratch == nullptr) {
            fault_no_memory();
        }
    }
    va_list arguments;
    va_start(arguments, format);
    int needed = vsnprintf(scratch, scratch_capacity, format, arguments);
    va_end(arguments);
    if (needed < 1) {
        return nullptr;
    }
    if (static_cast<size_t>(needed) >= scratch_capacity) {
        scratch_capacity = (static_cast<size_t>(needed) + 256) & ~size_t{255};
        char* larger = static_cast<char*>(realloc(scratch, scratch_capacity));
        if (larger == nullptr) {
            fault_no_memory();
        }
        scratch = larger;
        va_start(arguments, format);
        needed = vsnprintf(scratch, scratch_capacity, format, arguments);
        va_end(arguments);
    }
    return needed < 1 ? nullptr : scratch;
}

const char* text_number(int64_t value, uint32_t* length) {
    if (value >= 0) {
        return number_result(digits_before_end(static_cast<uint64_t>(value)), length);
    }
    char* first = digits_before_end(-static_cast<uint64_t>(value));
    *--first = '-';
    return number_result(first, length);
}

const char* text_unsigned(uint64_t value, uint32_t* length) {
    return number_result(digits_before_end(value), length);
}

uint32_t text_digit_count(uint64_t value) {
    constexpr uint32_t MOST_DIGITS = 20;
    uint32_t digits = 1;
    for (uint64_t power = 10; digits < MOST_DIGITS && value >= power; power *= 10) {
        digits++;
    }
    return digits;
}

void text_put_digits(char* end, uint64_t value) {
    (void)put_digits_before(end, value);
}

int64_t text_parse_int64(const char* text, char** end, int base) {
    if (base == 0 && has_binary_prefix(text)) {
        base = 10;
    }
    return strtoll(text, end, base);
}

int32_t text_parse_int32(const char* text, char** end, int base) {
    const int64_t value = text_parse_int64(text, end, base);
    if (value > INT32_MAX) {
        return INT32_MAX;
    }
    return value < INT32_MIN ? INT32_MIN : static_cast<int32_t>(value);
}

uint32_t text_parse_uint32(const char* text, char** end, int base) {
    if (base == 0 && has_binary_prefix(text)) {
        base = 10;
    }
    errno = 0;
    const unsigned long long value = strtoull(text, end, base);
    if (errno == ERANGE) {
        return UINT32_MAX;
    }
    const char* sign = skip_space(text);
    const unsigned long long magnitude = *sign == '-' ? -value : value;
    if (magnitude > UINT32_MAX) {
        return UINT32_MAX;
    }
    return static_cast<uint32_t>(value);
}

void str_split(char* line, char** argv, const char* delimiters) {
    const char* set = delimiters != nullptr ? delimiters : " \t\r\n";
    uintptr_t count = 0;
    char* rest = nullptr;
    for (char* token = strtok_r(line, set, &rest); token != nullptr;
         token = strtok_r(nullptr, set, &rest)) {
        argv[++count] = token;
    }
    argv[0] = reinterpret_cast<char*>(count);
}

char* str_ltrim(char* text) {
    while (is_blank(*text)) {
        text++;
    }
    return text;
}

char* str_rtrim(char* text) {
    size_t length = strlen(text);
    while (length > 0 && is_blank(text[length - 1])) {
        length--;
    }
    text[length] = '\0';
    return text;
}

char* str_trim(char* text) {
    return str_rtrim(str_ltrim(text));
}

char* str_unquote(char* text) {
    char* trimmed = str_trim(text);
    const size_t length = strlen(trimmed);
    if (length < 2 || trimmed[0] != '"' || trimmed[length - 1] != '"') {
        return trimmed;
    }
    trimmed[length - 1] = '\0';
    return trimmed + 1;
}

char* str_dup(const char* text) {
    char* copy = strdup(text);
    if (copy == nullptr) {
        fault_no_memory();
    }
    return copy;
}

void str_toupper(char* text) {
    for (; *text != '\0'; text++) {
        if (*text >= 'a' && *text <= 'z') {
            *text = static_cast<char>(*text - 'a' + 'A');
        }
    }
}

void str_tolower(char* text) {
    for (; *text != '\0'; text++) {
        if (*text >= 'A' && *text <= 'Z') {
            *text = static_cast<char>(*text - 'A' + 'a');
        }
    }
}

char* buf_getline(buf_view* view, uint32_t* length, bool need_newline) {
    if (view->length == 0 || view->start[0] == '\0') {
        return nullptr;
    }
    char* line = view->start;
    char* newline = static_cast<char*>(memchr(line, '\n', view->length));
    if (newline == nullptr) {
        if (need_newline) {
            return nullptr;
        }
        *length = view->length;
        view->start += view->length;
        view->length = 0;
        return line;
    }
    const uint32_t taken = static_cast<uint32_t>(newline - line) + 1;
    view->start += taken;
    view->length -= taken;
    *newline = '\0';
    *length = taken - 1;
    if (*length > 0 && line[*length - 1] == '\r') {
        *length -= 1;
        line[*length] = '\0';
    }
    return line;
}

uint32_t text_get_be32(const void* bytes) {
    const unsigned char* b = static_cast<const unsigned char*>(bytes);
    return static_cast<uint32_t>(b[0]) << 24 | static_cast<uint32_t>(b[1]) << 16 |
           static_cast<uint32_t>(b[2]) << 8 | b[3];
}

void text_put_be32(void* bytes, uint32_t value) {
    unsigned char* b = static_cast<unsigned char*>(bytes);
    b[0] = static_cast<unsigned char>(value >> 24);
    b[1] = static_cast<unsigned char>(value >> 16);
    b[2] = static_cast<unsigned char>(value >> 8);
    b[3] = static_cast<unsigned char>(value);
}
