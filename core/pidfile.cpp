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

/* As much as is read of a small file. */
constexpr size_t TEXT_SIZE = 31;

/* The byte that a daemon locks while it starts. Those behind it are for pids. */
constexpr off_t STARTING = 0;

constexpr useconds_t LOCK_PAUSE_US = 5000;
constexpr int LOCK_TRIES = 400; /* two seconds */

struct pidfile_state {
    int fd;     /* -1 when the file is not open */
    bool tells; /* the file holds our pid */
};

pidfile_state state = {-1, false};

struct flock lock_of(short type, off_t start, off_t length) {
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    return lock;
}

bool set_lock(short type, off_t byte) {
    struct flock lock = lock_of(type, byte, 1);
    return fcntl(state.fd, F_SETLK, &lock) == 0;
}

/* A file system without locks is gone on with at once. */
void wait_for_other_start(const char* path) {
    for (int tries = 0; !set_lock(F_WRLCK, STARTING); tries++) {
        if (errno != EAGAIN && errno != EACCES) {
            return;
        }
        if (tries == LOCK_TRIES) {
            LOG(LOG_WARN, "%s is locked by somebody who does not let go of it", path);
            return;
        }
        usleep(LOCK_PAUSE_US);
    }
}

/* The pid of a daemon that could not write it into the file; 0 when there is none. */
pid_t pid_by_lock() {
    struct flock lock = lock_of(F_WRLCK, STARTING + 1, 0);
    return fcntl(state.fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK ? lock.l_pid : 0;
}

/* Reads the beginning of a file as a text. Returns its length, 0 when it cannot be read. */
size_t read_text(int fd, char (&text)[TEXT_SIZE + 1]) {
    const ssize_t size = fd >= 0 ? pread(fd, text, TEXT_SIZE, 0) : 0;
    const size_t length = size > 0 ? static_cast<size_t>(size) : 0;
    text[length] = '\0';
    return length;
}

/* Its name is looked at, since the pid may have been given to another process in the meantime. */
void end_predecessor(pid_t pid, pid_t self) {
    if (pid <= 0 || pid == self) {
        return;
    }
    char text[TEXT_SIZE + 1];
    snprintf(text, sizeof text, "/proc/%d/comm", static_cast<int>(pid));
    const int fd = descriptor_open_untrusted(text, O_RDONLY);
    (void)read_text(fd, text);
    if (fd >= 0) {
        close(fd);
    }
    if (strncmp(text, PROCESS_NAME, strlen(PROCESS_NAME)) == 0) {
        (void)kill(pid, SIGKILL);
    }
}

/* Writes the pid over the old text, which is cut only then: on a full disk its place is the only
 * one there is. Blanks over the rest keep a reader in between from taking it for digits of the pid.
 */
bool write_pid(pid_t self, size_t old_length) {
    char text[TEXT_SIZE];
    memset(text, ' ', sizeof text);
    uint32_t length;
    const char* digits = text_unsigned(static_cast<uint64_t>(self), &length);
    memcpy(text, digits, length);
    const size_t size = old_length > length ? old_length : length;
    if (pwrite(state.fd, text, size, 0) != static_cast<ssize_t>(size)) {
        return false;
    }
    /* What is left uncut stands behind a blank, or is none. */
    (void)!ftruncate(state.fd, length);
    return true;
}

/* For a daemon that may read the file but not write it. */
void end_predecessor_of_others_file(const char* path, pid_t self) {
    const int fd = descriptor_open_plain(path, O_RDONLY);
    char text[TEXT_SIZE + 1];
    (void)read_text(fd, text);
    if (fd >= 0) {
        close(fd);
    }
    end_predecessor(text_parse_int32(text, nullptr, 10), self);
}

} // namespace

void pidfile_take(const char* path, pid_t self) {
    state.fd = descriptor_open_plain(path, O_RDWR | O_CREAT, 0644);
    if (state.fd < 0) {
        if (errno == ELOOP) {
            LOG(LOG_WARN, "%s is no plain file of one name and was left alone", path);
        } else {
            end_predecessor_of_others_file(path, self);
        }
        return;
    }
    wait_for_other_start(path);
    char text[TEXT_SIZE + 1];
    const size_t length = read_text(state.fd, text);
    end_predecessor(text_parse_int32(text, nullptr, 10), self);
    end_predecessor(pid_by_lock(), self);
    state.tells = write_pid(self, length);
    if (!state.tells) {
        (void)set_lock(F_WRLCK, self);
    }
}

void pidfile_release() {
    if (state.fd < 0) {
        return;
    }
    if (state.tells) {
        /* The lock goes with the descriptor. */
        close(state.fd);
        state.fd = -1;
    } else {
        (void)set_lock(F_UNLCK, STARTING);
    }
}
