/*
 * The statistics that the daemon keeps: processor, memory, hosts, connections and the traffic of
 * interfaces, once from made-up sources, so that every figure is known, and once from the real
 * kernel.
 *
 * A tick of the daemon ends with the connection tool. Where a test must change what the daemon
 * reads between two ticks, that tool waits until the test lets it go on, so that no tick is ever
 * early.
 */

#include <linux/if_packet.h>
#include <net/if.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <optional>
#include <thread>

#include "tests/support/big_endian.h"
#include "tests/system/model/frames.h"
#include "tests/system/support/daemon_test.h"

using namespace system_test;

namespace {

using words = std::vector<std::string>;
using fields = std::map<std::string, std::string>;

const std::string OK = "+OK\r\n";

/* Time enough for a reply that comes at all before the first tick. */
constexpr int BEFORE_FIRST_TICK_MS = 3000;

const std::string MEMINFO = "MemTotal:         61372 kB\n"
                            "MemFree:           5472 kB\n"
                            "Buffers:           3240 kB\n"
                            "Cached:           12340 kB\n";

struct counts {
    uint64_t rxb = 0;
    uint64_t rxp = 0;
    uint64_t txb = 0;
    uint64_t txp = 0;
};

std::string netdev_line(const std::string& name, const counts& c) {
    return "  " + name + ": " + std::to_string(c.rxb) + " " + std::to_string(c.rxp) +
           " 1 2 3 4 5 6 " + std::to_string(c.txb) + " " + std::to_string(c.txp) + " 1 2 3 4 5 6\n";
}

std::string netdev_file(const std::string& lines) {
    return "Inter-|   Receive                            |  Transmit\n"
           " face |bytes    packets errs drop fifo frame|bytes    packets errs drop fifo colls\n" +
           lines;
}

std::string cpu_file(unsigned long busy, unsigned long idle) {
    return "cpu  " + std::to_string(busy) + " 0 0 " + std::to_string(idle) +
           " 0 0 0 0 0 0\ncpu0 1 2 3 4 5 6 7\n";
}

/* What one tick announced. */
struct tick {
    words order;                        /* the keys, as they came */
    fields strings;                     /* values of string keys */
    std::map<std::string, fields> hash; /* fields of hash keys */
    long seen_ms = 0;                   /* when it was read */

