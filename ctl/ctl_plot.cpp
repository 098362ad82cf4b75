#include "ctl/ctl_plot.h"

#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

namespace {

constexpr unsigned STEPS = 4;

constexpr const char* const ASCII_PARTS[] = {" ", ".", ":", "#"};
constexpr const char* const UTF8_PARTS[] = {
    " ",
    "\xe2\x96\x81",
    "\xe2\x96\x82",
    "\xe2\x96\x83",
    "\xe2\x96\x84",
    "\xe2\x96\x85",
    "\xe2\x96\x86",
    "\xe2\x96\x87",
    "\xe2\x96\x88",
};
constexpr unsigned ASCII_FULL = 3;
constexpr unsigned UTF8_FULL = 8;

/* What a number is counted in. */
struct unit {
    uint64_t size;
    char letter; /* NUL for ones */
};

/* The largest unit that is not larger than the number. */
unit unit_for(uint64_t number) {
    constexpr unit UNITS[] = {{1000000000, 'G'}, {1000000, 'M'}, {1000, 'k'}};
    for (const unit& u : UNITS) {
        if (number >= u.size) {
            return u;
        }
    }
    return {1, '\0'};
}

/* Cut, not rounded. */
uint64_t tenths_of(uint64_t number, uint64_t size) {
    return number % size * 10 / size;
}

void put_tenths(char (&text)[CTL_PLOT_LABEL_SIZE], uint64_t number, unit u) {
    snprintf(text, sizeof text, "%" PRIu64 ".%" PRIu64 "%c", number / u.size,
             tenths_of(number, u.size), u.letter);
}

/* Where a label begins, and that it ends before `end`. */
struct place {
    size_t at;
    size_t end;
};

place centred(size_t column, size_t length) {
    const size_t at = column > length / 2 ? column - length / 2 : 0;
    return {at, at + length};
}

size_t put_at(FILE* out, size_t position, place where, const char* text) {
    fprintf(out, "%*s%s", static_cast<int>(where.at - position), "", text);
    return where.end;
}

void draw_labels(FILE* out, const ctl_plot* plot) {
    const place first = {0, strlen(plot->labels[0])};
    const size_t last_length = strlen(plot->labels[2]);
    const place last = {plot->width > last_length ? plot->width - last_length : 0, plot->width};
    const place middle = centred(plot->width / 2, strlen(plot->labels[1]));
    const bool with_last = last.at > first.end;
    const bool with_middle = with_last && middle.at > first.end && middle.end < last.at;
    fprintf(out, "%*s%s", static_cast<int>(CTL_PLOT_MARGIN), "", plot->labels[0]);
    size_t position = first.end;
    if (with_middle) {
        position = put_at(out, position, middle, plot->labels[1]);
    }
    if (with_last) {
        put_at(out, position, last, plot->labels[2]);
    }
    fputc('\n', out);
}

void draw_scale(FILE* out, uint64_t number, uint64_t top) {
    char label[CTL_PLOT_LABEL_SIZE];
    ctl_plot_label(label, number, top);
    fprintf(out, "%*s +", static_cast<int>(CTL_PLOT_MARGIN) - 2, label);
}

void draw_axis(FILE* out, const ctl_plot* plot) {
    draw_scale(out, 0, plot->top);
    for (unsigned i = 0; i < plot->width; i++) {
        fputc(i == plot->width / 2 || i + 1 == plot->width ? '+' : '-', out);
    }
    fputc('\n', out);
}

/* Blanks behind the last bar of a row are not written. */
void draw_row(FILE* out, const ctl_plot* plot, unsigned row) {
    unsigned blanks = 0;
    for (unsigned i = 0; i < plot->width; i++) {
        const char* cell =
            ctl_plot_cell(plot->columns[i], plot->top, plot->height, row, plot->utf8);
        if (*cell == ' ') {
            blanks++;
        } else {
            fprintf(out, "%*s%s", static_cast<int>(blanks), "", cell);
            blanks = 0;
        }
    }
    fputc('\n', out);
}

} // namespace

bool ctl_plot_utf8() {
    constexpr const char* NAMES[] = {"LC_ALL", "LC_CTYPE", "LANG"};
    for (const char* name : NAMES) {
        const char* value = getenv(name);
        if (value != nullptr && *value != '\0') {
            return strcasestr(value, "utf-8") != nullptr || strcasestr(value, "utf8") != nullptr;
        }
    }
    return false;
}

uint64_t ctl_plot_top(uint32_t most) {
    const uint64_t least = (uint64_t{most} + STEPS - 1) / STEPS;
    for (uint64_t ten = 1;; ten *= 10) {
        /* 2.5 is no whole number of ones. */
        const uint64_t steps[] = {ten, 2 * ten, ten >= 10 ? ten / 10 * 25 : 0, 5 * ten};
        for (const uint64_t step : steps) {
            if (step >= least && step > 0) {
                return STEPS * step;
            }
        }
    }
}

void ctl_plot_label(char (&label)[CTL_PLOT_LABEL_SIZE], uint64_t number, uint64_t top) {
    const unit u = unit_for(top / STEPS);
    if (u.letter == '\0' || number == 0) {
        snprintf(label, sizeof label, "%" PRIu64, number);
    } else if (tenths_of(number, u.size) == 0) {
        snprintf(label, sizeof label, "%" PRIu64 "%c", number / u.size, u.letter);
    } else {
        put_tenths(label, number, u);
    }
}

void ctl_plot_short(char (&text)[CTL_PLOT_LABEL_SIZE], uint32_t number) {
    const unit u = unit_for(number);
    if (u.letter == '\0') {
        snprintf(text, sizeof text, "%" PRIu32, number);
    } else {
        put_tenths(text, number, u);
    }
}

const char* ctl_plot_cell(uint32_t value, uint64_t top, unsigned height, unsigned row, bool utf8) {
    const unsigned full = utf8 ? UTF8_FULL : ASCII_FULL;
    const uint64_t parts = uint64_t{height} * full;
    const uint64_t bar = value >= top ? parts : (value * parts + top - 1) / top;
    const uint64_t below = uint64_t{row} * full;
    const uint64_t part = bar <= below ? 0 : bar - below < full ? bar - below : full;
    return utf8 ? UTF8_PARTS[part] : ASCII_PARTS[part];
}

void ctl_plot_draw(FILE* out, const ctl_plot* plot) {
    const unsigned each = plot->height / STEPS;
    for (unsigned row = plot->height; row > 0; row--) {
        if (row % each == 0) {
            draw_scale(out, plot->top / STEPS * (row / each), plot->top);
        } else {
            fprintf(out, "%*s|", static_cast<int>(CTL_PLOT_MARGIN) - 1, "");
        }
        draw_row(out, plot, row - 1);
    }
    draw_axis(out, plot);
    draw_labels(out, plot);
}
