#pragma once

#include <stdint.h>

#include <string>

/* The kernel's file of interfaces, made up. */

/* The counters of one interface. */
struct counts {
    uint64_t rxb = 0;
    uint64_t rxp = 0;
    uint64_t txb = 0;
    uint64_t txp = 0;
};

inline const std::string NETDEV_HEADER =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    "
    "packets errs drop fifo colls carrier "
    "compressed\n";

/* One line of the file. The figures that are not looked at are large enough to show when they are.
 */
inline std::string netdev_line(const std::string& name, const counts& c) {
    return name + ": " + std::to_string(c.rxb) + "    " + std::to_string(c.rxp) +
           " 71 72 73 74 75 76 " + std::to_string(c.txb) + " " + std::to_string(c.txp) +
           " 81 82 83 84 85 86\n";
}