    long rate(const std::string& interface, const std::string& field) const {
        auto found = hash.find(interface);
        return found == hash.end() || found->second.count(field) == 0
                   ? -1
                   : atol(found->second.at(field).c_str());
    }
};

class statistics : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        write_file(work("ticks"), "0");
        host_tool("echo 'Online hosts: 5'; echo 'Max Online hosts: 9'");
        connection_tool("echo 'entries 123'");
        sandbox::add_tool("hostmon", "n=$(($(cat " + work("ticks") + ") + 1))\necho $n >" +
                                         work("ticks") + "\n. " + work("host-tool"));
        sandbox::add_tool("conntrack", "n=$(cat " + work("ticks") + ")\nwhile [ -e " +
                                           work("gate") + " ] && [ ! -e " + work("pass-$n") +
                                           " ]; do sleep 0.02; done\n. " + work("connection-tool"));
    }

    void TearDown() override {
        observer.reset();
        client.reset();
        daemon_test::TearDown();
    }

    static std::string work(const std::string& name) {
        return sandbox::workspace("work/") + name;
    }

    static void host_tool(const std::string& body) {
        write_file(work("host-tool"), body + "\n");
    }

    static void connection_tool(const std::string& body) {
        write_file(work("connection-tool"), body + "\n");
    }

    /* Starts a daemon that is observed before its first tick, and whose ticks wait at their end. */
    void start_gated() {
        for (int attempt = 0; attempt < 5; attempt++) {
            write_file(work("ticks"), "0");
            write_file(work("gate"), "");
            ticks = 0;
            daemon = &start();
            observer.emplace();
            if (observer->call({"observe"}, BEFORE_FIRST_TICK_MS) == OK) {
                return;
            }
            daemon->stop();
        }
        FAIL() << "no daemon could be observed before its first tick";
    }

    /* Starts a daemon whose ticks just come. */
    void start_running() {
        daemon = &start();
        observer.emplace();
        ASSERT_EQ(observer->call({"observe"}), OK);
        next_tick();
    }

    /* The frames from the observer up to the one of this key. */
    void read_up_to(const std::string& last, tick& all) {
        do {
            std::string frame = observer->frame();
            ASSERT_EQ(frame.substr(0, 1), "!") << frame;
            words parts = elements_of(frame);
            ASSERT_GE(parts.size(), 3u) << frame;
            all.order.push_back(parts[1]);
            if (parts[0] == "MSET") {
                all.strings[parts[1]] = parts[2];
            } else {
                EXPECT_EQ(parts[0], "HMSET");
                for (size_t i = 2; i + 1 < parts.size(); i += 2) {
                    all.hash[parts[1]][parts[i]] = parts[i + 1];
                }
            }
        } while (all.order.back() != last);
        all.seen_ms = now_ms();
    }

    /* With the gate shut: the next tick, up to where it waits. */
    tick gated_tick() {
        tick all;
        ticks++;
        read_up_to("host.maxnum", all);
        return all;
    }

    /* Lets the tick that waits end. */
    void let_go(tick& all) {
        write_file(work("pass-") + std::to_string(ticks), "");
        read_up_to("conn", all);
    }

    tick whole_gated_tick() {
        tick all = gated_tick();
        let_go(all);
        return all;
    }

    void open_gate() {
        unlink(work("gate").c_str());
        client.emplace();
    }

    /* With the gate open: the next whole tick. */
    tick next_tick() {
        tick all;
        read_up_to("conn", all);
        return all;
    }

    /* The first tick that begins after the call. A client's own change stands between two ticks. */
    tick tick_from_now() {
        client.emplace();
        EXPECT_EQ(client->call({"set", "between-ticks", "x"}), OK);
        tick before;
        read_up_to("between-ticks", before);
        return next_tick();
    }

    std::string get(const std::string& key) {
        words parts = elements_of("*1\r\n" + client->call({"get", key}));
        return parts.empty() ? "(nothing)" : parts[0];
    }

    std::string hget(const std::string& key, const std::string& field) {
        words parts = elements_of("*1\r\n" + client->call({"hget", key, field}));
        return parts.empty() ? "(nothing)" : parts[0];
    }

    process* daemon = nullptr;
    std::optional<resp_client> observer;
    std::optional<resp_client> client;
    int ticks = 0; /* with the gate shut: how many have begun */
};

} // namespace

