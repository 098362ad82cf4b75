#pragma once

#include <stdint.h>

#include "ctl/ctl_text.h"

/* Histories as they come from the daemon: the value of a key such as "cpu.10m", a header of five
 * numbers and a ring of samples (drawn byte by byte in stats/formats.h), all numbers unsigned and
 * big-endian.
 *
 * A client may have written anything under such a key, so the value is checked before it is
 * believed. Nothing is copied: a series points into the value and lives no longer. */

/* The most figures that a sample has. */
constexpr unsigned CTL_FIGURES_MAX = 5;

struct ctl_figure {
    const char* name;
    const char* caption; /* what a plot of it is called; null for a figure that is not plotted */
    uint32_t at;         /* bytes from the beginning of the sample */
};

/* What the samples are. The key's name before its last "." tells, and the size of a sample must
 * agree. The figures are called:
 *
 *     "cpu"             percent
 *     "host"            hosts
 *     "conn"            connections
 *     "ping1".."ping20" max, min, avg, total, loss; a period is in reports
 *     any other         rxb, rxp, txb, txp of the interface, per second */
struct ctl_kind {
    uint32_t sample_size; /* bytes */
    uint32_t figure_size; /* bytes */
    unsigned count;       /* figures in a sample */
    uint32_t most;        /* the most that a figure is meant to be, 0 when there is no such thing */
    bool reports;         /* a period is in reports, so the times of the samples are not known */
    ctl_figure figures[CTL_FIGURES_MAX];
};

/* The figures of an interface, as ctl_series_value counts them. */
enum ctl_interface_figure : unsigned {
    CTL_INTERFACE_RXB,
    CTL_INTERFACE_RXP,
    CTL_INTERFACE_TXB,
    CTL_INTERFACE_TXP,
};

struct ctl_series {
    const ctl_kind* kind;
    uint32_t last;   /* time of the last sample, seconds; 0 when not known */
    uint32_t period; /* seconds or reports for each sample */
    uint32_t slots;
    uint32_t filled; /* samples that are there */
    uint32_t head;   /* the slot of the oldest sample once all slots are filled */
    const char* ring;
};

/* Understands the value of a key. Returns null, or a literal that says in plain words why it is no
 * history.
 */
const char* ctl_series_decode(ctl_text key, ctl_text value, ctl_series* series);

/* True when the samples are those of an interface: the key's name is none of the others. */
bool ctl_series_is_interface(const ctl_series* series);

/* True when the times of the samples are known. */
bool ctl_series_is_timed(const ctl_series* series);

/* A figure of a sample; sample 0 is the oldest, filled - 1 the last. */
uint32_t ctl_series_value(const ctl_series* series, uint32_t sample, unsigned figure);

/* When the sample was taken, seconds, as far as the last sample's time tells: one period lies
 * between two. False when the times are not known. */
bool ctl_series_time(const ctl_series* series, uint32_t sample, int64_t* seconds);

/* Spreads the samples over at most `width` columns, oldest first, and returns how many are used.
 * With more samples than columns each column is the largest of its samples, and every sample is in
 * one; with fewer, each sample takes the same number of columns. */
unsigned ctl_series_spread(const ctl_series* series, unsigned figure, uint32_t* columns,
                           unsigned width);

/* The first sample that a column shows, of a spread that uses `used` columns. */
uint32_t ctl_series_at(const ctl_series* series, unsigned column, unsigned used);
