/* Texts of the command line: addresses, log targets, levels, whole command lines. No socket is ever
 * connected and no file opened: the target gives the kernel's answers. A step is
 *
 *   0, e     an address, with a port behind its last blank
 *   l        the name of a level
 *   t        a log target, to which a line is then written
 *   s        the same, where a path is a socket
 *   o        a command line, its words between blanks
 *   c        the clock goes on by as many seconds as its first byte says, and a line is written */

#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <netinet/in.h>
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/log.h"
#include "core/options.h"
#include "core/text.h"
#include "fuzz/support/check.h"
#include "fuzz/support/steps.h"
#include "fuzz/support/world.h"
#include "loop/endpoint.h"
#include "stats/netdev.h"

namespace {

struct kernel_state {
    bool shut_in;
    bool paths_are_sockets;
    std::string
        asked;   /* what was opened or connected last: "file PATH", "unix PATH", "tcp HOST:PORT" */
    bool parses; /* a command line is being read, and exit() leads to `end` */
    jmp_buf end;
    int status;   /* that exit() was given */
    size_t calls; /* of what may fail in different ways */
};

kernel_state state;

/* --- What a log target should ask for, worked out a second time --- */

bool begins(const std::string& text, const char* prefix) {
    return strncasecmp(text.c_str(), prefix, strlen(prefix)) == 0;
}

/* The port behind the first colon, 0 when there is none from 1 to 65535. */
int port_of(const std::string& text) {
    const size_t colon = text.find(':');
    const int32_t port =
        colon == std::string::npos ? 0 : text_parse_int32(text.c_str() + colon + 1, nullptr, 10);
    return port >= 1 && port <= 65535 ? port : 0;
}

std::string network(const char* kind, std::string host, int port) {
    in_addr address;
    host = strcasecmp(host.c_str(), "localhost") == 0 ? "127.0.0.1" : host;
    if (inet_pton(AF_INET, host.c_str(), &address) != 1) {
        return "";
    }
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &address, text, sizeof text);
    return kind + std::string(" ") + text + ":" + std::to_string(port);
}

std::string expected_of(const std::string& target) {
    if (strcasecmp(target.c_str(), "stdout") == 0 || strcasecmp(target.c_str(), "stderr") == 0 ||
        strcasecmp(target.c_str(), "syslog") == 0) {
        return "";
    }
    if (begins(target, "unix://")) {
        return "unix " + target.substr(7, sizeof(sockaddr_un::sun_path));
    }
    const bool udp = begins(target, "udp://");
    if (udp || begins(target, "tcp://")) {
        const std::string rest = target.substr(6);
        if (port_of(rest) != 0) {
            return network(udp ? "udp" : "tcp", rest.substr(0, rest.find(':')), port_of(rest));
        }
    } else if (target[0] == '/') {
        if (state.paths_are_sockets) {
            return "unix " + target.substr(0, sizeof(sockaddr_un::sun_path));
        }
    } else if (port_of(target) != 0) {
        return network("tcp", "127.0.0.1", port_of(target));
    }
    return "file " + target;
}

/* --- Steps --- */

void write_lines(const std::string& text) {
    for (uint32_t level = LOG_DEBUG; level < LOG_FATAL; level++) {
        log_write(level, "%s", text.c_str());
    }
}

void choose_target(const std::string& bytes) {
    const std::string target = bytes.c_str();
    state.asked.clear();
    log_set_target(target.c_str());
    fuzz_require(state.asked == expected_of(target), "the log goes elsewhere");
    write_lines(target);
}

void parse_address(const std::string& bytes) {
    const size_t blank = bytes.rfind(' ');
    const int port =
        blank == std::string::npos ? 0 : text_parse_int32(bytes.c_str() + blank + 1, nullptr, 10);
    const std::string text = bytes.substr(0, blank);
    endpoint_address address;
    if (endpoint_parse(text.c_str(), port, &address) == 0) {
        return;
    }
    if (strlen(text.c_str()) > ENDPOINT_MAX_PATH) {
        /* Cut, and what is left may have lost its "/". */
        return;
    }
    char formatted[ENDPOINT_TEXT_SIZE];
    int formatted_port;
    endpoint_format(&address, formatted, &formatted_port);
    endpoint_address again;
    fuzz_require(strlen(formatted) < sizeof formatted, "an address is not terminated");
    fuzz_require(endpoint_parse(formatted, formatted_port, &again) == 1, "an address is none");
    fuzz_require(memcmp(&address, &again, sizeof address) == 0, "an address reads as another");
}

void parse_level(const std::string& bytes) {
    const uint32_t level = log_parse_level(bytes.c_str());
    fuzz_require(level <= LOG_FATAL, "there is no such level");
    const char* const names[] = {"debug", "info", "warn", "error", "fatal"};
    fuzz_require(level == LOG_INFO || begins(bytes.c_str(), names[level]), "not the level's name");
}

