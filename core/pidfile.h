#pragma once

#include <sys/types.h>

/* The pid file, through which a daemon that starts finds and ends the one before it: a restart
 * needs no stop before it.
 *
 * From pidfile_take to pidfile_release a daemon holds a record lock on the first byte of the file,
 * so that of two that start together the second finds the first one's pid and listener, and exactly
 * one is left. The lock goes with the process and not to its children.
 *
 * A daemon whose pid could not be written, since the disk is full, keeps the file open and locks
 * the byte whose place in the file is its pid for as long as it lives: the kernel then tells the
 * next one who that is.
 *
 * The file must be a plain one of one name (descriptor_open_plain); anything else is neither read
 * nor written, which a line at level warn says. Any other file that cannot be opened is passed over
 * without a word: the next daemon only fails to find this one. */

/* Waits some seconds at most for another daemon that is starting. Ends the process that the file
 * names, or whose pid could not be written, if its name begins with "tessard" and it is not `self`;
 * its end is not waited for. Then writes `self` into the file. */
void pidfile_take(const char* path, pid_t self);

/* The listener stands, or never will: the next daemon may start. */
void pidfile_release();
