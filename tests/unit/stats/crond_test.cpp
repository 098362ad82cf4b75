#include "stats/crond.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "loop/loop.h"
#include "tests/unit/support/loop_by_tenths.h"
#include "tests/unit/support/own_world.h"
#include "tests/unit/support/store_test.h"

using namespace unit_test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

typedef std::vector<std::string> lines;

const std::string FOLDER = "/usr/lib/lua/tplugins/";

/* Every test runs in a process with a plug-in folder of its own: real scripts, started by a real
 * shell. A script tells over a pipe on which tick it was started; the pipe ends when the last
 * script has. */
class plug_ins_test : public store_test {
  protected:
    void in_own_folder(const std::function<void()>& body) {
        run_in_own_world(own_plugin_folder, [&] {
            module_crond_start();
            log.start(LOG_DEBUG);
            open_pipe();
            body();
        });
    }

    /* The scripts' way to the test. */
    void open_pipe() {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        /* The shell knows descriptors of one digit alone. */
        reports = fcntl(ends[1], F_DUPFD, 3);
        ASSERT_GE(reports, 3);
        ASSERT_LE(reports, 9);
        close(ends[1]);
        from_scripts = ends[0];
        setenv("OUT", std::to_string(reports).c_str(), 1);
    }

    static void write_script(const std::string& name, const std::string& body, mode_t mode = 0755) {
        std::ofstream(FOLDER + name) << "#!/bin/sh\n" << body << "\n";
        chmod((FOLDER + name).c_str(), mode);
    }

    /* A script that reports the ticks on which it runs. */
    static void add(const std::string& name, mode_t mode = 0755) {
        write_script(name, "echo \"$TICK ${0##*/}\" >&$OUT", mode);
    }

    void set_mode(const std::string& name, mode_t mode) {
        wait_for_scripts();
        ASSERT_EQ(chmod((FOLDER + name).c_str(), mode), 0);
    }

    void remove(const std::string& name) {
        wait_for_scripts();
        ASSERT_EQ(unlink((FOLDER + name).c_str()), 0);
    }

    void tick(int count = 1) {
        for (; count > 0; count--) {
            ticks++;
            setenv("TICK", std::to_string(ticks).c_str(), 1);
            EXPECT_EQ(__crond_ontimer(nullptr), 0);
        }
    }

    /* With a script that is due on every tick, and the log at this level. Where memory cannot be
     * limited, the test is skipped. */
    void tick_twice_without_memory(uint32_t level) {
        add("1_x.sh");
        log.start(level);
        log_write(LOG_ERROR, "the log has its memory");
        fflush(nullptr);
        rlimit before;
        ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
        const rlimit none = {0, before.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_AS, &none), 0);
        /* Takes what is left, the large pieces first. */
        size_t taken = 0;
        for (size_t size = 1 << 20; size >= 16 && taken < (1U << 28); size /= 2) {
            for (void* block = malloc(size); block != nullptr && taken < (1U << 28);
                 block = malloc(size)) {
                taken += size;
            }
        }
        const bool exhausted = malloc(16) == nullptr;
        const int first = exhausted ? __crond_ontimer(nullptr) : 0;
        const int second = exhausted ? __crond_ontimer(nullptr) : 0;
        if (setrlimit(RLIMIT_AS, &before) != 0 || !exhausted) {
            _exit(NO_WORLD);
        }
        EXPECT_EQ(first, 0);
        EXPECT_EQ(second, 0);
    }

    /* Scripts run in the background: before their files are changed, all that were started must
     * have ended.
     */
    void wait_for_scripts() {
        close(reports);
        std::istringstream text(read_to_end(from_scripts));
        close(from_scripts);
        int when;
        for (std::string name; text >> when && std::getline(text.ignore(), name);) {
            finished[name].push_back(when);
            std::sort(finished[name].begin(), finished[name].end());
        }
        open_pipe();
    }

    /* Ends scripts that would go on, each of which has reported its pid. Returns how many they
     * were. */
    int end_scripts() {
        close(reports);
        std::istringstream pids(read_to_end(from_scripts));
        int count = 0;
        for (pid_t pid; pids >> pid; count++) {
            EXPECT_EQ(kill(pid, SIGKILL), 0);
        }
        return count;
    }

    /* On which ticks each script was run since the last call. */
    std::map<std::string, std::vector<int>> runs() {
        wait_for_scripts();
        return std::exchange(finished, {});
    }

    /* What was logged since the last call. */
    lines logged() {
        lines all = log.lines();
        log.start(LOG_DEBUG);
        return all;
    }

    int ticks = 0;
    int reports = -1;
    int from_scripts = -1;
    std::map<std::string, std::vector<int>> finished;
};

