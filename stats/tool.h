#pragma once

#include <stddef.h>

/* The outside commands that the statistics ask and start. */

/* The most that is looked at of a command's output, NUL included. */
constexpr size_t TOOL_OUTPUT_SIZE = 4096;

/* Runs a shell command, waits for it and stores its output up to the end of the line `lines`, blank
 * lines not counted, as a C string. No more is read: a process that the command leaves behind with
 * its output open is not waited for, and a command that writes more is ended by SIGPIPE. What it
 * complains about goes nowhere. Returns false, with an empty text, when it cannot be started. */
bool tool_output(const char* command, unsigned lines, char (&text)[TOOL_OUTPUT_SIZE]);

/* Runs a shell command and waits for the shell, its output and complaints left alone. */
void tool_run(const char* command);
