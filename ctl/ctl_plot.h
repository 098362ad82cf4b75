#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

/* Plots drawn with text: bars of columns on a scale that begins at 0. Whole numbers only; nothing
 * here knows where the values come from. */

/* The most columns of a plot, and the fewest that its scale and its labels need. */
constexpr unsigned CTL_PLOT_WIDTH_MAX = 500;
constexpr unsigned CTL_PLOT_WIDTH_MIN = 10;

/* Room for a label of the scale. */
constexpr size_t CTL_PLOT_LABEL_SIZE = 32;

/* True when the environment (LC_ALL, LC_CTYPE, LANG, the first that says anything) promises that
 * the terminal shows UTF-8. */
bool ctl_plot_utf8();

/* The top of a scale for values up to `most`: four equal steps of a round number (1, 2, 5, 10, 20,
 * 25, 50, 100, ...), never 0. */
uint64_t ctl_plot_top(uint32_t most);

/* A number of the scale that ends at `top`, in the largest unit (none, k, M, G: thousands each)
 * that is not larger than a step: "750", "2.5k", "200M". */
void ctl_plot_label(char (&label)[CTL_PLOT_LABEL_SIZE], uint64_t number, uint64_t top);

/* A number for people in at most 6 columns: "999", "1.2k", "4.2G", cut, not rounded, so that 999999
 * is "999.9k" and never 1000.0k. */
void ctl_plot_short(char (&text)[CTL_PLOT_LABEL_SIZE], uint32_t number);

/* One character, perhaps of more than one byte, of a bar that is `height` characters high: the one
 * in `row`, counted from 0 at the bottom. What is not 0 shows; what is beyond the top fills the
 * bar. In ASCII the parts of a character are ".", ":" and "#", in UTF-8 there are eight. */
const char* ctl_plot_cell(uint32_t value, uint64_t top, unsigned height, unsigned row, bool utf8);

struct ctl_plot {
    const uint32_t* columns;
    unsigned width;        /* columns, at least 1 */
    unsigned height;       /* rows of the bars, a multiple of 4 */
    uint64_t top;          /* the value at the upper end */
    bool utf8;             /* the terminal shows UTF-8 */
    const char* labels[3]; /* below the first, the middle and the last column */
};

/* Columns of the screen that a plot needs beside its bars. */
constexpr unsigned CTL_PLOT_MARGIN = 8;

/* Draws the bars, the scale on their left, and the axis with its labels below: height + 2 lines. Of
 * the labels those are left out that have no room, the middle one first. */
void ctl_plot_draw(FILE* out, const ctl_plot* plot);
