#include "stats/tick.h"

#include "loop/loop.h"
#include "stats/conn.h"
#include "stats/cpu.h"
#include "stats/host.h"
#include "stats/mem.h"
#include "stats/netdev.h"

namespace {

constexpr uint32_t TICK_MS = 1000;

} // namespace

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
    netdev_start();
    cpu_start();
    mem_start();
    host_start();
    conn_start();
    loop_add_timer(TICK_MS, stats_ontimer, nullptr);
    object_register_string_hook(history_algor_hook);
}
