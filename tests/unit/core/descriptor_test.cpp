#include "core/descriptor.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
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
