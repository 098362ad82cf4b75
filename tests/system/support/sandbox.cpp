#include "tests/system/support/sandbox.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <vector>

#include "tests/system/support/files.h"
#include "tests/system/support/process.h"

namespace system_test::sandbox {

static constexpr const char* WORKSPACE = "/srv";

static struct {
    bool inside;                     /* a world has been entered and not yet left */
    std::string outer_network;       /* the network that the process came from */
    bool entered_before;             /* the process has namespaces of its own */
    bool proc_made_up;               /* the workspace holds what programs are to see as /proc */
    std::vector<std::string> mounts; /* laid by this test, in order */
    std::vector<int> terminals;      /* descriptors to close at the end of this test */
} state;

static std::string reason(const std::string& what) {
    return what + ": " + strerror(errno);
}

std::string workspace(const std::string& below) {
    return std::string(WORKSPACE) + "/" + below;
}

/* What names the network that a process lives in; "" when it is gone or out of sight. */
static std::string network_of(const std::string& pid) {
    char text[64];
    ssize_t length = readlink(("/proc/" + pid + "/ns/net").c_str(), text, sizeof text);
    return length > 0 ? std::string(text, static_cast<size_t>(length)) : "";
}

/* Covers a folder with an empty one that lives in memory. */
static bool cover(const std::string& path, const char* mode) {
    if (mount("tessard-test", path.c_str(), "tmpfs", MS_NOSUID, mode) != 0) {
        return false;
    }
    state.mounts.push_back(path);
    return true;
}

/* Shows under target what stands at source: the link itself for a symbolic link, else the same file
 * or folder. */
static bool show(const std::string& source, const std::string& target) {
    struct stat info;
    if (lstat(source.c_str(), &info) != 0) {
        return false;
    }
    if (S_ISLNK(info.st_mode)) {
        char text[4096];
        ssize_t length = readlink(source.c_str(), text, sizeof text - 1);
        return length >= 0 &&
               symlink(std::string(text, static_cast<size_t>(length)).c_str(), target.c_str()) == 0;
    }
    if (S_ISDIR(info.st_mode)) {
        mkdir(target.c_str(), 0755);
    } else {
        close(open(target.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    }
    return mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
}

/* Covers a folder but goes on showing those of its entries that keep names, or all of them when it
 * names none. */
static bool cover_but_keep(const std::string& path, std::vector<std::string> keep) {
    int covered = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (covered < 0) {
        return false;
    }
    if (keep.empty()) {
        DIR* folder = fdopendir(dup(covered));
        for (dirent* entry; folder != nullptr && (entry = readdir(folder)) != nullptr;) {
            if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
                keep.push_back(entry->d_name);
            }
        }
        if (folder != nullptr) {
            closedir(folder);
        }
    }
    /* What was covered can still be reached through the open descriptor. */
    bool done = cover(path, "mode=755");
    for (const std::string& name : keep) {
        if (done) {
            show("/proc/self/fd/" + std::to_string(covered) + "/" + name, path + "/" + name);
        }
    }
    close(covered);
    return done;
}

static void map_own_user(uid_t uid, gid_t gid) {
    auto tell = [](const char* path, const std::string& text) {
        int fd = open(path, O_WRONLY | O_CLOEXEC);
        if (fd < 0 || write(fd, text.data(), text.size()) < 0) {
            /* The mounts that follow fail then, and say so. */
        }
        close(fd);
    };
    tell("/proc/self/setgroups", "deny");
    tell("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    tell("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

/* What needs to be done once in a process: its own namespaces, and a plug-in folder to lay others
 * over. */
static std::string enter_first_time() {
    state.outer_network = network_of("self");
    uid_t uid = getuid();
    gid_t gid = getgid();
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWNET) != 0) {
            return reason("no namespaces here (unshare)");
        }
        map_own_user(uid, gid);
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return reason("mounts cannot be made private here");
    }
    if (!file_exists("/usr/lib/lua")) {
        if (!cover_but_keep("/usr/lib", {})) {
            return reason("/usr/lib cannot be covered here");
        }
        mkdir("/usr/lib/lua", 0755);
        state.mounts.clear();
    }
    /* Daemons that have put themselves into the background stay ours, to be reaped. Emulators may
     * refuse this; inhabitants() finds them all the same, and the system reaps them. */
    prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    state.entered_before = true;
    return "";
}

static void bring_up(const char* interface) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    strncpy(request.ifr_name, interface, IFNAMSIZ - 1);
    if (ioctl(fd, SIOCGIFFLAGS, &request) == 0) {
        request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
        ioctl(fd, SIOCSIFFLAGS, &request);
    }
    close(fd);
}

