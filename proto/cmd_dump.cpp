#include "proto/cmd.h"
#include "store/dump.h"

void cmd_dump(client* c) {
    const int error = dump_keys(cmd_arg(c, 0), cmd_arg(c, 1));
    if (error == DUMP_GIVEN_UP) {
        resp_error(c->reply, nullptr, "pattern beyond its budget or memory");
    } else {
        resp_integer(c->reply, error);
    }
}

void cmd_load(client* c) {
    resp_integer(c->reply, load_keys(cmd_arg(c, 0)));
}
