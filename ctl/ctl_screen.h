#pragma once

#include <stdint.h>

/* The terminal, taken over for a live screen and given back as it was, however the program ends: by
 * closing it, by exit(), by SIGINT or SIGTERM (which end the program with status 0), by SIGHUP or
 * SIGQUIT (which end it as usual), and while it is stopped by SIGTSTP. Only one screen at a time.
 *
 * While the screen is open, what is written to stderr is held back, to be read when the terminal is
 * itself again. */

/* Takes over the terminal that standard input and output are. False when they are none. */
bool ctl_screen_open();

void ctl_screen_close();

/* Columns and rows at present of what standard output is, whether a screen is open or not; 80 and
 * 24 where it does not know, or is no terminal. */
void ctl_screen_size(unsigned* width, unsigned* height);

/* True, once, when the screen may hold something else than what was drawn last: it is new, has
 * another size, or was somebody else's for a while. Then it is to be cleared before it is drawn. */
bool ctl_screen_is_new();

enum ctl_screen_event {
    CTL_SCREEN_TIME, /* the deadline has come */
    CTL_SCREEN_DRAW, /* the screen is new */
    CTL_SCREEN_QUIT, /* "q" was pressed, or the terminal is gone */
};

/* Waits for what comes first. The deadline is a time of ctl_net_now(). */
ctl_screen_event ctl_screen_wait(int64_t deadline);
