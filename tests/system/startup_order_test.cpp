/* From the command line to the steady state: what is done before the daemon serves, what stands in
 * the store before the first tick, and in which order the timers then do their work, as the debug
 * log tells it. */

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <unistd.h>

#include "tests/system/model/frames.h"
#include "tests/system/support/daemon_test.h"
#include "tests/system/support/log_text.h"

using namespace system_test;

namespace {

typedef std::vector<std::string> words;

/* Time enough for a reply that comes at all before the first tick. */
constexpr int BEFORE_FIRST_TICK_MS = 3000;

class startup_order : public daemon_test {
  protected:
    /* Something to do for every module on its first tick. */
    static void lay_down_sources() {
        sandbox::set_proc_file(
            "net/dev", "Inter-|\n face |\n  eth0: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n");
        sandbox::set_proc_file("stat", "cpu  100 0 0 100 0 0 0 0 0 0\n");
        sandbox::set_proc_file("meminfo",
                               "MemTotal: 100 kB\nMemFree: 50 kB\nBuffers: 1 kB\nCached: 1 kB\n");
        sandbox::add_tool("hostmon", "echo 'Online hosts: 5'; echo 'Max Online hosts: 9'\n");
        sandbox::add_tool("conntrack", "echo 'entries 7'\n");
        sandbox::add_plugin("0_boot.sh", ":\n");
        ASSERT_EQ(mkfifo("/dev/st7565", 0600), 0);
    }

    static words log() {
        return log_messages(read_file("/tmp/tessard.log"));
    }

    /* Where the first message that holds the text stands from there on; the log's length when none
     * does. */
    static size_t find(const words& messages, const std::string& text, size_t from = 0) {
        for (size_t i = from; i < messages.size(); i++) {
            if (messages[i].find(text) != std::string::npos) {
                return i;
            }
        }
        return messages.size();
    }
};

} // namespace

TEST_F(startup_order, keys_and_histories_stand_before_the_first_tick) {
    lay_down_sources();
    /* On a busy machine the first tick may come before the question; then once more. */
    words keys;
    bool in_time = false;
    for (int attempt = 0; attempt < 5 && !in_time; attempt++) {
        process& daemon = start({"-l", "debug"});
        resp_client client;
        keys = elements_of(client.call({"keys", "*"}, BEFORE_FIRST_TICK_MS));
        const words messages = log();
        in_time = find(messages, "KEYS(*)") < find(messages, "task_list");
        daemon.stop();
    }
    ASSERT_TRUE(in_time) << "no daemon could be asked before its first tick";
    words expected = {"fhour.interval", "ping.snap", "tessard.run"};
    for (const char* figure : {"cpu.", "host.", "conn."}) {
        for (const char* span : {"10m", "2h", "day", "week", "mon"}) {
            expected.push_back(std::string(figure) + span);
        }
    }
    EXPECT_THAT(keys, ::testing::UnorderedElementsAreArray(expected));
}

TEST_F(startup_order, nothing_is_announced_before_the_first_tick) {
    lay_down_sources();
    process& daemon = start({"-l", "debug"});
    words messages;
    size_t first_tick = 0;
    ASSERT_TRUE(eventually([&] {
        messages = log();
        first_tick = find(messages, "insert (0_boot.sh) to task_list (0)");
        return first_tick < messages.size();
    }));
    EXPECT_EQ(messages[0], "application started with pid " + std::to_string(daemon.pid()));
    EXPECT_EQ(read_file("/tmp/tessard.pid"), std::to_string(daemon.pid()));
    for (size_t i = 1; i < first_tick; i++) {
        EXPECT_TRUE(messages[i].find("updated") == std::string::npos &&
                    messages[i].find("loading") == std::string::npos)
            << messages[i];
    }
}

