#include "stats/stat_value.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <iterator>
#include <string>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_client.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

class StatValues : public store_test {
  protected:
    static std::string_view string_of(const char* key) {
        const object* obj = object_lookup_type(key, OBJ_TSTRING);
        return obj != nullptr ? bytes_of(obj->string) : "(no string)";
    }

    static std::string_view field_of(const object* hash, const char* field) {
        const hash_field* f = object_hash_field(hash, field);
        return f != nullptr ? bytes_of(f->value) : "(no field)";
    }
};

/* Commands are started as in the daemon, which ignores SIGPIPE. */
class StatCommands : public ::testing::Test {
  protected:
    StatCommands() {
        (void)signal(SIGPIPE, SIG_IGN);
    }
    ~StatCommands() override {
        (void)signal(SIGPIPE, SIG_DFL);
    }

    static std::string output_of(const char* command) {
        char text[STAT_OUTPUT_SIZE];
        EXPECT_TRUE(stat_command_output(command, 1000, text));
        return text;
    }

    static long open_descriptors() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    }

    static bool pipe_signal_is_ignored() {
        struct sigaction now = {};
        sigaction(SIGPIPE, nullptr, &now);
        return now.sa_handler == SIG_IGN;
    }
};

} // namespace

/* --- Numbers as strings --- */

TEST_F(StatValues, ANumberIsWrittenAsDecimalTextWithoutPadding) {
    for (const auto& [value, digits] : {std::pair(0u, "0"),
                                        {7u, "7"},
                                        {100u, "100"},
                                        {2147483648u, "2147483648"},
                                        {4294967295u, "4294967295"}}) {
        stat_set_number("figure", value);
        EXPECT_EQ(string_of("figure"), digits);
    }
}

TEST_F(StatValues, AShorterNumberLeavesNothingOfALongerOne) {
    stat_set_number("figure", 4294967295u);
    stat_set_number("figure", 3);
    EXPECT_EQ(string_of("figure"), "3");
}

TEST_F(StatValues, EveryWriteIsAnnouncedAlsoOfTheSameNumber) {
    test_client observer;
    observer.call({"observe"});
    stat_set_number("figure", 42);
    EXPECT_EQ(observer.received(), event({"MSET", "figure", "42"}));
    stat_set_number("figure", 42);
    EXPECT_EQ(observer.received(), event({"MSET", "figure", "42"}));
}

TEST_F(StatValues, AStringKeyHoldingAHashOrListIsLeftAlone) {
    object_hash_set(make("h", OBJ_THASH), text("f"), text("v"));
    object_rpush(make("l", OBJ_TLIST), "item");
    test_client observer;
    observer.call({"observe"});
    stat_set_number("h", 1);
    stat_set_number("l", 1);
    EXPECT_EQ(field_of(object_lookup_type("h", OBJ_THASH), "f"), "v");
    EXPECT_EQ(object_lookup_type("l", OBJ_TLIST)->list->count, 1);
    EXPECT_EQ(observer.received(), "");
}

TEST_F(StatValues, ADeletedKeyComesBack) {
    stat_set_number("figure", 1);
    object_delete(object_lookup("figure"));
    ASSERT_EQ(object_lookup("figure"), nullptr);
    stat_set_number("figure", 2);
    EXPECT_EQ(string_of("figure"), "2");
}

/* --- Numbers as fields --- */

TEST_F(StatValues, AFieldTakesTheTwoHalvesOfA64BitNumber) {
    object* hash = make("eth0", OBJ_THASH);
    stat_hset_u64(hash, "zero", 0, 0);
    stat_hset_u64(hash, "low", 4294967295u, 0);
    stat_hset_u64(hash, "high", 0, 1);
    stat_hset_u64(hash, "mixed", 705032704, 1);
    stat_hset_u64(hash, "all", 4294967295u, 4294967295u);
    EXPECT_EQ(field_of(hash, "zero"), "0");
    EXPECT_EQ(field_of(hash, "low"), "4294967295");
    EXPECT_EQ(field_of(hash, "high"), "4294967296");
    EXPECT_EQ(field_of(hash, "mixed"), "5000000000");
    EXPECT_EQ(field_of(hash, "all"), "18446744073709551615");
}

