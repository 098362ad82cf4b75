/* The daemon against the model: the same random commands go to both, and every reply and every
 * pushed frame must be the same. A disagreement is shown with the commands that led to it; the seed
 * stands in the test's name. */

#include <strings.h>

#include <algorithm>
#include <deque>
#include <set>

#include "tests/support/commands.h"
#include "tests/system/model/frames.h"
#include "tests/system/model/random_commands.h"
#include "tests/system/support/daemon_test.h"

using namespace system_test;

namespace {

constexpr size_t OBSERVERS = 3;

/* Clients beside the observers that send commands. */
constexpr size_t PLAIN_CLIENTS = 2;

/* Commands after which the observers leave and come again, in another order. */
constexpr size_t COMMANDS_OF_AN_EPOCH = 2000;

size_t command_count() {
    return sandbox::emulator().empty() ? 15000 : 1500;
}

std::string printable(const std::vector<std::string>& words) {
    std::string line;
    for (const std::string& word : words) {
        line +=
            ::testing::PrintToString(word.size() > 60 ? word.substr(0, 60) + "..." : word) + " ";
    }
    return line;
}

class random_commands_test : public daemon_test, public ::testing::WithParamInterface<uint32_t> {
  protected:
    random_commands_test() : commands(GetParam()) {}

    void SetUp() override {
        daemon_test::SetUp();
        if (IsSkipped()) {
            return;
        }
        for (const char* path : {"/tmp/first.dump", "/tmp/second.dump"}) {
            write_file(path, "");
        }
    }

    /* The keys of the daemon that the model knows nothing of. */
    static std::set<std::string> other_keys(resp_client& client) {
        const std::vector<std::string> all = elements_of(client.call({"keys", "*"}));
        std::set<std::string> others(all.begin(), all.end());
        for (const std::string& key : random_commands::keys()) {
            others.erase(key);
        }
        return others;
    }

    /* Starts a daemon and fills it and a model with most keys. The order of keys depends on how
     * many there were at each moment, so when the daemon's own collectors added keys meanwhile all
     * is begun anew. */
    void fill_both() {
        for (int attempt = 0; attempt < 5; attempt++) {
            process& daemon = start();
            plain.clear();
            for (size_t i = 0; i < PLAIN_CLIENTS; i++) {
                plain.emplace_back();
            }
            const std::set<std::string> others = other_keys(plain[0]);
            model = std::make_unique<store_model>(others.size());
            const std::vector<std::string>& keys = random_commands::keys();
            for (size_t i = 0; i < keys.size() * 4 / 5 && !HasFailure(); i++) {
                run(commands.creation(keys[i * 29 % keys.size()]), plain[0]);
            }
            if (other_keys(plain[0]) == others || HasFailure()) {
                break;
            }
            daemon.stop();
            model = nullptr;
        }
        ASSERT_NE(model, nullptr) << "the daemon's own keys do not settle";
        /* No more growth of the table from here on, whatever the collectors add. */
        ASSERT_GT(model->key_count(), 49U);
        ASSERT_LT(model->key_count(), 120U);
    }

    void attach_observers() {
        for (size_t i = 0; i < OBSERVERS; i++) {
            observers.emplace_back();
            EXPECT_EQ(observers.back().call({"observe"}), "+OK\r\n");
        }
    }

    void detach_observers() {
        const size_t first = commands.below(OBSERVERS);
        for (size_t i = 0; i < OBSERVERS; i++) {
            observers[(first + i) % OBSERVERS].close();
            let_it_catch_up(plain[0]);
        }
        observers.clear();
    }

    /* Any of the clients; the observers send commands, too. */
    resp_client& any_client() {
        const size_t chosen = commands.below(observers.size() + plain.size());
        return chosen < observers.size() ? observers[chosen] : plain[chosen - observers.size()];
    }

    /* Lays down what is to be loaded: what was dumped there last, as it was or damaged. */
    std::string prepare_file(const std::string& path) {
        std::string bytes = read_file(path);
        if (!bytes.empty() && commands.below(3) == 0) {
            bytes.resize(commands.below(bytes.size()));
        }
        if (!bytes.empty() && commands.below(3) == 0) {
            bytes[commands.below(bytes.size())] = static_cast<char>(commands.below(256));
        }
        write_file(path, bytes);
        return bytes;
    }

    void expect_events(const std::vector<std::string>& events, const resp_client& issuer) {
        for (resp_client& observer : observers) {
            if (&observer == &issuer || HasFailure()) {
                continue;
            }
            for (const std::string& event : events) {
                EXPECT_EQ(next_frame(observer), event);
            }
            EXPECT_EQ(heard(observer, 0), "");
        }
    }

    /* Sends the command to both and compares. */
    void run(const std::vector<std::string>& words, resp_client& issuer) {
        recent.push_back(printable(words));
        if (recent.size() > 12) {
            recent.pop_front();
        }
        const bool dumps = words.size() > 2 && strcasecmp(words[0].c_str(), "dump") == 0;
        const bool loads = words.size() > 1 && strcasecmp(words[0].c_str(), "load") == 0;
        const std::string file = loads ? prepare_file(words[1]) : "";
        const store_model::outcome expected = model->run(words, !observers.empty(), file);
        ASSERT_TRUE(issuer.send(request_frame(words)));
        if (expected.reply.empty()) {
            let_it_catch_up(&issuer == &plain[0] ? plain[1] : plain[0]);
            EXPECT_EQ(heard(issuer, 0), "");
        } else {
            EXPECT_EQ(next_frame(issuer), expected.reply);
        }
        expect_events(expected.events, issuer);
        if (dumps) {
            EXPECT_EQ(read_file(words[1]), expected.dumped);
        }
        if (HasFailure()) {
            show_recent();
        }
    }

    void show_recent() {
        std::string lines;
        for (const std::string& line : recent) {
            lines += "    " + line + "\n";
        }
        ADD_FAILURE() << "the last commands were\n" << lines;
    }

    random_commands commands;
    std::unique_ptr<store_model> model;
    std::vector<resp_client> plain;
    std::vector<resp_client> observers;
    std::deque<std::string> recent;
};

} // namespace

TEST(store_model_test, knows_every_command_and_is_asked_it_but_observe) {
    for (const described_command& one : COMMAND_LIST) {
        const bool expected = one.name != std::string("observe");
        EXPECT_EQ(store_model::has(one.name), expected) << one.name;
        EXPECT_EQ(random_commands::has(one.name), expected) << one.name;
    }
}

TEST_P(random_commands_test, are_answered_and_announced_as_the_model_says) {
    fill_both();
    for (size_t i = 0; i < command_count() && !HasFailure(); i++) {
        /* Each epoch begins with a while that nobody observes. */
        const size_t in_epoch = i % std::min(COMMANDS_OF_AN_EPOCH, command_count() / 2);
        if (in_epoch == 0 && !observers.empty()) {
            detach_observers();
        }
        if (in_epoch == 50) {
            attach_observers();
        }
        run(commands.next(*model), any_client());
    }
    for (resp_client& client : plain) {
        EXPECT_EQ(heard(client, 0), "");
    }
}

INSTANTIATE_TEST_SUITE_P(seed, random_commands_test, ::testing::Values(1, 2, 3, 4, 5, 6));
