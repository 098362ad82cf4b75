#pragma once

#include <stdint.h>
#include <stdio.h>

#include "ctl/ctl_series.h"
#include "ctl/ctl_text.h"

/* The figures of the live screen, and how a screen of any size shows them. Nothing here asks the
 * daemon or knows the terminal but as a stream that takes ANSI sequences. */

/* The most samples of a plot. */
constexpr unsigned CTL_GAUGE_SAMPLES = 256;

/* Room for the name of a gauge, NUL included. */
constexpr unsigned CTL_GAUGE_NAME = 40;

/* The most gauges: the machine's own, and two for each of 16 interfaces. */
constexpr unsigned CTL_BOARD_GAUGES = 36;

enum ctl_unit {
    CTL_UNIT_PERCENT, /* its scale ends at 100 */
    CTL_UNIT_COUNT,
    CTL_UNIT_RATE, /* bytes per second */
};

struct ctl_gauge {
    char name[CTL_GAUGE_NAME];
    const char* suffix; /* behind the name, also when that is cut; "" for none */
    ctl_unit unit;
    bool known; /* the daemon gave a value */
    uint32_t value;
    unsigned count;                      /* samples that are there */
    uint32_t samples[CTL_GAUGE_SAMPLES]; /* oldest first, one a second */
};

struct ctl_board {
    const char* address; /* of the daemon, as given */
    int port;            /* 0 for a Unix path */
    const char* clock;
    unsigned left_out; /* gauges for which there was no room */
    unsigned count;
    ctl_gauge gauges[CTL_BOARD_GAUGES];
};

/* Empties the gauge and names it; a longer name is cut. */
void ctl_gauge_init(ctl_gauge* gauge, ctl_text name, const char* suffix, ctl_unit unit);

/* Adds one sample, at the cost of the oldest when there is no room. */
void ctl_gauge_push(ctl_gauge* gauge, uint32_t sample);

/* Replaces the samples by the last ones of a series. */
void ctl_gauge_take(ctl_gauge* gauge, const ctl_series* series, unsigned figure);

/* Draws all of a screen of this size: each line is placed by its number, holds no line end, and
 * never has more characters than the screen has columns. What does not fit in height is counted in
 * the last line. */
void ctl_board_draw(FILE* out, const ctl_board* board, unsigned width, unsigned height, bool utf8);
