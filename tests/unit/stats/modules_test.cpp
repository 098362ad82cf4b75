#include "stats/modules.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "stats/history.h"
#include "stats/netdev.h"
#include "stats/ping.h"
#include "store/dump.h"
#include "tests/support/big_endian.h"
#include "tests/unit/support/loop_by_tenths.h"
#include "tests/unit/support/own_world.h"
#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_clock.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

/* The host tool counts its calls, one for each tick. */
class statistics_modules_test : public store_test {
  protected:
    statistics_modules_test()
        : folder(::testing::TempDir() + "tessard-modules-XXXXXX"), old_path(getenv("PATH")),
          clock(1700000000) {
        EXPECT_NE(mkdtemp(folder.data()), nullptr);
        tool("hostmon", "echo x >>" + folder + "/calls");
        tool("conntrack", "echo 'entries 1'");
        setenv("PATH", (folder + ":" + old_path).c_str(), 1);
        loop_init(1024, LOOP_SELECT);
        modules_start();
    }

    ~statistics_modules_test() override {
        setenv("PATH", old_path.c_str(), 1);
        std::filesystem::remove_all(folder);
        loop_init(1024, LOOP_SELECT);
        object_reset();
        netdev_start();
        history_start();
        history_iface_algor = 1;
    }

    void tool(const std::string& name, const std::string& body) const {
        std::ofstream(folder + "/" + name) << "#!/bin/sh\n" << body << "\n";
        chmod((folder + "/" + name).c_str(), 0755);
    }

    /* How many ticks there were. */
    size_t calls() const {
        std::ifstream in(folder + "/calls");
        return static_cast<size_t>(std::count(std::istreambuf_iterator<char>(in), {}, 'x'));
    }

    std::string folder;
    std::string old_path;
    test_clock::frozen clock;
};

int never_asked_hook(object*, history_series*, int) {
    ADD_FAILURE() << "the fifth hook was taken";
    return HISTORY_NEXT;
}

int asked;
int asked_hook(object*, history_series*, int) {
    asked++;
    return HISTORY_NEXT;
}

} // namespace

TEST_F(statistics_modules_test, make_the_histories_of_processor_hosts_and_connections) {
    const std::pair<const char*, uint32_t> figures[] = {{"cpu", 1}, {"host", 4}, {"conn", 4}};
    const std::tuple<const char*, uint32_t, uint32_t> spans[] = {{"10m", 1, 600},
                                                                 {"2h", 12, 600},
                                                                 {"day", 360, 240},
                                                                 {"week", 1440, 420},
                                                                 {"mon", 2880, 900}};
    for (const auto& [figure, size] : figures) {
        for (const auto& [span, period, slots] : spans) {
            const std::string key = std::string(figure) + "." + span;
            const object* obj = object_lookup_type(key.c_str(), OBJ_TSTRING);
            ASSERT_NE(obj, nullptr) << key;
            EXPECT_EQ(bytes_of(obj->string), be32(0) + be32(period) + be32(slots) + be32(0) +
                                                 be32(0) + std::string(slots * size, '\0'))
                << key;
            EXPECT_NE(obj->flags & OBJ_PROTECTED, 0) << key;
        }
    }
}

TEST_F(statistics_modules_test, make_the_ping_table_and_nothing_else) {
    const object* snap = object_lookup_type("ping.snap", OBJ_TSTRING);
    ASSERT_NE(snap, nullptr);
    EXPECT_EQ(bytes_of(snap->string), std::string(400, '\0'));
    size_t keys = 0;
    htable_walk walk = htable_walk_start(object_keyspace());
    while (htable_walk_next(&walk) != nullptr) {
        keys++;
    }
    EXPECT_EQ(keys, 16u) << "15 histories and the ping table";
}

TEST_F(statistics_modules_test, statistics_tick_once_a_second) {
    /* The machine may have plug-ins and a panel. */
    const auto enter = [] { return own_plugin_folder() && cover_devices(); };
    run_in_own_world(enter, [&] {
        run_loop_by_tenths(45, [&](int tenth) {
            EXPECT_EQ(calls(), static_cast<size_t>(tenth / 10)) << tenth << " tenths of a second";
        });
    });
}

TEST_F(statistics_modules_test,
       at_the_same_moment_plug_ins_come_first_then_the_panel_then_the_figures) {
    const auto enter = [] { return own_plugin_folder() && cover_devices(); };
    run_in_own_world(enter, [&] {
        /* A node that nobody reads, which the panel complains about. */
        ASSERT_EQ(mkfifo("/dev/st7565", 0600), 0);
        run_loop_by_tenths(30, [&](int tenth) {
            if (tenth == 29) {
                std::ofstream("/usr/lib/lua/tplugins/new").close();
                chmod("/usr/lib/lua/tplugins/new", 0755);
                log.start();
            }
        });
        const std::vector<std::string> all = log.lines();
        const auto at = [&](const char* line) { return std::find(all.begin(), all.end(), line); };
        const auto plugin = at("debug *** insert (new) to task_list (-1)");
        const auto panel = at("error *** open (/dev/st7565) failed.");
        const auto figure = at("debug *** \"conn\"(string): updated to \"1\"");
        EXPECT_LT(plugin, panel);
        EXPECT_LT(panel, figure);
        EXPECT_LT(figure, all.end());
    });
}

TEST_F(statistics_modules_test, a_client_may_choose_the_interface_algorithm) {
    object_set_string(make("history-iface-algor", OBJ_TSTRING), text("avg"));
    EXPECT_EQ(history_iface_algor, 0);
}

TEST_F(statistics_modules_test, ping_reports_are_heard) {
    object_set_string(make("ping.data", OBJ_TSTRING),
                      text("id=1,max=40,min=10,avg=20,total=10,loss=0"));
    EXPECT_NE(object_lookup("ping1.day"), nullptr);
    EXPECT_EQ(bytes_of(object_lookup("ping.snap")->string).substr(0, 4), be32(40));
}

TEST_F(statistics_modules_test, one_dump_hook_is_taken_and_three_more_fit) {
    asked = 0;
    for (int i = 0; i < 3; i++) {
        register_dump_skip_hook(asked_hook);
    }
    register_dump_skip_hook(never_asked_hook);
    const std::string file = folder + "/dump";
    EXPECT_EQ(dump_keys(file.c_str(), "cpu.day"), 0);
    EXPECT_EQ(asked, 3);
    EXPECT_EQ(std::filesystem::file_size(file), 4 + 7 + 4 + 20u);
}

TEST_F(statistics_modules_test, histories_travel_through_dump_files) {
    const std::string file = folder + "/dump";
    history_series* series = object_lookup("conn.week")->aux;
    for (int i = 0; i < 1440; i++) {
        history_tick(series, "abcd");
    }
    EXPECT_EQ(dump_keys(file.c_str(), "conn.*"), 0);
    history_reset(series);
    EXPECT_EQ(load_keys(file.c_str()), 0);
    EXPECT_EQ(series->filled, 1u);
    EXPECT_EQ(bytes_of(object_lookup("conn.week")->string).substr(12, 12),
              be32(1) + be32(1) + "abcd");
}
