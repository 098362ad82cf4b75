/* Dumping string keys to a file and loading them again: the bytes of the file, what is taken from a
 * file and what is not, and files that mean harm. */

#include <errno.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "tests/support/big_endian.h"
#include "tests/support/dump_record.h"
#include "tests/system/model/frames.h"
#include "tests/system/support/daemon_test.h"
#include "tests/system/support/log_text.h"

using namespace system_test;

namespace {

typedef std::vector<std::string> words;

const std::string FILE_PATH = "/tmp/x.dump";

std::string failure(int error) {
    return ":" + std::to_string(error) + "\r\n";
}

class dump_files : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        if (!IsSkipped()) {
            serve({});
        }
    }

    void serve(const words& arguments, const process_options& options = {}) {
        client.close();
        if (daemon != nullptr) {
            daemon->stop();
        }
        daemon = &start(arguments, "/tmp/tessard.sock", 0, options);
        client = resp_client();
    }

    std::string call(const words& request) {
        return client.call(request);
    }

    /* What a dump of the keys that match writes. */
    std::string dumped(const std::string& pattern) {
        EXPECT_EQ(call({"dump", FILE_PATH, pattern}), ":0\r\n");
        EXPECT_TRUE(file_exists(FILE_PATH));
        return read_file(FILE_PATH);
    }

    process* daemon = nullptr;
    resp_client client{"/nowhere"};
};

/* The strings a = old-a, b = old-b and c = old-c are there. */
class load_files : public dump_files {
  protected:
    void SetUp() override {
        dump_files::SetUp();
        if (!IsSkipped()) {
            reset();
        }
    }

    void reset() {
        EXPECT_EQ(call({"mset", "a", "old-a", "b", "old-b", "c", "old-c"}), "+OK\r\n");
    }

    void load(const std::string& bytes) {
        write_file(FILE_PATH, bytes);
        EXPECT_EQ(call({"load", FILE_PATH}), ":0\r\n");
    }

    void expect_values(const std::string& a, const std::string& b, const std::string& c) {
        EXPECT_EQ(call({"mget", "a", "b", "c"}), list_frame({a, b, c}));
    }

    void expect_nothing_loaded() {
        expect_values("old-a", "old-b", "old-c");
    }
};

class hostile_files : public load_files {};

} // namespace

TEST_F(dump_files, a_record_is_two_lengths_and_two_texts) {
    call({"set", "k", "abc"});
    const std::string expected("\x00\x00\x00\x01\x6B\x00\x00\x00\x03\x61\x62\x63", 12);
    EXPECT_EQ(dumped("k"), expected);
}

TEST_F(dump_files, hold_no_byte_when_no_key_matches) {
    write_file(FILE_PATH, "something older");
    EXPECT_EQ(dumped("nothing*"), "");
}

TEST_F(dump_files, hold_the_matching_keys_in_the_order_of_the_keyspace) {
    std::map<std::string, std::string> values;
    for (int i = 0; i < 80; i++) {
        const std::string key = "key" + std::to_string(i * 13 % 80);
        values[key] = "value of " + key;
        EXPECT_EQ(call({"set", key, values[key]}), "+OK\r\n");
    }
    /* The daemon's own collectors may add keys meanwhile, and with them the order may change once.
     */
    std::string before;
    std::string expected;
    std::string written;
    for (int attempt = 0; attempt < 5; attempt++) {
        before = call({"keys", "key*"});
        written = dumped("key*");
        if (call({"keys", "key*"}) == before) {
            break;
        }
    }
    for (const std::string& key : elements_of(before)) {
        expected += record(key, values[key]);
    }
    EXPECT_EQ(written, expected);
    EXPECT_EQ(elements_of(before).size(), 80U);
}

TEST_F(dump_files, hold_strings_alone) {
    call({"set", "dump-s", "1"});
    call({"hset", "dump-h", "f", "v"});
    call({"rpush", "dump-l", "item"});
    EXPECT_EQ(dumped("dump-*"), record("dump-s", "1"));
}

