/* Ping statistics as the measuring client and its readers see them: reports and clearings go in as
 * strings, the summaries and histories come out as bytes. */

#include <stdint.h>
#include <time.h>

#include "tests/support/big_endian.h"
#include "tests/system/support/daemon_test.h"
#include "tests/system/support/log_text.h"

using namespace system_test;

namespace {

typedef std::vector<std::string> words;

const std::string OK = "+OK\r\n";

/* Max, min, avg, total and loss. */
std::string figures(uint32_t max, uint32_t min, uint32_t avg, uint32_t total, uint32_t loss) {
    return be32(max) + be32(min) + be32(avg) + be32(total) + be32(loss);
}

class ping_statistics : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        start({"-l", "info"});
        client = resp_client();
    }

    void report(int id, int max, int min, int avg, int total, int loss) {
        ASSERT_EQ(
            client.call({"set", "ping.data",
                         "id=" + std::to_string(id) + ",max=" + std::to_string(max) +
                             ",min=" + std::to_string(min) + ",avg=" + std::to_string(avg) +
                             ",total=" + std::to_string(total) + ",loss=" + std::to_string(loss)}),
            OK);
    }

    /* The bytes of a string key. */
    std::string get(const std::string& key) {
        std::string frame = client.call({"get", key});
        size_t start = frame.find("\r\n");
        return frame.substr(0, 1) == "$" && frame.size() >= start + 4
                   ? frame.substr(start + 2, frame.size() - start - 4)
                   : frame;
    }

    resp_client client{"/nonexistent"};
};

} // namespace

TEST_F(ping_statistics, reports_become_summaries_in_one_shared_table) {
    EXPECT_EQ(get("ping.snap"), std::string(400, '\0'));
    report(3, 40, 10, 20, 10, 0);
    report(3, 30, 5, 30, 10, 2);
    report(1, 1, 2, 3, 4, 5);
    report(20, 16909060, 1, 1, 1, 0);
    EXPECT_EQ(get("ping.snap"), figures(1, 2, 3, 4, 5) + std::string(20, '\0') +
                                    figures(40, 5, 25, 20, 2) + std::string(320, '\0') +
                                    figures(16909060, 1, 1, 1, 0));
}

TEST_F(ping_statistics, what_is_malformed_or_out_of_range_changes_nothing_and_is_answered_with_ok) {
    for (const char* value :
         {"id=0,max=4,min=1,avg=2,total=10,loss=1", "id=21,max=4,min=1,avg=2,total=10,loss=1",
          "id=3,max=4,min=1,avg=2,total=10", "", "id=-1,max=4,min=1,avg=2,total=10,loss=1"}) {
        EXPECT_EQ(client.call({"set", "ping.data", value}), OK) << value;
    }
    for (const char* id : {"0", "21", "-3", "x", ""}) {
        EXPECT_EQ(client.call({"set", "ping.del", id}), OK) << id;
    }
    EXPECT_EQ(get("ping.snap"), std::string(400, '\0'));
    EXPECT_EQ(client.call({"keys", "ping*.day"}), "*0\r\n");
    EXPECT_EQ(log_messages(read_file("/tmp/tessard.log"), {"ping"}), words{});
}

TEST_F(ping_statistics, a_target_has_three_rings_that_count_its_reports) {
    long before = time(nullptr);
    for (int i = 1; i <= 21; i++) {
        report(7, i, i, i, 10, i % 2);
    }
    long after = time(nullptr);
    std::string day = get("ping7.day");
    ASSERT_EQ(day.size(), 20u + 288 * 20);
    EXPECT_GE(word_at(day, 0), static_cast<uint32_t>(before));
    EXPECT_LE(word_at(day, 0), static_cast<uint32_t>(after));
    EXPECT_EQ(day.substr(4, 16), be32(3) + be32(288) + be32(7) + be32(7));
    EXPECT_EQ(day.substr(20, 20), figures(3, 3, 3, 30, 2));
    EXPECT_EQ(day.substr(40, 20), figures(6, 6, 6, 30, 1));
    EXPECT_EQ(day.substr(20 + 7 * 20), std::string(281 * 20, '\0'));
    std::string week = get("ping7.week");
    ASSERT_EQ(week.size(), 20u + 288 * 20);
    EXPECT_EQ(week.substr(4, 36),
              be32(21) + be32(288) + be32(1) + be32(1) + figures(21, 21, 21, 210, 11));
    EXPECT_EQ(get("ping7.mon"), be32(0) + be32(90) + be32(288) + std::string(8 + 288 * 20, '\0'));
    EXPECT_EQ(client.call({"del", "ping7.day", "ping7.week", "ping7.mon", "ping.snap"}), ":0\r\n");
}

