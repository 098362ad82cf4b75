/* The command-line client: what it prints for people and for scripts, its exit statuses, its
 * options, and how it takes a daemon that is gone, silent or strange. */

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <regex>

#include "tests/system/support/daemon_test.h"

using namespace system_test;

namespace {

/* The exit statuses, as scripts test for them. */
enum { DONE = 0, NIL = 1, ERROR = 2, NO_REPLY = 3, USAGE = 64, OUTPUT = 74 };

class client_test : public daemon_test {
  protected:
    struct result {
        int status;
        std::string out;
        std::string err;
    };

    void SetUp() override {
        daemon_test::SetUp();
        if (!IsSkipped() && !HasFatalFailure()) {
            ASSERT_TRUE(file_exists(sandbox::tessctl_path())) << "no client at " << TESSCTL_PROGRAM;
        }
    }

    static result run(const std::vector<std::string>& arguments,
                      const process_options& options = {}) {
        process client(tessctl_command(arguments), options);
        int status = client.wait_exit();
        return {status, client.out(), client.err()};
    }

    /* Ends with the status, says exactly this on standard output and nothing on standard error. */
    static void expect_prints(const std::vector<std::string>& arguments, const std::string& out,
                              int status = DONE) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        result r = run(arguments);
        EXPECT_EQ(r.status, status);
        EXPECT_EQ(r.out, out);
        EXPECT_EQ(r.err, "");
    }

    /* Ends with the status, says nothing on standard output and something with this text on
     * standard error.
     */
    static void expect_complains(const std::vector<std::string>& arguments, int status,
                                 const std::string& text) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        result r = run(arguments);
        EXPECT_EQ(r.status, status);
        EXPECT_EQ(r.out, "");
        EXPECT_NE(r.err.find(text), std::string::npos) << r.err;
    }

    /* Connects standard output to the file or device, opened for writing. */
    static process_options output_to(const std::string& path) {
        process_options options;
        options.before_exec = [path] {
            dup2(open(path.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC), 1);
        };
        return options;
    }
};

class tessctl : public client_test {};
class tessctl_on_a_terminal : public client_test {};
class tessctl_options : public client_test {};
class tessctl_observe : public client_test {};

TEST_F(tessctl, prints_each_kind_of_reply) {
    start();
    expect_prints({"ping"}, "OK\n");
    expect_prints({"set", "k", "some value"}, "OK\n");
    expect_prints({"get", "k"}, "some value\n");
    expect_prints({"strlen", "k"}, "10\n");
    expect_prints({"rpush", "l", "a", "b", "c"}, "3\n");
    expect_prints({"lrange", "l", "0", "2"}, "a\nb\nc\n");
    expect_prints({"mget", "k", "missing", "k"}, "some value\n(nil)\nsome value\n");
    expect_prints({"keys", "no-such-*"}, "");
}

TEST_F(tessctl, sends_bytes_as_they_are) {
    start();
    expect_prints({"set", "k", " two\r\nlines \xff*"}, "OK\n");
    expect_prints({"get", "k"}, " two\r\nlines \xff*\n");
    expect_prints({"set", "", "empty key"}, "OK\n");
    expect_prints({"get", ""}, "empty key\n");
    expect_prints({"set", "k", ""}, "OK\n");
    expect_prints({"get", "k"}, "\n");
}

TEST_F(tessctl, says_nothing_but_the_status_for_nil) {
    start();
    expect_prints({"get", "missing"}, "", NIL);
    expect_prints({"hget", "missing", "field"}, "", NIL);
}

TEST_F(tessctl, prints_an_error_on_standard_error) {
    start();
    result r = run({"no-such-command"});
    EXPECT_EQ(r.status, ERROR);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "ERR\n");
    EXPECT_EQ(run({"get"}).status, ERROR);
}

TEST_F(tessctl, prints_the_items_of_a_hash_one_a_line_for_scripts) {
    start();
    expect_prints({"hmset", "h", "field", "value"}, "OK\n");
    expect_prints({"hgetall", "h"}, "field\nvalue\n");
    expect_prints({"hkeys", "h"}, "field\n");
    expect_prints({"hmget", "h", "nothing", "field"}, "(nil)\nvalue\n");
    expect_prints({"hgetall", "missing"}, "");
}

