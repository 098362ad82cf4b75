#pragma once

#include <stdint.h>
#include <stdio.h>

/* The statistics module: once a second the processor and memory load, the number of online hosts
 * and of tracked connections, and the traffic of the interfaces (netdev.h).
 *
 * Each figure is a string key with decimal text. A source that cannot be read leaves the last
 * figure in force, except that "conn" drops to 0 when the command's output holds no number, and
 * that "cpu.load" and "mem.load" are not written at all while their file cannot be opened. Nothing
 * is logged.
 *
 * The outside commands run on the loop's thread, which waits for them. */

/* Makes the histories "cpu", "host" and "conn" (stats/formats.h), adds the timer and lets clients
 * choose the interface algorithm. Figures of an earlier start are forgotten.
 */
void module_stats_start();

/* The timer's callback, all collectors in order. Returns 0. */
int stats_ontimer(void* argument);

/* The processor load alone: "cpu.load" and its histories, from /proc/stat. */
void cpu_poll();

/* What the collectors make of a text, for each apart from where it comes from. */

/* Takes the first line of /proc/stat in. Returns the smoothed load in percent. A line without two
 * blanks behind "cpu" or with fewer than seven numbers changes nothing. */
uint32_t cpu_update(const char* line);

/* Takes /proc/meminfo in, which is read by position. Returns the load in percent. */
uint32_t mem_update(FILE* file);

/* Takes the output of the host tool in: "Online hosts: 5", then perhaps "Max Online hosts: 9". */
void host_update(const char* output);

/* Takes the output of the connection command in: one number. */
void conn_update(const char* output);

/* Writes "host.num" and "host.maxnum", or "conn", and feeds the histories. */
void host_publish();
void conn_publish();
