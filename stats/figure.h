#pragma once

#include <stdint.h>

#include "stats/history.h"

/* A figure of which the histories keep the maximum of each span, whatever those of interfaces keep.
 */
struct figure {
    uint32_t value;
    uint32_t maximum[HISTORY_SPANS]; /* since the last sample of each span */
    history_series history[HISTORY_SPANS];
};

/* Makes the figure 0 and its five histories empty, under the keys `name`.10m and so on. A sample of
 * 1 to 4 bytes holds the value's last ones. The record is zero or was started before; then what it
 * owns is freed first. */
void figure_start(figure* f, const char* name, uint32_t sample_size);

/* One tick of the histories. */
void figure_tick(figure* f);