TEST_F(statistics, a_tick_writes_every_figure_and_announces_each_once) {
    counts eth0 = {1000000, 1000, 5000000000, 2000};
    counts lan = {7, 8, 9, 10};
    auto set_counters = [&] {
        sandbox::set_proc_file(
            "net/dev",
            netdev_file(netdev_line("lo", {1, 1, 1, 1}) + netdev_line("eth0", eth0) +
                        netdev_line("wlan0", {1, 1, 1, 1}) + netdev_line("br-lan", lan)));
    };
    set_counters();
    sandbox::set_proc_file("stat", cpu_file(1000, 1000));
    sandbox::set_proc_file("meminfo", MEMINFO);
    ASSERT_NO_FATAL_FAILURE(start_gated());

    tick first = gated_tick();
    EXPECT_EQ(first.order,
              (words{"eth0", "br-lan", "cpu.load", "mem.load", "host.num", "host.maxnum"}));
    EXPECT_EQ(first.hash["eth0"], (fields{{"rxb", "1000000"},
                                          {"rxp", "1000"},
                                          {"txb", "5000000000"},
                                          {"txp", "2000"},
                                          {"rxbrate", "0"},
                                          {"rxprate", "0"},
                                          {"txbrate", "0"},
                                          {"txprate", "0"},
                                          {"flags", "0"}}));
    EXPECT_EQ(first.hash["br-lan"].size(), 9u);
    EXPECT_EQ(
        first.strings,
        (fields{{"cpu.load", "0"}, {"mem.load", "65"}, {"host.num", "5"}, {"host.maxnum", "9"}}));

    /* 100 of 100 jiffies busy; traffic of 60000, 600, 120000 and 300. */
    sandbox::set_proc_file("stat", cpu_file(1100, 1000));
    eth0 = {1060000, 1600, 5000120000, 2300};
    set_counters();
    host_tool("echo 'Online hosts: 6'; echo 'Max Online hosts: 10'");
    let_go(first);
    EXPECT_EQ(first.order.back(), "conn");
    EXPECT_EQ(first.strings["conn"], "123");

    tick second = gated_tick();
    EXPECT_EQ(second.order,
              (words{"eth0", "br-lan", "cpu.load", "mem.load", "host.num", "host.maxnum"}));
    EXPECT_EQ(
        second.strings,
        (fields{{"cpu.load", "50"}, {"mem.load", "65"}, {"host.num", "6"}, {"host.maxnum", "10"}}));
    EXPECT_EQ(second.hash["eth0"]["rxb"], "1060000");
    EXPECT_EQ(second.hash["eth0"]["txb"], "5000120000");
    /* Half of what the time between the two polls makes of it: a second, or more when the machine
     * is busy. */
    long rxbrate = second.rate("eth0", "rxbrate");
    double most = static_cast<double>(second.seen_ms - first.seen_ms) / 1000 + 1;
    EXPECT_LE(rxbrate, 30400);
    EXPECT_GE(rxbrate, static_cast<long>(30000 / most));
    EXPECT_NEAR(static_cast<double>(second.rate("eth0", "rxprate")),
                static_cast<double>(rxbrate) / 100, 1);
    EXPECT_NEAR(static_cast<double>(second.rate("eth0", "txbrate")),
                static_cast<double>(rxbrate) * 2, 2);
    EXPECT_NEAR(static_cast<double>(second.rate("eth0", "txprate")),
                static_cast<double>(rxbrate) / 200, 1);
    EXPECT_EQ(second.rate("br-lan", "rxbrate"), 0);

    /* Nothing can be read any more. */
    for (const char* name : {"net/dev", "stat", "meminfo"}) {
        sandbox::remove_proc_file(name);
    }
    host_tool("");
    connection_tool("");
    let_go(second);
    EXPECT_EQ(second.strings["conn"], "0");

    tick third = whole_gated_tick();
    EXPECT_EQ(third.order, (words{"host.num", "host.maxnum", "conn"}));
    EXPECT_EQ(third.strings, (fields{{"host.num", "6"}, {"host.maxnum", "10"}, {"conn", "0"}}));

    tick fourth = gated_tick();
    EXPECT_EQ(fourth.order, (words{"host.num", "host.maxnum"}));
    set_counters();
    eth0.rxb += 600000;
    set_counters();
    sandbox::set_proc_file("stat", cpu_file(1100, 1100));
    sandbox::set_proc_file("meminfo", MEMINFO);
    let_go(fourth);

    /* The rate is that of the whole time in which the file could not be read, three seconds and
     * more. */
    tick fifth = whole_gated_tick();
    EXPECT_EQ(fifth.strings["cpu.load"], "25");
    long fresh = 2 * fifth.rate("eth0", "rxbrate") - rxbrate;
    most = static_cast<double>(fifth.seen_ms - first.seen_ms) / 1000 + 1;
    EXPECT_LE(fresh, 600000 / 2.9);
    EXPECT_GE(fresh, static_cast<long>(600000 / most) - 2);

    /* The histories hold what was announced, and no sample of what could not be read. */
    open_gate();
    std::string ring = get("cpu.10m");
    ASSERT_EQ(ring.size(), 620u);
    EXPECT_GE(word_at(ring, 12), 3u);
    EXPECT_EQ(ring.substr(20, 3), std::string("\0\x32\x19", 3));
    EXPECT_EQ(get("host.10m").substr(20, 20), be32(5) + be32(6) + be32(6) + be32(6) + be32(6));
    EXPECT_EQ(get("conn.10m").substr(20, 20), be32(123) + be32(0) + be32(0) + be32(0) + be32(0));
    std::string rates;
    for (const tick& one : {second, fifth}) {
        for (const char* field : {"rxbrate", "rxprate", "txbrate", "txprate"}) {
            rates += be32(static_cast<uint32_t>(one.rate("eth0", field)));
        }
    }
    EXPECT_EQ(get("eth0.10m").substr(20, 32), rates);
    EXPECT_EQ(client->call({"exists", "wlan0"}), ":0\r\n");
    EXPECT_EQ(client->call({"exists", "lo"}), ":0\r\n");
    EXPECT_EQ(daemon->out() + daemon->err(), "");
}

