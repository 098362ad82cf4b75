#include "ctl/ctl_chart.h"

#include <inttypes.h>

#include "ctl/ctl_plot.h"
#include "ctl/ctl_print.h"
#include "ctl/ctl_sample.h"

namespace {

/* Together with its frame and the prompt, what is plotted fits a screen of 24 lines. */
constexpr unsigned ALONE_HEIGHT = 16;
constexpr unsigned SHARED_HEIGHT = 8;

constexpr int64_t DAY = 86400;

void plot_title(FILE* out, ctl_text key, const ctl_series* series, const char* caption,
                unsigned width) {
    const uint32_t filled = series->filled;
    ctl_print_quoted(out, key);
    fprintf(out, ": %s, %" PRIu32 " sample%s", caption, filled, ctl_sample_plural(filled));
    if (series->kind->reports) {
        fprintf(out, " of %" PRIu32 " report%s", series->period, ctl_sample_plural(series->period));
    }
    const uint32_t each = (filled + width - 1) / width;
    if (each > 1) {
        fprintf(out, ", maximum of %s%" PRIu32 " in each column",
                filled % width == 0 ? "" : "up to ", each);
    }
    fputc('\n', out);
}

uint32_t largest(const uint32_t* columns, unsigned count) {
    uint32_t most = 0;
    for (unsigned i = 0; i < count; i++) {
        most = columns[i] > most ? columns[i] : most;
    }
    return most;
}

/* Times of day when the samples lie within one, else days too. */
ctl_stamp label_form(const ctl_series* series) {
    return int64_t{series->filled} * series->period <= DAY ? CTL_STAMP_LOCAL_CLOCK
                                                           : CTL_STAMP_LOCAL_MINUTE;
}

void plot_figure(FILE* out, const ctl_series* series, const ctl_plot* plain) {
    ctl_plot plot = *plain;
    char labels[3][CTL_SAMPLE_TEXT];
    const uint32_t samples[3] = {0, ctl_series_at(series, plot.width / 2, plot.width),
                                 series->filled - 1};
    for (unsigned i = 0; i < 3; i++) {
        ctl_sample_name(labels[i], series, samples[i], label_form(series));
        plot.labels[i] = labels[i];
    }
    const uint32_t most = series->kind->most;
    plot.top = ctl_plot_top(most != 0 ? most : largest(plot.columns, plot.width));
    ctl_plot_draw(out, &plot);
}

} // namespace

void ctl_chart_draw(FILE* out, ctl_text key, const ctl_series* series, unsigned width, bool utf8) {
    const ctl_kind* kind = series->kind;
    unsigned plots = 0;
    for (const ctl_figure& figure : kind->figures) {
        plots += figure.caption != nullptr ? 1 : 0;
    }
    unsigned room = width > CTL_PLOT_MARGIN ? width - CTL_PLOT_MARGIN : 0;
    room = room < CTL_PLOT_WIDTH_MIN ? CTL_PLOT_WIDTH_MIN : room;
    room = room > CTL_PLOT_WIDTH_MAX ? CTL_PLOT_WIDTH_MAX : room;
    for (unsigned i = 0; i < kind->count; i++) {
        if (kind->figures[i].caption == nullptr) {
            continue;
        }
        uint32_t columns[CTL_PLOT_WIDTH_MAX];
        ctl_plot plot = {};
        plot.width = ctl_series_spread(series, i, columns, room);
        if (plot.width == 0) {
            ctl_sample_none(out, key);
            return;
        }
        plot.columns = columns;
        plot.height = plots == 1 ? ALONE_HEIGHT : SHARED_HEIGHT;
        plot.utf8 = utf8;
        plot_title(out, key, series, kind->figures[i].caption, plot.width);
        plot_figure(out, series, &plot);
    }
}
