#pragma once

#include <string>
#include <string_view>

/* Files in memory. A client may name any path to "dump" and "load", and so will an input: while an
 * input runs, open() sees these in place of the machine's files, and nothing of the machine is
 * touched.
 *
 * A path is any text. Reading one that was never written fails; at most FILES_MAX are written. Some
 * names make the kernel give its rarer answers:
 *
 *   /full...     takes FILES_FULL_SIZE bytes and no more
 *   /short...    takes FILES_SHORT_SIZE bytes a time, and is interrupted before each
 *   /stuck...    takes nothing
 *   /huge...     is larger than any file that is loaded
 *   /large...    is larger than the memory there is allows, /vast... than any block of it
 *   /lost...     is read while nobody knows how much memory there is
 *   /broken...   cannot be measured
 *   /folder...   is a folder */

constexpr unsigned FILES_MAX = 8;
constexpr size_t FILES_FULL_SIZE = 100;
constexpr size_t FILES_SHORT_SIZE = 97;

/* Forgets all files; open() sees them from now on. */
void files_shut_in();

/* Gives open() back to the machine. */
void files_let_out();

/* All bytes of a file, none for one that does not exist. */
std::string files_read(const char* path);

/* Makes or replaces a file. */
void files_write(const char* path, std::string_view bytes);
