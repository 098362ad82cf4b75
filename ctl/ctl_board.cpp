#include "ctl/ctl_board.h"

#include <inttypes.h>
#include <string.h>

#include "ctl/ctl_plot.h"

namespace {

/* The columns of a gauge: name, blank, value, blank, plot. */
constexpr unsigned NAME_COLUMNS = 13;
constexpr unsigned VALUE_COLUMNS = 10;
constexpr unsigned PLOT_AT = NAME_COLUMNS + 1 + VALUE_COLUMNS + 1;

/* A narrower plot says nothing. */
constexpr unsigned PLOT_LEAST = 8;

/* A line being written, which takes no more characters than its columns. */
struct line {
    FILE* out;
    unsigned left;
};

struct layout {
    unsigned rows; /* of each gauge */
    unsigned gap;  /* empty lines between two */
};

/* The first that fits is taken. */
constexpr layout LAYOUTS[] = {{4, 1}, {3, 1}, {2, 1}, {2, 0}, {1, 0}};

void put_cell(line* l, const char* cell) {
    if (l->left > 0) {
        fputs(cell, l->out);
        l->left--;
    }
}

/* What is no printable ASCII might move the cursor. */
void put_text(line* l, const char* text) {
    for (; *text != '\0' && l->left > 0; text++) {
        fputc(*text >= ' ' && *text <= '~' ? *text : '?', l->out);
        l->left--;
    }
}

void put_blanks(line* l, size_t count) {
    for (; count > 0 && l->left > 0; count--) {
        put_cell(l, " ");
    }
}

/* In a narrow terminal nothing: a figure that is cut would be another one. */
void put_right(line* l, const char* text, size_t columns) {
    const size_t length = strlen(text);
    if (l->left < columns) {
        return;
    }
    put_blanks(l, length < columns ? columns - length : 0);
    put_text(l, text);
}

line begin_line(FILE* out, unsigned row, unsigned width) {
    fprintf(out, "\x1b[%u;1H", row + 1);
    return {out, width};
}

/* Erasing in a line that is full would take its last character. */
void end_line(const line* l) {
    if (l->left > 0) {
        fputs("\x1b[K", l->out);
    }
}

void draw_head(FILE* out, const ctl_board* board, unsigned width) {
    char where[192];
    char right[64];
    if (board->port == 0) {
        snprintf(where, sizeof where, "tessard at %s", board->address);
    } else {
        snprintf(where, sizeof where, "tessard at %s port %d", board->address, board->port);
    }
    snprintf(right, sizeof right, "%s   q quits", board->clock);
    line l = begin_line(out, 0, width);
    put_text(&l, where);
    const size_t length = strlen(right);
    if (l.left > length) {
        put_blanks(&l, l.left - length);
        put_text(&l, right);
    }
    end_line(&l);
}

void format_value(char (&text)[CTL_PLOT_LABEL_SIZE], uint32_t value, ctl_unit unit) {
    char number[CTL_PLOT_LABEL_SIZE];
    switch (unit) {
    case CTL_UNIT_PERCENT:
        snprintf(text, sizeof text, "%" PRIu32 " %%", value);
        break;
    case CTL_UNIT_COUNT:
        snprintf(text, sizeof text, "%" PRIu32, value);
        break;
    case CTL_UNIT_RATE:
        ctl_plot_short(number, value);
        /* The letter of the thousands belongs to the unit. */
        const size_t digits = strspn(number, "0123456789.");
        snprintf(text, sizeof text, "%.*s %.1sB/s", static_cast<int>(digits), number,
                 number + digits);
        break;
    }
}

/* A name that is too long for its column is cut and marked. */
void put_name(line* l, const ctl_gauge* gauge) {
    const size_t room = NAME_COLUMNS - strlen(gauge->suffix);
    const size_t length = strlen(gauge->name);
    char name[NAME_COLUMNS + 1];
    snprintf(name, sizeof name, length > room ? "%.*s~%s" : "%.*s%s",
             static_cast<int>(length > room ? room - 1 : length), gauge->name, gauge->suffix);
    put_text(l, name);
    put_blanks(l, NAME_COLUMNS - strlen(name));
}

/* The part of the samples that a plot of this width shows: the last ones. */
struct window {
    const uint32_t* samples;
    unsigned count;
    unsigned blanks; /* columns before the first sample */
    uint32_t peak;
};

window window_of(const ctl_gauge* gauge, unsigned columns) {
    const unsigned count = gauge->count < columns ? gauge->count : columns;
    window w = {gauge->samples + (gauge->count - count), count, columns - count, 0};
    for (unsigned i = 0; i < count; i++) {
        w.peak = w.samples[i] > w.peak ? w.samples[i] : w.peak;
    }
    return w;
}

/* One of the `rows` lines of a plot, counted from the bottom. A second that was measured and had
 * nothing to show has a mark, so that it differs from one that is not known. */
void put_plot(line* l, const window* w, uint64_t top, unsigned rows, unsigned row, bool utf8) {
    put_blanks(l, w->blanks);
    for (unsigned i = 0; i < w->count; i++) {
        const bool nothing = w->samples[i] == 0 && row == 0;
        put_cell(l, nothing ? "_" : ctl_plot_cell(w->samples[i], top, rows, row, utf8));
    }
}

void draw_gauge(FILE* out, const ctl_gauge* gauge, unsigned at, unsigned rows, unsigned width,
                bool utf8) {
    const unsigned columns = width >= PLOT_AT + PLOT_LEAST ? width - PLOT_AT : 0;
    const window w = window_of(gauge, columns);
    const uint64_t top = ctl_plot_top(gauge->unit == CTL_UNIT_PERCENT ? 100 : w.peak);
    for (unsigned i = 0; i < rows; i++) {
        line l = begin_line(out, at + i, width);
        char text[CTL_PLOT_LABEL_SIZE] = "-";
        if (i == 0) {
            put_name(&l, gauge);
            if (gauge->known) {
                format_value(text, gauge->value, gauge->unit);
            }
            put_right(&l, text, 1 + VALUE_COLUMNS);
        } else if (i == 1 && w.count > 0) {
            put_right(&l, "peak", NAME_COLUMNS);
            format_value(text, w.peak, gauge->unit);
            put_right(&l, text, 1 + VALUE_COLUMNS);
        } else {
            put_blanks(&l, NAME_COLUMNS + 1 + VALUE_COLUMNS);
        }
        if (w.count > 0) {
            put_blanks(&l, 1);
            put_plot(&l, &w, top, rows, rows - 1 - i, utf8);
        }
        end_line(&l);
    }
}

void draw_empty(FILE* out, unsigned from, unsigned end, unsigned width) {
    for (unsigned row = from; row < end; row++) {
        const line l = begin_line(out, row, width);
        end_line(&l);
    }
}

layout choose_layout(unsigned gauges, unsigned height) {
    for (const layout& l : LAYOUTS) {
        if (gauges * (l.rows + l.gap) <= height + l.gap) {
            return l;
        }
    }
    return {1, 0};
}

} // namespace

