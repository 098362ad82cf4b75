#pragma once

#include <stdio.h>

#include "ctl/ctl_call.h"
#include "ctl/ctl_series.h"
#include "ctl/ctl_text.h"

/* "history [--csv|--json|--plot] KEY": prints the samples of a history, oldest first.
 *
 * CTL_NIL, with a word on standard error, when there is no such key; CTL_ERROR, likewise, when its
 * value is no history. With `raw` the daemon's reply to "get" is printed as it comes. */
ctl_status ctl_history(ctl_call* call);

/* The forms, for a key and the series that its value holds. A form that has times has numbers of
 * samples, from 1, where the times are not known. */

/* Local time and the figures in columns. */
void ctl_history_table(FILE* out, ctl_text key, const ctl_series* series);

/* A line of names, then a line for each sample; times in UTC as in 2024-05-06T07:08:09Z. */
void ctl_history_csv(FILE* out, const ctl_series* series);

/* One object:
 *
 *     {"key":"cpu.10m","last":"2024-05-06T07:08:09Z","period_seconds":1,"slots":600,"samples":[
 *     {"time":"2024-05-06T07:08:09Z","percent":12}
 *     ]}
 *
 * with "period_reports" for ping, "sample":1 for a time that is not known, and null for a last time
 * that is not. */
void ctl_history_json(FILE* out, ctl_text key, const ctl_series* series);

/* A plot for each of the kind's figures that has a caption, in `width` columns (at most as many as
 * are of use, and never fewer than the scale needs). */
void ctl_history_plot(FILE* out, ctl_text key, const ctl_series* series, unsigned width, bool utf8);
