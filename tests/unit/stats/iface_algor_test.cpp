#include "stats/iface_algor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_client.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

constexpr int AVERAGE = 0;
constexpr int MAXIMUM = 1;

/* Before any test has chosen. */
const int at_start = history_iface_algor;

const std::vector<const char*> other_words = {"",        "AVG",  "Max",  "mean", "average",
                                              "maximum", "avg ", " max", "0",    "1"};

class interface_algorithm_test : public store_test {
  protected:
    interface_algorithm_test() {
        object_register_string_hook(history_algor_hook);
    }
    ~interface_algorithm_test() override {
        history_iface_algor = at_start;
    }

    static void set(const char* key, std::string_view value) {
        object_set_string(make(key, OBJ_TSTRING), text(value));
    }
};

} // namespace

TEST_F(interface_algorithm_test, is_the_maximum_unless_chosen_otherwise) {
    EXPECT_EQ(at_start, MAXIMUM);
}

TEST_F(interface_algorithm_test, the_option_takes_two_words) {
    history_algor_option("avg");
    EXPECT_EQ(history_iface_algor, AVERAGE);
    history_algor_option("avg");
    EXPECT_EQ(history_iface_algor, AVERAGE);
    history_algor_option("max");
    EXPECT_EQ(history_iface_algor, MAXIMUM);
}

TEST_F(interface_algorithm_test, other_words_leave_the_choice_as_it_is) {
    for (const int choice : {AVERAGE, MAXIMUM}) {
        for (const char* word : other_words) {
            history_iface_algor = choice;
            history_algor_option(word);
            EXPECT_EQ(history_iface_algor, choice) << word;
            set("history-iface-algor", word);
            EXPECT_EQ(history_iface_algor, choice) << word;
        }
    }
}

TEST_F(interface_algorithm_test, a_client_chooses_by_writing_the_key) {
    test_client client;
    EXPECT_EQ(client.call({"set", "history-iface-algor", "avg"}), "+OK\r\n");
    EXPECT_EQ(history_iface_algor, AVERAGE);
    EXPECT_EQ(client.call({"mset", "other", "1", "history-iface-algor", "max"}), "+OK\r\n");
    EXPECT_EQ(history_iface_algor, MAXIMUM);
    EXPECT_EQ(client.call({"getset", "history-iface-algor", "avg"}), "$3\r\nmax\r\n");
    EXPECT_EQ(history_iface_algor, AVERAGE);
    EXPECT_EQ(client.call({"setex", "history-iface-algor", "100", "max"}), "+OK\r\n");
    EXPECT_EQ(history_iface_algor, MAXIMUM);
    EXPECT_EQ(client.call({"set", "history-iface-algor", "a"}), "+OK\r\n");
    EXPECT_EQ(client.call({"append", "history-iface-algor", "vg"}), ":3\r\n");
    EXPECT_EQ(history_iface_algor, AVERAGE);
}

TEST_F(interface_algorithm_test, other_keys_choose_nothing) {
    for (const char* key : {"_history-iface-algor", "history-iface-algor2", "history-iface-algo",
                            "History-iface-algor", "h"}) {
        set(key, "avg");
        EXPECT_EQ(history_iface_algor, MAXIMUM) << key;
    }
    object_hash_set(make("tessard.run", OBJ_THASH), text("history-iface-algor"), text("avg"));
    object_hash_set(make("history-iface-algor", OBJ_THASH), text("avg"), text("avg"));
    EXPECT_EQ(history_iface_algor, MAXIMUM);
}

TEST_F(interface_algorithm_test, the_hook_takes_a_key_without_value_and_returns_zero) {
    object* obj = make("history-iface-algor", OBJ_TSTRING);
    EXPECT_EQ(history_algor_hook(obj), 0);
    EXPECT_EQ(history_iface_algor, MAXIMUM);
    sstr_assign(&obj->string, "avg", 3);
    EXPECT_EQ(history_algor_hook(obj), 0);
    EXPECT_EQ(history_iface_algor, AVERAGE);
}
