#include "ctl/ctl_reply.h"

#include <gtest/gtest.h>

#include <string.h>

#include <optional>
#include <string>
#include <vector>

namespace {

typedef std::optional<std::string> item;

class tessctl_replies : public ::testing::Test {
  protected:
    tessctl_replies() {
        ctl_reply_init(&r);
    }
    ~tessctl_replies() override {
        ctl_reply_free(&r);
    }

    /* Hands over the bytes in pieces as small as the room demands. */
    void add(const std::string& bytes) {
        for (size_t done = 0; done < bytes.size();) {
            size_t size = 0;
            char* room = ctl_reply_room(&r, &size);
            ASSERT_NE(room, nullptr);
            ASSERT_GT(size, 0U);
            size = std::min(size, bytes.size() - done);
            memcpy(room, bytes.data() + done, size);
            ctl_reply_added(&r, size);
            done += size;
        }
    }

    ctl_state parse(const std::string& bytes) {
        add(bytes);
        return ctl_reply_parse(&r);
    }

    std::vector<item> items() const {
        std::vector<item> all;
        for (uint32_t i = 0; i < r.count; i++) {
            ctl_text text = ctl_reply_item(&r, i);
            all.push_back(text.bytes == nullptr ? item()
                                                : item(std::string(text.bytes, text.length)));
        }
        return all;
    }

    std::string bytes() const {
        ctl_text text = ctl_reply_bytes(&r);
        return std::string(text.bytes, text.length);
    }

    void start_afresh() {
        ctl_reply_free(&r);
        ctl_reply_init(&r);
    }

