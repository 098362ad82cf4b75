/* Hostile clients. Whatever they send, however much and however fast: the daemon goes on, gives
 * them a whole frame or closes them, keeps its memory and its descriptors, and serves the next
 * client promptly. */

#include <stdint.h>
#include <string.h>
#include <sys/resource.h>

#include <algorithm>

#include "tests/system/model/written_frames.h"
#include "tests/system/support/daemon_test.h"
#include "tests/system/support/log_text.h"

using namespace system_test;

namespace {

typedef std::vector<std::string> words;

const std::string OK = "+OK\r\n";
const std::string ERROR = "-ERR\r\n";
const std::string PING = "*1\r\n$4\r\nPING\r\n";

bool emulated() {
    return !sandbox::emulator().empty();
}

/* How long a client that did nothing wrong may wait for its reply, in ms. A working daemon needs
 * less than one; the rest is for machines that are busy with other things. */
long prompt_ms() {
    return emulated() ? 10000 : SANITIZED ? 3000 : 1000;
}

/* Fewer rounds where each costs a multiple. */
int rounds(int native) {
    return emulated() || SANITIZED ? native / 10 : native;
}

std::string repeated(const std::string& text, size_t times) {
    std::string all;
    all.reserve(text.size() * times);
    for (size_t i = 0; i < times; i++) {
        all += text;
    }
    return all;
}

std::string nul(const char* before, const char* behind) {
    return std::string(before) + '\0' + behind;
}

/* Numbers at and beyond every limit, and what is none. */
const words NUMBERS = {"0",
                       "-0",
                       "1",
                       "-1",
                       "2",
                       "-3",
                       "65535",
                       "65536",
                       "65537",
                       "-65536",
                       "2147483646",
                       "2147483647",
                       "2147483648",
                       "-2147483647",
                       "-2147483648",
                       "-2147483649",
                       "4294967295",
                       "4294967296",
                       "-4294967295",
                       "9223372036854775806",
                       "9223372036854775807",
                       "9223372036854775808",
                       "-9223372036854775807",
                       "-9223372036854775808",
                       "-9223372036854775809",
                       "99999999999999999999999999",
                       "0x7fffffff",
                       "0x80000000",
                       "0xffffffffffffffff",
                       "-0x8000000000000000",
                       "",
                       "-",
                       "nan",
                       "inf",
                       "1e999",
                       "%s%n",
                       nul("1", "2")};

/* Every request that reads a number, with what shows or changes what it made of it. */
std::vector<words> requests_with(const std::string& n) {
    return {{"expire", "n1", n},
            {"expireat", "n2", n},
            {"setex", "n3", n, "v"},
            {"ttl", "n1"},
            {"ttl", "n2"},
            {"ttl", "n3"},
            {"incrby", "n4", n},
            {"decrby", "n4", n},
            {"set", "n5", n},
            {"incrby", "n5", n},
            {"set", "n5", n},
            {"decrby", "n5", n},
            {"hset", "h", "f", n},
            {"hincrby", "h", "f", n},
            {"hincrby", "h", "g", n},
            {"lindex", "l", n},
            {"lrange", "l", n, "2"},
            {"lrange", "l", n, n},
            {"lrange", "l", "0", n},
            {"lrange", "l", "-1", n},
            {"lmaxlen", "l", n},
            {"rpush", "l", "a", "b", "c"},
            {"lpush", "l", n},
            {"llen", "l"},
            {"persist", "n1"}};
}

bool is_reply(const std::string& bytes) {
    return bytes.find_first_of(":$-+*") == 0 && bytes.ends_with("\r\n");
}

/* What the bytes of a request are for. */
enum class part { lead, digit, header_cr, header_lf, name, argument, cr, lf };

struct labelled_frame {
    std::string bytes;
    std::vector<part> parts;

