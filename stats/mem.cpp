#include "stats/mem.h"

#include "stats/stat_value.h"

namespace {

uint32_t load; /* percent */

} // namespace

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
        load = (total - available) * 100 / total;
    }
    return load;
}

void mem_poll() {
    FILE* file = fopen("/proc/meminfo", "re");
    if (file == nullptr) {
        return;
    }
    const uint32_t percent = mem_update(file);
    fclose(file);
    stat_set_number("mem.load", percent);
}

void mem_start() {
    load = 0;
}
