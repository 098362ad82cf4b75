#include "loop/child.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/descriptor.h"
#include "core/pool.h"
#include "loop/endpoint.h"
#include "loop/loop.h"

namespace {

/* Who is to be told, kept at the pipe's connection. */
struct completion {
    child_completed completed;
    void* argument;
};

/* Makes `fd` the descriptor `target`, which the command inherits. */
void move_descriptor(int fd, int target) {
    if (fd == target) {
        (void)fcntl(fd, F_SETFD, 0);
    } else {
        (void)dup2(fd, target);
        close(fd);
    }
}

/* Runs in the child. */
[[noreturn]] void run_command(const char* command, const int (&ends)[2]) {
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) {
        move_descriptor(null, STDERR_FILENO);
    }
    close(ends[0]);
    move_descriptor(ends[1], STDOUT_FILENO);
    descriptor_restore_write_signals();
    execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    _exit(127);
}

/* The output stays in the input buffer until the pipe closes. */
void on_data(connection*) {}

void on_close(connection* c, int reason) {
    completion* record = static_cast<completion*>(c->user_data);
    record->completed(&c->input, record->argument, reason);
    pool_delete(record);
    int status;
    (void)waitpid(-1, &status, WNOHANG);
}

} // namespace

bool child_spawn(const char* command, child_completed completed, void* argument) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0) {
        return false;
    }
    /* Asked before there is a child: a pipe that the loop cannot watch would end the daemon, one
     * that blocks would stop it. */
    const bool usable = ends[0] < loop_maxfd() && endpoint_set_nonblocking(ends[0]) >= 0;
    const pid_t pid = usable ? fork() : -1;
    if (pid < 0) {
        close(ends[0]);
        close(ends[1]);
        return false;
    }
    if (pid == 0) {
        run_command(command, ends);
    }
    close(ends[1]);
    connection* c = connection_open(ends[0]);
    completion* record = pool_new<completion>();
    *record = {completed, argument};
    c->user_data = record;
    c->conn_ondata = on_data;
    c->on_close = on_close;
    return true;
}