    void add(const std::string& text, part kind) {
        bytes += text;
        parts.insert(parts.end(), text.size(), kind);
    }
    void add_header(char lead, size_t number) {
        add(std::string(1, lead), part::lead);
        add(std::to_string(number), part::digit);
        add("\r", part::header_cr);
        add("\n", part::header_lf);
    }
};

labelled_frame labelled(const words& request) {
    labelled_frame frame;
    frame.add_header('*', request.size());
    for (size_t i = 0; i < request.size(); i++) {
        frame.add_header('$', request[i].size());
        frame.add(request[i], i == 0 ? part::name : part::argument);
        frame.add("\r", part::cr);
        frame.add("\n", part::lf);
    }
    return frame;
}

/* Patterns that are long, dear or not well formed. */
words hostile_patterns() {
    return {
        repeated("*a", 10) + "b",
        repeated("*a", 30) + "b",
        repeated("*a", 1000) + "b",
        repeated("a*", 1000) + "b",
        repeated("*?", 1000) + "b",
        repeated("*[a]", 1000) + "b",
        repeated("*[!b]", 1000) + "b",
        repeated("*", 20000) + "b",
        repeated("?", 20000) + "*b",
        "*" + repeated("a", 1000) + "b",
        repeated("*(", 500) + "a" + repeated(")", 500),
        repeated("+(a|", 500),
        "*[" + repeated("b", 5000) + "]",
        "*[" + repeated("b", 30000) + "]",
        "*" + repeated("a", 15000) + "b",
        "*" + repeated("a", 15000) + "b*",
        "*" + repeated("?", 15000) + "b*",
        "*" + repeated("[ab]", 7000) + "b*",
        "*[" + repeated("b-c", 2000) + "]",
        "*[" + repeated("[:digit:]", 500) + "]",
        "[[:" + repeated("b", 20000) + ":]]",
        "[[." + repeated("b", 20000) + ".]]",
        "[[=" + repeated("b", 20000) + "=]]",
        "[[.",
        "[[:",
        "[[=",
        "[[.]",
        "[[:]",
        "[[=]",
        "[[:]]",
        "[a-",
        "[a-]b",
        "[]",
        "[!]",
        "[!",
        "[^",
        "[]-a]b",
        "[\\",
        "\\",
        "*\\",
        "[--z]b",
        "[z-a]",
        repeated("\\", 20000),
        repeated("[!", 5000),
        repeated("[a-", 5000),
        repeated("[", 30000),
        repeated("[[.", 9000) + ".]",
        repeated("[.", 7000) + ".]-[." + repeated("x", 14000) + ".]",
        repeated("[[:", 10000),
        repeated("*" + repeated("?", 65), 400) + "*b*",
        repeated("[[=a", 7000),
        repeated("[\\]", 10000),
        std::string("*\0*b", 4),
        repeated("\xff", 5000) + "*",
        "*" + repeated("\xf0\x9f", 1000),
        "[\xff-\x01]b",
    };
}

class bad_input : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        daemon = &start();
        resp_client client;
        /* What the daemon makes with the first request and keeps. */
        EXPECT_EQ(client.call({"set", "warm", "up"}), OK);
        EXPECT_EQ(client.call({"del", "warm"}), ":1\r\n");
        first_descriptors = settled_descriptors(client);
        first_peak = daemon->status_kb("VmPeak");
        first_resident = daemon->status_kb("VmRSS");
    }

    /* How many are open apart from that of this client. The collectors open files for moments;
     * whoever came before is gone when the client has been answered twice. */
    size_t settled_descriptors(resp_client& client) const {
        EXPECT_EQ(client.call({"ping"}), OK);
        size_t fewest = SIZE_MAX;
        for (int i = 0; i < 5; i++) {
            EXPECT_EQ(client.call({"ping"}), OK);
            fewest = std::min(fewest, daemon->descriptors() - 1);
        }
        return fewest;
    }

    /* A client that did nothing wrong is served at once; the descriptors of clients that are gone
     * were given back; memory has not grown by more than these kilobytes, neither now nor at any
     * time before. */
    void expect_unharmed(size_t clients_open = 0, long kept_kb = 4096, long peak_kb = 65536) {
        ASSERT_TRUE(daemon->running()) << "the daemon ended: " << daemon->err();
        long asked = now_ms();
        resp_client client;
        EXPECT_EQ(client.call({"ping"}), OK);
        EXPECT_LE(now_ms() - asked, prompt_ms()) << "the daemon was busy";
        client.close();
        if (emulated()) {
            return;
        }
        const size_t expected = first_descriptors + clients_open;
        EXPECT_TRUE(eventually([&] { return daemon->descriptors() == expected; }))
            << daemon->descriptors() << " descriptors are open instead of " << expected;
        if (SANITIZED) {
            return;
        }
        EXPECT_LE(daemon->status_kb("VmRSS") - first_resident, kept_kb);
        EXPECT_LE(daemon->status_kb("VmPeak") - first_peak, peak_kb);
    }

    /* All that comes back for the bytes when nothing follows them: "" when they close the
     * connection. */
    static std::string outcome(const std::string& bytes) {
        resp_client client;
        EXPECT_TRUE(client.send(bytes));
        client.end_sending();
        return client.until_closed();
    }

    static void expect_outcome(const std::string& bytes, const std::string& expected) {
        EXPECT_EQ(outcome(bytes), expected) << ::testing::PrintToString(bytes.substr(0, 200));
    }

    std::string deliver_call(resp_client& client, const words& request) {
        return deliver(*daemon, client, request_frame(request)) ? client.frame() : "<not sent>";
    }

    /* A client whose requests of this size are one delivery each. */
    static resp_client client_for(int size, bool* possible) {
        resp_client client;
        *possible = client.hold_unread(size);
        return client;
    }

    process* daemon = nullptr;
    size_t first_descriptors = 0;
    long first_peak = 0;
    long first_resident = 0;
};

#define SKIP_WITHOUT(possible)                                                                     \
    do {                                                                                           \
        if (!(possible))                                                                           \
            GTEST_SKIP() << "the kernel holds too few bytes for an ordinary user";                 \
    } while (0)

} // namespace

TEST_F(bad_input, as_a_count_that_begins_with_the_right_number_is_passed_over) {
    const words right = {"1",
                         "01",
                         "+1",
                         " 1",
                         "\t1",
                         "\v\f1",
                         "\r1",
                         "1\r",
                         "1x",
                         "1 ",
                         "1.9",
                         "1e9",
                         "1-2",
                         "1,000",
                         "1$",
                         "-4294967295",
                         repeated("0", 30000) + "1",
                         repeated(" ", 30000) + "1",
                         "1" + repeated("x", 30000),
                         nul("1", ""),
                         nul("1", "2")};
    for (const std::string& text : right) {
        expect_outcome("*" + text + "\r\n$4\r\nPING\r\n", OK);
    }
    expect_unharmed();
}

