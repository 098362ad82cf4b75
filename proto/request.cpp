#include "proto/request.h"

#include <string.h>

#include "core/pool.h"
#include "core/text.h"

namespace {

/* The smallest element, "$0\n\r\n": header lines may end in a bare line feed. */
constexpr uint32_t SMALLEST_ELEMENT = 5;

/* A header line, `lead` followed by a number, at `p`. As strtoul reads it, the number may have
 * blanks and a sign before it and anything behind it. Returns what follows the line, or null when
 * it is no such line. */
char* take_any_header(char* p, const char* end, char lead, uint32_t* number) {
    buf_view view = {p, static_cast<uint32_t>(end - p)};
    uint32_t length;
    const char* line = buf_getline(&view, &length, true);
    if (line == nullptr || length < 2 || line[0] != lead) {
        return nullptr;
    }
    char* digits_end;
    *number = text_parse_uint32(line + 1, &digits_end, 10);
    return digits_end != line + 1 ? view.start : nullptr;
}

uint32_t digit_of(char c) {
    return static_cast<unsigned char>(c - '0');
}

/* As take_any_header, which does the rare cases: the header that every client really sends (the
 * lead, one or two digits, CR LF) is read at once, since a small request is mostly headers. */
char* take_header(char* p, const char* end, char lead, uint32_t* number) {
    if (end - p < 5 || p[0] != lead || digit_of(p[1]) > 9) {
        return take_any_header(p, end, lead, number);
    }
    uint32_t value = digit_of(p[1]);
    char* line_end = p + 2;
    if (digit_of(*line_end) <= 9) {
        value = value * 10 + digit_of(*line_end);
        line_end++;
    }
    if (line_end[0] != '\r' || line_end[1] != '\n') {
        return take_any_header(p, end, lead, number);
    }
    line_end[0] = '\0';
    line_end[1] = '\0';
    *number = value;
    return line_end + 2;
}

/* A bulk string at `p`. Returns what follows it, or null when it is malformed or not whole. */
char* take_bulk(char* p, const char* end, sstr* str) {
    uint32_t length;
    p = take_header(p, end, '$', &length);
    if (p == nullptr || end - p < 2 || length > static_cast<uint32_t>(end - p) - 2 ||
        p[length] != '\r' || p[length + 1] != '\n') {
        return nullptr;
    }
    *str = sstr_copy(p, length);
    return p + length + 2;
}

/* The record and its argument array are one block. */
size_t block_size(uint32_t argc) {
    return sizeof(request) + argc * sizeof(sstr);
}

request* new_request(uint32_t argc) {
    request* r = static_cast<request*>(pool_alloc(block_size(argc)));
    r->name = nullptr;
    r->argc = argc;
    r->argv = reinterpret_cast<sstr*>(r + 1);
    for (uint32_t i = 0; i < argc; i++) {
        r->argv[i] = nullptr;
    }
    return r;
}

bool take_elements(request* r, char* p, const char* end) {
    p = take_bulk(p, end, &r->name);
    for (uint32_t i = 0; i < r->argc && p != nullptr; i++) {
        p = take_bulk(p, end, &r->argv[i]);
    }
    return p != nullptr;
}

} // namespace

request* request_parse(const buffer* input) {
    const char* const end = input->data + input->length;
    uint32_t count;
    char* p = take_header(input->data, end, '*', &count);
    if (p == nullptr || count == 0 || count > static_cast<uint32_t>(end - p) / SMALLEST_ELEMENT) {
        return nullptr;
    }
    request* r = new_request(count - 1);
    if (!take_elements(r, p, end)) {
        request_free(r);
        return nullptr;
    }
    return r;
}

void request_free(request* r) {
    sstr_free(&r->name);
    for (uint32_t i = 0; i < r->argc; i++) {
        sstr_free(&r->argv[i]);
    }
    pool_free(r, block_size(r->argc));
}
