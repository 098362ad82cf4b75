#include "core/pidfile.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "core/descriptor.h"
#include "core/text.h"

namespace {

constexpr char PROCESS_NAME[] = "tessard";

/* Reads at most 31 bytes of a file, ended with a NUL. Returns -1 when it cannot be read. */
int read_small_file(const char* path, char (&text)[32]) {
    const int fd = descriptor_open_untrusted(path, O_RDONLY);
    if (fd < 0) {
        return -1;
    }
    const ssize_t size = read(fd, text, sizeof text - 1);
    close(fd);
    text[size > 0 ? size : 0] = '\0';
    return size < 0 ? -1 : 0;
}

/* A predecessor that still runs is ended. Its name is looked at, since the pid may have been given
 * to another process in the meantime. */
void end_predecessor(const char* file, pid_t self) {
    char text[32];
    if (read_small_file(file, text) < 0) {
        return;
    }
    const int pid = text_parse_int32(text, nullptr, 10);
    if (pid <= 0 || pid == self) {
        return;
    }
    char path[32];
    snprintf(path, sizeof path, "/proc/%d/comm", pid);
    if (read_small_file(path, text) == 0 &&
        strncmp(text, PROCESS_NAME, strlen(PROCESS_NAME)) == 0) {
        (void)kill(pid, SIGKILL);
    }
}

void write_own(const char* path, pid_t self) {
    const int fd = descriptor_open_untrusted(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
        return;
    }
    uint32_t length;
    const char* text = text_unsigned(static_cast<uint64_t>(self), &length);
    (void)!write(fd, text, length);
    close(fd);
}

} // namespace

void pidfile_take(const char* path, pid_t self) {
    end_predecessor(path, self);
    write_own(path, self);
}
