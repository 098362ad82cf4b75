#pragma once

#include <stdint.h>

#include <string>

/* The clock that counts from the machine's start, as the units under test read it with
 * clock_gettime: for the length of a scope it stands still until a file is there, and is an hour
 * later from then on. So a tool says itself when its time is up, however slow the machine is. */
namespace unit_test {

struct late_clock {
    /* The file is removed first. */
    explicit late_clock(const std::string& file);
    ~late_clock();
    late_clock(const late_clock&) = delete;
    late_clock& operator=(const late_clock&) = delete;

    const std::string file;
    const int64_t start; /* nanoseconds */
    int64_t late = -1;   /* when the file was found, below 0 before */
};

} // namespace unit_test