TEST_F(bad_input, as_a_count_that_begins_otherwise_is_refused) {
    const words wrong = {"",
                         "0",
                         "-0",
                         "2",
                         "5",
                         "-1",
                         "-2",
                         "x",
                         "x1",
                         "-",
                         "+",
                         "+-1",
                         "- 1",
                         "*1",
                         "$1",
                         ".1",
                         "0x1",
                         "1000000000",
                         "2147483647",
                         "2147483648",
                         "-2147483648",
                         "4294967294",
                         "4294967295",
                         "4294967296",
                         "4294967297",
                         "-4294967296",
                         "-4294967297",
                         "18446744073709551615",
                         "18446744073709551616",
                         "18446744073709551617",
                         "-18446744073709551615",
                         "-18446744073709551616",
                         "99999999999999999999",
                         "-99999999999999999999",
                         repeated("1", 30000),
                         "-" + repeated("9", 30000),
                         repeated(" ", 30000),
                         nul("", "1"),
                         nul("", "")};
    for (const std::string& text : wrong) {
        expect_outcome("*" + text + "\r\n$4\r\nPING\r\n", "");
    }
    expect_unharmed();
}

TEST_F(bad_input, as_a_length_that_begins_with_the_right_number_is_passed_over) {
    const words right = {"4",          "04", "+4",          " 4",
                         "\t4",        "4x", "4 ",          "4.9",
                         "4e9",        "4-", "-4294967292", repeated("0", 30000) + "4",
                         nul("4", "4")};
    for (const std::string& text : right) {
        expect_outcome("*1\r\n$" + text + "\r\nPING\r\n", OK);
    }
    expect_unharmed();
}

TEST_F(bad_input, as_a_length_that_begins_otherwise_is_refused) {
    const words wrong = {"",
                         "0",
                         "-0",
                         "3",
                         "5",
                         "6",
                         "7",
                         "8",
                         "-1",
                         "-4",
                         "x",
                         "-",
                         "+",
                         "- 4",
                         "$4",
                         "0x4",
                         "2147483647",
                         "2147483648",
                         "4294967290",
                         "4294967291",
                         "4294967292",
                         "4294967293",
                         "4294967294",
                         "4294967295",
                         "4294967296",
                         "4294967300",
                         "-4294967291",
                         "-4294967293",
                         "18446744073709551612",
                         "18446744073709551615",
                         "18446744073709551620",
                         "-18446744073709551612",
                         "99999999999999999999",
                         "-99999999999999999999",
                         repeated("4", 30000),
                         repeated(" ", 30000),
                         nul("", "4"),
                         nul("", "")};
    for (const std::string& text : wrong) {
        expect_outcome("*1\r\n$" + text + "\r\nPING\r\n", "");
        /* Likewise behind elements that are in order, and when the count allows for more. */
        expect_outcome("*2\r\n$4\r\nPING\r\n$" + text + "\r\nPING\r\n", "");
        expect_outcome("*3\r\n$3\r\nset\r\n$1\r\nk\r\n$" + text + "\r\nPING\r\n", "");
    }
    resp_client client;
    EXPECT_EQ(client.call({"exists", "k"}), ":0\r\n");
    client.close();
    expect_unharmed();
}

TEST_F(bad_input, of_great_counts_and_lengths_costs_no_memory) {
    /* The counts go up to what the bytes could just hold, and beyond. */
    for (const char* count : {"1000", "5998", "5999", "6000", "6001", "6002", "10000", "30000",
                              "100000000", "1073741824", "2147483647", "4294967295"}) {
        expect_outcome("*" + std::string(count) + "\r\n" + repeated("$0\r\n", 7500), "");
        expect_outcome("*" + std::string(count) + "\r\n" + repeated("\n", 30000), "");
        expect_outcome("*" + std::string(count) + "\r\n" + repeated("$", 30000), "");
        expect_outcome("*" + std::string(count) + "\r\n$30000\r\n" + repeated("x", 29000), "");
    }
    expect_unharmed(0, 1024, 2048);
}

TEST_F(bad_input, of_thousands_of_empty_elements_is_one_request) {
    const size_t count = 5000;
    const std::string header = "*" + std::to_string(count) + "\r\n$4\r\nPING\r\n";
    expect_outcome(header + repeated("$0\r\n\r\n", count - 1), OK);
    /* Header lines may end in a line feed alone. */
    expect_outcome(header + repeated("$0\n\r\n", count - 1), OK);
    expect_outcome(header + repeated("$0\r\n\r\n", count - 2), "");
    expect_outcome(header + repeated("$0\r\n\r\n", count - 2) + "$0\r\n\r", "");
    expect_outcome(header + repeated("$0\r\n\r\n", count), OK);
    /* Without a name there is no such command. */
    expect_outcome("*5000\r\n" + repeated("$0\r\n\r\n", 5000), ERROR);
    expect_unharmed();
}

