#pragma once

#include <fcntl.h>
#include <malloc.h>
#include <stddef.h>

/* What the test process holds at the moment, to be compared with what it held before. */
namespace unit_test {

/* Bytes that the C library has handed out. */
inline size_t heap_in_use() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

/* Needs no descriptor of its own, so that it counts also where none is left. */
inline size_t open_descriptors() {
    size_t count = 0;
    for (int fd = 0; fd < 1024; fd++) {
        count += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
    }
    return count;
}

} // namespace unit_test
