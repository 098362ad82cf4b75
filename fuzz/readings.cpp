/* Texts of the kernel's files and of the outside tools. A step is
 *
 *   0, c     the first line of /proc/stat
 *   m        /proc/meminfo
 *   n        /proc/net/dev, read one second after the last
 *   i        the same, read after as many milliseconds as its first byte says
 *   h        what the host tool writes
 *   t        what the connection command writes
 *   a        the value of "history-iface-algor" */

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "fuzz/support/check.h"
#include "fuzz/support/shell.h"
#include "fuzz/support/steps.h"
#include "fuzz/support/store_check.h"
#include "fuzz/support/world.h"
#include "stats/conn.h"
#include "stats/cpu.h"
#include "stats/host.h"
#include "stats/mem.h"
#include "stats/netdev.h"

namespace {

constexpr uint32_t PERCENT_MAX = 100;

/* When the traffic was read last. */
uint64_t traffic_ms;

FILE* stream_of(std::string* text) {
    /* There is no stream of no bytes. */
    return text->empty() ? fopen("/dev/null", "re") : fmemopen(text->data(), text->size(), "r");
}

void read_memory(std::string* text) {
    FILE* file = stream_of(text);
    fuzz_require(mem_update(file) <= PERCENT_MAX, "the memory load is above 100 percent");
    fclose(file);
}

void read_traffic(std::string* text, uint32_t passed_ms) {
    traffic_ms += passed_ms;
    netdev_set_interval(static_cast<uint32_t>(traffic_ms / 1000),
                        static_cast<uint32_t>(traffic_ms % 1000 * 1000));
    FILE* file = stream_of(text);
    netdev_read(file);
    fclose(file);
}

/* The commands need not be looked at. */
void take_command(const char*) {}

void carry_out(fuzz_step* step) {
    switch (step->kind) {
    case 'm':
        read_memory(&step->text);
        break;
    case 'n':
        read_traffic(&step->text, 1000);
        break;
    case 'i': {
        const uint32_t passed = step->text.empty() ? 0 : static_cast<unsigned char>(step->text[0]);
        step->text.erase(0, 1);
        read_traffic(&step->text, passed);
        break;
    }
    case 'h':
        shell_answer(step->text);
        host_poll();
        break;
    case 't':
        shell_answer(step->text);
        conn_poll();
        break;
    case 'a':
        world_set_string("history-iface-algor", step->text);
        break;
    default:
        fuzz_require(cpu_update(step->text.c_str()) <= PERCENT_MAX,
                     "the load is above 100 percent");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    world_start();
    shell_shut_in(take_command);
    traffic_ms = uint64_t{WORLD_START} * 1000;
    fuzz_steps steps = steps_start(bytes, size);
    fuzz_step step;
    while (steps_next(&steps, &step)) {
        carry_out(&step);
    }
    shell_let_out();
    store_check();
    rings_check(true);
    return 0;
}
