/* The plug-in folder: names and modes, read tick by tick. Nothing is ever started: the folder and
 * the shell are the target's own. A step of kind 0 is a tick; any other kind is an entry with the
 * name in its text, which replaces an earlier one of that name:
 *
 *   x        an executable file
 *   f        a file that is not executable
 *   d        a folder
 *   r        none any more
 *   m        as many ticks as its first byte says */

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>

#include "fuzz/support/check.h"
#include "fuzz/support/shell.h"
#include "fuzz/support/steps.h"
#include "fuzz/support/world.h"
#include "stats/crond.h"

namespace {

const std::string FOLDER = "/usr/lib/lua/tplugins/";
constexpr size_t TASKS_MAX = 33;

/* In one input. */
constexpr unsigned TICKS_MAX = 120;
constexpr size_t NAME_SIZE_MAX = 63;

struct folder_state {
    bool shut_in; /* the folder below is seen in place of the machine's */
    std::map<std::string, char> entries;
    std::map<std::string, char>::const_iterator next;
    std::set<std::string> ever_executable; /* names that a script had at some time */
    std::set<std::string> started;         /* in this tick */
    unsigned ticks_left;
};

folder_state state;

/* The kind of the entry that a path names, 0 for none. */
char entry_at(const char* path) {
    if (strncmp(path, FOLDER.c_str(), FOLDER.size()) != 0) {
        return 0;
    }
    const auto entry = state.entries.find(path + FOLDER.size());
    return entry != state.entries.end() ? entry->second : '\0';
}

/* What the shell is given must be one of the scripts, by its whole name. */
void take_command(const char* text) {
    const std::string command = text;
    fuzz_require(command.size() > FOLDER.size() && command.compare(0, FOLDER.size(), FOLDER) == 0 &&
                     command.back() == '&',
                 "a command starts no plug-in");
    const std::string name = command.substr(FOLDER.size(), command.size() - FOLDER.size() - 1);
    fuzz_require(name.size() <= NAME_SIZE_MAX, "a name is too long");
    fuzz_require(state.ever_executable.count(name) != 0, "what was started was no script");
    fuzz_require(state.started.insert(name).second, "a script was started twice in a tick");
    fuzz_require(state.started.size() <= TASKS_MAX, "too many scripts were started");
}

void tick(unsigned count) {
    for (; count > 0 && state.ticks_left > 0; count--, state.ticks_left--) {
        state.started.clear();
        fuzz_require(__crond_ontimer(nullptr) == 0, "the timer would go");
    }
}

void carry_out(const fuzz_step* step) {
    if (step->kind == 0) {
        tick(1);
        return;
    }
    if (step->kind == 'm') {
        tick(step->text.empty() ? 0 : static_cast<unsigned char>(step->text[0]));
        return;
    }
    /* What a folder can hold: no "/", no NUL, 1 to 255 bytes. */
    const std::string name = step->text.substr(0, step->text.find_first_of(std::string("/\0", 2)));
    if (name.empty() || name.size() > NAME_MAX) {
        return;
    }
    if (step->kind == 'r') {
        state.entries.erase(name);
        return;
    }
    const char kind = step->kind == 'f' || step->kind == 'd' ? step->kind : 'x';
    state.entries[name] = kind;
    if (kind == 'x') {
        state.ever_executable.insert(name);
    }
}

template <typename Function> Function real(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

/* Defined in the program, these take precedence over the C library's. The library that runs the
 * target reads folders too, so outside of an input they do the real call. */

extern "C" DIR* opendir(const char* path) {
    if (!state.shut_in) {
        return real<DIR* (*)(const char*)>("opendir")(path);
    }
    state.next = state.entries.begin();
    return reinterpret_cast<DIR*>(&state);
}

extern "C" struct dirent* readdir(DIR* folder) {
    static dirent entry;
    if (!state.shut_in) {
        return real<struct dirent* (*)(DIR*)>(
            sizeof(entry.d_ino) > sizeof(long) ? "readdir64" : "readdir")(folder);
    }
    if (state.next == state.entries.end()) {
        return nullptr;
    }
    memcpy(entry.d_name, state.next->first.c_str(), state.next->first.size() + 1);
    state.next++;
    return &entry;
}

extern "C" int closedir(DIR* folder) {
    return state.shut_in ? 0 : real<int (*)(DIR*)>("closedir")(folder);
}

extern "C" int access(const char* path, int mode) noexcept {
    if (!state.shut_in) {
        return real<int (*)(const char*, int)>("access")(path, mode);
    }
    const char kind = entry_at(path);
    errno = kind == 0 ? ENOENT : EACCES;
    return kind == 'x' || kind == 'd' ? 0 : -1;
}

extern "C" int stat(const char* path, struct stat* status) noexcept {
    if (!state.shut_in) {
        return fstatat(AT_FDCWD, path, status, 0);
    }
    const char kind = entry_at(path);
    *status = {};
    status->st_mode = kind == 'd' ? S_IFDIR : S_IFREG;
    errno = ENOENT;
    return kind != 0 ? 0 : -1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    world_start();
    state = {};
    state.shut_in = true;
    state.ticks_left = TICKS_MAX;
    shell_shut_in(take_command);
    module_crond_start();
    fuzz_steps steps = steps_start(bytes, size);
    fuzz_step step;
    while (steps_next(&steps, &step)) {
        carry_out(&step);
    }
    state.shut_in = false;
    shell_let_out();
    return 0;
}
