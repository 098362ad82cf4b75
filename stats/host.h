#pragma once

/* The online hosts: "host.num", its histories and "host.maxnum", once a second from the device's
 * host tool (stats/tool.h says how long that is waited for). What the tool does not say stays as it
 * was, and both figures do when it cannot be started or does not end. */

/* Makes the histories and forgets the figures of an earlier start. */
void host_start();

/* Runs the tool, publishes the figures and ticks the histories. */
void host_poll();

/* Takes the tool's output in: "Online hosts: 5", then perhaps "Max Online hosts: 9", with any
 * blanks and line ends between the words and before the figures. */
void host_update(const char* output);

/* Publishes the figures as they stand and ticks the histories. */
void host_publish();
