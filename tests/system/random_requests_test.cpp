/* Random requests with a fixed seed: valid ones, and valid ones that were damaged. Whatever
 * arrives, what comes back are whole frames, the daemon lives on and serves others, and under the
 * sanitizers it finds nothing to report. */

#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <deque>
#include <map>
#include <optional>
#include <random>

#include "tests/support/commands.h"
#include "tests/system/support/daemon_test.h"

using namespace system_test;

namespace {

typedef std::vector<std::string> words;

const std::string OK = "+OK\r\n";

/* How many requests of each kind are sent; fewer where each takes many times as long. */
constexpr int DAMAGED = 60000;
constexpr int DAMAGED_EMULATED = 2400;
constexpr int TRACED = 8000;
constexpr int TRACED_EMULATED = 400;
constexpr int VALID = 20000;
constexpr int VALID_EMULATED = 1200;

int rounds(int native, int emulated) {
    return sandbox::emulator().empty() ? native : emulated;
}

/* The same sequence on every machine, which the distributions of the library do not promise. */
class dice {
  public:
    explicit dice(uint32_t seed) : engine(seed) {}

    size_t below(size_t limit) {
        return engine() % limit;
    }
    bool one_in(size_t count) {
        return below(count) == 0;
    }
    template <typename Item, size_t count> const Item& of(const Item (&items)[count]) {
        return items[below(count)];
    }