TEST_F(bad_input, with_a_nul_in_any_place_is_refused_or_does_what_its_bytes_say) {
    const labelled_frame frame = labelled({"set", "key", "a value"});
    for (size_t i = 0; i < frame.bytes.size(); i++) {
        std::string bytes = frame.bytes;
        bytes[i] = '\0';
        switch (frame.parts[i]) {
        case part::name: /* the name ends there, and no command is called that */
            expect_outcome(bytes, ERROR);
            break;
        case part::argument:
        case part::header_cr: /* a number ends at what is no digit, and lines at the line feed */
            expect_outcome(bytes, OK);
            break;
        default:
            expect_outcome(bytes, "");
            break;
        }
    }
    for (size_t length : {1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 511u, 512u, 513u, 4096u, 30000u}) {
        const std::string nuls(length, '\0');
        expect_outcome(nuls, "");
        expect_outcome(nuls + PING, "");
        expect_outcome(PING + nuls, OK);
        expect_outcome("*" + nuls, "");
        expect_outcome("*1\r\n" + nuls, "");
        expect_outcome("*1\r\n$" + nuls, "");
        expect_outcome("*1\r\n$4\r\n" + nuls, "");
        expect_outcome("*1\r\n" + bulk(nuls), ERROR);
        expect_outcome("*2\r\n$4\r\nPING\r\n" + bulk(nuls), OK);
        expect_outcome("*2\r\n$6\r\nEXISTS\r\n" + bulk("x" + nuls), ":0\r\n");
        expect_outcome("*3\r\n$6\r\nINCRBY\r\n$3\r\nkey\r\n" + bulk(nuls), ERROR);
    }
    expect_unharmed();
}

TEST_F(bad_input, with_any_byte_in_any_place_harms_nobody) {
    const std::string whole = request_frame({"set", "k", "v"});
    for (size_t i = 0; i < whole.size(); i++) {
        for (int byte = 0; byte < 256; byte += emulated() ? 5 : 1) {
            std::string bytes = whole;
            bytes[i] = static_cast<char>(byte);
            std::string reply = outcome(bytes);
            /* With another first letter the command may be "get". */
            bool is_value =
                reply.size() == 7 && reply.starts_with("$1\r\n") && reply.ends_with("\r\n");
            EXPECT_TRUE(reply == "" || reply == OK || reply == ERROR || is_value)
                << ::testing::PrintToString(bytes) << " is answered " << reply;
        }
    }
    expect_unharmed();
}

TEST_F(bad_input, cut_short_at_any_byte_is_refused) {
    const std::string whole =
        request_frame({"mset", "a", "1", "bb", "", "", "22", "$1\r\n", "*1\r\n$4\r\nPING\r\n",
                       std::string("\0\r\n\0", 4), repeated("x", 120)});
    for (size_t length = 1; length < whole.size(); length++) {
        expect_outcome(whole.substr(0, length), "");
    }
    resp_client client;
    EXPECT_EQ(client.call({"mget", "a", "bb", "", "$1\r\n"}), "*4\r\n" + repeated("$-1\r\n", 4));
    client.close();
    expect_outcome(whole, OK);
    expect_unharmed();
}

TEST_F(bad_input, with_a_byte_too_many_in_any_place_harms_nobody) {
    const labelled_frame frame = labelled({"set", "key", "value"});
    for (size_t i = 0; i <= frame.bytes.size(); i++) {
        for (const char* more : {"x", "\r", "\n", "\r\n", "0", "1", "9", "-", "$", "*"}) {
            std::string bytes = frame.bytes;
            bytes.insert(i, more);
            std::string reply = outcome(bytes);
            EXPECT_TRUE(reply == "" || reply == OK || reply == ERROR)
                << ::testing::PrintToString(bytes) << " is answered " << reply;
            /* An element that is longer than its length is refused; behind the last one nothing is
             * looked at.
             */
            if (i < frame.bytes.size() && frame.parts[i] == part::cr && strcmp(more, "\r\n") != 0) {
                EXPECT_EQ(reply, "") << ::testing::PrintToString(bytes);
            }
        }
    }
    expect_unharmed();
}

TEST_F(bad_input, in_tiny_deliveries_without_end_leaves_no_trace) {
    resp_client client;
    const struct {
        words request;
        const char* reply;
    } whole[] = {
        {{"ping"}, "+OK\r\n"},
        {{"set", "k", "v"}, "+OK\r\n"},
        {{"get", "k"}, "$1\r\nv\r\n"},
        {{"mget", "k", "none"}, "*2\r\n$1\r\nv\r\n$-1\r\n"},
        {{"rpush", "l", "item"}, ":1\r\n"},
        {{"lpop", "l"}, "$4\r\nitem\r\n"},
        {{"hset", "h", "f"}, "-ERR\r\n"},
        {{"nothing", "a", "b"}, "-ERR\r\n"},
    };
    const words broken = {"*", "\n", "*3\r\n$3\r\nset\r\n$1\r\nk\r\n",
                          "*2\r\n$4\r\nping\r\n$9\r\nx\r\n"};
    auto some = [&](int count) {
        for (int i = 0; i < count; i++) {
            const auto& one = whole[static_cast<size_t>(i) % std::size(whole)];
            ASSERT_EQ(client.call(one.request), one.reply);
            if (i % 50 == 0) {
                resp_client other;
                ASSERT_TRUE(other.send(broken[static_cast<size_t>(i / 50) % broken.size()]));
                ASSERT_EQ(other.until_closed(), "");
            }
        }
    };
    /* The daemon's own figures take their memory with the first tick. */
    ASSERT_TRUE(eventually([&] { return client.call({"exists", "conn"}) == ":1\r\n"; }));
    some(2000);
    long before = daemon->status_kb("VmRSS");
    /* A million of them where the machine is quick enough for that. */
    const long start = now_ms();
    for (int done = 0; done < 1000000 && now_ms() - start < 2000 && !HasFatalFailure();
         done += 500) {
        some(500);
    }
    if (!emulated() && !SANITIZED) {
        EXPECT_LE(daemon->status_kb("VmRSS") - before, 512);
    }
    client.close();
    expect_unharmed();
}

