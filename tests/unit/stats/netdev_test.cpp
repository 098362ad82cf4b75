#include "stats/netdev.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ifaddrs.h>
#include <net/if.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "tests/support/big_endian.h"
#include "tests/support/netdev_text.h"
#include "tests/unit/stats/statistics_test.h"
#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_client.h"
#include "tests/unit/support/test_clock.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

typedef std::map<std::string, std::string> fields;

class interface_traffic_test : public store_test {
  protected:
    interface_traffic_test() {
        netdev_start();
        history_iface_algor = 1;
    }

    ~interface_traffic_test() override {
        object_reset();
        netdev_start();
        history_iface_algor = 1;
    }

    static void read(std::string lines) {
        FILE* file = fmemopen(lines.data(), lines.size(), "r");
        ASSERT_NE(file, nullptr);
        netdev_read(file);
        fclose(file);
    }

    /* One poll, so many microseconds after the last (any for the first). */
    void poll(uint32_t elapsed_us, const std::string& lines) {
        usec += elapsed_us;
        sec += usec / 1000000;
        usec %= 1000000;
        netdev_set_interval(sec, usec);
        read(NETDEV_HEADER + lines);
    }

    /* The same for "eth0" alone, whose counters grow by these. */
    void advance(uint32_t elapsed_us, const counts& more) {
        eth0.rxb += more.rxb;
        eth0.rxp += more.rxp;
        eth0.txb += more.txb;
        eth0.txp += more.txp;
        poll(elapsed_us, "  " + netdev_line("eth0", eth0));
    }

    static fields hash_of(const char* key) {
        fields all;
        const object* obj = object_lookup_type(key, OBJ_THASH);
        if (obj != nullptr) {
            htable_walk walk = htable_walk_start(obj->hash);
            while (const hash_field* f = static_cast<hash_field*>(htable_walk_next(&walk))) {
                all[f->name] = std::string(bytes_of(f->value));
            }
        }
        return all;
    }

    static std::string field_of(const char* key, const char* field) {
        return hash_of(key)[field];
    }

    /* The four smoothed rates: received bytes and packets, transmitted bytes and packets. */
    static std::vector<uint32_t> rates(const char* name = "eth0") {
        const iface_stat* iface = iface_find(name);
        if (iface == nullptr) {
            return {};
        }
        return {iface->rate.rxb, iface->rate.rxp, iface->rate.txb, iface->rate.txp};
    }

    static std::string ring(const char* key) {
        const object* obj = object_lookup_type(key, OBJ_TSTRING);
        return obj != nullptr ? std::string(bytes_of(obj->string)) : "(no ring)";
    }

    static std::string sample(const char* key, size_t n) {
        return ring(key).substr(20 + n * 16, 16);
    }
    static std::string filled(const char* key) {
        return ring(key).substr(12, 4);
    }

    uint32_t sec = 1700000000;
    uint32_t usec = 250000;
    counts eth0 = {100000, 1000, 50000, 500};
};

typedef std::vector<uint32_t> u32s;

/* Takes memory in pieces of a size until none is left, at most a quarter of a gigabyte of it. */
void take_memory(size_t size) {
    static size_t taken;
    while (taken < (1U << 28) && malloc(size) != nullptr) {
        taken += size;
    }
}

/* Leaves no memory for a record of an interface; what the pool holds already is left to it. For a
 * process that ends soon. */
bool exhaust_memory() {
    rlimit limit;
    if (getrlimit(RLIMIT_AS, &limit) != 0) {
        return false;
    }
    limit.rlim_cur = 0;
    if (setrlimit(RLIMIT_AS, &limit) != 0) {
        return false;
    }
    for (size_t size = 1 << 20; size > sizeof(iface_stat); size /= 2) {
        take_memory(size);
    }
    take_memory(sizeof(iface_stat));
    return malloc(sizeof(iface_stat)) == nullptr;
}

/* An emulator may not keep to the limit. */
bool memory_can_be_exhausted() {
    const pid_t child = fork();
    if (child == 0) {
        _exit(exhaust_memory() ? 0 : 1);
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && status == 0;
}

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

/* On a machine whose addresses are the test's own. */
class interface_flags_test : public statistics_machine_test {
  protected:
    /* One tick with these addresses: the interface's flags as it publishes them. */
    static std::string flags_after(std::vector<ifaddrs> addresses) {
        for (size_t i = 0; i + 1 < addresses.size(); i++) {
            addresses[i].ifa_next = &addresses[i + 1];
        }
        machine.addresses = addresses.data();
        netdev_poll_flags();
        netdev_poll();
        machine.addresses = nullptr;
        const object* hash = object_lookup_type("eth0", OBJ_THASH);
        const hash_field* flags = hash != nullptr ? object_hash_field(hash, "flags") : nullptr;
        return flags != nullptr ? std::string(bytes_of(flags->value)) : "(none)";
    }

    static ifaddrs address(const char* interface, unsigned flags) {
        ifaddrs one = {};
        one.ifa_name = const_cast<char*>(interface);
        one.ifa_flags = flags;
        return one;
    }
};

} // namespace

