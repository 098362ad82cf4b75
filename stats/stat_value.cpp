#include "stats/stat_value.h"

#include "core/text.h"

void stat_set_number(const char* key, uint32_t value) {
    object* obj = object_get_or_create(key, SSTR_CSTRING, OBJ_TSTRING);
    if (obj == nullptr) {
        return;
    }
    uint32_t length;
    const char* digits = text_unsigned(value, &length);
    sstr text = sstr_new(digits, length);
    object_set_string(obj, text);
    sstr_free(&text);
}

void stat_hset_u64(object* hash, sstr field, uint32_t low, uint32_t high) {
    uint32_t length;
    const char* digits = text_unsigned(uint64_t{high} << 32 | low, &length);
    sstr text = sstr_new(digits, length);
    object_hash_set(hash, field, text);
    sstr_free(&text);
}

void stat_hset_u32(object* hash, sstr field, uint32_t value) {
    stat_hset_u64(hash, field, value, 0);
}

uint32_t stat_unsigned_reading(unsigned long long value) {
    return value > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(value);
}

uint32_t stat_signed_reading(long long value) {
    if (value > INT32_MAX) {
        return INT32_MAX;
    }
    return value < INT32_MIN ? static_cast<uint32_t>(INT32_MIN) : static_cast<uint32_t>(value);
}