TEST_F(bad_input, sent_without_waiting_for_replies_is_answered_in_whole_frames) {
    resp_client client;
    int sent = 0;
    const long start = now_ms();
    while (sent < 50000 && now_ms() - start < 1000 && client.send(PING)) {
        sent++;
    }
    client.end_sending();
    std::string got = client.until_closed();
    EXPECT_EQ(got.size() % OK.size(), 0u);
    const size_t answered = got.size() / OK.size();
    EXPECT_TRUE(got == repeated(OK, answered));
    EXPECT_GE(answered, 1u);
    EXPECT_LE(answered, static_cast<size_t>(sent));
    expect_unharmed();
}

TEST_F(bad_input, from_a_client_that_never_stops_does_not_hold_up_others) {
    resp_client flood;
    const std::string burst = repeated("x", 40000);
    for (int i = 0; i < rounds(300); i++) {
        flood.send_in_pieces(burst);
        if (flood.hung_up()) {
            flood = resp_client();
        }
        if (i % 20 == 0) {
            resp_client other;
            long asked = now_ms();
            EXPECT_EQ(other.call({"ping"}), OK);
            EXPECT_LE(now_ms() - asked, prompt_ms());
        }
    }
    flood.close();
    expect_unharmed();
}

TEST_F(bad_input, from_clients_that_come_and_go_in_bulk_leaves_no_trace) {
    const int count = rounds(5000);
    for (int i = 0; i < count; i++) {
        resp_client silent;
    }
    expect_unharmed();
    for (int i = 0; i < count; i++) {
        resp_client().send(i % 3 == 0 ? PING : i % 3 == 1 ? "*" : "*1\r\n$4294967294\r\n");
    }
    expect_unharmed();
    /* They leave before their reply, which is too long to be taken at once. */
    resp_client owner;
    EXPECT_EQ(deliver_call(owner, {"set", "big", repeated("v", 150000)}), OK);
    for (int i = 0; i < rounds(500); i++) {
        resp_client().send(request_frame({"get", "big"}));
    }
    owner.close();
    expect_unharmed();
}

TEST_F(bad_input, from_observers_that_come_and_go_in_bulk_leaves_no_trace) {
    resp_client writer;
    for (int i = 0; i < rounds(1000); i++) {
        resp_client observer;
        if (i % 2 == 0) {
            ASSERT_EQ(observer.call({"observe"}), OK);
        } else {
            observer.send(request_frame({"observe"}));
        }
        if (i % 3 == 0) {
            observer.close();
        }
        ASSERT_EQ(writer.call({"set", "k", "v"}), OK);
    }
    writer.close();
    expect_unharmed();
}

TEST_F(bad_input, from_more_clients_than_descriptors_does_not_lock_out_the_first) {
    std::vector<resp_client> clients(300);
    for (resp_client& one : clients) {
        one.send(PING);
    }
    size_t served = 0;
    for (resp_client& one : clients) {
        std::string reply = one.frame();
        served += reply == OK ? 1 : 0;
        ASSERT_TRUE(reply == OK || reply == "<closed>") << reply;
    }
    EXPECT_GE(served, 50u);
    EXPECT_LE(served, 95u);
    for (int round = 0; round < 3; round++) {
        EXPECT_EQ(clients[0].call({"ping"}), OK);
    }
    clients.clear();
    EXPECT_TRUE(eventually([] { return resp_client().call({"ping"}) == OK; }));
    expect_unharmed();
}

TEST_F(bad_input, from_clients_that_never_read_costs_no_more_than_their_pending_bytes) {
    resp_client other;
    EXPECT_EQ(deliver_call(other, {"set", "big", repeated("v", 100000)}), OK);
    std::vector<resp_client> deaf(20);
    size_t closed = 0;
    for (int round = 0; round < 40 && closed < deaf.size(); round++) {
        for (resp_client& one : deaf) {
            if (!one.hung_up()) {
                one.send(request_frame({"get", "big"}));
            }
        }
        long asked = now_ms();
        EXPECT_EQ(other.call({"ping"}), OK);
        EXPECT_EQ(other.call({"ping"}), OK);
        EXPECT_LE(now_ms() - asked, prompt_ms());
        closed = 0;
        for (resp_client& one : deaf) {
            closed += one.hung_up() ? 1 : 0;
        }
    }
    EXPECT_EQ(closed, deaf.size());
    /* What they did get before the end is what was to come. */
    const std::string expected = repeated(bulk(repeated("v", 100000)), 20);
    for (resp_client& one : deaf) {
        std::string got = one.until_closed();
        EXPECT_TRUE(expected.compare(0, got.size(), got) == 0);
        EXPECT_LT(got.size(), 20u * 100010);
    }
    deaf.clear();
    other.close();
    expect_unharmed(0, 4096, 20 * 2048 + 8192);
}

