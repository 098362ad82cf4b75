#pragma once

#include "core/log.h"
#include "core/sstr.h"

/* The command line. There is no configuration file: what is not given here has a compiled-in
 * default. */

struct options {
    log_config log;
    sstr address; /* a Unix path or an IP address */
    int port;     /* 0 when none was given */
    /* Called with the word behind -g; null: nobody wants it. */
    void (*on_history_algor)(const char* word);
};

/* The defaults: log to /tmp/tessard.log at level info, listen on /tmp/tessard.sock; nobody wants
 * the word behind -g. */
void options_init(options* o);

/* Reads the arguments over `o`, in their order. -v prints the version and exits with 0; -d becomes
 * a daemon at once, so that options behind it are read in the child. -h, -g and unknown options
 * print the usage and exit with 255. The address belongs to the caller, the log's texts to argv. */
void options_parse(options* o, int argc, char** argv);
