#include "proto/resp.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/unit/support/log_capture.h"
#include "tests/unit/support/store_test.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

class replies_test : public ::testing::Test {
  protected:
    replies_test() {
        buffer_init(&out, 0, 0);
    }

    ~replies_test() override {
        buffer_free(&out);
        resp_free(r);
    }

    std::string written() {
        std::string bytes(out.data, out.length);
        buffer_reset(&out);
        return bytes;
    }

    std::string frame_of() {
        resp_write(r, &out);
        return written();
    }

    std::string event_of() {
        resp_write_notify(r, &out);
        return written();
    }

    log_capture log;
    buffer out;
    resp* r = resp_new();
};

std::string integer_frame(int64_t value) {
    resp* r = resp_new();
    resp_integer(r, value);
    buffer out;
    buffer_init(&out, 0, 0);
    resp_write(r, &out);
    std::string bytes(out.data, out.length);
    buffer_free(&out);
    resp_free(r);
    return bytes;
}

} // namespace

TEST(reply_types_test, nil_has_all_bits_set) {
    EXPECT_EQ(reinterpret_cast<uintptr_t>(RESP_NIL), ~uintptr_t{0});
}

TEST_F(replies_test, a_new_reply_is_empty_and_writes_nothing) {
    EXPECT_EQ(r->type, RESP_TNONE);
    EXPECT_EQ(resp_write(r, &out), 0u);
    EXPECT_EQ(out.length, 0u);
}

TEST_F(replies_test, an_unknown_type_writes_nothing) {
    r->type = 6;
    EXPECT_EQ(resp_write(r, &out), 0u);
    EXPECT_EQ(out.length, 0u);
    r->type = 0xFFFFFFFF;
    EXPECT_EQ(resp_write(r, &out), 0u);
    EXPECT_EQ(out.length, 0u);
    r->type = RESP_TNONE;
}

TEST_F(replies_test, a_status_without_text_is_ok) {
    resp_status(r, nullptr);
    EXPECT_EQ(r->type, RESP_TSTATUS);
    EXPECT_EQ(frame_of(), "+OK\r\n");
}

TEST_F(replies_test, a_status_shows_its_text) {
    resp_status(r, "PONG");
    EXPECT_EQ(frame_of(), "+PONG\r\n");
}

TEST_F(replies_test, an_error_is_bare_whatever_its_reason) {
    resp_error(r, nullptr, "failed to INCR on non-number value");
    EXPECT_EQ(r->type, RESP_TERROR);
    EXPECT_EQ(frame_of(), "-ERR\r\n");
}

TEST_F(replies_test, an_error_text_is_written_twice) {
    resp_error(r, "BAD", nullptr);
    EXPECT_EQ(frame_of(), "-BADBAD\r\n");
}

TEST_F(replies_test, texts_have_no_limit_of_their_own) {
    const std::string longer(1000, 'x');
    resp_error(r, longer.c_str(), nullptr);
    EXPECT_EQ(frame_of(), "-" + longer + longer + "\r\n");
}

TEST_F(replies_test, integers_are_written_in_full) {
    EXPECT_EQ(integer_frame(0), ":0\r\n");
    EXPECT_EQ(integer_frame(1), ":1\r\n");
    EXPECT_EQ(integer_frame(-5), ":-5\r\n");
    EXPECT_EQ(integer_frame(4294967295), ":4294967295\r\n");
    EXPECT_EQ(integer_frame(4294967296), ":4294967296\r\n");
    EXPECT_EQ(integer_frame(int64_t{1} << 40), ":1099511627776\r\n");
    EXPECT_EQ(integer_frame(INT64_MAX), ":9223372036854775807\r\n");
    EXPECT_EQ(integer_frame(INT64_MIN), ":-9223372036854775808\r\n");
}

TEST_F(replies_test, a_bulk_shows_all_bytes_of_its_string) {
    text value(std::string_view("a\0\r\nb", 5));
    resp_bulk(r, value);
    EXPECT_EQ(r->type, RESP_TBULK);
    EXPECT_EQ(frame_of(), std::string("$5\r\na\0\r\nb\r\n", 11));
}

TEST_F(replies_test, an_empty_string_is_an_empty_bulk) {
    text value("");
    resp_bulk(r, value);
    EXPECT_EQ(frame_of(), "$0\r\n\r\n");
}

TEST_F(replies_test, an_absent_string_is_an_empty_bulk) {
    resp_bulk(r, nullptr);
    EXPECT_EQ(frame_of(), "$0\r\n\r\n");
}