TEST_F(bad_input, of_great_keys_and_values_is_stored_and_read_back) {
    bool possible;
    resp_client client = client_for(1048576, &possible);
    SKIP_WITHOUT(possible);
    const std::string key = "K" + repeated("k", 200000);
    const std::string value = repeated("v", 300000) + "V";
    EXPECT_EQ(deliver_call(client, {"set", key, value}), OK);
    EXPECT_TRUE(deliver_call(client, {"get", key}) == bulk(value));
    EXPECT_EQ(deliver_call(client, {"strlen", key}), ":300001\r\n");
    EXPECT_EQ(deliver_call(client, {"type", key}), bulk("string"));
    EXPECT_EQ(deliver_call(client, {"exists", key + "k"}), ":0\r\n");
    EXPECT_EQ(deliver_call(client, {"expire", key, "1000"}), ":1\r\n");
    EXPECT_TRUE(client.call({"keys", "K*"}) == "*1\r\n" + bulk(key));
    EXPECT_TRUE(deliver_call(client, {"keys", key}) == "*1\r\n" + bulk(key));
    EXPECT_TRUE(deliver_call(client, {"getset", key, key}) == bulk(value));
    EXPECT_TRUE(deliver_call(client, {"get", key}) == bulk(key));

    EXPECT_EQ(deliver_call(client, {"hset", "h", key, value}), ":1\r\n");
    EXPECT_TRUE(client.call({"hgetall", "h"}) == "*2\r\n" + bulk(key) + bulk(value));
    EXPECT_EQ(deliver_call(client, {"hdel", "h", key}), ":1\r\n");
    EXPECT_EQ(deliver_call(client, {"rpush", "l", value, key}), ":2\r\n");
    EXPECT_TRUE(client.call({"lrange", "l", "0", "1"}) == "*2\r\n" + bulk(value) + bulk(key));
    EXPECT_TRUE(client.call({"rpop", "l"}) == bulk(key));
    EXPECT_EQ(deliver_call(client, {"hello", value}), OK);
    EXPECT_EQ(deliver_call(client, {key, value}), ERROR);
    EXPECT_EQ(deliver_call(client, {"del", key, key, "h", "l"}), ":3\r\n");
    client.close();
    expect_unharmed(0, 8192);
}

TEST_F(bad_input, of_great_size_does_not_stay_in_the_buffers_of_its_connection) {
    std::vector<resp_client> clients(20);
    words request = {"ping", repeated("x", 150000)};
    for (resp_client& one : clients) {
        ASSERT_EQ(deliver_call(one, request), OK);
    }
    EXPECT_EQ(deliver_call(clients[0], {"set", "big", repeated("v", 150000)}), OK);
    for (resp_client& one : clients) {
        ASSERT_EQ(one.call({"get", "big"}).size(), 150011u);
    }
    expect_unharmed(20, 1536);
    clients.clear();
    expect_unharmed(0, 1536);
}

TEST_F(bad_input, of_numbers_of_any_length_is_answered) {
    bool possible;
    resp_client client = client_for(1048576, &possible);
    SKIP_WITHOUT(possible);
    const std::string ones = repeated("1", 300000);
    EXPECT_EQ(deliver_call(client, {"incrby", "n1", ones}), ":9223372036854775807\r\n");
    EXPECT_EQ(deliver_call(client, {"incrby", "n2", "-" + ones}), ":-9223372036854775808\r\n");
    EXPECT_EQ(deliver_call(client, {"decrby", "n3", "-" + ones}), ":-9223372036854775808\r\n");
    EXPECT_EQ(deliver_call(client, {"incrby", "n4", repeated(" ", 300000) + "5"}), ":5\r\n");
    EXPECT_EQ(deliver_call(client, {"incrby", "n5", repeated("0", 300000) + "17"}), ":15\r\n");
    EXPECT_EQ(deliver_call(client, {"set", "n6", ones}), OK);
    EXPECT_EQ(client.call({"incr", "n6"}), ":0\r\n");
    EXPECT_EQ(deliver_call(client, {"setex", "n7", ones, "v"}), OK);
    EXPECT_EQ(deliver_call(client, {"expire", "n7", "-" + ones}), ":1\r\n");
    client.close();
    expect_unharmed();
}

TEST_F(bad_input, of_numbers_of_any_kind_is_answered) {
    resp_client client;
    EXPECT_EQ(client.call({"rpush", "l", "a", "b", "c"}), ":3\r\n");
    for (const std::string& n : NUMBERS) {
        SCOPED_TRACE(n);
        for (const words& request : requests_with(n)) {
            EXPECT_TRUE(is_reply(client.call(request))) << request[0];
        }
    }
    client.close();
    expect_unharmed();
}