/* --- The first polls --- */

TEST_F(interface_traffic_test, the_first_poll_stores_counters_and_no_rates) {
    poll(0, netdev_line("eth0", {1296, 14, 5000000000, 28}));
    EXPECT_EQ(hash_of("eth0"), (fields{{"rxb", "1296"},
                                       {"rxp", "14"},
                                       {"txb", "5000000000"},
                                       {"txp", "28"},
                                       {"rxbrate", "0"},
                                       {"rxprate", "0"},
                                       {"txbrate", "0"},
                                       {"txprate", "0"},
                                       {"flags", "0"}}));
    EXPECT_EQ(filled("eth0.10m"), be32(0)) << "there is nothing to keep yet";
}

TEST_F(interface_traffic_test, the_second_poll_shows_half_the_rate_and_later_ones_approach_it) {
    advance(0, {});
    for (const auto& [rxb, rxp, txb, txp] : {std::tuple(500u, 5u, 1000u, 50u),
                                             {750u, 7u, 1500u, 75u},
                                             {875u, 8u, 1750u, 87u},
                                             {937u, 9u, 1875u, 93u}}) {
        advance(1000000, {1000, 10, 2000, 100});
        EXPECT_EQ(rates(), (u32s{rxb, rxp, txb, txp}));
    }
    EXPECT_EQ(hash_of("eth0"), (fields{{"rxb", "104000"},
                                       {"rxp", "1040"},
                                       {"txb", "58000"},
                                       {"txp", "900"},
                                       {"rxbrate", "937"},
                                       {"rxprate", "9"},
                                       {"txbrate", "1875"},
                                       {"txprate", "93"},
                                       {"flags", "0"}}));
}

TEST_F(interface_traffic_test, a_rate_of_nothing_falls_by_halves) {
    advance(0, {});
    advance(1000000, {1000, 2, 0, 0});
    for (const uint32_t rate : {250u, 125u, 62u, 31u, 15u, 7u, 3u, 1u, 0u, 0u}) {
        advance(1000000, {});
        EXPECT_EQ(rates()[0], rate);
    }
}

TEST_F(interface_traffic_test, an_interface_that_appears_later_is_counted_from_zero) {
    advance(0, {});
    poll(1000000, netdev_line("eth1", {3000, 20, 700, 8}));
    EXPECT_EQ(rates("eth1"), (u32s{1500, 10, 350, 4}));
    poll(1000000, netdev_line("eth2", {1000000000, 20, 700, 8}));
    EXPECT_EQ(rates("eth2"), (u32s{0, 0, 0, 0}))
        << "what it counted before is too much to be a second's";
    EXPECT_EQ(field_of("eth2", "rxb"), "1000000000");
}

/* --- The interval --- */

TEST_F(interface_traffic_test, rates_are_per_second_and_cut_to_whole_numbers) {
    /* Of 1000 bytes in so many microseconds, half of the whole number shows. */
    for (const auto& [elapsed, rate] : {std::pair(500000u, 1000u),
                                        {2000000u, 250u},
                                        {1500000u, 333u},
                                        {999999u, 500u},
                                        {1000001u, 499u},
                                        {3000000u, 166u},
                                        {100000u, 5000u}}) {
        object_reset();
        netdev_start();
        advance(0, {});
        advance(elapsed, {1000, 0, 0, 0});
        EXPECT_EQ(netdev_interval_us, elapsed);
        EXPECT_EQ(rates()[0], rate) << elapsed;
    }
}

TEST_F(interface_traffic_test, the_interval_is_what_has_passed_since_the_last_poll) {
    EXPECT_EQ(netdev_interval_us, 0u);
    netdev_set_interval(100, 900000);
    EXPECT_EQ(netdev_interval_us, 0u) << "the first poll";
    netdev_set_interval(101, 900000);
    EXPECT_EQ(netdev_interval_us, 1000000u);
    netdev_set_interval(102, 100000);
    EXPECT_EQ(netdev_interval_us, 200000u) << "less than a second although the seconds differ";
    netdev_set_interval(102, 100001);
    EXPECT_EQ(netdev_interval_us, 1u);
    netdev_set_interval(102, 100001);
    EXPECT_EQ(netdev_interval_us, 0u) << "no time has passed";
    netdev_set_interval(102, 100000);
    EXPECT_EQ(netdev_interval_us, 0u) << "the clock was set back";
    netdev_set_interval(50, 0);
    EXPECT_EQ(netdev_interval_us, 0u);
    netdev_set_interval(51, 0);
    EXPECT_EQ(netdev_interval_us, 1000000u) << "and goes on from there";
}

