#pragma once

#include <stdint.h>
#include <stdio.h>

/* The memory load: "mem.load", in percent, once a second from /proc/meminfo. While that cannot be
 * opened the key is not written. */

/* Forgets the figure of an earlier start. */
void mem_start();

/* Reads the file and publishes the load. */
void mem_poll();

/* Takes the file in, which is read by position. Returns the load in percent. */
uint32_t mem_update(FILE* file);