TEST_F(bad_input, of_keys_with_one_hash_is_served) {
    /* "Aa" and "BB" have the same hash, and so have all words of eleven of them: 2048 keys of one
     * bucket. */
    words collide;
    for (int i = 0; i < 2048; i++) {
        std::string key;
        for (int bit = 0; bit < 11; bit++) {
            key += (i >> bit & 1) != 0 ? "Aa" : "BB";
        }
        collide.push_back(key);
    }
    resp_client client;
    for (size_t start = 0; start < collide.size(); start += 256) {
        words set = {"mset"};
        for (size_t i = start; i < start + 256; i++) {
            set.insert(set.end(), {collide[i], std::to_string(i)});
        }
        EXPECT_EQ(client.call(set), OK);
    }
    words get = {"mget"};
    std::string expected = "*1024\r\n";
    for (size_t i = 0; i < collide.size(); i += 2) {
        get.push_back(collide[i]);
        expected += bulk(std::to_string(i));
    }
    long asked = now_ms();
    EXPECT_TRUE(client.call(get) == expected);
    EXPECT_LE(now_ms() - asked, prompt_ms());
    for (size_t i = 0; i < collide.size(); i += 97) {
        EXPECT_EQ(client.call({"del", collide[i]}), ":1\r\n");
    }
    EXPECT_EQ(client.call({"get", collide[97]}), "$-1\r\n");
    EXPECT_EQ(client.call({"get", collide[98]}), bulk("98"));
    /* The fields of a hash are found in the same way. */
    for (size_t start = 0; start < 1024; start += 512) {
        words hmset = {"hmset", "h"};
        for (size_t i = start; i < start + 512; i++) {
            hmset.insert(hmset.end(), {collide[i], "v"});
        }
        EXPECT_EQ(client.call(hmset), OK);
    }
    EXPECT_EQ(client.call({"hlen", "h"}), ":1024\r\n");
    client.close();
    expect_unharmed();
}

TEST_F(bad_input, as_a_pattern_does_not_hold_up_others) {
    resp_client client;
    EXPECT_EQ(client.call({"set", repeated("a", 2000), "v"}), OK);
    EXPECT_EQ(client.call({"set", repeated("a", 30000), "v"}), OK);
    EXPECT_EQ(client.call({"set", "[", "v"}), OK);
    EXPECT_EQ(client.call({"set", repeated("[", 500), "v"}), OK);
    for (const std::string& pattern : hostile_patterns()) {
        SCOPED_TRACE(pattern.substr(0, 40));
        long asked = now_ms();
        std::string reply = client.call({"keys", pattern});
        EXPECT_LE(now_ms() - asked, prompt_ms());
        EXPECT_TRUE(reply[0] == '*' || reply == ERROR) << reply;
        /* "dump" comes to the same conclusion. */
        EXPECT_EQ(client.call({"dump", "dumped", pattern}), reply == ERROR ? ERROR : ":0\r\n");
    }
    client.close();
    expect_unharmed();
}

TEST_F(bad_input, as_a_pattern_that_takes_too_long_is_an_error_and_changes_nothing) {
    bool possible;
    resp_client client = client_for(1048576, &possible);
    SKIP_WITHOUT(possible);
    EXPECT_EQ(deliver_call(client, {"set", repeated("a", 1000000), "v"}), OK);
    EXPECT_EQ(client.call({"set", "k", "v"}), OK);
    write_file("/tmp/older", "older");
    for (const std::string& pattern :
         words{"*" + repeated("?", 500000) + "b*", "*" + repeated("a", 63) + "b*",
               "*[" + repeated("b", 500000) + "]*", "*" + repeated("[ab]", 100000) + "c*"}) {
        SCOPED_TRACE(pattern.substr(0, 40));
        long asked = now_ms();
        EXPECT_EQ(deliver_call(client, {"keys", pattern}), ERROR);
        EXPECT_EQ(deliver_call(client, {"dump", "/tmp/newer", pattern}), ERROR);
        EXPECT_EQ(deliver_call(client, {"dump", "/tmp/older", pattern}), ERROR);
        EXPECT_LE(now_ms() - asked, 3 * prompt_ms());
        EXPECT_FALSE(file_exists("/tmp/newer"));
        EXPECT_EQ(read_file("/tmp/older"), "older");
        const std::string line =
            "pattern (" + pattern.substr(0, 64) + ") is given up: too many steps";
        EXPECT_EQ(log_messages(read_file("/tmp/tessard.log"), {line}), words(3, line));
    }
    EXPECT_EQ(client.call({"keys", "k"}), "*1\r\n" + bulk("k"));
    EXPECT_EQ(client.call({"dump", "/tmp/newer", "k"}), ":0\r\n");
    client.close();
    expect_unharmed(0, 8192);
}

