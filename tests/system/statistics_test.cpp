/* The statistics that the daemon keeps: processor, memory, hosts, connections and the traffic of
 * interfaces, once from made-up sources, so that every figure is known, and once from the real
 * kernel.
 *
 * A tick of the daemon ends with the connection tool. Where a test must change what the daemon
 * reads between two ticks, that tool waits until the test lets it go on, so that no tick is ever
 * early. */

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
#include "tests/support/netdev_text.h"
#include "tests/system/model/frames.h"
#include "tests/system/support/daemon_test.h"
#include "tests/system/support/log_text.h"

using namespace system_test;

namespace {

typedef std::vector<std::string> words;
typedef std::map<std::string, std::string> fields;

const std::string OK = "+OK\r\n";

/* Time enough for a reply that comes at all before the first tick. */
constexpr int BEFORE_FIRST_TICK_MS = 3000;

const std::string MEMINFO = "MemTotal:         61372 kB\n"
                            "MemFree:           5472 kB\n"
                            "Buffers:           3240 kB\n"
                            "Cached:           12340 kB\n";

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

const char* const RATES[] = {"rxbrate", "rxprate", "txbrate", "txprate"};

/* The sample that a tick makes of an interface. */
std::string rates_of(const tick& one, const std::string& interface) {
    std::string sample;
    for (const char* field : RATES) {
        sample += be32(static_cast<uint32_t>(one.rate(interface, field)));
    }
    return sample;
}

/* At most so many seconds have passed between the polls of the two. */
double seconds_between(const tick& from, const tick& to) {
    return static_cast<double>(to.seen_ms - from.seen_ms) / 1000 + 1;
}

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

    static void host_tool(const std::string& body) {
        write_file(work("host-tool"), body + "\n");
    }

    static void connection_tool(const std::string& body) {
        write_file(work("connection-tool"), body + "\n");
    }

    void lay_down_interfaces() const {
        std::string lines;
        for (const auto& [name, c] : interfaces) {
            lines += netdev_line(name, c);
        }
        sandbox::set_proc_file("net/dev", NETDEV_HEADER + lines);
    }

    /* The interfaces, and a processor and a memory. */
    void lay_down_all() const {
        lay_down_interfaces();
        sandbox::set_proc_file("stat", cpu_file(1000, 1000));
        sandbox::set_proc_file("meminfo", MEMINFO);
    }

    static void remove_all() {
        for (const char* name : {"net/dev", "stat", "meminfo"}) {
            sandbox::remove_proc_file(name);
        }
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

    std::map<std::string, counts> interfaces;
    process* daemon = nullptr;
    std::optional<resp_client> observer;
    std::optional<resp_client> client;
    int ticks = 0; /* with the gate shut: how many have begun */
};

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

/* Sends through each of the flows from its beginning to its end. */
class steady_traffic {
  public:
    explicit steady_traffic(std::vector<flow>& flows)
        : sender([this, &flows] {
              auto next = std::chrono::steady_clock::now();
              while (sending) {
                  for (flow& one : flows) {
                      one.send();
                  }
                  next += std::chrono::milliseconds(10);
                  std::this_thread::sleep_until(next);
              }
          }) {}
    ~steady_traffic() {
        sending = false;
        sender.join();
    }
    steady_traffic(const steady_traffic&) = delete;
    steady_traffic& operator=(const steady_traffic&) = delete;

  private:
    std::atomic<bool> sending = true;
    std::thread sender; /* the last member, since it reads the other */
};

/* Interfaces of the real kernel, and their other ends, which the daemon does not look at. */
const std::pair<const char*, const char*> PAIRS[] = {
    {"eth0", "far0"}, {"br-lan", "far1"}, {"pppoe-wan", "far2"}};

class real_interfaces : public statistics {
  protected:
    void SetUp() override {
        statistics::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        disable_ipv6();
        for (const auto& [name, peer] : PAIRS) {
            const std::string missing = sandbox::add_veth(name, peer);
            if (!missing.empty()) {
                GTEST_SKIP() << missing;
            }
        }
        for (flow& one : flows) {
            if (!one.open()) {
                GTEST_SKIP() << "no packet sockets here: " << strerror(errno);
            }
        }
    }

    /* Without it an interface sends nothing of its own accord. */
    static void disable_ipv6() {
        for (const char* which : {"all", "default"}) {
            const std::string folder = std::string("/proc/sys/net/ipv6/conf/") + which;
            if (FILE* file = fopen((folder + "/disable_ipv6").c_str(), "w")) {
                fputs("1", file);
                fclose(file);
            }
        }
    }