  private:
    std::mt19937 engine;
};

/* Keys that many requests meet on, those of the daemon among them. */
const char* const KEYS[] = {
    "k0",
    "k1",
    "k2",
    "k3",
    "k4",
    "k5",
    "k6",
    "k7",
    "_private",
    "",
    "conn",
    "cpu.load",
    "cpu.10m",
    "host.day",
    "sys",
    "sys.lan",
    "ping.snap",
    "ping1.day",
    "tessard.run",
    "ping.data",
    "ping.del",
    "eth0",
    "fhour.interval",
    "history-iface-algor",
};

const char* const FIELDS[] = {"f0", "f1", "f2", "f3", "", "pid", "rxb", "logfile", "proto"};

const char* const NUMBERS[] = {
    "0",
    "1",
    "-1",
    "2",
    "3",
    "10",
    "0x10",
    "010",
    "100",
    "65535",
    "65536",
    "65537",
    "2147483647",
    "2147483648",
    "-2147483648",
    "4294967295",
    "4294967296",
    "-4294967295",
    "9223372036854775807",
    "-9223372036854775808",
    "99999999999999999999",
    "-99999999999999999999",
    "",
    "abc",
    "5x",
    " 7",
    "-",
    "+3",
};

const char* const PATTERNS[] = {"*", "k*",     "k?", "[k]*", "*.day", "?",
                                "",  "k[0-3]", "[",  "\\",   "k[",    "*a*b*c*d*"};

const char* const REPORTS[] = {
    "id=1,max=40,min=10,avg=20,total=10,loss=0",
    "id=20,max=1,min=1,avg=1,total=1,loss=1",
    "id=21,max=1,min=1,avg=1,total=1,loss=1",
    "id=0,max=1,min=1,avg=1,total=1,loss=1",
    "id=3,max=4294967295,min=-1,avg=9999999999,total=2147483648,loss=0",
    "id=3,max=1",
    "max",
    "avg",
    "mean",
    "20",
};

const char* const FILES[] = {"dump0", "dump1", "none"};

std::string random_bytes(dice& d, size_t length) {
    std::string bytes;
    for (size_t i = 0; i < length; i++) {
        bytes += static_cast<char>(d.below(256));
    }
    return bytes;
}

std::string random_value(dice& d) {
    switch (d.below(10)) {
    case 0:
        return "";
    case 1:
        return random_bytes(d, d.below(12));
    case 2:
        return std::string(d.below(300), 'x');
    case 3:
        return random_bytes(d, d.below(3000));
    case 4:
    case 5:
        return d.of(REPORTS);
    case 6:
        return "value" + std::to_string(d.below(100));
    default:
        return d.of(NUMBERS);
    }
}

std::string random_argument(dice& d, char kind) {
    switch (kind) {
    case 'k':
        return d.one_in(3) ? d.of(KEYS) : KEYS[d.below(8)];
    case 'f':
        return d.of(FIELDS);
    case 'n':
        return d.one_in(3) ? std::to_string(d.below(20)) : d.of(NUMBERS);
    case 'p':
        return d.of(PATTERNS);
    case 'd':
        return d.of(FILES);
    default:
        return random_value(d);
    }
}

/* A command with arguments that it accepts. */
words random_command(dice& d) {
    const described_command& chosen = d.of(COMMAND_LIST);
    const std::string takes = chosen.takes;
    const size_t kinds = std::min(takes.find('+'), takes.size());
    const size_t again = takes.size() - kinds;
    words command = {chosen.name};
    for (size_t i = 0; i < kinds; i++) {
        command.push_back(random_argument(d, takes[i]));
    }
    for (size_t more = again > 0 ? d.below(5) : 0; more > 0; more--) {
        for (size_t i = kinds - again; i < kinds; i++) {
            command.push_back(random_argument(d, takes[i]));
        }
    }
    return command;
}

/* A request whose path leads out of the daemon's current folder could write anywhere. */
void make_harmless(std::string& bytes) {
    std::replace(bytes.begin(), bytes.end(), '/', '.');
}

void replace_a_number(dice& d, std::string& bytes) {
    const size_t from = bytes.find_first_of("0123456789", d.below(bytes.size() + 1));
    if (from == std::string::npos) {
        return;
    }
    const size_t to = std::min(bytes.find_first_not_of("0123456789", from), bytes.size());
    bytes.replace(from, to - from, d.of(NUMBERS));
}

void damage_once(dice& d, std::string& bytes) {
    if (bytes.empty()) {
        bytes = "*";
    }
    const size_t at = d.below(bytes.size());
    const size_t length = d.below(std::min<size_t>(bytes.size() - at, 40)) + 1;
    static const std::string marks[] = {"\r\n", "\r", "\n",  std::string(1, '\0'), "$", "*", "-",
                                        " ",    "0",  "\xff"};
    switch (d.below(11)) {
    case 0:
        bytes[at] = static_cast<char>(bytes[at] ^ (1 << d.below(8)));
        break;
    case 1:
        bytes[at] = static_cast<char>(d.below(256));
        break;
    case 2:
        bytes.erase(at, length);
        break;
    case 3:
        bytes.insert(at, bytes.substr(at, length));
        break;
    case 4:
        bytes.resize(at);
        break;
    case 5: {
        const std::string other = request_frame(random_command(d));
        bytes = bytes.substr(0, at) + other.substr(d.below(other.size()));
        break;
    }
    case 6:
        bytes += request_frame(random_command(d));
        break;
    case 7:
        bytes.insert(at, d.of(marks));
        break;
    case 8:
        bytes.insert(at, random_bytes(d, length));
        break;
    default:
        replace_a_number(d, bytes);
        break;
    }
}

std::string damaged_request(dice& d) {
    words command = random_command(d);
    /* Half of the damage is done before the framing, so that it reaches the commands. */
    if (d.one_in(2)) {
        for (size_t count = d.below(3) + 1; count > 0; count--) {
            switch (d.below(4)) {
            case 0:
                command.push_back(random_value(d));
                break;
            case 1:
                command.resize(d.below(command.size()) + 1);
                break;
            default:
                damage_once(d, command[d.below(command.size())]);
                break;
            }
        }
        return request_frame(command);
    }
    std::string bytes = request_frame(command);
    for (size_t count = d.below(3) + 1; count > 0; count--) {
        damage_once(d, bytes);
    }
    return bytes;
}

/* Takes frames apart as strictly as they are defined. */
class frame_reader {
  public:
    /* The number of bytes of the whole frame at the start: 0 when more have to come; -1 when it is
     * no frame that the daemon can send, and `problem` then tells why. */
    long whole(const std::string& bytes) {
        if (bytes.empty()) {
            return 0;
        }
        switch (bytes[0]) {
        case '+':
            return literal(bytes, OK);
        case '-':
            return literal(bytes, "-ERR\r\n");
        case ':':
            return integer(bytes);
        case '$':
            return bulk(bytes, 0, nullptr);
        case '*':
        case '!':
            return array(bytes);
        default:
            return wrong("no frame begins like that");
        }
    }