TEST_F(dump_files, of_every_key_hold_the_seeded_string) {
    const std::string all = dumped("*");
    EXPECT_NE(all.find(record("fhour.interval", "30")), std::string::npos);
    EXPECT_EQ(all.find("tessard.run"), std::string::npos);
}

TEST_F(dump_files, keep_every_byte_of_keys_and_values) {
    std::string bytes;
    for (int byte = 0; byte < 256; byte++) {
        bytes += static_cast<char>(byte);
    }
    const std::string key = "raw" + bytes;
    call({"set", key, bytes + bytes});
    EXPECT_EQ(dumped("raw*"), record(key, bytes + bytes));
}

TEST_F(dump_files, hold_empty_keys_and_values) {
    call({"set", "", ""});
    EXPECT_EQ(dumped(""), be32(0) + be32(0));
    call({"set", "e", ""});
    EXPECT_EQ(dumped("e"), record("e", ""));
}

TEST_F(dump_files, show_a_string_without_value_as_empty) {
    EXPECT_EQ(call({"incrby", "none", "no number"}), "-ERR\r\n");
    EXPECT_EQ(dumped("none"), record("none", ""));
}

TEST_F(dump_files, hold_deleted_strings_as_long_as_their_records_stand) {
    call({"set", "gone", "still here"});
    EXPECT_EQ(call({"del", "gone"}), ":1\r\n");
    EXPECT_EQ(dumped("gone"), record("gone", "still here"));
    call({"hset", "gone", "f", "v"});
    EXPECT_EQ(dumped("gone"), "");
}

TEST_F(dump_files, hold_private_keys) {
    call({"set", "_private", "v"});
    EXPECT_EQ(dumped("_*"), record("_private", "v"));
}

TEST_F(dump_files, hold_large_values_whole) {
    std::string value;
    for (int i = 0; i < 40; i++) {
        const std::string piece(25000, static_cast<char>('A' + i));
        call({"append", "large", piece});
        value += piece;
    }
    EXPECT_EQ(dumped("large"), record("large", value));
}

TEST_F(dump_files, are_chosen_by_shell_patterns) {
    call({"mset", "p1", "1", "p2", "2", "p10", "10", "p*", "star"});
    EXPECT_EQ(dumped("p1"), record("p1", "1"));
    EXPECT_EQ(dumped("p\\*"), record("p*", "star"));
    EXPECT_EQ(dumped("p[1]"), record("p1", "1"));
    EXPECT_EQ(dumped("p??"), record("p10", "10"));
    EXPECT_EQ(dumped("P1"), "");
    EXPECT_EQ(dumped("p[!1]?"), "");
    /* Neither a leading point nor a slash is special. */
    call({"mset", ".p/q", "1"});
    EXPECT_EQ(dumped("?p*q"), record(".p/q", "1"));
}

/* Histories are written by those who keep them; a key that only bears such a name has none. */
TEST_F(dump_files, pass_over_keys_named_like_histories) {
    for (const char* key : {"mine.day", "mine.days", "mine.month", "mine.mon", "mine.week",
                            "mine.week1", ".day", "mine.x.weekly"}) {
        call({"set", key, "v"});
    }
    EXPECT_EQ(dumped("*mine*"), "");
    EXPECT_EQ(dumped(".day"), "");
}

TEST_F(dump_files, hold_keys_that_only_resemble_histories) {
    for (const char* key :
         {"x.dat", "x.wee", "x.mo", "x.DAY", "day", "week", "x.day.y", "x. day", "x."}) {
        call({"set", key, "v"});
        EXPECT_EQ(dumped(key), record(key, "v")) << key;
    }
}

