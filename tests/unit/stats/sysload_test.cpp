#include "stats/sysload.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <ifaddrs.h>
#include <malloc.h>
#include <net/if.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "core/pool.h"
#include "stats/history.h"
#include "stats/netdev.h"
#include "stats/stat_value.h"
#include "tests/support/big_endian.h"
#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_client.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

#ifdef __SANITIZE_ADDRESS__
/* Of the sanitizer's own header, which not every installation has. */
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace {

/* "cpu  user nice system idle iowait irq softirq", with the busy time as user time. */
std::string cpu_line(uint64_t busy, uint64_t idle) {
    return "cpu  " + std::to_string(busy) + " 0 0 " + std::to_string(idle) + " 0 0 0\n";
}

/* The machine that the unit sees, while a test has laid one down. */
struct made_up_machine {
    std::string
        root; /* what lies below /proc is looked for in this folder; "" for the real machine */
    ifaddrs* addresses;
    bool addresses_fail;
    int lists; /* handed out and not freed */
};

made_up_machine machine;

/* The statistics module as at start-up. */
class sysload_test : public store_test {
  protected:
    sysload_test() {
        netdev_reset();
        history_start();
        module_stats_start();
    }

    ~sysload_test() override {
        forget();
        history_iface_algor = 1;
    }

    /* As before start-up. The names of the module's series are found through their keys. */
    static void forget() {
        htable_walk walk = htable_walk_start(object_keyspace());
        while (const object* obj = static_cast<object*>(htable_walk_next(&walk))) {
            if (obj->aux != nullptr &&
                iface_find(std::string(obj->key, strcspn(obj->key, ".")).c_str()) == nullptr) {
                history_free(obj->aux);
            }
        }
        object_reset();
        netdev_reset();
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

    /* Hands a text over as a file. */
    template <typename Reader> static auto with_file(std::string text, Reader reader) {
        FILE* file =
            text.empty() ? fopen("/dev/null", "r") : fmemopen(text.data(), text.size(), "r");
        EXPECT_NE(file, nullptr);
        struct closer {
            FILE* file;
            ~closer() {
                fclose(file);
            }
        } const close_at_end = {file};
        return reader(file);
    }

    static uint32_t mem(const std::string& text) {
        return with_file(text, mem_update);
    }

    static std::string hosts(const std::string& text) {
        host_update(text.c_str());
        host_publish();
        return get("host.num") + " of " + get("host.maxnum");
    }

    static std::string connections(const std::string& text) {
        conn_update(text.c_str());
        conn_publish();
        return get("conn");
    }

    static uint8_t cpu(uint64_t busy, uint64_t idle) {
        return cpu_update(cpu_line(busy, idle).c_str());
    }
};

/* With outside tools of the test's own. */
class sysload_tools_test : public sysload_test {
  protected:
    sysload_tools_test()
        : folder(::testing::TempDir() + "tessard-tools-XXXXXX"), old_path(getenv("PATH")) {
        EXPECT_NE(mkdtemp(folder.data()), nullptr);
        setenv("PATH", (folder + ":" + old_path).c_str(), 1);
        (void)signal(SIGPIPE, SIG_IGN);
        tool("hostmon", "echo 'Online hosts: 5'; echo 'Max Online hosts: 9'");
        tool("conntrack", "echo 'entries 123'");
    }

    ~sysload_tools_test() override {
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
class sysload_machine_test : public sysload_tools_test {
  protected:
    sysload_machine_test() {
        std::filesystem::create_directories(folder + "/proc/net");
        proc("net/dev", "eth0: 1 2 0 0 0 0 0 0 3 4 0 0 0 0 0 0\n");
        proc("stat", cpu_line(100, 100));
        proc("meminfo", "MemTotal: 100 kB\nMemFree: 58 kB\nBuffers: 0 kB\nCached: 0 kB\n");
        machine = {};
        machine.root = folder;
    }

    ~sysload_machine_test() override {
        EXPECT_EQ(machine.lists, 0) << "lists of addresses that nobody freed";
        machine = {};
    }

    void proc(const std::string& name, const std::string& text) const {
        std::ofstream(folder + "/proc/" + name) << text;
    }

    void no_proc(const std::string& name) const {
        std::filesystem::remove(folder + "/proc/" + name);
    }

    /* One tick with these addresses: the interface's flags as it publishes them. */
    static std::string flags_after(std::vector<ifaddrs> addresses) {
        for (size_t i = 0; i + 1 < addresses.size(); i++) {
            addresses[i].ifa_next = &addresses[i + 1];
        }
        machine.addresses = addresses.data();
        stats_ontimer(nullptr);
        machine.addresses = nullptr;
        const object* hash = object_lookup_type("eth0", OBJ_THASH);
        const hash_field* flags = hash != nullptr ? object_hash_field(hash, "flags") : nullptr;
        return flags != nullptr ? std::string(bytes_of(flags->value)) : "(none)";
    }

    static ifaddrs address(const char* interface, unsigned flags) {
        ifaddrs one = {};
        one.ifa_name = const_cast<char*>(interface);
        one.ifa_flags = flags;
        return one;
    }
};

/* What is allocated, measured without allocating. */
struct memory_use {
    size_t heap;
    std::array<const void*, std::size(pool_classes)> slabs;

    static memory_use now() {
        memory_use use = {};
#ifdef __SANITIZE_ADDRESS__
        use.heap = __sanitizer_get_current_allocated_bytes();
#else
        use.heap = mallinfo2().uordblks;
#endif
        std::transform(std::begin(pool_classes), std::end(pool_classes), use.slabs.begin(),
                       [](const pool_class& c) { return c.slabs; });
        return use;
    }
};

/* An hour of ticks of all collectors' parts, each with figures of its own. */
void run_an_hour() {
    char text[512];
    for (uint32_t tick = 1; tick <= 3600; tick++) {
        const auto as_file = [&](const char* content, void (*reader)(FILE*)) {
            FILE* file = fmemopen(const_cast<char*>(content), strlen(content), "r");
            reader(file);
            fclose(file);
        };
        netdev_set_interval(1000000 + tick, tick);
        snprintf(text, sizeof text,
                 "  eth0: %u %u 0 0 0 0 0 0 %u %u 0 0 0 0 0 0\nbr-lan: %u %u 0 0 0 0 0 0 %u %u 0 0 "
                 "0 0 0 0\n",
                 tick * 1000003, tick * 700, tick * tick, tick, tick * 3, tick % 7, tick * 1000,
                 tick * 2);
        as_file(text, netdev_read);
        snprintf(text, sizeof text, "cpu  %u 0 0 %u 0 0 0\n", tick * (tick % 100), tick * 50);
        stat_set_number("cpu.load", cpu_update(text));
        snprintf(text, sizeof text,
                 "MemTotal: 61372 kB\nMemFree: %u kB\nBuffers: 1 kB\nCached: 2 kB\n", tick * 10);
        as_file(text, [](FILE* file) { stat_set_number("mem.load", mem_update(file)); });
        snprintf(text, sizeof text, "Online hosts: %u\nMax Online hosts: %u\n", tick % 300, tick);
        host_update(text);
        host_publish();
        snprintf(text, sizeof text, "%u\n", tick * tick * 300);
        conn_update(text);
        conn_publish();
    }
}

} // namespace

/* Defined in the program, these take precedence over the C library's. */

extern "C" FILE* fopen(const char* __restrict path, const char* __restrict mode) {
    /* The name that the C library gives it is this one where files have 64 bits by choice. */
    static const auto real =
        reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen64"));
    return machine.root.empty() || strncmp(path, "/proc/", 6) != 0
               ? real(path, mode)
               : real((machine.root + path).c_str(), mode);
}

extern "C" int getifaddrs(ifaddrs** list) noexcept {
    static const auto real = reinterpret_cast<int (*)(ifaddrs**)>(dlsym(RTLD_NEXT, "getifaddrs"));
    if (machine.root.empty()) {
        return real(list);
    }
    *list = machine.addresses;
    if (machine.addresses_fail) {
        return -1;
    }
    machine.lists++;
    return 0;
}

extern "C" void freeifaddrs(ifaddrs* list) noexcept {
    static const auto real = reinterpret_cast<void (*)(ifaddrs*)>(dlsym(RTLD_NEXT, "freeifaddrs"));
    if (machine.root.empty()) {
        real(list);
        return;
    }
    EXPECT_EQ(list, machine.addresses);
    machine.lists--;
}

/* --- Processor --- */

TEST_F(sysload_test, the_first_reading_only_gives_the_totals) {
    EXPECT_EQ(cpu(74608, 1117073), 0);
}

TEST_F(sysload_test, the_second_reading_gives_half_the_load_and_later_ones_approach_it) {
    EXPECT_EQ(cpu(100, 100), 0);
    uint64_t busy = 100;
    for (const uint8_t load : {50, 75, 87, 93, 96, 98, 99, 99}) {
        busy += 100;
        EXPECT_EQ(cpu(busy, 100), load);
    }
    uint64_t idle = 100;
    for (const uint8_t load : {49, 24, 12, 6, 3, 1, 0, 0}) {
        idle += 100;
        EXPECT_EQ(cpu(busy, idle), load);
    }
}

TEST_F(sysload_test, the_idle_share_is_cut_to_whole_percent) {
    for (const auto& [busy, idle, load] : {std::tuple(2u, 1u, 67u),
                                           {1u, 2u, 34u},
                                           {1u, 999u, 1u},
                                           {999u, 1u, 100u},
                                           {1u, 99u, 1u},
                                           {30u, 70u, 30u}}) {
        forget();
        module_stats_start();
        cpu(1, 0);
        EXPECT_EQ(cpu(1 + busy, idle), load / 2) << busy << " busy, " << idle << " idle";
    }
}

TEST_F(sysload_test, seven_figures_make_the_total) {
    cpu_update("cpu  1 1 1 1 1 1 1 0 0 0\n");
    /* Of 70 jiffies 10 are idle, whatever stands behind the seventh: 85 percent, rounded up
     * from 85.7. */
    EXPECT_EQ(cpu_update("cpu  11 11 11 11 11 11 11 9999 8888 7777\n"), 43);
    /* Waiting for a disk counts as work: 0 percent idle. */
    EXPECT_EQ(cpu_update("cpu  11 11 11 11 111 11 11 9999 8888 7777\n"), 71);
}

TEST_F(sysload_test, a_line_that_does_not_fit_changes_nothing) {
    cpu(100, 100);
    EXPECT_EQ(cpu(200, 100), 50);
    for (const char* line :
         {"cpu 300 0 0 100 0 0 0\n", "cpu  300 0 0 100 0 0\n", "cpu0 300 0 0 100 0 0 0\n",
          "cpu0  300 0 0 100 0 0 0\n", "CPU  300 0 0 100 0 0 0\n", " cpu  300 0 0 100 0 0 0\n",
          "cpu  300 0 0 x 0 0 0\n", "cpu  \n", "cpu", "", "\n", "intr 300 0 0 100 0 0 0\n"}) {
        EXPECT_EQ(cpu_update(line), 50) << line;
    }
    /* The totals are still those of the last good line: 100 busy, 300 idle since then. */
    EXPECT_EQ(cpu(300, 400), 37);
}

TEST_F(sysload_test, more_blanks_than_two_are_taken) {
    cpu_update("cpu   100 0 0 100 0 0 0\n");
    EXPECT_EQ(cpu_update("cpu  \t 200  0 0 100 0 0 0"), 50);
}

TEST_F(sysload_test, two_readings_within_one_jiffy_keep_the_load) {
    cpu(100, 100);
    EXPECT_EQ(cpu(200, 100), 50);
    EXPECT_EQ(cpu(200, 100), 50);
    EXPECT_EQ(cpu(199, 101), 50) << "the total is what counts";
    EXPECT_EQ(cpu(299, 101), 75);
}

TEST_F(sysload_test, more_idle_time_than_time_is_no_load) {
    cpu_update("cpu  100 0 0 100 500 0 0\n");
    EXPECT_EQ(cpu_update("cpu  100 0 0 400 300 0 0\n"), 0) << "300 of 100";
    EXPECT_EQ(cpu_update("cpu  200 0 0 400 300 0 0\n"), 50);
    EXPECT_EQ(cpu_update("cpu  200 0 0 501 300 0 0\n"), 25) << "101 of 101";
}

TEST_F(sysload_test, counters_that_went_back_are_taken_as_unsigned) {
    cpu(500, 500);
    EXPECT_EQ(cpu(400, 490), 0) << "nearly all of 2^64 jiffies idle";
    EXPECT_EQ(cpu(200, 600), 50) << "110 of nearly 2^64";
    EXPECT_EQ(cpu(300, 600), 75) << "and on from there";
}

TEST_F(sysload_test, a_first_total_of_zero_is_no_total) {
    EXPECT_EQ(cpu(0, 0), 0);
    EXPECT_EQ(cpu(100, 0), 0);
    EXPECT_EQ(cpu(200, 0), 50);
}

TEST_F(sysload_test, a_product_of_a_hundred_does_not_overflow) {
    cpu(1, 0);
    EXPECT_EQ(cpu(3000000000000000001, 1000000000000000000), 37) << "75 percent";
}

TEST_F(sysload_machine_test,
       each_poll_keeps_and_publishes_the_load_and_the_spans_keep_their_maxima) {
    test_client observer;
    observer.call({"observe"});
    /* Of each hundred jiffies so many were busy. */
    const std::pair<unsigned, char> polls[] = {
        {0, 0},   {100, 50}, {100, 75}, {100, 87}, {0, 43}, {0, 21},  {0, 10}, {0, 5},
        {0, 2},   {0, 1},    {0, 0},    {0, 0},    {0, 0},  {40, 20}, {0, 10}, {0, 5},
        {60, 32}, {0, 16},   {0, 8},    {0, 4},    {0, 2},  {0, 1},   {0, 0},  {0, 0}};
    uint64_t busy = 100;
    uint64_t idle = 100;
    std::string loads;
    for (const auto& [share, load] : polls) {
        busy += share;
        idle += 100 - share;
        proc("stat", cpu_line(busy, idle));
        cpu_poll();
        EXPECT_EQ(observer.received(), event({"MSET", "cpu.load", std::to_string(load)}));
        loads += load;
    }
    EXPECT_EQ(filled("cpu.10m"), be32(24));
    EXPECT_EQ(samples("cpu.10m", 24, 1), loads);
    EXPECT_EQ(filled("cpu.2h"), be32(2));
    EXPECT_EQ(samples("cpu.2h", 2, 1), "\x57\x20") << "87 and 32";
    EXPECT_EQ(filled("cpu.day"), be32(0));
}

TEST_F(sysload_machine_test, a_line_that_does_not_fit_ticks_and_publishes_the_load_as_it_was) {
    cpu_poll();
    proc("stat", cpu_line(200, 100));
    cpu_poll();
    test_client observer;
    observer.call({"observe"});
    for (const char* line : {"", "cpu 300 0 0 100 0 0 0\n"}) {
        proc("stat", line);
        cpu_poll();
        EXPECT_EQ(observer.received(), event({"MSET", "cpu.load", "50"}));
    }
    EXPECT_EQ(filled("cpu.10m"), be32(4));
    EXPECT_EQ(samples("cpu.10m", 4, 1), std::string("\0\x32\x32\x32", 4));
    no_proc("stat");
    cpu_poll();
    EXPECT_EQ(observer.received(), "");
    EXPECT_EQ(filled("cpu.10m"), be32(4)) << "without the file there is no tick";
}

TEST_F(sysload_machine_test, figures_of_twenty_digits_are_read) {
    proc("stat",
         "cpu  10000000000000000000 10000000000000000000 10000000000000000000 10000000000000000000 "
         "10000000000000000000 10000000000000000000 10000000000000000000 0 0 0\n");
    cpu_poll();
    proc("stat",
         "cpu  10000000000000000020 10000000000000000000 10000000000000000020 10000000000000000050 "
         "10000000000000000000 10000000000000000000 10000000000000000010 0 0 0\n");
    cpu_poll();
    EXPECT_EQ(get("cpu.load"), "25") << "half of 50 percent";
}

TEST_F(sysload_machine_test, a_line_of_255_bytes_is_read_to_its_end) {
    cpu_poll();
    const std::string figures = "cpu  100 0 0 200 0 0";
    proc("stat", figures + std::string(255 - figures.size() - 3, ' ') + "100");
    cpu_poll();
    EXPECT_EQ(get("cpu.load"), "25") << "100 of 200 jiffies busy";
}

/* --- Memory --- */

TEST_F(sysload_test, memory_is_what_is_neither_free_nor_buffers_nor_cached) {
    /* 61372 - 21052 = 40320 of 61372: 65.7 percent. */
    EXPECT_EQ(
        mem("MemTotal:         61372 kB\nMemFree:           5472 kB\nBuffers:           3240 kB\n"
            "Cached:           12340 kB\nSwapCached:            0 kB\n"),
        65u);
}

TEST_F(sysload_test, a_line_in_between_ends_the_reading) {
    /* 61372 - 5472 = 55900 of 61372: 91.08 percent. */
    EXPECT_EQ(
        mem("MemTotal:         61372 kB\nMemFree:           5472 kB\nMemAvailable:     30000 kB\n"
            "Buffers:           3240 kB\nCached:           12340 kB\n"),
        91u);
    /* 61372 - 5472 - 3240 = 52660: 85.8 percent. */
    EXPECT_EQ(
        mem("MemTotal:         61372 kB\nMemFree:           5472 kB\nBuffers:           3240 kB\n"
            "Shared:           10000 kB\nCached:           12340 kB\n"),
        85u);
}

TEST_F(sysload_test, after_a_reading_that_does_not_match_none_is_taken) {
    EXPECT_EQ(mem("MemTotal: 100 kB\nMemFree: 10 kB\nBuffCached: 50 kB\n"), 90u);
    EXPECT_EQ(mem("MemTotal: 100 kB\nMemFree: 20 kB\nBuffers: many kB\nCached: 50 kB\n"), 80u);
    EXPECT_EQ(mem("MemTotal: 100 kB\nBuffers: 30 kB\nCached: 20 kB\n"), 100u);
    EXPECT_EQ(mem("MemTotal: 100 kB\nMemFree: 25 kB\nCached: 20 kB\n"), 75u);
    EXPECT_EQ(mem("MemTotal: 100 kB\n"), 100u);
    EXPECT_EQ(mem("MemTotal: 100 kB\nMemFree: 30"), 70u);
}

TEST_F(sysload_test, blanks_of_any_kind_may_stand_before_the_figures) {
    EXPECT_EQ(mem("MemTotal:100 kB\nMemFree:\t\t 25 kB\n\nBuffers: 5   kB\nCached:\n10kB\n"), 60u);
}

TEST_F(sysload_test, without_a_total_the_load_stays) {
    EXPECT_EQ(mem(""), 0u);
    EXPECT_EQ(mem("MemTotal: 100 kB\nMemFree: 58 kB\nBuffers: 0 kB\nCached: 0 kB\n"), 42u);
    for (const char* text :
         {"", "garbage", "MemTotal: 0 kB\nMemFree: 0 kB\n", "MemTotal: lots kB\nMemFree: 1 kB\n",
          "MemFree: 10 kB\nMemTotal: 100 kB\n", "\x7f\x45\x4c\x46"}) {
        EXPECT_EQ(mem(text), 42u) << text;
    }
}

TEST_F(sysload_test, more_available_than_there_is_keeps_the_load) {
    EXPECT_EQ(mem("MemTotal: 100 kB\nMemFree: 58 kB\nBuffers: 0 kB\nCached: 0 kB\n"), 42u);
    EXPECT_EQ(mem("MemTotal: 100 kB\nMemFree: 50 kB\nBuffers: 26 kB\nCached: 25 kB\n"), 42u);
    EXPECT_EQ(mem("MemTotal: 100 kB\nMemFree: 50 kB\nBuffers: 25 kB\nCached: 25 kB\n"), 0u);
}

TEST_F(sysload_test, the_arithmetic_has_32_bits) {
    EXPECT_EQ(mem("MemTotal: 42949672 kB\nMemFree: 0 kB\nBuffers: 0 kB\nCached: 0 kB\n"), 100u);
    /* 42949673 * 100 is 4 in 32 bits. */
    EXPECT_EQ(mem("MemTotal: 42949673 kB\nMemFree: 0 kB\nBuffers: 0 kB\nCached: 0 kB\n"), 0u);
    /* 4294967295 + 2 is 1. */
    EXPECT_EQ(mem("MemTotal: 100 kB\nMemFree: 4294967295 kB\nBuffers: 2 kB\nCached: 0 kB\n"), 99u);
    /* Figures of more than 32 bits are the largest of 32 bits: nothing is used. */
    EXPECT_EQ(mem("MemTotal: 8589934592 kB\nMemFree: 8589934592 kB\nBuffers: 0 kB\nCached: 0 kB\n"),
              0u);
}

/* --- Hosts --- */

TEST_F(sysload_test, both_lines_of_the_host_tool_are_taken) {
    EXPECT_EQ(hosts("Online hosts: 5\nMax Online hosts: 9\n"), "5 of 9");
    EXPECT_EQ(hosts("Online hosts: 7\nMax Online hosts: 12"), "7 of 12");
}

TEST_F(sysload_test, without_the_second_line_the_maximum_stays) {
    EXPECT_EQ(hosts("Online hosts: 3\nMax Online hosts: 9\n"), "3 of 9");
    EXPECT_EQ(hosts("Online hosts: 5\n"), "5 of 9");
    EXPECT_EQ(hosts("Online hosts: 6"), "6 of 9");
    EXPECT_EQ(hosts("Online hosts: 7\nMaximum: 10\n"), "7 of 9");
    EXPECT_EQ(hosts("Online hosts: 8\nMax Online hosts: many\n"), "8 of 9");
}

TEST_F(sysload_test, what_the_host_tool_does_not_say_stays) {
    EXPECT_EQ(hosts(""), "0 of 0");
    EXPECT_EQ(hosts("Online hosts: 3\nMax Online hosts: 9\n"), "3 of 9");
    for (const char* text :
         {"", "garbage\n", "Max Online hosts: 20\n", "Online hosts: none\nMax Online hosts: 20\n",
          "online hosts: 4\n", "12\n", "\xff\xfe\x01"}) {
        EXPECT_EQ(hosts(text), "3 of 9") << text;
    }
}

TEST_F(sysload_test, host_figures_are_signed_32_bit_readings) {
    EXPECT_EQ(hosts("Online hosts: 2147483647\nMax Online hosts: 2147483648\n"),
              "2147483647 of 2147483647");
    EXPECT_EQ(hosts("Online hosts: 99999999999999999999999\nMax Online hosts: -1\n"),
              "2147483647 of 4294967295");
    EXPECT_EQ(hosts("Online hosts: -5\nMax Online hosts: -99999999999999999999999\n"),
              "4294967291 of 2147483648");
    EXPECT_EQ(hosts("Online hosts: 0\nMax Online hosts: 0\n"), "0 of 0");
}

TEST_F(sysload_test, host_histories_keep_the_maximum_whatever_interfaces_do) {
    history_iface_algor = 0;
    for (int tick = 1; tick <= 24; tick++) {
        hosts("Online hosts: " + std::to_string(tick == 5 ? 300 : tick) + "\n");
    }
    EXPECT_EQ(filled("host.10m"), be32(24));
    EXPECT_EQ(samples("host.10m", 6, 4),
              be32(1) + be32(2) + be32(3) + be32(4) + be32(300) + be32(6));
    EXPECT_EQ(filled("host.2h"), be32(2));
    EXPECT_EQ(samples("host.2h", 2, 4), be32(300) + be32(24));
    EXPECT_EQ(filled("conn.10m"), be32(0)) << "each figure has histories of its own";
}

/* --- Connections --- */

TEST_F(sysload_test, the_connection_figure_is_the_first_number) {
    EXPECT_EQ(connections("123\n"), "123");
    EXPECT_EQ(connections(" \n\t 45 67"), "45");
    EXPECT_EQ(connections("12abc"), "12");
    EXPECT_EQ(connections("0x10"), "0");
    EXPECT_EQ(connections("+8"), "8");
}

TEST_F(sysload_test, without_a_number_the_connection_figure_is_zero) {
    for (const char* text : {"", "\n", "found=0\n", "entries\n", "-\n", "\x80\x81\n"}) {
        EXPECT_EQ(connections("123\n"), "123");
        EXPECT_EQ(connections(text), "0") << text;
    }
}

TEST_F(sysload_test, the_connection_figure_is_a_signed_32_bit_reading) {
    EXPECT_EQ(connections("2147483647"), "2147483647");
    EXPECT_EQ(connections("2147483648"), "2147483647");
    EXPECT_EQ(connections("18446744073709551616"), "2147483647");
    EXPECT_EQ(connections(std::string(100000, '1')), "2147483647");
    EXPECT_EQ(connections("-3"), "4294967293");
}

TEST_F(sysload_test, connection_histories_keep_the_maximum) {
    for (int tick = 1; tick <= 13; tick++) {
        connections(std::to_string(100000 * (tick <= 6 ? tick : 13 - tick)));
    }
    EXPECT_EQ(samples("conn.10m", 2, 4), be32(100000) + be32(200000));
    EXPECT_EQ(filled("conn.2h"), be32(1));
    EXPECT_EQ(samples("conn.2h", 2, 4), be32(600000) + be32(0));
}

/* --- The whole tick --- */

TEST_F(sysload_tools_test, a_tick_writes_every_figure_in_order) {
    test_client observer;
    observer.call({"observe"});
    EXPECT_EQ(stats_ontimer(nullptr), 0);
    const std::string frames = observer.received();
    const std::string expected =
        event({"MSET", "cpu.load", get("cpu.load")}) +
        event({"MSET", "mem.load", get("mem.load")}) + event({"MSET", "host.num", "5"}) +
        event({"MSET", "host.maxnum", "9"}) + event({"MSET", "conn", "123"});
    ASSERT_GE(frames.size(), expected.size());
    EXPECT_EQ(frames.substr(frames.size() - expected.size()), expected)
        << "behind those of interfaces";
    const std::string interfaces = frames.substr(0, frames.size() - expected.size());
    EXPECT_EQ(interfaces.find("MSET\r\n$8\r\ncpu.load"), std::string::npos);
    for (const char* key : {"cpu.10m", "host.10m", "conn.10m"}) {
        EXPECT_EQ(filled(key), be32(1)) << key;
    }
}

TEST_F(sysload_machine_test, flags_are_read_before_traffic_and_of_up_two_and_running_one_is_made) {
    EXPECT_EQ(flags_after({address("eth0", IFF_UP | IFF_RUNNING)}), "0") << "not known yet";
    EXPECT_EQ(flags_after({address("eth0", IFF_UP | IFF_RUNNING)}), "3");
    EXPECT_EQ(flags_after({address("eth0", IFF_UP)}), "2");
    EXPECT_EQ(flags_after({address("eth0", IFF_RUNNING)}), "1");
    EXPECT_EQ(flags_after({address("eth0", ~static_cast<unsigned>(IFF_UP | IFF_RUNNING))}), "0");
    EXPECT_EQ(flags_after({address("eth0", ~0U)}), "3");
}

TEST_F(sysload_machine_test, the_last_address_of_an_interface_tells_its_flags) {
    flags_after({});
    EXPECT_EQ(
        flags_after({address("lo", IFF_UP), address("eth0", IFF_UP), address(nullptr, IFF_RUNNING),
                     address("eth0", IFF_RUNNING), address("wlan0", IFF_UP)}),
        "1");
    EXPECT_EQ(flags_after({address("eth0", IFF_UP | IFF_RUNNING), address("eth0", 0)}), "0");
}

TEST_F(sysload_machine_test, flags_stay_when_an_interface_has_no_address_or_none_can_be_had) {
    flags_after({});
    EXPECT_EQ(flags_after({address("eth0", IFF_UP | IFF_RUNNING)}), "3");
    EXPECT_EQ(flags_after({}), "3");
    EXPECT_EQ(flags_after({address("lo", IFF_UP)}), "3");
    machine.addresses_fail = true;
    EXPECT_EQ(flags_after({address("eth0", IFF_UP)}), "3")
        << "what a failed call leaves is no list";
    EXPECT_EQ(get("conn"), "123") << "the tick goes on";
    machine.addresses_fail = false;
    EXPECT_EQ(flags_after({address("eth0", IFF_UP)}), "2");
}

TEST_F(sysload_machine_test,
       a_tick_that_can_start_no_command_keeps_its_figures_and_publishes_them) {
    stats_ontimer(nullptr);
    tool("hostmon", "echo 'Online hosts: 6'; echo 'Max Online hosts: 10'");
    tool("conntrack", "echo 'entries 124'");
    test_client observer;
    observer.call({"observe"});
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int answer = stats_ontimer(nullptr);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(answer, 0);
    EXPECT_EQ(observer.received(), event({"MSET", "host.num", "5"}) +
                                       event({"MSET", "host.maxnum", "9"}) +
                                       event({"MSET", "conn", "123"}))
        << "and nothing of the files that could not be opened";
    EXPECT_EQ(filled("cpu.10m"), be32(1));
    EXPECT_EQ(filled("host.10m") + samples("host.10m", 2, 4), be32(2) + be32(5) + be32(5));
    EXPECT_EQ(filled("conn.10m") + samples("conn.10m", 2, 4), be32(2) + be32(123) + be32(123));
    stats_ontimer(nullptr);
    EXPECT_EQ(get("host.num") + " of " + get("host.maxnum") + ", " + get("conn"), "6 of 10, 124");
}

TEST_F(sysload_tools_test, without_the_tools_hosts_stay_and_connections_are_zero) {
    stats_ontimer(nullptr);
    EXPECT_EQ(get("host.num") + get("host.maxnum") + get("conn"), "59123");
    setenv("PATH", folder.c_str(), 1);
    tool("hostmon", "exit 1");
    std::filesystem::remove(folder + "/conntrack");
    ::testing::internal::CaptureStderr();
    stats_ontimer(nullptr);
    std::filesystem::remove(folder + "/hostmon");
    stats_ontimer(nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(get("host.num"), "5");
    EXPECT_EQ(get("host.maxnum"), "9");
    EXPECT_EQ(get("conn"), "0");
    EXPECT_EQ(samples("host.10m", 3, 4), be32(5) + be32(5) + be32(5));
    EXPECT_EQ(samples("conn.10m", 3, 4), be32(123) + be32(0) + be32(0));
}

TEST_F(sysload_tools_test, only_the_second_word_of_the_first_line_is_the_connection_figure) {
    tool("conntrack",
         "[ \"$*\" = -S ] || exit 1; echo 'entries\t\t\t 4711 4712'; echo 'searched 5'");
    tool("hostmon", "[ \"$*\" = --showg ] && echo 'Online hosts: 2'");
    stats_ontimer(nullptr);
    EXPECT_EQ(get("conn"), "4711");
    EXPECT_EQ(get("host.num"), "2");
}

/* --- Memory of the daemon --- */

TEST_F(sysload_test, an_hour_of_ticks_leaves_memory_where_it_was) {
    run_an_hour();
    const memory_use before = memory_use::now();
    run_an_hour();
    const memory_use after = memory_use::now();
    EXPECT_EQ(after.heap, before.heap);
    EXPECT_EQ(after.slabs, before.slabs);
    EXPECT_EQ(filled("conn.10m"), be32(600));
    EXPECT_EQ(filled("eth0.day"), be32(19)) << "7198 rates in 7200 polls";
}

TEST_F(sysload_tools_test,
       ticks_with_outside_commands_leave_memory_and_descriptors_where_they_were) {
    const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    /* Counters of this machine's interfaces may gain a digit at any time. */
    for (uint32_t digits = 1; digits <= 20; digits++) {
        sstr text = sstr_new(nullptr, digits);
        sstr_free(&text);
    }
    for (int i = 0; i < 20; i++) {
        stats_ontimer(nullptr);
    }
    const auto open_before = descriptors();
    const memory_use before = memory_use::now();
    for (int i = 0; i < 40; i++) {
        stats_ontimer(nullptr);
    }
    const memory_use after = memory_use::now();
    EXPECT_EQ(descriptors(), open_before);
    EXPECT_LT(after.heap, before.heap + 40 * 8) << "less than the smallest block for each tick";
    EXPECT_EQ(after.slabs, before.slabs);
}
