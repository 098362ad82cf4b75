#pragma once

/* Exit statuses of tessctl. Scripts rely on them: a number, once given, keeps its meaning. */
enum ctl_status {
    CTL_DONE = 0,
    CTL_NIL = 1,      /* the reply was nil: there is no such key, field or item */
    CTL_ERROR = 2,    /* the daemon replied with an error */
    CTL_NO_REPLY = 3, /* no daemon there, or no whole and well-formed reply of it in time */
    CTL_USAGE = 64,   /* the command line makes no sense; nothing was sent */
    CTL_NO_MEMORY = 71,
    CTL_OUTPUT = 74, /* standard output did not take everything */
};
