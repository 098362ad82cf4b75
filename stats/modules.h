#pragma once

/* The statistics modules: the table of their start functions, called once at start-up. */

/* Calls every start function in table order. */
void modules_start();

/* How the histories of interfaces condense their samples: 1 keeps maxima, 0 averages. */
extern int history_iface_algor;

/* "max" and "avg" choose the algorithm; other words leave it as it is. */
void history_algor_option(const char* text);
