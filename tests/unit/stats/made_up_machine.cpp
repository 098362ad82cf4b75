#include "tests/unit/stats/made_up_machine.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

unit_test::made_up_machine unit_test::machine;

using unit_test::machine;

/* Defined in the program, these take precedence over the C library's. */

extern "C" FILE* fopen(const char* __restrict path, const char* __restrict mode) {
    /* The name that the C library gives it is this one where files have 64 bits by choice. */
    static const auto real =
        reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen64"));
    return machine.root.empty() || strncmp(path, "/proc/", 6) != 0
               ? real(path, mode)
               : real((machine.root + path).c_str(), mode);
}

extern "C" int getifaddrs(ifaddrs** list) noexcept {
    static const auto real = reinterpret_cast<int (*)(ifaddrs**)>(dlsym(RTLD_NEXT, "getifaddrs"));
    if (machine.root.empty()) {
        return real(list);
    }
    *list = machine.addresses;
    if (machine.addresses_fail) {
        return -1;
    }
    machine.lists++;
    return 0;
}

extern "C" void freeifaddrs(ifaddrs* list) noexcept {
    static const auto real = reinterpret_cast<void (*)(ifaddrs*)>(dlsym(RTLD_NEXT, "freeifaddrs"));
    if (machine.root.empty()) {
        real(list);
        return;
    }
    EXPECT_EQ(list, machine.addresses);
    machine.lists--;
}
