/* Two daemons on one machine: which of them is there in the end, however close together they start
 * and whatever has become of the pid file. */

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tuple>

#include "tests/system/support/daemon_test.h"
#include "tests/system/support/log_text.h"

using namespace system_test;

namespace {

const char* const PID_FILE = "/tmp/tessard.pid";

/* Holds daemons that start at the pid file, as one that starts does to others. */
class start_lock {
  public:
    start_lock() : fd(open(PID_FILE, O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
        struct flock first_byte = {};
        first_byte.l_type = F_WRLCK;
        first_byte.l_len = 1;
        EXPECT_EQ(fcntl(fd, F_SETLK, &first_byte), 0);
    }
    ~start_lock() {
        close(fd);
    }
    start_lock(const start_lock&) = delete;
    start_lock& operator=(const start_lock&) = delete;

  private:
    int fd;
};

class twins : public daemon_test {
  protected:
    /* Starts two daemons that wait for each other just before they become one. */
    std::pair<process*, process*> launch_together() {
        const std::string gate = work("gate");
        mkfifo(gate.c_str(), 0600);
        process_options options;
        options.before_exec = [gate] { (void)!open(gate.c_str(), O_RDONLY | O_CLOEXEC); };
        process& one = launch({}, options);
        process& other = launch({}, options);
        usleep(5000);
        int opened = -1;
        EXPECT_TRUE(eventually([&] {
            opened = open(gate.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            return opened >= 0;
        }));
        /* Whoever comes late finds it open. */
        usleep(5000);
        close(opened);
        return {&one, &other};
    }

    static bool serves() {
        return resp_client().call({"ping"}) == "+OK\r\n";
    }

    /* Leaves /tmp no room for a single byte more; files without bytes can still be made. */
    static void fill_tmp() {
        ASSERT_EQ(mount("tessard-test", "/tmp", "tmpfs", MS_REMOUNT | MS_NOSUID, "size=64k"), 0);
        const int fd = open("/tmp/filler", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const std::string page(4096, 'x');
        while (write(fd, page.data(), page.size()) > 0) {
        }
        close(fd);
    }
};

} // namespace

TEST_F(twins, of_two_that_start_together_exactly_one_is_left_and_serves) {
    SKIP_UNDER_EMULATOR("the name of the other daemon");
    for (int round = 0; round < 50; round++) {
        SCOPED_TRACE(round);
        process* one;
        process* other;
        std::tie(one, other) = launch_together();
        ASSERT_TRUE(eventually([&] { return one->running() != other->running(); }));
        process& left = one->running() ? *one : *other;
        process& gone = one->running() ? *other : *one;
        EXPECT_TRUE(eventually(serves));
        EXPECT_EQ(gone.wait_exit(0), KILLED_BY + SIGKILL);
        EXPECT_EQ(read_file(PID_FILE), std::to_string(left.pid()));
        EXPECT_TRUE(left.running());
        left.stop();
    }
}

TEST_F(twins, one_that_could_not_write_its_pid_is_found_by_the_next) {
    SKIP_UNDER_EMULATOR("the name of the other daemon");
    fill_tmp();
    process& first = start();
    ASSERT_EQ(read_file(PID_FILE), "");
    process& second = launch({});
    EXPECT_EQ(first.wait_exit(), KILLED_BY + SIGKILL);
    EXPECT_TRUE(wait_for_server());
    process& third = launch({});
    EXPECT_EQ(second.wait_exit(), KILLED_BY + SIGKILL);
    EXPECT_TRUE(wait_for_server());
    EXPECT_TRUE(third.running());
}

TEST_F(twins, a_pid_file_that_somebody_keeps_locked_holds_up_a_start_for_seconds_at_most) {
    start_lock held;
    const long before = now_ms();
    start();
    EXPECT_GE(now_ms() - before, 1000);
    EXPECT_LE(now_ms() - before, 10000);
    const std::vector<log_record> records = parse_log(read_file("/tmp/tessard.log"));
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[1].level, "warn  *** ");
    EXPECT_NE(records[1].text.find(PID_FILE), std::string::npos) << records[1].text;
}

TEST_F(twins, a_daemon_that_runs_keeps_no_lock_and_no_descriptor_for_it) {
    process& daemon = start();
    start_lock free;
    EXPECT_EQ(read_file(PID_FILE), std::to_string(daemon.pid()));
}

TEST_F(twins, the_start_is_logged_before_the_predecessor_is_killed) {
    named_process other("tessard");
    write_file(PID_FILE, std::to_string(other.pid()));
    {
        start_lock held;
        process& daemon = launch({});
        const std::string started =
            "application started with pid " + std::to_string(daemon.pid()) + "\n";
        ASSERT_TRUE(eventually(
            [&] { return read_file("/tmp/tessard.log").find(started) != std::string::npos; }));
        EXPECT_EQ(other.wait_exit(0), STILL_RUNNING);
        EXPECT_FALSE(file_exists("/tmp/tessard.sock"));
    }
    EXPECT_EQ(other.wait_exit(), KILLED_BY + SIGKILL);
    EXPECT_TRUE(wait_for_server());
}
