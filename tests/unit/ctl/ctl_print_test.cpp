#include "ctl/ctl_print.h"

#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "tests/unit/ctl/text_stream.h"

namespace {

std::string in_quotes(const std::string& text) {
    stream out;
    ctl_print_quoted(out, {text.data(), text.size()});
    return out.text();
}

class tessctl_printing : public ::testing::Test {
  protected:
    tessctl_printing() {
        ctl_reply_init(&r);
    }
    ~tessctl_printing() override {
        ctl_reply_free(&r);
    }

    const ctl_reply* frame(const std::string& bytes) {
        size_t size = 0;
        char* room = ctl_reply_room(&r, &size);
        EXPECT_LE(bytes.size(), size);
        memcpy(room, bytes.data(), bytes.size());
        ctl_reply_added(&r, bytes.size());
        EXPECT_EQ(ctl_reply_parse(&r), CTL_WHOLE);
        return &r;
    }

    /* What goes to standard output and to standard error, and the status. */
    void reply_prints(const std::string& bytes, bool terminal, const std::string& on_out,
                      const std::string& on_err, ctl_status status) {
        SCOPED_TRACE(bytes + (terminal ? "to a terminal" : "to a script"));
        stream out;
        stream err;
        EXPECT_EQ(ctl_print_reply(out, err, frame(bytes), terminal, false), status);
        EXPECT_EQ(out.text(), on_out);
        EXPECT_EQ(err.text(), on_err);
        ctl_reply_next(&r);
    }

    std::string pairs(const std::string& bytes) {
        stream out;
        stream err;
        EXPECT_EQ(ctl_print_reply(out, err, frame(bytes), true, true), CTL_DONE);
        ctl_reply_next(&r);
        return out.text();
    }

    std::string event(const std::string& bytes) {
        stream out;
        ctl_print_event(out, frame(bytes));
        ctl_reply_next(&r);
        return out.text();
    }