TEST_F(interface_traffic_test,
       the_interval_is_32_bits_of_microseconds_and_positive_as_a_signed_number) {
    for (const auto& [elapsed_sec, elapsed_usec, interval] :
         {std::tuple(2147u, 483647u, 2147483647u),
          {2147u, 483648u, 0u},
          {4294u, 967295u, 0u},
          {4294u, 967296u, 0u},
          {4294u, 967297u, 1u},
          {4295u, 0u, 32704u},
          {1000000000u, 0u, 0u}}) {
        netdev_start();
        netdev_set_interval(1000, 0);
        netdev_set_interval(1000 + elapsed_sec, elapsed_usec);
        EXPECT_EQ(netdev_interval_us, interval) << elapsed_sec << "." << elapsed_usec;
    }
    /* The seconds' own turn of 32 bits. */
    netdev_start();
    netdev_set_interval(4294967295u, 500000);
    netdev_set_interval(0, 500000);
    EXPECT_EQ(netdev_interval_us, 1000000u);
}

TEST_F(interface_traffic_test, only_a_time_of_all_zero_is_no_time) {
    netdev_set_interval(0, 0);
    netdev_set_interval(7, 0);
    EXPECT_EQ(netdev_interval_us, 0u);
    netdev_start();
    netdev_set_interval(0, 5);
    netdev_set_interval(0, 25);
    EXPECT_EQ(netdev_interval_us, 20u);
}

TEST_F(interface_traffic_test, without_an_interval_counters_are_stored_and_rates_stay) {
    advance(0, {});
    advance(1000000, {1000, 10, 2000, 100});
    const std::string before = ring("eth0.10m");
    advance(0, {400, 40, 4, 4});
    EXPECT_EQ(rates(), (u32s{500, 5, 1000, 50}));
    EXPECT_EQ(field_of("eth0", "rxb"), "101400");
    EXPECT_EQ(ring("eth0.10m"), before);
    advance(1000000, {600, 0, 0, 0});
    EXPECT_EQ(rates(), (u32s{550, 2, 500, 25})) << "counted from the counters of that poll";
}

/* --- Wraps and resets --- */

TEST_F(interface_traffic_test, a_delta_of_a_thousand_million_skips_the_polls_rates) {
    for (uint64_t counts::*counter : {&counts::rxb, &counts::rxp, &counts::txb, &counts::txp}) {
        object_reset();
        netdev_start();
        advance(0, {});
        advance(1000000, {1000, 10, 2000, 100});
        counts more = {5, 5, 5, 5};
        more.*counter = 1000000000;
        const std::string before = ring("eth0.10m");
        advance(1000000, more);
        EXPECT_EQ(rates(), (u32s{500, 5, 1000, 50}));
        EXPECT_EQ(ring("eth0.10m"), before);
        EXPECT_EQ(filled("eth0.10m"), be32(1));
        EXPECT_EQ(field_of("eth0", "rxb"), std::to_string(eth0.rxb))
            << "the counters are stored all the same";
        EXPECT_EQ(field_of("eth0", "rxp"), std::to_string(eth0.rxp));
        EXPECT_EQ(field_of("eth0", "txb"), std::to_string(eth0.txb));
        EXPECT_EQ(field_of("eth0", "txp"), std::to_string(eth0.txp));
        advance(1000000, {1000, 10, 2000, 100});
        EXPECT_EQ(rates(), (u32s{750, 7, 1500, 75})) << "counted from them";
    }
}

TEST_F(interface_traffic_test, a_delta_just_below_is_a_rate) {
    advance(0, {});
    advance(1000000, {999999999, 999999999, 999999999, 999999999});
    EXPECT_EQ(rates(), u32s(4, 499999999));
}

TEST_F(interface_traffic_test, a_counter_that_goes_backwards_is_a_reset) {
    for (uint64_t counts::*counter : {&counts::rxb, &counts::rxp, &counts::txb, &counts::txp}) {
        for (const uint64_t back : {1, 500}) {
            object_reset();
            netdev_start();
            eth0 = {100000, 1000, 50000, 500};
            advance(0, {});
            advance(1000000, {1000, 10, 2000, 100});
            eth0.*counter -= back;
            advance(1000000, {});
            EXPECT_EQ(rates(), (u32s{500, 5, 1000, 50}));
        }
    }
}

TEST_F(interface_traffic_test, byte_counters_are_compared_by_their_low_words) {
    eth0 = {0xFFFFFFF0, 0, 0x1FFFFFFFC, 0};
    advance(0, {});
    advance(1000000, {0x20, 0, 0x10, 0});
    EXPECT_EQ(rates(), (u32s{16, 0, 8, 0})) << "across the low word's end";
    EXPECT_EQ(field_of("eth0", "rxb"), "4294967312");
    advance(1000000, {0x100000000 + 100, 0, 0, 0});
    EXPECT_EQ(rates(), (u32s{58, 0, 4, 0})) << "4 GiB more are not seen";
    EXPECT_EQ(field_of("eth0", "rxb"), "8589934708");
}