TEST_F(statistics, a_live_daemon_has_every_key) {
    sandbox::set_proc_file("net/dev",
                           netdev_file(netdev_line("eth0", {}) + netdev_line("pppoe-wan", {})));
    sandbox::set_proc_file("stat", cpu_file(1000, 1000));
    sandbox::set_proc_file("meminfo", MEMINFO);
    ASSERT_NO_FATAL_FAILURE(start_running());
    client.emplace();
    for (const char* key : {"cpu.load", "mem.load", "host.num", "host.maxnum", "conn"}) {
        EXPECT_EQ(client->call({"type", key}), "$6\r\nstring\r\n") << key;
    }
    for (const char* key : {"eth0", "pppoe-wan"}) {
        EXPECT_EQ(client->call({"type", key}), "$4\r\nhash\r\n") << key;
        EXPECT_EQ(client->call({"hlen", key}), ":9\r\n") << key;
    }
    struct span {
        const char* name;
        uint32_t period;
        uint32_t slots;
    };
    const span spans[] = {{"10m", 1, 600},
                          {"2h", 12, 600},
                          {"day", 360, 240},
                          {"week", 1440, 420},
                          {"mon", 2880, 900}};
    for (const auto& [base, size] :
         {std::pair("cpu", 1u), {"host", 4u}, {"conn", 4u}, {"eth0", 16u}, {"pppoe-wan", 16u}}) {
        for (const span& s : spans) {
            std::string key = std::string(base) + "." + s.name;
            std::string ring = get(key);
            EXPECT_EQ(ring.size(), 20 + s.slots * size) << key;
            EXPECT_EQ(word_at(ring, 4), s.period) << key;
            EXPECT_EQ(word_at(ring, 8), s.slots) << key;
            EXPECT_EQ(client->call({"del", key}), ":0\r\n") << key;
        }
    }
}

TEST_F(statistics, processor_and_memory_follow_their_files) {
    struct step {
        std::string stat;
        std::string meminfo;
        const char* cpu_load;
        const char* mem_load;
    };
    const std::string wide =
        "MemTotal: 1000 kB\nMemFree: 100 kB\nBuffers: 200 kB\nCached: 300 kB\n";
    const step steps[] = {
        {cpu_file(1000, 1000), MEMINFO, "0", "65"},
        {cpu_file(1100, 1000), wide, "50", "40"},
        /* 91 percent: what stands in between ends the reading. */
        {cpu_file(1200, 1000),
         "MemTotal: 61372 kB\nMemFree: 5472 kB\nMemAvailable: 9 kB\nBuffers: 3240 kB\nCached: "
         "12340 kB\n",
         "75", "91"},
        {"cpu 1300 0 0 1000 0 0 0\n",
         "MemTotal: 0 kB\nMemFree: 0 kB\nBuffers: 0 kB\nCached: 0 kB\n", "75", "91"},
        {"cpu  1300 0 0 1000 0 0\n", "", "75", "91"},
        /* 200 busy, 200 idle since the last good line. */
        {cpu_file(1400, 1200), "MemTotal: 100 kB\nMemFree: 50 kB\nBuffers: 30 kB\nCached: 30 kB\n",
         "62", "91"},
        {"", "MemTotal: 100 kB\nMemFree: 50 kB\nBuffers: 25 kB\nCached: 25 kB\n", "62", "0"},
        /* More idle time than time. */
        {"cpu  900 0 0 1800 0 0 0\n",
         "MemTotal: 42949673 kB\nMemFree: 1 kB\nBuffers: 1 kB\nCached: 1 kB\n", "31", "99"},
        {"cpu  900 0 0 1800 0 0 0\n",
         "MemTotal: 42949673 kB\nMemFree: 0 kB\nBuffers: 0 kB\nCached: 0 kB\n", "31", "0"},
    };
    auto lay_down = [](const step& s) {
        sandbox::set_proc_file("stat", s.stat);
        sandbox::set_proc_file("meminfo", s.meminfo);
    };
    lay_down(steps[0]);
    ASSERT_NO_FATAL_FAILURE(start_gated());
    std::string loads;
    for (size_t i = 0; i < std::size(steps); i++) {
        tick one = gated_tick();
        EXPECT_EQ(one.strings["cpu.load"], steps[i].cpu_load) << "step " << i;
        EXPECT_EQ(one.strings["mem.load"], steps[i].mem_load) << "step " << i;
        loads += static_cast<char>(atoi(steps[i].cpu_load));
        if (i + 1 < std::size(steps)) {
            lay_down(steps[i + 1]);
        }
        let_go(one);
    }
    open_gate();
    EXPECT_EQ(get("cpu.10m").substr(20, loads.size()), loads);
}

