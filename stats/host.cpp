#include "stats/host.h"

#include <stdio.h>

#include "stats/figure.h"
#include "stats/stat_value.h"
#include "stats/tool.h"

namespace {

constexpr char COMMAND[] = "hostmon --showg";

struct host_state {
    figure hosts;
    uint32_t most; /* as the tool reports it */
};

host_state state;

} // namespace

void host_update(const char* output) {
    long long reading = 0;
    int end = 0;
    if (sscanf(output, "Online hosts: %lld\n%n", &reading, &end) == 1) {
        state.hosts.value = stat_signed_reading(reading);
        if (sscanf(output + end, "Max Online hosts: %lld", &reading) == 1) {
            state.most = stat_signed_reading(reading);
        }
    }
}

void host_publish() {
    stat_set_number("host.num", state.hosts.value);
    stat_set_number("host.maxnum", state.most);
    figure_tick(&state.hosts);
}

void host_poll() {
    char output[TOOL_OUTPUT_SIZE];
    if (tool_output(COMMAND, 2, output)) {
        host_update(output);
    }
    host_publish();
}

void host_start() {
    state.most = 0;
    figure_start(&state.hosts, "host", HOST_SAMPLE_SIZE);
}
