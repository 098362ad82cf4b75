#include "proto/cmd.h"
#include "store/dump.h"

void cmd_dump(client* c) {
    resp_integer(c->reply, dump_keys(cmd_arg(c, 0), cmd_arg(c, 1)));
}

void cmd_load(client* c) {
    resp_integer(c->reply, load_keys(cmd_arg(c, 0)));
}
