/* What the programs that the daemon starts hold open: its own sockets, clients, log and pipes must
 * not be among it, or a script that lives on would keep the daemon's socket and its clients'
 * connections alive. */

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "tests/system/support/daemon_test.h"

using namespace system_test;

namespace {

/* Shell text that writes down once what descriptors a program gets that the shell starts. */
std::string note_descriptors(const std::string& name) {
    return "if [ ! -e " + work(name) +
           " ]; then\nlisting=$(ls -l /proc/self/fd)\necho \"$listing\" >" + work(name + ".draft") +
           "\nmv " + work(name + ".draft") + " " + work(name) + "\nfi\n";
}

/* What the descriptors of the note from 3 on lead to, but for the folder that "ls" itself reads. */
std::vector<std::string> targets(const std::string& name) {
    std::vector<std::string> found;
    std::istringstream text(read_file(work(name)));
    for (std::string line; std::getline(text, line);) {
        size_t arrow = line.find(" -> ");
        if (arrow == std::string::npos) {
            continue;
        }
        size_t number = line.rfind(' ', arrow - 1) + 1;
        std::string target = line.substr(arrow + 4);
        if (atoi(line.c_str() + number) > 2 && target.compare(0, 6, "/proc/") != 0) {
            found.push_back(target);
        }
    }
    return found;
}

class child_descriptors : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        sandbox::add_tool("hostmon", note_descriptors("hostmon") + "echo 'Online hosts: 1'\n");
        sandbox::add_tool("conntrack", note_descriptors("conntrack") + "echo 1 1\n");
        sandbox::add_tool("uci", note_descriptors("uci") + "echo KT7010\n");
        sandbox::add_plugin("0_plugin.sh", note_descriptors("plugin") + "echo $$ >" + work("pid") +
                                               "\nexec sleep 120\n");
    }

    void expect_none_inherited(const std::vector<std::string>& programs) {
        for (const std::string& program : programs) {
            ASSERT_TRUE(eventually([&] { return file_exists(work(program)); })) << program;
            EXPECT_NE(read_file(work(program)).find(" 2 -> "), std::string::npos) << program;
            EXPECT_EQ(targets(program), std::vector<std::string>{}) << program;
        }
    }
};

} // namespace

TEST_F(child_descriptors, no_program_that_the_daemon_starts_inherits_one) {
    process& daemon = start({"-l", "debug"});
    resp_client first;
    resp_client second;
    resp_client third;
    ASSERT_EQ(first.call({"hset", "sys", "pnp", "LCD"}), ":1\r\n");
    ASSERT_EQ(second.call({"observe"}), "+OK\r\n");
    ASSERT_EQ(third.call({"ping"}), "+OK\r\n");
    expect_none_inherited({"plugin", "hostmon", "conntrack", "uci"});

    /* A script that lives on keeps neither a client's connection nor the socket. */
    ASSERT_TRUE(eventually([] { return !read_file(work("pid")).empty(); }));
    pid_t script = atoi(read_file(work("pid")).c_str());
    ASSERT_GT(script, 0);
    daemon.signal(SIGKILL);
    EXPECT_EQ(daemon.wait_exit(), KILLED_BY + SIGKILL);
    EXPECT_EQ(kill(script, 0), 0) << "the script was to live on";
    EXPECT_NE(third.until_closed(), "<still open>");
    EXPECT_TRUE(third.hung_up());
    EXPECT_NE(first.during(0).find("<closed>"), std::string::npos);
    EXPECT_FALSE(resp_client().connected());
}

TEST_F(child_descriptors, a_script_holds_no_connection_that_the_daemon_closes) {
    start();
    resp_client client;
    ASSERT_EQ(client.call({"ping"}), "+OK\r\n");
    ASSERT_TRUE(eventually([] { return !read_file(work("pid")).empty(); }));
    ASSERT_EQ(kill(atoi(read_file(work("pid")).c_str()), 0), 0);
    /* What is no request closes the connection. */
    ASSERT_TRUE(client.send("nonsense\r\n"));
    EXPECT_EQ(client.until_closed().find("<still open>"), std::string::npos);
}

TEST_F(child_descriptors, none_is_inherited_by_scripts_of_a_daemon_on_tcp_in_the_background) {
    process& program = launch({"-a", "127.0.0.1", "-p", "7000", "-d"});
    EXPECT_EQ(program.wait_exit(), 0);
    ASSERT_TRUE(wait_for_server("127.0.0.1", 7000));
    resp_client client("127.0.0.1", 7000);
    ASSERT_EQ(client.call({"ping"}), "+OK\r\n");
    expect_none_inherited({"plugin", "hostmon", "conntrack"});
}