TEST_F(tessctl, prints_the_frame_alone_when_raw) {
    start();
    expect_prints({"--raw", "set", "k", "v"}, "+OK\r\n");
    expect_prints({"--raw", "get", "k"}, "$1\r\nv\r\n");
    expect_prints({"--raw", "mget", "k", "x"}, "*2\r\n$1\r\nv\r\n$-1\r\n");
    expect_prints({"--raw", "incr", "n"}, ":1\r\n");
    expect_prints({"--raw", "get", "x"}, "$-1\r\n", NIL);
    expect_prints({"--raw", "no-such-command"}, "-ERR\r\n", ERROR);
}

TEST_F(tessctl, leaves_the_commands_arguments_alone) {
    start();
    expect_prints({"set", "k", "-1"}, "OK\n");
    expect_prints({"set", "-h", "--raw"}, "OK\n");
    expect_prints({"get", "-h"}, "--raw\n");
    expect_prints({"--", "get", "k"}, "-1\n");
    expect_prints({"incrby", "k", "-4"}, "-5\n");
    expect_prints({"set", "--", "x"}, "OK\n");
    expect_prints({"get", "--"}, "x\n");
}

TEST_F(tessctl, reads_large_values_whole) {
    start();
    std::string value;
    for (int i = 0; value.size() < 400000; i++) {
        value += std::to_string(i) + ",";
    }
    resp_client client;
    for (size_t at = 0; at < value.size(); at += 20000) {
        client.call({"append", "k", value.substr(at, 20000)});
    }
    result r = run({"get", "k"});
    EXPECT_EQ(r.status, DONE);
    EXPECT_TRUE(r.out == value + "\n") << r.out.size();
}

TEST_F(tessctl, sends_many_arguments_in_one_request) {
    start();
    std::vector<std::string> words = {"rpush", "l"};
    for (int i = 0; i < 1000; i++) {
        words.push_back("item" + std::to_string(i));
    }
    expect_prints(words, "1000\n");
    expect_prints({"lindex", "l", "-1"}, "item999\n");
}

TEST_F(tessctl, sends_32_kB_without_a_word) {
    start();
    /* 30 bytes of the request are not the value's. */
    expect_prints({"set", "k", std::string(32738, 'v')}, "OK\n");
    expect_prints({"strlen", "k"}, "32738\n");
}

TEST_F(tessctl, reaches_a_daemon_on_another_path) {
    start({"-a", "/tmp/other.sock"}, "/tmp/other.sock");
    expect_prints({"-a", "/tmp/other.sock", "ping"}, "OK\n");
    expect_prints({"-a", "../../tmp/other.sock", "-p", "7000", "ping"}, "OK\n");
}

TEST_F(tessctl, reaches_a_daemon_over_ipv4) {
    start({"-a", "127.0.0.1", "-p", "7000"}, "127.0.0.1", 7000);
    expect_prints({"-a", "127.0.0.1", "-p", "7000", "ping"}, "OK\n");
    expect_prints({"-alocalhost", "-p7000", "ping"}, "OK\n");
    expect_complains({"-a", "127.0.0.1", "-p", "7001", "ping"}, NO_REPLY, "127.0.0.1 port 7001");
}

TEST_F(tessctl, reaches_a_daemon_over_ipv6) {
    start({"-a", "::1", "-p", "7000"}, "::1", 7000);
    expect_prints({"-a", "::1", "-p", "7000", "ping"}, "OK\n");
}

TEST_F(tessctl, meets_the_daemon_where_it_cuts_a_long_path) {
    std::string path = "/tmp/" + std::string(150, 'x');
    start({"-a", path}, path.substr(0, 107));
    expect_prints({"-a", path, "ping"}, "OK\n");
}

TEST_F(tessctl, names_the_address_that_it_cannot_reach) {
    expect_complains({"ping"}, NO_REPLY, "/tmp/tessard.sock");
    expect_complains({"-a", "./nowhere", "get", "k"}, NO_REPLY, "./nowhere");
    expect_complains({"-a", "./nowhere", "observe"}, NO_REPLY, "./nowhere");
    expect_complains({"-a", "::1", "-p", "9", "ping"}, NO_REPLY, "::1 port 9");
}

TEST_F(tessctl, says_when_its_output_is_lost) {
    start();
    result r = run({"ping"}, output_to("/dev/full"));
    EXPECT_EQ(r.status, OUTPUT);
    EXPECT_NE(r.err.find("cannot write"), std::string::npos) << r.err;
    EXPECT_EQ(run({"get", "missing"}, output_to("/dev/full")).status, NIL);
    EXPECT_EQ(run({"-h"}, output_to("/dev/full")).status, OUTPUT);
}

