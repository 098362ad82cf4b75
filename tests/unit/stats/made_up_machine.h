#pragma once

#include <ifaddrs.h>

#include <string>

/* The machine as the collectors meet it: the test program's own functions take the place of the C
 * library's. They do the real call unless a test has laid a machine down. */
namespace unit_test {

struct made_up_machine {
    std::string
        root; /* what lies below /proc is looked for in this folder; "" for the real machine */
    ifaddrs* addresses;
    bool addresses_fail;
    int lists; /* handed out and not freed */
};

extern made_up_machine machine;

} // namespace unit_test
