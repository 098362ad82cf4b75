#include "fuzz/support/clients.h"

#include <errno.h>
#include <fcntl.h>
#include <sanitizer/asan_interface.h>
#include <sys/socket.h>
#include <unistd.h>

#include "fuzz/support/check.h"
#include "loop/loop.h"
#include "loop/server.h"
#include "proto/command.h"
#include "store/expire.h"

namespace {

constexpr uint32_t SWEEP_MS = 100;

/* Above every other descriptor: the backend reports in ascending order, so that a turn comes after
 * all that was ready before it. */
constexpr int DRIVER = 200;

/* A delivery must go into a socket at once. */
constexpr size_t DELIVERY_MAX = 32768;

struct clients_state {
    clients_turn turn;
    bool ending;
    int peers[CLIENTS]; /* the clients' ends, -1 when not connected */
};

clients_state state;

/* What every connection belongs to. It never listens and never goes. */
server owner = {-1, "", 0, nullptr, nullptr, nullptr, nullptr, nullptr, 1};

/* Serves what has come. What lies behind it in the buffer is none of the request's. */
void on_data(connection* c) {
    const buffer* input = &c->input;
    const char* end = input->data + input->length;
    __asan_poison_memory_region(end, static_cast<size_t>(input->base + input->capacity - end));
    client_ondata(c);
    __asan_unpoison_memory_region(input->base, input->capacity);
}

void connect_client(unsigned who) {
    int ends[2];
    fuzz_require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "no sockets");
    if (who == CLIENTS - 1) {
        const int least = 1;
        (void)setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
    }
    connection* c = loop_add_connection(ends[0], &owner);
    c->conn_ondata = on_data;
    c->on_close = client_onclose;
    state.peers[who] = ends[1];
}

/* buffer.h has the invariants. */
void check_buffer(const buffer* b) {
    fuzz_require(b->base <= b->mark && b->mark <= b->data, "a buffer's places are out of order");
    fuzz_require(static_cast<size_t>(b->data - b->base) + b->length <= b->capacity,
                 "a buffer has more than its capacity");
    fuzz_require(b->capacity <= b->limit, "a buffer is above its limit");
}

void check_connections() {
    uint32_t count = 0;
    const connection* before = nullptr;
    for (const connection* c = owner.connections; c != nullptr; c = c->next) {
        fuzz_require(c->prev == before, "a connection does not link back");
        /* What came just before a connection broke is lost. */
        fuzz_require(c->fd < 0 || c->input.length == 0, "a request left input behind");
        check_buffer(&c->input);
        check_buffer(&c->output);
        check_buffer(&c->pending);
        before = c;
        count++;
    }
    fuzz_require(owner.references == count + 1, "the server counts other connections");
}

void on_turn(int, unsigned, void*) {
    check_connections();
    if (!state.ending && state.turn()) {
        return;
    }
    if (state.ending && owner.connections == nullptr) {
        loop_stop();
        return;
    }
    state.ending = true;
    for (unsigned who = 0; who < CLIENTS; who++) {
        clients_hang_up(who);
    }
}

} // namespace

void clients_run(clients_turn turn) {
    state.turn = turn;
    state.ending = false;
    for (int& peer : state.peers) {
        peer = -1;
    }
    int ends[2];
    fuzz_require(pipe2(ends, O_CLOEXEC) == 0 && dup3(ends[0], DRIVER, O_CLOEXEC) == DRIVER &&
                     write(ends[1], "x", 1) == 1,
                 "no pipe");
    /* Never read, so always ready: no pass waits. */
    loop_add_handler(DRIVER, LOOP_READABLE, on_turn, nullptr);
    loop_add_timer(SWEEP_MS, expire_timer_cb, nullptr);
    loop_run();
    for (const int fd : {ends[0], ends[1], DRIVER}) {
        close(fd);
    }
}

bool clients_deliver(unsigned who, std::string_view bytes) {
    if (bytes.empty() || bytes.size() > DELIVERY_MAX) {
        return false;
    }
    if (state.peers[who] < 0) {
        connect_client(who);
    }
    /* A connection that the daemon has closed takes nothing more. */
    (void)send(state.peers[who], bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return true;
}

std::string clients_read(unsigned who) {
    std::string all;
    char chunk[16384];
    while (state.peers[who] >= 0) {
        const ssize_t got = recv(state.peers[who], chunk, sizeof chunk, MSG_DONTWAIT);
        if (got > 0) {
            all.append(chunk, static_cast<size_t>(got));
        } else if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        } else {
            clients_hang_up(who);
        }
    }
    return all;
}

bool clients_connected(unsigned who) {
    return state.peers[who] >= 0;
}

void clients_hang_up(unsigned who) {
    if (state.peers[who] >= 0) {
        close(state.peers[who]);
        state.peers[who] = -1;
    }
}

std::string clients_request(const std::vector<std::string>& words) {
    std::string frame = "*" + std::to_string(words.size()) + "\r\n";
    for (const std::string& word : words) {
        frame += "$" + std::to_string(word.size()) + "\r\n" + word + "\r\n";
    }
    return frame;
}
