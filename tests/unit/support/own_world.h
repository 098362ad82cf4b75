#pragma once

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <functional>
#include <string>

/* For units with fixed paths: a test whose folders are its own. The body runs in a child process
 * with mounts of its own, so that nothing that it lays over the machine's folders is seen by
 * anybody else. */
namespace unit_test {

constexpr int NO_WORLD = 77;

/* Covers a folder with an empty one that lives in memory. */
inline bool cover(const char* path) {
    return mount("tessard-test", path, "tmpfs", MS_NOSUID, "mode=755") == 0;
}

/* Gives the process mounts of its own. */
inline bool unshare_mounts() {
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    if (unshare(CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            return false;
        }
        const auto tell = [](const char* path, const std::string& text) {
            const int fd = open(path, O_WRONLY | O_CLOEXEC);
            /* The mounts that follow fail when this does. */
            (void)!write(fd, text.data(), text.size());
            close(fd);
        };
        tell("/proc/self/setgroups", "deny");
        tell("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        tell("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    }
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

/* --- Worlds: each makes mounts of its own first, false when they cannot be had --- */

inline bool nothing_special() {
    return true;
}

/* An empty /usr/lib/lua/tplugins, also on a machine that has nothing of that name: a copy of
 * /usr/lib made of links then takes its place. */
inline bool own_plugin_folder() {
    if (!unshare_mounts()) {
        return false;
    }
    struct stat status;
    if (stat("/usr/lib/lua", &status) != 0) {
        if (!cover("/srv") || mkdir("/srv/lib", 0755) != 0 ||
            mount("/usr/lib", "/srv/lib", nullptr, MS_BIND | MS_REC, nullptr) != 0 ||
            !cover("/usr/lib")) {
            return false;
        }
        DIR* folder = opendir("/srv/lib");
        while (const dirent* entry = folder != nullptr ? readdir(folder) : nullptr) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") {
                (void)!symlink(("/srv/lib/" + name).c_str(), ("/usr/lib/" + name).c_str());
            }
        }
        closedir(folder);
        (void)mkdir("/usr/lib/lua", 0755);
    }
    return cover("/usr/lib/lua") && mkdir("/usr/lib/lua/tplugins", 0755) == 0;
}

/* A /dev that holds "null" and nothing else, in mounts that are own already. */
inline bool cover_devices() {
    const int null = open("/dev/null", O_PATH | O_CLOEXEC);
    if (null < 0 || !cover("/dev")) {
        return false;
    }
    close(open("/dev/null", O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    const std::string source = "/proc/self/fd/" + std::to_string(null);
    const bool done = mount(source.c_str(), "/dev/null", nullptr, MS_BIND, nullptr) == 0;
    close(null);
    return done;
}

inline bool own_devices() {
    return unshare_mounts() && cover_devices();
}

/* Runs the body in a process of its own after `enter` has made its world there. What the body finds
 * wrong is printed and fails this test too; where no such world can be had, the test is skipped. */
inline void run_in_own_world(const std::function<bool()>& enter,
                             const std::function<void()>& body) {
    fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int result = NO_WORLD;
        if (enter()) {
            /* An exception must not reach the test program, which would go on with its next test.
             */
            try {
                body();
            } catch (const std::exception& e) {
                ADD_FAILURE() << e.what();
            }
            result = testing::Test::HasFailure() ? 1 : 0;
        } else {
            perror("no world of its own");
        }
        fflush(nullptr);
        _exit(result);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == NO_WORLD) {
        GTEST_SKIP() << "no mounts of its own here (unshare)";
    }
    EXPECT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0) << "see above";
}

/* Everything that comes out of a pipe until its last writer is gone, or until nothing comes for ten
 * seconds.
 */
inline std::string read_to_end(int fd) {
    std::string all;
    char chunk[4096];
    for (;;) {
        pollfd waiting = {fd, POLLIN, 0};
        if (poll(&waiting, 1, 10000) <= 0) {
            return all + "<no end>";
        }
        const ssize_t size = read(fd, chunk, sizeof chunk);
        if (size <= 0) {
            return all;
        }
        all.append(chunk, static_cast<size_t>(size));
    }
}

} // namespace unit_test