TEST_F(ping_statistics, clearing_a_target_is_traced_and_starts_it_afresh) {
    report(3, 40, 10, 20, 10, 2);
    report(4, 41, 11, 21, 11, 3);
    EXPECT_EQ(client.call({"set", "ping.del", "3"}), OK);
    EXPECT_EQ(get("ping.snap").substr(40, 40), std::string(20, '\0') + figures(41, 11, 21, 11, 3));
    EXPECT_EQ(client.call({"set", "ping.del", "5"}), OK);
    EXPECT_EQ(log_messages(read_file("/tmp/tessard.log"), {"pingxx"}),
              (words{"pingxx-before-release:id=3", "pingxx-inside-release:id=3",
                     "pingxx-inside-release:state is not NULL",
                     "pingxx-inside-release:obj ping.snap is not NULL",
                     "pingxx-before-release:id=5", "pingxx-inside-release:id=5"}));
    report(3, 9, 0, 6, 10, 1);
    EXPECT_EQ(get("ping.snap").substr(40, 20), figures(9, 0, 6, 10, 1));
}

TEST_F(ping_statistics, a_dump_leaves_a_series_out_when_the_next_target_exists) {
    for (int id : {3, 4, 20}) {
        for (int i = 0; i < 3; i++) {
            report(id, 4, 1, 2, 10, 0);
        }
    }
    ASSERT_EQ(client.call({"dump", "/tmp/pings", "ping*.day"}), ":0\r\n");
    std::string dump = read_file("/tmp/pings");
    EXPECT_EQ(dump.find("ping3.day"), std::string::npos);
    /* Two records of one sample each. */
    EXPECT_EQ(dump.size(), (4u + 9 + 4 + 40) + (4 + 10 + 4 + 40));
    EXPECT_NE(dump.find(be32(9) + "ping4.day" + be32(40)), std::string::npos);
    EXPECT_NE(dump.find(be32(10) + "ping20.day" + be32(40)), std::string::npos);

    ASSERT_EQ(client.call({"set", "ping.del", "4"}), OK);
    ASSERT_EQ(client.call({"load", "/tmp/pings"}), ":0\r\n");
    std::string day = get("ping4.day");
    EXPECT_EQ(day.substr(12, 8), be32(0) + be32(0)) << "a history with a sample is not restored";
}

TEST_F(ping_statistics, all_twenty_targets_report_at_once) {
    std::string expected;
    for (int round = 1; round <= 3; round++) {
        for (int id = 1; id <= 20; id++) {
            report(id, id * round, 100 - id, id, 10, 0);
        }
    }
    for (uint32_t id = 1; id <= 20; id++) {
        expected += figures(id * 3, 100 - id, id, 30, 0);
    }
    EXPECT_EQ(get("ping.snap"), expected);
    EXPECT_EQ(client.call({"keys", "ping2*.mon"}).substr(0, 4), "*2\r\n");
}

TEST_F(ping_statistics, an_observer_sees_the_reports_and_not_the_table) {
    resp_client observer;
    ASSERT_EQ(observer.call({"observe"}), OK);
    report(3, 40, 10, 20, 10, 0);
    ASSERT_EQ(client.call({"set", "ping.del", "3"}), OK);
    std::string seen;
    while (seen.find("ping.del") == std::string::npos && seen.find('<') == std::string::npos) {
        seen += observer.frame();
    }
    EXPECT_NE(seen.find("!3\r\n$4\r\nMSET\r\n$9\r\nping.data\r\n$41\r\nid=3,max=40,min=10,avg=20,"
                        "total=10,loss=0\r\n"),
              std::string::npos)
        << seen;
    EXPECT_EQ(seen.find("ping.snap"), std::string::npos);
    EXPECT_EQ(seen.find("ping3."), std::string::npos);
}
