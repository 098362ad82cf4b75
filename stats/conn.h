#pragma once

/* The connections that the kernel tracks for the network: "conn" and its histories, once a second
 * from the kernel's own tool. The figure drops to 0 when the output holds no number and stays when
 * the command cannot be started. */

/* Makes the histories and forgets the figure of an earlier start. */
void conn_start();

/* Runs the command, publishes the figure and ticks the histories. */
void conn_poll();

/* Takes the command's output in: one number. */
void conn_update(const char* output);

/* Publishes the figure as it stands and ticks the histories. */
void conn_publish();