void parse_command_line(const std::string& bytes) {
    std::vector<std::string> words = words_of(bytes);
    std::vector<char*> argv;
    char program[] = "tessard";
    argv.push_back(program);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    static options o;
    options_init(&o);
    o.on_history_algor = history_algor_option;
    opterr = 0;
    optind = 0; /* makes getopt begin anew */
    state.parses = true;
    if (setjmp(state.end) == 0) {
        options_parse(&o, static_cast<int>(argv.size()) - 1, argv.data());
        fuzz_require(o.port >= 0 && o.log.level <= LOG_FATAL, "a setting is out of range");
        fuzz_require(o.address != nullptr && o.log.target != nullptr && o.log.ident != nullptr,
                     "a setting is missing");
    } else {
        fuzz_require(state.status == 0 || state.status == 255, "an exit status of its own");
    }
    state.parses = false;
    sstr_free(&o.address);
}

/* A lost socket is tried again after a while. */
void wait_and_write(const std::string& text) {
    const fuzz_step pass = {'t', text};
    (void)world_step(&pass);
    write_lines(text);
}

void carry_out(const fuzz_step* step) {
    switch (step->kind) {
    case 'l':
        parse_level(step->text);
        break;
    case 't':
    case 's':
        state.paths_are_sockets = step->kind == 's';
        choose_target(step->text);
        break;
    case 'o':
        parse_command_line(step->text);
        break;
    case 'c':
        wait_and_write(step->text);
        break;
    default:
        parse_address(step->text);
    }
}

/* 0, or -1 with an error; all of them in turn. */
int answer() {
    constexpr int errors[] = {0, 0, ECONNREFUSED, EAGAIN, 0, ENOENT, EINTR};
    errno = errors[state.calls++ % (sizeof errors / sizeof errors[0])];
    return errno == 0 ? 0 : -1;
}

std::string socket_kind(int fd) {
    int type = 0;
    socklen_t size = sizeof type;
    getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size);
    return type == SOCK_DGRAM ? "udp" : "tcp";
}

} // namespace

/* Defined in the program, these take precedence over the C library's. Outside of an input they do
 * the real call. */

extern "C" int open(const char* path, int flags, ...) {
    if (state.shut_in) {
        state.asked = std::string("file ") + path;
        return answer() == 0 ? memfd_create("fuzz", MFD_CLOEXEC) : -1;
    }
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

extern "C" int stat(const char* path, struct stat* status) noexcept {
    if (!state.shut_in) {
        return fstatat(AT_FDCWD, path, status, 0);
    }
    *status = {};
    status->st_mode = state.paths_are_sockets ? S_IFSOCK : S_IFREG;
    return 0;
}

extern "C" int connect(int fd, const sockaddr* address, socklen_t) {
    if (address->sa_family == AF_UNIX) {
        const sockaddr_un* local = reinterpret_cast<const sockaddr_un*>(address);
        state.asked = "unix " + std::string(local->sun_path,
                                            strnlen(local->sun_path, sizeof local->sun_path));
    } else {
        const sockaddr_in* ipv4 = reinterpret_cast<const sockaddr_in*>(address);
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &ipv4->sin_addr, text, sizeof text);
        state.asked = socket_kind(fd) + " " + text + ":" + std::to_string(ntohs(ipv4->sin_port));
    }
    return answer();
}

extern "C" ssize_t send(int, const void*, size_t size, int) {
    return answer() == 0 ? static_cast<ssize_t>(size) : -1;
}

extern "C" ssize_t write(int fd, const void* bytes, size_t size) {
    if (state.shut_in && fd == STDOUT_FILENO) {
        return static_cast<ssize_t>(size);
    }
    return syscall(SYS_write, fd, bytes, size);
}

extern "C" int daemon(int, int) noexcept {
    return answer();
}

extern "C" void exit(int status) noexcept {
    if (state.parses) {
        state.status = status;
        longjmp(state.end, 1);
    }
    reinterpret_cast<void (*)(int)>(dlsym(RTLD_NEXT, "exit"))(status);
    abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    world_start();
    static FILE* const null = fopen("/dev/null", "we");
    FILE* const output = stdout;
    stdout = null;
    state.shut_in = true;
    state.calls = 0;
    const log_config config = {nullptr, nullptr, LOG_DEBUG, 1, 1};
    log_open(&config);
    fuzz_steps steps = steps_start(bytes, size);
    fuzz_step step;
    while (steps_next(&steps, &step)) {
        carry_out(&step);
    }
    /* Closes what the log has open. */
    log_set_target("syslog");
    state.shut_in = false;
    stdout = output;
    return 0;
}