    std::vector<flow> flows = std::vector<flow>{
        {"far0", 1000, 2}, {"eth0", 600, 1}, {"far1", 300, 1}, {"pppoe-wan", 1400, 3}};
};

} // namespace

TEST_F(statistics, a_tick_writes_every_figure_and_announces_each_once) {
    sandbox::set_proc_file("net/dev", NETDEV_HEADER + netdev_line("lo", {1, 1, 1, 1}) +
                                          netdev_line("eth0", {1000000, 1000, 5000000000, 2000}) +
                                          netdev_line("wlan0", {1, 1, 1, 1}) +
                                          netdev_line("ppp0", {1, 1, 1, 1}) +
                                          netdev_line("br-lan", {7, 8, 9, 10}));
    sandbox::set_proc_file("stat", cpu_file(1000, 1000));
    sandbox::set_proc_file("meminfo", MEMINFO);
    ASSERT_NO_FATAL_FAILURE(start_gated());
    tick first = whole_gated_tick();
    EXPECT_EQ(first.order,
              (words{"eth0", "br-lan", "cpu.load", "mem.load", "host.num", "host.maxnum", "conn"}));
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
    EXPECT_EQ(first.strings, (fields{{"cpu.load", "0"},
                                     {"mem.load", "65"},
                                     {"host.num", "5"},
                                     {"host.maxnum", "9"},
                                     {"conn", "123"}}));
    open_gate();
    for (const char* name : {"lo", "wlan0", "ppp0"}) {
        EXPECT_EQ(client->call({"exists", name}), ":0\r\n") << name;
    }
    EXPECT_EQ(daemon->out() + daemon->err(), "");
}

TEST_F(statistics, a_rate_is_half_of_what_the_time_between_two_polls_makes_of_the_traffic) {
    interfaces = {{"eth0", {1000000, 1000, 5000000000, 2000}}, {"br-lan", {7, 8, 9, 10}}};
    lay_down_all();
    ASSERT_NO_FATAL_FAILURE(start_gated());
    tick first = gated_tick();
    /* Traffic of 60000, 600, 120000 and 300. */
    interfaces["eth0"] = {1060000, 1600, 5000120000, 2300};
    lay_down_interfaces();
    let_go(first);
    tick second = gated_tick();
    EXPECT_EQ(second.hash["eth0"]["rxb"], "1060000");
    EXPECT_EQ(second.hash["eth0"]["txb"], "5000120000");
    /* A second, or more when the machine is busy. */
    const long rxbrate = second.rate("eth0", "rxbrate");
    const double most = seconds_between(first, second);
    EXPECT_LE(rxbrate, 30400);
    EXPECT_GE(rxbrate, static_cast<long>(30000 / most));
    EXPECT_NEAR(static_cast<double>(second.rate("eth0", "rxprate")),
                static_cast<double>(rxbrate) / 100, 1);
    EXPECT_NEAR(static_cast<double>(second.rate("eth0", "txbrate")),
                static_cast<double>(rxbrate) * 2, 2);
    EXPECT_NEAR(static_cast<double>(second.rate("eth0", "txprate")),
                static_cast<double>(rxbrate) / 200, 1);
    EXPECT_EQ(second.rate("br-lan", "rxbrate"), 0);
}

TEST_F(statistics, histories_hold_what_was_announced) {
    interfaces = {{"eth0", {1000000, 1000, 5000000000, 2000}}, {"br-lan", {7, 8, 9, 10}}};
    lay_down_all();
    ASSERT_NO_FATAL_FAILURE(start_gated());
    tick first = gated_tick();
    /* 100 of 100 jiffies busy. */
    sandbox::set_proc_file("stat", cpu_file(1100, 1000));
    interfaces["eth0"] = {1060000, 1600, 5000120000, 2300};
    lay_down_interfaces();
    host_tool("echo 'Online hosts: 6'; echo 'Max Online hosts: 10'");
    let_go(first);
    connection_tool("echo 'entries 124'");
    tick second = whole_gated_tick();
    EXPECT_EQ(second.order,
              (words{"br-lan", "eth0", "cpu.load", "mem.load", "host.num", "host.maxnum", "conn"}));
    EXPECT_EQ(second.strings, (fields{{"cpu.load", "50"},
                                      {"mem.load", "65"},
                                      {"host.num", "6"},
                                      {"host.maxnum", "10"},
                                      {"conn", "124"}}));
    open_gate();
    EXPECT_EQ(get("cpu.10m").size(), 620u);
    EXPECT_EQ(get("cpu.10m").substr(20, 2), std::string("\0\x32", 2));
    EXPECT_EQ(get("host.10m").substr(20, 8), be32(5) + be32(6));
    EXPECT_EQ(get("conn.10m").substr(20, 8), be32(123) + be32(124));
    EXPECT_EQ(get("eth0.10m").substr(20, 16), rates_of(second, "eth0"));
}

