#pragma once

#include <stddef.h>
#include <sys/types.h>

/* The outside commands that the statistics ask and start, through the shell.
 *
 * A tool is asked on the loop's thread, and every client waits meanwhile: until the tool has ended,
 * at most 5 seconds. One that has not ended by then is killed with its children, that is the
 * process group that it leads, and has given no answer; this is said once for each tool, at warn
 * level. Nothing else spares the clients: a tool that hangs on every tick is asked on every tick
 * and holds them 5 seconds each time. One that the kernel does not let die is not asked again until
 * it has gone.
 *
 * What is started here has the default actions of SIGPIPE and SIGXFSZ, which the daemon ignores. A
 * tool that is asked finds nothing on its standard input: in a process group of its own it would be
 * stopped when it reads from the daemon's terminal. */

/* The most that is looked at of a tool's output, NUL included. */
constexpr size_t TOOL_OUTPUT_SIZE = 4096;

constexpr int TOOL_LIMIT_MS = 5000;

struct tool {
    const char* command; /* for the shell */
    /* True when nothing that follows on this output would change what is read from it. */
    bool (*is_complete)(const char* output);
    bool hanging_said; /* in the log */
    pid_t lingering;   /* one that was killed and has not gone yet; 0 when there is none */
};

/* Runs the tool, waits for it and stores its output as a C string. The reading ends when the output
 * is complete or fills the buffer, when the tool closes it or has ended: a process that the tool
 * leaves behind with its output open is not waited for, and one that writes on ends by SIGPIPE.
 * Complaints go nowhere. Returns false, and then the output means nothing, when the tool cannot be
 * started or did not end. */
bool tool_ask(tool* t, char (&output)[TOOL_OUTPUT_SIZE]);

/* Runs a shell command and waits for the shell without a limit, its output and complaints left
 * alone: for commands that the shell puts into the background. */
void tool_start(const char* command);
