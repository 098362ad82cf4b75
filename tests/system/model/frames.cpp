#include "tests/system/model/frames.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <set>

namespace system_test {

namespace {

/* Reads the frame that starts at `at` and moves `at` behind it; false, and `at` stays, when it is
 * not whole. The elements of an array are added to `elements`. */
bool read_frame(const std::string& bytes, size_t* at, std::vector<std::string>* elements) {
    size_t line_end = bytes.find("\r\n", *at);
    if (line_end == std::string::npos) {
        return false;
    }
    const char lead = bytes[*at];
    const long number = atol(bytes.c_str() + *at + 1);
    size_t end = line_end + 2;
    if (lead == '$' && number >= 0) {
        if (bytes.size() < end + static_cast<size_t>(number) + 2) {
            return false;
        }
        elements->push_back(bytes.substr(end, static_cast<size_t>(number)));
        end += static_cast<size_t>(number) + 2;
    } else if (lead == '*' || lead == '!') {
        for (long i = 0; i < number; i++) {
            if (end >= bytes.size() || bytes[end] != '$' || !read_frame(bytes, &end, elements)) {
                return false;
            }
        }
    } else if (lead != '$' && lead != '+' && lead != '-' && lead != ':') {
        return false;
    }
    *at = end;
    return true;
}

} // namespace

std::vector<std::string> elements_of(const std::string& frame) {
    std::vector<std::string> elements;
    size_t at = 0;
    if (frame.empty() || (frame[0] != '*' && frame[0] != '!') ||
        !read_frame(frame, &at, &elements) || at != frame.size()) {
        return {};
    }
    return elements;
}

std::vector<std::string> split_frames(const std::string& bytes) {
    std::vector<std::string> frames;
    std::vector<std::string> ignored;
    for (size_t at = 0; at < bytes.size();) {
        const size_t start = at;
        if (!read_frame(bytes, &at, &ignored)) {
            at = bytes.size();
        }
        frames.push_back(bytes.substr(start, at - start));
    }
    return frames;
}

bool is_about_a_figure(const std::string& frame) {
    static const std::set<std::string> figures = {"cpu.load", "mem.load", "host.num", "host.maxnum",
                                                  "conn"};
    if (frame.empty() || frame[0] != '!') {
        return false;
    }
    const std::vector<std::string> elements = elements_of(frame);
    return elements.size() >= 2 && figures.count(elements[1]) != 0;
}

std::string next_frame(resp_client& client, int limit_ms) {
    const long end = now_ms() + limit_ms;
    for (;;) {
        std::string frame = client.frame(static_cast<int>(end - now_ms()));
        if (!is_about_a_figure(frame)) {
            return frame;
        }
    }
}

std::string heard(resp_client& client, int ms) {
    std::string rest;
    for (const std::string& frame : split_frames(client.during(ms))) {
        if (!is_about_a_figure(frame)) {
            rest += frame;
        }
    }
    return rest;
}

void let_it_catch_up(resp_client& other) {
    EXPECT_EQ(other.call({"ping"}), "+OK\r\n");
    EXPECT_EQ(other.call({"ping"}), "+OK\r\n");
}

} // namespace system_test
