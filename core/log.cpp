#include "core/log.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "core/buffer.h"
#include "core/clock.h"
#include "core/descriptor.h"
#include "core/sstr.h"
#include "core/text.h"

namespace {

constexpr uint32_t LEVELS = 5;
constexpr uint32_t RING_SIZE = 31744;
constexpr int64_t RECONNECT_MS = 1000;

enum log_mode { MODE_STDOUT, MODE_FILE, MODE_SOCKET, MODE_DISCARD };

struct level_row {
    const char* name;
    const char* prefix;
    const char* colour;
};

const level_row level_table[LEVELS] = {
    {"debug", "debug *** ", "\033[38m"},      {"info", "info  *** ", "\033[32m"},
    {"warn", "warn  *** ", "\033[33m"},       {"error", "error *** ", "\033[31m"},
    {"fatal", "fatal *** ", "\033[41;37;1m"},
};

const char colour_reset[] = "\033[0m";

struct log_state {
    uint32_t level;
    log_mode mode;
    int fd; /* of the file or socket, -1 when none */
    bool colour;
    bool timestamps;
    sstr target;         /* null means standard output */
    uint32_t file_bytes; /* written since the file was opened or wrapped */
    clock_time attempt;  /* last one to reconnect */
    buffer line;
    bool initialised;
    const log_sockets* sockets; /* null: none can be reached */
    uint32_t lost;              /* lines that standard output had no room for */
    bool cut;                   /* what it took last ended within a line */
};

log_state state = {LOG_DEBUG, MODE_STDOUT,  -1,    true,    true, nullptr, 0,
                   {},        BUFFER_EMPTY, false, nullptr, 0,    false};

bool begins_with(const char* text, const char* prefix) {
    return strncasecmp(text, prefix, strlen(prefix)) == 0;
}

/* Splits "HOST:PORT" at the first colon. Returns the host as a new string and the port, or null
 * when there is no port from 1 to 65535. */
sstr split_host_port(const char* text, int* port) {
    const char* colon = strchr(text, ':');
    if (colon == nullptr) {
        return nullptr;
    }
    *port = text_parse_int32(colon + 1, nullptr, 10);
    if (*port < 1 || *port > 65535) {
        return nullptr;
    }
    return sstr_new(text, static_cast<uint32_t>(colon - text));
}

bool is_socket(const char* path) {
    struct stat status;
    return stat(path, &status) == 0 && S_ISSOCK(status.st_mode);
}

void open_local(const char* path) {
    state.mode = MODE_SOCKET;
    if (state.sockets != nullptr) {
        (void)state.sockets->connect_local(path, &state.fd);
    }
}

void open_file(const char* path) {
    state.fd = descriptor_open_plain(path, O_WRONLY | O_CREAT | O_TRUNC, 0664);
    state.mode = state.fd >= 0 ? MODE_FILE : MODE_STDOUT;
    state.file_bytes = 0;
}

void connect_network(const char* host, int port, bool datagram) {
    if (datagram) {
        (void)state.sockets->connect_udp(host, port, &state.fd);
    } else {
        (void)state.sockets->connect_tcp(host, port, false, &state.fd);
    }
}

/* False when the text has no usable port: the target then is the name of a file. */
bool open_network(const char* text, bool datagram, bool any_host_is_local) {
    int port;
    sstr host = split_host_port(text, &port);
    if (host == nullptr) {
        return false;
    }
    state.mode = MODE_SOCKET;
    if (state.sockets != nullptr) {
        const bool is_local = any_host_is_local && state.sockets->is_local_host(host);
        connect_network(is_local ? "127.0.0.1" : host, port, datagram);
    }
    sstr_free(&host);
    return true;
}

/* Connection failures are not reported: the mode is kept, and the writer tries again later. */
void open_named_target(const char* target) {
    if (begins_with(target, "unix://")) {
        open_local(target + 7);
        return;
    }
    const bool udp = begins_with(target, "udp://");
    if (udp || begins_with(target, "tcp://")) {
        if (open_network(target + 6, udp, false)) {
            return;
        }
    } else if (target[0] == '/') {
        if (is_socket(target)) {
            open_local(target);
            return;
        }
    } else if (open_network(target, false, true)) {
        return;
    }
    open_file(target);
}

void reopen() {
    state.lost = 0;
    state.cut = false;
    if (state.fd >= 0) {
        close(state.fd);
        state.fd = -1;
    }
    const char* target = state.target;
    if (target == nullptr || strcasecmp(target, "stdout") == 0 ||
        strcasecmp(target, "stderr") == 0) {
        state.mode = MODE_STDOUT;
    } else if (strcasecmp(target, "syslog") == 0) {
        state.mode = MODE_DISCARD;
    } else {
        open_named_target(target);
    }
    if (!state.initialised) {
        descriptor_ignore_write_signals();
        state.initialised = true;
    }
}

void append_text(const char* text) {
    buffer_append(&state.line, text, static_cast<uint32_t>(strlen(text)));
}

void append_timestamp() {
    char stamp[128];
    const time_t now = time(nullptr);
    /* Not localtime_r: a time zone that is set after the start is to show. */
    const struct tm* local = localtime(&now);
    if (local != nullptr && strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S ", local) > 0) {
        append_text(stamp);
    }
}

void compose_line(uint32_t level, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

void compose_line(uint32_t level, const char* format, va_list arguments) {
    const bool coloured = state.colour && (state.mode == MODE_STDOUT || state.mode == MODE_SOCKET);
    if (coloured) {
        append_text(level_table[level].colour);
    }
    if (state.mode != MODE_DISCARD) {
        if (state.timestamps) {
            append_timestamp();
        }
        append_text(level_table[level].prefix);
    }
    buffer_vprintf(&state.line, format, arguments);
    if (coloured) {
        append_text(colour_reset);
    }
    append_text("\n");
}

void compose(uint32_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));

void compose(uint32_t level, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    compose_line(level, format, arguments);
    va_end(arguments);
}

/* What has to stand before the next line on standard output. Returns its length. */
uint32_t compose_losses() {
    if (state.mode != MODE_STDOUT || state.lost == 0) {
        return 0;
    }
    if (state.cut) {
        append_text("\n");
    }
    if (log_wants(LOG_WARN)) {
        compose(LOG_WARN, "standard output took no more, lines lost: %u", state.lost);
    }
    return state.line.length;
}

/* `losses` bytes of what is composed tell of lines that were lost before. */
void write_to_stdout(uint32_t losses) {
    const size_t taken = descriptor_write_ready(STDOUT_FILENO, state.line.data, state.line.length);
    if (taken > 0) {
        state.lost = taken >= losses ? 0 : state.lost;
        state.cut = state.line.data[taken - 1] != '\n';
    }
    if (taken < state.line.length) {
        state.lost++;
    }
}

/* A line that cannot be written is lost: there is nowhere to tell. */
void write_to_file() {
    if (state.fd < 0) {
        return;
    }
    (void)!write(state.fd, state.line.data, state.line.length);
    state.file_bytes += state.line.length;
    if (state.file_bytes >= RING_SIZE) {
        state.file_bytes = 0;
        (void)lseek(state.fd, 0, SEEK_SET);
    }
}

void reconnect_when_due() {
    const clock_time now = clock_now();
    if (clock_elapsed_ms(&state.attempt, &now) > RECONNECT_MS) {
        state.attempt = now;
        reopen();
    }
}

void write_to_socket() {
    ssize_t written;
    do {
        written = send(state.fd, state.line.data, state.line.length, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (written < 0 && errno == EINTR);
    if (written < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
        close(state.fd);
        state.fd = -1;
        state.attempt = clock_now();
    }
}

void write_composed(uint32_t losses) {
    switch (state.mode) {
    case MODE_STDOUT:
        write_to_stdout(losses);
        break;
    case MODE_FILE:
        write_to_file();
        break;
    case MODE_SOCKET:
        write_to_socket();
        break;
    case MODE_DISCARD:
        break;
    }
}

/* Tries a lost socket again when it is time to. Before the line is composed, since the path of a
 * socket that is gone may become a file, which has no colour. A line that finds no socket is
 * dropped, also when the log falls back to standard output with it. */
bool has_somewhere_to_write() {
    if (state.mode != MODE_SOCKET || state.fd >= 0) {
        return true;
    }
    reconnect_when_due();
    return state.fd >= 0;
}

void write_message(uint32_t level, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

void write_message(uint32_t level, const char* format, va_list arguments) {
    if (!state.initialised) {
        log_open(nullptr);
    }
    if (level >= LEVELS) {
        return;
    }
    if (has_somewhere_to_write()) {
        const uint32_t losses = compose_losses();
        compose_line(level, format, arguments);
        write_composed(losses);
        /* The trace of one large request must not hold its memory for ever. */
        buffer_shrink_reset(&state.line);
    }
    if (level == LOG_FATAL) {
        exit(255);
    }
}

} // namespace

void log_use_sockets(const log_sockets* sockets) {
    state.sockets = sockets;
}

uint32_t log_parse_level(const char* text) {
    for (uint32_t level = 0; level < LEVELS; level++) {
        if (begins_with(text, level_table[level].name)) {
            return level;
        }
    }
    return LOG_INFO;
}

void log_open(const log_config* config) {
    if (config != nullptr) {
        if (config->target != nullptr) {
            sstr_assign(&state.target, config->target, SSTR_CSTRING);
        }
        if (config->colour >= 0) {
            state.colour = config->colour > 0;
        }
        log_set_level(config->level);
        if (config->timestamps >= 0) {
            state.timestamps = config->timestamps > 0;
        }
    }
    reopen();
}

void log_set_target(const char* target) {
    if (target != nullptr) {
        sstr_assign(&state.target, target, SSTR_CSTRING);
        reopen();
    }
}

void log_set_level(uint32_t level) {
    if (level < LEVELS) {
        state.level = level;
    }
}

uint32_t log_configured_level() {
    return state.level;
}

void log_write(uint32_t level, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_message(level, format, arguments);
    va_end(arguments);
}

void log_write_buffer(uint32_t level, buffer* text) {
    if (buffer_append(text, "", 1) == 1) {
        log_write(level, "%s", text->data);
    }
}

void log_assert_failed(const char* expression, const char* unit, int line) {
    log_write(LOG_FATAL, "assertion \"%s\" failed at %s:%d", expression, unit, line);
    abort();
}
