#pragma once

#include <string_view>

/* The shell, which runs nothing: while an input runs, a command that the daemon starts is handed to
 * the target, and its output is what the target said before. */

/* Called with each command. */
typedef void (*shell_taken)(const char* command);

/* From now on commands go to `taken`, and write nothing until shell_answer. */
void shell_shut_in(shell_taken taken);

/* Commands are run again, as the library that runs the targets needs it. */
void shell_let_out();

/* What commands that are asked write from now on; at most 32768 bytes of it. */
void shell_answer(std::string_view output);
