#include "tests/system/support/log_text.h"

#include <algorithm>
#include <regex>

namespace system_test {

/* What opens a record: colour, time stamp, level. */
static bool opening_at(const std::string& text, size_t at, std::smatch* parts) {
    static const std::regex opening(
        "^(\x1b\\[[0-9;]*m)?([0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} )"
        "(debug \\*\\*\\* |info  \\*\\*\\* |warn  \\*\\*\\* |error \\*\\*\\* |fatal \\*\\*\\* )");
    size_t longest = std::min(text.size(), at + 64);
    return std::regex_search(text.begin() + static_cast<long>(at),
                             text.begin() + static_cast<long>(longest), *parts, opening,
                             std::regex_constants::match_continuous);
}

/* Where the record's message ends: at the colour's reset, or before a line end that nothing but
 * another record follows. */
static size_t message_end(const std::string& text, size_t from, bool coloured) {
    std::smatch parts;
    for (size_t end = text.find('\n', from); end != std::string::npos;
         end = text.find('\n', end + 1)) {
        if (coloured && end >= from + 4 && text.compare(end - 4, 4, "\x1b[0m") == 0) {
            return end - 4;
        }
        if (!coloured && (end + 1 == text.size() || opening_at(text, end + 1, &parts))) {
            return end;
        }
    }
    return std::string::npos;
}

std::vector<log_record> parse_log(const std::string& text) {
    std::vector<log_record> records;
    size_t at = 0;
    while (at < text.size()) {
        std::smatch parts;
        size_t end = std::string::npos;
        if (opening_at(text, at, &parts)) {
            end = message_end(text, at + static_cast<size_t>(parts.length(0)), parts.length(1) > 0);
        }
        if (end == std::string::npos) {
            records.push_back({"", "", "", text.substr(at), ""});
            break;
        }
        size_t start = at + static_cast<size_t>(parts.length(0));
        size_t line_end = text.find('\n', end);
        records.push_back({parts[1], parts[2], parts[3], text.substr(start, end - start),
                           text.substr(end, line_end - end)});
        at = line_end + 1;
    }
    return records;
}

std::vector<std::string> log_messages(const std::string& text,
                                      const std::vector<std::string>& words) {
    std::vector<std::string> messages;
    for (const log_record& record : parse_log(text)) {
        bool wanted = words.empty();
        for (const std::string& word : words) {
            wanted = wanted || record.text.find(word) != std::string::npos;
        }
        if (wanted) {
            messages.push_back(record.text);
        }
    }
    return messages;
}

} // namespace system_test
