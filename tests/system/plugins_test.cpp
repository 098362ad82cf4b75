/* Plug-in scripts: real ones, in the fixed folder, started by the real daemon once a second at
 * most.
 *
 * A tick of the daemon begins with the plug-ins and ends with the connection tool. Here that tool
 * waits at the end of each tick until the test lets this tick go on, so scripts and their files
 * never meet a tick that comes too early. */

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <sstream>

#include "tests/system/support/daemon_test.h"
#include "tests/system/support/log_text.h"

using namespace system_test;

namespace {

typedef std::vector<std::string> words;

const std::string FOLDER = "/usr/lib/lua/tplugins/";

/* 64 bytes, one more than is kept of a name. */
const std::string TOO_LONG = "1_" + std::string(62, 'n');

words sorted(words texts) {
    std::sort(texts.begin(), texts.end());
    return texts;
}

class plugins : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        write_file(work("tick"), "1");
        write_file(work("begun"), "0");
        sandbox::add_tool("hostmon",
                          "echo $(($(cat " + work("begun") + ") + 1)) >" + work("begun") + "\n");
        sandbox::add_tool("conntrack", "n=$(cat " + work("begun") + ")\necho >" + work("waits-$n") +
                                           "\nwhile [ -e " + work("gate") + " ] && [ ! -e " +
                                           work("pass-$n") + " ]; do sleep 0.02; done\n");
    }

    /* A script that notes the tick on which it runs, in one write. */
    static void add(const std::string& name, mode_t mode = 0755) {
        sandbox::add_plugin(
            name, "echo $(cat " + work("tick") + ") " + name + " >>" + work("runs") + "\n", mode);
    }

    /* Those that run, those that never do, and what is no plug-in. */
    static void add_every_kind() {
        for (const char* name : {"0_boot.sh", "1_x.sh", "2_y.sh", "5_check.sh", "check.sh",
                                 "-1_never.sh", ".1_hidden.sh"}) {
            add(name);
        }
        add("1_plain.sh", 0644);
        add(TOO_LONG);
        make_folders(FOLDER + "1_folder");
    }

    void TearDown() override {
        unlink(work("gate").c_str());
        daemon_test::TearDown();
    }

    void start_gated() {
        write_file(work("gate"), "");
        start({"-l", "debug"});
        wait_for_end_of_tick();
    }

    /* The tick's scripts have been started, and the daemon waits. */
    void wait_for_end_of_tick() const {
        ASSERT_TRUE(
            eventually([&] { return file_exists(work("waits-" + std::to_string(ticks))); }));
    }

    /* Lets the tick end that waits, and waits for the end of the next. */
    void next_tick() {
        write_file(work("tick"), std::to_string(ticks + 1));
        write_file(work("pass-" + std::to_string(ticks)), "");
        ticks++;
        wait_for_end_of_tick();
    }

    static std::map<std::string, words> runs() {
        std::map<std::string, words> all;
        std::istringstream text(read_file(work("runs")));
        for (std::string when, name; text >> when >> name;) {
            all[name].push_back(when);
        }
        return all;
    }

    /* Waits until so many runs were noted. */
    static bool wait_for_runs(size_t count) {
        return eventually([count] {
            std::string text = read_file(work("runs"));
            return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) >= count;
        });
    }

    static words logged() {
        return log_messages(read_file("/tmp/tessard.log"), {"task_list"});
    }

    int ticks = 1;
};

class plugins_and_clients : public daemon_test {
  protected:
    static words ended_children_of(pid_t parent) {
        words found;
        DIR* folder = opendir("/proc");
        for (dirent* entry; folder != nullptr && (entry = readdir(folder)) != nullptr;) {
            if (atoi(entry->d_name) == 0) {
                continue;
            }
            std::string stat = read_file("/proc/" + std::string(entry->d_name) + "/stat");
            size_t name_end = stat.rfind(')');
            if (name_end != std::string::npos && atoi(stat.c_str() + name_end + 4) == parent &&
                stat[name_end + 2] == 'Z') {
                found.push_back(stat);
            }
        }
        if (folder != nullptr) {
            closedir(folder);
        }
        return found;
    }
};

} // namespace

TEST_F(plugins, are_listed_once_with_the_periods_of_their_names) {
    add_every_kind();
    ASSERT_NO_FATAL_FAILURE(start_gated());
    ASSERT_NO_FATAL_FAILURE(next_tick());
    EXPECT_EQ(
        sorted(logged()),
        (words{"insert (-1_never.sh) to task_list (-1)", "insert (0_boot.sh) to task_list (0)",
               "insert (1_x.sh) to task_list (1)", "insert (2_y.sh) to task_list (2)",
               "insert (5_check.sh) to task_list (5)", "insert (check.sh) to task_list (-1)"}));
}