std::string inserted(const std::string& name, int interval) {
    return "debug *** insert (" + name + ") to task_list (" + std::to_string(interval) + ")";
}

std::string removed(const std::string& name) {
    return "debug *** remove (" + name + ") from task_list";
}

/* The processes whose parent this is, ended ones included. */
std::vector<pid_t> own_children() {
    std::vector<pid_t> found;
    DIR* folder = opendir("/proc");
    while (const dirent* entry = folder != nullptr ? readdir(folder) : nullptr) {
        if (atoi(entry->d_name) == 0) {
            continue;
        }
        std::ifstream file("/proc/" + std::string(entry->d_name) + "/stat");
        const std::string text(std::istreambuf_iterator<char>(file), {});
        const size_t name_end = text.rfind(')');
        if (name_end != std::string::npos && atoi(text.c_str() + name_end + 4) == getpid()) {
            found.push_back(atoi(entry->d_name));
        }
    }
    closedir(folder);
    return found;
}

} // namespace

/* --- When scripts run --- */

TEST_F(plug_ins_test, run_on_the_period_of_their_names_counted_in_ticks) {
    in_own_folder([&] {
        add("1_x.sh");
        add("2_x.sh");
        add("5_check.sh");
        add("7");
        tick(15);
        EXPECT_THAT(runs(), UnorderedElementsAre(
                                testing::Pair("1_x.sh", ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 9, 10,
                                                                    11, 12, 13, 14, 15)),
                                testing::Pair("2_x.sh", ElementsAre(2, 4, 6, 8, 10, 12, 14)),
                                testing::Pair("5_check.sh", ElementsAre(5, 10, 15)),
                                testing::Pair("7", ElementsAre(7, 14))));
    });
}

TEST_F(plug_ins_test, count_from_the_tick_on_which_they_were_found) {
    in_own_folder([&] {
        tick(3);
        add("3_late.sh");
        add("1_late.sh");
        tick(6);
        EXPECT_THAT(runs(), UnorderedElementsAre(
                                testing::Pair("3_late.sh", ElementsAre(6, 9)),
                                testing::Pair("1_late.sh", ElementsAre(4, 5, 6, 7, 8, 9))));
    });
}

TEST_F(plug_ins_test, with_a_long_period_run_on_its_last_tick_and_not_before) {
    in_own_folder([&] {
        add("60_report.sh");
        tick(59);
        EXPECT_THAT(runs(), IsEmpty());
        tick(1);
        EXPECT_THAT(runs()["60_report.sh"], ElementsAre(60));
        tick(60);
        EXPECT_THAT(runs()["60_report.sh"], ElementsAre(120));
    });
}

TEST_F(plug_ins_test, of_period_zero_run_once_on_the_tick_on_which_they_were_found) {
    in_own_folder([&] {
        tick();
        add("0_boot.sh");
        add("00_too.sh");
        add("0");
        add("-0_minus.sh");
        tick(10);
        EXPECT_THAT(runs(), UnorderedElementsAre(testing::Pair("0_boot.sh", ElementsAre(2)),
                                                 testing::Pair("00_too.sh", ElementsAre(2)),
                                                 testing::Pair("0", ElementsAre(2)),
                                                 testing::Pair("-0_minus.sh", ElementsAre(2))));
        EXPECT_THAT(logged(),
                    UnorderedElementsAre(inserted("0_boot.sh", 0), inserted("00_too.sh", 0),
                                         inserted("0", 0), inserted("-0_minus.sh", 0)));
    });
}