TEST_F(replies_test, nil_is_a_bulk_of_length_minus_one) {
    resp_bulk(r, RESP_NIL);
    EXPECT_EQ(frame_of(), "$-1\r\n");
}

TEST_F(replies_test, elements_follow_their_count_in_order) {
    text one("1");
    text three("three");
    resp_add(r, one);
    resp_add(r, RESP_NIL);
    resp_add(r, three);
    EXPECT_EQ(r->type, RESP_TMBULK);
    EXPECT_EQ(r->list.count, 3u);
    EXPECT_EQ(frame_of(), "*3\r\n$1\r\n1\r\n$-1\r\n$5\r\nthree\r\n");
}

TEST_F(replies_test, a_null_element_adds_nothing) {
    text a("a");
    text b("b");
    resp_add(r, a);
    resp_add(r, nullptr);
    resp_add(r, b);
    EXPECT_EQ(frame_of(), "*2\r\n$1\r\na\r\n$1\r\nb\r\n");
}

TEST_F(replies_test, null_elements_alone_make_an_empty_multibulk) {
    resp_add(r, nullptr);
    resp_add(r, nullptr);
    EXPECT_EQ(r->type, RESP_TMBULK);
    EXPECT_EQ(frame_of(), "*0\r\n");
}

TEST_F(replies_test, a_notification_begins_with_an_exclamation_mark) {
    text name("MSET");
    text key("k");
    text value("v");
    resp_add(r, name);
    resp_add(r, key);
    resp_add(r, value);
    EXPECT_EQ(event_of(), "!3\r\n$4\r\nMSET\r\n$1\r\nk\r\n$1\r\nv\r\n");
}

TEST_F(replies_test, a_notification_may_hold_nil_and_empty_elements) {
    text empty("");
    resp_add(r, RESP_NIL);
    resp_add(r, empty);
    EXPECT_EQ(event_of(), "!2\r\n$-1\r\n$0\r\n\r\n");
}

TEST_F(replies_test, frames_are_appended_to_what_is_there) {
    resp_status(r, nullptr);
    buffer_append(&out, "before", 6);
    EXPECT_NE(resp_write(r, &out), 0u);
    EXPECT_NE(resp_write(r, &out), 0u);
    EXPECT_EQ(written(), "before+OK\r\n+OK\r\n");
}

TEST_F(replies_test, a_reply_only_borrows_its_strings) {
    sstr value = sstr_new("value", 5);
    resp* list = resp_new();
    resp_add(list, value);
    resp_add(list, value);
    resp_free(list);
    resp* bulk = resp_new();
    resp_bulk(bulk, value);
    resp_free(bulk);
    EXPECT_EQ(bytes_of(value), "value");
    sstr_free(&value);
}

TEST_F(replies_test, many_elements_are_written_and_freed) {
    text value("x");
    std::string expected = "*100000\r\n";
    for (int i = 0; i < 100000; i++) {
        resp_add(r, value);
        expected += "$1\r\nx\r\n";
    }
    EXPECT_EQ(frame_of(), expected);
}

/* --- Frames that the buffer cannot take --- */

TEST_F(replies_test, a_frame_beyond_the_limit_is_reported) {
    buffer small;
    buffer_init(&small, 16, 64);
    text value(std::string(100, 'x'));
    resp_bulk(r, value);
    EXPECT_EQ(resp_write(r, &small), 0u);
    buffer_free(&small);
}

TEST_F(replies_test, a_multibulk_stops_at_the_element_that_does_not_fit) {
    buffer small;
    buffer_init(&small, 16, 64);
    text fits("fits");
    text does_not(std::string(100, 'x'));
    resp_add(r, fits);
    resp_add(r, does_not);
    resp_add(r, fits);
    EXPECT_EQ(resp_write(r, &small), 0u);
    EXPECT_EQ(std::string(small.data, small.length), "*3\r\n$4\r\nfits\r\n");
    buffer_reset(&small);
    EXPECT_EQ(resp_write_notify(r, &small), 0u);
    buffer_free(&small);
}

TEST_F(replies_test, every_kind_of_frame_reports_that_it_does_not_fit) {
    text value("v");
    for (int kind = 0; kind < 5; kind++) {
        resp* full = resp_new();
        switch (kind) {
        case 0:
            resp_status(full, nullptr);
            break;
        case 1:
            resp_error(full, nullptr, nullptr);
            break;
        case 2:
            resp_integer(full, 7);
            break;
        case 3:
            resp_bulk(full, RESP_NIL);
            break;
        default:
            resp_add(full, value);
            break;
        }
        buffer tiny;
        buffer_init(&tiny, 3, 3);
        EXPECT_EQ(resp_write(full, &tiny), 0u) << kind;
        EXPECT_EQ(tiny.length, 0u) << kind;
        buffer_free(&tiny);
        resp_free(full);
    }
}

