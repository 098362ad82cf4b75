#pragma once

#include <gtest/gtest.h>

#include <string>

#include "loop/loop.h"

namespace unit_test {

/* Names the tests that run on each backend of the loop. */
inline std::string backend_name(const testing::TestParamInfo<loop_backend>& backend) {
    return backend.param == LOOP_EPOLL ? "epoll" : "select";
}

} // namespace unit_test