TEST_F(plugins, with_too_long_a_name_are_warned_of_once) {
    add(TOO_LONG);
    ASSERT_NO_FATAL_FAILURE(start_gated());
    ASSERT_NO_FATAL_FAILURE(next_tick());
    words levels;
    for (const log_record& record : parse_log(read_file("/tmp/tessard.log"))) {
        if (record.text.find(TOO_LONG) != std::string::npos) {
            levels.push_back(record.level);
        }
    }
    EXPECT_EQ(levels, words{"warn  *** "});
    EXPECT_EQ(logged(), words{});
}

TEST_F(plugins, run_on_the_periods_of_their_names_counted_in_ticks) {
    add_every_kind();
    ASSERT_NO_FATAL_FAILURE(start_gated());
    EXPECT_TRUE(wait_for_runs(2));
    const size_t runs_by_tick[] = {0, 2, 4, 5, 7, 9, 11};
    for (int tick = 2; tick <= 6; tick++) {
        ASSERT_NO_FATAL_FAILURE(next_tick());
        EXPECT_TRUE(wait_for_runs(runs_by_tick[tick])) << tick;
    }
    EXPECT_EQ(runs(), (std::map<std::string, words>{{"0_boot.sh", {"1"}},
                                                    {"1_x.sh", {"1", "2", "3", "4", "5", "6"}},
                                                    {"2_y.sh", {"2", "4", "6"}},
                                                    {"5_check.sh", {"5"}}}));
}

TEST_F(plugins, that_come_and_go_are_followed_from_tick_to_tick) {
    add("1_x.sh");
    add("2_y.sh");
    ASSERT_NO_FATAL_FAILURE(start_gated());
    ASSERT_NO_FATAL_FAILURE(next_tick());
    EXPECT_TRUE(wait_for_runs(3));

    /* One loses its permission, one is deleted and comes back, one is found late. */
    const size_t known = logged().size();
    chmod((FOLDER + "1_x.sh").c_str(), 0644);
    unlink((FOLDER + "2_y.sh").c_str());
    add("1_late.sh");
    ASSERT_NO_FATAL_FAILURE(next_tick());
    EXPECT_TRUE(wait_for_runs(4));
    words changes = logged();
    changes.erase(changes.begin(), changes.begin() + static_cast<long>(known));
    EXPECT_EQ(sorted(changes),
              (words{"insert (1_late.sh) to task_list (1)", "remove (1_x.sh) from task_list"}));
    add("2_y.sh");
    ASSERT_NO_FATAL_FAILURE(next_tick());
    EXPECT_TRUE(wait_for_runs(6));
    EXPECT_EQ(runs(),
              (std::map<std::string, words>{
                  {"1_x.sh", {"1", "2"}}, {"2_y.sh", {"2", "4"}}, {"1_late.sh", {"3", "4"}}}));
}

TEST_F(plugins_and_clients, scripts_that_sleep_or_flood_their_output_delay_no_client) {
    sandbox::add_plugin("1_sleep.sh", "echo x >>" + work("runs") + "\nexec sleep 60\n");
    sandbox::add_plugin("1_flood.sh", "exec yes\n");
    /* The daemon's output is a pipe that nobody reads; its end is held open, so that the flood
     * never ends. */
    ASSERT_EQ(mkfifo(work("flooded").c_str(), 0600), 0);
    int reader = open(work("flooded").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    process_options options;
    options.before_exec = [] {
        int pipe = open(work("flooded").c_str(), O_WRONLY);
        dup2(pipe, 1);
        ::close(pipe);
    };
    start({}, "/tmp/tessard.sock", 0, options);
    /* A script that was waited for would take longer than the client waits for its reply. */
    resp_client client;
    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
        return read_file(work("runs")).size() >= 2 * 3;
    }));
    std::string flood(70000, '\0');
    EXPECT_TRUE(eventually([&] { return read(reader, flood.data(), flood.size()) > 1000; }))
        << "the flood was to be there";
    ::close(reader);
}

TEST_F(plugins_and_clients, many_runs_leave_no_ended_children_and_no_descriptors) {
    for (int i = 10; i < 43; i++) {
        sandbox::add_plugin("1_" + std::to_string(i), "echo x >>" + work("runs") + "\n");
    }
    process& daemon = start();
    ASSERT_TRUE(eventually([] { return read_file(work("runs")).size() >= 2 * 33 * 1; }));
    EXPECT_TRUE(eventually([] { return read_file(work("runs")).size() >= 2 * 33 * 4; }));
    /* Between two ticks nothing runs: the shells have ended and are reaped. */
    words ended;
    EXPECT_TRUE(eventually([&] {
        ended = ended_children_of(daemon.pid());
        return ended.empty() && daemon.descriptors() <= 8;
    })) << ended.size()
        << " ended children, " << daemon.descriptors() << " descriptors";
}
