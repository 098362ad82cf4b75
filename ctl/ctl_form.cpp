#include "ctl/ctl_form.h"

#include <inttypes.h>

#include "ctl/ctl_print.h"
#include "ctl/ctl_sample.h"

namespace {

/* Why there are numbers where times are expected. */
void explain_numbers(FILE* out, ctl_text key, const ctl_series* series) {
    ctl_print_quoted(out, key);
    if (!series->kind->reports) {
        fputs(
            ": the time of the last sample is not known, so samples are numbered from the oldest\n",
            out);
        return;
    }
    fprintf(out, ": a sample is %" PRIu32 " report%s, at times not known; numbered from the oldest",
            series->period, ctl_sample_plural(series->period));
    if (series->last != 0) {
        char last[CTL_SAMPLE_TEXT];
        ctl_sample_time(last, series->last, CTL_STAMP_LOCAL);
        fprintf(out, ",\nthe last at %s", last);
    }
    fputc('\n', out);
}

} // namespace

void ctl_form_table(FILE* out, ctl_text key, const ctl_series* series) {
    const ctl_kind* kind = series->kind;
    if (series->filled == 0) {
        ctl_sample_none(out, key);
        return;
    }
    const bool timed = ctl_series_is_timed(series);
    const int column = timed ? -19 : 6;
    if (!timed) {
        explain_numbers(out, key, series);
    }
    fprintf(out, "%*s", column, timed ? "time" : "sample");
    for (unsigned i = 0; i < kind->count; i++) {
        fprintf(out, " %11s", kind->figures[i].name);
    }
    fputc('\n', out);
    for (uint32_t sample = 0; sample < series->filled; sample++) {
        char text[CTL_SAMPLE_TEXT];
        ctl_sample_name(text, series, sample, CTL_STAMP_LOCAL);
        fprintf(out, "%*s", column, text);
        for (unsigned i = 0; i < kind->count; i++) {
            fprintf(out, " %11" PRIu32, ctl_series_value(series, sample, i));
        }
        fputc('\n', out);
    }
}

void ctl_form_csv(FILE* out, const ctl_series* series) {
    const ctl_kind* kind = series->kind;
    fputs(ctl_series_is_timed(series) ? "time" : "sample", out);
    for (unsigned i = 0; i < kind->count; i++) {
        fprintf(out, ",%s", kind->figures[i].name);
    }
    fputc('\n', out);
    for (uint32_t sample = 0; sample < series->filled; sample++) {
        char text[CTL_SAMPLE_TEXT];
        ctl_sample_name(text, series, sample, CTL_STAMP_UTC);
        fputs(text, out);
        for (unsigned i = 0; i < kind->count; i++) {
            fprintf(out, ",%" PRIu32, ctl_series_value(series, sample, i));
        }
        fputc('\n', out);
    }
}

void ctl_form_json(FILE* out, ctl_text key, const ctl_series* series) {
    const ctl_kind* kind = series->kind;
    char text[CTL_SAMPLE_TEXT];
    fputs("{\"key\":", out);
    ctl_print_json(out, key);
    if (series->last != 0) {
        ctl_sample_time(text, series->last, CTL_STAMP_UTC);
        fprintf(out, ",\"last\":\"%s\"", text);
    } else {
        fputs(",\"last\":null", out);
    }
    fprintf(out, ",\"period_%s\":%" PRIu32 ",\"slots\":%" PRIu32 ",\"samples\":[\n",
            kind->reports ? "reports" : "seconds", series->period, series->slots);
    for (uint32_t sample = 0; sample < series->filled; sample++) {
        const bool timed = ctl_sample_name(text, series, sample, CTL_STAMP_UTC);
        fprintf(out, timed ? "{\"time\":\"%s\"" : "{\"sample\":%s", text);
        for (unsigned i = 0; i < kind->count; i++) {
            fprintf(out, ",\"%s\":%" PRIu32, kind->figures[i].name,
                    ctl_series_value(series, sample, i));
        }
        fputs(sample + 1 < series->filled ? "},\n" : "}\n", out);
    }
    fputs("]}\n", out);
}
