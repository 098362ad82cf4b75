#include "ctl/ctl_reply.h"

#include <stdlib.h>
#include <string.h>

namespace {

constexpr size_t SPAN_NIL = SIZE_MAX;
constexpr size_t FIRST_CAPACITY = 4096;
constexpr uint32_t FIRST_SLOTS = 16;

/* No element is shorter than "$-1\r\n". */
constexpr int64_t ELEMENT_MIN = 5;

ctl_state break_off(ctl_reply* reply, const char* why) {
    reply->broken = why;
    return CTL_BROKEN;
}

/* The line at `from` (counted from the frame's beginning): its span without CR and LF, and where it
 * ends. */
ctl_state find_line(ctl_reply* reply, size_t from, ctl_span* line, size_t* end) {
    const char* begin = reply->data + reply->start + from;
    const size_t rest = reply->length - reply->start - from;
    const size_t there = rest < CTL_REPLY_LINE_MAX + 1 ? rest : CTL_REPLY_LINE_MAX + 1;
    const char* feed = there == 0 ? nullptr : static_cast<const char*>(memchr(begin, '\n', there));
    const size_t length = feed == nullptr ? there : static_cast<size_t>(feed - begin);
    if (length > CTL_REPLY_LINE_MAX) {
        return break_off(reply, "a line does not end");
    }
    if (feed == nullptr) {
        return CTL_MORE;
    }
    if (length < 2 || begin[length - 1] != '\r') {
        return break_off(reply, "a line does not end with CR LF");
    }
    if (memchr(begin, '\r', length - 1) != nullptr || memchr(begin, '\0', length) != nullptr) {
        return break_off(reply, "a line holds a stray CR or NUL");
    }
    *line = {from, length - 1};
    *end = from + length + 1;
    return CTL_WHOLE;
}

/* The number behind the first byte of a line. */
bool line_number(const ctl_reply* reply, ctl_span line, int64_t* number) {
    const ctl_text text = {reply->data + reply->start + line.offset + 1, line.length - 1};
    return ctl_text_number(text, INT64_MIN, INT64_MAX, number);
}

/* Items grow with those that have come, not with the number announced. */
bool add_item(ctl_reply* reply, ctl_span span) {
    if (reply->count == reply->slots) {
        const uint32_t slots = reply->slots == 0 ? FIRST_SLOTS : reply->slots * 2;
        void* items = realloc(reply->items, slots * sizeof(ctl_span));
        if (items == nullptr) {
            reply->broken = "out of memory";
            return false;
        }
        reply->items = static_cast<ctl_span*>(items);
        reply->slots = slots;
    }
    reply->items[reply->count++] = span;
    return true;
}

/* Takes one bulk at the understood end, or leaves everything as it is until the bulk is whole. */
ctl_state take_bulk(ctl_reply* reply) {
    ctl_span line;
    size_t end;
    const ctl_state state = find_line(reply, reply->parsed, &line, &end);
    if (state != CTL_WHOLE) {
        return state;
    }
    int64_t size;
    if (reply->data[reply->start + line.offset] != '$' || !line_number(reply, line, &size) ||
        size < -1) {
        return break_off(reply, "an item is no bulk string");
    }
    if (size > static_cast<int64_t>(CTL_REPLY_MAX)) {
        return break_off(reply, "an item is too large");
    }
    if (size == -1) {
        reply->parsed = end;
        return add_item(reply, {end, SPAN_NIL}) ? CTL_WHOLE : CTL_BROKEN;
    }
    const size_t length = static_cast<size_t>(size);
    if (reply->length - reply->start - end < length + 2) {
        return CTL_MORE;
    }
    if (memcmp(reply->data + reply->start + end + length, "\r\n", 2) != 0) {
        return break_off(reply, "an item is longer than it says");
    }
    reply->parsed = end + length + 2;
    return add_item(reply, {end, length}) ? CTL_WHOLE : CTL_BROKEN;
}

/* A frame that is one line: its text is the only item. */
ctl_state take_line(ctl_reply* reply, ctl_span line, size_t end) {
    int64_t number;
    const char kind = reply->data[reply->start];
    if (kind == ':' && !line_number(reply, line, &number)) {
        return break_off(reply, "an integer is no number");
    }
    if (!add_item(reply, {line.offset + 1, line.length - 1})) {
        return CTL_BROKEN;
    }
    reply->kind = kind;
    reply->wanted = 1;
    reply->parsed = end;
    return CTL_WHOLE;
}

/* The line that says how many bulks follow. */
ctl_state take_count(ctl_reply* reply, ctl_span line, size_t end) {
    int64_t count;
    const char kind = reply->data[reply->start];
    if (!line_number(reply, line, &count) || count < 0) {
        return break_off(reply, "a count is no number");
    }
    if (count > static_cast<int64_t>(CTL_REPLY_MAX) / ELEMENT_MIN) {
        return break_off(reply, "there are too many items");
    }
    if (kind == '!' && count == 0) {
        return break_off(reply, "an event has no name");
    }
    reply->kind = kind;
    reply->wanted = static_cast<uint32_t>(count);
    reply->parsed = end;
    return CTL_WHOLE;
}

ctl_state take_head(ctl_reply* reply) {
    ctl_span line;
    size_t end;
    const char kind = reply->data[reply->start];
    if (kind == '$') {
        reply->kind = kind;
        reply->wanted = 1;
        return CTL_WHOLE;
    }
    if (kind == '\0' || strchr("+-:*!", kind) == nullptr) {
        return break_off(reply, "it begins like no frame");
    }
    const ctl_state state = find_line(reply, 0, &line, &end);
    if (state != CTL_WHOLE) {
        return state;
    }
    return kind == '*' || kind == '!' ? take_count(reply, line, end) : take_line(reply, line, end);
}

} // namespace

