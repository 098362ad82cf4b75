#pragma once

#include "ctl/ctl_call.h"

/* "top": a live screen of the daemon's figures, drawn once a second, until "q" or an interrupt ends
 * it with status 0. The plots show the last samples of the ten-minute histories, but that of the
 * memory, of which there is no history, what was seen since the start.
 *
 * CTL_USAGE when standard input and output are no terminal; CTL_NO_REPLY when the daemon is gone.
 */
ctl_status ctl_top(ctl_call* call);
