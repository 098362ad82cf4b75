#include "core/options.h"

#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "core/text.h"

namespace {

constexpr char NAME[] = "Tessard";
constexpr char VERSION[] = "2.1.0";
constexpr char NOTICE[] = "in-memory data cache and statistics keeper for routers";

const char SHORT_OPTIONS[] = "vdp:a:l:f:g:h";

/* Its order is the order of the help lines. */
const option long_options[] = {
    {"version", no_argument, nullptr, 'v'},        {"daemon", no_argument, nullptr, 'd'},
    {"port", optional_argument, nullptr, 'p'},     {"addr", optional_argument, nullptr, 'a'},
    {"loglevel", optional_argument, nullptr, 'l'}, {"logfile", optional_argument, nullptr, 'f'},
    {"help", no_argument, nullptr, 'h'},           {nullptr, 0, nullptr, 0},
};

#define HELP_INDENT "                                             "

const char* const help_lines[] = {
    "-v   --version                            打印版本信息",
    "-d   --daemon                             以daemon方式运行",
    "-p   --port = xxxx                        指定端口号",
    "-a   --addr = /xxx/xxx                    指定域套接字路径，在unix套接字上侦听",
    "-l   --loglevel = [debug/info/warn/error] 指定日志输出级别",
    "-f   --logfile=xxxxx                      xxx可以是stdout, syslog,\n" HELP_INDENT
    "/tmp/xxx.sock, /path/to/regular/file\n" HELP_INDENT "以及localhost:port",
    "-h   --help                               打印帮助信息",
};

[[noreturn]] void print_usage(const char* program) {
    printf("usage: %s    %s \n", program, "<command> [options]");
    for (const char* line : help_lines) {
        printf("   %s\n", line);
    }
    exit(255);
}

[[noreturn]] void print_version() {
    printf("%s %s %s\n", NAME, VERSION, NOTICE);
    exit(0);
}

void become_daemon() {
    if (daemon(0, 0) == -1) {
        exit(0);
    }
}

void set_port(options* o, const char* text) {
    const int port = text_parse_int32(text, nullptr, 10);
    if (port >= 1) {
        o->port = port;
    }
}

/* Only these two words choose where the log goes. Anything else is kept as the ident, which the log
 * never reads, so a file or a socket given here leaves the log on its default file. That is
 * deliberate. */
void set_log_file(options* o, const char* text) {
    if (strcmp(text, "stdout") == 0 || strcmp(text, "syslog") == 0) {
        o->log.target = text;
    } else {
        o->log.ident = text;
    }
}

/* An option whose value is missing (a long one without "=VALUE") comes here with a null text and is
 * ignored. */
void set_value(options* o, int letter, const char* text) {
    if (text == nullptr) {
        return;
    }
    switch (letter) {
    case 'p':
        set_port(o, text);
        break;
    case 'a':
        sstr_assign(&o->address, text, SSTR_CSTRING);
        break;
    case 'l':
        o->log.level = log_parse_level(text);
        break;
    case 'f':
        set_log_file(o, text);
        break;
    default:
        break;
    }
}

} // namespace

void options_init(options* o) {
    *o = {};
    o->log = {"/tmp/tessard.log", NAME, LOG_INFO, 1, 1};
    o->address = sstr_new("/tmp/tessard.sock", SSTR_CSTRING);
}

void options_parse(options* o, int argc, char** argv) {
    int letter;
    while ((letter = getopt_long(argc, argv, SHORT_OPTIONS, long_options, nullptr)) != -1) {
        switch (letter) {
        case 'v':
            print_version();
        case 'd':
            become_daemon();
            break;
        case 'p':
        case 'a':
        case 'l':
        case 'f':
            set_value(o, letter, optarg);
            break;
        case 'g':
            /* The choice is taken and the usage printed all the same: the daemon never starts with
             * -g. */
            if (o->on_history_algor != nullptr) {
                o->on_history_algor(optarg);
            }
            print_usage(argv[0]);
        default:
            print_usage(argv[0]);
        }
    }
}
