#pragma once

#include <stdint.h>

#include "store/object.h"

/* What the collectors share: figures written into the store as decimal text, and figures as scanf
 * reads them. A key that holds another type is left alone. */

/* Sets the string `key` to the number, which announces it. */
void stat_set_number(const char* key, uint32_t value);

/* Set a field of a hash to the number; the first form takes the two halves of a 64-bit one. The
 * field's name is borrowed, so that a collector makes it once. */
void stat_hset_u64(object* hash, sstr field, uint32_t low, uint32_t high);
void stat_hset_u32(object* hash, sstr field, uint32_t value);

/* A reading of scanf's "%lld" as the device's "%d" stores it: saturated at 32 bits, a negative one
 * as unsigned. */
uint32_t stat_signed_reading(long long value);

/* A reading of scanf's "%llu", saturated at 32 bits. */
uint32_t stat_unsigned_reading(unsigned long long value);
