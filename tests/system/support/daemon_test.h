#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/system/support/files.h"
#include "tests/system/support/process.h"
#include "tests/system/support/resp_client.h"
#include "tests/system/support/sandbox.h"
#include "tests/system/support/wait.h"

/* The fixture of the system tests: each test gets a fresh world (sandbox.h), starts the real daemon
 * in it and talks to its socket. Where namespaces cannot be had, the test is skipped with the
 * reason.
 *
 *     class strings : public system_test::daemon_test {};
 *
 *     TEST_F(strings, a_value_that_was_set_is_read_back) {
 *         start();
 *         resp_client client;
 *         EXPECT_EQ(client.call({"set", "k", "v"}), "+OK\r\n");
 *         EXPECT_EQ(client.call({"get", "k"}), "$1\r\nv\r\n");
 *     }
 */

namespace system_test {

class daemon_test : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    /* Starts the daemon with these arguments and returns at once; it lives as long as the test at
     * most. */
    process& launch(const std::vector<std::string>& arguments, const process_options& options = {});

    /* Starts the daemon and waits until its socket takes connections; records a failure when it
     * does not. The address is the one that the arguments make it listen on. */
    process& start(const std::vector<std::string>& arguments = {},
                   const std::string& address = "/tmp/tessard.sock", int port = 0,
                   const process_options& options = {});

    /* Waits until the address takes connections. Leaves no trace in the daemon: a connection that
     * never sends is no client. */
    static bool wait_for_server(const std::string& address = "/tmp/tessard.sock", int port = 0);

  private:
    std::vector<std::unique_ptr<process>> launched;
};

/* The same with a daemon that is started and one client. */
class client_test : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        daemon = &start();
        client = resp_client();
    }

    std::string call(const std::vector<std::string>& request) {
        return client.call(request);
    }

    process* daemon = nullptr;
    resp_client client{"/nowhere"};
};

/* Hands the daemon the bytes in one delivery, however many they are: it stands still until the
 * kernel has them all. True when it took them. */
bool deliver(process& daemon, resp_client& client, const std::string& bytes);

/* A file in the current folder of everything that is started. */
std::string work(const std::string& name);

/* The command line of a program under test, behind the emulator's words when it needs one. */
std::vector<std::string> tessard_command(const std::vector<std::string>& arguments);
std::vector<std::string> tessctl_command(const std::vector<std::string>& arguments);

/* True when the programs were built with the address sanitizer, which changes what they need of
 * memory and time. */
#if defined(__SANITIZE_ADDRESS__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

/* For what an emulator cannot show: its processes bear its own name and its own descriptors and
 * memory. */
#define SKIP_UNDER_EMULATOR(why)                                                                   \
    do {                                                                                           \
        if (!system_test::sandbox::emulator().empty())                                             \
            GTEST_SKIP() << "not to be seen under an emulator: " << (why);                         \
    } while (0)

} // namespace system_test
