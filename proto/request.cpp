#include "proto/request.h"

#include <string.h>

#include "core/pool.h"
#include "core/text.h"

namespace {

/* The smallest element, "$0\n\r\n": header lines may end in a bare line feed. */
constexpr uint32_t SMALLEST_ELEMENT = 5;

/* Takes a header line, `lead` followed by a number, off the view. As strtoul reads it, the number may
 * have blanks and a sign before it and anything behind it. */
bool take_header(buf_view* view, char lead, uint32_t* number) {
    uint32_t length;
    const char* line = buf_getline(view, &length, true);
    if (line == nullptr || length < 2 || line[0] != lead) {
        return false;
    }
    /* Nearly every header is a few plain digits. */
    uint32_t value = 0;
    uint32_t i = 1;
    while (i < length && i < 9 && line[i] >= '0' && line[i] <= '9') {
        value = value * 10 + static_cast<uint32_t>(line[i] - '0');
        i++;
    }
    if (i == length) {
        *number = value;
        return true;
    }
    char* end;
    *number = text_parse_uint32(line + 1, &end, 10);
    return end != line + 1;
}

bool take_bulk(buf_view* view, sstr* str) {
    uint32_t length;
    if (!take_header(view, '$', &length)) {
        return false;
    }
    if (view->length < 2 || length > view->length - 2 || view->start[length] != '\r' ||
        view->start[length + 1] != '\n') {
        return false;
    }
    *str = sstr_new(view->start, length);
    view->start += length + 2;
    view->length -= length + 2;
    return true;
}

bool parse_into(request* r, buf_view* view) {
    uint32_t count;
    if (!take_header(view, '*', &count) || count == 0 || count > view->length / SMALLEST_ELEMENT) {
        return false;
    }
    r->argc = count - 1;
    r->argv = static_cast<sstr*>(pool_alloc_zeroed(r->argc * sizeof(sstr)));
    if (!take_bulk(view, &r->name)) {
        return false;
    }
    for (uint32_t i = 0; i < r->argc; i++) {
        if (!take_bulk(view, &r->argv[i])) {
            return false;
        }
    }
    return true;
}

} // namespace

request* request_parse(const buffer* input) {
    request* r = static_cast<request*>(pool_alloc_zeroed(sizeof(request)));
    buf_view view = {input->data, input->length};
    if (!parse_into(r, &view)) {
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
    if (r->argv != nullptr) {
        pool_free(r->argv, r->argc * sizeof(sstr));
    }
    pool_free(r, sizeof *r);
}
