#pragma once

#include <stddef.h>
#include <sys/types.h>

/* Descriptors, and what may go wrong when a program gets one. */

/* Opens a file or device at a path where others may have put something else. Waits for nothing (the
 * other end of a FIFO, a carrier), takes no terminal as the controlling one, and no program that is
 * started inherits the descriptor, which is non-blocking. `flags` are those of open beside that,
 * `mode` is for a file that is made. Returns the descriptor, or -1 with errno set. */
int descriptor_open_untrusted(const char* path, int flags, mode_t mode = 0);

/* The same for a file of our own in a folder where others may make files too. What stands there
 * must be a plain file with this one name; it is not opened through a symbolic link, and what is
 * opened is emptied (O_TRUNC) only when all that is known. Returns -1 with ELOOP for anything else.
 */
int descriptor_open_plain(const char* path, int flags, mode_t mode = 0);

/* Raises the process's limit of descriptors to `count`, or as far as that may be. A higher one
 * stays.
 */
void descriptor_raise_limit(unsigned count);

/* Makes writes into a pipe that nobody reads any more, or beyond the limit of file sizes, fail as
 * they do on a full disk: the signals for them (SIGPIPE, SIGXFSZ), which end a process, are
 * ignored. A program that is started inherits that, so they are restored before: one that writes
 * for ever must die of its closed pipe. */
void descriptor_ignore_write_signals();
void descriptor_restore_write_signals();

/* Writes what a pipe or a socket takes without waiting for its reader, and returns how many bytes
 * that was. Not through O_NONBLOCK, which everybody shares who holds the descriptor. Anything else
 * is written as usual, and what is lost there counts as written. Up to PIPE_BUF bytes go into a
 * pipe whole or not at all. Somebody else who writes into it may take the room that was there a
 * moment before; then the reader is waited for. */
size_t descriptor_write_ready(int fd, const char* bytes, size_t size);

/* Fills the places of closed standard descriptors with /dev/null: otherwise their numbers would be
 * given to connections and files, which would then get what is printed. When they are not
 * `working`, reading from and writing to them fails, so that whoever needs them notices. */
void descriptor_hold_standard(bool working);
