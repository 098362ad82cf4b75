#include "tests/system/model/written_frames.h"

namespace system_test {

std::string bulk(const std::string& value) {
    return "$" + std::to_string(value.size()) + "\r\n" + value + "\r\n";
}

std::string list_frame(const std::vector<std::optional<std::string>>& elements) {
    std::string frame = "*" + std::to_string(elements.size()) + "\r\n";
    for (const std::optional<std::string>& element : elements) {
        frame += element ? bulk(*element) : "$-1\r\n";
    }
    return frame;
}

std::string event_frame(const std::vector<std::string>& elements) {
    std::string frame = "!" + std::to_string(elements.size()) + "\r\n";
    for (const std::string& element : elements) {
        frame += bulk(element);
    }
    return frame;
}

} // namespace system_test
