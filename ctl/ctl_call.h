#pragma once

#include "ctl/ctl_link.h"
#include "ctl/ctl_status.h"
#include "ctl/ctl_text.h"

/* What a subcommand of tessctl's own is handed. It prints to standard output and standard error,
 * and what it returns is the exit status. The link is closed by whoever made it. */
struct ctl_call {
    ctl_link* link;
    bool raw;      /* print the bytes of the frames as they come */
    bool terminal; /* standard output is a terminal */
    int count;     /* words, the subcommand's name included */
    const char* const* words;
};

/* Says on standard error what is wrong with the command line, and where to read about it. Returns
 * CTL_USAGE. */
ctl_status ctl_call_wrong_usage(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* Says on standard error what is wrong with a key, and returns `status`. */
ctl_status ctl_call_complain(ctl_text key, const char* why, ctl_status status);

/* Sends the words as one request. True when the reply stands in the link, to be shown. Otherwise
 * `*status` is the subcommand's: no reply came, or it was printed as it came, since that is wanted.
 */
bool ctl_call_ask(const ctl_call* call, int count, const char* const* words, ctl_status* status);

/* The same for the string under a key. True when there is one: `*value` then stands in the link's
 * reply. */
bool ctl_call_get(const ctl_call* call, const char* name, ctl_text* value, ctl_status* status);
