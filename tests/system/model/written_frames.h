#pragma once

#include <optional>
#include <string>
#include <vector>

/* The frames of the protocol, written out, for whoever works out what the daemon should send. */

namespace system_test {

/* An element without value is the nil bulk. */
std::string bulk(const std::string& value);
std::string list_frame(const std::vector<std::optional<std::string>>& elements);
std::string event_frame(const std::vector<std::string>& elements);

} // namespace system_test
