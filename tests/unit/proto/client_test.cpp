#include "proto/client.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <string>

#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_client.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

class client_records_test : public store_test {
  protected:
    /* The number in a client's first name, -1 when it has another. */
    static long number_of(const client* c) {
        const char prefix[] = "anynomous";
        if (strncmp(c->name, prefix, strlen(prefix)) != 0) {
            return -1;
        }
        char* end;
        const long number = strtol(c->name + strlen(prefix), &end, 10);
        return *end == '\0' && end - c->name == static_cast<long>(sstr_length(c->name)) ? number
                                                                                        : -1;
    }
};

} // namespace

TEST_F(client_records_test, are_named_by_the_order_in_which_connections_first_send_data) {
    test_client first;
    test_client second;
    test_client third;
    const long number = number_of(second.record());
    ASSERT_GE(number, 0);
    EXPECT_EQ(number_of(first.record()), number + 1);
    EXPECT_EQ(number_of(third.record()), number + 2);
}

TEST_F(client_records_test, the_first_of_a_process_is_number_zero) {
    test_client probe;
    if (::testing::UnitTest::GetInstance()->test_to_run_count() > 1) {
        GTEST_SKIP() << "other tests of this process have made clients";
    }
    EXPECT_EQ(bytes_of(probe.record()->name), "anynomous0");
    test_client second;
    test_client third;
    client_of(second.conn);
    EXPECT_EQ(bytes_of(third.record()->name), "anynomous2");
}

TEST_F(client_records_test, are_made_once_for_each_connection) {
    test_client peer;
    EXPECT_EQ(peer.conn->user_data, nullptr);
    client* c = client_of(peer.conn);
    EXPECT_EQ(peer.conn->user_data, c);
    EXPECT_EQ(client_of(peer.conn), c);
    EXPECT_EQ(c->conn, peer.conn);
    EXPECT_EQ(c->request, nullptr);
    EXPECT_EQ(c->reply, nullptr);
    EXPECT_EQ(c->observe_prev, nullptr);
    EXPECT_EQ(c->observe_next, nullptr);
}

TEST_F(client_records_test, a_connection_that_never_sends_takes_no_number) {
    test_client first;
    const long number = number_of(first.record());
    { test_client silent; }
    test_client second;
    EXPECT_EQ(number_of(second.record()), number + 1);
}

TEST_F(client_records_test, data_that_is_no_request_takes_a_number) {
    test_client first;
    const long number = number_of(first.record());
    test_client broken;
    broken.deliver("PING\r\n");
    test_client second;
    EXPECT_EQ(number_of(second.record()), number + 2);
}

TEST_F(client_records_test, numbers_are_not_used_again) {
    long number;
    {
        test_client first;
        number = number_of(first.record());
    }
    test_client second;
    EXPECT_EQ(number_of(second.record()), number + 1);
}

TEST_F(client_records_test, a_new_name_replaces_the_old_one) {
    test_client peer;
    client* c = peer.record();
    client_rename(c, "panel, left", 5);
    EXPECT_EQ(bytes_of(c->name), "panel");
    client_rename(c, "", 0);
    EXPECT_EQ(bytes_of(c->name), "");
    client_rename(c, "a\0b", 3);
    EXPECT_EQ(bytes_of(c->name), std::string_view("a\0b", 3));
}

TEST_F(client_records_test, ending_a_request_frees_what_there_is) {
    test_client peer;
    client* c = peer.record();
    client_end_request(c);
    c->reply = resp_new();
    resp_add(c->reply, RESP_NIL);
    client_end_request(c);
    EXPECT_EQ(c->reply, nullptr);
    buffer_append(&peer.conn->input, "*2\r\n$3\r\nGET\r\n$1\r\nk\r\n", 20);
    c->request = request_parse(&peer.conn->input);
    ASSERT_NE(c->request, nullptr);
    client_end_request(c);
    EXPECT_EQ(c->request, nullptr);
}

TEST_F(client_records_test, the_end_of_a_client_is_traced_under_its_name) {
    test_client peer;
    client_rename(peer.record(), "panel", 5);
    log.start();
    peer.disconnect();
    EXPECT_EQ(log.text(), "debug *** closing client(\"panel\")\n"
                          "debug *** client destroyed\n");
}

TEST_F(client_records_test, the_end_of_a_client_is_silent_above_debug_level) {
    test_client peer;
    peer.record();
    log.start(LOG_INFO);
    peer.disconnect();
    EXPECT_EQ(log.text(), "");
}

TEST_F(client_records_test, the_end_of_a_connection_without_a_client_is_silent) {
    test_client peer;
    log.start();
    peer.disconnect();
    EXPECT_EQ(log.text(), "");
}

TEST_F(client_records_test, a_pending_request_and_reply_go_with_the_client) {
    test_client peer;
    client* c = peer.record();
    buffer_append(&peer.conn->input, "*2\r\n$3\r\nGET\r\n$1\r\nk\r\n", 20);
    c->request = request_parse(&peer.conn->input);
    c->reply = resp_new();
    resp_add(c->reply, c->request->argv[0]);
    client_onclose(peer.conn, 0);
    EXPECT_EQ(peer.conn->user_data, nullptr);
}

TEST_F(client_records_test, a_client_that_ends_no_longer_observes) {
    test_client stays;
    observers_add(stays.record());
    test_client goes;
    observers_add(goes.record());
    client_onclose(goes.conn, CONNECTION_PEER_CLOSED);
    EXPECT_EQ(observers, stays.record());
    EXPECT_EQ(stays.record()->observe_prev, stays.record());
    EXPECT_EQ(stays.record()->observe_next, nullptr);
}

TEST_F(client_records_test, a_second_close_callback_finds_nothing_to_do) {
    test_client peer;
    peer.record();
    client_onclose(peer.conn, 0);
    log.start();
    client_onclose(peer.conn, 0);
    EXPECT_EQ(log.text(), "");
}
