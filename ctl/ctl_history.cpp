#include "ctl/ctl_history.h"

#include <inttypes.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include "ctl/ctl_form.h"
#include "ctl/ctl_plot.h"
#include "ctl/ctl_print.h"
#include "ctl/ctl_sample.h"

namespace {

constexpr unsigned DEFAULT_WIDTH = 80;

/* Together with its frame and the prompt, what is plotted fits a screen of 24 lines. */
constexpr unsigned ALONE_HEIGHT = 16;
constexpr unsigned SHARED_HEIGHT = 8;

constexpr int64_t DAY = 86400;

enum form { FORM_TABLE, FORM_CSV, FORM_JSON, FORM_PLOT };

struct form_option {
    const char* name;
    form meant;
};

constexpr form_option FORM_OPTIONS[] = {
    {"--csv", FORM_CSV}, {"--json", FORM_JSON}, {"--plot", FORM_PLOT}};

unsigned terminal_width() {
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) < 0 || size.ws_col == 0) {
        return DEFAULT_WIDTH;
    }
    return size.ws_col;
}

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

void print_form(FILE* out, form wanted, ctl_text key, const ctl_series* series) {
    switch (wanted) {
    case FORM_TABLE:
        ctl_form_table(out, key, series);
        break;
    case FORM_CSV:
        ctl_form_csv(out, series);
        break;
    case FORM_JSON:
        ctl_form_json(out, key, series);
        break;
    case FORM_PLOT:
        ctl_history_plot(out, key, series, terminal_width(), ctl_plot_utf8());
        break;
    }
}

ctl_status wrong_usage(const char* what) {
    fprintf(stderr, "tessctl: history %s\nTry tessctl -h.\n", what);
    return CTL_USAGE;
}

/* The option of that name, or null. */
const form_option* find_option(const char* word) {
    for (const form_option& option : FORM_OPTIONS) {
        if (strcmp(word, option.name) == 0) {
            return &option;
        }
    }
    return nullptr;
}

/* Reads the words behind the subcommand's name: options before or behind the key, none behind "--".
 */
ctl_status read_words(const ctl_call* call, form* wanted, char** key) {
    bool options = true;
    *wanted = FORM_TABLE;
    *key = nullptr;
    for (int i = 1; i < call->count; i++) {
        char* word = call->words[i];
        if (options && strcmp(word, "--") == 0) {
            options = false;
        } else if (options && strncmp(word, "--", 2) == 0) {
            const form_option* option = find_option(word);
            if (option == nullptr) {
                return wrong_usage("knows --csv, --json and --plot only");
            }
            if (*wanted != FORM_TABLE && *wanted != option->meant) {
                return wrong_usage("prints one form at a time");
            }
            *wanted = option->meant;
        } else if (*key == nullptr) {
            *key = word;
        } else {
            return wrong_usage("takes one key");
        }
    }
    return *key != nullptr ? CTL_DONE : wrong_usage("needs a key");
}

} // namespace

void ctl_history_plot(FILE* out, ctl_text key, const ctl_series* series, unsigned width,
                      bool utf8) {
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

ctl_status ctl_history(ctl_call* call) {
    form wanted;
    char* name;
    ctl_status status = read_words(call, &wanted, &name);
    if (status != CTL_DONE) {
        return status;
    }
    ctl_text value;
    if (!ctl_call_get(call, name, &value, &status)) {
        return status;
    }
    const ctl_text key = ctl_text_of(name);
    ctl_series series;
    const char* why = ctl_series_decode(key, value, &series);
    if (why != nullptr) {
        return ctl_call_complain(key, why, CTL_ERROR);
    }
    tzset();
    print_form(stdout, wanted, key, &series);
    return CTL_DONE;
}
