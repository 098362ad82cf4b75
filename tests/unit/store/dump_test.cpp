#include "store/dump.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/support/big_endian.h"
#include "tests/support/dump_record.h"
#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_client.h"
#include "tests/unit/support/test_kernel.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

std::vector<std::string> history_calls;

bool write_history(object* obj, int fd) {
    history_calls.push_back("write " + std::string(obj->key));
    return dump_write_record(fd, "H", 1, "ring", 4);
}

void load_history(const char* key, const char* data, uint32_t length) {
    history_calls.push_back("load " + std::string(key) + " " + std::string(data, length));
}

/* Processor time of this process, which other processes on the machine do not lengthen. */
double cpu_seconds() {
    timespec used;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

/* Every test has a folder of its own. */
class dump_and_load_test : public store_test {
  protected:
    dump_and_load_test() : folder(::testing::TempDir() + "tessard-dump-XXXXXX") {
        EXPECT_NE(mkdtemp(folder.data()), nullptr);
        file = folder + "/dump";
        history_calls.clear();
        dump_history = {};
    }

    ~dump_and_load_test() override {
        EXPECT_EQ(test_kernel::writev_answers.size(), 0u) << "fewer writes than the test expects";
        EXPECT_EQ(test_kernel::read_answers.size(), 0u) << "fewer reads than the test expects";
        test_kernel::writev_answers.clear();
        test_kernel::read_answers.clear();
        test_kernel::memory = 0;
        dump_history = {};
        std::filesystem::remove_all(folder);
    }

    static object* set(std::string_view key, std::string_view value) {
        object* obj = make(key, OBJ_TSTRING);
        sstr_assign(&obj->string, value.data(), static_cast<uint32_t>(value.size()));
        return obj;
    }

    static std::string_view get(const char* key) {
        const object* obj = object_lookup_type(key, OBJ_TSTRING);
        return obj != nullptr ? bytes_of(obj->string) : "(no string)";
    }

    std::string content() const {
        std::ifstream in(file, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    void write_file(const std::string& bytes) const {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out << bytes;
    }

    int load(const std::string& bytes) const {
        write_file(bytes);
        return load_keys(file.c_str());
    }

    std::string dump(const char* pattern = "*") const {
        EXPECT_EQ(dump_keys(file.c_str(), pattern), 0);
        return content();
    }

    std::string folder;
    std::string file;
};

} // namespace

/* --- Which keys are histories --- */

TEST(history_keys_test, are_told_by_the_word_behind_the_last_dot) {
    for (const char* key : {"x.day", "x.week", "x.mon", "x.days", "cpu.week1", "x.month", "a.b.day",
                            "day.mon", ".day"}) {
        EXPECT_TRUE(is_history_key(key)) << key;
    }
    for (const char* key : {"", ".", "day", "week", "mon", "x.dat", "x.wee", "x.mo", "x.da",
                            "x.day.", "x.day.x", "x.Day", "x. day", "xday", "x.10m", "x.2h"}) {
        EXPECT_FALSE(is_history_key(key)) << key;
    }
}

/* --- Dump --- */

TEST_F(dump_and_load_test, a_string_is_one_record_in_network_byte_order) {
    set("k", "abc");
    EXPECT_EQ(dump(), std::string("\0\0\0\1k\0\0\0\3abc", 12));
}

TEST_F(dump_and_load_test, long_lengths_fill_their_four_bytes) {
    set("key", std::string(0x010203, 'x'));
    const std::string bytes = dump();
    ASSERT_EQ(bytes.size(), 4u + 3 + 4 + 0x010203);
    EXPECT_EQ(bytes.substr(0, 11), std::string("\0\0\0\3key\0\1\2\3", 11));
    EXPECT_EQ(bytes.substr(11), std::string(0x010203, 'x'));
}

TEST_F(dump_and_load_test, keys_and_values_may_hold_any_byte) {
    set(std::string_view("k\0y", 3), std::string_view("\0\xff\n", 3));
    EXPECT_EQ(dump(), std::string("\0\0\0\3k\0y\0\0\0\3\0\xff\n", 14));
}

TEST_F(dump_and_load_test, a_string_without_value_is_written_empty) {
    make("k", OBJ_TSTRING);
    EXPECT_EQ(dump(), std::string("\0\0\0\1k\0\0\0\0", 9));
}

TEST_F(dump_and_load_test, keys_are_written_in_table_order) {
    for (const char* key : {"a", "b", "c"}) {
        set(key, key);
    }
    /* The buckets 9, 10 and 0 of 11. */
    EXPECT_EQ(dump(), record("c", "c") + record("a", "a") + record("b", "b"));
}

TEST_F(dump_and_load_test, only_strings_are_written) {
    object_rpush(make("l", OBJ_TLIST), "item");
    object_hash_set(make("h", OBJ_THASH), text("f"), text("v"));
    make("n", OBJ_TNONE);
    set("s", "v");
    EXPECT_EQ(dump(), record("s", "v"));
}

TEST_F(dump_and_load_test, only_keys_that_match_the_pattern_are_written) {
    set("cpu.load", "1");
    set("mem.load", "2");
    set("cpu", "3");
    EXPECT_EQ(dump("cpu.*"), record("cpu.load", "1"));
    EXPECT_EQ(dump("c?u"), record("cpu", "3"));
    EXPECT_EQ(dump("[m]*"), record("mem.load", "2"));
    EXPECT_EQ(dump("nothing"), "");
}

TEST_F(dump_and_load_test, patterns_see_nothing_special_in_slashes_dots_and_backslashes) {
    set(".a/b", "1");
    EXPECT_EQ(dump("*"), record(".a/b", "1"));
    EXPECT_EQ(dump("?a?b"), record(".a/b", "1"));
    set("x*", "2");
    EXPECT_EQ(dump("x\\*"), record("x*", "2"));
}

TEST_F(dump_and_load_test, a_deleted_key_whose_record_stands_is_written) {
    object_delete(set("k", "v"));
    EXPECT_EQ(dump(), record("k", "v"));
}

TEST_F(dump_and_load_test, private_and_protected_keys_are_written) {
    set("_k", "v")->flags |= OBJ_PROTECTED;
    EXPECT_EQ(dump(), record("_k", "v"));
}

TEST_F(dump_and_load_test, without_any_key_the_file_is_empty) {
    EXPECT_EQ(dump(), "");
    EXPECT_TRUE(std::filesystem::exists(file));
    make("k", OBJ_THASH);
    EXPECT_EQ(dump(), "");
}

TEST_F(dump_and_load_test, an_older_file_is_emptied_first) {
    write_file(std::string(1000, 'x'));
    set("k", "v");
    EXPECT_EQ(dump(), record("k", "v"));
}

TEST_F(dump_and_load_test, a_new_file_is_readable_by_all_and_writable_by_its_owner) {
    const mode_t old = umask(0);
    dump();
    umask(old);
    struct stat status;
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(dump_and_load_test, dumping_is_logged_with_pattern_and_path) {
    log.start(LOG_INFO);
    dump("a%sb*");
    EXPECT_EQ(log.text(), "info  *** dumped a%sb* to " + file + "\n");
}

TEST_F(dump_and_load_test, a_file_that_cannot_be_made_is_replied_and_logged) {
    log.start(LOG_INFO);
    const std::string missing = folder + "/missing/dump";
    EXPECT_EQ(dump_keys(missing.c_str(), "*"), ENOENT);
    EXPECT_EQ(dump_keys(folder.c_str(), "*"), EISDIR);
    EXPECT_EQ(dump_keys("", "*"), ENOENT);
    EXPECT_EQ(log.text(), "info  *** failed to dump * to " + missing + ": 2\n" +
                              "info  *** failed to dump * to " + folder + ": 21\n" +
                              "info  *** failed to dump * to : 2\n");
}

TEST_F(dump_and_load_test, a_pattern_that_takes_too_long_leaves_the_file_as_it_was) {
    set(std::string(100000, 'a'), "v");
    const std::string hostile = "*" + std::string(1000, '?') + "b*";
    log.start(LOG_INFO);
    EXPECT_EQ(dump_keys(file.c_str(), hostile.c_str()), DUMP_GIVEN_UP);
    EXPECT_FALSE(std::filesystem::exists(file));
    write_file("older");
    EXPECT_EQ(dump_keys(file.c_str(), hostile.c_str()), DUMP_GIVEN_UP);
    EXPECT_EQ(content(), "older");
    EXPECT_EQ(log.lines().size(), 2u) << "the selection says why, and that is all";
}

TEST_F(dump_and_load_test, nothing_is_logged_above_info_level) {
    log.start(LOG_WARN);
    dump();
    load("");
    load_keys((folder + "/missing").c_str());
    EXPECT_EQ(log.text(), "");
}

TEST_F(dump_and_load_test, a_fifo_that_nobody_reads_is_refused_at_once) {
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    EXPECT_EQ(dump_keys(file.c_str(), "*"), ENXIO);
}

TEST_F(dump_and_load_test, a_fifo_that_is_full_blocks_nobody) {
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    const int reader = open(file.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    set("k", std::string(1 << 20, 'x'));
    EXPECT_EQ(dump_keys(file.c_str(), "*"), 0);
    char start[9] = {};
    EXPECT_EQ(read(reader, start, sizeof start), 9);
    EXPECT_EQ(std::string(start, 9), std::string("\0\0\0\1k\0\x10\0\0", 9));
    close(reader);
}

TEST_F(dump_and_load_test, no_descriptor_is_left_open) {
    set("k", "v");
    const int before = open("/dev/null", O_RDONLY);
    close(before);
    dump();
    load(content());
    load_keys(folder.c_str());
    load_keys("/missing");
    ASSERT_EQ(truncate(file.c_str(), LOAD_MAX_SIZE + 1), 0);
    load_keys(file.c_str());
    const int after = open("/dev/null", O_RDONLY);
    close(after);
    EXPECT_EQ(after, before);
}

TEST_F(dump_and_load_test, changes_and_expiry_are_not_touched) {
    test_client observer;
    observers_add(observer.record());
    object* obj = set("k", "v");
    object_expire(obj, 60);
    dump();
    EXPECT_EQ(load(record("k", "other")), 0);
    EXPECT_EQ(get("k"), "other");
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, OBJ_EXPIRE_TTL));
    EXPECT_EQ(obj->expire_arg, 60u);
    EXPECT_EQ(observer.received(), "");
}

TEST_F(dump_and_load_test, a_record_can_be_written_by_itself) {
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    EXPECT_TRUE(dump_write_record(fd, "key", 3, "data", 4));
    EXPECT_TRUE(dump_write_record(fd, "", 0, "", 0));
    close(fd);
    EXPECT_EQ(content(), record("key", "data") + std::string(8, '\0'));
}

TEST_F(dump_and_load_test, a_short_write_is_continued_wherever_it_ends) {
    const std::string_view key("k\0ey", 4);
    const std::string value = "the value";
    const std::string expected = record(key, value);
    set(key, value);
    for (int taken = 1; taken < static_cast<int>(expected.size()); taken++) {
        test_kernel::writev_answers = {taken};
        EXPECT_EQ(dump(), expected) << taken;
        EXPECT_EQ(test_kernel::writev_answers.size(), 0u);
    }
    test_kernel::writev_answers.assign(expected.size(), 1);
    EXPECT_EQ(dump(), expected) << "byte by byte";
}

TEST_F(dump_and_load_test, an_interrupted_write_is_tried_again) {
    set("key", "value");
    test_kernel::writev_answers = {-EINTR, -EINTR, 6, -EINTR, 3, -EINTR};
    EXPECT_EQ(dump(), record("key", "value"));
}

TEST_F(dump_and_load_test, a_record_that_the_file_does_not_take_whole_is_taken_back) {
    set("key", "value");
    for (const int end : {-ENOSPC, -EAGAIN, -EIO, -EPIPE, -EFBIG, 0}) {
        test_kernel::writev_answers = {end};
        EXPECT_EQ(dump(), "") << end;
        test_kernel::writev_answers = {9, end};
        EXPECT_EQ(dump(), "") << end;
    }
}

TEST_F(dump_and_load_test, a_dump_ends_with_its_last_whole_record) {
    for (const char* key : {"a", "b", "c"}) {
        set(key, key);
    }
    log.start(LOG_INFO);
    /* In table order c, a, b; each record has ten bytes. */
    for (int part = 0; part < 10; part++) {
        test_kernel::writev_answers = {10, part, -ENOSPC};
        if (part == 0) {
            test_kernel::writev_answers = {10, -ENOSPC};
        }
        EXPECT_EQ(dump(), record("c", "c")) << part;
    }
    test_kernel::writev_answers = {4, 6, 10, 7, -EINTR, 2, -EIO};
    EXPECT_EQ(dump(), record("c", "c") + record("a", "a"));
    EXPECT_EQ(log.lines(), std::vector<std::string>(11, "info  *** dumped * to " + file))
        << "it is no failure";
}

TEST_F(dump_and_load_test, a_history_that_is_not_taken_whole_ends_the_dump_too) {
    dump_history = {write_history, load_history};
    /* The buckets 0, 5 and 10 of 11. */
    set("c", "v");
    set("z.mon", "v");
    set("b", "v");
    ASSERT_EQ(dump(), record("c", "v") + record("H", "ring") + record("b", "v"));
    test_kernel::writev_answers = {10, 6, -ENOSPC};
    EXPECT_EQ(dump(), record("c", "v"));
}

/* Of what went into a pipe nothing comes back; it ends there all the same. */
TEST_F(dump_and_load_test, nothing_follows_a_broken_record_in_a_pipe) {
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    const int reader = open(file.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    set("c", "first");
    set("a", "second");
    set("b", "third");
    test_kernel::writev_answers = {14, 5, -EAGAIN};
    EXPECT_EQ(dump_keys(file.c_str(), "*"), 0);
    char bytes[64] = {};
    const ssize_t got = read(reader, bytes, sizeof bytes);
    ASSERT_EQ(got, 19);
    EXPECT_EQ(std::string(bytes, 19), record("c", "first") + record("a", "second").substr(0, 5));
    close(reader);
}

/* The first opening of the log has the signal ignored. */
TEST_F(dump_and_load_test, a_limit_for_the_size_of_files_ends_the_dump_and_not_the_process) {
    for (const char* key : {"a", "b", "c"}) {
        set(key, key);
    }
    const rlimit limit = {25, 25};
    EXPECT_EXIT(
        {
            setrlimit(RLIMIT_FSIZE, &limit);
            _exit(dump_keys(file.c_str(), "*"));
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(content(), record("c", "c") + record("a", "a"));
}

/* --- Load --- */

TEST_F(dump_and_load_test, what_was_dumped_is_loaded) {
    set("a", "1");
    set("b", std::string_view("\0two", 4));
    make("c", OBJ_TSTRING);
    dump();
    set("a", "changed");
    set("b", "");
    set("c", "changed");
    EXPECT_EQ(load_keys(file.c_str()), 0);
    EXPECT_EQ(get("a"), "1");
    EXPECT_EQ(get("b"), std::string_view("\0two", 4));
    EXPECT_EQ(get("c"), "");
}

TEST_F(dump_and_load_test, loading_is_logged_with_each_record) {
    set("k", "v");
    write_file(record("k", "abc") + record("other", ""));
    log.start();
    EXPECT_EQ(load_keys(file.c_str()), 0);
    EXPECT_EQ(log.text(), "debug *** name=k, namelen=1, datalen=3, siz=16\n"
                          "debug *** name=other, namelen=5, datalen=0, siz=0\n"
                          "info  *** loaded " +
                              file + "\n");
}

TEST_F(dump_and_load_test, a_missing_file_is_replied_and_logged) {
    log.start(LOG_INFO);
    const std::string missing = folder + "/missing";
    EXPECT_EQ(load_keys(missing.c_str()), 2);
    EXPECT_EQ(log.text(), "info  *** failed to load " + missing + ": 2\n");
}

TEST_F(dump_and_load_test, keys_are_never_made) {
    EXPECT_EQ(load(record("k", "v")), 0);
    EXPECT_EQ(object_lookup("k"), nullptr);
    make("other", OBJ_TSTRING);
    EXPECT_EQ(load(record("k", "v")), 0);
    EXPECT_EQ(object_keyspace()->count, 1u);
}

TEST_F(dump_and_load_test, keys_of_other_types_are_left_alone) {
    object* list = make("l", OBJ_TLIST);
    object_rpush(list, "item");
    make("h", OBJ_THASH);
    make("n", OBJ_TNONE);
    EXPECT_EQ(load(record("l", "v") + record("h", "v") + record("n", "v")), 0);
    EXPECT_EQ(object_type(list), OBJ_TLIST);
    EXPECT_EQ(list->list->count, 1);
    EXPECT_EQ(object_type(object_lookup("h")), OBJ_THASH);
    EXPECT_EQ(object_type(object_lookup("n")), OBJ_TNONE);
}

TEST_F(dump_and_load_test, deleted_keys_are_not_revived) {
    object* obj = set("k", "v");
    object_delete(obj);
    EXPECT_EQ(load(record("k", "other")), 0);
    EXPECT_EQ(object_lookup("k"), nullptr);
    EXPECT_EQ(bytes_of(obj->string), "v");
}

TEST_F(dump_and_load_test, a_string_without_value_gets_one) {
    make("k", OBJ_TSTRING);
    EXPECT_EQ(load(record("k", "v")), 0);
    EXPECT_EQ(get("k"), "v");
}

TEST_F(dump_and_load_test, the_last_record_of_a_key_holds) {
    set("k", "v");
    EXPECT_EQ(load(record("k", "1") + record("k", "22") + record("k", "33")), 0);
    EXPECT_EQ(get("k"), "33");
}

TEST_F(dump_and_load_test, a_name_ends_at_its_first_nul) {
    set("k", "v");
    EXPECT_EQ(load(record(std::string_view("k\0zzz", 5), "found")), 0);
    EXPECT_EQ(get("k"), "found");
}

TEST_F(dump_and_load_test, a_name_may_be_empty) {
    set("", "v");
    EXPECT_EQ(load(record("", "found") + record("", "again")), 0);
    EXPECT_EQ(get(""), "again");
}

TEST_F(dump_and_load_test, eight_bytes_are_too_few_even_for_an_empty_record) {
    set("", "v");
    log.start();
    EXPECT_EQ(load(record("", "")), 0);
    EXPECT_EQ(get(""), "v");
    EXPECT_EQ(log.text(), "info  *** loaded " + file + "\n");
}

TEST_F(dump_and_load_test, an_empty_file_loads_nothing) {
    EXPECT_EQ(load(""), 0);
}

TEST_F(dump_and_load_test, a_file_that_ends_anywhere_loads_its_whole_records) {
    const std::string bytes = record("a", "first") + record("bb", "") + record("c", "the third");
    const size_t ends[] = {14, 24, bytes.size()};
    ASSERT_EQ(bytes.size(), 24u + 18);
    for (size_t length = 0; length <= bytes.size(); length++) {
        object_reset();
        for (const char* key : {"a", "bb", "c"}) {
            set(key, "old");
        }
        EXPECT_EQ(load(bytes.substr(0, length)), 0);
        EXPECT_EQ(get("a"), length >= ends[0] ? "first" : "old") << length;
        EXPECT_EQ(get("bb"), length >= ends[1] ? "" : "old") << length;
        EXPECT_EQ(get("c"), length >= ends[2] ? "the third" : "old") << length;
    }
}

TEST_F(dump_and_load_test, hostile_name_lengths_end_the_loading) {
    for (const uint32_t namelen :
         {0xFFFFFFFFu, 0xFFFFFFFCu, 0xFFFFFFF8u, 0x80000000u, 0x7FFFFFFFu, 1000u, 3u, 2u}) {
        object_reset();
        set("a", "old");
        set("b", "old");
        /* Ten bytes from the second name length on. */
        EXPECT_EQ(load(record("a", "new") + be32(namelen) + "b" + be32(0) + "x"), 0);
        EXPECT_EQ(get("a"), "new") << namelen;
        EXPECT_EQ(get("b"), "old") << namelen;
    }
}

TEST_F(dump_and_load_test, hostile_data_lengths_end_the_loading) {
    for (const uint32_t datalen : {0xFFFFFFFFu, 0xFFFFFFFCu, 0xFFFFFFF7u, 0xFFFFFFF8u, 0x80000000u,
                                   0x7FFFFFFFu, 1000u, 4u}) {
        object_reset();
        set("a", "old");
        set("b", "old");
        EXPECT_EQ(load(record("a", "new") + be32(1) + "b" + be32(datalen) + "xyz"), 0);
        EXPECT_EQ(get("a"), "new") << datalen;
        EXPECT_EQ(get("b"), "old") << datalen;
    }
}

TEST_F(dump_and_load_test, a_data_length_that_fits_exactly_is_taken) {
    set("b", "old");
    EXPECT_EQ(load(be32(1) + "b" + be32(3) + "xyz"), 0);
    EXPECT_EQ(get("b"), "xyz");
}

/* A daemon in the background leads a session without a terminal. Were a terminal that a client
 * names to become its own, the hang-up of that terminal would end it. */
TEST_F(dump_and_load_test, a_terminal_does_not_become_the_daemons_own) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    const std::string terminal = ptsname(master);
    EXPECT_EXIT(
        {
            setsid();
            const int loaded = load_keys(terminal.c_str());
            const int dumped = dump_keys(terminal.c_str(), "*");
            const bool has_terminal = open("/dev/tty", O_RDWR | O_NOCTTY) >= 0;
            _exit(loaded == 0 && dumped == 0 && !has_terminal ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    close(master);
}

/* Closing a serial port waits until it has sent all that it holds. A terminal that tells its other
 * side of such things shows that there is nothing left to wait for. */
TEST_F(dump_and_load_test, what_a_terminal_has_not_sent_is_dropped_before_it_is_closed) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    const int packets = 1;
    ASSERT_EQ(ioctl(master, TIOCPKT, &packets), 0);
    const std::string terminal = ptsname(master);
    const int kept = open(terminal.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(kept, 0);
    set("k", std::string(1 << 20, 'x'));
    EXPECT_EQ(dump_keys(terminal.c_str(), "*"), 0);
    char status = 0;
    EXPECT_EQ(read(master, &status, 1), 1);
    EXPECT_EQ(status, TIOCPKT_FLUSHWRITE);
    close(kept);
    close(master);
}

TEST_F(dump_and_load_test, a_folder_loads_nothing) {
    EXPECT_EQ(load_keys(folder.c_str()), 0);
}

TEST_F(dump_and_load_test, a_fifo_loads_nothing_and_blocks_nobody) {
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    EXPECT_EQ(load_keys(file.c_str()), 0);
    set("k", "old");
    const int writer = open(file.c_str(), O_RDWR | O_NONBLOCK);
    const std::string bytes = record("k", "new");
    ASSERT_EQ(write(writer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    EXPECT_EQ(load_keys(file.c_str()), 0);
    EXPECT_EQ(get("k"), "old");
    close(writer);
}

TEST_F(dump_and_load_test, devices_that_never_end_load_nothing) {
    EXPECT_EQ(load_keys("/dev/zero"), 0);
    EXPECT_EQ(load_keys("/dev/null"), 0);
}

TEST_F(dump_and_load_test, only_bytes_that_were_really_read_are_parsed) {
    const std::string first = record("a", "new");
    const std::string both = first + record("b", "new");
    for (int given = 0; given <= static_cast<int>(both.size()); given++) {
        set("a", "old");
        set("b", "old");
        write_file(both);
        test_kernel::read_answers = {given};
        EXPECT_EQ(load_keys(file.c_str()), 0);
        EXPECT_EQ(get("a"), given >= static_cast<int>(first.size()) ? "new" : "old") << given;
        EXPECT_EQ(get("b"), given == static_cast<int>(both.size()) ? "new" : "old") << given;
    }
}

TEST_F(dump_and_load_test, a_file_that_cannot_be_read_loads_nothing) {
    set("k", "old");
    write_file(record("k", "new"));
    log.start(LOG_INFO);
    test_kernel::read_answers = {-EIO};
    EXPECT_EQ(load_keys(file.c_str()), 0);
    EXPECT_EQ(get("k"), "old");
    EXPECT_EQ(log.text(), "info  *** loaded " + file + "\n");
}

TEST_F(dump_and_load_test, a_file_that_cannot_be_measured_is_replied_logged_and_closed) {
    set("k", "old");
    write_file(record("k", "new"));
    log.start(LOG_INFO);
    const int before = open("/dev/null", O_RDONLY);
    close(before);
    test_kernel::fstat_failures = {EOVERFLOW};
    EXPECT_EQ(load_keys(file.c_str()), EOVERFLOW);
    EXPECT_EQ(test_kernel::fstat_failures.size(), 0u);
    const int after = open("/dev/null", O_RDONLY);
    close(after);
    EXPECT_EQ(after, before);
    EXPECT_EQ(get("k"), "old");
    EXPECT_EQ(log.text(),
              "info  *** failed to load " + file + ": " + std::to_string(EOVERFLOW) + "\n");
}

TEST_F(dump_and_load_test, a_file_of_256_megabytes_is_loaded_and_one_of_a_byte_more_is_not) {
    test_kernel::memory = 0xFFFFF000;
    set("k", "old");
    const std::string bytes = record("k", "new");
    write_file(bytes);
    ASSERT_EQ(truncate(file.c_str(), (off_t{256} << 20) + 1), 0);
    EXPECT_EQ(load_keys(file.c_str()), EFBIG);
    EXPECT_EQ(get("k"), "old");

    ASSERT_EQ(truncate(file.c_str(), off_t{256} << 20), 0);
    /* The size alone is in question, so that the rest need not be read. */
    test_kernel::read_answers = {static_cast<int>(bytes.size())};
    EXPECT_EQ(load_keys(file.c_str()), 0);
    EXPECT_EQ(get("k"), "new");
}

TEST_F(dump_and_load_test, files_beyond_what_memory_allows_are_refused) {
    write_file("");
    log.start(LOG_INFO);
    for (const off_t size :
         {off_t{LOAD_MAX_SIZE} + 1, off_t{1} << 32, (off_t{1} << 32) + 12, off_t{1} << 40}) {
        ASSERT_EQ(truncate(file.c_str(), size), 0);
        EXPECT_NE(load_keys(file.c_str()), 0) << size;
    }
    EXPECT_EQ(log.lines()[0], "info  *** failed to load " + file + ": " + std::to_string(EFBIG));
    EXPECT_EQ(log.lines().size(), 4u);
}

TEST_F(dump_and_load_test, a_file_larger_than_a_quarter_of_the_machines_memory_is_refused) {
    test_kernel::memory = 1 << 20;
    set("k", "old");
    write_file(record("k", "new"));
    ASSERT_EQ(truncate(file.c_str(), (1 << 18) + 1), 0);
    log.start(LOG_INFO);
    EXPECT_EQ(load_keys(file.c_str()), ENOMEM);
    EXPECT_EQ(log.text(),
              "info  *** failed to load " + file + ": " + std::to_string(ENOMEM) + "\n");
    EXPECT_EQ(get("k"), "old");

    ASSERT_EQ(truncate(file.c_str(), 1 << 18), 0);
    EXPECT_EQ(load_keys(file.c_str()), 0);
    EXPECT_EQ(get("k"), "new");
}

/* A million empty records: some dozens of nanoseconds each, also under an emulator or a sanitizer.
 */
TEST_F(dump_and_load_test, a_sparse_file_of_nothing_but_zeros_is_loaded_in_bounded_time) {
    set("k", "old");
    write_file(record("k", "new"));
    ASSERT_EQ(truncate(file.c_str(), 8 << 20), 0);
    const double before = cpu_seconds();
    EXPECT_EQ(load_keys(file.c_str()), 0);
    EXPECT_LT(cpu_seconds() - before, 2);
    EXPECT_EQ(get("k"), "new");
}

/* --- Histories --- */

TEST_F(dump_and_load_test, histories_are_written_and_read_by_their_hooks) {
    dump_history = {write_history, load_history};
    set("cpu.load.day", "not this");
    set("k", "v");
    const std::string bytes = dump();
    EXPECT_TRUE(bytes == record("H", "ring") + record("k", "v") ||
                bytes == record("k", "v") + record("H", "ring"));
    EXPECT_EQ(history_calls, (std::vector<std::string>{"write cpu.load.day"}));
    history_calls.clear();
    EXPECT_EQ(load(record("cpu.load.day", "data") + record("x.weekly", "")), 0);
    EXPECT_EQ(history_calls,
              (std::vector<std::string>{"load cpu.load.day data", "load x.weekly "}));
    EXPECT_EQ(get("cpu.load.day"), "not this");
}

TEST_F(dump_and_load_test, without_hooks_histories_are_neither_written_nor_read) {
    set("cpu.load.day", "v");
    EXPECT_EQ(dump(), "");
    EXPECT_EQ(load(record("cpu.load.day", "data")), 0);
    EXPECT_EQ(get("cpu.load.day"), "v");
}

TEST_F(dump_and_load_test, history_records_are_traced_too) {
    dump_history = {write_history, load_history};
    write_file(record("x.mon", "data"));
    log.start();
    load_keys(file.c_str());
    EXPECT_EQ(log.lines()[0], "debug *** name=x.mon, namelen=5, datalen=4, siz=4");
}