void ctl_reply_init(ctl_reply* reply) {
    *reply = {};
}

void ctl_reply_free(ctl_reply* reply) {
    free(reply->items);
    free(reply->data);
    ctl_reply_init(reply);
}

char* ctl_reply_room(ctl_reply* reply, size_t* size) {
    if (reply->start > 0 && reply->length == reply->capacity) {
        reply->length -= reply->start;
        memmove(reply->data, reply->data + reply->start, reply->length);
        reply->start = 0;
    }
    if (reply->length == reply->capacity) {
        const size_t capacity = reply->capacity == 0 ? FIRST_CAPACITY : reply->capacity * 2;
        if (capacity > CTL_REPLY_MAX) {
            reply->broken = "it is too large";
            return nullptr;
        }
        void* data = realloc(reply->data, capacity);
        if (data == nullptr) {
            reply->broken = "out of memory";
            return nullptr;
        }
        reply->data = static_cast<char*>(data);
        reply->capacity = capacity;
    }
    *size = reply->capacity - reply->length;
    return reply->data + reply->length;
}

void ctl_reply_added(ctl_reply* reply, size_t length) {
    reply->length += length;
}

ctl_state ctl_reply_parse(ctl_reply* reply) {
    if (reply->broken != nullptr) {
        return CTL_BROKEN;
    }
    if (ctl_reply_untouched(reply)) {
        return CTL_MORE;
    }
    ctl_state state = reply->kind == 0 ? take_head(reply) : CTL_WHOLE;
    while (state == CTL_WHOLE && reply->count < reply->wanted) {
        state = take_bulk(reply);
    }
    return state;
}

void ctl_reply_next(ctl_reply* reply) {
    reply->start += reply->parsed;
    if (reply->start == reply->length) {
        reply->start = reply->length = 0;
    }
    reply->kind = 0;
    reply->wanted = reply->count = 0;
    reply->parsed = 0;
}

bool ctl_reply_untouched(const ctl_reply* reply) {
    return reply->start == reply->length;
}

ctl_text ctl_reply_item(const ctl_reply* reply, uint32_t i) {
    const ctl_span span = reply->items[i];
    if (span.length == SPAN_NIL) {
        return {nullptr, 0};
    }
    return {reply->data + reply->start + span.offset, span.length};
}

ctl_text ctl_reply_bytes(const ctl_reply* reply) {
    const bool whole =
        reply->broken == nullptr && reply->kind != 0 && reply->count == reply->wanted;
    return {reply->data + reply->start, whole ? reply->parsed : reply->length - reply->start};
}
