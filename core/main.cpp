/* The daemon: start-up in a fixed order, then the event loop for the rest of the process's life.
 *
 * The one unit that knows all others: it hands to those below what they need of those above. */

#include <sys/types.h>
#include <unistd.h>

#include "core/descriptor.h"
#include "core/log.h"
#include "core/options.h"
#include "core/pidfile.h"
#include "core/sstr.h"
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
/* For files, pipes and folders while the loop has all of its own in use. */
constexpr int DESCRIPTORS_BESIDE = 28;
constexpr uint32_t SWEEP_MS = 100;
constexpr char PID_FILE[] = "/tmp/tessard.pid";

const log_sockets sockets = {endpoint_connect_local, endpoint_connect_tcp, endpoint_connect_udp,
                             endpoint_is_local_host};

} // namespace

int main(int argc, char** argv) {
    descriptor_hold_standard(true);
    options o;
    options_init(&o);
    o.on_history_algor = history_algor_option;
    options_parse(&o, argc, argv);

    const pid_t self = getpid();
    descriptor_raise_limit(DESCRIPTOR_LIMIT + DESCRIPTORS_BESIDE);
    loop_init(DESCRIPTOR_LIMIT, LOOP_SELECT);
    log_use_sockets(&sockets);
    log_open(&o.log);
    LOG(LOG_INFO, "application started with pid %u", static_cast<unsigned>(self));
    pidfile_take(PID_FILE, self);
    object_seed(seed_builtin_strings, seed_builtin_hashes);
    if (o.port == 0) {
        endpoint_unlink(o.address);
    }
    server* listener = server_open(o.address, o.port);
    pidfile_release();
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