TEST_F(dump_files, replace_what_was_there_and_are_readable_by_all) {
    write_file(FILE_PATH, std::string(100000, 'x'));
    call({"set", "k", "v"});
    EXPECT_EQ(dumped("k"), record("k", "v"));
    EXPECT_EQ(call({"dump", "/tmp/new.dump", "k"}), ":0\r\n");
    struct stat status;
    ASSERT_EQ(stat("/tmp/new.dump", &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0644));
}

TEST_F(dump_files, need_a_path_and_a_pattern) {
    EXPECT_EQ(call({"dump"}), "-ERR\r\n");
    EXPECT_EQ(call({"dump", FILE_PATH}), "-ERR\r\n");
    EXPECT_FALSE(file_exists(FILE_PATH));
    EXPECT_EQ(call({"load"}), "-ERR\r\n");
    call({"set", "k", "v"});
    EXPECT_EQ(call({"dump", FILE_PATH, "k", "ignored"}), ":0\r\n");
    EXPECT_EQ(call({"load", FILE_PATH, "ignored"}), ":0\r\n");
}

TEST_F(dump_files, a_path_ends_at_its_first_NUL) {
    call({"set", "k", "v"});
    EXPECT_EQ(call({"dump", FILE_PATH + std::string("\0.other", 7), "k"}), ":0\r\n");
    EXPECT_EQ(read_file(FILE_PATH), record("k", "v"));
    call({"set", "k", "w"});
    EXPECT_EQ(call({"load", FILE_PATH + std::string("\0.other", 7)}), ":0\r\n");
    EXPECT_EQ(call({"get", "k"}), "$1\r\nv\r\n");
}

TEST_F(dump_files, that_cannot_be_created_are_answered_with_the_error_number) {
    make_folders("/tmp/folder");
    write_file("/tmp/file", "");
    EXPECT_EQ(call({"dump", "/tmp/missing/x", "*"}), failure(ENOENT));
    EXPECT_EQ(call({"dump", "", "*"}), failure(ENOENT));
    EXPECT_EQ(call({"dump", "/tmp/folder", "*"}), failure(EISDIR));
    EXPECT_EQ(call({"dump", "/tmp/file/x", "*"}), failure(ENOTDIR));
    EXPECT_EQ(call({"dump", "/tmp/" + std::string(300, 'x'), "*"}), failure(ENAMETOOLONG));
    ASSERT_EQ(symlink("/tmp/circle", "/tmp/circle"), 0);
    EXPECT_EQ(call({"dump", "/tmp/circle", "*"}), failure(ELOOP));
    EXPECT_EQ(call({"dump", "/tmp/tessard.sock", "*"}), failure(ENXIO));
}

TEST_F(dump_files, that_cannot_be_opened_are_answered_with_the_error_number) {
    write_file("/tmp/file", "");
    EXPECT_EQ(call({"load", "/tmp/missing"}), ":2\r\n");
    EXPECT_EQ(call({"load", ""}), failure(ENOENT));
    EXPECT_EQ(call({"load", "/tmp/file/x"}), failure(ENOTDIR));
    EXPECT_EQ(call({"load", "/tmp/" + std::string(300, 'x')}), failure(ENAMETOOLONG));
    ASSERT_EQ(symlink("/tmp/circle", "/tmp/circle"), 0);
    EXPECT_EQ(call({"load", "/tmp/circle"}), failure(ELOOP));
    EXPECT_EQ(call({"load", "/tmp/tessard.sock"}), failure(ENXIO));
}

TEST_F(dump_files, onto_a_device_without_room_count_as_written) {
    call({"set", "k", "v"});
    EXPECT_EQ(call({"dump", "/dev/full", "*"}), ":0\r\n");
    EXPECT_EQ(call({"dump", "/dev/null", "*"}), ":0\r\n");
    EXPECT_EQ(call({"get", "k"}), "$1\r\nv\r\n");
}