TEST_F(plug_ins_test, that_ran_once_never_run_again_even_if_their_files_are_replaced) {
    in_own_folder([&] {
        add("0_boot.sh");
        tick(2);
        remove("0_boot.sh");
        tick(2);
        add("0_boot.sh");
        tick(2);
        EXPECT_THAT(runs()["0_boot.sh"], ElementsAre(1));
        EXPECT_THAT(logged(), ElementsAre(inserted("0_boot.sh", 0)));
    });
}

TEST_F(plug_ins_test, that_ran_once_are_new_when_their_x_bit_was_taken_in_the_meantime) {
    in_own_folder([&] {
        add("0_boot.sh");
        tick();
        set_mode("0_boot.sh", 0644);
        tick();
        set_mode("0_boot.sh", 0755);
        tick(2);
        EXPECT_THAT(runs()["0_boot.sh"], ElementsAre(1, 3));
    });
}

TEST_F(plug_ins_test, without_digits_are_listed_and_never_run) {
    in_own_folder([&] {
        for (const char* name : {"check.sh", "x5_a.sh", "+_a.sh", "-_a.sh", "_5", "-"}) {
            add(name);
        }
        tick(8);
        EXPECT_THAT(runs(), IsEmpty());
        EXPECT_THAT(logged(),
                    UnorderedElementsAre(inserted("check.sh", -1), inserted("x5_a.sh", -1),
                                         inserted("+_a.sh", -1), inserted("-_a.sh", -1),
                                         inserted("_5", -1), inserted("-", -1)));
    });
}

TEST_F(plug_ins_test, of_a_negative_period_are_listed_with_it_and_never_run) {
    in_own_folder([&] {
        add("-5_x.sh");
        add("-1_y.sh");
        add("-2147483648_z.sh");
        add("-9999999999_w.sh");
        tick(12);
        EXPECT_THAT(runs(), IsEmpty());
        EXPECT_THAT(
            logged(),
            UnorderedElementsAre(inserted("-5_x.sh", -5), inserted("-1_y.sh", -1),
                                 "debug *** insert (-2147483648_z.sh) to task_list (-2147483648)",
                                 "debug *** insert (-9999999999_w.sh) to task_list (-2147483648)"));
    });
}

TEST_F(plug_ins_test, periods_are_decimal_and_end_at_the_first_other_character) {
    in_own_folder([&] {
        for (const char* name : {"03_a.sh", "0x2_b.sh", "2.5_c.sh", "+3_d.sh", "4e1_e.sh"}) {
            add(name);
        }
        tick(6);
        EXPECT_THAT(runs(), UnorderedElementsAre(testing::Pair("03_a.sh", ElementsAre(3, 6)),
                                                 testing::Pair("0x2_b.sh", ElementsAre(1)),
                                                 testing::Pair("2.5_c.sh", ElementsAre(2, 4, 6)),
                                                 testing::Pair("+3_d.sh", ElementsAre(3, 6)),
                                                 testing::Pair("4e1_e.sh", ElementsAre(4))));
        EXPECT_THAT(logged(), UnorderedElementsAre(inserted("03_a.sh", 3), inserted("0x2_b.sh", 0),
                                                   inserted("2.5_c.sh", 2), inserted("+3_d.sh", 3),
                                                   inserted("4e1_e.sh", 4)));
    });
}

TEST_F(plug_ins_test, periods_beyond_32_bits_saturate) {
    in_own_folder([&] {
        add("4294967297_x.sh");
        add("99999999999999999999_y.sh");
        tick(3);
        EXPECT_THAT(runs(), IsEmpty());
        EXPECT_THAT(logged(),
                    UnorderedElementsAre(inserted("4294967297_x.sh", 2147483647),
                                         inserted("99999999999999999999_y.sh", 2147483647)));
    });
}

