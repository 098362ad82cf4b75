#include "stats/sysload.h"

#include <string.h>

#include "core/text.h"
#include "loop/loop.h"
#include "stats/history.h"
#include "stats/netdev.h"
#include "stats/stat_value.h"
#include "stats/tool.h"

namespace {

constexpr uint32_t TICK_MS = 1000;
constexpr size_t CPU_LINE_SIZE = 256;
constexpr char HOST_COMMAND[] = "hostmon --showg";
constexpr char CONN_COMMAND[] = "conntrack -S | head -n 1 | awk '{print $2}'";

/* A figure of which the histories keep the maximum of each span. */
struct counted {
    uint32_t value;
    uint32_t maximum[HISTORY_SPANS]; /* since the last sample of each span */
    history_series history[HISTORY_SPANS];
};

struct sysload_state {
    uint64_t cpu_total; /* sum of the seven counters at the last good read, 0 before the first */
    uint64_t cpu_idle;
    counted cpu_load;  /* smoothed, percent */
    uint32_t mem_load; /* percent */
    counted hosts;
    uint32_t hosts_max; /* as the host tool reports it */
    counted connections;
};

sysload_state state;

/* 100 * part / whole, without overflow for any counters. */
uint64_t percent_of(uint64_t part, uint64_t whole) {
    return whole > UINT64_MAX / 100 ? part / (whole / 100) : 100 * part / whole;
}

void update_cpu_load(uint64_t total, uint64_t idle) {
    const uint64_t dtotal = total - state.cpu_total;
    const uint64_t didle = idle - state.cpu_idle;
    if (dtotal == 0) {
        /* Two reads within one tick of the kernel's clock: nothing is known about the time between.
         */
        return;
    }
    const uint64_t idle_percent = percent_of(didle < dtotal ? didle : dtotal, dtotal);
    state.cpu_load.value = (static_cast<uint32_t>(100 - idle_percent) + state.cpu_load.value) >> 1;
}

/* Always maxima, whatever the interface histories keep. */
void feed_history(counted* figure) {
    for (unsigned i = 0; i < HISTORY_SPANS; i++) {
        uint32_t* maximum = &figure->maximum[i];
        if (*maximum < figure->value) {
            *maximum = figure->value;
        }
        char sample[4];
        text_put_be32(sample, *maximum);
        /* The load's samples are single bytes. */
        const char* low_bytes = sample + sizeof sample - figure->history[i].sample_size;
        if (history_tick(&figure->history[i], low_bytes) == 1) {
            *maximum = 0;
        }
    }
}

void mem_poll() {
    FILE* file = fopen("/proc/meminfo", "re");
    if (file != nullptr) {
        const uint32_t load = mem_update(file);
        fclose(file);
        stat_set_number("mem.load", load);
    }
}

void host_poll() {
    char output[TOOL_OUTPUT_SIZE];
    if (tool_output(HOST_COMMAND, 2, output)) {
        host_update(output);
    }
    host_publish();
}

void conn_poll() {
    char output[TOOL_OUTPUT_SIZE];
    if (tool_output(CONN_COMMAND, 1, output)) {
        conn_update(output);
    }
    conn_publish();
}

} // namespace

uint32_t cpu_update(const char* line) {
    unsigned long long n[7];
    if (strncmp(line, "cpu  ", 5) == 0 &&
        sscanf(line + 5, "%llu %llu %llu %llu %llu %llu %llu", &n[0], &n[1], &n[2], &n[3], &n[4],
               &n[5], &n[6]) == 7) {
        const uint64_t total = n[0] + n[1] + n[2] + n[3] + n[4] + n[5] + n[6];
        const uint64_t idle = n[3];
        if (state.cpu_total != 0) {
            update_cpu_load(total, idle);
        }
        state.cpu_total = total;
        state.cpu_idle = idle;
    }
    return state.cpu_load.value;
}

/* The first lines look like
 *   cpu  74608 2520 24433 1117073 6176 4054 0 0 0 0
 *   cpu0 ...
 * (user, nice, system, idle, iowait, irq, softirq and more, in jiffies). */
void cpu_poll() {
    FILE* file = fopen("/proc/stat", "re");
    if (file == nullptr) {
        return;
    }
    char line[CPU_LINE_SIZE];
    const bool read = fgets(line, sizeof line, file) != nullptr;
    fclose(file);
    const uint32_t load = cpu_update(read ? line : "");
    feed_history(&state.cpu_load);
    stat_set_number("cpu.load", load);
}

/* The file begins with
 *   MemTotal:         61372 kB
 *   MemFree:           5472 kB
 *   Buffers:           3240 kB
 *   Cached:           12340 kB
 * on the device. Newer kernels have a line in between, which ends the reading: buffers and cache
 * then count as used. Arithmetic is 32 bits wide, and above 41 GiB the load means nothing. */
uint32_t mem_update(FILE* file) {
    unsigned long long n[4] = {};
    /* A pattern that does not match ends the reading; what was not read is 0. */
    (void)(fscanf(file, "MemTotal: %llu kB\n", &n[0]) == 1 &&
           fscanf(file, "MemFree: \t%llu kB\n", &n[1]) == 1 &&
           fscanf(file, "Buffers:  %llu kB\n", &n[2]) == 1 &&
           fscanf(file, "Cached:   %llu kB\n", &n[3]) == 1);
    const uint32_t total = stat_unsigned_reading(n[0]);
    const uint32_t available =
        stat_unsigned_reading(n[1]) + stat_unsigned_reading(n[2]) + stat_unsigned_reading(n[3]);
    if (total != 0 && available <= total) {
        state.mem_load = (total - available) * 100 / total;
    }
    return state.mem_load;
}

void host_update(const char* output) {
    long long reading = 0;
    int end = 0;
    if (sscanf(output, "Online hosts: %lld\n%n", &reading, &end) == 1) {
        state.hosts.value = stat_signed_reading(reading);
        if (sscanf(output + end, "Max Online hosts: %lld", &reading) == 1) {
            state.hosts_max = stat_signed_reading(reading);
        }
    }
}

void conn_update(const char* output) {
    long long reading = 0;
    if (sscanf(output, "%lld", &reading) != 1) {
        reading = 0;
    }
    state.connections.value = stat_signed_reading(reading);
}

void host_publish() {
    stat_set_number("host.num", state.hosts.value);
    stat_set_number("host.maxnum", state.hosts_max);
    feed_history(&state.hosts);
}

void conn_publish() {
    stat_set_number("conn", state.connections.value);
    feed_history(&state.connections);
}

int stats_ontimer(void*) {
    netdev_poll_flags();
    netdev_poll();
    cpu_poll();
    mem_poll();
    host_poll();
    conn_poll();
    return 0;
}

void module_stats_start() {
    history_free_set(state.cpu_load.history);
    history_free_set(state.hosts.history);
    history_free_set(state.connections.history);
    state = {};
    history_init_set(state.cpu_load.history, "cpu", CPU_SAMPLE_SIZE);
    history_init_set(state.hosts.history, "host", HOST_SAMPLE_SIZE);
    history_init_set(state.connections.history, "conn", CONN_SAMPLE_SIZE);
    loop_add_timer(TICK_MS, stats_ontimer, nullptr);
    object_register_string_hook(history_algor_hook);
}
