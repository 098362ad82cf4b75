#pragma once

#include "tools/ctl_link.h"
#include "tools/ctl_status.h"

/* What a subcommand of tessctl's own is handed. It prints to standard output and standard error, and what it
 * returns is the exit status. The link is closed by whoever made it. */
struct ctl_call {
    ctl_link* link;
    bool raw;      /* print the bytes of the frames as they come */
    bool terminal; /* standard output is a terminal */
    int count;     /* words, the subcommand's name included */
    char** words;
};
