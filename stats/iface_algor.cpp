#include "stats/iface_algor.h"

#include <string.h>

int history_iface_algor = 1;

void history_algor_option(const char* text) {
    if (strcmp(text, "max") == 0) {
        history_iface_algor = 1;
    } else if (strcmp(text, "avg") == 0) {
        history_iface_algor = 0;
    }
}

int history_algor_hook(object* obj) {
    if (object_key_is(obj, "history-iface-algor")) {
        history_algor_option(object_string(obj));
    }
    return 0;
}
