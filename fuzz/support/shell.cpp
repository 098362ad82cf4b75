#include "fuzz/support/shell.h"

#include <dlfcn.h>
#include <errno.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "fuzz/support/check.h"

namespace {

/* The process of every command. No real one has such a number. */
constexpr pid_t NOBODY = 0x7FFFFFFF;

/* What a pipe takes at once. */
constexpr size_t OUTPUT_MAX = 32768;

struct shell_state {
    shell_taken taken; /* null: commands are run */
    std::string output;
    int pipe; /* where the next command writes; -1 when it is not asked */
};

shell_state state = {nullptr, "", -1};

template <typename Function> Function real(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

/* Defined in the program, these take precedence over the C library's. The library that runs the
 * targets starts programs too, so outside of an input they do the real call. */

extern "C" int pipe2(int* ends, int flags) noexcept {
    const int result = static_cast<int>(syscall(SYS_pipe2, ends, flags));
    state.pipe = result == 0 ? ends[1] : -1;
    return result;
}

extern "C" int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attributes, char* const* words,
                           char* const* environment) {
    if (state.taken == nullptr) {
        return real<decltype(&posix_spawn)>("posix_spawn")(pid, path, actions, attributes, words,
                                                           environment);
    }
    /* sh -c COMMAND */
    fuzz_require(words[0] != nullptr && words[1] != nullptr && words[2] != nullptr, "no command");
    state.taken(words[2]);
    if (state.pipe >= 0) {
        (void)!write(state.pipe, state.output.data(), state.output.size());
        state.pipe = -1;
    }
    *pid = NOBODY;
    return 0;
}

extern "C" pid_t waitpid(pid_t pid, int* status, int options) {
    if (pid != NOBODY) {
        return static_cast<pid_t>(syscall(SYS_wait4, pid, status, options, nullptr));
    }
    if (status != nullptr) {
        *status = 0;
    }
    return pid;
}

void shell_shut_in(shell_taken taken) {
    state.taken = taken;
    state.output.clear();
    state.pipe = -1;
}

void shell_let_out() {
    state.taken = nullptr;
}

void shell_answer(std::string_view output) {
    state.output = output.substr(0, OUTPUT_MAX);
}
