#pragma once

#include <stdint.h>

#include <string>
#include <string_view>

#include "tests/support/big_endian.h"

/* A record of a dump file: the length of the key and the key, the length of the value and the
 * value. */
inline std::string record(std::string_view key, std::string_view value) {
    return be32(static_cast<uint32_t>(key.size())) + std::string(key) +
           be32(static_cast<uint32_t>(value.size())) + std::string(value);
}