TEST_F(statistics, interfaces_follow_the_counters_and_their_histories_the_chosen_algorithm) {
    std::map<std::string, counts> now = {{"br-lan", {4294967000, 100, 100, 100}},
                                         {"eth0", {1000000, 1000, 1000000, 1000}},
                                         {"pppoe-wan", {500000, 100, 500000, 100}},
                                         {"p-9", {0, 0, 0, 0}}};
    auto lay_down = [&] {
        std::string lines;
        for (const auto& [name, c] : now) {
            lines += netdev_line(name, c);
        }
        sandbox::set_proc_file("net/dev", netdev_file(lines + netdev_line("ppp0", {1, 2, 3, 4})));
    };
    lay_down();
    sandbox::set_proc_file("stat", cpu_file(1000, 1000));
    sandbox::set_proc_file("meminfo", MEMINFO);
    ASSERT_NO_FATAL_FAILURE(start_gated());

    /* A client's own string where a hash would go, and the running average for interfaces. */
    client.emplace();
    client->send(request_frame({"set", "p-9", "mine"}));
    std::vector<tick> seen = {gated_tick()};
    words order = seen[0].order;
    order.erase(std::remove(order.begin(), order.end(), "p-9"), order.end());
    EXPECT_EQ(order, (words{"br-lan", "eth0", "pppoe-wan", "cpu.load", "mem.load", "host.num",
                            "host.maxnum"}));
    client->send(request_frame({"set", "history-iface-algor", "avg"}));

    const unsigned more[12] = {600000, 0, 0, 300000, 5000, 0, 900000, 0, 0, 0, 70000, 1000};
    for (size_t i = 0; i < 12; i++) {
        now["eth0"].rxb += more[i];
        now["eth0"].txp += more[11 - i] / 100;
        now["br-lan"].rxb += 100; /* runs over the end of 32 bits */
        switch (i) {
        case 2:
            now["pppoe-wan"].rxb += 2000000;
            break;
        case 4:
            now["pppoe-wan"].rxb += 1000000000;
            break;
        case 6:
            now["pppoe-wan"] = {70, 1, 70, 1};
            break;
        case 9:
            now.erase("pppoe-wan");
            break;
        }
        lay_down();
        host_tool("echo 'Online hosts: " + std::to_string(i == 3 ? 50 : i) + "'");
        sandbox::set_proc_file(
            "stat", cpu_file(1000 + 100 * (i < 3 ? i : 3), 1000 + 100 * (i < 3 ? 0 : i)));
        let_go(seen.back());
        seen.push_back(gated_tick());
    }
    open_gate();

    /* What jumped or went back left the rates as they were, and the counters in the store. */
    auto rate = [&](size_t i, const char* name, const char* field) {
        return seen[i].rate(name, field);
    };
    EXPECT_EQ(rate(2, "pppoe-wan", "rxbrate"), 0);
    EXPECT_GT(rate(3, "pppoe-wan", "rxbrate"), 100000);
    EXPECT_EQ(rate(4, "pppoe-wan", "rxbrate"), rate(3, "pppoe-wan", "rxbrate") / 2);
    EXPECT_EQ(rate(5, "pppoe-wan", "rxbrate"), rate(4, "pppoe-wan", "rxbrate"));
    EXPECT_EQ(seen[5].hash["pppoe-wan"]["rxb"], "1002500000");
    EXPECT_EQ(rate(6, "pppoe-wan", "rxbrate"), rate(5, "pppoe-wan", "rxbrate") / 2);
    EXPECT_EQ(rate(7, "pppoe-wan", "rxbrate"), rate(6, "pppoe-wan", "rxbrate"));
    EXPECT_EQ(seen[7].hash["pppoe-wan"]["rxb"], "70");
    EXPECT_EQ(rate(8, "pppoe-wan", "rxbrate"), rate(7, "pppoe-wan", "rxbrate") / 2);
    for (size_t i = 1; i <= 12; i++) {
        EXPECT_GT(rate(i, "br-lan", "rxbrate"), 20) << "tick " << i;
        EXPECT_LE(rate(i, "br-lan", "rxbrate"), 102) << "tick " << i;
    }
    EXPECT_EQ(seen[12].hash["br-lan"]["rxb"], "4294968200");

    /* An interface that went keeps its figures but is announced no more. */
    EXPECT_EQ(seen[9].hash.count("pppoe-wan"), 1u);
    EXPECT_EQ(seen[10].hash.count("pppoe-wan"), 0u);
    EXPECT_EQ(hget("pppoe-wan", "rxb"), "70");
    EXPECT_EQ(hget("pppoe-wan", "rxbrate"), std::to_string(rate(9, "pppoe-wan", "rxbrate")));

    /* A key of another type is left alone; its histories are kept all the same. */
    EXPECT_EQ(client->call({"type", "p-9"}), "$6\r\nstring\r\n");
    EXPECT_EQ(get("p-9.10m").size(), 20u + 600 * 16);
    EXPECT_GE(word_at(get("p-9.10m"), 12), 12u);

    /* Twelve rates make the first sample of two hours. */
    std::string expected;
    for (const char* field : {"rxbrate", "rxprate", "txbrate", "txprate"}) {
        uint32_t average = 0;
        for (size_t i = 1; i <= 12; i++) {
            uint32_t one = static_cast<uint32_t>(rate(i, "eth0", field));
            average = average == 0 ? one : (average + one) / 2;
        }
        expected += be32(average);
    }
    std::string ring = get("eth0.2h");
    EXPECT_EQ(word_at(ring, 12), 1u);
    EXPECT_EQ(ring.substr(20, 16), expected);
    EXPECT_GT(word_at(ring, 20), 0u);

    /* The other figures keep their maxima, whatever interfaces do. */
    int most = 0;
    for (size_t i = 0; i < 12; i++) {
        most = std::max(most, atoi(seen[i].strings["cpu.load"].c_str()));
    }
    EXPECT_EQ(static_cast<unsigned char>(get("cpu.2h")[20]), most);
    EXPECT_EQ(get("host.2h").substr(20, 4), be32(50));
    EXPECT_EQ(get("conn.2h").substr(20, 4), be32(123));
}

