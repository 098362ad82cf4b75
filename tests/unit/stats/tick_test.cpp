#include "stats/tick.h"

#include <gtest/gtest.h>

#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <iterator>
#include <string>

#include "core/pool.h"
#include "stats/conn.h"
#include "stats/cpu.h"
#include "stats/host.h"
#include "stats/mem.h"
#include "stats/netdev.h"
#include "stats/stat_value.h"
#include "tests/support/big_endian.h"
#include "tests/unit/stats/statistics_test.h"
#include "tests/unit/support/test_client.h"

using namespace unit_test;

#ifdef __SANITIZE_ADDRESS__
/* Of the sanitizer's own header, which not every installation has. */
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace {

typedef statistics_tools_test tick_test;
typedef statistics_machine_test tick_of_a_machine_test;

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

TEST_F(tick_test, a_tick_writes_every_figure_in_order) {
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

TEST_F(tick_of_a_machine_test,
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

TEST_F(tick_of_a_machine_test, a_tick_goes_on_when_no_addresses_can_be_had) {
    machine.addresses_fail = true;
    stats_ontimer(nullptr);
    EXPECT_EQ(get("host.num") + ", " + get("conn"), "5, 123");
}

TEST_F(tick_test, without_the_tools_hosts_stay_and_connections_are_zero) {
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

TEST_F(tick_test, only_the_second_word_of_the_first_line_is_the_connection_figure) {
    tool("conntrack",
         "[ \"$*\" = -S ] || exit 1; echo 'entries\t\t\t 4711 4712'; echo 'searched 5'");
    tool("hostmon", "[ \"$*\" = --showg ] && echo 'Online hosts: 2'");
    stats_ontimer(nullptr);
    EXPECT_EQ(get("conn"), "4711");
    EXPECT_EQ(get("host.num"), "2");
}

/* --- Memory of the daemon --- */

TEST_F(tick_test, an_hour_of_ticks_leaves_memory_where_it_was) {
    run_an_hour();
    const memory_use before = memory_use::now();
    run_an_hour();
    const memory_use after = memory_use::now();
    EXPECT_EQ(after.heap, before.heap);
    EXPECT_EQ(after.slabs, before.slabs);
    EXPECT_EQ(filled("conn.10m"), be32(600));
    EXPECT_EQ(filled("eth0.day"), be32(19)) << "7198 rates in 7200 polls";
}

TEST_F(tick_test, ticks_with_outside_commands_leave_memory_and_descriptors_where_they_were) {
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
