#include "core/pidfile.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "core/descriptor.h"
#include "core/log.h"
#include "core/text.h"

namespace {

constexpr char PROCESS_NAME[] = "tessard";

/* Reads at most 31 bytes of what was opened and closes it. The text ends with a NUL. False when it
 * was not opened or cannot be read. */
bool read_and_close(int fd, char (&text)[32]) {
    if (fd < 0) {
        return false;
    }
    const ssize_t size = read(fd, text, sizeof text - 1);
    close(fd);
    text[size > 0 ? size : 0] = '\0';
    return size >= 0;
}

/* A predecessor that still runs is ended. Its name is looked at, since the pid may have been given
 * to another process in the meantime. */
void end_predecessor(const char* file, pid_t self) {
    char text[32];
    if (!read_and_close(descriptor_open_plain(file, O_RDONLY), text)) {
        return;
    }
    const int pid = text_parse_int32(text, nullptr, 10);
    if (pid <= 0 || pid == self) {
        return;
    }
    char path[32];
    snprintf(path, sizeof path, "/proc/%d/comm", pid);
    if (read_and_close(descriptor_open_untrusted(path, O_RDONLY), text) &&
        strncmp(text, PROCESS_NAME, strlen(PROCESS_NAME)) == 0) {
        (void)kill(pid, SIGKILL);
    }
}

void write_own(const char* path, pid_t self) {
    const int fd = descriptor_open_plain(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 && errno == ELOOP) {
        LOG(LOG_WARN, "%s is no plain file of one name and was left alone", path);
    }
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
