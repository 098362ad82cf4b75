#include "core/descriptor.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/unit/support/own_world.h"

using namespace unit_test;

namespace {

class descriptor_open_test : public testing::Test {
  protected:
    void SetUp() override {
        folder = testing::TempDir() + "tessard-descriptor-XXXXXX";
        ASSERT_NE(mkdtemp(folder.data()), nullptr);
        path = folder + "/file";
    }
    void TearDown() override {
        unlink(path.c_str());
        rmdir(folder.c_str());
    }

    void write_text(const char* text) const {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_EQ(write(fd, text, strlen(text)), static_cast<ssize_t>(strlen(text)));
        close(fd);
    }
    off_t size() const {
        struct stat status = {};
        EXPECT_EQ(stat(path.c_str(), &status), 0);
        return status.st_size;
    }

    std::string folder;
    std::string path;
};

/* What a descriptor leads to, "" when it is closed. */
std::string target_of(int fd) {
    char text[256];
    const ssize_t size =
        readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), text, sizeof text);
    return std::string(text, size > 0 ? static_cast<size_t>(size) : 0);
}

} // namespace

TEST_F(descriptor_open_test, what_is_opened_neither_blocks_nor_is_inherited) {
    const mode_t mask = umask(0);
    const int fd = descriptor_open_untrusted(path.c_str(), O_WRONLY | O_CREAT, 0640);
    umask(mask);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_WRONLY);
    struct stat status;
    ASSERT_EQ(fstat(fd, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    close(fd);
}

TEST_F(descriptor_open_test, the_other_end_of_a_fifo_is_not_waited_for) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(descriptor_open_untrusted(path.c_str(), O_WRONLY), -1);
    EXPECT_EQ(errno, ENXIO);
    const int fd = descriptor_open_untrusted(path.c_str(), O_RDONLY);
    EXPECT_GE(fd, 0);
    close(fd);
}

TEST_F(descriptor_open_test, what_is_not_there_gives_the_reason) {
    EXPECT_EQ(descriptor_open_untrusted(path.c_str(), O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(descriptor_open_test, a_plain_file_is_made_and_emptied) {
    int fd = descriptor_open_plain(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(write(fd, "old text", 8), 8);
    close(fd);
    fd = descriptor_open_plain(path.c_str(), O_WRONLY);
    EXPECT_EQ(size(), 8) << "emptied without being asked to";
    close(fd);
    fd = descriptor_open_plain(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    EXPECT_EQ(size(), 0);
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    close(fd);
}

TEST_F(descriptor_open_test, a_symbolic_link_is_no_plain_file) {
    const std::string link_path = folder + "/link";
    write_text("precious");
    for (const char* target : {"file", "nothing"}) {
        ASSERT_EQ(symlink(target, link_path.c_str()), 0);
        for (const int flags : {O_RDONLY, O_WRONLY | O_CREAT | O_TRUNC}) {
            EXPECT_EQ(descriptor_open_plain(link_path.c_str(), flags, 0600), -1) << target;
            EXPECT_EQ(errno, ELOOP) << target;
        }
        unlink(link_path.c_str());
    }
    EXPECT_EQ(size(), 8);
    EXPECT_NE(access((folder + "/nothing").c_str(), F_OK), 0);
}

TEST_F(descriptor_open_test, a_file_of_two_names_is_no_plain_file_and_keeps_its_text) {
    const std::string other = folder + "/other";
    write_text("precious");
    ASSERT_EQ(link(path.c_str(), other.c_str()), 0);
    EXPECT_EQ(descriptor_open_plain(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(size(), 8);
    unlink(other.c_str());
}

TEST_F(descriptor_open_test, what_is_no_file_at_all_is_no_plain_file) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(descriptor_open_plain(path.c_str(), O_RDWR), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(descriptor_open_plain("/dev/null", O_WRONLY), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(descriptor_open_plain(folder.c_str(), O_RDONLY), -1);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(descriptor_open_test, what_is_refused_leaves_no_descriptor) {
    const int next = dup(STDOUT_FILENO);
    close(next);
    EXPECT_EQ(descriptor_open_plain("/dev/null", O_WRONLY), -1);
    EXPECT_EQ(fcntl(next, F_GETFD), -1);
}

namespace {

/* The soft limit after it was to be raised from `soft`, which may go up to `hard`. */
rlim_t raised(rlim_t soft, rlim_t hard, unsigned count) {
    rlimit limit = {soft, hard};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    descriptor_raise_limit(count);
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(limit.rlim_max, hard);
    return limit.rlim_cur;
}

} // namespace

TEST(descriptor_limit_test, is_raised_as_far_as_it_may_be_and_never_lowered) {
    run_in_own_world(nothing_special, [] {
        EXPECT_EQ(raised(64, 512, 128), 128u);
        EXPECT_EQ(raised(300, 512, 128), 300u);
        EXPECT_EQ(raised(64, 100, 128), 100u);
        EXPECT_EQ(raised(100, 100, 128), 100u);
    });
}

TEST(descriptor_standard_test, closed_ones_are_filled_with_null_in_both_directions) {
    run_in_own_world(nothing_special, [] {
        const int spare = dup(STDOUT_FILENO);
        for (int fd = 0; fd < 3; fd++) {
            close(fd);
        }
        descriptor_hold_standard(true);
        for (int fd = 0; fd < 3; fd++) {
            char byte;
            EXPECT_EQ(target_of(fd), "/dev/null") << fd;
            EXPECT_EQ(read(fd, &byte, 1), 0) << fd;
            EXPECT_EQ(write(fd, "x", 1), 1) << fd;
        }
        EXPECT_EQ(fcntl(spare + 1, F_GETFD), -1) << "one too many";
        dup2(spare, STDOUT_FILENO);
    });
}

TEST(descriptor_standard_test, those_that_are_not_to_work_fail_whoever_uses_them) {
    run_in_own_world(nothing_special, [] {
        const int spare = dup(STDOUT_FILENO);
        for (int fd = 0; fd < 3; fd++) {
            close(fd);
        }
        descriptor_hold_standard(false);
        char byte;
        EXPECT_EQ(target_of(STDIN_FILENO), "/dev/null");
        EXPECT_EQ(read(STDIN_FILENO, &byte, 1), -1);
        for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
            EXPECT_EQ(target_of(fd), "/dev/null") << fd;
            EXPECT_EQ(write(fd, "x", 1), -1) << fd;
        }
        dup2(spare, STDOUT_FILENO);
    });
}

TEST(descriptor_standard_test, open_ones_are_left_alone) {
    run_in_own_world(nothing_special, [] {
        const std::string input = target_of(STDIN_FILENO);
        const std::string output = target_of(STDOUT_FILENO);
        close(STDERR_FILENO);
        descriptor_hold_standard(true);
        EXPECT_EQ(target_of(STDIN_FILENO), input);
        EXPECT_EQ(target_of(STDOUT_FILENO), output);
        EXPECT_EQ(target_of(STDERR_FILENO), "/dev/null");
    });
}
