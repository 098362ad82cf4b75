#pragma once

#include <stdio.h>

#include "ctl/ctl_call.h"
#include "ctl/ctl_text.h"

/* "pings": prints the ping figures that the daemon has summed up in "ping.snap" (its bytes are
 * described in stats/formats.h), a line for each target that has reported.
 *
 * CTL_NIL, with a word on standard error, when there is no such key; CTL_ERROR, likewise, when its
 * value has not the length that it should have. With `raw` the daemon's reply to "get" is printed
 * as it comes. */
ctl_status ctl_pings(ctl_call* call);

/* Prints the table of a value. False, without a word, when its length is wrong. */
bool ctl_pings_table(FILE* out, ctl_text snap);
