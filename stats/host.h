#pragma once

/* The online hosts: "host.num", its histories and "host.maxnum", once a second from the device's
 * host tool. What the tool does not say stays as it was. */

/* Makes the histories and forgets the figures of an earlier start. */
void host_start();

/* Runs the tool, publishes the figures and ticks the histories. */
void host_poll();

/* Takes the tool's output in: "Online hosts: 5", then perhaps "Max Online hosts: 9". */
void host_update(const char* output);

/* Publishes the figures as they stand and ticks the histories. */
void host_publish();