TEST_F(statistics, outside_tools_may_say_anything_or_nothing) {
    ASSERT_NO_FATAL_FAILURE(start_running());
    auto figures = [&] {
        tick one = tick_from_now();
        return one.strings["host.num"] + " of " + one.strings["host.maxnum"] + ", " +
               one.strings["conn"];
    };
    EXPECT_EQ(figures(), "5 of 9, 123");

    /* What the connection tool of newer systems prints has no number in that place. */
    host_tool("echo 'Online hosts: 7'");
    connection_tool("printf 'cpu=0   \\tfound=4 invalid=0 insert=0\\ncpu=1   \\tfound=3 invalid=0 "
                    "insert=0\\n'");
    EXPECT_EQ(figures(), "7 of 9, 0");

    /* And what that of older ones prints. */
    host_tool("echo 'Online hosts: -1'; echo 'Max Online hosts: 99999999999999999999'");
    connection_tool("printf 'entries  \\t\\t\\t4711\\nsearched \\t\\t\\t815\\n'");
    EXPECT_EQ(figures(), "4294967295 of 2147483647, 4711");

    /* Garbage on both streams. */
    host_tool(
        "printf '\\377\\376\\0\\001Online hosts: 8\\n'; head -c 20000 /dev/urandom >&2; exit 7");
    connection_tool("printf '\\0\\377 \\200\\201\\n'; echo complaint >&2; kill -9 $$");
    EXPECT_EQ(figures(), "4294967295 of 2147483647, 0");

    /* Far more than anybody reads; the tool that never ends by itself ends with its reader. */
    host_tool("echo 'Online hosts: 11'; echo 'Max Online hosts: 12'; exec yes 'Online hosts: 99'");
    connection_tool("printf 'entries '; head -c 1000000 /dev/zero | tr '\\0' 1; echo; exec yes");
    EXPECT_EQ(figures(), "11 of 12, 2147483647");

    /* Slow ones delay the tick, and clients with it, but no figure is lost. */
    host_tool("sleep 0.7; echo 'Online hosts: 13'; sleep 0.7");
    connection_tool("sleep 0.7; echo 'entries 14'; sleep 0.7");
    EXPECT_EQ(figures(), "13 of 12, 14");

    /* None there at all, so that the shell itself complains. */
    host_tool("exit 1");
    connection_tool("exit 1");
    for (const char* name : {"hostmon", "conntrack"}) {
        sandbox::add_tool(name, "exec /nowhere/such-a-tool");
    }
    EXPECT_EQ(figures(), "13 of 12, 0");
    for (const char* name : {"hostmon", "conntrack"}) {
        sandbox::remove_tool(name);
    }
    tick one = tick_from_now();
    EXPECT_EQ(one.strings["host.num"] + " of " + one.strings["host.maxnum"], "13 of 12");

    EXPECT_TRUE(daemon->running());
    EXPECT_EQ(daemon->out() + daemon->err(), "") << "a foreground daemon's terminal stays clean";
}

