#pragma once

#include <stdint.h>

#include "stats/history.h"

/* Ping statistics: an outside client measures, and reports each measurement by writing the key
 * "ping.data": "id=3,max=40,min=10,avg=20,total=10,loss=0". The daemon keeps up to 20 targets, each
 * with a running summary and the histories pingN.day, pingN.week and pingN.mon, which count reports
 * instead of seconds. Writing an identifier to "ping.del" clears its figures; the target itself
 * stays.
 *
 * "ping.snap" holds the summaries of all targets; stats/formats.h draws its entries, which are the
 * samples of the histories as well. What is malformed or out of range is ignored without a word. */

/* Forgets every target, makes "ping.snap", all zero, and registers the hooks below. The objects of
 * the targets' histories point to what is forgotten, so a second start needs a fresh keyspace. */
void module_ping_start();

/* A string-change hook: reacts to "ping.data" and "ping.del". Returns 0. */
int ping_data_hook(object* obj);

/* A dump hook: the series of target N stays out of a dump exactly when target N + 1 exists. The
 * pairing is kept as it is. */
int ping_dump_hook(object* obj, history_series* s, int fd);

/* A load hook: a ping history that holds a sample is never restored. */
int ping_load_hook(const char* key, const char* data, uint32_t length, uint32_t* unit);