TEST_F(tessctl, sends_no_output_to_the_daemon_when_its_own_is_closed) {
    SKIP_UNDER_EMULATOR("it keeps descriptors of its own");
    start();
    process_options closed;
    closed.before_exec = [] {
        close(0);
        close(1);
        close(2);
    };
    EXPECT_EQ(run({"set", "k", "v"}, closed).status, OUTPUT);
    expect_prints({"get", "k"}, "v\n");
}

TEST_F(tessctl_on_a_terminal, shows_nil_and_puts_a_hash_into_columns) {
    start();
    int terminal = sandbox::add_terminal("/dev/ttyT");
    ASSERT_GE(terminal, 0);
    auto shown = [&](const std::vector<std::string>& arguments, int status) {
        EXPECT_EQ(run(arguments, output_to("/dev/ttyT")).status, status);
        char text[4096];
        ssize_t size = read(terminal, text, sizeof text);
        return std::string(text, size > 0 ? static_cast<size_t>(size) : 0);
    };
    EXPECT_EQ(shown({"set", "k", "v"}, DONE), "OK\n");
    EXPECT_EQ(shown({"get", "k"}, DONE), "v\n");
    EXPECT_EQ(shown({"get", "missing"}, NIL), "(nil)\n");
    EXPECT_EQ(shown({"mget", "k", "missing"}, DONE), "v\n(nil)\n");
    EXPECT_EQ(shown({"hset", "h", "name", "two words"}, DONE).size(), 2U);
    EXPECT_EQ(shown({"hgetall", "h"}, DONE), "name  two words\n");
    EXPECT_EQ(shown({"HGetAll", "h"}, DONE), "name  two words\n");
    EXPECT_EQ(shown({"hkeys", "h"}, DONE), "name\n");
    EXPECT_EQ(shown({"--raw", "hgetall", "h"}, DONE), "*2\r\n$4\r\nname\r\n$9\r\ntwo words\r\n");
    EXPECT_EQ(shown({"--raw", "get", "missing"}, NIL), "$-1\r\n");
}

TEST_F(tessctl_options, prints_its_usage) {
    for (const char* option : {"-h", "--help"}) {
        result r = run({option});
        EXPECT_EQ(r.status, DONE);
        EXPECT_EQ(r.out.rfind("usage: tessctl ", 0), 0U) << r.out;
        EXPECT_NE(r.out.find("observe"), std::string::npos);
        EXPECT_EQ(r.err, "");
    }
}

TEST_F(tessctl_options, refuses_what_makes_no_sense) {
    expect_complains({}, USAGE, "command");
    expect_complains({"-x", "ping"}, USAGE, "tessctl -h");
    expect_complains({"--nothing", "ping"}, USAGE, "tessctl -h");
    expect_complains({"-a"}, USAGE, "tessctl -h");
    expect_complains({"-a", "", "ping"}, USAGE, "address");
    expect_complains({"-a", "tessard.sock", "ping"}, USAGE, "tessard.sock");
    expect_complains({"-a", "example.org", "-p", "7000", "ping"}, USAGE, "example.org");
    expect_complains({"-a", "127.0.0.1", "ping"}, USAGE, "-p");
    for (const char* port : {"", "0", "-1", "65536", "99999999999", "7000x", "0x10", " 7"}) {
        expect_complains({"-a", "127.0.0.1", "-p", port, "ping"}, USAGE, "port");
    }
    for (const char* seconds : {"", "0", "-1", "86401", "1.5", "x"}) {
        expect_complains({"-t", seconds, "ping"}, USAGE, "seconds");
    }
    expect_complains({"observe", "k"}, USAGE, "observe");
}

/* Observers are found by their effect: a key of its own is set until the line for it has come. */
/* Without the lines and frames of the figures that the daemon announces by itself every second. */
std::string without_figures(const std::string& text) {
    static const std::string key = "(cpu\\.load|mem\\.load|host\\.num|host\\.maxnum|conn)";
    static const std::regex line("MSET " + key + " [0-9]+\n");
    static const std::regex frame("!3\r\n\\$4\r\nMSET\r\n\\$[0-9]+\r\n" + key +
                                  "\r\n\\$[0-9]+\r\n[0-9]+\r\n");
    return std::regex_replace(std::regex_replace(text, line, ""), frame, "");
}

class observing : public process {
  public:
    explicit observing(const std::vector<std::string>& arguments, const std::string& first,
                       resp_client& other)
        : process(tessctl_command(arguments)) {
        begun = eventually([&] {
            other.call({"set", "begin", "x"});
            return out().find(first) != std::string::npos;
        });
    }