TEST_F(interface_traffic_test, a_counter_of_32_bits_may_wrap) {
    eth0 = {4294967290, 4294967290, 4294967290, 4294967290};
    advance(0, {});
    eth0 = {10, 10, 10, 10};
    advance(1000000, {});
    EXPECT_EQ(rates(), (u32s{8, 8, 8, 8}));
    EXPECT_EQ(field_of("eth0", "rxb"), "10");
}

TEST_F(interface_traffic_test, packet_counters_are_cut_to_32_bits) {
    eth0 = {18446744073709551615u, 4294967296 + 7, 4294967296, 2 * 4294967296 + 9};
    advance(0, {});
    EXPECT_EQ(field_of("eth0", "rxb"), "18446744073709551615");
    EXPECT_EQ(field_of("eth0", "rxp"), "7");
    EXPECT_EQ(field_of("eth0", "txb"), "4294967296");
    EXPECT_EQ(field_of("eth0", "txp"), "9");
}

TEST_F(interface_traffic_test, rates_are_computed_in_64_bits) {
    /* 999999996 bytes in a quarter of a second are 3999999984 a second. */
    advance(0, {});
    advance(250000, {999999996, 0, 0, 0});
    EXPECT_EQ(rates()[0], 1999999992u);
    advance(250000, {999999996, 0, 0, 0});
    EXPECT_EQ(rates()[0], 2999999988u);
    advance(250000, {999999996, 0, 0, 0});
    EXPECT_EQ(rates()[0], 3499999986u) << "the sum of both rates needs 33 bits";
    EXPECT_EQ(field_of("eth0", "rxbrate"), "3499999986");
    /* 100000000 bytes in a thousandth are 100000000000 a second, 1215752192 in 32 bits. */
    advance(1000, {100000000, 0, 0, 0});
    EXPECT_EQ(rates()[0], 2357876089u) << "the half of 4715752178";
}

/* --- Lines --- */

TEST_F(interface_traffic_test, only_names_with_a_known_beginning_are_of_interest) {
    const std::vector<std::string> wanted = {"eth",    "eth0",    "ethernet", "br-lan", "br-lan2",
                                             "br-wan", "br-wan1", "pptp-wan", "pptp-",  "pppoe-wan",
                                             "p-1",    "p-",      "l2tp-wan"};
    const std::vector<std::string> others = {
        "lo",  "wlan0", "ppp0", "pppoe", "pptp", "p",     "l2tp", "br-",    "br-guest",
        "br0", "ETH0",  "Eth1", "xeth0", "et",   "veth0", "tun0", "Br-lan", "P-1"};
    std::string lines;
    for (const std::string& name : wanted) {
        lines += netdev_line(name, {1, 2, 3, 4});
    }
    for (const std::string& name : others) {
        lines += netdev_line(name, {1, 2, 3, 4});
    }
    poll(0, lines);
    for (const std::string& name : wanted) {
        EXPECT_NE(iface_find(name.c_str()), nullptr) << name;
        EXPECT_EQ(hash_of(name.c_str()).size(), 9u) << name;
    }
    for (const std::string& name : others) {
        EXPECT_EQ(object_lookup(name.c_str()), nullptr) << name;
        EXPECT_EQ(object_lookup((name + ".10m").c_str()), nullptr) << name;
    }
    EXPECT_EQ(iface_find("wlan0"), nullptr);
    EXPECT_EQ(iface_find("lo"), nullptr);
}

TEST_F(interface_traffic_test, lines_with_a_bar_are_skipped) {
    poll(0, "eth0|: 1 2 3 4 5 6 7 8 9 10\neth1: 1 2 3 4 5 6 7 8 9 10 |\n");
    EXPECT_EQ(iface_find("eth0"), nullptr);
    EXPECT_EQ(iface_find("eth1"), nullptr);
}

TEST_F(interface_traffic_test, blanks_before_and_after_the_colon_make_no_difference) {
    poll(0, "eth0:1 2 3 4 5 6 7 8 9 10 11\n      eth1:   21 22 23 24 25 26 27 28 29 "
            "30\n\teth2:\t31 32 33 34 "
            "35 36 37 38 39 "
            "40");
    EXPECT_EQ(field_of("eth0", "rxb") + " " + field_of("eth0", "rxp") + " " +
                  field_of("eth0", "txb") + " " + field_of("eth0", "txp"),
              "1 2 9 10");
    EXPECT_EQ(field_of("eth1", "rxb") + " " + field_of("eth1", "rxp") + " " +
                  field_of("eth1", "txb") + " " + field_of("eth1", "txp"),
              "21 22 29 30");
    EXPECT_EQ(field_of("eth2", "rxb") + " " + field_of("eth2", "rxp") + " " +
                  field_of("eth2", "txb") + " " + field_of("eth2", "txp"),
              "31 32 39 40")
        << "the last line may have no end";
}

