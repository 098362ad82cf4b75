/* Histories in the running daemon: what a dump keeps of them, what a restart brings back, and that
 * neither files nor clients with ill intent get anywhere. */

#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <optional>

#include "tests/support/big_endian.h"
#include "tests/support/dump_record.h"
#include "tests/support/ring_model.h"
#include "tests/system/support/daemon_test.h"
#include "tests/system/support/log_text.h"

using namespace system_test;

namespace {

typedef std::vector<std::string> words;

const std::string OK = "+OK\r\n";

/* No processor load is like it. */
constexpr char MARK = 0x7B;

/* So many records in one file, each decades old, cost no more than this: padded sample by sample
 * they would be thousands of millions. */
constexpr int OLD_RECORDS = 1000;
constexpr long OLD_RECORDS_CPU_MS = 3000;

uint32_t seconds() {
    return static_cast<uint32_t>(time(nullptr));
}

const ring_model DAY = {360, 240, 0};
const ring_model WEEK = {1440, 420, 0};
const ring_model MONTH = {2880, 900, 0};

ring_model ring_of(const ring_model& span, uint32_t size) {
    return {span.period, span.slots, size};
}

void expect_said_once(const words& lines, const std::string& beginning, const std::string& ending) {
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [&](const std::string& line) {
                                return line.starts_with(beginning) && line.ends_with(ending);
                            }),
              1)
        << beginning << "..." << ending;
}

class histories : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        sandbox::set_proc_file("net/dev", "eth0: 1 2 3 4 5 6 7 8 9 10\n");
        sandbox::set_proc_file("stat", "cpu  1 1 1 1 1 1 1\n");
        sandbox::set_proc_file("meminfo", "MemTotal: 100 kB\nMemFree: 50 kB\n");
        sandbox::add_tool("hostmon", "echo 'Online hosts: 5'");
        sandbox::add_tool("conntrack", "echo 'entries 123'");
    }

    void TearDown() override {
        client.reset();
        daemon_test::TearDown();
    }

    /* Starts the daemon and waits for its first tick, with which it knows the interface. */
    void begin() {
        daemon = &start();
        client.emplace();
        ASSERT_TRUE(eventually([&] { return client->call({"exists", "conn"}) == ":1\r\n"; }));
    }

    std::string get(const std::string& key) {
        std::string reply = client->call({"get", key});
        size_t start = reply.find("\r\n") + 2;
        return reply.size() < start + 2 ? reply : reply.substr(start, reply.size() - start - 2);
    }

    std::string load(const std::string& bytes) {
        write_file("/tmp/dump", bytes);
        return client->call({"load", "/tmp/dump"});
    }

    std::string dump(const std::string& pattern) {
        EXPECT_EQ(client->call({"dump", "/tmp/dump", pattern}), ":0\r\n");
        return read_file("/tmp/dump");
    }

    /* The key holds what the ring does, stamped by the load that came after `since`. */
    void expect_ring(const std::string& key, const ring_model& expected, uint32_t since) {
        std::string value = get(key);
        EXPECT_GE(word_at(value, 0), since) << key;
        EXPECT_LE(word_at(value, 0), seconds()) << key;
        EXPECT_EQ(word_at(value, 12), expected.filled) << key << ", filled";
        EXPECT_EQ(word_at(value, 16), expected.head) << key << ", head";
        EXPECT_TRUE(value.size() >= 4 && value.substr(4) == expected.value().substr(4)) << key;
    }

    /* Loads a ring for every source and span and returns them: those not yet full, those just
     * full, and those full and turned. */
    std::map<std::string, ring_model> load_rings_of_all_kinds() {
        std::map<std::string, ring_model> rings;
        for (const auto& [base, size] :
             {std::pair("cpu", 1u), {"host", 4u}, {"conn", 4u}, {"eth0", 16u}}) {
            rings.emplace(base + std::string(".day"), ring_of(DAY, size).fill(5));
            rings.emplace(base + std::string(".week"), ring_of(WEEK, size).fill(420));
            rings.emplace(base + std::string(".mon"), ring_of(MONTH, size).fill(903));
        }
        std::string file;
        for (const auto& [key, one] : rings) {
            file += record(key, one.at(seconds()).record());
        }
        EXPECT_EQ(load(file), ":0\r\n");
        return rings;
    }

    /* Waits for so many samples of the ten-minute history. */
    void wait_for_ticks(uint32_t count) {
        uint32_t from = word_at(get("conn.10m"), 12);
        EXPECT_TRUE(eventually([&] { return word_at(get("conn.10m"), 12) >= from + count; }));
    }

    process* daemon = nullptr;
    std::optional<resp_client> client;
};

} // namespace