TEST_F(statistics, the_real_connection_tool_is_read) {
    ASSERT_NO_FATAL_FAILURE(start_running());
    EXPECT_EQ(tick_from_now().strings["conn"], "123");

    sandbox::remove_tool("conntrack");
    process tool({"conntrack", "-S"});
    int status = tool.wait_exit();
    if (status == 127) {
        GTEST_SKIP() << "conntrack is not installed here";
    }
    if (status != 0) {
        GTEST_SKIP() << "conntrack ends with " << status << " here: " << tool.err();
    }
    process pipeline({"sh", "-c", "conntrack -S | head -n 1 | awk '{print $2}'"});
    ASSERT_EQ(pipeline.wait_exit(), 0);
    /* Versions that name their figures ("found=0") give no number, and so 0. */
    int figure = 0;
    if (sscanf(pipeline.out().c_str(), "%d", &figure) != 1) {
        figure = 0;
    }
    EXPECT_EQ(tick_from_now().strings["conn"], std::to_string(figure)) << tool.out();
    EXPECT_EQ(daemon->err(), "");
}

namespace {

/* Sends frames of a protocol that nobody speaks through an interface, so many every ten
 * milliseconds. */
struct flow {
    const char* interface;
    size_t bytes; /* of a frame, with its 14 bytes of head */
    int frames;
    int socket = -1;
    uint64_t sent = 0; /* to be read when the sender has ended */

    bool open() {
        socket = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
        sockaddr_ll address = {};
        address.sll_family = AF_PACKET;
        address.sll_ifindex = static_cast<int>(if_nametoindex(interface));
        return socket >= 0 &&
               bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }

    void send() {
        std::string frame(bytes, '\0');
        frame.replace(0, 14, "\x02\0\0\0\0\x01\x02\0\0\0\0\x02\x88\xB5", 14);
        for (int i = 0; i < frames; i++) {
            if (::send(socket, frame.data(), frame.size(), 0) ==
                static_cast<ssize_t>(frame.size())) {
                sent++;
            }
        }
    }

    ~flow() {
        if (socket >= 0) {
            close(socket);
        }
    }
};

bool within(double figure, double expected, double share) {
    return figure >= expected * (1 - share) && figure <= expected * (1 + share);
}

} // namespace

