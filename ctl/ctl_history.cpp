#include "ctl/ctl_history.h"

#include <stdio.h>
#include <string.h>
#include <time.h>

#include "ctl/ctl_chart.h"
#include "ctl/ctl_form.h"
#include "ctl/ctl_plot.h"
#include "ctl/ctl_screen.h"
#include "ctl/ctl_series.h"
#include "ctl/ctl_text.h"

namespace {

enum form { FORM_TABLE, FORM_CSV, FORM_JSON, FORM_PLOT };

struct form_option {
    const char* name;
    form meant;
};

constexpr form_option FORM_OPTIONS[] = {
    {"--csv", FORM_CSV}, {"--json", FORM_JSON}, {"--plot", FORM_PLOT}};

void print_plot(FILE* out, ctl_text key, const ctl_series* series) {
    unsigned width;
    unsigned height;
    ctl_screen_size(&width, &height);
    ctl_chart_draw(out, key, series, width, ctl_plot_utf8());
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
        print_plot(out, key, series);
        break;
    }
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
ctl_status read_words(const ctl_call* call, form* wanted, const char** key) {
    bool options = true;
    *wanted = FORM_TABLE;
    *key = nullptr;
    for (int i = 1; i < call->count; i++) {
        const char* word = call->words[i];
        if (options && strcmp(word, "--") == 0) {
            options = false;
        } else if (options && strncmp(word, "--", 2) == 0) {
            const form_option* option = find_option(word);
            if (option == nullptr) {
                return ctl_call_wrong_usage("history knows --csv, --json and --plot only");
            }
            if (*wanted != FORM_TABLE && *wanted != option->meant) {
                return ctl_call_wrong_usage("history prints one form at a time");
            }
            *wanted = option->meant;
        } else if (*key == nullptr) {
            *key = word;
        } else {
            return ctl_call_wrong_usage("history takes one key");
        }
    }
    return *key != nullptr ? CTL_DONE : ctl_call_wrong_usage("history needs a key");
}

} // namespace

ctl_status ctl_history(ctl_call* call) {
    form wanted;
    const char* name;
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
