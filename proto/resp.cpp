#include "proto/resp.h"

#include <string.h>

#include "core/log.h"
#include "core/text.h"

namespace {

/* The lines at which the log reports this unit's checks. Operators recognise them, so they do not
 * move with the source. */
enum check_line : int {
    LINE_STATUS = 122,
    LINE_ERROR = 128,
    LINE_INTEGER = 134,
    LINE_BULK = 140,
    LINE_ADD = 147,
    LINE_WRITE_NOTIFY = 204,
    LINE_POP_DESTROY = 220
};

/* In the log this unit is called "proto". */
void require(bool holds, const char* expression, int line) {
    log_require(holds, expression, "proto", line);
}

void require_empty(const resp* r, int line) {
    require(r->type == RESP_TNONE, "resp->type == RESP_TNONE", line);
}

template <uint32_t Size> uint32_t append_literal(buffer* out, const char (&text)[Size]) {
    char* p = buffer_reserve(out, Size - 1);
    if (p == nullptr) {
        return 0;
    }
    memcpy(p, text, Size - 1);
    return Size - 1;
}

/* Writes the lead, the digits and a line end to `p`, which has room for them, and returns the end.
 */
char* put_number_line(char* p, char lead, uint64_t number, uint32_t digits) {
    *p = lead;
    p += 1 + digits;
    text_put_digits(p, number);
    *p++ = '\r';
    *p++ = '\n';
    return p;
}

/* A line of a lead character and a count: "*2\r\n". */
uint32_t write_count_line(buffer* out, char lead, uint32_t count) {
    const uint32_t digits = text_digit_count(count);
    char* p = buffer_reserve(out, digits + 3);
    if (p == nullptr) {
        return 0;
    }
    put_number_line(p, lead, count, digits);
    return digits + 3;
}

uint32_t write_integer(buffer* out, int64_t value) {
    const uint32_t sign = value < 0 ? 1 : 0;
    const uint64_t magnitude =
        value < 0 ? -static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    const uint32_t digits = text_digit_count(magnitude);
    const uint32_t size = sign + digits + 3;
    char* p = buffer_reserve(out, size);
    if (p == nullptr) {
        return 0;
    }
    /* The lead of a negative number is written where its sign then stands. */
    put_number_line(p + sign, '-', magnitude, digits);
    *p = ':';
    return size;
}

uint32_t write_bulk(buffer* out, const char* str) {
    if (str == RESP_NIL) {
        return append_literal(out, "$-1\r\n");
    }
    const uint32_t length = str != nullptr ? sstr_length(str) : 0;
    const uint32_t digits = text_digit_count(length);
    /* One reservation for the whole bulk. A string beyond the buffer's limit must not wrap the sum.
     */
    if (length > out->limit) {
        return 0;
    }
    const uint32_t size = length + digits + 5;
    char* p = buffer_reserve(out, size);
    if (p == nullptr) {
        return 0;
    }
    p = put_number_line(p, '$', length, digits);
    if (length > 0) {
        memcpy(p, str, length);
    }
    p[length] = '\r';
    p[length + 1] = '\n';
    return size;
}

uint32_t write_list(buffer* out, char lead, const resp_list* list) {
    uint32_t written = write_count_line(out, lead, list->count);
    for (const resp_element* e = list->head; e != nullptr && written != 0; e = e->next) {
        written = write_bulk(out, e->str);
    }
    return written;
}

/* The line of a status or error that has a text. An error text is written twice; no caller sets
 * one, so clients only ever see "-ERR". */
uint32_t write_text_line(buffer* out, char lead, const char* text, unsigned times) {
    const uint32_t length = static_cast<uint32_t>(strlen(text));
    char* p = buffer_reserve(out, length * times + 3);
    if (p == nullptr) {
        return 0;
    }
    *p++ = lead;
    for (; times > 0; times--) {
        memcpy(p, text, length);
        p += length;
    }
    memcpy(p, "\r\n", 2);
    return 2;
}

} // namespace

resp* resp_new() {
    return pool_new<resp>();
}

void resp_status(resp* r, const char* text) {
    require_empty(r, LINE_STATUS);
    r->type = RESP_TSTATUS;
    r->text = text;
}

void resp_error(resp* r, const char* text, const char*) {
    require_empty(r, LINE_ERROR);
    r->type = RESP_TERROR;
    r->text = text;
}

void resp_integer(resp* r, int64_t value) {
    require_empty(r, LINE_INTEGER);
    r->type = RESP_TINTEGER;
    r->integer = value;
}

void resp_bulk(resp* r, sstr str) {
    require_empty(r, LINE_BULK);
    r->type = RESP_TBULK;
    r->bulk = str;
}

void resp_add(resp* r, sstr str) {
    require(r->type == RESP_TNONE || r->type == RESP_TMBULK,
            "resp->type == RESP_TNONE || resp->type == RESP_TMBULK", LINE_ADD);
    if (r->type == RESP_TNONE) {
        r->type = RESP_TMBULK;
        r->list = {};
    }
    if (str == nullptr) {
        return;
    }
    resp_element* e = pool_new<resp_element>();
    *e = {str, nullptr};
    if (r->list.tail != nullptr) {
        r->list.tail->next = e;
    } else {
        r->list.head = e;
    }
    r->list.tail = e;
    r->list.count++;
}

uint32_t resp_size_bound(const resp* r) {
    /* A lead character, at most 20 digits and a sign, and two line ends. */
    constexpr uint32_t FRAMING = 26;
    uint32_t text = 0;
    switch (r->type) {
    case RESP_TBULK:
        text = r->bulk == nullptr || r->bulk == RESP_NIL ? 0 : sstr_length(r->bulk);
        break;
    case RESP_TMBULK:
        return UINT32_MAX;
    case RESP_TSTATUS:
    case RESP_TERROR:
        text = r->text != nullptr ? 2 * static_cast<uint32_t>(strlen(r->text)) : 0;
        break;
    default:
        break;
    }
    return text < UINT32_MAX - FRAMING ? text + FRAMING : UINT32_MAX;
}

uint32_t resp_write(const resp* r, buffer* out) {
    switch (r->type) {
    case RESP_TSTATUS:
        return r->text == nullptr ? append_literal(out, "+OK\r\n")
                                  : write_text_line(out, '+', r->text, 1);
    case RESP_TERROR:
        return r->text == nullptr ? append_literal(out, "-ERR\r\n")
                                  : write_text_line(out, '-', r->text, 2);
    case RESP_TINTEGER:
        return write_integer(out, r->integer);
    case RESP_TBULK:
        return write_bulk(out, r->bulk);
    case RESP_TMBULK:
        return write_list(out, '*', &r->list);
    default:
        return 0;
    }
}

uint32_t resp_write_notify(const resp* r, buffer* out) {
    require(r->type == RESP_TMBULK, "resp->type == RESP_TMBULK", LINE_WRITE_NOTIFY);
    return write_list(out, '!', &r->list);
}

void resp_free(resp* r) {
    if (r->type == RESP_TMBULK) {
        resp_element* next;
        for (resp_element* e = r->list.head; e != nullptr; e = next) {
            next = e->next;
            pool_delete(e);
        }
    }
    pool_delete(r);
}

void resp_pop_destroy(resp* r) {
    require(r->type == RESP_TBULK, "resp->type == RESP_TBULK", LINE_POP_DESTROY);
    if (r->bulk == nullptr || r->bulk == RESP_NIL) {
        return;
    }
    LOG(LOG_DEBUG, "[POP]  destrog (%s)", r->bulk);
    sstr_free(&r->bulk);
}