TEST_F(interface_traffic_test, what_is_no_line_is_harmless) {
    poll(0, "\n   \n:\n: 1 2 3\nnonsense\n\t\t\n\x01\xff\xfe 7 7 7\n" +
                netdev_line("eth0", {1, 2, 3, 4}));
    EXPECT_EQ(field_of("eth0", "txp"), "4");
    read("");
    read(std::string(5000, 'x') + "\n" + std::string(5000, ' ') +
         netdev_line("eth1", {1, 2, 3, 4}));
    EXPECT_EQ(field_of("eth1", "txp"), "4");
    read(std::string("eth2\0: 1 2 3 4 5 6 7 8 9 10\n", 28));
    std::string long_name = "eth" + std::string(2000, 'x') + ": 1 2 3 4 5 6 7 8 9 10\n";
    read(long_name);
}

TEST_F(interface_traffic_test, figures_that_are_missing_count_as_zero) {
    poll(0, "eth0: 5 6\n");
    EXPECT_EQ(field_of("eth0", "rxb"), "5");
    EXPECT_EQ(field_of("eth0", "rxp"), "6");
    EXPECT_EQ(field_of("eth0", "txb"), "0");
    EXPECT_EQ(field_of("eth0", "txp"), "0");
}

TEST_F(interface_traffic_test, figures_are_read_up_to_the_first_that_is_none) {
    poll(0, "eth0: 5 6 7 x 9 10 11 12 13 14\n"
            "eth1: 5 6 7 8 9 10 11 12 13 many\n"
            "eth2: 5 - 7 8 9 10 11 12 13 14\n"
            "eth3: 0x5 6 7 8 9 10 11 12 13 14\n"
            "eth4: none\n"
            "eth5:5.6 7\n");
    const std::pair<const char*, const char*> expected[] = {
        {"eth0", "5 6 0 0"}, {"eth1", "5 6 13 0"}, {"eth2", "5 0 0 0"},
        {"eth3", "0 0 0 0"}, {"eth4", "0 0 0 0"},  {"eth5", "5 0 0 0"}};
    for (const auto& [name, figures] : expected) {
        EXPECT_EQ(field_of(name, "rxb") + " " + field_of(name, "rxp") + " " +
                      field_of(name, "txb") + " " + field_of(name, "txp"),
                  figures)
            << name;
    }
}

TEST_F(interface_traffic_test, figures_may_have_a_sign_and_saturate_at_64_bits) {
    poll(0,
         "eth0: -1 -2 3-4+5 6 7 8 +9 -10 \n"
         "eth1: 99999999999999999999 99999999999999999999 3 4 5 6 7 8 -99999999999999999999 10\n");
    EXPECT_EQ(field_of("eth0", "rxb"), "18446744073709551615");
    EXPECT_EQ(field_of("eth0", "rxp"), "4294967294");
    EXPECT_EQ(field_of("eth0", "txb"), "9") << "a sign begins the next figure without a blank";
    EXPECT_EQ(field_of("eth0", "txp"), "4294967286");
    EXPECT_EQ(field_of("eth1", "rxb"), "18446744073709551615");
    EXPECT_EQ(field_of("eth1", "rxp"), "4294967295");
    EXPECT_EQ(field_of("eth1", "txb"), "18446744073709551615");
    EXPECT_EQ(field_of("eth1", "txp"), "10");
}

TEST_F(interface_traffic_test, a_name_ends_at_a_blank_a_colon_or_a_nul_and_counts_without_figures) {
    poll(0, "\v\f\r eth0 : 1 2 3 4 5 6 7 8 9 10\neth1\t: 1 2\neth2:eth3: 1 2\neth4");
    read(std::string("eth5: 1 2\0 3 4 5 6 7 8 9 10\n", 28));
    EXPECT_EQ(field_of("eth0", "rxb"), "0") << "the colon does not follow the name";
    EXPECT_EQ(field_of("eth1\t", "rxb"), "1");
    EXPECT_EQ(field_of("eth2", "rxb"), "0");
    EXPECT_EQ(field_of("eth4", "rxb"), "0");
    EXPECT_EQ(field_of("eth5", "rxp"), "2");
    EXPECT_EQ(iface_find("eth3"), nullptr);
    EXPECT_EQ(iface_find("eth1"), nullptr);
}

TEST_F(interface_traffic_test, names_are_kept_to_31_characters) {
    const std::string name = "eth-4567890123456789012345678901";
    ASSERT_EQ(name.size(), 32u);
    poll(0, netdev_line(name, {1, 2, 3, 4}));
    const iface_stat* iface = iface_find(name.c_str());
    ASSERT_NE(iface, nullptr);
    EXPECT_EQ(iface->name, name.substr(0, 31));
    EXPECT_EQ(hash_of(name.c_str()).size(), 9u) << "the hash bears the interface's whole name";
    EXPECT_EQ(ring((name.substr(0, 31) + ".day").c_str()).size(), 20u + 240 * 16);
    poll(1000000, netdev_line(name, {1001, 2, 3, 4}));
    EXPECT_EQ(iface->rate.rxb, 500u) << "found again";
    EXPECT_EQ(iface->next, nullptr);
}