    std::string problem;

  private:
    long wrong(const char* why) {
        problem = why;
        return -1;
    }

    long literal(const std::string& bytes, const std::string& text) {
        if (bytes.compare(0, text.size(), text, 0, std::min(text.size(), bytes.size())) != 0) {
            return wrong("another text than the one there is");
        }
        return bytes.size() >= text.size() ? static_cast<long>(text.size()) : 0;
    }

    /* Reads "12\r\n" as it must be written, without needless characters. Returns the bytes up to
     * the end of the line, as whole() does. */
    long number(const std::string& bytes, size_t start, bool may_be_negative, long long* value) {
        const size_t end = bytes.find('\r', start);
        const std::string text = bytes.substr(start, end == std::string::npos ? end : end - start);
        if (text.size() > 20) {
            return wrong("a number that is too long");
        }
        if (end == std::string::npos || end + 1 >= bytes.size()) {
            return 0;
        }
        *value = strtoll(text.c_str(), nullptr, 10);
        if (std::to_string(*value) != text || (*value < 0 && !may_be_negative)) {
            return wrong("no number, or one that is not written as numbers are");
        }
        if (bytes[end + 1] != '\n') {
            return wrong("a line end without line feed");
        }
        return static_cast<long>(end + 2 - start);
    }

    long integer(const std::string& bytes) {
        long long value;
        const long length = number(bytes, 1, true, &value);
        return length > 0 ? length + 1 : length;
    }

    long bulk(const std::string& bytes, size_t start, std::string* content) {
        if (start >= bytes.size()) {
            return 0;
        }
        if (bytes[start] != '$') {
            return wrong("an element that is no bulk");
        }
        if (bytes.compare(start, 5, "$-1\r\n") == 0) {
            return 5;
        }
        if (bytes.compare(start, 2, "$-") == 0 && bytes.size() - start < 5) {
            return 0;
        }
        long long value;
        const long header = number(bytes, start + 1, false, &value);
        if (header <= 0) {
            return header;
        }
        const size_t at = start + 1 + static_cast<size_t>(header);
        const size_t length = static_cast<size_t>(value);
        if (bytes.size() < at + length + 2) {
            return 0;
        }
        if (bytes.compare(at + length, 2, "\r\n") != 0) {
            return wrong("a bulk that is longer or shorter than it says");
        }
        if (content != nullptr) {
            *content = bytes.substr(at, length);
        }
        return static_cast<long>(at + length + 2 - start);
    }

    long array(const std::string& bytes) {
        long long count;
        const long header = number(bytes, 1, false, &count);
        if (header <= 0) {
            return header;
        }
        std::string event;
        size_t at = 1 + static_cast<size_t>(header);
        for (long long i = 0; i < count; i++) {
            const long length = bulk(bytes, at, i == 0 ? &event : nullptr);
            if (length <= 0) {
                return length;
            }
            at += static_cast<size_t>(length);
        }
        if (bytes[0] == '!' && !(event == "MSET" && count == 3) &&
            !(event == "HMSET" && count >= 4 && count % 2 == 0) &&
            !(event == "HDEL" && count >= 3)) {
            return wrong("an event that does not exist");
        }
        return static_cast<long>(at);
    }
};

/* A client that checks all that comes back. */
class checking_client {
  public:
    void send(const std::string& bytes) {
        if (!connection.has_value() || closed) {
            connection.emplace();
            closed = false;
            EXPECT_EQ(unread, "");
        }
        last = bytes;
        replies = 0;
        closed = !connection->send(bytes);
    }

    /* Reads what is there, and the rest of a frame that has begun. What is left over when the
     * connection was closed need not be whole. */
    void read_all() {
        const long start = now_ms();
        for (;;) {
            std::string piece = connection->during(unread.empty() ? 0 : 20);
            if (piece.ends_with("<closed>")) {
                piece.resize(piece.size() - 8);
                closed = true;
            }
            unread += piece;
            take_frames();
            if (closed) {
                unread.clear();
                return;
            }
            if (piece.empty() && unread.empty()) {
                return;
            }
            if (now_ms() - start > LIMIT_MS) {
                complain("a frame that is never completed");
                return;
            }
        }
    }