TEST_F(statistics, what_cannot_be_read_is_neither_announced_nor_kept) {
    interfaces = {{"eth0", {}}};
    lay_down_all();
    ASSERT_NO_FATAL_FAILURE(start_gated());
    tick first = gated_tick();
    remove_all();
    host_tool("");
    let_go(first);
    /* A tool that says nothing leaves the hosts as they were and the connections at none. */
    connection_tool("");
    for (int i = 0; i < 2; i++) {
        tick one = whole_gated_tick();
        EXPECT_EQ(one.order, (words{"host.num", "host.maxnum", "conn"}));
        EXPECT_EQ(one.strings, (fields{{"host.num", "5"}, {"host.maxnum", "9"}, {"conn", "0"}}));
    }
    open_gate();
    EXPECT_EQ(word_at(get("cpu.10m"), 12), 1u);
    EXPECT_EQ(word_at(get("eth0.10m"), 12), 0u);
    EXPECT_EQ(get("host.10m").substr(20, 12), be32(5) + be32(5) + be32(5));
    EXPECT_EQ(get("conn.10m").substr(20, 12), be32(123) + be32(0) + be32(0));
}

TEST_F(statistics, what_can_be_read_again_counts_for_the_whole_time_in_between) {
    interfaces = {{"eth0", {1000000, 1000, 5000000000, 2000}}};
    lay_down_all();
    ASSERT_NO_FATAL_FAILURE(start_gated());
    tick first = gated_tick();
    remove_all();
    let_go(first);
    tick second = gated_tick();
    EXPECT_EQ(second.order, (words{"host.num", "host.maxnum"}));
    interfaces["eth0"].rxb += 600000;
    lay_down_all();
    sandbox::set_proc_file("stat", cpu_file(1100, 1100));
    let_go(second);

    /* Two seconds and more. */
    tick third = whole_gated_tick();
    EXPECT_EQ(third.strings["cpu.load"], "25");
    EXPECT_LE(third.rate("eth0", "rxbrate"), 300000 / 1.9);
    EXPECT_GE(third.rate("eth0", "rxbrate"),
              static_cast<long>(300000 / seconds_between(first, third)) - 2);
    open_gate();
    EXPECT_EQ(get("cpu.10m").substr(20, 2), std::string("\0\x19", 2));
    EXPECT_EQ(get("eth0.10m").substr(20, 16), rates_of(third, "eth0"));
}

