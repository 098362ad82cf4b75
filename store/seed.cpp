#include "store/seed.h"

#include "core/pool.h"
#include "store/object.h"

namespace {

const seed_field run_fields[] = {
    {"logfile", "/tmp/tessard.log", 1}, {"loglevel", "info", 1}, {"pid", "none", 1},
    {"history-iface-algor", "max", 1},  {nullptr, nullptr, 0},
};

void seed_one_string(const seed_string* seed) {
    object* obj = object_get_or_create(seed->key, SSTR_CSTRING, OBJ_TSTRING);
    if (obj == nullptr) {
        return;
    }
    sstr_assign(&obj->string, seed->value, SSTR_CSTRING);
    if (seed->protect != 0) {
        object_set_flags(obj, OBJ_PROTECTED);
    }
}

void seed_one_field(object* obj, const seed_field* seed) {
    if (object_hash_field(obj, seed->name) == nullptr) {
        hash_field* field = pool_new<hash_field>();
        field->name = sstr_new(seed->name, SSTR_CSTRING);
        field->value = sstr_new(seed->value, SSTR_CSTRING);
        htable_put(obj->hash, field);
    }
    object_hash_protect(obj, seed->name, seed->protect > 0);
}

void seed_one_hash(const seed_hash* seed) {
    object* obj = object_get_or_create(seed->key, SSTR_CSTRING, OBJ_THASH);
    if (obj == nullptr) {
        return;
    }
    if (seed->protect != 0) {
        object_set_flags(obj, OBJ_PROTECTED);
    }
    if (seed->protect_fields != 0) {
        object_set_flags(obj, OBJ_FIELDS_PROTECTED);
    }
    for (const seed_field* field = seed->fields; field->name != nullptr; field++) {
        seed_one_field(obj, field);
    }
}

} // namespace

const seed_string seed_builtin_strings[] = {{"fhour.interval", "30", 1}, {nullptr, nullptr, 0}};

const seed_hash seed_builtin_hashes[] = {{"tessard.run", run_fields, 1, 1},
                                         {nullptr, nullptr, 0, 0}};

void object_seed(const seed_string* strings, const seed_hash* hashes) {
    for (; strings != nullptr && strings->key != nullptr; strings++) {
        seed_one_string(strings);
    }
    for (; hashes != nullptr && hashes->key != nullptr; hashes++) {
        seed_one_hash(hashes);
    }
}
