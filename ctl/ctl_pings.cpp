#include "ctl/ctl_pings.h"

#include <inttypes.h>
#include <stdint.h>

#include "core/text.h"
#include "stats/formats.h"

namespace {

struct figures {
    uint32_t max;
    uint32_t min;
    uint32_t avg;
    uint32_t sent;
    uint32_t lost;
};

figures entry_of(ctl_text snap, uint32_t target) {
    const char* at = snap.bytes + ping_entry_offset(target);
    return {text_get_be32(at + PING_AT_MAX), text_get_be32(at + PING_AT_MIN),
            text_get_be32(at + PING_AT_AVG), text_get_be32(at + PING_AT_TOTAL),
            text_get_be32(at + PING_AT_LOSS)};
}

/* A target without reports, and one that was cleared since. */
bool is_blank(const figures* f) {
    return (f->max | f->min | f->avg | f->sent | f->lost) == 0;
}

void print_row(FILE* out, uint32_t target, const figures* f) {
    fprintf(out, "%6" PRIu32 " %10" PRIu32 " %10" PRIu32 " %10" PRIu32 " %10" PRIu32 " %10" PRIu32,
            target, f->max, f->min, f->avg, f->sent, f->lost);
    if (f->sent == 0) {
        fprintf(out, " %8s\n", "-");
        return;
    }
    const uint64_t tenths = (uint64_t{f->lost} * 1000 + f->sent / 2) / f->sent;
    fprintf(out, " %4" PRIu64 ".%" PRIu64 " %%\n", tenths / 10, tenths % 10);
}

} // namespace

ctl_status ctl_pings(ctl_call* call) {
    if (call->count != 1) {
        return ctl_call_wrong_usage("pings takes no arguments");
    }
    ctl_text snap;
    ctl_status status;
    if (!ctl_call_get(call, "ping.snap", &snap, &status)) {
        return status;
    }
    if (!ctl_pings_table(stdout, snap)) {
        fprintf(stderr,
                "tessctl: ping.snap: it has %zu bytes, not the %" PRIu32 " of all targets\n",
                snap.length, PING_SNAP_SIZE);
        return CTL_ERROR;
    }
    return CTL_DONE;
}

bool ctl_pings_table(FILE* out, ctl_text snap) {
    if (snap.length != PING_SNAP_SIZE) {
        return false;
    }
    bool headed = false;
    for (uint32_t target = 1; target <= PING_TARGETS; target++) {
        const figures f = entry_of(snap, target);
        if (is_blank(&f)) {
            continue;
        }
        if (!headed) {
            fprintf(out, "%6s %10s %10s %10s %10s %10s %8s\n", "target", "max", "min", "avg",
                    "sent", "lost", "loss");
            headed = true;
        }
        print_row(out, target, &f);
    }
    if (!headed) {
        fputs("no reports yet\n", out);
    }
    return true;
}
