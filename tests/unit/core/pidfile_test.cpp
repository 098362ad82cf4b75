#include "core/pidfile.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include "tests/unit/support/own_world.h"

using namespace unit_test;

namespace {

class pidfile_test : public testing::Test {
  protected:
    void SetUp() override {
        path = testing::TempDir() + "tessard-pid-XXXXXX";
        const int fd = mkstemp(path.data());
        ASSERT_GE(fd, 0);
        close(fd);
    }
    void TearDown() override {
        pidfile_release();
        unlink(path.c_str());
    }

    void write_text(const std::string& text) const {
        std::ofstream(path, std::ios::binary) << text;
    }
    std::string text() const {
        std::ifstream file(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }

    /* Who another process is told to hold a lock from this byte on, 0 when nobody does. */
    pid_t holder(off_t from, off_t length) const {
        pid_t found = -1;
        run_in_own_world(nothing_special, [&] {
            const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
            struct flock lock = {};
            lock.l_type = F_WRLCK;
            lock.l_start = from;
            lock.l_len = length;
            ASSERT_EQ(fcntl(fd, F_GETLK, &lock), 0);
            const pid_t answer = lock.l_type == F_UNLCK ? 0 : lock.l_pid;
            std::ofstream(path + ".holder") << answer;
        });
        std::ifstream(path + ".holder") >> found;
        unlink((path + ".holder").c_str());
        return found;
    }

    std::string path;
};

} // namespace

TEST_F(pidfile_test, the_pid_takes_the_place_of_any_older_text) {
    for (const std::string& old : {std::string(), std::string("1"), std::string(31, '0'),
                                   std::string(5000, 'x'), std::string("0 \n")}) {
        write_text(old);
        pidfile_take(path.c_str(), 4711);
        EXPECT_EQ(text(), "4711") << old.size();
        pidfile_release();
    }
}

TEST_F(pidfile_test, a_file_that_is_not_there_is_made) {
    unlink(path.c_str());
    pidfile_take(path.c_str(), 4711);
    EXPECT_EQ(text(), "4711");
}

TEST_F(pidfile_test, the_start_is_locked_until_it_is_released) {
    pidfile_take(path.c_str(), getpid());
    EXPECT_EQ(holder(0, 1), getpid());
    EXPECT_EQ(holder(1, 0), 0);
    pidfile_release();
    EXPECT_EQ(holder(0, 0), 0);
}

/* Looked at from outside: a process that closes the file once more gives its locks up. */
TEST_F(pidfile_test, a_pid_that_could_not_be_written_is_told_by_a_lock) {
    run_in_own_world(nothing_special, [this] {
        rlimit limit;
        ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
        const rlimit none = {0, limit.rlim_max};
        signal(SIGXFSZ, SIG_IGN);
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
        pidfile_take(path.c_str(), getpid());
        pidfile_release();
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        EXPECT_EQ(holder(0, 1), 0) << "the next one may start";
        EXPECT_EQ(holder(1, 0), getpid());
        EXPECT_EQ(holder(getpid(), 1), getpid());
        EXPECT_EQ(text(), "");
    });
    EXPECT_EQ(holder(0, 0), 0) << "the process that held it has ended";
}
