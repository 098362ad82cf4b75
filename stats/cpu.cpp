#include "stats/cpu.h"

#include <stdio.h>
#include <string.h>

#include "stats/figure.h"
#include "stats/stat_value.h"

namespace {

constexpr size_t LINE_SIZE = 256;

struct cpu_state {
    uint64_t total; /* sum of the seven counters at the last good read, 0 before the first */
    uint64_t idle;
    figure load; /* smoothed, percent */
};

cpu_state state;

/* 100 * part / whole, without overflow for any counters. */
uint64_t percent_of(uint64_t part, uint64_t whole) {
    return whole > UINT64_MAX / 100 ? part / (whole / 100) : 100 * part / whole;
}

void update_load(uint64_t total, uint64_t idle) {
    const uint64_t dtotal = total - state.total;
    const uint64_t didle = idle - state.idle;
    if (dtotal == 0) {
        /* Two reads within one tick of the kernel's clock: nothing is known about the time between.
         */
        return;
    }
    const uint64_t idle_percent = percent_of(didle < dtotal ? didle : dtotal, dtotal);
    state.load.value = (static_cast<uint32_t>(100 - idle_percent) + state.load.value) >> 1;
}

} // namespace

/* The line looks like
 *   cpu  74608 2520 24433 1117073 6176 4054 0 0 0 0
 * (user, nice, system, idle, iowait, irq, softirq and more, in jiffies). */
uint32_t cpu_update(const char* line) {
    unsigned long long n[7];
    if (strncmp(line, "cpu  ", 5) == 0 &&
        sscanf(line + 5, "%llu %llu %llu %llu %llu %llu %llu", &n[0], &n[1], &n[2], &n[3], &n[4],
               &n[5], &n[6]) == 7) {
        const uint64_t total = n[0] + n[1] + n[2] + n[3] + n[4] + n[5] + n[6];
        const uint64_t idle = n[3];
        if (state.total != 0) {
            update_load(total, idle);
        }
        state.total = total;
        state.idle = idle;
    }
    return state.load.value;
}

void cpu_poll() {
    FILE* file = fopen("/proc/stat", "re");
    if (file == nullptr) {
        return;
    }
    char line[LINE_SIZE];
    const bool read = fgets(line, sizeof line, file) != nullptr;
    fclose(file);
    const uint32_t load = cpu_update(read ? line : "");
    figure_tick(&state.load);
    stat_set_number("cpu.load", load);
}

void cpu_start() {
    state.total = 0;
    state.idle = 0;
    figure_start(&state.load, "cpu", CPU_SAMPLE_SIZE);
}