    /* Waits for what is printed after the observing had begun, with the lines for that key taken
     * out. */
    bool prints(const std::string& text, const std::string& first) {
        return eventually([&] {
            seen = without_figures(out());
            for (size_t at; (at = seen.find(first)) != std::string::npos;) {
                seen.erase(at, first.size());
            }
            return seen == text;
        });
    }

    bool begun = false;
    std::string seen;
};

const std::string BEGIN_LINE = "MSET begin x\n";
const std::string BEGIN_FRAME = "!3\r\n$4\r\nMSET\r\n$5\r\nbegin\r\n$1\r\nx\r\n";

TEST_F(tessctl_observe, prints_each_change_as_a_line) {
    start();
    resp_client other;
    observing observer({"observe"}, BEGIN_LINE, other);
    ASSERT_TRUE(observer.begun) << observer.out() << observer.err();
    other.call({"set", "k", "some value"});
    other.call({"set", "_private", "x"});
    other.call({"hmset", "h", "f", "it's\n"});
    other.call({"hdel", "h", "f"});
    /* What an event of a deleted field holds behind its field is the store's affair. */
    EXPECT_TRUE(eventually([&] { return observer.out().find("HDEL h f") != std::string::npos; }))
        << observer.out();
    EXPECT_NE(without_figures(observer.out())
                  .find("MSET k 'some value'\nHMSET h f $'it\\'s\\n'\nHDEL h f"),
              std::string::npos)
        << observer.out();
    EXPECT_EQ(observer.err(), "");
    EXPECT_TRUE(observer.running());
}

TEST_F(tessctl_observe, is_ended_by_an_interrupt) {
    start();
    resp_client other;
    for (int number : {SIGINT, SIGTERM}) {
        observing observer({"OBSERVE"}, BEGIN_LINE, other);
        ASSERT_TRUE(observer.begun);
        observer.signal(number);
        EXPECT_EQ(observer.wait_exit(), DONE);
        EXPECT_EQ(observer.err(), "");
    }
}

TEST_F(tessctl_observe, says_when_the_daemon_is_gone) {
    process& daemon = start();
    resp_client other;
    observing observer({"observe"}, BEGIN_LINE, other);
    ASSERT_TRUE(observer.begun);
    daemon.stop();
    EXPECT_EQ(observer.wait_exit(), NO_REPLY);
    EXPECT_NE(observer.err().find("/tmp/tessard.sock"), std::string::npos) << observer.err();
}

TEST_F(tessctl_observe, prints_the_frames_when_raw) {
    start();
    resp_client other;
    observing observer({"--raw", "observe"}, BEGIN_FRAME, other);
    ASSERT_TRUE(observer.begun);
    other.call({"set", "k", "v"});
    EXPECT_TRUE(observer.prints("+OK\r\n!3\r\n$4\r\nMSET\r\n$1\r\nk\r\n$1\r\nv\r\n", BEGIN_FRAME))
        << observer.seen;
}

TEST_F(tessctl_observe, waits_longer_than_for_a_reply) {
    start();
    resp_client other;
    observing observer({"-t", "1", "observe"}, BEGIN_LINE, other);
    ASSERT_TRUE(observer.begun);
    EXPECT_EQ(observer.wait_exit(1500), STILL_RUNNING);
    other.call({"set", "late", "v"});
    EXPECT_TRUE(observer.prints("MSET late v\n", BEGIN_LINE)) << observer.seen;
}

/* Standard output as a pipe, of which the test holds both ends. */
class observing_into_a_pipe : public tessctl_observe {
  protected:
    void SetUp() override {
        tessctl_observe::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        start();
        ASSERT_EQ(pipe(ends), 0);
        /* Found by its path, since a program that is started keeps only the standard descriptors.
         */
        std::string path = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(ends[1]);
        observer = std::make_unique<process>(tessctl_command({"observe"}), output_to(path));
        other = std::make_unique<resp_client>();
        ASSERT_TRUE(eventually([&] {
            return other->call({"set", "k", "v"}) == "+OK\r\n" && something_to_read();
        }));
    }

    void TearDown() override {
        stop_reading();
        observer.reset();
        tessctl_observe::TearDown();
    }

    bool something_to_read() const {
        pollfd ready = {ends[0], POLLIN, 0};
        return poll(&ready, 1, 0) == 1;
    }