TEST_F(StatValues, AFieldTakesA32BitNumber) {
    object* hash = make("eth0", OBJ_THASH);
    stat_hset_u32(hash, "f", 0);
    EXPECT_EQ(field_of(hash, "f"), "0");
    stat_hset_u32(hash, "f", 4294967295u);
    EXPECT_EQ(field_of(hash, "f"), "4294967295");
}

/* --- What scanf read --- */

TEST(StatReadings, SaturateAt32BitsAndStoreNegativeOnesAsUnsigned) {
    EXPECT_EQ(stat_signed_reading(0), 0u);
    EXPECT_EQ(stat_signed_reading(5), 5u);
    EXPECT_EQ(stat_signed_reading(2147483647), 2147483647u);
    EXPECT_EQ(stat_signed_reading(2147483648), 2147483647u);
    EXPECT_EQ(stat_signed_reading(INT64_MAX), 2147483647u);
    EXPECT_EQ(stat_signed_reading(-1), 4294967295u);
    EXPECT_EQ(stat_signed_reading(INT64_C(-2147483648)), 2147483648u);
    EXPECT_EQ(stat_signed_reading(INT64_C(-2147483649)), 2147483648u);
    EXPECT_EQ(stat_signed_reading(INT64_MIN), 2147483648u);
}

/* --- Outside commands --- */

TEST_F(StatCommands, TheOutputOfAPipelineIsRead) {
    EXPECT_EQ(output_of("printf 'a 1\\nb 2\\n' | head -n 1 | awk '{print $2}'"), "1\n");
}

TEST_F(StatCommands, ComplaintsGoNowhere) {
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(output_of("echo complaint >&2; echo figure"), "figure\n");
    EXPECT_EQ(output_of("tessard-no-such-tool --showg"), "");
    EXPECT_EQ(output_of("tessard-no-such-tool -S | head -n 1 | awk '{print $2}'"), "");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(StatCommands, ACommandThatWritesForEverEndsWithItsReader) {
    /* A program that looks at the failure of its writes, and one that does not (for ever is 20 seconds here).
     */
    for (const char* command :
         {"exec yes 12345",
          "end=$(($(date +%s) + 20)); while [ $(date +%s) -lt $end ]; do echo 12345; done"}) {
        const auto start = std::chrono::steady_clock::now();
        const std::string output = output_of(command);
        EXPECT_EQ(output.substr(0, 6), "12345\n");
        EXPECT_EQ(output.size(), STAT_OUTPUT_SIZE - 1);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << command;
    }
}

TEST_F(StatCommands, AProcessThatIsLeftBehindWithTheOutputOpenIsNotWaitedFor) {
    const auto start = std::chrono::steady_clock::now();
    char text[STAT_OUTPUT_SIZE];
    ASSERT_TRUE(stat_command_output("echo Online hosts: 5; echo Max Online hosts: 9; sleep 10 &", 2, text));
    EXPECT_STREQ(text, "Online hosts: 5\nMax Online hosts: 9\n");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(StatCommands, BlankLinesAreReadButNotCounted) {
    char text[STAT_OUTPUT_SIZE];
    ASSERT_TRUE(stat_command_output("echo; echo ' '; echo 7; echo 8", 1, text));
    EXPECT_STREQ(text, "\n \n7\n");
}

TEST_F(StatCommands, TheDaemonGoesOnIgnoringThePipeSignal) {
    output_of("true");
    EXPECT_TRUE(pipe_signal_is_ignored());
    stat_command_run("true");
    EXPECT_TRUE(pipe_signal_is_ignored());
}

TEST_F(StatCommands, NoDescriptorIsLeftOpenOrInherited) {
    output_of("true");
    const long before = open_descriptors();
    for (int i = 0; i < 20; i++) {
        output_of(i % 2 == 0 ? "echo 1" : "tessard-no-such-tool");
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(StatCommands, ACommandThatIsOnlyRunIsWaitedFor) {
    std::string mark = ::testing::TempDir() + "tessard-mark-XXXXXX";
    close(mkstemp(mark.data()));
    unlink(mark.c_str());
    stat_command_run(("sleep 0.2; : >" + mark).c_str());
    EXPECT_TRUE(std::filesystem::exists(mark));
    unlink(mark.c_str());
}
