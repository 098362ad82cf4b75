#pragma once

/* What the headers of the store promise about its tables, lists and flags, looked at from outside.
 */

/* Aborts when the keyspace, an object in it or the list of observers breaks one of its invariants.
 * To be called between commands. */
void store_check();

/* Likewise for the rings: what a series counts, and, when they are `whole`, that is when no client
 * has written another value over one, what the ring's header says. Rings that are loaded as plain
 * values are never looked into. */
void rings_check(bool whole);
