#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "ctl/ctl_text.h"
#include "tests/support/big_endian.h"

/* Values of history keys, put together byte by byte. */

struct ring_header {
    uint32_t last;
    uint32_t period;
    uint32_t slots;
    uint32_t filled;
    uint32_t head;
};

inline std::string header_bytes(const ring_header& h) {
    return be32(h.last) + be32(h.period) + be32(h.slots) + be32(h.filled) + be32(h.head);
}

/* A ring whose figures are of 4 bytes, given slot after slot. */
inline std::string ring_of_numbers(const ring_header& h, const std::vector<uint32_t>& figures) {
    std::string bytes = header_bytes(h);
    for (uint32_t figure : figures) {
        bytes += be32(figure);
    }
    return bytes;
}

/* A ring whose figures are of one byte. */
inline std::string ring_of_bytes(const ring_header& h, const std::string& figures) {
    return header_bytes(h) + figures;
}

inline ctl_text text_of(const std::string& text) {
    return {text.data(), text.size()};
}
