#pragma once

#include <stdio.h>

#include "ctl/ctl_series.h"
#include "ctl/ctl_text.h"

/* Histories as plots: which figures are drawn, with what title, scale and labels. The drawing
 * itself is ctl_plot's. */

/* Draws a plot for each of the kind's figures that has a caption, in `width` columns (at most as
 * many as are of use, and never fewer than the scale needs): a title, then ctl_plot_draw's lines.
 * The labels below are local times, or the numbers of samples where the times are not known. A
 * history without samples is one line that says so. `utf8` promises that UTF-8 is shown. */
void ctl_chart_draw(FILE* out, ctl_text key, const ctl_series* series, unsigned width, bool utf8);
