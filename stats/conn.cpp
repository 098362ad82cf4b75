#include "stats/conn.h"

#include <stdio.h>

#include "stats/figure.h"
#include "stats/stat_value.h"
#include "stats/tool.h"

namespace {

constexpr char COMMAND[] = "conntrack -S | head -n 1 | awk '{print $2}'";

figure connections;

} // namespace

void conn_update(const char* output) {
    long long reading = 0;
    if (sscanf(output, "%lld", &reading) != 1) {
        reading = 0;
    }
    connections.value = stat_signed_reading(reading);
}

void conn_publish() {
    stat_set_number("conn", connections.value);
    figure_tick(&connections);
}

void conn_poll() {
    char output[TOOL_OUTPUT_SIZE];
    if (tool_output(COMMAND, 1, output)) {
        conn_update(output);
    }
    conn_publish();
}

void conn_start() {
    figure_start(&connections, "conn", CONN_SAMPLE_SIZE);
}
