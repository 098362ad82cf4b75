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

/* A plot for each of the kind's figures that has a caption, in `width` columns (at most as many as
 * are of use, and never fewer than the scale needs). */
void ctl_history_plot(FILE* out, ctl_text key, const ctl_series* series, unsigned width, bool utf8);