TEST_F(plug_ins_test, leading_blanks_belong_to_the_number_but_the_shell_does_not_find_the_script) {
    in_own_folder([&] {
        add(" 2_x.sh");
        add("\t3_y.sh");
        /* The shell complains that the folder is no command. */
        const int before = dup(STDERR_FILENO);
        dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        tick(6);
        dup2(before, STDERR_FILENO);
        EXPECT_THAT(logged(),
                    UnorderedElementsAre(inserted(" 2_x.sh", 2), inserted("\t3_y.sh", 3)));
        EXPECT_THAT(runs(), IsEmpty());
    });
}

TEST_F(plug_ins_test, are_started_in_the_order_in_which_they_were_found) {
    in_own_folder([&] {
        for (const char* name : {"1_c", "1_a", "1_b"}) {
            write_script(name, "echo \"$TICK $$ ${0##*/}\" >&$OUT");
            tick();
        }
        EXPECT_THAT(logged(),
                    ElementsAre(inserted("1_c", 1), inserted("1_a", 1), inserted("1_b", 1)));
        wait_for_scripts();
        /* Numbers of processes grow with each that is started, but for the one time when they begin
         * anew. */
        std::map<int, std::string> by_pid;
        do {
            ASSERT_LT(ticks, 13) << "numbers that grow were never seen";
            finished.clear();
            by_pid.clear();
            tick();
            for (const auto& [report, when] : runs()) {
                by_pid[atoi(report.c_str())] = report.substr(report.find(' ') + 1);
            }
            ASSERT_EQ(by_pid.size(), 3u);
        } while (by_pid.rbegin()->first - by_pid.begin()->first >= 10000);
        EXPECT_THAT(by_pid,
                    ElementsAre(testing::Pair(testing::_, "1_c"), testing::Pair(testing::_, "1_a"),
                                testing::Pair(testing::_, "1_b")));
    });
}

TEST_F(plug_ins_test, that_are_deleted_are_started_all_the_same_and_fail_in_the_shell) {
    in_own_folder([&] {
        add("1_gone.sh");
        add("2_gone.sh");
        tick();
        remove("1_gone.sh");
        remove("2_gone.sh");
        int errors[2];
        ASSERT_EQ(pipe2(errors, O_CLOEXEC), 0);
        const int before = dup(STDERR_FILENO);
        dup2(errors[1], STDERR_FILENO);
        tick(2);
        dup2(before, STDERR_FILENO);
        close(before);
        close(errors[1]);
        std::istringstream complaints(read_to_end(errors[0]));
        lines all;
        for (std::string line; std::getline(complaints, line);) {
            all.push_back(line);
        }
        EXPECT_THAT(all, UnorderedElementsAre(testing::HasSubstr(FOLDER + "1_gone.sh"),
                                              testing::HasSubstr(FOLDER + "1_gone.sh"),
                                              testing::HasSubstr(FOLDER + "2_gone.sh")));
        EXPECT_THAT(runs()["1_gone.sh"], ElementsAre(1));
    });
}

/* --- Which files are listed --- */

TEST_F(plug_ins_test, are_listed_once_when_first_seen) {
    in_own_folder([&] {
        add("2_x.sh");
        tick(5);
        EXPECT_THAT(logged(), ElementsAre(inserted("2_x.sh", 2)));
    });
}

TEST_F(plug_ins_test, are_executable_regular_files_whose_names_do_not_begin_with_a_dot) {
    in_own_folder([&] {
        add("1_plain.sh", 0644);
        add(".1_hidden.sh");
        ASSERT_EQ(mkdir((FOLDER + "1_folder").c_str(), 0755), 0);
        ASSERT_EQ(mkfifo((FOLDER + "1_fifo").c_str(), 0755), 0);
        ASSERT_EQ(symlink("/nonexistent/1_x", (FOLDER + "1_dangling").c_str()), 0);
        ASSERT_EQ(symlink("/usr", (FOLDER + "1_link_to_folder").c_str()), 0);
        tick(3);
        EXPECT_THAT(runs(), IsEmpty());
        EXPECT_THAT(logged(), IsEmpty());
    });
}

