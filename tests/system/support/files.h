#pragma once

#include <sys/types.h>

#include <string>

/* Whole files in and out of strings, for what the tests lay down for the daemon and read back from
 * it. */

namespace system_test {

/* The file's bytes; empty when it cannot be read. */
std::string read_file(const std::string& path);

/* Writes the file whole under another name and moves it into place, so that a reader sees either
 * the old or the new text. The mode is set exactly, whatever the umask. Missing folders above it
 * are made. Records a test failure when that does not work. */
void write_file(const std::string& path, const std::string& text, mode_t mode = 0644);

/* Makes the folder and those above it; folders that exist are left alone. */
void make_folders(const std::string& path);

bool file_exists(const std::string& path);

} // namespace system_test
