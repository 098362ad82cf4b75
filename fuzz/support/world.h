#pragma once

#include <stdint.h>

#include <string>
#include <string_view>

#include "fuzz/support/steps.h"

/* The daemon's state as it stands after the start, made fresh for each input: the seeded keys, the
 * histories of the collectors and of interface "eth0", the hooks, and a log at debug level that
 * goes nowhere, so that every trace is composed. As many hooks for dump and load as there is room
 * for are there, and one that asks for the histories "conn.*" to be loaded. The clock stands still.
 */

constexpr uint32_t WORLD_START = 1700000000;

/* The most ticks and the longest value of one step. */
constexpr unsigned WORLD_TICKS_MAX = 31;
constexpr uint32_t WORLD_LENGTH_MAX = 8192;

/* To be called at the beginning of each input, when no connection of an earlier one is left. */
void world_start();

/* Writes a string as a client does; a key of another type is left alone. */
void world_set_string(const char* key, std::string_view value);

/* False once a value was written over a ring since the start. */
bool world_rings_are_whole();

/* Steps that several targets know. False for another kind, with nothing done.
 *
 *   k   a key, a blank and a value, which is written
 *   z   a key, a blank and a length: so many blanks are written; 0 leaves the key without a value
 *   y   a key, which is made a list if there is none
 *   e   a key, which expires
 *   s   ticks of the statistics, as many as its first byte says, with the number behind it
 *   t   the clock goes on by as many seconds as its first byte says, T by periods of a day's ring
 *   u   dump and load lose the histories, as before the modules are started
 *   v   the log's level changes between debug and error */
bool world_step(const fuzz_step* step);

/* Cuts the text at its first blank and returns what stood behind it. */
std::string world_cut_at_blank(std::string* text);