TEST_F(statistics, a_live_daemon_has_every_key) {
    sandbox::set_proc_file("net/dev",
                           NETDEV_HEADER + netdev_line("eth0", {}) + netdev_line("pppoe-wan", {}));
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

TEST_F(statistics, a_counter_that_jumps_or_goes_back_leaves_the_rates_as_they_were) {
    interfaces = {{"eth0", {500000, 100, 500000, 100}}, {"pppoe-wan", {500000, 100, 500000, 100}}};
    lay_down_all();
    ASSERT_NO_FATAL_FAILURE(start_gated());
    std::vector<tick> seen = {gated_tick()};
    const auto next = [&] {
        lay_down_interfaces();
        let_go(seen.back());
        seen.push_back(gated_tick());
    };
    interfaces["eth0"].rxb += 2000000;
    interfaces["pppoe-wan"].rxb += 2000000;
    next();
    next();
    interfaces["eth0"].rxb += 1000000000;
    interfaces["pppoe-wan"] = {70, 1, 70, 1};
    next();
    next();
    for (const char* name : {"eth0", "pppoe-wan"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(seen[0].rate(name, "rxbrate"), 0);
        EXPECT_GT(seen[1].rate(name, "rxbrate"), 100000);
        EXPECT_EQ(seen[2].rate(name, "rxbrate"), seen[1].rate(name, "rxbrate") / 2);
        EXPECT_EQ(seen[3].rate(name, "rxbrate"), seen[2].rate(name, "rxbrate"));
        EXPECT_EQ(seen[4].rate(name, "rxbrate"), seen[3].rate(name, "rxbrate") / 2);
    }
    EXPECT_EQ(seen[3].hash["eth0"]["rxb"], "1002500000");
    EXPECT_EQ(seen[3].hash["pppoe-wan"]["rxb"], "70");
}

TEST_F(statistics, a_counter_goes_on_beyond_32_bits) {
    interfaces = {{"br-lan", {4294967200, 100, 100, 100}}};
    lay_down_all();
    ASSERT_NO_FATAL_FAILURE(start_gated());
    tick one = gated_tick();
    for (int i = 0; i < 2; i++) {
        interfaces["br-lan"].rxb += 100;
        lay_down_interfaces();
        let_go(one);
        one = gated_tick();
        EXPECT_GT(one.rate("br-lan", "rxbrate"), 20) << i;
        EXPECT_LE(one.rate("br-lan", "rxbrate"), 102) << i;
    }
    EXPECT_EQ(one.hash["br-lan"]["rxb"], "4294967400");
}

TEST_F(statistics, an_interface_that_went_keeps_its_figures_and_is_announced_no_more) {
    interfaces = {{"br-lan", {}}, {"pppoe-wan", {}}};
    lay_down_all();
    ASSERT_NO_FATAL_FAILURE(start_gated());
    tick one = gated_tick();
    interfaces["pppoe-wan"].rxb = 500000;
    lay_down_interfaces();
    let_go(one);
    tick last = gated_tick();
    EXPECT_GT(last.rate("pppoe-wan", "rxbrate"), 0);
    interfaces.erase("pppoe-wan");
    lay_down_interfaces();
    let_go(last);
    tick without = gated_tick();
    EXPECT_EQ(without.hash.count("pppoe-wan"), 0u);
    EXPECT_EQ(without.hash.count("br-lan"), 1u);
    open_gate();
    EXPECT_EQ(hget("pppoe-wan", "rxb"), "500000");
    EXPECT_EQ(hget("pppoe-wan", "rxbrate"), std::to_string(last.rate("pppoe-wan", "rxbrate")));
}

TEST_F(statistics, a_string_in_the_place_of_an_interface_is_left_alone_and_has_its_histories) {
    interfaces = {{"eth0", {}}, {"p-9", {}}};
    lay_down_all();
    ASSERT_NO_FATAL_FAILURE(start_gated());
    client.emplace();
    client->send(request_frame({"set", "p-9", "mine"}));
    tick first = gated_tick();
    EXPECT_EQ(first.order,
              (words{"p-9", "eth0", "cpu.load", "mem.load", "host.num", "host.maxnum"}));
    EXPECT_EQ(first.strings["p-9"], "mine");
    let_go(first);
    tick second = whole_gated_tick();
    EXPECT_EQ(second.order[0], "eth0");
    EXPECT_EQ(second.hash.count("p-9"), 0u);
    open_gate();
    EXPECT_EQ(client->call({"type", "p-9"}), "$6\r\nstring\r\n");
    EXPECT_EQ(get("p-9.10m").size(), 20u + 600 * 16);
    EXPECT_GE(word_at(get("p-9.10m"), 12), 1u);
}

TEST_F(statistics, twelve_ticks_make_a_sample_of_two_hours_by_the_chosen_algorithm) {
    interfaces = {{"eth0", {1000000, 1000, 1000000, 1000}}};
    lay_down_all();
    ASSERT_NO_FATAL_FAILURE(start_gated());
    client.emplace();
    client->send(request_frame({"set", "history-iface-algor", "avg"}));
    std::vector<tick> seen = {gated_tick()};
    const unsigned more[12] = {600000, 0, 0, 300000, 5000, 0, 900000, 0, 0, 0, 70000, 1000};
    for (size_t i = 0; i < 12; i++) {
        interfaces["eth0"].rxb += more[i];
        interfaces["eth0"].txp += more[11 - i] / 100;
        lay_down_interfaces();
        host_tool("echo 'Online hosts: " + std::to_string(i == 3 ? 50 : i) + "'");
        sandbox::set_proc_file(
            "stat", cpu_file(1000 + 100 * (i < 3 ? i : 3), 1000 + 100 * (i < 3 ? 0 : i)));
        let_go(seen.back());
        seen.push_back(gated_tick());
    }
    open_gate();

    /* The rates of interfaces, of which the first tick has none, are averaged one by one. */
    std::string expected;
    for (const char* field : RATES) {
        uint32_t average = 0;
        for (size_t i = 1; i <= 12; i++) {
            const uint32_t one = static_cast<uint32_t>(seen[i].rate("eth0", field));
            average = average == 0 ? one : (average + one) / 2;
        }
        expected += be32(average);
    }
    const std::string ring = get("eth0.2h");
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

TEST_F(statistics, a_tool_that_hangs_holds_the_tick_five_seconds_and_is_killed_with_its_children) {
    ASSERT_NO_FATAL_FAILURE(start_running());
    host_tool("sleep 1000 & echo $! >" + work("child") +
              "; echo 'Online hosts: 6'; echo 'Max Online hosts: 10'; wait");
    for (int i = 0; i < 2; i++) {
        const tick one = tick_from_now();
        EXPECT_EQ(one.strings.at("host.num") + " of " + one.strings.at("host.maxnum") + ", " +
                      one.strings.at("conn"),
                  "5 of 9, 123");
    }
    EXPECT_EQ(log_messages(read_file("/tmp/tessard.log"), {"outside tool"}),
              words{"outside tool (hostmon --showg) has not ended after 5 seconds and is killed"})
        << "once";
    host_tool("echo 'Online hosts: 7'");
    EXPECT_EQ(tick_from_now().strings.at("host.num"), "7") << "the next one is asked all the same";
    const std::string child = read_file(work("child"));
    EXPECT_TRUE(eventually([&child] {
        /* Gone, or waiting for the machine's first process to reap it. */
        const std::string stat = read_file("/proc/" + child.substr(0, child.size() - 1) + "/stat");
        return stat.empty() || stat.find(") Z") != std::string::npos;
    }));
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

TEST_F(real_interfaces, show_the_rates_and_counters_of_their_traffic) {
    ASSERT_NO_FATAL_FAILURE(start_running());
    const struct {
        const char* interface;
        const char* field;
        double rate;
    } rates[] = {{"eth0", "rxbrate", 200000},      {"eth0", "rxprate", 200},
                 {"eth0", "txbrate", 60000},       {"eth0", "txprate", 100},
                 {"br-lan", "rxbrate", 30000},     {"br-lan", "rxprate", 100},
                 {"br-lan", "txbrate", 0},         {"br-lan", "txprate", 0},
                 {"pppoe-wan", "rxbrate", 0},      {"pppoe-wan", "rxprate", 0},
                 {"pppoe-wan", "txbrate", 420000}, {"pppoe-wan", "txprate", 300}};
    words wrong = {"no tick"};
    {
        const steady_traffic traffic(flows);
        /* Six ticks bring the smoothed rate within two percent of the true one; on a busy machine
         * the sender may stumble, which takes as long to be forgotten. */
        for (int i = 0; i < 20 && !wrong.empty(); i++) {
            const tick one = next_tick();
            wrong.clear();
            for (const auto& [interface, field, rate] : rates) {
                if (!within(static_cast<double>(one.rate(interface, field)), rate, 0.04)) {
                    wrong.push_back(std::string(interface) + " " + field + " " +
                                    std::to_string(one.rate(interface, field)));
                }
            }
        }
    }
    EXPECT_EQ(wrong, words{});

    /* When all has been sent, the counters are exact. */
    tick last = tick_from_now();
    const struct {
        const char* interface;
        const char* bytes;
        const char* packets;
        const flow& sent;
    } counters[] = {{"eth0", "rxb", "rxp", flows[0]},
                    {"eth0", "txb", "txp", flows[1]},
                    {"br-lan", "rxb", "rxp", flows[2]},
                    {"pppoe-wan", "txb", "txp", flows[3]}};
    for (const auto& [interface, bytes, packets, sent] : counters) {
        EXPECT_EQ(last.hash[interface][bytes], std::to_string(sent.sent * sent.bytes)) << interface;
        EXPECT_EQ(last.hash[interface][packets], std::to_string(sent.sent)) << interface;
    }
}

TEST_F(real_interfaces, are_announced_once_a_tick_when_their_names_are_ours) {
    ASSERT_NO_FATAL_FAILURE(start_running());
    const tick one = next_tick();
    for (const auto& [name, peer] : PAIRS) {
        EXPECT_EQ(std::count(one.order.begin(), one.order.end(), name), 1) << name;
        EXPECT_EQ(one.hash.count(peer), 0u) << peer;
    }
}

TEST_F(real_interfaces, show_in_their_flags_whether_they_and_their_other_end_are_up) {
    ASSERT_NO_FATAL_FAILURE(start_running());
    tick one = next_tick();
    for (const auto& [name, peer] : PAIRS) {
        EXPECT_EQ(one.hash[name]["flags"], "3") << name << " is up and running";
    }
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
}

TEST_F(real_interfaces, that_go_are_announced_no_more_and_keep_their_figures) {
    flows[0].send();
    ASSERT_EQ(flows[0].sent, 2u);
    ASSERT_NO_FATAL_FAILURE(start_running());
    sandbox::remove_interface("eth0");
    const tick one = tick_from_now();
    EXPECT_EQ(one.hash.count("eth0"), 0u);
    EXPECT_EQ(one.hash.count("br-lan"), 1u);
    EXPECT_EQ(hget("eth0", "rxb"), "2000");
}
