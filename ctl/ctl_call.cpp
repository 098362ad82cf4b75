#include "ctl/ctl_call.h"

#include <stdarg.h>
#include <stdio.h>

#include "ctl/ctl_print.h"

ctl_status ctl_call_wrong_usage(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    fputs("tessctl: ", stderr);
    vfprintf(stderr, format, arguments);
    fputs("\nTry tessctl -h.\n", stderr);
    va_end(arguments);
    return CTL_USAGE;
}

ctl_status ctl_call_complain(ctl_text key, const char* why, ctl_status status) {
    fputs("tessctl: ", stderr);
    ctl_print_quoted(stderr, key);
    fprintf(stderr, ": %s\n", why);
    return status;
}

bool ctl_call_ask(const ctl_call* call, int count, const char* const* words, ctl_status* status) {
    *status = ctl_link_ask(call->link, count, words);
    if (call->raw) {
        const ctl_status meant = ctl_print_raw(stdout, &call->link->reply);
        *status = *status == CTL_DONE ? meant : *status;
        return false;
    }
    return *status == CTL_DONE;
}

bool ctl_call_get(const ctl_call* call, const char* name, ctl_text* value, ctl_status* status) {
    const char* const words[] = {"get", name};
    if (!ctl_call_ask(call, 2, words, status)) {
        return false;
    }
    const ctl_text key = ctl_text_of(name);
    const ctl_reply* reply = &call->link->reply;
    if (reply->kind != '$') {
        *status = ctl_call_complain(key, "the daemon gives no string for it", CTL_ERROR);
        return false;
    }
    *value = ctl_reply_item(reply, 0);
    if (value->bytes == nullptr) {
        *status = ctl_call_complain(key, "there is no such key", CTL_NIL);
        return false;
    }
    return true;
}