    void stop_reading() {
        for (int& end : ends) {
            if (end >= 0) {
                close(end);
            }
            end = -1;
        }
    }

    int ends[2] = {-1, -1};
    std::unique_ptr<process> observer;
    std::unique_ptr<resp_client> other;
};

TEST_F(observing_into_a_pipe, ends_when_the_reader_goes) {
    stop_reading();
    EXPECT_EQ(observer->wait_exit(), DONE);
    EXPECT_EQ(observer->err(), "");
}

TEST_F(observing_into_a_pipe, ends_when_a_line_finds_the_reader_gone) {
    ASSERT_TRUE(observer->halt());
    EXPECT_EQ(other->call({"set", "k", "w"}), "+OK\r\n");
    stop_reading();
    observer->resume();
    EXPECT_EQ(observer->wait_exit(), DONE);
    EXPECT_EQ(observer->err(), "");
}

/* One that plays the daemon, for what the real one never does: takes one connection and says what
 * it is told to. */
class player {
  public:
    player() {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, PATH);
        unlink(PATH);
        listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener, 4), 0);
    }

    ~player() {
        go();
    }

    player(const player&) = delete;
    player& operator=(const player&) = delete;

    /* Waits for a client and returns what one reading finds when something has come. */
    std::string take_request() {
        char bytes[65536];
        if (!readable(listener) ||
            (connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) < 0) {
            return "<no client>";
        }
        if (!readable(connection)) {
            return "<nothing came>";
        }
        ssize_t size = recv(connection, bytes, sizeof bytes, 0);
        return std::string(bytes, size > 0 ? static_cast<size_t>(size) : 0);
    }

    /* False when the client has gone. */
    bool say(const std::string& bytes) const {
        return send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }

    void hang_up() {
        if (connection >= 0) {
            close(connection);
        }
        connection = -1;
    }

    /* Resets the connections that wait to be taken, too. */
    void go() {
        hang_up();
        if (listener >= 0) {
            close(listener);
        }
        listener = -1;
    }

    static constexpr char PATH[] = "/tmp/player.sock";

  private:
    static bool readable(int fd) {
        pollfd ready = {fd, POLLIN, 0};
        return poll(&ready, 1, LIMIT_MS) == 1;
    }

    int listener = -1;
    int connection = -1;
};

class tessctl_and_a_strange_daemon : public client_test {
  protected:
    static std::vector<std::string> command(std::vector<std::string> words) {
        words.insert(words.begin(), {"-a", player::PATH});
        return tessctl_command(words);
    }
};

TEST_F(tessctl_and_a_strange_daemon, gets_the_request_whole) {
    player daemon;
    process client(command({"set", "k", "a b"}));
    EXPECT_EQ(daemon.take_request(), "*3\r\n$3\r\nset\r\n$1\r\nk\r\n$3\r\na b\r\n");
    EXPECT_TRUE(daemon.say("+OK\r\n"));
    EXPECT_EQ(client.wait_exit(), DONE);
    EXPECT_EQ(client.out(), "OK\n");
}

TEST_F(tessctl_and_a_strange_daemon, is_sent_more_than_32_kB_with_a_warning) {
    player daemon;
    process client(command({"set", "k", std::string(32739, 'v')}));
    daemon.take_request();
    EXPECT_TRUE(daemon.say("+OK\r\n"));
    EXPECT_EQ(client.wait_exit(), DONE);
    EXPECT_EQ(client.out(), "OK\n");
    EXPECT_EQ(client.err(),
              "tessctl: this request has 32769 bytes; above 32 kB it may not arrive in one piece, "
              "and the daemon closes on the rest\n");
}

TEST_F(tessctl_and_a_strange_daemon, may_send_the_reply_in_pieces) {
    player daemon;
    process client(command({"mget", "a", "b"}));
    daemon.take_request();
    for (char byte : std::string("*2\r\n$3\r\none\r\n$-1\r\n")) {
        EXPECT_TRUE(daemon.say(std::string(1, byte)));
        usleep(1000);
    }
    EXPECT_EQ(client.wait_exit(), DONE);
    EXPECT_EQ(client.out(), "one\n(nil)\n");
}