void ctl_gauge_init(ctl_gauge* gauge, ctl_text name, const char* suffix, ctl_unit unit) {
    *gauge = {};
    snprintf(gauge->name, sizeof gauge->name, "%.*s", static_cast<int>(name.length), name.bytes);
    gauge->suffix = suffix;
    gauge->unit = unit;
}

void ctl_gauge_push(ctl_gauge* gauge, uint32_t sample) {
    if (gauge->count == CTL_GAUGE_SAMPLES) {
        gauge->count--;
        memmove(gauge->samples, gauge->samples + 1, gauge->count * sizeof gauge->samples[0]);
    }
    gauge->samples[gauge->count++] = sample;
}

void ctl_gauge_take(ctl_gauge* gauge, const ctl_series* series, unsigned figure) {
    const uint32_t filled = series->filled;
    gauge->count = filled < CTL_GAUGE_SAMPLES ? filled : CTL_GAUGE_SAMPLES;
    for (unsigned i = 0; i < gauge->count; i++) {
        gauge->samples[i] = ctl_series_value(series, filled - gauge->count + i, figure);
    }
}

void ctl_board_draw(FILE* out, const ctl_board* board, unsigned width, unsigned height, bool utf8) {
    draw_head(out, board, width);
    unsigned row = 1;
    const layout l = choose_layout(board->count, height - 1);
    unsigned shown = 0;
    /* A line that counts what is left out takes the place of a gauge itself. */
    const unsigned end = board->left_out > 0 || board->count > height - 1 ? height - 1 : height;
    for (; shown < board->count && row + l.rows <= end; shown++) {
        draw_gauge(out, &board->gauges[shown], row, l.rows, width, utf8);
        row += l.rows;
        if (shown + 1 < board->count && row < end) {
            draw_empty(out, row, row + l.gap, width);
            row += l.gap;
        }
    }
    draw_empty(out, row, height, width);
    const unsigned missing = board->count - shown + board->left_out;
    if (missing > 0 && height > 1) {
        char text[48];
        snprintf(text, sizeof text, "and %u more", missing);
        line last = begin_line(out, height - 1, width);
        put_text(&last, text);
        end_line(&last);
    }
}
