#pragma once

#include <gtest/gtest.h>

#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "core/log.h"

namespace unit_test {

/* The log, written without time stamps to a file of the test's own. Nothing but fatal lines is
 * logged until the test asks for a level. The file is a ring of about 31 KiB: what is to be read
 * must be shorter. */
class log_capture {
  public:
    log_capture() : path(::testing::TempDir() + "tessard-log-XXXXXX") {
        const int fd = mkstemp(path.data());
        EXPECT_GE(fd, 0);
        close(fd);
        const log_config config = {path.c_str(), nullptr, LOG_FATAL, 0, 0};
        log_open(&config);
    }

    ~log_capture() {
        log_set_level(LOG_FATAL);
        log_set_target("stdout");
        unlink(path.c_str());
    }

    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    /* Forgets what was logged so far and logs from this level on. */
    void start(uint32_t level = LOG_DEBUG) {
        log_set_level(level);
        log_set_target(path.c_str());
    }

    /* Everything that was logged, prefixes and line ends included. */
    std::string text() const {
        std::ifstream file(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }

    /* The same by lines: "debug *** key created". */
    std::vector<std::string> lines() const {
        std::vector<std::string> result;
        std::istringstream all(text());
        for (std::string line; std::getline(all, line);) {
            result.push_back(line);
        }
        return result;
    }

  private:
    std::string path;
};

} // namespace unit_test
