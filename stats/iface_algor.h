#pragma once

#include "store/object.h"

/* How the histories of interfaces condense what lies between two samples. */

/* 1: the maximum of the rates (the initial value); 0: a running average. */
extern int history_iface_algor;

/* "max" and "avg" choose; other words leave the choice as it is. Takes effect with the next tick.
 */
void history_algor_option(const char* text);

/* A string-change hook: a client that writes one of the two words to the key "history-iface-algor"
 * chooses as the option does. Returns 0. */
int history_algor_hook(object* obj);
