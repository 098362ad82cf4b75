#include "core/buffer.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/fault.h"

namespace {

/* The line in the assertion's message. It does not follow the source: operators know it. */
constexpr int FORMAT_FAULT_LINE = 70;

uint32_t space_before_mark(const buffer* b) {
    return static_cast<uint32_t>(b->mark - b->base);
}

uint32_t consumed_since_mark(const buffer* b) {
    return static_cast<uint32_t>(b->data - b->mark);
}

/* Gives the buffer the new allocation with the bytes from mark on at its start. */
bool move_to_larger(buffer* b, uint32_t size, uint32_t used) {
    const uint32_t consumed = consumed_since_mark(b);
    char* block;
    if (b->mark != b->base) {
        block = static_cast<char*>(malloc(size));
        if (block == nullptr) {
            return false;
        }
        memcpy(block, b->mark, used);
        free(b->base);
    } else {
        block = static_cast<char*>(realloc(b->base, size));
        if (block == nullptr) {
            return false;
        }
    }
    b->base = block;
    b->mark = block;
    b->data = block + consumed;
    b->capacity = size;
    return true;
}

bool grow(buffer* b, uint32_t used, uint32_t n) {
    const uint64_t wanted = uint64_t{used} + n;
    uint64_t candidate = b->capacity == 0 ? b->initial : uint64_t{b->capacity} * 2;
    while (wanted >= candidate && candidate <= b->limit) {
        candidate *= 2;
    }
    return candidate <= b->limit && move_to_larger(b, static_cast<uint32_t>(candidate), used);
}

} // namespace

void buffer_init(buffer* b, uint32_t initial, uint32_t limit) {
    *b = {};
    b->initial = initial != 0 ? initial : BUFFER_DEFAULT_INITIAL;
    b->limit = limit != 0 ? limit : BUFFER_DEFAULT_LIMIT;
}

char* buffer_make_room(buffer* b, uint32_t n) {
    const uint32_t reclaimable = space_before_mark(b);
    const uint32_t used = consumed_since_mark(b) + b->length;
    if (n < reclaimable) {
        const uint32_t consumed = consumed_since_mark(b);
        memmove(b->base, b->mark, used);
        b->mark = b->base;
        b->data = b->base + consumed;
    } else if (n >= b->capacity - reclaimable - used) {
        if (!grow(b, used, n)) {
            return nullptr;
        }
    }
    char* added = b->data + b->length;
    b->length += n;
    return added;
}

uint32_t buffer_append(buffer* b, const void* bytes, uint32_t n) {
    char* added = buffer_reserve(b, n);
    if (added == nullptr) {
        return 0;
    }
    if (n > 0) {
        memcpy(added, bytes, n);
    }
    return n;
}

uint32_t buffer_vprintf(buffer* b, const char* format, va_list arguments) {
    char area[512];
    va_list again;
    va_copy(again, arguments);
    const int size = vsnprintf(area, sizeof area, format, arguments);
    if (size < 0) {
        fault_abort("siz >= 0", "buffer", FORMAT_FAULT_LINE, "buffer_vprintf");
    }
    const uint32_t length = static_cast<uint32_t>(size);
    uint32_t result = length;
    if (length < sizeof area) {
        result = buffer_append(b, area, length);
    } else {
        char* added = buffer_reserve(b, length + 1);
        if (added == nullptr) {
            result = 0;
        } else {
            vsnprintf(added, size_t{length} + 1, format, again);
        }
    }
    va_end(again);
    return result;
}

uint32_t buffer_printf(buffer* b, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const uint32_t result = buffer_vprintf(b, format, arguments);
    va_end(arguments);
    return result;
}

char* buffer_consume(buffer* b, uint32_t n) {
    char* start = b->data;
    if (n > b->length) {
        n = b->length;
    }
    b->data += n;
    b->length -= n;
    return start;
}

uint32_t buffer_truncate(buffer* b, uint32_t n) {
    b->length -= n < b->length ? n : b->length;
    return b->length;
}

uint32_t buffer_compact(buffer* b) {
    const uint32_t consumed = consumed_since_mark(b);
    b->mark = b->data;
    if (space_before_mark(b) > b->length) {
        memcpy(b->base, b->data, b->length);
        b->mark = b->base;
        b->data = b->base;
    }
    return consumed;
}

void buffer_reset(buffer* b) {
    b->data = b->base;
    b->mark = b->base;
    b->length = 0;
}

void buffer_shrink_reset(buffer* b) {
    if (b->capacity > b->initial) {
        /* The content is given up either way, so a failed realloc only means that nothing is given
         * back. */
        char* block = static_cast<char*>(realloc(b->base, b->initial));
        if (block != nullptr) {
            b->base = block;
            b->capacity = b->initial;
        }
    }
    buffer_reset(b);
}

void buffer_free(buffer* b) {
    free(b->base);
    b->base = nullptr;
    b->mark = nullptr;
    b->data = nullptr;
    b->capacity = 0;
    b->length = 0;
}
