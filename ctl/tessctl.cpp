/* tessctl: asks the daemon from the command line. Here are the options and the table of subcommands
 * that are tessctl's own; whatever else is named goes to the daemon as it stands. */

#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include "core/descriptor.h"
#include "ctl/ctl_call.h"
#include "ctl/ctl_history.h"
#include "ctl/ctl_link.h"
#include "ctl/ctl_observe.h"
#include "ctl/ctl_pings.h"
#include "ctl/ctl_print.h"
#include "ctl/ctl_status.h"
#include "ctl/ctl_text.h"
#include "ctl/ctl_top.h"

namespace {

constexpr const char DEFAULT_ADDRESS[] = "/tmp/tessard.sock";
constexpr int DEFAULT_WAIT_SECONDS = 10;
constexpr int MAX_WAIT_SECONDS = 86400;
constexpr int MAX_PORT = 65535;

constexpr const char USAGE[] =
    "usage: tessctl [-a ADDRESS] [-p PORT] [-t SECONDS] [--raw] COMMAND [ARG...]\n"
    "\n"
    "Sends one command to the daemon and prints the reply. Options end at COMMAND.\n"
    "\n"
    "  -a ADDRESS   a path (anything with \"/\"), an IPv4 or IPv6 address, or localhost;\n"
    "               /tmp/tessard.sock when not given\n"
    "  -p PORT      the port, needed with an IP address\n"
    "  -t SECONDS   how long to wait for the reply, 1 to 86400; 10 when not given\n"
    "  --raw        print the bytes of the reply as they come\n"
    "  -h, --help   print this text\n"
    "\n"
    "Each item of a reply is printed as it is and then a newline, always. Nil is (nil) on a\n"
    "terminal and nothing otherwise; among several items it is always (nil). On a terminal\n"
    "hgetall prints a field and its value on one line.\n"
    "\n"
    "Commands are the daemon's, and:\n"
    "  observe      print each change as a line, event, key and values quoted for the shell,\n"
    "               until interrupted\n"
    "  history [--csv|--json|--plot] KEY\n"
    "               print the samples of a history such as cpu.10m or eth0.day, oldest first\n"
    "  pings        print what is known of each ping target\n"
    "  top          show the daemon's figures on a live screen, until q or an interrupt\n"
    "\n"
    "Exit status: 0 done, 1 nil, 2 error reply (printed on standard error), 3 no reply (the\n"
    "daemon cannot be reached, says nothing in time, or closes the connection), 64 wrong\n"
    "usage, 71 out of memory, 74 the output could not be written.\n";

struct subcommand {
    const char* name;
    ctl_status (*run)(ctl_call* call);
};

constexpr subcommand SUBCOMMANDS[] = {
    {"history", ctl_history},
    {"observe", ctl_observe},
    {"pings", ctl_pings},
    {"top", ctl_top},
};

struct settings {
    const char* address;
    int port;
    int wait_seconds;
    bool raw;
    bool help;
};

enum long_option { OPTION_RAW = 256 };

/* The word of an option, a number from 1 to `most`. */
bool read_number(int most, int* number) {
    int64_t value = 0;
    const bool good = ctl_text_number(ctl_text_of(optarg), 1, most, &value);
    *number = static_cast<int>(value);
    return good;
}

ctl_status read_option(int option, settings* s) {
    switch (option) {
    case 'a':
        s->address = optarg;
        return CTL_DONE;
    case 'p':
        return read_number(MAX_PORT, &s->port)
                   ? CTL_DONE
                   : ctl_call_wrong_usage("%s is no port from 1 to %d", optarg, MAX_PORT);
    case 't':
        return read_number(MAX_WAIT_SECONDS, &s->wait_seconds)
                   ? CTL_DONE
                   : ctl_call_wrong_usage("%s is no number of seconds from 1 to %d", optarg,
                                          MAX_WAIT_SECONDS);
    case OPTION_RAW:
        s->raw = true;
        return CTL_DONE;
    case 'h':
        s->help = true;
        return CTL_DONE;
    default: /* getopt has named the option */
        fputs("Try tessctl -h.\n", stderr);
        return CTL_USAGE;
    }
}

ctl_status read_options(int argc, char** argv, settings* s) {
    static const option LONG_OPTIONS[] = {
        {"raw", no_argument, nullptr, OPTION_RAW},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    ctl_status status = CTL_DONE;
    int option;
    /* The plus sign ends the options at the command: what follows is the command's, even when it
     * begins with
     * "-". */
    while (status == CTL_DONE && !s->help &&
           (option = getopt_long(argc, argv, "+a:p:t:h", LONG_OPTIONS, nullptr)) != -1) {
        status = read_option(option, s);
    }
    return status;
}

ctl_status run_daemon_command(ctl_call* call) {
    ctl_status status;
    if (!ctl_call_ask(call, call->count, call->words, &status)) {
        return status;
    }
    const bool pairs = call->terminal && strcasecmp(call->words[0], "hgetall") == 0;
    return ctl_print_reply(stdout, stderr, &call->link->reply, call->terminal, pairs);
}

ctl_status run(ctl_call* call) {
    for (const subcommand& own : SUBCOMMANDS) {
        /* As the daemon does with its commands, whatever the case. */
        if (strcasecmp(own.name, call->words[0]) == 0) {
            return own.run(call);
        }
    }
    return run_daemon_command(call);
}

} // namespace

int main(int argc, char** argv) {
    descriptor_hold_standard(false);
    settings s = {DEFAULT_ADDRESS, 0, DEFAULT_WAIT_SECONDS, false, false};
    ctl_status status = read_options(argc, argv, &s);
    if (status != CTL_DONE) {
        return status;
    }
    if (s.help) {
        fputs(USAGE, stdout);
        return ctl_print_finish(stdout);
    }
    if (optind == argc) {
        return ctl_call_wrong_usage("a command is missing");
    }
    ctl_link link;
    if (!ctl_link_init(&link, s.address, s.port, s.wait_seconds)) {
        return ctl_call_wrong_usage("%s is no path with a \"/\" and no IP address", s.address);
    }
    if (!endpoint_is_path(s.address) && s.port == 0) {
        return ctl_call_wrong_usage("the address %s needs a port (-p)", s.address);
    }
    ctl_call call = {&link, s.raw, isatty(STDOUT_FILENO) == 1, argc - optind, argv + optind};
    status = run(&call);
    ctl_link_close(&link);
    /* Output that was lost outweighs what the reply means: nobody may take half a value for the
     * whole. */
    if (status != CTL_OUTPUT && ctl_print_finish(stdout) != CTL_DONE) {
        status = CTL_OUTPUT;
    }
    return status;
}
