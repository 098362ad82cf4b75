#pragma once

#include <initializer_list>
#include <string_view>

#include "core/pool.h"
#include "store/object.h"
#include "tests/unit/support/text_string.h"

/* Objects with values that nobody was told of: no trace, no event, no mark. */
namespace unit_test {

inline object* string_object(std::string_view key, std::string_view value) {
    object* obj = object_get_or_create(key.data(), static_cast<uint32_t>(key.size()), OBJ_TSTRING);
    sstr_assign(&obj->string, value.data(), static_cast<uint32_t>(value.size()));
    return obj;
}

/* A hash of pairs of field and value. */
inline object* hash_object(std::string_view key, std::initializer_list<std::string_view> pairs) {
    object* obj = object_get_or_create(key.data(), static_cast<uint32_t>(key.size()), OBJ_THASH);
    for (auto p = pairs.begin(); p != pairs.end(); p += 2) {
        hash_field* field = pool_new<hash_field>();
        field->name = sstr_new(p[0].data(), static_cast<uint32_t>(p[0].size()));
        field->value = sstr_new(p[1].data(), static_cast<uint32_t>(p[1].size()));
        htable_put(obj->hash, field);
    }
    return obj;
}

/* The value of a hash's field. */
inline std::string_view value_of(const object* obj, const char* field) {
    const hash_field* f = object_hash_field(obj, field);
    return f != nullptr ? bytes_of(f->value) : "(no field)";
}

} // namespace unit_test