TEST_F(histories, are_loaded_as_a_dump_holds_them) {
    ASSERT_NO_FATAL_FAILURE(begin());
    const uint32_t since = seconds();
    const std::map<std::string, ring_model> rings = load_rings_of_all_kinds();
    for (const auto& [key, expected] : rings) {
        expect_ring(key, expected, since);
    }
}

TEST_F(histories, are_dumped_as_far_as_they_are_filled) {
    ASSERT_NO_FATAL_FAILURE(begin());
    const std::map<std::string, ring_model> rings = load_rings_of_all_kinds();
    ASSERT_EQ(client->call({"set", "nobody.day", "has no series"}), OK);
    const std::string file = dump("*");
    for (const auto& [key, expected] : rings) {
        EXPECT_NE(file.find(record(key, expected.at(word_at(get(key), 0)).record())),
                  std::string::npos)
            << key;
    }
    EXPECT_NE(file.find(be32(7) + "cpu.10m" + be32(620)), std::string::npos)
        << "a plain ring is whole";
    EXPECT_NE(file.find(be32(9) + "ping.snap" + be32(400)), std::string::npos);
    EXPECT_EQ(file.find("nobody.day"), std::string::npos) << "a history's name without a history";
}

TEST_F(histories, come_back_after_a_restart_with_the_gap_padded) {
    ASSERT_NO_FATAL_FAILURE(begin());
    std::map<std::string, ring_model> rings = load_rings_of_all_kinds();
    ASSERT_EQ(client->call({"set", "nobody.day", "has no series"}), OK);
    std::string file = dump("*");

    /* The daemon was down for 10000 seconds: 27 periods of a day's history, 6 of a week's, 3 of a
     * month's. */
    daemon->stop();
    for (const auto& [key, expected] : rings) {
        const size_t at = file.find(be32(static_cast<uint32_t>(key.size())) + key) + 8 + key.size();
        file.replace(at, 4, be32(word_at(file, at) - 10000));
    }
    unlink("/tmp/tessard.log");
    ASSERT_NO_FATAL_FAILURE(begin());
    for (const auto& [key, expected] : rings) {
        EXPECT_EQ(word_at(get(key), 12), 0u) << key << " is empty until it is loaded";
    }
    const uint32_t since = seconds();
    ASSERT_EQ(load(file), ":0\r\n");
    const words lines = log_messages(read_file("/tmp/tessard.log"), {"loading "});
    EXPECT_EQ(lines.size(), 12u);
    for (auto& [key, expected] : rings) {
        const uint32_t span = 10000 / expected.period;
        expect_said_once(lines, "loading " + key + ": (",
                         ")/(" + std::to_string(expected.period) +
                             "*1)  -> span = " + std::to_string(span));
        expect_ring(key, expected.pad(span), since);
    }
    EXPECT_EQ(client->call({"exists", "nobody.day"}), ":0\r\n");
}

TEST_F(histories, of_ten_minutes_come_back_whole_and_go_on_from_the_counts_of_the_daemon) {
    ASSERT_NO_FATAL_FAILURE(begin());
    const uint32_t before = word_at(get("cpu.10m"), 12);
    ASSERT_EQ(load(record("cpu.10m", std::string(620, MARK))), ":0\r\n");
    const uint32_t after = word_at(get("conn.10m"), 12);
    wait_for_ticks(2);
    std::string value = get("cpu.10m");
    const uint32_t head = word_at(value, 16);
    EXPECT_EQ(word_at(value, 12), head);
    EXPECT_GE(head, before + 2);
    value.erase(0, 20);
    /* How many samples there were when the file was loaded: it lies between what was seen before
     * and after. */
    const size_t at_load = value.find_first_not_of(MARK);
    EXPECT_GE(at_load, before);
    EXPECT_LE(at_load, after);
    ASSERT_LT(at_load, head);
    EXPECT_EQ(value.substr(at_load, head - at_load).find(MARK), std::string::npos);
    EXPECT_EQ(value.substr(head), std::string(600 - head, MARK));
}