TEST_F(plug_ins_test, may_be_links_to_scripts) {
    in_own_folder([&] {
        write_script(".real", "echo \"$TICK link\" >&$OUT");
        ASSERT_EQ(symlink(".real", (FOLDER + "2_link").c_str()), 0);
        tick(4);
        EXPECT_THAT(runs()["link"], ElementsAre(2, 4));
        EXPECT_THAT(logged(), ElementsAre(inserted("2_link", 2)));
    });
}

TEST_F(plug_ins_test, are_listed_when_they_become_executable) {
    in_own_folder([&] {
        add("1_x.sh", 0644);
        tick(2);
        set_mode("1_x.sh", 0755);
        tick(2);
        EXPECT_THAT(runs()["1_x.sh"], ElementsAre(3, 4));
        EXPECT_THAT(logged(), ElementsAre(inserted("1_x.sh", 1)));
    });
}

TEST_F(plug_ins_test, leave_the_list_when_their_x_bit_is_taken) {
    in_own_folder([&] {
        add("1_x.sh");
        add("2_y.sh");
        tick(2);
        logged();
        set_mode("1_x.sh", 0644);
        tick(2);
        EXPECT_THAT(logged(), ElementsAre(removed("1_x.sh")));
        std::map<std::string, std::vector<int>> all = runs();
        EXPECT_THAT(all["1_x.sh"], ElementsAre(1, 2));
        EXPECT_THAT(all["2_y.sh"], ElementsAre(2, 4));
    });
}

TEST_F(plug_ins_test, that_come_back_count_afresh) {
    in_own_folder([&] {
        add("3_x.sh");
        tick(2);
        set_mode("3_x.sh", 0644);
        tick();
        set_mode("3_x.sh", 0755);
        tick(3);
        EXPECT_THAT(runs()["3_x.sh"], ElementsAre(6));
        EXPECT_THAT(logged(),
                    ElementsAre(inserted("3_x.sh", 3), removed("3_x.sh"), inserted("3_x.sh", 3)));
    });
}

TEST_F(plug_ins_test, that_are_deleted_stay_listed_and_are_started_again_when_they_come_back) {
    in_own_folder([&] {
        add("3_x.sh");
        tick(2);
        remove("3_x.sh");
        const int before = dup(STDERR_FILENO);
        dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        tick(2);
        dup2(before, STDERR_FILENO);
        wait_for_scripts();
        add("3_x.sh");
        tick(2);
        EXPECT_THAT(runs()["3_x.sh"], ElementsAre(6));
        EXPECT_THAT(logged(), ElementsAre(inserted("3_x.sh", 3)));
    });
}

TEST_F(plug_ins_test, go_on_without_their_folder) {
    in_own_folder([&] {
        add("2_x.sh");
        tick();
        const std::string folder = FOLDER.substr(0, FOLDER.size() - 1);
        wait_for_scripts();
        ASSERT_EQ(rename(folder.c_str(), (folder + ".away").c_str()), 0);
        const int before = dup(STDERR_FILENO);
        dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        tick(2);
        dup2(before, STDERR_FILENO);
        wait_for_scripts();
        ASSERT_EQ(rename((folder + ".away").c_str(), folder.c_str()), 0);
        tick(1);
        EXPECT_THAT(runs()["2_x.sh"], ElementsAre(4));
        EXPECT_THAT(logged(), ElementsAre(inserted("2_x.sh", 2)));
    });
}

TEST_F(plug_ins_test, that_a_listed_name_begins_with_are_hidden) {
    in_own_folder([&] {
        add("1_a.sh");
        tick();
        add("1_a");
        add("1_");
        add("1");
        tick();
        EXPECT_THAT(logged(), ElementsAre(inserted("1_a.sh", 1)));
        EXPECT_THAT(runs(), ElementsAre(testing::Pair("1_a.sh", ElementsAre(1, 2))));
    });
}

TEST_F(plug_ins_test, whose_names_are_longer_than_a_listed_one_are_not_hidden) {
    in_own_folder([&] {
        add("1_a");
        tick();
        add("1_a.sh");
        tick();
        EXPECT_THAT(logged(), ElementsAre(inserted("1_a", 1), inserted("1_a.sh", 1)));
        EXPECT_THAT(runs(), ElementsAre(testing::Pair("1_a", ElementsAre(1, 2)),
                                        testing::Pair("1_a.sh", ElementsAre(2))));
    });
}