TEST_F(statistics, real_interfaces_show_real_traffic) {
    /* Without IPv6 an interface sends nothing of its own accord. */
    for (const char* which : {"all", "default"}) {
        if (FILE* file = fopen(
                (std::string("/proc/sys/net/ipv6/conf/") + which + "/disable_ipv6").c_str(), "w")) {
            fputs("1", file);
            fclose(file);
        }
    }
    const std::pair<const char*, const char*> pairs[] = {
        {"eth0", "far0"}, {"br-lan", "far1"}, {"pppoe-wan", "far2"}};
    for (const auto& [name, peer] : pairs) {
        std::string missing = sandbox::add_veth(name, peer);
        if (!missing.empty()) {
            GTEST_SKIP() << missing;
        }
    }
    flow flows[] = {{"far0", 1000, 2}, {"eth0", 600, 1}, {"far1", 300, 1}, {"pppoe-wan", 1400, 3}};
    for (flow& one : flows) {
        if (!one.open()) {
            GTEST_SKIP() << "no packet sockets here: " << strerror(errno);
        }
    }

    ASSERT_NO_FATAL_FAILURE(start_running());
    client.emplace();
    tick one = next_tick();
    for (const auto& [name, peer] : pairs) {
        EXPECT_EQ(one.hash[name]["flags"], "3") << name << " is up and running";
        EXPECT_EQ(std::count(one.order.begin(), one.order.end(), name), 1) << name;
        EXPECT_EQ(one.hash.count(peer), 0u) << peer;
    }

    std::atomic<bool> sending = true;
    std::thread sender([&] {
        auto next = std::chrono::steady_clock::now();
        while (sending) {
            for (flow& f : flows) {
                f.send();
            }
            next += std::chrono::milliseconds(10);
            std::this_thread::sleep_until(next);
        }
    });
    struct expectation {
        const char* interface;
        const char* field;
        double rate;
    };
    const expectation rates[] = {{"eth0", "rxbrate", 200000},      {"eth0", "rxprate", 200},
                                 {"eth0", "txbrate", 60000},       {"eth0", "txprate", 100},
                                 {"br-lan", "rxbrate", 30000},     {"br-lan", "rxprate", 100},
                                 {"br-lan", "txbrate", 0},         {"br-lan", "txprate", 0},
                                 {"pppoe-wan", "rxbrate", 0},      {"pppoe-wan", "rxprate", 0},
                                 {"pppoe-wan", "txbrate", 420000}, {"pppoe-wan", "txprate", 300}};
    /* Six ticks bring the smoothed rate within two percent of the true one; on a busy machine the
       sender may stumble, which takes as long to be forgotten. */
    words wrong = {"no tick"};
    for (int i = 0; i < 20 && !wrong.empty(); i++) {
        one = next_tick();
        wrong.clear();
        for (const expectation& e : rates) {
            if (!within(static_cast<double>(one.rate(e.interface, e.field)), e.rate, 0.04)) {
                wrong.push_back(std::string(e.interface) + " " + e.field + " " +
                                std::to_string(one.rate(e.interface, e.field)));
            }
        }
    }
    sending = false;
    sender.join();
    EXPECT_EQ(wrong, words{});

    /* When all has been sent, the counters are exact. */
    one = tick_from_now();
    auto total = [&](size_t i) { return std::pair(flows[i].sent * flows[i].bytes, flows[i].sent); };
    const std::tuple<const char*, const char*, const char*, size_t> counters[] = {
        {"eth0", "rxb", "rxp", 0},
        {"eth0", "txb", "txp", 1},
        {"br-lan", "rxb", "rxp", 2},
        {"pppoe-wan", "txb", "txp", 3}};
    for (const auto& [name, bytes, packets, i] : counters) {
        EXPECT_EQ(one.hash[name][bytes], std::to_string(total(i).first)) << name;
        EXPECT_EQ(one.hash[name][packets], std::to_string(total(i).second)) << name;
    }

    /* The flags follow the interface and its other end. */
    auto eth0_shows = [&](const char* flags) {
        for (int i = 0; i < 4; i++) {
            if (next_tick().hash["eth0"]["flags"] == flags) {
                return true;
            }
        }
        return false;
    };
    auto set_link = [](const char* name, const char* state) {
        EXPECT_EQ(process({"ip", "link", "set", name, state}).wait_exit(), 0);
    };
    set_link("far0", "down");
    EXPECT_TRUE(eth0_shows("2")) << "up, but nothing at the other end";
    set_link("eth0", "down");
    EXPECT_TRUE(eth0_shows("0"));
    set_link("far0", "up");
    set_link("eth0", "up");
    EXPECT_TRUE(eth0_shows("3"));

    /* An interface that goes is announced no more and keeps its figures. */
    sandbox::remove_interface("eth0");
    one = tick_from_now();
    EXPECT_EQ(one.hash.count("eth0"), 0u);
    EXPECT_EQ(one.hash.count("br-lan"), 1u);
    EXPECT_EQ(hget("eth0", "rxb"), std::to_string(total(0).first));
}