TEST_F(bad_input, that_asks_for_more_than_can_be_sent_gets_a_whole_frame_or_a_closed_connection) {
    resp_client owner;
    words request(1001, "big");
    request[0] = "mget";
    /* A mebibyte may pend, and the kernel holds some more; then there is no room for what is left
     * of a frame.
     */
    for (size_t size : {100u, 1000u, 3000u, 4000u, 4185u, 4186u, 5000u, 100000u}) {
        SCOPED_TRACE(size);
        const std::string value = repeated("v", size);
        EXPECT_EQ(deliver_call(owner, {"set", "big", value}), OK);
        const std::string whole = "*1000\r\n" + repeated(bulk(value), 1000);
        resp_client client;
        EXPECT_TRUE(client.send(request_frame(request)));
        if (size <= 1000) {
            EXPECT_TRUE(client.frame() == whole);
            EXPECT_EQ(client.call({"ping"}), OK);
        } else {
            /* A client that reads at once may make room for more. */
            for (int i = 0; i < 3; i++) {
                EXPECT_EQ(owner.call({"ping"}), OK);
            }
            EXPECT_TRUE(client.hung_up());
            std::string got = client.until_closed();
            EXPECT_LT(got.size(), whole.size());
            EXPECT_TRUE(whole.compare(0, got.size(), got) == 0);
        }
    }
    owner.close();
    expect_unharmed();
}

TEST_F(bad_input, that_makes_a_value_grow_costs_the_value_alone) {
    resp_client client;
    resp_client observer;
    EXPECT_EQ(observer.call({"observe"}), OK);
    const std::string piece = repeated("v", 100000);
    const int pieces = 60;
    for (int i = 1; i <= pieces; i++) {
        ASSERT_EQ(deliver_call(client, {"append", "big", piece}),
                  ":" + std::to_string(i * 100000) + "\r\n");
    }
    EXPECT_EQ(client.call({"strlen", "big"}), ":6000000\r\n");
    EXPECT_EQ(client.call({"incr", "big"}), ERROR);
    EXPECT_EQ(client.call({"append", "big", "x"}), ":6000001\r\n");

    /* Nobody can be sent that much. */
    resp_client reader;
    EXPECT_TRUE(reader.send(request_frame({"get", "big"})));
    EXPECT_EQ(reader.until_closed(), "");
    resp_client swapper;
    EXPECT_TRUE(swapper.send(request_frame({"getset", "big", "small"})));
    EXPECT_EQ(swapper.until_closed(), "");
    EXPECT_EQ(client.call({"get", "big"}), bulk("small"));

    observer.close();
    reader.close();
    swapper.close();
    client.close();
    /* Growing needs the old value and the new at once, and the frames of four mebibytes at most. */
    expect_unharmed();
}

TEST_F(bad_input, of_any_size_is_traced_without_harm) {
    daemon->stop();
    daemon = &start({"-l", "debug"});
    resp_client client;
    const std::string piece = repeated("v", 100000);
    for (int i = 1; i <= 45; i++) {
        ASSERT_EQ(deliver_call(client, {"append", "big", piece}),
                  ":" + std::to_string(i * 100000) + "\r\n");
    }
    EXPECT_EQ(client.call({"hello", repeated("%s%n", 5000)}), OK);
    EXPECT_EQ(client.call({repeated("%n", 5000), "%s"}), ERROR);
    EXPECT_EQ(client.call({"keys", repeated("%n", 5000)}), "*0\r\n");
    EXPECT_EQ(client.call({"rpush", repeated("%n", 5000), "%s", "%n"}), ":2\r\n");
    EXPECT_EQ(client.call({"rpop", repeated("%n", 5000)}), bulk("%n"));
    resp_client reader;
    EXPECT_TRUE(reader.send(request_frame({"get", "big"})));
    EXPECT_EQ(reader.until_closed(), "");
    for (int i = 0; i < rounds(300); i++) {
        resp_client().send(i % 2 == 0 ? PING : std::string("\0*1", 3));
    }
    EXPECT_EQ(client.call({"strlen", "big"}), ":4500000\r\n");
    EXPECT_TRUE(daemon->running());
}

TEST_F(bad_input, cannot_exhaust_descriptors_for_good) {
    daemon->stop();
    process_options few;
    few.before_exec = [] {
        const rlimit limit = {40, 40};
        setrlimit(RLIMIT_NOFILE, &limit);
    };
    SKIP_UNDER_EMULATOR("the emulator needs descriptors of its own");
    daemon = &start({}, "/tmp/tessard.sock", 0, few);
    {
        resp_client client;
        first_descriptors = settled_descriptors(client);
    }
    std::vector<resp_client> clients(60);
    size_t served = 0;
    while (served < clients.size() &&
           clients[served].call({"ping"}, served < 20 ? LIMIT_MS : 200) == OK) {
        served++;
    }
    EXPECT_GE(served, 25u);
    EXPECT_LE(served, 40u);
    for (size_t i = 0; i < served; i++) {
        EXPECT_EQ(clients[i].call({"ping"}), OK);
    }
    /* Those that waited at the door come in as others go. */
    clients.erase(clients.begin(), clients.begin() + static_cast<long>(served));
    for (size_t i = 1; i < clients.size(); i++) {
        EXPECT_EQ(clients[i].call({"ping"}), OK) << i;
    }
    clients.clear();
    EXPECT_TRUE(eventually([&] { return daemon->descriptors() == first_descriptors; }));
    EXPECT_TRUE(daemon->running());
}