TEST_F(plug_ins_test, that_are_hidden_appear_when_the_other_leaves) {
    in_own_folder([&] {
        add("1_a.sh");
        tick();
        add("1_a");
        tick();
        set_mode("1_a.sh", 0644);
        tick(2);
        const lines all = logged();
        EXPECT_THAT(all, ElementsAre(inserted("1_a.sh", 1), removed("1_a.sh"), inserted("1_a", 1)));
    });
}

TEST_F(plug_ins_test, leave_the_list_for_any_entry_that_their_name_begins_with) {
    in_own_folder([&] {
        add("4_abc");
        tick();
        EXPECT_THAT(logged(), ElementsAre(inserted("4_abc", 4)));
        add("4_a", 0644);
        tick(6);
        /* The line bears the entry's name, not the task's. The task is thrown out on each tick and
         * comes back on the same tick or the next, depending on the folder's order: it never gets
         * to its fourth. */
        const lines all = logged();
        EXPECT_EQ(std::count(all.begin(), all.end(), removed("4_a")), 6);
        const auto back = std::count(all.begin(), all.end(), inserted("4_abc", 4));
        EXPECT_TRUE(back == 5 || back == 6) << back;
        EXPECT_EQ(all.size(), 6u + static_cast<size_t>(back));
        remove("4_a");
        tick(2);
        EXPECT_THAT(runs(), IsEmpty());
        tick(2);
        EXPECT_THAT(runs()["4_abc"], ElementsAre(back == 6 ? 10 : 11));
    });
}

TEST_F(plug_ins_test, leave_the_list_in_the_order_of_the_list_when_several_fit) {
    in_own_folder([&] {
        add("9_ax");
        tick();
        add("9_ay");
        tick();
        logged();
        remove("9_ax");
        remove("9_ay");
        add("9_a", 0644);
        tick();
        EXPECT_THAT(logged(), ElementsAre(removed("9_a"))) << "one of the two";
        remove("9_a");
        add("9_ay");
        tick();
        EXPECT_THAT(logged(), IsEmpty()) << "the second is still listed";
        add("9_ax");
        tick();
        EXPECT_THAT(logged(), ElementsAre(inserted("9_ax", 9)));
    });
}

TEST_F(plug_ins_test, dangling_links_remove_a_task_like_files_without_x_bit) {
    in_own_folder([&] {
        add("9_x");
        tick();
        remove("9_x");
        ASSERT_EQ(symlink("/nonexistent/9_x", (FOLDER + "9_x").c_str()), 0);
        tick();
        EXPECT_THAT(logged(), ElementsAre(inserted("9_x", 9), removed("9_x")));
    });
}

TEST_F(plug_ins_test, folders_that_take_a_listed_name_leave_the_task) {
    in_own_folder([&] {
        add("9_x");
        tick();
        remove("9_x");
        ASSERT_EQ(mkdir((FOLDER + "9_x").c_str(), 0755), 0);
        tick(2);
        EXPECT_THAT(logged(), ElementsAre(inserted("9_x", 9)));
    });
}

TEST_F(plug_ins_test, more_than_33_are_not_listed) {
    in_own_folder([&] {
        for (int i = 10; i < 45; i++) {
            add("5_" + std::to_string(i));
        }
        tick(5);
        lines listed = logged();
        EXPECT_EQ(listed.size(), 33u);
        EXPECT_THAT(listed, testing::Each(testing::StartsWith("debug *** insert (5_")));
        std::map<std::string, std::vector<int>> all = runs();
        EXPECT_EQ(all.size(), 33u);
        for (const auto& [name, when] : all) {
            EXPECT_THAT(when, ElementsAre(5)) << name;
        }
        /* One goes, and one of those that found no room takes its place. */
        set_mode(all.begin()->first, 0644);
        tick(2);
        listed = logged();
        ASSERT_EQ(listed.size(), 2u);
        EXPECT_EQ(listed[0], removed(all.begin()->first));
        EXPECT_THAT(listed[1], testing::StartsWith("debug *** insert (5_"));
    });
}