/* --- Records --- */

TEST_F(interface_traffic_test, records_are_found_in_any_case_of_letters) {
    poll(0, netdev_line("eth0", {1, 2, 3, 4}) + netdev_line("br-lan", {5, 6, 7, 8}));
    const iface_stat* eth = iface_find("eth0");
    ASSERT_NE(eth, nullptr);
    EXPECT_EQ(iface_find("ETH0"), eth);
    EXPECT_EQ(iface_find("Br-LAN"), iface_find("br-lan"));
    EXPECT_NE(iface_find("br-lan"), eth);
    for (const char* name : {"", "eth", "eth00", "br-la", "br-lan."}) {
        EXPECT_EQ(iface_find(name), nullptr) << name;
    }
    EXPECT_EQ(iface_find(nullptr), nullptr);
}

TEST_F(interface_traffic_test, records_are_found_in_any_order) {
    const std::vector<std::string> names = {"eth0", "eth1", "br-lan", "p-1", "l2tp-wan"};
    std::string lines;
    for (const std::string& name : names) {
        lines += netdev_line(name, {1, 2, 3, 4});
    }
    poll(0, lines);
    for (const std::string& first : names) {
        for (const std::string& second : names) {
            EXPECT_EQ(iface_find(first.c_str())->name, first);
            EXPECT_EQ(iface_find("eth2"), nullptr);
            EXPECT_EQ(iface_find(second.c_str())->name, second) << "behind " << first;
        }
    }
}

TEST_F(interface_traffic_test, the_newest_record_heads_the_list) {
    poll(0, netdev_line("eth0", {}) + netdev_line("eth1", {}));
    poll(1000000, netdev_line("eth2", {}) + netdev_line("eth0", {}));
    const iface_stat* newest = iface_find("eth2");
    ASSERT_NE(newest, nullptr);
    EXPECT_EQ(newest->prev, nullptr);
    ASSERT_NE(newest->next, nullptr);
    EXPECT_STREQ(newest->next->name, "eth1");
    EXPECT_EQ(newest->next->prev, newest);
    ASSERT_NE(newest->next->next, nullptr);
    EXPECT_STREQ(newest->next->next->name, "eth0");
    EXPECT_EQ(newest->next->next->prev, newest->next);
    EXPECT_EQ(newest->next->next->next, nullptr);
}

TEST_F(interface_traffic_test, an_interface_that_disappears_keeps_its_last_figures) {
    advance(0, {});
    advance(1000000, {1000, 10, 2000, 100});
    const fields before = hash_of("eth0");
    const std::string history = ring("eth0.10m");
    poll(1000000, netdev_line("br-lan", {1, 2, 3, 4}));
    poll(1000000, "");
    EXPECT_EQ(hash_of("eth0"), before);
    EXPECT_EQ(ring("eth0.10m"), history);
    advance(1000000, {4000, 0, 0, 0});
    EXPECT_EQ(rates()[0], 2250u) << "when it is back, the whole difference is the last second's";
}

TEST_F(interface_traffic_test, without_memory_for_a_record_the_process_ends) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the address sanitizer's heap has no such end";
#endif
    if (!memory_can_be_exhausted()) {
        GTEST_SKIP() << "memory cannot be limited here";
    }
    /* What a hash needs is in the pool from then on, so that it is the record that finds no memory.
     */
    poll(0, netdev_line("eth0", {}));
    object_delete(object_lookup("eth0"));
    static char waiting[4096];
    std::string lines = netdev_line("eth1", {});
    FILE* file = fmemopen(lines.data(), lines.size(), "r");
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(setvbuf(file, waiting, _IOFBF, sizeof waiting), 0);
    EXPECT_EXIT(
        {
            if (exhaust_memory()) {
                netdev_read(file);
            }
            _exit(0);
        },
        testing::KilledBySignal(SIGABRT), "^out of memory\n$");
    fclose(file);
}

/* --- The hash --- */

TEST_F(interface_traffic_test, flags_are_written_as_they_stand) {
    advance(0, {});
    EXPECT_EQ(field_of("eth0", "flags"), "0");
    iface_find("eth0")->flags = 3;
    advance(1000000, {});
    EXPECT_EQ(field_of("eth0", "flags"), "3");
}

TEST_F(interface_traffic_test, an_observer_gets_one_frame_for_each_interface_and_poll) {
    test_client observer;
    observer.call({"observe"});
    for (int i = 0; i < 3; i++) {
        poll(i == 0 ? 0 : 1000000, netdev_line("eth0", {1, 2, 3, 4}) +
                                       netdev_line("lo", {1, 2, 3, 4}) + netdev_line("br-lan", {}));
        const std::string frames = observer.received();
        EXPECT_EQ(std::count(frames.begin(), frames.end(), '!'), 2) << frames;
        EXPECT_EQ(frames.find("!20\r\n$5\r\nHMSET\r\n$4\r\neth0\r\n"), 0u) << frames;
        EXPECT_NE(frames.find("!20\r\n$5\r\nHMSET\r\n$6\r\nbr-lan\r\n"), std::string::npos)
            << frames;
        for (const char* field :
             {"rxb", "rxp", "txb", "txp", "txbrate", "txprate", "rxbrate", "rxprate", "flags"}) {
            EXPECT_NE(frames.find(std::string("\r\n") + field + "\r\n"), std::string::npos)
                << field;
        }
    }
}

