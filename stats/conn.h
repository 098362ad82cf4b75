#pragma once

/* The connections that the kernel tracks for the network: "conn" and its histories, once a second
 * from the kernel's own tool (stats/tool.h says how long that is waited for). The figure is the
 * second word of the tool's first line: 0 when that is no number, as with the versions of the tool
 * that begin with "cpu=0 found=0". It stays when the command cannot be started or does not end. */

/* Makes the histories and forgets the figure of an earlier start. */
void conn_start();

/* Runs the command, publishes the figure and ticks the histories. */
void conn_poll();

/* Takes the command's output in: one number. */
void conn_update(const char* output);

/* Publishes the figure as it stands and ticks the histories. */
void conn_publish();
