#pragma once

#include "ctl/ctl_call.h"

/* "observe": prints each change that the daemon announces as one line (ctl_print_event), as soon as
 * it comes, until SIGINT or SIGTERM ends the process with status 0. Returns early, with CTL_DONE
 * when nobody reads the output any more, with CTL_NO_REPLY when the daemon is gone. With `raw` the
 * frames are printed as they come, the daemon's first reply included. */
ctl_status ctl_observe(ctl_call* call);