TEST_F(plug_ins_test, that_33_are_listed_is_said_by_nobody) {
    in_own_folder([&] {
        for (int i = 10; i < 43; i++) {
            add("5_" + std::to_string(i));
        }
        tick();
        EXPECT_EQ(logged().size(), 33u);
        add("5_99");
        tick(3);
        EXPECT_THAT(logged(), IsEmpty());
    });
}

TEST_F(plug_ins_test, of_names_below_64_bytes_are_listed_whole) {
    in_own_folder([&] {
        const std::string name = "1_" + std::string(61, 'n');
        ASSERT_EQ(name.size(), 63u);
        add(name);
        tick(2);
        EXPECT_THAT(logged(), ElementsAre(inserted(name, 1)));
        EXPECT_THAT(runs()[name], ElementsAre(1, 2));
    });
}

TEST_F(plug_ins_test, of_longer_names_are_refused_and_that_is_said_once_each) {
    in_own_folder([&] {
        const lines names = {"1_" + std::string(62, 'a'), "1_" + std::string(63, 'b'),
                             "1_" + std::string(253, 'c')};
        ASSERT_EQ(names[0].size(), 64u);
        for (const std::string& name : names) {
            add(name);
        }
        tick(4);
        lines all = logged();
        EXPECT_EQ(all.size(), 3u);
        for (const std::string& name : names) {
            EXPECT_THAT(all, testing::Contains(testing::AllOf(testing::StartsWith("warn  *** "),
                                                              testing::HasSubstr(name))));
        }
        EXPECT_THAT(runs(), IsEmpty());
        const std::string later = "1_" + std::string(62, 'd');
        add(later);
        tick(2);
        all = logged();
        EXPECT_THAT(all, ElementsAre(testing::HasSubstr(later)));
    });
}

TEST_F(plug_ins_test,
       of_longer_names_are_refused_without_a_word_while_warnings_are_off_and_that_is_said_later) {
    in_own_folder([&] {
        const std::string name = "1_" + std::string(62, 'a');
        log.start(LOG_ERROR);
        add(name);
        tick(2);
        EXPECT_THAT(log.lines(), IsEmpty());
        log.start(LOG_WARN);
        tick(2);
        EXPECT_THAT(log.lines(), ElementsAre(testing::HasSubstr(name)));
    });
}

TEST_F(plug_ins_test, of_longer_names_may_be_many_and_cost_no_memory) {
    in_own_folder([&] {
        for (int i = 100; i < 200; i++) {
            add("1_" + std::to_string(i) + std::string(60, 'n'));
        }
        tick();
        const lines all = logged();
        EXPECT_EQ(std::set(all.begin(), all.end()).size(), 100u) << "each says another name";
        EXPECT_EQ(all.size(), 100u);
        EXPECT_THAT(all, testing::Each(testing::StartsWith("warn  *** plug-in (1_1")));
        add("1_200" + std::string(60, 'n'));
        const size_t used = mallinfo2().uordblks;
        EXPECT_EQ(__crond_ontimer(nullptr), 0);
        EXPECT_EQ(mallinfo2().uordblks, used);
        EXPECT_EQ(logged().size(), 1u);
        EXPECT_THAT(runs(), IsEmpty());
    });
}

TEST_F(plug_ins_test, of_long_names_that_are_not_executable_harm_nobody) {
    in_own_folder([&] {
        const std::string name = "1_" + std::string(61, 'n');
        add(name);
        tick();
        add(name + "x", 0644);
        add(name + "yz", 0644);
        tick();
        EXPECT_THAT(logged(), ElementsAre(inserted(name, 1)));
    });
}

TEST_F(plug_ins_test, are_not_spoken_of_above_the_debug_level) {
    in_own_folder([&] {
        log.start(LOG_INFO);
        add("1_x.sh");
        tick();
        set_mode("1_x.sh", 0644);
        tick();
        EXPECT_THAT(log.lines(), IsEmpty());
    });
}

