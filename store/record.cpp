#include "store/record.h"

#include "core/pool.h"

namespace {

const char* const type_texts[] = {"none", "string", "list", "hash"};
constexpr unsigned TYPES = sizeof type_texts / sizeof type_texts[0];

sstr type_names[TYPES]; /* each made when first asked for */
sstr empty_string;      /* what a string without value reads as */

void free_list(dlist* list) {
    for (const dlist_node* node = list->head; node != nullptr; node = node->next) {
        sstr item = static_cast<sstr>(node->value);
        sstr_free(&item);
    }
    dlist_free(list);
}

void free_hash(htable* hash) {
    htable_walk walk = htable_walk_start(hash);
    while (void* field = htable_walk_next(&walk)) {
        /* The table is cleared below without looking at a key again. */
        hash_field_free(static_cast<hash_field*>(field));
    }
    htable_free(hash);
}

} // namespace

sstr object_type_name(const object* obj) {
    unsigned type = obj != nullptr ? object_type(obj) : OBJ_TNONE;
    if (type >= TYPES) {
        type = OBJ_TNONE;
    }
    if (type_names[type] == nullptr) {
        type_names[type] = sstr_new(type_texts[type], SSTR_CSTRING);
    }
    return type_names[type];
}

sstr object_string(const object* obj) {
    if (obj->string != nullptr) {
        return obj->string;
    }
    if (empty_string == nullptr) {
        empty_string = sstr_new("", 0);
    }
    return empty_string;
}

void object_free_value(object* obj, bool reset) {
    if (obj->value != nullptr) {
        switch (object_type(obj)) {
        case OBJ_TSTRING:
            sstr_free(&obj->string);
            break;
        case OBJ_TLIST:
            free_list(obj->list);
            break;
        case OBJ_THASH:
            free_hash(obj->hash);
            break;
        default:
            break;
        }
    }
    if (reset) {
        obj->value = nullptr;
        object_clear_flags(obj, OBJ_RESET_MASK);
    }
}

void hash_field_free(hash_field* field) {
    sstr_free(&field->name);
    sstr_free(&field->value);
    pool_delete(field);
}
