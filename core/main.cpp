/* The daemon: start-up in a fixed order, then the event loop for the rest of the process's life.
 *
 * The one unit that knows all others: it hands to those below what they need of those above. */

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include "core/descriptor.h"
#include "core/log.h"
#include "core/options.h"
#include "core/sstr.h"
#include "core/text.h"
#include "loop/endpoint.h"
#include "loop/loop.h"
#include "loop/server.h"
#include "proto/command.h"
#include "proto/observe.h"
#include "stats/modules.h"
#include "stats/netdev.h"
#include "store/expire.h"
#include "store/seed.h"

namespace {

constexpr int DESCRIPTOR_LIMIT = 100;
constexpr uint32_t SWEEP_MS = 100;
constexpr char PID_FILE[] = "/tmp/tessard.pid";
constexpr char PROCESS_NAME[] = "tessard";

const log_sockets sockets = {endpoint_connect_local, endpoint_connect_tcp, endpoint_connect_udp,
                             endpoint_is_local_host};

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

/* A predecessor that still runs is ended: a restart needs no stop before it. Its name is looked at,
 * since the pid may have been given to another process in the meantime. */
void kill_stale_instance(pid_t self) {
    char text[32];
    if (read_small_file(PID_FILE, text) < 0) {
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

void write_pid_file(pid_t self) {
    const int fd = descriptor_open_untrusted(PID_FILE, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
        return;
    }
    uint32_t length;
    const char* text = text_unsigned(static_cast<uint64_t>(self), &length);
    /* Without a pid file the next instance only fails to find this one. */
    (void)!write(fd, text, length);
    close(fd);
}

} // namespace

int main(int argc, char** argv) {
    descriptor_hold_standard(true);
    options o;
    options_init(&o);
    o.on_history_algor = history_algor_option;
    options_parse(&o, argc, argv);

    const pid_t self = getpid();
    loop_init(DESCRIPTOR_LIMIT, LOOP_SELECT);
    log_use_sockets(&sockets);
    log_open(&o.log);
    if (log_wants(LOG_INFO)) {
        log_write(LOG_INFO, "application started with pid %u", static_cast<unsigned>(self));
    }
    kill_stale_instance(self);
    write_pid_file(self);
    object_seed(seed_builtin_strings, seed_builtin_hashes);
    if (o.port == 0) {
        endpoint_unlink(o.address);
    }
    server* listener = server_open(o.address, o.port);
    sstr_free(&o.address);
    if (listener == nullptr) {
        return 0;
    }
    listener->conn_ondata = client_ondata;
    listener->on_close = client_onclose;
    observe_init();
    loop_add_timer(SWEEP_MS, expire_timer_cb, nullptr);
    modules_start();
    loop_run();
    return 0;
}
