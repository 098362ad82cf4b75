#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

/* Numbers as they stand in files and in the values of histories: 32 bits, the highest byte first.
 */

inline std::string be32(uint32_t value) {
    return {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
            static_cast<char>(value >> 8), static_cast<char>(value)};
}

/* The number at `at`; bytes behind the end are left out. */
inline uint32_t word_at(const std::string& bytes, size_t at) {
    uint32_t value = 0;
    for (size_t i = at; i < at + 4 && i < bytes.size(); i++) {
        value = value << 8 | static_cast<unsigned char>(bytes[i]);
    }
    return value;
}
