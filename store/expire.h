#pragma once

/* The expiry sweep: finds expired objects and destroys them. It is the only place where object
 * records are destroyed; commands only mark them dead.
 *
 * A key with a time to live expires in the first scan in which that many seconds have passed; when
 * the wall clock is set back, its count restarts.
 *
 * A key with an absolute time expires in the first scan of a later second than the one in which the
 * expiry was set, whatever the time says, on purpose. "ttl" still answers with the stored time.
 *
 * Objects that are dead without an expiry stay as records until their key is used again. */

/* Scans the keyspace, at most once in a second of wall time; the first call only takes the time.
 * What it destroys is announced to nobody, and protection does not hold against it. */
void object_expire_sweep();

/* The callback of the sweep's timer. Returns 0, which keeps the timer. */
int expire_timer_cb(void* argument);

/* Forgets the time of the last sweep. */
void expire_init();