TEST_F(replies_test, the_bound_is_never_below_the_size_of_the_frame) {
    text value(std::string(12345, 'x'));
    const auto expect_bound = [this](resp* full) {
        resp_write(full, &out);
        EXPECT_GE(resp_size_bound(full), out.length) << full->type;
        buffer_reset(&out);
        resp_free(full);
    };
    expect_bound(resp_new());
    resp* full = resp_new();
    resp_status(full, nullptr);
    expect_bound(full);
    full = resp_new();
    resp_status(full, std::string(50, 'x').c_str());
    full->text = "a status that is longer than any number could be";
    expect_bound(full);
    full = resp_new();
    resp_error(full, "an error that is longer than any number could be", nullptr);
    expect_bound(full);
    for (const int64_t number : {int64_t{0}, INT64_MIN, INT64_MAX}) {
        full = resp_new();
        resp_integer(full, number);
        expect_bound(full);
    }
    for (const sstr bulk : {static_cast<sstr>(nullptr), RESP_NIL, static_cast<sstr>(value)}) {
        full = resp_new();
        resp_bulk(full, bulk);
        expect_bound(full);
    }
}

TEST_F(replies_test, multibulks_have_no_bound) {
    resp_add(r, nullptr);
    EXPECT_EQ(resp_size_bound(r), UINT32_MAX);
}

/* --- Popped items --- */

TEST_F(replies_test, a_popped_item_is_traced_and_destroyed) {
    resp_bulk(r, sstr_new("item", 4));
    log.start();
    resp_pop_destroy(r);
    EXPECT_EQ(log.text(), "debug *** [POP]  destrog (item)\n");
}

TEST_F(replies_test, a_popped_item_is_destroyed_silently_above_debug_level) {
    resp_bulk(r, sstr_new("item", 4));
    log.start(LOG_INFO);
    resp_pop_destroy(r);
    EXPECT_EQ(log.text(), "");
}

TEST_F(replies_test, without_an_item_there_is_nothing_to_destroy) {
    log.start();
    resp_bulk(r, RESP_NIL);
    resp_pop_destroy(r);
    resp* absent = resp_new();
    resp_bulk(absent, nullptr);
    resp_pop_destroy(absent);
    resp_free(absent);
    EXPECT_EQ(log.text(), "");
}

/* --- Broken invariants --- */

TEST_F(replies_test, a_filled_reply_cannot_be_filled_again) {
    const char* const expression = "resp->type == RESP_TNONE";
    resp_integer(r, 1);
    EXPECT_ASSERTION(resp_status(r, nullptr), expression, "proto", 122);
    EXPECT_ASSERTION(resp_error(r, nullptr, nullptr), expression, "proto", 128);
    EXPECT_ASSERTION(resp_integer(r, 2), expression, "proto", 134);
    EXPECT_ASSERTION(resp_bulk(r, nullptr), expression, "proto", 140);
}

TEST_F(replies_test, a_multibulk_cannot_become_another_reply) {
    resp_add(r, nullptr);
    EXPECT_ASSERTION(resp_bulk(r, nullptr), "resp->type == RESP_TNONE", "proto", 140);
}

TEST_F(replies_test, elements_want_an_empty_reply_or_a_multibulk) {
    resp_bulk(r, nullptr);
    EXPECT_ASSERTION(resp_add(r, nullptr), "resp->type == RESP_TNONE || resp->type == RESP_TMBULK",
                     "proto", 147);
}

TEST_F(replies_test, a_notification_wants_a_multibulk) {
    EXPECT_ASSERTION(resp_write_notify(r, &out), "resp->type == RESP_TMBULK", "proto", 204);
    resp_status(r, nullptr);
    EXPECT_ASSERTION(resp_write_notify(r, &out), "resp->type == RESP_TMBULK", "proto", 204);
}

TEST_F(replies_test, destroying_a_popped_item_wants_a_bulk) {
    EXPECT_ASSERTION(resp_pop_destroy(r), "resp->type == RESP_TBULK", "proto", 220);
    resp_add(r, nullptr);
    EXPECT_ASSERTION(resp_pop_destroy(r), "resp->type == RESP_TBULK", "proto", 220);
}
