#include "stats/host.h"

#include <stdio.h>

#include "stats/figure.h"
#include "stats/stat_value.h"
#include "stats/tool.h"

namespace {

/* What the tool says: how many of the two figures it gave, and where the reading stopped after
 * both. */
struct answer {
    int count;
    long long hosts;
    long long most;
    int end;
};

struct host_state {
    tool host_tool;
    figure hosts;
    uint32_t most; /* as the tool reports it */
};

host_state state;

answer understand(const char* output) {
    answer a = {};
    a.count =
        sscanf(output, "Online hosts: %lld\nMax Online hosts: %lld%n", &a.hosts, &a.most, &a.end);
    return a;
}

bool is_complete(const char* output) {
    const answer a = understand(output);
    return a.count == 2 && output[a.end] != '\0';
}

} // namespace

void host_update(const char* output) {
    const answer a = understand(output);
    if (a.count >= 1) {
        state.hosts.value = stat_signed_reading(a.hosts);
    }
    if (a.count == 2) {
        state.most = stat_signed_reading(a.most);
    }
}

void host_publish() {
    stat_set_number("host.num", state.hosts.value);
    stat_set_number("host.maxnum", state.most);
    figure_tick(&state.hosts);
}

void host_poll() {
    char output[TOOL_OUTPUT_SIZE];
    if (tool_ask(&state.host_tool, output)) {
        host_update(output);
    }
    host_publish();
}

void host_start() {
    state.host_tool = {"hostmon --showg", is_complete, false, 0};
    state.most = 0;
    figure_start(&state.hosts, "host", HOST_SAMPLE_SIZE);
}
