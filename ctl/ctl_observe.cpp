#include "ctl/ctl_observe.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include "ctl/ctl_print.h"

namespace {

/* Whole lines have been flushed, so nothing is left to be done but to go; a flag would have to wait
 * until a reader that has stopped reading takes the line being written. */
void on_interrupt(int) {
    _exit(CTL_DONE);
}

void catch_signals() {
    struct sigaction action = {};
    action.sa_handler = on_interrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    /* A reader that goes is as good as an interrupt, whether it is noticed while writing or while
     * waiting. */
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
}

/* Prints the frame that is there; does not return when its reader is gone. */
ctl_status show(const ctl_call* call) {
    if (call->raw) {
        (void)ctl_print_raw(stdout, &call->link->reply);
    } else {
        ctl_print_event(stdout, &call->link->reply);
    }
    if ((fflush(stdout) != 0 || ferror(stdout) != 0) && errno == EPIPE) {
        _exit(CTL_DONE);
    }
    return ctl_print_finish(stdout);
}

/* The daemon's answer to the request itself. */
ctl_status begin(ctl_call* call) {
    const char* const words[] = {"observe"};
    const ctl_status asked = ctl_link_ask(call->link, 1, words);
    if (asked != CTL_DONE) {
        return asked;
    }
    const ctl_reply* reply = &call->link->reply;
    if (reply->kind == '+') {
        return call->raw ? show(call) : CTL_DONE;
    }
    if (call->raw) {
        (void)ctl_print_raw(stdout, reply);
    } else if (reply->kind == '-') {
        (void)ctl_print_reply(stdout, stderr, reply, call->terminal, false);
    }
    if (reply->kind == '-') {
        return CTL_ERROR;
    }
    fputs("tessctl: the daemon does not answer as to an observer\n", stderr);
    return CTL_NO_REPLY;
}

} // namespace

ctl_status ctl_observe(ctl_call* call) {
    if (call->count != 1) {
        return ctl_call_wrong_usage("observe takes no arguments");
    }
    catch_signals();
    ctl_status status = begin(call);
    while (status == CTL_DONE) {
        status = ctl_link_next_event(call->link);
        if (status == CTL_OUTPUT) {
            return CTL_DONE;
        }
        if (status == CTL_DONE) {
            status = show(call);
        }
    }
    return status;
}
