#pragma once

#include "core/buffer.h"
#include "loop/connection.h"

/* Child processes: a shell command runs beside the loop, its standard output is collected through a
 * pipe that the loop watches like any connection, and the whole output is handed over when the pipe
 * closes.
 *
 * The child's complaints go to /dev/null. Of the daemon's descriptors it has standard input alone.
 */

/* The whole output of a child process: `output` is valid only during the call. The argument is the
 * caller's. */
typedef void (*child_completed)(buffer* output, void* argument, int reason);

/* Starts the command. `completed` is called exactly once, with everything the child wrote and the
 * reason for which the pipe closed: CONNECTION_PEER_CLOSED when the child closed its output, as it
 * does by ending, or CONNECTION_READ_FAILED when it wrote more than an input buffer takes (1 MiB);
 * the output is then its first part. A command that cannot be run has no output.
 *
 * Each completion reaps at most one child that has ended, whichever it is; a child that lives on
 * after closing its output is reaped by a later completion.
 *
 * False when no child could be started; nothing is called then. */
bool child_spawn(const char* command, child_completed completed, void* argument);