    /* Of the last request. */
    int replies = 0;
    std::string last_reply;
    bool closed = false;

  private:
    void take_frames() {
        frame_reader reader;
        size_t done = 0;
        while (done < unread.size()) {
            const std::string rest = unread.substr(done);
            const long length = reader.whole(rest);
            if (length < 0) {
                complain(reader.problem);
                closed = true;
                return;
            }
            if (length == 0) {
                break;
            }
            if (rest[0] != '!') {
                replies++;
                last_reply = rest.substr(0, static_cast<size_t>(length));
            }
            done += static_cast<size_t>(length);
        }
        unread.erase(0, done);
        if (replies > 1) {
            complain("more than one reply");
        }
    }

    void complain(const std::string& what) {
        ADD_FAILURE() << what << "\nleft over: " << ::testing::PrintToString(unread.substr(0, 300))
                      << "\nthe request was: " << ::testing::PrintToString(last.substr(0, 600));
        unread.clear();
    }

    std::optional<resp_client> connection;
    std::string unread;
    std::string last;
};

class random_requests : public daemon_test {
  protected:
    void launch_daemon(const words& arguments = {}) {
        daemon = &start(arguments);
        other.emplace();
    }

    /* Another client is served. When that has happened three times, everything that was sent before
     * has been carried out: the first pass over all clients may do no more than let a new one in,
     * and a pass may come to this client before it comes to others. */
    bool others_are_served() {
        for (int i = 0; i < 3; i++) {
            if (other->call({"ping"}) != OK) {
                return false;
            }
        }
        return true;
    }

    /* True when all is well after a request. */
    bool check(checking_client& client, const std::string& request, int round) {
        const bool served = others_are_served();
        if (!served || !daemon->running()) {
            const int status = daemon->wait_exit(2000);
            ADD_FAILURE() << "the daemon "
                          << (status == STILL_RUNNING ? "does not answer" : "ended") << " ("
                          << status << ") after request " << round << ": "
                          << ::testing::PrintToString(request) << "\n"
                          << daemon->err();
            return false;
        }
        client.read_all();
        return !HasFailure();
    }

    void send_damaged(uint32_t seed, int count) {
        dice d(seed);
        std::vector<checking_client> clients(4);
        for (int round = 0; round < count; round++) {
            std::string request = damaged_request(d);
            make_harmless(request);
            checking_client& client = clients[d.below(clients.size())];
            client.send(request);
            if (!check(client, request, round)) {
                return;
            }
        }
        EXPECT_TRUE(others_are_served());
        EXPECT_TRUE(daemon->running());
        EXPECT_EQ(daemon->err(), "");
    }

    process* daemon = nullptr;
    std::optional<resp_client> other;
};

} // namespace

TEST_F(random_requests, that_are_damaged_harm_nobody) {
    launch_daemon();
    send_damaged(20240229, rounds(DAMAGED, DAMAGED_EMULATED));
}

TEST_F(random_requests, that_are_damaged_harm_nobody_while_they_are_traced) {
    launch_daemon({"-l", "debug"});
    send_damaged(7, rounds(TRACED, TRACED_EMULATED));
}

TEST_F(random_requests, that_are_valid_are_answered_by_one_frame_and_close_nothing) {
    launch_daemon();
    dice d(19991231);
    std::vector<checking_client> clients(3);
    for (int round = 0; round < rounds(VALID, VALID_EMULATED); round++) {
        const words command = random_command(d);
        std::string request = request_frame(command);
        make_harmless(request);
        checking_client& client = clients[d.below(clients.size())];
        client.send(request);
        if (!check(client, request, round)) {
            return;
        }
        ASSERT_FALSE(client.closed) << ::testing::PrintToString(request);
        /* While anyone observes, a push to what is no list is answered with silence. */
        const bool may_be_silent = command[0] == "lpush" || command[0] == "rpush";
        EXPECT_TRUE(client.replies == 1 || (client.replies == 0 && may_be_silent))
            << ::testing::PrintToString(request);
    }
    EXPECT_EQ(daemon->err(), "");
}