TEST_F(dump_files, into_a_pipe_never_wait_for_a_reader) {
    call({"set", "k", "v"});
    ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
    EXPECT_EQ(call({"dump", "/tmp/pipe", "k"}), failure(ENXIO));
    const int reader = open("/tmp/pipe", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    EXPECT_EQ(call({"dump", "/tmp/pipe", "k"}), ":0\r\n");
    char bytes[64];
    const ssize_t got = read(reader, bytes, sizeof bytes);
    EXPECT_EQ(std::string(bytes, got > 0 ? static_cast<size_t>(got) : 0), record("k", "v"));
    /* More than a pipe takes while nobody reads. */
    for (int i = 0; i < 20; i++) {
        call({"append", "large", std::string(25000, 'x')});
    }
    EXPECT_EQ(call({"dump", "/tmp/pipe", "large"}), ":0\r\n");
    EXPECT_EQ(call({"ping"}), "+OK\r\n");
    close(reader);
}

/* A disk of four pages, three of which are taken. */
TEST_F(dump_files, on_a_full_disk_end_with_a_whole_record_and_are_whole_again_when_there_is_room) {
    make_folders("/tmp/small");
    ASSERT_EQ(mount("tessard-test", "/tmp/small", "tmpfs", MS_NOSUID, "size=16k"), 0);
    write_file("/tmp/small/other", std::string(12288, 'x'));
    for (const char* key : {"full.a", "full.b", "full.c", "full.d", "full.e"}) {
        call({"set", key, std::string(1500, key[5])});
    }
    const words keys = elements_of(call({"keys", "full.*"}));
    std::string whole;
    for (const std::string& key : keys) {
        whole += record(key, std::string(1500, key.back()));
    }
    ASSERT_EQ(whole.size(), 5 * 1514u);
    EXPECT_EQ(call({"dump", "/tmp/small/dump", "full.*"}), ":0\r\n");
    EXPECT_EQ(read_file("/tmp/small/dump"), whole.substr(0, 2 * 1514));

    ASSERT_EQ(unlink("/tmp/small/other"), 0);
    EXPECT_EQ(call({"dump", "/tmp/small/dump", "full.*"}), ":0\r\n");
    EXPECT_EQ(read_file("/tmp/small/dump"), whole);
    for (const std::string& key : keys) {
        EXPECT_EQ(call({"set", key, "changed"}), "+OK\r\n");
    }
    EXPECT_EQ(call({"load", "/tmp/small/dump"}), ":0\r\n");
    for (const std::string& key : keys) {
        EXPECT_EQ(call({"get", key}), bulk(std::string(1500, key.back())));
    }
}

TEST_F(dump_files, at_the_limit_for_the_size_of_files_end_with_a_whole_record) {
    process_options options;
    options.before_exec = [] {
        const rlimit limit = {40000, 40000};
        setrlimit(RLIMIT_FSIZE, &limit);
    };
    serve({}, options);
    for (const char* key : {"limit.a", "limit.b", "limit.c"}) {
        call({"set", key, std::string(15000, key[6])});
    }
    const words keys = elements_of(call({"keys", "limit.*"}));
    ASSERT_EQ(keys.size(), 3u);
    const std::string expected = record(keys[0], std::string(15000, keys[0].back())) +
                                 record(keys[1], std::string(15000, keys[1].back()));
    EXPECT_EQ(call({"dump", FILE_PATH, "limit.*"}), ":0\r\n");
    EXPECT_TRUE(read_file(FILE_PATH) == expected) << read_file(FILE_PATH).size();
    EXPECT_TRUE(daemon->running());
}

TEST_F(dump_files, leave_no_descriptor_open) {
    make_folders("/tmp/folder");
    ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
    write_file("/tmp/bad", be32(0xFFFFFFFF) + "xxxxxxxxxxx");
    call({"set", "k", "v"});
    const size_t before = daemon->descriptors();
    for (int i = 0; i < 30; i++) {
        for (const char* path : {"/tmp/good", "/tmp/folder", "/tmp/pipe", "/tmp/missing/x"}) {
            call({"dump", path, "k"});
        }
        for (const char* path :
             {"/tmp/good", "/tmp/bad", "/tmp/folder", "/tmp/pipe", "/tmp/missing"}) {
            call({"load", path});
        }
    }
    EXPECT_EQ(daemon->descriptors(), before);
}

TEST_F(dump_files, and_what_they_do_is_logged_at_info) {
    serve({"-l", "info", "-f", "stdout"});
    call({"set", "k", "v"});
    call({"dump", FILE_PATH, "k*"});
    call({"dump", "/tmp/missing/x", "k?"});
    call({"load", FILE_PATH});
    call({"load", "/tmp/missing"});
    EXPECT_TRUE(eventually([&] { return log_messages(daemon->out(), {"load"}).size() == 2; }));
    const words found = log_messages(daemon->out(), {"dump", "load"});
    EXPECT_EQ(found, (words{"dumped k* to " + FILE_PATH, "failed to dump k? to /tmp/missing/x: 2",
                            "loaded " + FILE_PATH, "failed to load /tmp/missing: 2"}));
    for (const log_record& one : parse_log(daemon->out())) {
        EXPECT_EQ(one.level, "info  *** ");
    }
}

TEST_F(dump_files, and_what_they_do_is_not_logged_above_info) {
    serve({"-l", "warn", "-f", "stdout"});
    call({"dump", FILE_PATH, "*"});
    call({"load", FILE_PATH});
    call({"load", "/tmp/missing"});
    let_it_catch_up(client);
    EXPECT_EQ(daemon->out(), "");
}

TEST_F(load_files, assign_the_values_of_strings) {
    load(record("a", "new") + record("b", "") + record("c", "a longer one than before"));
    expect_values("new", "", "a longer one than before");
    load(record("a", "old"));
    expect_values("old", "", "a longer one than before");
}

TEST_F(load_files, keep_every_byte) {
    std::string bytes;
    for (int byte = 0; byte < 256; byte++) {
        bytes += static_cast<char>(byte);
    }
    load(record("a", bytes));
    EXPECT_EQ(call({"get", "a"}), bulk(bytes));
    EXPECT_EQ(call({"strlen", "a"}), ":256\r\n");
}

TEST_F(load_files, never_create_keys) {
    load(record("missing", "v") + record("a", "new"));
    EXPECT_EQ(call({"exists", "missing"}), ":0\r\n");
    EXPECT_EQ(call({"keys", "missing"}), "*0\r\n");
    expect_values("new", "old-b", "old-c");
}

TEST_F(load_files, never_change_a_type) {
    call({"hset", "h", "f", "v"});
    call({"rpush", "l", "item"});
    load(record("h", "x") + record("l", "y") + record("a", "new"));
    EXPECT_EQ(call({"hgetall", "h"}), list_frame({"f", "v"}));
    EXPECT_EQ(call({"lindex", "l", "0"}), "$4\r\nitem\r\n");
    expect_values("new", "old-b", "old-c");
}

TEST_F(load_files, do_not_bring_deleted_keys_back) {
    EXPECT_EQ(call({"del", "a"}), ":1\r\n");
    load(record("a", "new"));
    EXPECT_EQ(call({"exists", "a"}), ":0\r\n");
    EXPECT_EQ(call({"get", "a"}), "$-1\r\n");
}

TEST_F(load_files, give_a_string_without_value_one) {
    call({"incrby", "none", "no number"});
    load(record("none", "41"));
    EXPECT_EQ(call({"incr", "none"}), ":42\r\n");
    call({"incrby", "empty", "no number"});
    load(record("empty", ""));
    EXPECT_EQ(call({"incr", "empty"}), "-ERR\r\n");
}

TEST_F(load_files, take_the_last_of_several_records_of_a_key) {
    load(record("a", "1") + record("b", "2") + record("a", "3"));
    expect_values("3", "2", "old-c");
}

TEST_F(load_files, write_protected_and_private_keys) {
    call({"set", "_p", "old"});
    load(record("fhour.interval", "60") + record("_p", "new"));
    EXPECT_EQ(call({"mget", "fhour.interval", "_p"}), list_frame({"60", "new"}));
}

TEST_F(load_files, pass_over_keys_named_like_histories) {
    call({"mset", "mine.day", "old", "mine.week1", "old", "mine.months", "old", "x.dat", "old",
          "x.day.y", "old"});
    load(record("mine.day", "new") + record("mine.week1", "new") + record("mine.months", "new") +
         record("x.dat", "new") + record("x.day.y", "new") + record("a", "new"));
    EXPECT_EQ(call({"mget", "mine.day", "mine.week1", "mine.months", "x.dat", "x.day.y", "a"}),
              list_frame({"old", "old", "old", "new", "new", "new"}));
}

TEST_F(load_files, leave_the_time_to_live_alone) {
    EXPECT_EQ(call({"setex", "a", "1000", "v"}), "+OK\r\n");
    load(record("a", "new") + record("b", "new"));
    const std::string left = call({"ttl", "a"});
    EXPECT_GE(atol(left.c_str() + 1), 900) << left;
    EXPECT_LE(atol(left.c_str() + 1), 1000) << left;
    EXPECT_EQ(call({"ttl", "b"}), ":-1\r\n");
}

TEST_F(load_files, are_announced_to_nobody) {
    resp_client observer;
    EXPECT_EQ(observer.call({"observe"}), "+OK\r\n");
    load(record("a", "new") + record("b", "new"));
    EXPECT_EQ(heard(observer, 0), "");
    call({"set", "c", "new"});
    EXPECT_EQ(next_frame(observer), event_frame({"MSET", "c", "new"}));
}

TEST_F(load_files, bring_back_what_was_dumped_before_a_restart) {
    const std::string bytes("\0\r\n\xff", 4);
    call({"mset", "a", bytes, "b", "", "_c", std::string(30000, 'c')});
    EXPECT_EQ(call({"dump", FILE_PATH, "*"}), ":0\r\n");
    serve({});
    call({"mset", "a", "0", "b", "0", "_c", "0", "d", "0"});
    EXPECT_EQ(call({"load", FILE_PATH}), ":0\r\n");
    EXPECT_EQ(call({"mget", "a", "b", "_c", "d"}),
              list_frame({bytes, "", std::string(30000, 'c'), "0"}));
    EXPECT_EQ(call({"exists", "c"}), ":0\r\n");
}

TEST_F(load_files, of_one_large_record_are_taken_whole) {
    const std::string data(5000000, 'x');
    load(record("a", data) + record("b", "behind it"));
    EXPECT_EQ(call({"strlen", "a"}), ":5000000\r\n");
    EXPECT_EQ(call({"get", "b"}), "$9\r\nbehind it\r\n");
}

TEST_F(load_files, are_traced_record_by_record) {
    serve({"-l", "debug", "-f", "stdout"});
    reset();
    load(record("a", "xyz") + record("missing", "") + record(std::string("b\0c", 3), "12"));
    EXPECT_TRUE(eventually([&] { return !log_messages(daemon->out(), {"loaded"}).empty(); }));
    EXPECT_EQ(
        log_messages(daemon->out(), {"namelen"}),
        (words{"name=a, namelen=1, datalen=3, siz=31", "name=missing, namelen=7, datalen=0, siz=13",
               "name=b, namelen=3, datalen=2, siz=2"}));
}

TEST_F(hostile_files, of_less_than_nine_bytes_load_nothing) {
    for (size_t size = 0; size < 9; size++) {
        load(std::string(size, '\0'));
    }
    expect_nothing_loaded();
    call({"set", "", "old"});
    load(record("", ""));
    EXPECT_EQ(call({"get", ""}), "$3\r\nold\r\n");
    load(record("", "x"));
    EXPECT_EQ(call({"get", ""}), "$1\r\nx\r\n");
    /* Eight bytes of a record without key and data are enough when something follows. */
    load(record("", "") + "x");
    EXPECT_EQ(call({"get", ""}), "$0\r\n\r\n");
}

TEST_F(hostile_files, cut_at_any_byte_load_the_records_before_the_cut) {
    const std::string first = record("a", "A");
    const std::string second = record("b", "BB");
    const std::string third = record("c", "CCC");
    const std::string whole = first + second + third;
    for (size_t size = 0; size <= whole.size(); size++) {
        SCOPED_TRACE(size);
        reset();
        load(whole.substr(0, size));
        expect_values(size >= first.size() ? "A" : "old-a",
                      size >= first.size() + second.size() ? "BB" : "old-b",
                      size >= whole.size() ? "CCC" : "old-c");
    }
}

TEST_F(hostile_files, with_trailing_bytes_load_the_records_before_them) {
    for (size_t extra = 1; extra < 20; extra++) {
        SCOPED_TRACE(extra);
        reset();
        load(record("a", "A") + std::string(extra, '\xff'));
        expect_values("A", "old-b", "old-c");
        reset();
        load(record("a", "A") + std::string(extra, '\x01'));
        expect_values("A", "old-b", "old-c");
    }
}

TEST_F(hostile_files, with_impossible_lengths_stop_there) {
    for (const uint32_t length :
         {0xFFFFFFFFU, 0xFFFFFFFEU, 0xFFFFFFFCU, 0xFFFFFFFBU, 0xFFFFFFF8U, 0xFFFFFFF7U, 0xFFFFFFF0U,
          0x80000000U, 0x7FFFFFFFU, 0x7FFFFFFCU, 0x00FFFFFFU, 30U}) {
        SCOPED_TRACE(length);
        /* As the length of a key, alone and behind a good record. */
        load(be32(length) + "b" + be32(3) + "xyz" + record("c", "C"));
        expect_nothing_loaded();
        load(record("a", "A") + be32(length) + "b" + be32(3) + "xyz" + record("c", "C"));
        expect_values("A", "old-b", "old-c");
        reset();
        /* As the length of data. */
        load(be32(1) + "b" + be32(length) + "xyz" + record("c", "C"));
        expect_nothing_loaded();
        load(record("a", "A") + be32(1) + "b" + be32(length) + "xyz");
        expect_values("A", "old-b", "old-c");
        reset();
        /* As both, so that they add up to something small. */
        load(be32(length) + "b" + be32(0 - length) + "xyz" + record("c", "C"));
        expect_nothing_loaded();
    }
}

TEST_F(hostile_files, whose_data_reaches_to_the_last_byte_or_one_beyond) {
    load(be32(1) + "a" + be32(5) + "12345");
    expect_values("12345", "old-b", "old-c");
    load(be32(1) + "b" + be32(6) + "12345");
    expect_values("12345", "old-b", "old-c");
    load(be32(1) + "c" + be32(4) + "12345");
    expect_values("12345", "old-b", "1234");
}

TEST_F(hostile_files, whose_key_reaches_to_the_last_byte_or_beyond) {
    /* 13 bytes: a key of 5 leaves room for the second length, one of 6 does not. */
    load(be32(5) + "aaaaa" + be32(0));
    load(be32(6) + "aaaaa" + be32(0));
    load(be32(9) + "aaaaa" + be32(0));
    expect_nothing_loaded();
    EXPECT_EQ(call({"exists", "aaaaa"}), ":0\r\n");
}

TEST_F(hostile_files, whose_keys_hold_NULs_mean_what_stands_before) {
    load(record(std::string("a\0b", 3), "A") + record(std::string("\0", 1), "nothing") +
         record("c", "C"));
    expect_values("A", "old-b", "C");
    EXPECT_EQ(call({"exists", ""}), ":0\r\n");
}

TEST_F(hostile_files, with_very_long_keys_are_read) {
    load(record(std::string(1000000, 'k'), "x") + record("a", "A"));
    expect_values("A", "old-b", "old-c");
}

TEST_F(hostile_files, that_are_no_files_load_nothing) {
    make_folders("/tmp/folder");
    write_file("/tmp/folder/a", record("a", "A"));
    ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
    for (const char* path :
         {"/tmp/folder", "/tmp", "/", "/tmp/pipe", "/dev/null", "/dev/zero", "/dev/full"}) {
        EXPECT_EQ(call({"load", path}), ":0\r\n") << path;
    }
    expect_nothing_loaded();
}

TEST_F(hostile_files, that_are_pipes_with_a_writer_are_not_waited_for) {
    ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
    const int both = open("/tmp/pipe", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(both, 0);
    EXPECT_EQ(call({"load", "/tmp/pipe"}), ":0\r\n");
    const std::string bytes = record("a", "A");
    EXPECT_EQ(write(both, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    EXPECT_EQ(call({"load", "/tmp/pipe"}), ":0\r\n");
    expect_nothing_loaded();
    close(both);
}

TEST_F(hostile_files, of_many_megabytes_of_empty_records_are_read_to_the_end) {
    const size_t size = sandbox::emulator().empty() ? size_t{16} << 20 : size_t{2} << 20;
    load(std::string(size, '\0') + record("a", "A"));
    expect_values("A", "old-b", "old-c");
}

TEST_F(hostile_files, of_many_megabytes_of_nonsense_are_given_up_at_once) {
    load(record("a", "A") + std::string(size_t{16} << 20, '\xff'));
    expect_values("A", "old-b", "old-c");
}

TEST_F(hostile_files, of_gigabytes_are_refused_with_an_error_number) {
    write_file(FILE_PATH, record("a", "A"));
    for (const off_t size :
         {off_t{300} << 20, off_t{0xFFFFFFFF}, (off_t{4} << 30) + 14, off_t{1} << 40}) {
        ASSERT_EQ(truncate(FILE_PATH.c_str(), size), 0);
        EXPECT_EQ(call({"load", FILE_PATH}), failure(EFBIG)) << size;
    }
    expect_nothing_loaded();
}

TEST_F(hostile_files, for_which_there_is_no_memory_are_refused_with_an_error_number) {
    if (SANITIZED) {
        GTEST_SKIP() << "the sanitizers need more room than the limit leaves";
    }
    SKIP_UNDER_EMULATOR("its own room counts against the limit");
    process_options options;
    options.before_exec = [] {
        const rlimit limit = {size_t{64} << 20, size_t{64} << 20};
        setrlimit(RLIMIT_AS, &limit);
    };
    serve({}, options);
    reset();
    write_file(FILE_PATH, record("a", "A"));
    ASSERT_EQ(truncate(FILE_PATH.c_str(), off_t{200} << 20), 0);
    EXPECT_EQ(call({"load", FILE_PATH}), failure(ENOMEM));
    expect_nothing_loaded();
    load(record("a", "A"));
    expect_values("A", "old-b", "old-c");
}

TEST_F(hostile_files, of_random_bytes_harm_nothing) {
    uint32_t state = 12345;
    const auto next = [&] {
        state = state * 1664525 + 1013904223;
        return state >> 16;
    };
    for (int i = 0; i < (sandbox::emulator().empty() ? 500 : 50) && !HasFailure(); i++) {
        /* A good file with some bytes changed, the upper ones of lengths among them. */
        std::string bytes;
        while (bytes.size() < 200) {
            bytes += record(std::string(next() % 3, static_cast<char>('a' + next() % 3)),
                            std::string(next() % 20, 'x'));
        }
        for (uint32_t changes = next() % 6; changes > 0; changes--) {
            bytes[next() % bytes.size()] = static_cast<char>(next());
        }
        load(bytes);
    }
    reset();
    expect_nothing_loaded();
}
