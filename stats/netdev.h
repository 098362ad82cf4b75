#pragma once

#include <stdint.h>
#include <stdio.h>

#include "stats/history.h"

/* Interface traffic: once a second the kernel's counters of every interface of interest become
 * smoothed rates, a hash named after the interface ("rxb", "rxp", "txb", "txp", "txbrate",
 * "txprate", "rxbrate", "rxprate", "flags") that is announced once, and five histories whose
 * samples are the rates of the span (stats/formats.h).
 *
 * Records are never removed: an interface that disappears keeps its last figures and flags in the
 * store, and 45.7 kB with them, most of which are its histories. When the kernel's file or its list
 * of addresses cannot be read, nothing changes. A clock that was set back, or forward by more than
 * 35 minutes, costs one poll's rates. Exhausted memory ends the process. */

struct iface_rates {
    uint32_t rxb; /* bytes and packets per second */
    uint32_t rxp;
    uint32_t txb;
    uint32_t txp;
};
static_assert(sizeof(iface_rates) == IFACE_SAMPLE_SIZE, "a sample has every rate");

struct iface_stat {
    char name[32];
    uint64_t rx_bytes; /* the counters as last read */
    uint32_t rx_packets;
    uint64_t tx_bytes;
    uint32_t tx_packets;
    iface_rates rate; /* smoothed: each poll averages the fresh rate with the last */
    uint32_t flags;   /* 2: up, 1: running */
    history_series history[HISTORY_SPANS];
    iface_rates accumulated[HISTORY_SPANS]; /* since the last sample of each span */
    iface_stat* prev;
    iface_stat* next;
};

/* The record of an interface, compared ignoring case over 31 characters; null for a null name or an
 * unknown one. The search goes from the record found last to the newer ones, and round: the
 * kernel lists interfaces in the order in which it did when their records were made. */
iface_stat* iface_find(const char* name);

/* Takes over which of the known interfaces are up and running; the next poll publishes it. */
void netdev_poll_flags();

/* One poll of /proc/net/dev. */
void netdev_poll();

/* The poll's parts, with the clock and the text handed in: netdev_set_interval takes the present
 * time and netdev_read the lines of the file. */
void netdev_set_interval(uint32_t sec, uint32_t usec);
void netdev_read(FILE* file);

/* How the histories condense what lies between two samples. 1: the maximum of the rates (the
 * initial value); 0: a running average. */
extern int history_iface_algor;

/* "max" and "avg" choose; other words leave the choice as it is. Takes effect with the next tick.
 */
void history_algor_option(const char* text);

/* A string-change hook: a client that writes one of the two words to the key "history-iface-algor"
 * chooses as the option does. Returns 0. */
int history_algor_hook(object* obj);

/* Microseconds between the last two polls, 0 when unknown. */
extern uint32_t netdev_interval_us;

/* Forgets every record and the time of the last poll. The objects of the rings point to what is
 * freed here, so a second start needs a fresh keyspace. */
void netdev_start();
