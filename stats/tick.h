#pragma once

/* The statistics module: once a second every collector, in a fixed order. A collector is a unit
 * that reads its source, understands the text and publishes the figures:
 *
 *   netdev   the interfaces: flags, traffic, rates
 *   cpu      the processor load
 *   mem      the memory load
 *   host     the online hosts
 *   conn     the tracked connections
 *
 * Each figure is a key with decimal text; each header says what becomes of its keys when the source
 * cannot be read. */

/* Starts every collector, adds the timer and lets clients choose the interface algorithm. Figures
 * of an earlier start are forgotten: a second one needs a fresh keyspace. */
void module_stats_start();

/* The timer's callback. Returns 0. */
int stats_ontimer(void* argument);