TEST_F(histories, time_stamps_of_any_age_cost_no_more_than_the_ring) {
    ASSERT_NO_FATAL_FAILURE(begin());
    struct age {
        uint32_t stamp;
        int64_t seconds;
    };
    uint32_t now = seconds();
    for (const age& a :
         std::vector<age>{{0, now},
                          {1, now - 1},
                          {now - 1000000000, 1000000000},
                          {now - 5, 0},
                          {now + 1000, 0},
                          {now + 1000000000, 0},
                          /* Differences have 32 bits: this one is as old as the epoch. */
                          {0xFFFFFFFF, int64_t{now} + 1}}) {
        ring_model day = ring_of(DAY, 1).fill(7);
        ring_model week = ring_of(WEEK, 4).fill(500);
        ring_model month = ring_of(MONTH, 16).fill(0);
        uint32_t since = seconds();
        ASSERT_EQ(load(record("cpu.day", day.at(a.stamp).record()) +
                       record("host.week", week.at(a.stamp).record()) +
                       record("eth0.mon", month.at(a.stamp).record())),
                  ":0\r\n");
        for (auto& [key, expected] :
             {std::pair("cpu.day", &day), {"host.week", &week}, {"eth0.mon", &month}}) {
            /* The test's clock went on since it looked; the stamp tells when the load was. */
            int64_t gone = a.seconds == 0 ? 0 : a.seconds + (word_at(get(key), 0) - now);
            expected->pad(static_cast<uint32_t>(gone / expected->period));
            expect_ring(key, *expected, since);
        }
    }

    std::string file;
    for (int i = 0; i < OLD_RECORDS; i++) {
        file += record("cpu.day", ring_of(DAY, 1).fill(7).at(1).record());
    }
    long before = daemon->cpu_ms();
    ASSERT_EQ(load(file), ":0\r\n");
    EXPECT_LT(daemon->cpu_ms() - before, OLD_RECORDS_CPU_MS);
    EXPECT_EQ(word_at(get("cpu.day"), 12), 240u);
}

TEST_F(histories, records_that_do_not_fit_change_nothing) {
    ASSERT_NO_FATAL_FAILURE(begin());
    ring_model expected = ring_of(DAY, 4).fill(6);
    uint32_t since = seconds();
    ASSERT_EQ(load(record("host.day", expected.at(since).record())), ":0\r\n");
    const std::string before = get("host.day");
    expect_ring("host.day", expected, since);

    const std::string head = be32(since - 7200) + be32(360) + be32(240);
    for (const auto& [filled, next] : {std::pair(241u, 0u),
                                       {0u, 240u},
                                       {240u, 241u},
                                       {0xFFFFFFFFu, 0u},
                                       {1u, 0xFFFFFFFFu},
                                       {0x80000000u, 0x80000000u}}) {
        EXPECT_EQ(load(record("host.day", head + be32(filled) + be32(next))), ":0\r\n");
        EXPECT_EQ(get("host.day"), before) << filled << ", " << next;
    }
    std::string bytes;
    for (size_t length = 0; length < 20; length++) {
        bytes += record("host.day", (head + be32(1) + be32(1)).substr(0, length));
    }
    bytes += record("host.day", head + be32(1) + be32(1) + std::string(961, 'x'));
    bytes += record("host.days", head + be32(1) + be32(1) + "abcd");
    bytes +=
        record("conn.weekend", "abcd") + record("tessard.run.day", "abcd") + record(".mon", "");
    EXPECT_EQ(load(bytes), ":0\r\n");
    EXPECT_EQ(get("host.day"), before);
    EXPECT_EQ(client->call({"exists", "host.days"}), ":0\r\n");

    /* Cut anywhere, a record is taken whole or not at all. */
    std::string whole = record("host.day", ring_of(DAY, 4).fill(2).at(since).record());
    for (size_t length = 0; length < whole.size(); length++) {
        EXPECT_EQ(load(whole.substr(0, length)), ":0\r\n");
        EXPECT_EQ(get("host.day"), before) << length;
    }
    EXPECT_TRUE(daemon->running());
}

