#pragma once

#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "stats/history.h"
#include "stats/netdev.h"
#include "stats/tick.h"
#include "tests/unit/stats/made_up_machine.h"
#include "tests/unit/support/store_test.h"
#include "tests/unit/support/text_string.h"

namespace unit_test {

/* "cpu  user nice system idle iowait irq softirq", with the busy time as user time. */
inline std::string cpu_line(uint64_t busy, uint64_t idle) {
    return "cpu  " + std::to_string(busy) + " 0 0 " + std::to_string(idle) + " 0 0 0\n";
}

/* The statistics module as at start-up. */
class statistics_test : public store_test {
  protected:
    statistics_test() {
        history_start();
        module_stats_start();
    }

    ~statistics_test() override {
        object_reset();
        netdev_start();
        history_iface_algor = 1;
    }

    static void restart() {
        object_reset();
        module_stats_start();
    }

    static std::string get(const char* key) {
        const object* obj = object_lookup_type(key, OBJ_TSTRING);
        return obj != nullptr ? std::string(bytes_of(obj->string)) : "(no string)";
    }

    static std::string filled(const char* key) {
        return get(key).substr(12, 4);
    }

    /* So many samples from the front of a ring. */
    static std::string samples(const char* key, size_t count, size_t size) {
        return get(key).substr(20, count * size);
    }
};

/* With outside tools of the test's own. */
class statistics_tools_test : public statistics_test {
  protected:
    statistics_tools_test()
        : folder(::testing::TempDir() + "tessard-tools-XXXXXX"), old_path(getenv("PATH")) {
        EXPECT_NE(mkdtemp(folder.data()), nullptr);
        setenv("PATH", (folder + ":" + old_path).c_str(), 1);
        (void)signal(SIGPIPE, SIG_IGN);
        tool("hostmon", "echo 'Online hosts: 5'; echo 'Max Online hosts: 9'");
        tool("conntrack", "echo 'entries 123'");
    }

    ~statistics_tools_test() override {
        (void)signal(SIGPIPE, SIG_DFL);
        setenv("PATH", old_path.c_str(), 1);
        std::filesystem::remove_all(folder);
    }

    void tool(const std::string& name, const std::string& body) const {
        std::ofstream(folder + "/" + name) << "#!/bin/sh\n" << body << "\n";
        chmod((folder + "/" + name).c_str(), 0755);
    }

    std::string folder;
    std::string old_path;
};

/* On a machine whose files below /proc and whose network addresses are the test's own. */
class statistics_machine_test : public statistics_tools_test {
  protected:
    statistics_machine_test() {
        std::filesystem::create_directories(folder + "/proc/net");
        proc("net/dev", "eth0: 1 2 0 0 0 0 0 0 3 4 0 0 0 0 0 0\n");
        proc("stat", cpu_line(100, 100));
        proc("meminfo", "MemTotal: 100 kB\nMemFree: 58 kB\nBuffers: 0 kB\nCached: 0 kB\n");
        machine = {};
        machine.root = folder;
    }

    ~statistics_machine_test() override {
        EXPECT_EQ(machine.lists, 0) << "lists of addresses that nobody freed";
        machine = {};
    }

    void proc(const std::string& name, const std::string& text) const {
        std::ofstream(folder + "/proc/" + name) << text;
    }

    void no_proc(const std::string& name) const {
        std::filesystem::remove(folder + "/proc/" + name);
    }
};

} // namespace unit_test