TEST_F(startup_order, of_timers_the_newest_comes_first_and_the_collectors_in_their_order) {
    lay_down_sources();
    start({"-l", "debug"});
    const std::string end_of_tick = "\"conn\"(string): updated to \"7\"";
    const std::string panel = "open (/dev/st7565) failed.";
    words messages;
    ASSERT_TRUE(eventually([&] {
        messages = log();
        const size_t first = find(messages, end_of_tick);
        return find(messages, end_of_tick, first + 1) < messages.size() &&
               find(messages, panel) < messages.size();
    }));
    size_t at = 0;
    for (const char* step :
         {"insert (0_boot.sh) to task_list (0)", "\"eth0\"(hash): field \"rxb\" updated",
          "\"cpu.load\"(string): updated to \"0\"", "\"mem.load\"(string): updated to \"48\"",
          "\"host.num\"(string): updated to \"5\"", "\"host.maxnum\"(string): updated to \"9\"",
          end_of_tick.c_str()}) {
        const size_t next = find(messages, step, at);
        EXPECT_LT(next, messages.size()) << step;
        EXPECT_EQ(find(messages, step), next) << step << " came too early";
        at = next;
    }

    /* The second tick has no new plug-ins. The panel's first cannot come before the scheduler's,
     * not even in one scan of the timers, where the newest comes first. */
    const size_t plugin = find(messages, "task_list");
    EXPECT_EQ(find(messages, "task_list", plugin + 1), messages.size());
    EXPECT_LT(plugin, find(messages, panel));
}

TEST_F(startup_order, a_daemon_that_cannot_serve_has_its_log_and_pid_and_starts_no_module) {
    sandbox::add_tool("hostmon", "echo x >>" + work("ticks") + "\n");
    sandbox::add_plugin("0_boot.sh", "echo x >>" + work("runs") + "\n");
    named_process predecessor("tessard");
    write_file("/tmp/tessard.pid", std::to_string(predecessor.pid()));
    process& daemon = launch({"-l", "debug", "-a", "/nonexistent/folder/socket"});
    EXPECT_EQ(daemon.wait_exit(), 0);
    EXPECT_EQ(log(), words{"application started with pid " + std::to_string(daemon.pid())});
    EXPECT_EQ(read_file("/tmp/tessard.pid"), std::to_string(daemon.pid()));
    EXPECT_EQ(predecessor.wait_exit(), KILLED_BY + 9);
    EXPECT_FALSE(file_exists(work("ticks")));
    EXPECT_FALSE(file_exists(work("runs")));
}

TEST_F(startup_order, the_sweep_runs_from_the_start_and_beside_the_modules) {
    start({"-l", "debug"});
    resp_client client;
    ASSERT_EQ(client.call({"setex", "k", "1", "v"}), "+OK\r\n");
    words messages;
    ASSERT_TRUE(eventually([&] {
        messages = log();
        return find(messages, "\"k\"(string): destroyed") < messages.size();
    }));
    size_t marked = find(messages, "add to expired list");
    EXPECT_LT(marked, find(messages, "\"k\"(string): expired."));
    EXPECT_LT(find(messages, "\"k\"(string): updated to \"v\""), marked);
}

/* The sweep's timer is older than those of the modules. A tick is held up until the key's time is
 * over and a client waits: the sweep that finds it is the one behind that tick, before the client
 * is served. */
TEST_F(startup_order, within_one_scan_of_the_timers_the_sweep_follows_the_modules) {
    const std::string hold = work("hold");
    const std::string held = work("held");
    sandbox::add_tool("hostmon",
                      "while [ -e " + hold + " ]; do : >" + held + "; sleep 0.02; done\n");
    start({"-l", "debug"});
    resp_client client;
    words messages;
    size_t from = 0;
    bool in_time = false;
    for (int attempt = 0; attempt < 5 && !in_time; attempt++) {
        const std::string key = "k" + std::to_string(attempt);
        from = log().size();
        ASSERT_EQ(client.call({"setex", key, "3", "v"}), "+OK\r\n");
        const long set = now_ms();
        write_file(hold, "");
        ASSERT_TRUE(eventually([&] { return file_exists(held); }));
        messages = log();
        in_time = find(messages, "add to expired list", from) == messages.size();
        ASSERT_TRUE(eventually([&] { return now_ms() - set > 4000; }));
        ASSERT_TRUE(client.send(request_frame({"ping"})));
        unlink(hold.c_str());
        EXPECT_EQ(client.frame(), "+OK\r\n");
        ASSERT_TRUE(eventually([&] {
            messages = log();
            return find(messages, "\"" + key + "\"(string): destroyed") < messages.size();
        }));
        unlink(held.c_str());
    }
    ASSERT_TRUE(in_time) << "no tick could be held up before the key's time was over";
    const size_t expired = find(messages, "add to expired list", from);
    ASSERT_GT(expired, 0U);
    EXPECT_EQ(messages[expired - 1], "\"conn\"(string): updated to \"0\"");
    EXPECT_LT(expired, find(messages, "PING()", from));
}
