#include "ctl/ctl_sample.h"

#include <inttypes.h>
#include <time.h>

#include "ctl/ctl_print.h"

namespace {

size_t format_parts(char (&text)[CTL_SAMPLE_TEXT], const tm* parts, ctl_stamp wanted) {
    switch (wanted) {
    case CTL_STAMP_LOCAL:
        return strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", parts);
    case CTL_STAMP_LOCAL_MINUTE:
        return strftime(text, sizeof text, "%Y-%m-%d %H:%M", parts);
    case CTL_STAMP_LOCAL_CLOCK:
        return strftime(text, sizeof text, "%H:%M:%S", parts);
    case CTL_STAMP_UTC:
        return strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", parts);
    }
    return 0;
}

} // namespace

void ctl_sample_time(char (&text)[CTL_SAMPLE_TEXT], int64_t seconds, ctl_stamp wanted) {
    const time_t when = static_cast<time_t>(seconds);
    tm parts;
    if (when != seconds ||
        (wanted == CTL_STAMP_UTC ? gmtime_r : localtime_r)(&when, &parts) == nullptr ||
        format_parts(text, &parts, wanted) == 0) {
        snprintf(text, sizeof text, "%" PRId64, seconds);
    }
}

bool ctl_sample_name(char (&text)[CTL_SAMPLE_TEXT], const ctl_series* series, uint32_t sample,
                     ctl_stamp wanted) {
    int64_t seconds;
    if (ctl_series_time(series, sample, &seconds)) {
        ctl_sample_time(text, seconds, wanted);
        return true;
    }
    snprintf(text, sizeof text, "%" PRIu32, sample + 1);
    return false;
}

void ctl_sample_none(FILE* out, ctl_text key) {
    ctl_print_quoted(out, key);
    fputs(": no samples yet\n", out);
}

const char* ctl_sample_plural(uint32_t number) {
    return number == 1 ? "" : "s";
}
