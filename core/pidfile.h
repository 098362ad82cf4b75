#pragma once

#include <sys/types.h>

/* The pid file, through which a daemon that starts finds and ends the one before it: a restart
 * needs no stop before it. */

/* Ends the process that the file names, if its name begins with "tessard" and it is not `self`, and
 * writes `self` into the file. Its end is not waited for. Without a file that can be written the
 * next daemon only fails to find this one; nothing is said of it, unless what stands there is no
 * plain file of one name. That is neither read nor written. */
void pidfile_take(const char* path, pid_t self);
