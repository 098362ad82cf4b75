#include "tests/system/support/process.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "tests/system/support/files.h"
#include "tests/system/support/sandbox.h"

namespace system_test {

static int exit_number(int status) {
    return WIFSIGNALED(status) ? KILLED_BY + WTERMSIG(status) : WEXITSTATUS(status);
}

/* Reaps the child when it ends within the limit. */
static int reap(pid_t child, int limit_ms) {
    int status = 0;
    bool ended = eventually([&] { return waitpid(child, &status, WNOHANG) == child; }, limit_ms);
    return ended ? exit_number(status) : STILL_RUNNING;
}

static void redirect(int descriptor, const char* path, int flags) {
    int fd = open(path, flags, 0644);
    if (fd >= 0 && fd != descriptor) {
        dup2(fd, descriptor);
        close(fd);
    }
}

/* Runs in the child; does not return. */
static void become(const std::vector<std::string>& argv, const process_options& options,
                   const std::string& out, const std::string& err) {
    prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    redirect(0, "/dev/null", O_RDONLY);
    redirect(1, out.c_str(), O_WRONLY | O_CREAT | O_APPEND);
    redirect(2, err.c_str(), O_WRONLY | O_CREAT | O_APPEND);
    for (int fd = 3; fd < 1024; fd++) {
        close(fd);
    }
    const char* path = getenv("PATH");
    setenv(
        "PATH",
        (sandbox::workspace("tools:") + (path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin"))
            .c_str(),
        1);
    setenv("TZ", "UTC", 1);
    setenv("LC_ALL", "C", 1);
    for (const std::string& entry : options.environment) {
        putenv(strdup(entry.c_str()));
    }
    umask(0);
    if (chdir(sandbox::workspace("work").c_str()) != 0 || !sandbox::enter_proc()) {
        _exit(126);
    }
    if (options.before_exec) {
        options.before_exec();
    }
    std::vector<char*> words;
    for (const std::string& word : argv) {
        words.push_back(const_cast<char*>(word.c_str()));
    }
    words.push_back(nullptr);
    execvp(words[0], words.data());
    _exit(127);
}

process::process(const std::vector<std::string>& argv, const process_options& options) {
    static unsigned started;
    std::string base = sandbox::workspace("work/.") + std::to_string(started++);
    out_path = base + ".out";
    err_path = base + ".err";
    fflush(nullptr);
    child = fork();
    if (child == 0) {
        become(argv, options, out_path, err_path);
    }
}

process::~process() {
    stop();
}

int process::wait_exit(int limit_ms) {
    if (status == STILL_RUNNING) {
        status = reap(child, limit_ms);
    }
    return status;
}

void process::signal(int number) const {
    if (status == STILL_RUNNING && child > 0) {
        kill(child, number);
    }
}

bool process::halt() {
    signal(SIGSTOP);
    return eventually([&] {
        int state = 0;
        return waitpid(child, &state, WUNTRACED | WNOHANG) == child && WIFSTOPPED(state);
    });
}

void process::resume() const {
    signal(SIGCONT);
}

std::string process::out() const {
    return read_file(out_path);
}

std::string process::err() const {
    return read_file(err_path);
}

long process::status_kb(const std::string& name) const {
    const std::string status = read_file("/proc/" + std::to_string(child) + "/status");
    const size_t at = status.find("\n" + name + ":");
    return at == std::string::npos ? -1 : atol(status.c_str() + at + name.size() + 2);
}

size_t process::descriptors() const {
    size_t count = 0;
    DIR* folder = opendir(("/proc/" + std::to_string(child) + "/fd").c_str());
    while (const dirent* entry = folder != nullptr ? readdir(folder) : nullptr) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    if (folder != nullptr) {
        closedir(folder);
    }
    return count;
}

long process::cpu_ms() const {
    clockid_t clock;
    timespec used = {};
    EXPECT_EQ(clock_getcpuclockid(child, &clock), 0);
    EXPECT_EQ(clock_gettime(clock, &used), 0);
    return static_cast<long>(used.tv_sec * 1000 + used.tv_nsec / 1000000);
}

void process::stop() {
    signal(SIGTERM);
    signal(SIGCONT);
    if (wait_exit(2000) == STILL_RUNNING) {
        signal(SIGKILL);
        wait_exit();
    }
}

named_process::named_process(const std::string& name) {
    fflush(nullptr);
    child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
        prctl(PR_SET_NAME, name.c_str(), 0, 0, 0);
        for (;;) {
            pause();
        }
    }
    eventually(
        [&] { return read_file("/proc/" + std::to_string(child) + "/comm") == name + "\n"; });
}

named_process::~named_process() {
    if (wait_exit(0) == STILL_RUNNING && child > 0) {
        kill(child, SIGKILL);
        wait_exit();
    }
}

int named_process::wait_exit(int limit_ms) {
    if (status == STILL_RUNNING) {
        status = reap(child, limit_ms);
    }
    return status;
}

static void reap_all() {
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

bool all_children_end() {
    return eventually([] {
        reap_all();
        return sandbox::inhabitants().empty();
    });
}

bool end_all_children() {
    return eventually([] {
        reap_all();
        std::vector<pid_t> left = sandbox::inhabitants();
        for (pid_t pid : left) {
            kill(pid, SIGKILL);
        }
        return left.empty();
    });
}

} // namespace system_test