    ctl_reply r;
};

struct frame {
    std::string bytes;
    char kind;
    std::vector<item> items;
};

/* One of each form, with contents that look like the frames' own marks. */
const std::vector<frame> FRAMES = {
    {"+OK\r\n", '+', {"OK"}},
    {"+\r\n", '+', {""}},
    {"-ERR\r\n", '-', {"ERR"}},
    {":0\r\n", ':', {"0"}},
    {":-9223372036854775808\r\n", ':', {"-9223372036854775808"}},
    {":9223372036854775807\r\n", ':', {"9223372036854775807"}},
    {"$-1\r\n", '$', {std::nullopt}},
    {"$0\r\n\r\n", '$', {""}},
    {"$5\r\nvalue\r\n", '$', {"value"}},
    {std::string("$10\r\n\r\n$-1\r\n\0*1\r\n", 17), '$', {std::string("\r\n$-1\r\n\0*1", 10)}},
    {"*0\r\n", '*', {}},
    {"*1\r\n$3\r\nkey\r\n", '*', {"key"}},
    {"*4\r\n$1\r\na\r\n$-1\r\n$0\r\n\r\n$12\r\nabcdefghijkl\r\n",
     '*',
     {"a", std::nullopt, "", "abcdefghijkl"}},
    {"!3\r\n$4\r\nMSET\r\n$1\r\nk\r\n$1\r\nv\r\n", '!', {"MSET", "k", "v"}},
    {"!3\r\n$4\r\nHDEL\r\n$1\r\nh\r\n$-1\r\n", '!', {"HDEL", "h", std::nullopt}},
};

TEST_F(tessctl_replies, each_form_is_understood) {
    for (const frame& f : FRAMES) {
        SCOPED_TRACE(f.bytes);
        EXPECT_EQ(parse(f.bytes), CTL_WHOLE);
        EXPECT_EQ(r.kind, f.kind);
        EXPECT_EQ(items(), f.items);
        EXPECT_EQ(bytes(), f.bytes);
        start_afresh();
    }
}

TEST_F(tessctl_replies, a_frame_cut_at_any_byte_waits_for_the_rest) {
    for (const frame& f : FRAMES) {
        for (size_t cut = 0; cut < f.bytes.size(); cut++) {
            SCOPED_TRACE(f.bytes + " cut at " + std::to_string(cut));
            EXPECT_EQ(parse(f.bytes.substr(0, cut)), CTL_MORE);
            EXPECT_EQ(bytes(), f.bytes.substr(0, cut));
            EXPECT_EQ(parse(f.bytes.substr(cut)), CTL_WHOLE);
            EXPECT_EQ(items(), f.items);
            start_afresh();
        }
    }
}

TEST_F(tessctl_replies, frames_may_come_byte_by_byte) {
    for (const frame& f : FRAMES) {
        SCOPED_TRACE(f.bytes);
        for (size_t i = 0; i + 1 < f.bytes.size(); i++) {
            ASSERT_EQ(parse(f.bytes.substr(i, 1)), CTL_MORE) << i;
        }
        EXPECT_EQ(parse(f.bytes.substr(f.bytes.size() - 1)), CTL_WHOLE);
        EXPECT_EQ(items(), f.items);
        start_afresh();
    }
}

TEST_F(tessctl_replies, frames_that_come_together_are_read_one_after_the_other) {
    std::string all;
    for (const frame& f : FRAMES) {
        all += f.bytes;
    }
    add(all);
    for (const frame& f : FRAMES) {
        SCOPED_TRACE(f.bytes);
        ASSERT_EQ(ctl_reply_parse(&r), CTL_WHOLE);
        EXPECT_EQ(r.kind, f.kind);
        EXPECT_EQ(items(), f.items);
        EXPECT_EQ(bytes(), f.bytes);
        ctl_reply_next(&r);
    }
    EXPECT_TRUE(ctl_reply_untouched(&r));
    EXPECT_EQ(ctl_reply_parse(&r), CTL_MORE);
}

TEST_F(tessctl_replies, a_long_stream_of_events_keeps_its_order_in_little_room) {
    std::string pending;
    int sent = 0;
    int seen = 0;
    while (seen < 5000) {
        for (int burst = 0; burst < 7; burst++) {
            std::string number = std::to_string(sent++);
            pending +=
                "!2\r\n$4\r\nMSET\r\n$" + std::to_string(number.size()) + "\r\n" + number + "\r\n";
        }
        /* What is delivered ends in the middle of a frame most of the time. */
        size_t part = pending.size() - pending.size() % 11;
        add(pending.substr(0, part));
        pending.erase(0, part);
        while (ctl_reply_parse(&r) == CTL_WHOLE) {
            ASSERT_EQ(items(), (std::vector<item>{"MSET", std::to_string(seen)}));
            seen++;
            ctl_reply_next(&r);
        }
        ASSERT_EQ(r.broken, nullptr);
    }
    EXPECT_LE(r.capacity, 4096U);
}

TEST_F(tessctl_replies, a_frame_may_be_large) {
    std::string value(3000000, 'x');
    value[2999999] = 'y';
    EXPECT_EQ(parse("*2\r\n$1\r\na\r\n$3000000\r\n" + value), CTL_MORE);
    EXPECT_EQ(parse("\r\n"), CTL_WHOLE);
    EXPECT_EQ(items(), (std::vector<item>{"a", value}));
}

TEST_F(tessctl_replies, what_is_no_frame_is_broken) {
    const std::vector<std::string> junk = {
        "\r\n",
        "\n",
        "OK\r\n",
        "HTTP/1.1 400 Bad Request\r\n",
        std::string("\0", 1),
        "\xff",
        "+OK\n",
        "+O\rK\r\n",
        std::string("+O\0K\r\n", 6),
        ":\r\n",
        ":-\r\n",
        ":+1\r\n",
        ": 1\r\n",
        ":1x\r\n",
        ":--1\r\n",
        ":9223372036854775808\r\n",
        ":-9223372036854775809\r\n",
        ":99999999999999999999999999\r\n",
        "$\r\n",
        "$x\r\n",
        "$-2\r\n",
        "$-9223372036854775808\r\n",
        "$16777217\r\n",
        "$4294967295\r\n",
        "$4294967296\r\n",
        "$9223372036854775807\r\n",
        "$18446744073709551615\r\n",
        "$3\r\nabcd\r\n",
        "$3\r\nabc\n\n",
        "$3\r\nabc\r\r",
        "*\r\n",
        "*x\r\n",
        "*-1\r\n",
        "*-2\r\n",
        "*3355444\r\n",
        "*4294967295\r\n",
        "*4294967296\r\n",
        "*9223372036854775807\r\n",
        "!0\r\n",
        "!-1\r\n",
        "!4294967296\r\n",
        "*1\r\n+OK\r\n",
        "*1\r\n:1\r\n",
        "*1\r\n*1\r\n$1\r\na\r\n",
        "*2\r\n$1\r\na\r\n!1\r\n",
        "*1\r\n\r\n",
        "*2\r\n$1\r\nab\r\n$1\r\nc\r\n",
        "*1\r\n$-2\r\n",
        "!1\r\n$9999999999\r\n",
    };
    for (const std::string& bytes_in : junk) {
        SCOPED_TRACE(::testing::PrintToString(bytes_in));
        EXPECT_EQ(parse(bytes_in), CTL_BROKEN);
        EXPECT_NE(r.broken, nullptr);
        EXPECT_EQ(bytes(), bytes_in);
        start_afresh();
    }
}

TEST_F(tessctl_replies, what_is_broken_stays_so) {
    EXPECT_EQ(parse("?"), CTL_BROKEN);
    EXPECT_EQ(parse("+OK\r\n"), CTL_BROKEN);
}

TEST_F(tessctl_replies, a_line_without_end_is_given_up) {
    EXPECT_EQ(parse("+" + std::string(CTL_REPLY_LINE_MAX - 1, 'x')), CTL_MORE);
    EXPECT_EQ(parse("xx"), CTL_BROKEN);
}

TEST_F(tessctl_replies, the_longest_line_is_read) {
    std::string text(CTL_REPLY_LINE_MAX - 2, 'x');
    EXPECT_EQ(parse("+" + text + "\r\n"), CTL_WHOLE);
    EXPECT_EQ(items(), std::vector<item>{text});
}

TEST_F(tessctl_replies, memory_follows_the_bytes_not_the_announcement) {
    EXPECT_EQ(parse("*3355443\r\n$16777216\r\n"), CTL_MORE);
    EXPECT_LE(r.capacity, 4096U);
    EXPECT_LE(r.slots, 16U);
}

TEST_F(tessctl_replies, a_frame_that_outgrows_the_limit_is_broken) {
    std::string chunk(65536, 'x');
    add("$16777216\r\n");
    size_t put = 0;
    for (;;) {
        ASSERT_EQ(ctl_reply_parse(&r), CTL_MORE);
        size_t size = 0;
        char* room = ctl_reply_room(&r, &size);
        if (room == nullptr) {
            break;
        }
        size = std::min(size, chunk.size());
        memcpy(room, chunk.data(), size);
        ctl_reply_added(&r, size);
        put += size;
        ASSERT_LE(put, CTL_REPLY_MAX);
    }
    EXPECT_EQ(ctl_reply_parse(&r), CTL_BROKEN);
    EXPECT_STREQ(r.broken, "it is too large");
}

/* Every byte of every frame replaced by bytes that mean something to the parser: whatever it says,
 * it must not read outside what it was given (the sanitizers watch) and items must lie within. */
TEST_F(tessctl_replies, no_changed_byte_leads_outside) {
    const std::string marks = std::string("\0\r\n+-:$*!09\xff", 12);
    for (const frame& f : FRAMES) {
        for (size_t at = 0; at < f.bytes.size(); at++) {
            for (char mark : marks) {
                std::string changed = f.bytes;
                changed[at] = mark;
                if (parse(changed) == CTL_WHOLE) {
                    for (const item& one : items()) {
                        EXPECT_LE(one ? one->size() : 0, changed.size());
                    }
                    EXPECT_EQ(bytes(), changed.substr(0, bytes().size()));
                }
                start_afresh();
            }
        }
    }
}

} // namespace
