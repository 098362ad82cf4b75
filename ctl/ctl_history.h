#pragma once

#include "ctl/ctl_call.h"

/* "history [--csv|--json|--plot] KEY": prints the samples of a history, oldest first, in the form
 * asked for (ctl_form, ctl_chart).
 *
 * CTL_NIL, with a word on standard error, when there is no such key; CTL_ERROR, likewise, when its
 * value is no history. With `raw` the daemon's reply to "get" is printed as it comes. */
ctl_status ctl_history(ctl_call* call);
