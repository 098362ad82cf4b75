#pragma once

#include <stdint.h>
#include <stdio.h>

#include "store/object.h"

/* What the collectors share: figures written into the store as decimal text, and the outside commands that
 * some of them ask. A key that holds another type is left alone. */

/* Sets the string `key` to the number, which announces it. */
void stat_set_number(const char* key, uint32_t value);

/* Set a field of a hash to the number; the first form takes the two halves of a 64-bit one. */
void stat_hset_u64(object* hash, const char* field, uint32_t low, uint32_t high);
void stat_hset_u32(object* hash, const char* field, uint32_t value);

/* Starts a shell command whose output is read from the stream returned, null on failure. What it complains
 * about goes nowhere, and SIGPIPE ends it as usual when its output is not read. The loop waits for it in
 * stat_command_close. */
FILE* stat_command_open(const char* command);
void stat_command_close(FILE* output);

/* Runs a shell command and waits for the shell, its output and complaints left alone. */
void stat_command_run(const char* command);

/* A reading of scanf's "%lld" as the device's "%d" stores it: saturated at 32 bits, a negative one as
 * unsigned. */
uint32_t stat_reading(long long value);
