#pragma once

#include <string>
#include <vector>

#include "tests/system/support/daemon_test.h"

/* The fixture for the commands of one type: a daemon that holds a value of each, so that a test
 * also sees what its commands do to the others, and what a request costs. */

namespace system_test {

/* The daemon is started; s is the string "text", h the hash of one field, f = v, l the list a b c.
 */
class values_test : public client_test {
  protected:
    void SetUp() override {
        client_test::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        EXPECT_EQ(call({"set", "s", "text"}), "+OK\r\n");
        EXPECT_EQ(call({"hset", "h", "f", "v"}), ":1\r\n");
        EXPECT_EQ(call({"rpush", "l", "a", "b", "c"}), ":3\r\n");
    }

    void expect_string_unchanged() {
        EXPECT_EQ(call({"get", "s"}), "$4\r\ntext\r\n");
    }

    void expect_hash_unchanged() {
        EXPECT_EQ(call({"hgetall", "h"}), "*2\r\n$1\r\nf\r\n$1\r\nv\r\n");
    }

    void expect_list_unchanged() {
        EXPECT_EQ(call({"lrange", "l", "0", "9"}), "*3\r\n$1\r\na\r\n$1\r\nb\r\n$1\r\nc\r\n");
    }

    /* Processor time, in ms, for so many times the request, which is always answered so. */
    long cost_of(int times, const std::vector<std::string>& request, const std::string& reply) {
        const long before = daemon->cpu_ms();
        for (int i = 0; i < times && !HasFailure(); i++) {
            EXPECT_EQ(call(request), reply);
        }
        return daemon->cpu_ms() - before;
    }
};

} // namespace system_test