TEST_F(tessctl_and_a_strange_daemon, may_close_anywhere) {
    const std::string reply = "*2\r\n$3\r\none\r\n$-1\r\n";
    for (size_t cut = 0; cut < reply.size(); cut++) {
        SCOPED_TRACE(cut);
        player daemon;
        process client(command({"--raw", "mget", "a", "b"}));
        daemon.take_request();
        EXPECT_TRUE(daemon.say(reply.substr(0, cut)));
        daemon.hang_up();
        EXPECT_EQ(client.wait_exit(), NO_REPLY);
        EXPECT_EQ(client.out(), reply.substr(0, cut));
        std::string said = cut == 0 ? "without a reply" : "in the middle of a reply";
        EXPECT_NE(client.err().find(std::string(player::PATH) +
                                    ": the daemon closed the connection " + said),
                  std::string::npos)
            << client.err();
    }
}

TEST_F(tessctl_and_a_strange_daemon, may_close_without_reading) {
    player daemon;
    process client(command({"ping"}));
    EXPECT_EQ(client.wait_exit(200), STILL_RUNNING);
    daemon.go();
    EXPECT_EQ(client.wait_exit(), NO_REPLY);
    EXPECT_NE(client.err().find("closed the connection without a reply"), std::string::npos)
        << client.err();
}

TEST_F(tessctl_and_a_strange_daemon, may_say_nothing) {
    player daemon;
    long begin = now_ms();
    process client(command({"-t", "1", "ping"}));
    daemon.take_request();
    EXPECT_EQ(client.wait_exit(), NO_REPLY);
    EXPECT_GE(now_ms() - begin, 1000);
    EXPECT_NE(client.err().find("no reply within 1 s"), std::string::npos) << client.err();
}

TEST_F(tessctl_and_a_strange_daemon, may_never_come_to_an_end) {
    player daemon;
    process client(command({"-t", "1", "keys", "*"}));
    daemon.take_request();
    EXPECT_TRUE(daemon.say("*1000000\r\n"));
    bool ended = eventually([&] {
        if (client.running()) {
            daemon.say("$1\r\nx\r\n");
        }
        return !client.running();
    });
    EXPECT_TRUE(ended);
    EXPECT_EQ(client.wait_exit(), NO_REPLY);
    EXPECT_EQ(client.out(), "");
}

TEST_F(tessctl_and_a_strange_daemon, may_talk_nonsense) {
    for (const char* bytes :
         {"HTTP/1.1 400 Bad Request\r\n\r\n", "\r\n", "$-7\r\n", "$99999999999999999999\r\n",
          "*4294967295\r\n", "*1\r\n*1\r\n$1\r\na\r\n", ":12a\r\n", "$3\r\nabcdef\r\n",
          "!1\r\n$1\r\na\r\n"}) {
        SCOPED_TRACE(bytes);
        player daemon;
        process client(command({"get", "k"}));
        daemon.take_request();
        EXPECT_TRUE(daemon.say(bytes));
        EXPECT_EQ(client.wait_exit(), NO_REPLY);
        EXPECT_EQ(client.out(), "");
        EXPECT_NE(client.err().find("malformed"), std::string::npos) << client.err();
    }
}

TEST_F(tessctl_and_a_strange_daemon, may_push_nonsense_to_an_observer) {
    for (const char* bytes : {"!0\r\n", "+OK\r\n", "!2\r\n$1\r\na\r\n:1\r\n", "junk\r\n"}) {
        SCOPED_TRACE(bytes);
        player daemon;
        process client(command({"observe"}));
        EXPECT_EQ(daemon.take_request(), "*1\r\n$7\r\nobserve\r\n");
        EXPECT_TRUE(daemon.say(std::string("+OK\r\n!2\r\n$1\r\nE\r\n$-1\r\n") + bytes));
        EXPECT_EQ(client.wait_exit(), NO_REPLY);
        EXPECT_EQ(client.out(), "E (nil)\n");
        EXPECT_NE(client.err().find("malformed"), std::string::npos) << client.err();
    }
}

TEST_F(tessctl_and_a_strange_daemon, may_refuse_an_observer) {
    player daemon;
    process client(command({"observe"}));
    daemon.take_request();
    EXPECT_TRUE(daemon.say("-ERR\r\n"));
    EXPECT_EQ(client.wait_exit(), ERROR);
    EXPECT_EQ(client.err(), "ERR\n");
}

TEST_F(tessctl_and_a_strange_daemon, may_answer_an_observer_with_something_else) {
    player daemon;
    process client(command({"observe"}));
    daemon.take_request();
    EXPECT_TRUE(daemon.say(":1\r\n"));
    EXPECT_EQ(client.wait_exit(), NO_REPLY);
    EXPECT_EQ(client.out(), "");
    EXPECT_NE(client.err(), "");
}

} // namespace
