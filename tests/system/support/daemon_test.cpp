#include "tests/system/support/daemon_test.h"

#include <iostream>
#include <sstream>

namespace system_test {

void daemon_test::SetUp() {
    std::string missing = sandbox::enter();
    if (!missing.empty()) {
        GTEST_SKIP() << missing;
    }
    ASSERT_TRUE(file_exists(sandbox::tessard_path())) << "no daemon at " << TESSARD_PROGRAM;
}

void daemon_test::TearDown() {
    if (HasFailure()) {
        for (const auto& one : launched) {
            std::cerr << "output of daemon " << one->pid() << ":\n"
                      << one->out() << one->err() << "\n";
        }
    }
    launched.clear();
    EXPECT_TRUE(end_all_children()) << "a process outlives its test";
    sandbox::leave();
}

process& daemon_test::launch(const std::vector<std::string>& arguments,
                             const process_options& options) {
    launched.push_back(std::make_unique<process>(tessard_command(arguments), options));
    return *launched.back();
}

process& daemon_test::start(const std::vector<std::string>& arguments, const std::string& address,
                            int port, const process_options& options) {
    process& daemon = launch(arguments, options);
    bool serves =
        eventually([&] { return !daemon.running() || resp_client(address, port).connected(); });
    EXPECT_TRUE(serves && daemon.running()) << "the daemon does not serve";
    return daemon;
}

bool daemon_test::wait_for_server(const std::string& address, int port) {
    return eventually([&] { return resp_client(address, port).connected(); });
}

static std::vector<std::string> under_emulator(const std::string& program,
                                               const std::vector<std::string>& arguments) {
    std::vector<std::string> words;
    std::istringstream emulator(sandbox::emulator());
    for (std::string word; emulator >> word;) {
        words.push_back(word);
    }
    words.push_back(program);
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

bool deliver(process& daemon, resp_client& client, const std::string& bytes) {
    const bool whole = daemon.halt() && client.send_in_pieces(bytes);
    daemon.resume();
    return whole;
}

std::string work(const std::string& name) {
    return sandbox::workspace("work/") + name;
}

std::vector<std::string> tessard_command(const std::vector<std::string>& arguments) {
    return under_emulator(sandbox::tessard_path(), arguments);
}

std::vector<std::string> tessctl_command(const std::vector<std::string>& arguments) {
    return under_emulator(sandbox::tessctl_path(), arguments);
}

} // namespace system_test
