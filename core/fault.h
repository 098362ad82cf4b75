#pragma once

/* What becomes of a broken invariant in the ground floors.
 *
 * An invariant is something that our own code guarantees, never something that a client, a file or
 * the kernel says. The units `loop`, `buffer` and `algor` report it without the log, through the C
 * library's assertion handler, in every build. The unit, line and function in the message are
 * fixed: they are handed in by the caller and do not move when the source is edited. */

/* Prints the C library's assertion message for `expression` and aborts the process. Never returns.
 */
[[noreturn]] void fault_abort(const char* expression, const char* unit, int line,
                              const char* function);

/* Ends the process because the heap is exhausted: nothing that the daemon does makes sense without
 * it, and half-made records would be worse than a restart by the init system. Never returns. */
[[noreturn]] void fault_no_memory();