TEST_F(plug_ins_test, with_percent_signs_in_their_names_are_logged_as_they_are) {
    in_own_folder([&] {
        add("1_%s%n%d.sh");
        tick();
        EXPECT_THAT(logged(), ElementsAre(inserted("1_%s%n%d.sh", 1)));
    });
}

TEST_F(plug_ins_test, without_memory_for_the_list_never_start) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the address sanitizer's heap has no such end";
#endif
    in_own_folder([&] {
        tick_twice_without_memory(LOG_ERROR);
        EXPECT_THAT(
            log.lines(),
            ElementsAre("error *** the log has its memory",
                        "error *** tsk_list is NULL in function (__crond_ontimer) line (177)"));
        tick(2);
        EXPECT_EQ(log.lines().size(), 2u);
        EXPECT_THAT(runs(), IsEmpty());
    });
}

TEST_F(plug_ins_test, without_memory_for_the_list_are_not_spoken_of_when_errors_are_off) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the address sanitizer's heap has no such end";
#endif
    in_own_folder([&] {
        tick_twice_without_memory(LOG_FATAL);
        tick(2);
        EXPECT_THAT(log.lines(), ElementsAre("error *** the log has its memory"));
        EXPECT_THAT(runs(), IsEmpty());
    });
}

/* --- What running them costs the daemon --- */

TEST_F(plug_ins_test, that_sleep_hold_nobody_up) {
    in_own_folder([&] {
        write_script(
            "1_sleep.sh",
            "echo $$ >&$OUT; exec sleep 60 >/dev/null 2>&1 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&-");
        const auto start = std::chrono::steady_clock::now();
        tick(3);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
        EXPECT_EQ(end_scripts(), 3);
    });
}

TEST_F(plug_ins_test, that_flood_their_output_hold_nobody_up) {
    in_own_folder([&] {
        int flooded[2];
        ASSERT_EQ(pipe2(flooded, O_CLOEXEC), 0);
        const int before = dup(STDOUT_FILENO);
        write_script("1_flood.sh", "echo $$ >&$OUT; exec yes 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&-");
        fflush(nullptr);
        dup2(flooded[1], STDOUT_FILENO);
        const auto start = std::chrono::steady_clock::now();
        tick(3);
        const auto end = std::chrono::steady_clock::now();
        dup2(before, STDOUT_FILENO);
        EXPECT_LT(end - start, std::chrono::seconds(10));
        EXPECT_EQ(end_scripts(), 3);
    });
}

TEST_F(plug_ins_test, a_thousand_runs_leave_no_child_behind) {
    in_own_folder([&] {
        for (int i = 10; i < 43; i++) {
            write_script("1_" + std::to_string(i), "echo \"$TICK x\" >&$OUT");
        }
        size_t count = 0;
        for (int i = 0; i < 31; i++) {
            tick();
            count += runs()["x"].size();
            EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left after tick " << ticks;
        }
        EXPECT_EQ(count, 1023u);
        EXPECT_THAT(own_children(), IsEmpty());
    });
}

TEST_F(plug_ins_test, leave_no_descriptor_open_in_the_daemon) {
    in_own_folder([&] {
        const auto count = [] {
            int open_now = 0;
            for (int fd = 0; fd < 1024; fd++) {
                open_now += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
            }
            return open_now;
        };
        add("1_x.sh");
        tick();
        const int before = count();
        tick(50);
        EXPECT_EQ(count(), before);
    });
}

TEST_F(plug_ins_test, are_looked_for_once_a_second) {
    in_own_folder([&] {
        ASSERT_NE(loop_init(1024, LOOP_SELECT), 0);
        module_crond_start();
        std::vector<int> looked;
        run_loop_by_tenths(35, [&](int tenth) {
            if (!logged().empty()) {
                looked.push_back(tenth);
            }
            /* Found when the folder is looked at next, and never run. */
            add("n" + std::to_string(100 + tenth));
        });
        EXPECT_THAT(looked, ElementsAre(10, 20, 30));
    });
}