    ctl_reply r;
};

TEST_F(tessctl_printing, replies_are_the_same_for_people_and_scripts) {
    for (bool terminal : {false, true}) {
        reply_prints("+OK\r\n", terminal, "OK\n", "", CTL_DONE);
        reply_prints(":-5\r\n", terminal, "-5\n", "", CTL_DONE);
        reply_prints("$5\r\nvalue\r\n", terminal, "value\n", "", CTL_DONE);
        reply_prints("*3\r\n$1\r\na\r\n$-1\r\n$0\r\n\r\n", terminal, "a\n(nil)\n\n", "", CTL_DONE);
        reply_prints("*0\r\n", terminal, "", "", CTL_DONE);
    }
}

TEST_F(tessctl_printing, an_item_always_gets_one_newline) {
    reply_prints("$0\r\n\r\n", false, "\n", "", CTL_DONE);
    reply_prints("$5\r\nline\n\r\n", false, "line\n\n", "", CTL_DONE);
    reply_prints("$5\r\nline\n\r\n", true, "line\n\n", "", CTL_DONE);
}

TEST_F(tessctl_printing, bytes_are_left_alone) {
    reply_prints(std::string("$4\r\n\0\r\n\xff\r\n", 10), false, std::string("\0\r\n\xff\n", 5), "",
                 CTL_DONE);
}

TEST_F(tessctl_printing, nil_is_shown_to_people_only) {
    reply_prints("$-1\r\n", true, "(nil)\n", "", CTL_NIL);
    reply_prints("$-1\r\n", false, "", "", CTL_NIL);
}

TEST_F(tessctl_printing, an_error_goes_to_standard_error) {
    reply_prints("-ERR\r\n", false, "", "ERR\n", CTL_ERROR);
    reply_prints("-ERR\r\n", true, "", "ERR\n", CTL_ERROR);
}

TEST_F(tessctl_printing, raw_is_the_frame_and_nothing_behind_it) {
    const struct {
        const char* bytes;
        ctl_status status;
    } cases[] = {{"+OK\r\n", CTL_DONE}, {"-ERR\r\n", CTL_ERROR},        {":1\r\n", CTL_DONE},
                 {"$-1\r\n", CTL_NIL},  {"$0\r\n\r\n", CTL_DONE},       {"*1\r\n$-1\r\n", CTL_DONE},
                 {"*0\r\n", CTL_DONE},  {"!1\r\n$1\r\na\r\n", CTL_DONE}};
    for (const auto& one : cases) {
        SCOPED_TRACE(one.bytes);
        stream out;
        EXPECT_EQ(ctl_print_raw(out, frame(std::string(one.bytes) + "+NEXT\r\n")), one.status);
        EXPECT_EQ(out.text(), one.bytes);
        ctl_reply_free(&r);
    }
}

TEST_F(tessctl_printing, pairs_stand_in_two_columns) {
    EXPECT_EQ(
        pairs(
            "*6\r\n$2\r\nrx\r\n$2\r\n10\r\n$8\r\nrx.total\r\n$3\r\n200\r\n$2\r\ntx\r\n$0\r\n\r\n"),
        "rx        10\n"
        "rx.total  200\n"
        "tx        \n");
    EXPECT_EQ(pairs("*0\r\n"), "");
}

TEST_F(tessctl_printing, columns_count_characters) {
    EXPECT_EQ(pairs("*4\r\n$4\r\n\xc3\xa4\xc3\xb6\r\n$1\r\n1\r\n$3\r\nabc\r\n$1\r\n2\r\n"),
              "\xc3\xa4\xc3\xb6   1\n"
              "abc  2\n");
}

TEST_F(tessctl_printing, a_very_long_field_does_not_push_the_others_away) {
    std::string field(100, 'f');
    EXPECT_EQ(pairs("*4\r\n$100\r\n" + field + "\r\n$1\r\n1\r\n$1\r\na\r\n$1\r\n2\r\n"),
              field + "  1\na  2\n");
}

TEST_F(tessctl_printing, an_odd_item_is_not_lost_in_pairs) {
    EXPECT_EQ(pairs("*3\r\n$1\r\na\r\n$1\r\n1\r\n$1\r\nb\r\n"), "a\n1\nb\n");
}

TEST_F(tessctl_printing, an_event_is_one_line_of_words) {
    EXPECT_EQ(event("!3\r\n$4\r\nMSET\r\n$8\r\ncpu.load\r\n$2\r\n17\r\n"), "MSET cpu.load 17\n");
    EXPECT_EQ(event("!4\r\n$5\r\nHMSET\r\n$4\r\neth0\r\n$5\r\na key\r\n$0\r\n\r\n"),
              "HMSET eth0 'a key' ''\n");
    EXPECT_EQ(event("!1\r\n$4\r\nPING\r\n"), "PING\n");
}

TEST_F(tessctl_printing, a_nil_in_an_event_differs_from_the_text) {
    EXPECT_EQ(event("!3\r\n$1\r\nE\r\n$-1\r\n$5\r\n(nil)\r\n"), "E (nil) '(nil)'\n");
}

TEST(tessctl_quoting, plain_words_stay_as_they_are) {
    for (const char* word :
         {"a", "cpu.load", "-1", "00:1a:2b", "/tmp/x_y", "a@b", "50%", "a,b", "a=b", "+1"}) {
        EXPECT_EQ(in_quotes(word), word);
    }
}

TEST(tessctl_quoting, what_a_shell_would_touch_is_quoted) {
    EXPECT_EQ(in_quotes(""), "''");
    EXPECT_EQ(in_quotes("a b"), "'a b'");
    EXPECT_EQ(in_quotes("*"), "'*'");
    EXPECT_EQ(in_quotes("~"), "'~'");
    EXPECT_EQ(in_quotes("#x"), "'#x'");
    EXPECT_EQ(in_quotes("$(reboot)"), "'$(reboot)'");
    EXPECT_EQ(in_quotes("it's"), "'it'\\''s'");
    EXPECT_EQ(in_quotes("back\\slash"), "'back\\slash'");
}

TEST(tessctl_quoting, control_characters_are_escaped) {
    EXPECT_EQ(in_quotes("two\nlines"), "$'two\\nlines'");
    EXPECT_EQ(in_quotes("\t\r"), "$'\\t\\r'");
    EXPECT_EQ(in_quotes("\x1b[31m"), "$'\\033[31m'");
    EXPECT_EQ(in_quotes(std::string("\0"
                                    "1",
                                    2)),
              "$'\\0001'");
    EXPECT_EQ(in_quotes("\x7f"), "$'\\177'");
    EXPECT_EQ(in_quotes("it's\n\\"), "$'it\\'s\\n\\\\'");
}

TEST(tessctl_quoting, utf8_stays_and_other_bytes_are_escaped) {
    EXPECT_EQ(in_quotes("k\xc3\xbchl"), "k\xc3\xbchl");
    EXPECT_EQ(in_quotes("\xe4\xb8\xad\xe5\x9b\xbd"), "\xe4\xb8\xad\xe5\x9b\xbd");
    EXPECT_EQ(in_quotes("\xf0\x9f\x98\x80"), "\xf0\x9f\x98\x80");
    EXPECT_EQ(in_quotes("\xff"), "$'\\377'");
    EXPECT_EQ(in_quotes("\xc3"), "$'\\303'");
    EXPECT_EQ(in_quotes("\xc3\xbc\xe4\xb8"), "$'\xc3\xbc\\344\\270'");
    EXPECT_EQ(in_quotes("\xc0\xaf"), "$'\\300\\257'");
    EXPECT_EQ(in_quotes("\xe0\x80\xaf"), "$'\\340\\200\\257'");
    EXPECT_EQ(in_quotes("\xed\xa0\x80"), "$'\\355\\240\\200'");
    EXPECT_EQ(in_quotes("\xf4\x90\x80\x80"), "$'\\364\\220\\200\\200'");
    EXPECT_EQ(in_quotes("\xc2\x9b"), "$'\\302\\233'");
}

/* Every single byte and every pair with a neighbour of another kind, read back by a real shell. */
TEST(tessctl_quoting, a_shell_reads_back_what_was_quoted) {
    if (access("/bin/bash", X_OK) != 0) {
        GTEST_SKIP() << "no /bin/bash, and not every sh knows $'...'";
    }
    std::string expected;
    std::string script = "LC_ALL=C; printf '%s\\n'";
    for (int c = 1; c < 256; c++) {
        for (const char* before : {"", "a", "'", "\n", "\xc3"}) {
            std::string text = before + std::string(1, static_cast<char>(c)) + "7";
            expected += text + "\n";
            script += " " + in_quotes(text);
        }
    }
    char path[] = "/tmp/tessctl_quote_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, script.data(), script.size()), static_cast<ssize_t>(script.size()));
    close(fd);
    FILE* shell = popen((std::string("/bin/bash ") + path).c_str(), "r");
    ASSERT_NE(shell, nullptr);
    std::string got;
    char chunk[4096];
    size_t size;
    while ((size = fread(chunk, 1, sizeof chunk, shell)) > 0) {
        got.append(chunk, size);
    }
    pclose(shell);
    unlink(path);
    EXPECT_EQ(got, expected);
}

std::string as_json(const std::string& text) {
    stream out;
    ctl_print_json(out, {text.data(), text.size()});
    return out.text();
}

TEST(tessctl_json, a_text_becomes_a_string_that_any_parser_reads) {
    EXPECT_EQ(as_json(""), R"("")");
    EXPECT_EQ(as_json("eth0.10m"), R"("eth0.10m")");
    EXPECT_EQ(as_json("a \"b\" \\"), R"("a \"b\" \\")");
    EXPECT_EQ(as_json("/'\x7f"), R"("/'\u007f")");
    EXPECT_EQ(as_json("\n\t\x1b[0m"), R"("\u000a\u0009\u001b[0m")");
    EXPECT_EQ(as_json(std::string("\0x", 2)), R"("\u0000x")");
    EXPECT_EQ(as_json("k\xc3\xbchl"), "\"k\xc3\xbchl\"");
    EXPECT_EQ(as_json("\xff\xc3"), R"("\ufffd\ufffd")");
}

/* U+009B begins a command to some terminals. U+0080 and U+009F are the first and the last. */
TEST(tessctl_json, control_characters_of_two_bytes_are_escaped) {
    EXPECT_EQ(as_json("\xc2\x80"), R"("\u0080")");
    EXPECT_EQ(as_json("a\xc2\x9b\x32J"), R"("a\u009b2J")");
    EXPECT_EQ(as_json("\xc2\x9f\xc2\xa0"), "\"\\u009f\xc2\xa0\"");
}

TEST(tessctl_output, a_full_device_is_noticed) {
    FILE* full = fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    fputs("text", full);
    EXPECT_EQ(ctl_print_finish(full), CTL_OUTPUT);
    fclose(full);
}

} // namespace
