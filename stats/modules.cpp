#include "stats/modules.h"

#include <string.h>

int history_iface_algor = 1;

namespace {

typedef void (*module_start)();

/* Ends with a null entry. */
const module_start stat_modules[] = {nullptr};

} // namespace

void modules_start() {
    for (const module_start* start = stat_modules; *start != nullptr; start++) {
        (*start)();
    }
}

void history_algor_option(const char* text) {
    if (strcmp(text, "max") == 0) {
        history_iface_algor = 1;
    } else if (strcmp(text, "avg") == 0) {
        history_iface_algor = 0;
    }
}
