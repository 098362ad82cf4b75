#include "stats/conn.h"

#include <stdio.h>

#include "stats/figure.h"
#include "stats/stat_value.h"
#include "stats/tool.h"

namespace {

struct conn_state {
    tool conn_tool;
    figure connections;
};

conn_state state;

/* The digits have an end. */
bool is_complete(const char* output) {
    int end = 0;
    return sscanf(output, "%*d%n", &end) == 0 && end > 0 && output[end] != '\0';
}

} // namespace

void conn_update(const char* output) {
    long long reading = 0;
    if (sscanf(output, "%lld", &reading) != 1) {
        reading = 0;
    }
    state.connections.value = stat_signed_reading(reading);
}

void conn_publish() {
    stat_set_number("conn", state.connections.value);
    figure_tick(&state.connections);
}

void conn_poll() {
    char output[TOOL_OUTPUT_SIZE];
    if (tool_ask(&state.conn_tool, output)) {
        conn_update(output);
    }
    conn_publish();
}

void conn_start() {
    state.conn_tool = {"conntrack -S | head -n 1 | awk '{print $2}'", is_complete, false, 0};
    figure_start(&state.connections, "conn", CONN_SAMPLE_SIZE);
}