std::string enter() {
    if (!state.entered_before) {
        std::string missing = enter_first_time();
        if (!missing.empty()) {
            return missing;
        }
    } else if (unshare(CLONE_NEWNET) != 0) {
        return reason("no network namespace here (unshare)");
    }
    bring_up("lo");

    /* The programs may have been built in a folder that is about to be covered. */
    int tessard = open(TESSARD_PROGRAM, O_PATH | O_CLOEXEC);
    int tessctl = open(TESSCTL_PROGRAM, O_PATH | O_CLOEXEC);
    std::string missing;
    if (!cover(WORKSPACE, "mode=755") || !cover("/tmp", "mode=1777") ||
        !cover("/usr/lib/lua", "mode=755") ||
        !cover_but_keep("/dev", {"null", "zero", "full", "random", "urandom", "tty"})) {
        missing = reason("folders cannot be covered here");
    } else {
        make_folders("/dev/pts");
        mount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC,
              "newinstance,ptmxmode=0666,mode=600");
        symlink("pts/ptmx", "/dev/ptmx");
        make_folders("/usr/lib/lua/tplugins");
        make_folders(workspace("programs"));
        make_folders(workspace("tools"));
        make_folders(workspace("work"));
    }
    for (auto [program, path] :
         {std::pair(tessard, tessard_path()), std::pair(tessctl, tessctl_path())}) {
        if (program >= 0) {
            close(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0755));
            std::string source = "/proc/self/fd/" + std::to_string(program);
            if (missing.empty() &&
                mount(source.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0) {
                missing = reason("programs cannot be shown in the workspace");
            }
            close(program);
        }
    }
    state.inside = missing.empty();
    if (!missing.empty()) {
        leave();
    }
    return missing;
}

std::vector<pid_t> inhabitants() {
    std::vector<pid_t> found;
    std::string ours = network_of("self");
    if (!state.inside || ours.empty() || state.outer_network.empty() ||
        ours == state.outer_network) {
        return found;
    }
    DIR* folder = opendir("/proc");
    for (dirent* entry; folder != nullptr && (entry = readdir(folder)) != nullptr;) {
        pid_t pid = atoi(entry->d_name);
        if (pid > 0 && pid != getpid() && network_of(entry->d_name) == ours) {
            found.push_back(pid);
        }
    }
    if (folder != nullptr) {
        closedir(folder);
    }
    return found;
}

void leave() {
    for (int fd : state.terminals) {
        close(fd);
    }
    state.terminals.clear();
    for (size_t i = state.mounts.size(); i > 0; i--) {
        umount2(state.mounts[i - 1].c_str(), MNT_DETACH);
    }
    state.mounts.clear();
    state.proc_made_up = false;
    state.inside = false;
}

std::string tessard_path() {
    return workspace("programs/tessard");
}

std::string tessctl_path() {
    return workspace("programs/tessctl");
}

std::string emulator() {
    return TESSARD_EMULATOR;
}

void add_tool(const std::string& name, const std::string& body) {
    write_file(workspace("tools/") + name, "#!/bin/sh\n" + body, 0755);
}

void remove_tool(const std::string& name) {
    EXPECT_EQ(unlink((workspace("tools/") + name).c_str()), 0) << "no tool " << name;
}

void add_plugin(const std::string& name, const std::string& body, mode_t mode) {
    write_file("/usr/lib/lua/tplugins/" + name, "#!/bin/sh\n" + body, mode);
}

std::string add_veth(const std::string& name, const std::string& peer) {
    process ip({"ip", "link", "add", name, "type", "veth", "peer", "name", peer});
    int status = ip.wait_exit();
    if (status != 0) {
        return "no veth interfaces here (ip ended with " + std::to_string(status) +
               "): " + ip.err();
    }
    bring_up(name.c_str());
    bring_up(peer.c_str());
    return "";
}

void remove_interface(const std::string& name) {
    process ip({"ip", "link", "delete", name});
    ip.wait_exit();
}

static void make_up_proc() {
    if (state.proc_made_up) {
        return;
    }
    state.proc_made_up = true;
    make_folders(workspace("proc/.real"));
    mount("/proc", workspace("proc/.real").c_str(), nullptr, MS_BIND | MS_REC, nullptr);
    for (const char* name : {"self", "thread-self", "sys"}) {
        symlink((std::string(".real/") + name).c_str(), (workspace("proc/") + name).c_str());
    }
}

void set_proc_file(const std::string& name, const std::string& text) {
    make_up_proc();
    write_file(workspace("proc/") + name, text);
}

void remove_proc_file(const std::string& name) {
    make_up_proc();
    unlink((workspace("proc/") + name).c_str());
}

bool enter_proc() {
    return !state.proc_made_up ||
           (unshare(CLONE_NEWNS) == 0 &&
            mount(workspace("proc").c_str(), "/proc", nullptr, MS_BIND | MS_REC, nullptr) == 0);
}

int add_terminal(const std::string& device) {
    int side = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    char name[64];
    if (side < 0 || grantpt(side) != 0 || unlockpt(side) != 0 ||
        ptsname_r(side, name, sizeof name) != 0) {
        return -1;
    }
    int terminal = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios settings;
    if (terminal < 0 || tcgetattr(terminal, &settings) != 0) {
        return -1;
    }
    cfmakeraw(&settings);
    tcsetattr(terminal, TCSANOW, &settings);
    unlink(device.c_str());
    if (symlink(name, device.c_str()) != 0) {
        return -1;
    }
    state.terminals.push_back(side);
    state.terminals.push_back(terminal);
    return side;
}

} // namespace system_test::sandbox
