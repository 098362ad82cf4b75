#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <string>
#include <string_view>

#include "core/log.h"
#include "core/sstr.h"
#include "loop/loop.h"
#include "proto/observe.h"
#include "store/expire.h"
#include "store/object.h"
#include "tests/unit/support/log_capture.h"

namespace unit_test {

/* A fresh keyspace, a fresh loop for connections, and a log that is silent until a test starts it.
 */
class store_test : public ::testing::Test {
  protected:
    store_test() {
        loop_init(1024, LOOP_SELECT);
        object_reset();
        expire_init();
        observe_init();
    }

    ~store_test() override {
        object_reset();
        EXPECT_EQ(observers, nullptr) << "a test_client outlived its test";
    }

    /* The object of the key, made with the type when there is none. */
    static object* make(std::string_view key, unsigned type) {
        return object_get_or_create(key.data(), static_cast<uint32_t>(key.size()), type);
    }

    log_capture log;
};

/* The flag word of an object of the type with these bits. */
constexpr unsigned flags_of(unsigned type, unsigned bits) {
    return type | bits;
}

/* For the process of a death test: makes the log's lines visible to the test. */
inline void log_to_stderr() {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    log_set_target("stdout");
}

inline std::string assertion_line(const char* expression, const char* unit, int line) {
    return "fatal *** assertion \"" + std::string(expression) + "\" failed at " + unit + ":" +
           std::to_string(line) + "\n";
}

} // namespace unit_test

/* The statement ends the process as a broken invariant of the units above the log does. */
#define EXPECT_ASSERTION(statement, expression, unit, line)                                        \
    EXPECT_EXIT(                                                                                   \
        {                                                                                          \
            unit_test::log_to_stderr();                                                            \
            statement;                                                                             \
        },                                                                                         \
        ::testing::ExitedWithCode(255),                                                            \
        ::testing::HasSubstr(unit_test::assertion_line(expression, unit, line)))