TEST_F(interface_traffic_test, a_key_of_another_type_is_left_alone_and_the_rest_goes_on) {
    object* obj = make("eth0", OBJ_TSTRING);
    sstr_assign(&obj->string, "mine", 4);
    poll(0, netdev_line("eth0", {0, 0, 0, 0}) + netdev_line("eth1", {1, 2, 3, 4}));
    poll(1000000, netdev_line("eth0", {1000, 0, 0, 0}) + netdev_line("eth1", {1, 2, 3, 4}));
    EXPECT_EQ(ring("eth0"), "mine");
    EXPECT_EQ(rates(), (u32s{500, 0, 0, 0}));
    EXPECT_EQ(sample("eth0.10m", 0), be32(500) + std::string(12, '\0'));
    EXPECT_EQ(hash_of("eth1").size(), 9u);
}

TEST_F(interface_traffic_test, a_hash_that_a_client_deleted_comes_back_with_the_next_poll) {
    advance(0, {});
    object_delete(object_lookup("eth0"));
    advance(1000000, {});
    EXPECT_EQ(hash_of("eth0").size(), 9u);
}

TEST_F(interface_traffic_test, fields_of_clients_stay) {
    advance(0, {});
    object_hash_set(make("eth0", OBJ_THASH), text("label"), text("uplink"));
    advance(1000000, {});
    EXPECT_EQ(hash_of("eth0").size(), 10u);
    EXPECT_EQ(field_of("eth0", "label"), "uplink");
}

/* --- Histories --- */

TEST_F(interface_traffic_test, every_interface_has_five_histories_of_16_byte_samples) {
    poll(0, netdev_line("pppoe-wan", {}));
    const std::pair<const char*, uint32_t> spans[] = {{"pppoe-wan.10m", 600},
                                                      {"pppoe-wan.2h", 600},
                                                      {"pppoe-wan.day", 240},
                                                      {"pppoe-wan.week", 420},
                                                      {"pppoe-wan.mon", 900}};
    for (const auto& [key, slots] : spans) {
        EXPECT_EQ(ring(key).size(), 20 + slots * 16) << key;
        EXPECT_EQ(ring(key).substr(8, 4), be32(slots)) << key;
    }
}

TEST_F(interface_traffic_test, a_sample_is_the_four_rates_in_network_byte_order) {
    advance(0, {});
    advance(1000000, {0x02040608, 0x2468, 0x0A0C0E, 0x62});
    EXPECT_EQ(sample("eth0.10m", 0),
              std::string("\x01\x02\x03\x04\0\0\x12\x34\0\x05\x06\x07\0\0\0\x31", 16));
    EXPECT_EQ(filled("eth0.10m"), be32(1));
    EXPECT_EQ(filled("eth0.2h"), be32(0));
}

TEST_F(interface_traffic_test, the_maximum_of_every_rate_is_kept_for_each_sample) {
    advance(0, {});
    /* Rates after each poll: 500, 750, 375, 187, 93 ... and for what is sent the other way round.
     */
    for (int i = 0; i < 12; i++) {
        advance(1000000, {i < 2 ? 1000u : 0u, 0, i == 11 ? 600u : 0u, 0});
    }
    EXPECT_EQ(filled("eth0.2h"), be32(1));
    EXPECT_EQ(sample("eth0.2h", 0), be32(750) + be32(0) + be32(300) + be32(0));
    for (int i = 0; i < 12; i++) {
        advance(1000000, {0, 0, 0, 0});
    }
    EXPECT_EQ(filled("eth0.2h"), be32(2));
    EXPECT_EQ(sample("eth0.2h", 1), be32(0) + be32(0) + be32(150) + be32(0))
        << "the accumulation began anew";
    EXPECT_EQ(sample("eth0.10m", 1), be32(750) + std::string(12, '\0'));
    EXPECT_EQ(sample("eth0.10m", 2), be32(375) + std::string(12, '\0')) << "one tick, one rate";
}

TEST_F(interface_traffic_test,
       the_running_average_takes_the_first_rate_whole_and_halves_from_there) {
    history_iface_algor = 0;
    advance(0, {});
    /* Rates: 0, 500, 250, 125, 62, 531, 265, 132, 66, 33, 16, 8. */
    const uint64_t bytes[12] = {0, 1000, 0, 0, 0, 1000, 0, 0, 0, 0, 0, 0};
    /* (500 + 250) / 2 = 375, then 250, 156, 343, 304, 218, 142, 87, 51, 29. */
    for (const uint64_t n : bytes) {
        advance(1000000, {n, 0, 2, 0});
    }
    EXPECT_EQ(sample("eth0.2h", 0).substr(0, 4), be32(29));
    EXPECT_EQ(sample("eth0.2h", 0).substr(8, 4), be32(1)) << "1 and 1 stay 1";
}

