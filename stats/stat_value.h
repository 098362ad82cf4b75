#pragma once

#include <stddef.h>
#include <stdint.h>

#include "store/object.h"

/* What the collectors share: figures written into the store as decimal text, and the outside
 * commands that some of them ask. A key that holds another type is left alone. */

/* Sets the string `key` to the number, which announces it. */
void stat_set_number(const char* key, uint32_t value);

/* Set a field of a hash to the number; the first form takes the two halves of a 64-bit one. */
void stat_hset_u64(object* hash, const char* field, uint32_t low, uint32_t high);
void stat_hset_u32(object* hash, const char* field, uint32_t value);

/* The most that is looked at of a command's output, NUL included. */
constexpr size_t STAT_OUTPUT_SIZE = 4096;

/* Runs a shell command, waits for it and stores its output up to the end of the line `lines`, blank
 * lines not counted, as a C string. No more is read: a process that the command leaves behind with
 * its output open is not waited for, and a command that writes more is ended by SIGPIPE. What it
 * complains about goes nowhere. Returns false, with an empty text, when it cannot be started. */
bool stat_command_output(const char* command, unsigned lines, char (&text)[STAT_OUTPUT_SIZE]);

/* Runs a shell command and waits for the shell, its output and complaints left alone. */
void stat_command_run(const char* command);

/* A reading of scanf's "%lld" as the device's "%d" stores it: saturated at 32 bits, a negative one
 * as unsigned. */
uint32_t stat_signed_reading(long long value);

/* A reading of scanf's "%llu", saturated at 32 bits. */
uint32_t stat_unsigned_reading(unsigned long long value);
