#include "stats/tool.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdint.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "core/log.h"

namespace {

/* How often it is looked whether a silent tool has ended. */
constexpr int LOOK_MS = 20;

/* What a kill takes at most, but for a process that hangs in the kernel. */
constexpr int KILL_MS = 500;

/* A tool that was started and not reaped yet. */
struct running {
    pid_t pid;
    int output; /* the reading end */
    int64_t deadline;
    bool ended;
};

int64_t now_ms() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/* What a shell is started with: the default actions of the ignored signals, and, with a descriptor
 * for its output, a process group of its own and complaints that go nowhere. */
bool set_up(posix_spawnattr_t* attributes, posix_spawn_file_actions_t* actions, int output) {
    sigset_t defaults;
    (void)sigemptyset(&defaults);
    (void)sigaddset(&defaults, SIGPIPE);
    (void)sigaddset(&defaults, SIGXFSZ);
    if (posix_spawnattr_setsigdefault(attributes, &defaults) != 0) {
        return false;
    }
    if (output < 0) {
        return posix_spawnattr_setflags(attributes, POSIX_SPAWN_SETSIGDEF) == 0;
    }
    return posix_spawnattr_setflags(attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP) ==
               0 &&
           posix_spawn_file_actions_addopen(actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0) == 0 &&
           posix_spawn_file_actions_adddup2(actions, output, STDOUT_FILENO) == 0 &&
           posix_spawn_file_actions_addopen(actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0) == 0;
}

/* Starts a shell; `output` is below 0 for one whose output is left alone. Returns its process, or
 * -1. */
pid_t spawn_shell(const char* command, int output) {
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
    if (posix_spawnattr_init(&attributes) != 0) {
        return -1;
    }
    pid_t pid = -1;
    if (posix_spawn_file_actions_init(&actions) == 0) {
        char* const words[] = {const_cast<char*>("sh"), const_cast<char*>("-c"),
                               const_cast<char*>(command), nullptr};
        if (!set_up(&attributes, &actions, output) ||
            posix_spawn(&pid, "/bin/sh", &actions, &attributes, words, environ) != 0) {
            pid = -1;
        }
        (void)posix_spawn_file_actions_destroy(&actions);
    }
    (void)posix_spawnattr_destroy(&attributes);
    return pid;
}

/* Reaps the process if it has ended. Also true when somebody else has reaped it. */
bool has_ended(pid_t pid) {
    return waitpid(pid, nullptr, WNOHANG) != 0;
}

/* Waits for the tool until the deadline. Most have ended or are about to. */
void wait_for_end(running* r, int64_t deadline) {
    timespec nap = {0, 100000};
    while (!r->ended) {
        r->ended = has_ended(r->pid);
        if (r->ended || now_ms() >= deadline) {
            return;
        }
        (void)nanosleep(&nap, nullptr);
        if (nap.tv_nsec < LOOK_MS * 1000000 / 2) {
            nap.tv_nsec *= 2;
        }
    }
}

/* Takes what is there. Returns false at the end of the output. */
bool read_more(int fd, size_t* length, char (&output)[TOOL_OUTPUT_SIZE]) {
    const ssize_t size = read(fd, output + *length, sizeof output - 1 - *length);
    if (size > 0) {
        *length += static_cast<size_t>(size);
        output[*length] = '\0';
    }
    return size > 0 || (size < 0 && errno == EINTR);
}

void read_output(running* r, const tool* t, char (&output)[TOOL_OUTPUT_SIZE]) {
    size_t length = 0;
    while (length < sizeof output - 1 && !t->is_complete(output)) {
        const int64_t left = r->deadline - now_ms();
        if (left <= 0) {
            return;
        }
        pollfd waiting = {r->output, POLLIN, 0};
        const int look = left < LOOK_MS ? static_cast<int>(left) : LOOK_MS;
        if (poll(&waiting, 1, r->ended ? 0 : look) > 0) {
            if (!read_more(r->output, &length, output)) {
                return;
            }
        } else if (r->ended) {
            return;
        } else {
            /* What it wrote last is still to be read. */
            r->ended = has_ended(r->pid);
        }
    }
}

void end_hanging(running* r, tool* t) {
    (void)kill(-r->pid, SIGKILL);
    wait_for_end(r, now_ms() + KILL_MS);
    if (!r->ended) {
        t->lingering = r->pid;
    }
    if (!t->hanging_said && log_wants(LOG_WARN)) {
        t->hanging_said = true;
        log_write(LOG_WARN, "outside tool (%s) has not ended after %d seconds and is killed",
                  t->command, TOOL_LIMIT_MS / 1000);
    }
}

} // namespace

bool tool_ask(tool* t, char (&output)[TOOL_OUTPUT_SIZE]) {
    output[0] = '\0';
    if (t->lingering != 0 && !has_ended(t->lingering)) {
        return false;
    }
    t->lingering = 0;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0) {
        return false;
    }
    const int64_t deadline = now_ms() + TOOL_LIMIT_MS;
    running r = {spawn_shell(t->command, ends[1]), ends[0], deadline, false};
    close(ends[1]);
    if (r.pid < 0) {
        close(r.output);
        return false;
    }
    read_output(&r, t, output);
    close(r.output);
    wait_for_end(&r, r.deadline);
    if (r.ended) {
        return true;
    }
    end_hanging(&r, t);
    return false;
}

void tool_start(const char* command) {
    const pid_t shell = spawn_shell(command, -1);
    while (shell > 0 && waitpid(shell, nullptr, 0) < 0 && errno == EINTR) {
    }
}
