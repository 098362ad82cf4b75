#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/system/support/wait.h"

/* Programs that a test starts. Each runs in the test's world (sandbox.h) with its output captured
 * in files, ends at the latest with the test, and is always reaped. */

namespace system_test {

/* What wait_exit() returns for a program that still runs, and what it adds to the number of the
 * signal that killed one. */
constexpr int STILL_RUNNING = -1;
constexpr int KILLED_BY = 1000;

struct process_options {
    /* "NAME=value" entries over the inherited environment. TZ is UTC and LC_ALL is C unless given.
     */
    std::vector<std::string> environment = {};
    /* Called in the child just before the program takes over, for limits and the like. */
    std::function<void()> before_exec = {};
};

class process {
  public:
    /* Starts argv (argv[0] found through PATH unless it has a "/") with an empty standard input,
     * umask 0 and no descriptor but 0, 1 and 2. A program that cannot be started ends with 127. */
    explicit process(const std::vector<std::string>& argv, const process_options& options = {});
    /* Stops the program. */
    ~process();
    process(const process&) = delete;
    process& operator=(const process&) = delete;

    pid_t pid() const {
        return child;
    }
    bool running() {
        return wait_exit(0) == STILL_RUNNING;
    }

    /* Waits for the end: the exit status, KILLED_BY + signal, or STILL_RUNNING after the limit. */
    int wait_exit(int limit_ms = LIMIT_MS);

    void signal(int number) const;

    /* Halts the program (SIGSTOP) and returns when it stands still, so that what is sent to it
     * meanwhile meets it in one piece; resume() lets it go on. */
    bool halt();
    void resume() const;

    /* What it has written so far to standard output and standard error. */
    std::string out() const;
    std::string err() const;

    /* What the kernel says of it while it runs: a figure of its status in kB ("VmRSS"), -1 when
     * there is none; the descriptors that it has open; the processor time that it has used. */
    long status_kb(const std::string& name) const;
    size_t descriptors() const;
    long cpu_ms() const;

    /* Ends it (SIGTERM, then SIGKILL) when it still runs, and reaps it. */
    void stop();

  private:
    pid_t child = -1;
    int status = STILL_RUNNING;
    std::string out_path;
    std::string err_path;
};

/* A child that does nothing but bear a name, as /proc shows it, until it is ended. */
class named_process {
  public:
    explicit named_process(const std::string& name);
    ~named_process();
    named_process(const named_process&) = delete;
    named_process& operator=(const named_process&) = delete;

    pid_t pid() const {
        return child;
    }

    /* KILLED_BY + signal once it was killed, else STILL_RUNNING. */
    int wait_exit(int limit_ms = LIMIT_MS);

  private:
    pid_t child = -1;
    int status = STILL_RUNNING;
};

/* Waits until every process of the test's world has ended by itself, those included that put
 * themselves into the background. Only for tests whose programs have been waited for. */
bool all_children_end();

/* Kills every process that is left in the test's world, those included that put themselves into the
 * background. False when one lives on. */
bool end_all_children();

} // namespace system_test
