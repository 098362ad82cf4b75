#include "stats/tool.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/text.h"

namespace {

typedef void (*signal_handler)(int);

/* The daemon ignores SIGPIPE, and a program that it starts would inherit that: one that writes for
 * ever into a closed pipe would then never end. Returns what end_normal_pipe_signal puts back. */
signal_handler begin_normal_pipe_signal() {
    return signal(SIGPIPE, SIG_DFL);
}

void end_normal_pipe_signal(signal_handler before) {
    (void)signal(SIGPIPE, before);
}

void read_lines(FILE* output, unsigned lines, char (&text)[TOOL_OUTPUT_SIZE]) {
    size_t length = 0;
    bool blank = true;
    /* Byte by byte, since a NUL must count as well. */
    for (int c; lines > 0 && length < sizeof text - 1 && (c = getc(output)) != EOF;) {
        text[length++] = static_cast<char>(c);
        if (c == '\n' && !blank) {
            lines--;
        }
        blank = c == '\n' || (blank && strchr(" \t\r\v\f", c) != nullptr && c != '\0');
    }
    text[length] = '\0';
}

} // namespace

bool tool_output(const char* command, unsigned lines, char (&text)[TOOL_OUTPUT_SIZE]) {
    const char* quiet = str_format("exec 2>/dev/null; %s", command);
    const signal_handler before = begin_normal_pipe_signal();
    FILE* output = popen(quiet, "re");
    end_normal_pipe_signal(before);
    text[0] = '\0';
    if (output == nullptr) {
        return false;
    }
    read_lines(output, lines, text);
    (void)pclose(output);
    return true;
}

void tool_run(const char* command) {
    const signal_handler before = begin_normal_pipe_signal();
    (void)!system(command);
    end_normal_pipe_signal(before);
}