TEST_F(histories, that_clients_overwrote_are_dumped_and_loaded_no_further_than_the_value_goes) {
    ASSERT_NO_FATAL_FAILURE(begin());
    const ring_model expected = ring_of(DAY, 4).fill(6);
    ASSERT_EQ(load(record("conn.day", expected.at(seconds()).record())), ":0\r\n");
    for (const std::string& value : words{"", "x", std::string(19, 'y'), std::string(30, 'z')}) {
        EXPECT_EQ(client->call({"set", "conn.day", value}), OK);
        EXPECT_EQ(dump("conn.day"), record("conn.day", value));
    }
    EXPECT_EQ(client->call({"set", "conn.day", std::string(5000, 'w')}), OK);
    EXPECT_EQ(dump("conn.day"), record("conn.day", std::string(44, 'w')))
        << "header and six samples";
    EXPECT_EQ(client->call({"set", "conn.day", std::string(43, 'v')}), OK);
    EXPECT_EQ(load(record("conn.day", expected.at(seconds()).record())), ":0\r\n");
    EXPECT_EQ(get("conn.day"), std::string(43, 'v')) << "shorter than the record";
    EXPECT_TRUE(daemon->running());
}

TEST_F(histories, of_another_length_than_their_own_are_left_alone) {
    ASSERT_NO_FATAL_FAILURE(begin());
    EXPECT_EQ(client->call({"append", "cpu.10m", "x"}), ":621\r\n");
    EXPECT_EQ(client->call({"set", "host.10m", "short"}), OK);
    const std::string longer = get("cpu.10m");
    wait_for_ticks(2);
    EXPECT_EQ(get("cpu.10m"), longer);
    EXPECT_EQ(get("host.10m"), "short");
}

TEST_F(histories, that_clients_overwrote_with_the_right_length_are_written_on) {
    ASSERT_NO_FATAL_FAILURE(begin());
    uint32_t ticks = word_at(get("conn.10m"), 12);
    EXPECT_EQ(client->call({"set", "eth0.10m", std::string(20 + 600 * 16, 'e')}), OK);
    EXPECT_EQ(client->call({"set", "cpu.10m", std::string(620, MARK)}), OK);
    wait_for_ticks(2);
    const std::string traffic = get("eth0.10m");
    const std::string load = get("cpu.10m").substr(20);
    ticks = word_at(get("conn.10m"), 12) - ticks;

    const uint32_t head = word_at(traffic, 16);
    EXPECT_EQ(traffic.substr(4, 8), "eeeeeeee") << "period and slots are not written again";
    EXPECT_EQ(word_at(traffic, 12), head);
    ASSERT_GE(head, 2u);
    ASSERT_LT(head, 100u);
    EXPECT_EQ(traffic.substr(20 + (head - 1) * 16, 16), std::string(16, '\0')) << "no traffic";
    EXPECT_EQ(traffic.substr(20 + head * 16), std::string((600 - head) * 16, 'e'));

    const auto idle = std::count(load.begin(), load.end(), '\0');
    EXPECT_EQ(load.size(), 600u);
    EXPECT_GE(idle, 2);
    EXPECT_LE(static_cast<uint32_t>(idle), ticks + 1);
    EXPECT_EQ(std::count(load.begin(), load.end(), MARK), 600 - idle);
}

TEST_F(histories, expire_like_any_key_and_what_comes_in_their_place_is_none) {
    ASSERT_NO_FATAL_FAILURE(begin());
    EXPECT_EQ(client->call({"del", "cpu.10m"}), ":0\r\n");
    EXPECT_EQ(client->call({"expireat", "host.week", "1"}), ":1\r\n");
    EXPECT_TRUE(eventually([&] { return client->call({"exists", "host.week"}) == ":0\r\n"; }));
    wait_for_ticks(1);
    EXPECT_EQ(client->call({"exists", "host.week"}), ":0\r\n");
    EXPECT_EQ(client->call({"set", "host.week", "mine"}), OK);
    EXPECT_EQ(dump("host.week"), "");
    EXPECT_EQ(load(record("host.week", ring_of(WEEK, 4).at(0).record())), ":0\r\n");
    EXPECT_EQ(get("host.week"), "mine");
    EXPECT_TRUE(daemon->running());
}
