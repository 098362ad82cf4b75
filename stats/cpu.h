#pragma once

#include <stdint.h>

/* The processor load: "cpu.load", smoothed, in percent, and its histories, once a second from
 * /proc/stat. While that cannot be opened the key is not written and the histories stand still. */

/* Makes the histories and forgets the figures of an earlier start. */
void cpu_start();

/* Reads the file, publishes the load and ticks the histories. */
void cpu_poll();

/* Takes the first line of the file in. Returns the smoothed load in percent. A line without two
 * blanks behind "cpu" or with fewer than seven numbers changes nothing. */
uint32_t cpu_update(const char* line);
