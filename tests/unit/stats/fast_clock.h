#pragma once

/* The clock that counts from the machine's start, as the units under test read it with
 * clock_gettime: for the length of a scope it runs fifty times as fast, so that what waits five
 * seconds waits a tenth of one. */
namespace unit_test {

struct fast_clock {
    fast_clock();
    ~fast_clock();
    fast_clock(const fast_clock&) = delete;
    fast_clock& operator=(const fast_clock&) = delete;
};

} // namespace unit_test