TEST_F(interface_traffic_test, a_choice_takes_effect_with_the_next_poll) {
    advance(0, {});
    /* The maximum of 500, 250 ... is 500; from the seventh on the average is taken: of 500 and 7,
     * 253. */
    advance(1000000, {1000, 0, 0, 0});
    for (int i = 0; i < 5; i++) {
        advance(1000000, {});
    }
    EXPECT_EQ(rates()[0], 15u);
    EXPECT_EQ(iface_find("eth0")->accumulated[1].rxb, 500u);
    history_iface_algor = 0;
    advance(1000000, {});
    EXPECT_EQ(iface_find("eth0")->accumulated[1].rxb, 253u);
    history_iface_algor = 1;
    advance(1000000, {1000, 0, 0, 0});
    EXPECT_EQ(rates()[0], 503u);
    EXPECT_EQ(iface_find("eth0")->accumulated[1].rxb, 503u);
}

TEST_F(interface_traffic_test, long_spans_collect_until_their_period_ends) {
    advance(0, {});
    for (int tick = 1; tick <= 2880; tick++) {
        /* A burst in the 100th second of each 360: its rate of 7000 is the day's maximum. */
        advance(1000000, {tick % 360 == 100 ? 14000u : 0u, 0, 0, 0});
        if (tick % 360 == 359) {
            ASSERT_EQ(filled("eth0.day"), be32(static_cast<uint32_t>(tick / 360)));
        }
    }
    EXPECT_EQ(filled("eth0.10m"), be32(600));
    EXPECT_EQ(filled("eth0.2h"), be32(240));
    EXPECT_EQ(filled("eth0.day"), be32(8));
    EXPECT_EQ(filled("eth0.week"), be32(2));
    EXPECT_EQ(filled("eth0.mon"), be32(1));
    for (size_t n = 0; n < 8; n++) {
        EXPECT_EQ(sample("eth0.day", n), be32(7000) + std::string(12, '\0'));
    }
    EXPECT_EQ(sample("eth0.mon", 0), be32(7000) + std::string(12, '\0'));
}

/* --- Flags --- */

TEST_F(interface_flags_test, flags_are_read_before_traffic_and_of_up_two_and_running_one_is_made) {
    EXPECT_EQ(flags_after({address("eth0", IFF_UP | IFF_RUNNING)}), "0") << "not known yet";
    EXPECT_EQ(flags_after({address("eth0", IFF_UP | IFF_RUNNING)}), "3");
    EXPECT_EQ(flags_after({address("eth0", IFF_UP)}), "2");
    EXPECT_EQ(flags_after({address("eth0", IFF_RUNNING)}), "1");
    EXPECT_EQ(flags_after({address("eth0", ~static_cast<unsigned>(IFF_UP | IFF_RUNNING))}), "0");
    EXPECT_EQ(flags_after({address("eth0", ~0U)}), "3");
}

TEST_F(interface_flags_test, the_last_address_of_an_interface_tells_its_flags) {
    flags_after({});
    EXPECT_EQ(
        flags_after({address("lo", IFF_UP), address("eth0", IFF_UP), address(nullptr, IFF_RUNNING),
                     address("eth0", IFF_RUNNING), address("wlan0", IFF_UP)}),
        "1");
    EXPECT_EQ(flags_after({address("eth0", IFF_UP | IFF_RUNNING), address("eth0", 0)}), "0");
}

TEST_F(interface_flags_test, flags_stay_when_an_interface_has_no_address_or_none_can_be_had) {
    flags_after({});
    EXPECT_EQ(flags_after({address("eth0", IFF_UP | IFF_RUNNING)}), "3");
    EXPECT_EQ(flags_after({}), "3");
    EXPECT_EQ(flags_after({address("lo", IFF_UP)}), "3");
    machine.addresses_fail = true;
    EXPECT_EQ(flags_after({address("eth0", IFF_UP)}), "3")
        << "what a failed call leaves is no list";
    machine.addresses_fail = false;
    EXPECT_EQ(flags_after({address("eth0", IFF_UP)}), "2");
}

/* --- The choice of the algorithm --- */

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

TEST_F(interface_algorithm_test, a_word_that_goes_on_behind_a_nul_is_another_word) {
    set("history-iface-algor", std::string_view("avg\0", 4));
    EXPECT_EQ(history_iface_algor, MAXIMUM);
    set("history-iface-algor", "avg");
    set("history-iface-algor", std::string_view("max\0imum", 8));
    EXPECT_EQ(history_iface_algor, AVERAGE);
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
