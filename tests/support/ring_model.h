#pragma once

#include <stdint.h>

#include <algorithm>
#include <string>

#include "tests/support/big_endian.h"

/* What the value of a history must be, found the plain way: every sample is pushed. */
struct ring_model {
    uint32_t period;
    uint32_t slots;
    uint32_t size; /* of a sample */
    uint32_t time = 0;
    uint32_t filled = 0;
    uint32_t head = 0;
    std::string samples = std::string(slots * size, '\0');

    void push(const std::string& sample) {
        samples.replace(head * size, size, sample);
        head = (head + 1) % slots;
        filled = std::min(filled + 1, slots);
    }

    /* So many samples, none of them all zero. */
    ring_model& fill(uint32_t count) {
        for (uint32_t i = 0; i < count; i++) {
            push(std::string(size, static_cast<char>(i % 200 + 1)));
        }
        return *this;
    }

    /* So many zero samples. When all samples are zero, further ones only turn the ring. */
    ring_model& pad(uint32_t count) {
        for (uint32_t i = 0; i < std::min(count, slots); i++) {
            push(std::string(size, '\0'));
        }
        if (count > slots) {
            head = (head + count % slots) % slots;
        }
        return *this;
    }

    /* The same ring with this time stamp. */
    ring_model at(uint32_t stamp) const {
        ring_model other = *this;
        other.time = stamp;
        return other;
    }

    std::string header() const {
        return be32(time) + be32(period) + be32(slots) + be32(filled) + be32(head);
    }
    std::string value() const {
        return header() + samples;
    }
    /* As far as a dump takes it. */
    std::string record() const {
        return value().substr(0, 20 + filled * size);
    }
};
