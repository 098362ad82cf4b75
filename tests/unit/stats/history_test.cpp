#include "stats/history.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <deque>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "store/dump.h"
#include "tests/support/big_endian.h"
#include "tests/support/dump_record.h"
#include "tests/support/ring_model.h"
#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_client.h"
#include "tests/unit/support/test_clock.h"
#include "tests/unit/support/test_kernel.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

constexpr uint32_t NOW = 1700000000;

/* Bytes per sample: processor; hosts and connections; interfaces; ping; the most that there may be.
 */
const std::vector<uint32_t> sample_sizes = {1, 4, 16, 20, 200};

/* The n-th sample of a series: differs from its neighbours and is never all zero. */
std::string sample_of(uint32_t n, uint32_t size) {
    std::string sample;
    while (sample.size() < size) {
        sample += static_cast<char>(n % 251 + 1);
        n = n * 7 + 3;
    }
    return sample;
}

std::vector<std::string> hook_calls;

/* Hooks that note that they were asked and give a fixed answer. */
template <int number, int answer> int skip_hook(object* obj, history_series* s, int fd) {
    hook_calls.push_back(std::to_string(number) + " " + obj->key +
                         (s == obj->aux ? " its series" : " other") + (fd >= 0 ? "" : " no fd"));
    return answer;
}

template <int number, int answer, uint32_t factor = 1>
int answering_load_hook(const char* key, const char* data, uint32_t length, uint32_t* unit) {
    hook_calls.push_back(std::to_string(number) + " " + key + " " + std::to_string(length) + " " +
                         std::to_string(static_cast<unsigned char>(data[19])) + " unit " +
                         std::to_string(*unit));
    *unit *= factor;
    return answer;
}

/* A string of bytes 'v' with more in its block than its length tells: what is written behind it
 * shows. */
class fenced_value {
  public:
    fenced_value(sstr* string, uint32_t length) : string(string), length(length) {
        const std::string bytes = std::string(length, 'v') + FENCE;
        sstr_assign(string, bytes.data(), static_cast<uint32_t>(bytes.size()));
        set_length(length);
    }
    ~fenced_value() {
        set_length(length + static_cast<uint32_t>(FENCE.size()));
    }
    fenced_value(const fenced_value&) = delete;
    fenced_value& operator=(const fenced_value&) = delete;

    bool fence_stands() const {
        return FENCE.compare(0, FENCE.size(), *string + length, FENCE.size()) == 0;
    }

  private:
    static inline const std::string FENCE = std::string(40, 'f');

    void set_length(uint32_t bytes) {
        memcpy(*string - sizeof bytes, &bytes, sizeof bytes);
    }

    sstr* string;
    uint32_t length;
};

class histories_test : public store_test {
  protected:
    histories_test() : path(::testing::TempDir() + "tessard-history-XXXXXX") {
        close(mkstemp(path.data()));
        history_start();
        hook_calls.clear();
    }

    ~histories_test() override {
        history_start();
        for (history_series& s : made) {
            history_free(&s);
        }
        unlink(path.c_str());
    }

    history_series& series(const char* base, const history_span& span, uint32_t size) {
        made.emplace_back();
        history_init(&made.back(), base, &span, size);
        return made.back();
    }

    /* A ring of four samples of two bytes, one every three ticks. */
    history_series& small_series(const char* base = "x") {
        return series(base, {"day", 3, 4}, 2);
    }

    static object* object_of(const history_series& s) {
        return object_lookup_type(s.name, OBJ_TSTRING);
    }
    static std::string value_of(const history_series& s) {
        return std::string(bytes_of(object_of(s)->string));
    }

    static void set_value(const history_series& s, std::string_view bytes) {
        sstr_assign(&object_of(s)->string, bytes.data(), static_cast<uint32_t>(bytes.size()));
    }

    static void take_samples(history_series& s, uint32_t from, uint32_t to) {
        for (uint32_t n = from; n < to; n++) {
            while (history_tick(&s, sample_of(n, s.sample_size).c_str()) == 0) {
            }
        }
    }

    /* A model with samples 0 to n - 1 in it, the last taken at `time`. */
    static ring_model model_of(const history_series& s, uint32_t n = 0, uint32_t time = 0) {
        ring_model model = {s.period, s.slots, s.sample_size};
        for (uint32_t i = 0; i < n; i++) {
            model.push(sample_of(i, s.sample_size));
        }
        model.time = time;
        return model;
    }

    static void load(history_series& s, std::string_view record, uint32_t unit = 1) {
        history_load(&s, object_of(s), record.data(), static_cast<uint32_t>(record.size()), unit);
    }

    /* Loads a record with these counts, so many periods old, into a value of so many bytes, and
     * does the same sample by sample. */
    static bool padding_equals_pushing(history_series& s, uint32_t filled, uint32_t head,
                                       uint32_t span, uint32_t length) {
        const fenced_value value(&object_of(s)->string, length);
        load(s, be32(NOW - span * s.period) + be32(s.period) + be32(s.slots) + be32(filled) +
                    be32(head));

        history_series other = s;
        other.filled = filled;
        other.head = head;
        const text pushed(be32(NOW) + be32(s.period) + be32(s.slots) + be32(filled) + be32(head) +
                          std::string(length - 20, 'v'));
        for (uint32_t i = 0; i < span; i++) {
            history_push(&other, pushed, "\0\0\0");
        }
        return value_of(s) == bytes_of(pushed) && s.filled == other.filled &&
               s.head == other.head && value.fence_stands();
    }

    std::string file_content() const {
        std::ifstream in(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    std::string dumped(const history_series& s) const {
        const int fd = open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
        history_dump_record(object_of(s), fd);
        close(fd);
        return file_content();
    }

    std::string path;
    std::deque<history_series> made;
};

/* A value as it is compared here: its header and where it first differs, not hundreds of bytes. */
void expect_value(const std::string& found, const std::string& expected, const std::string& what) {
    ASSERT_EQ(found.size(), expected.size()) << what;
    for (const size_t at : {0, 4, 8, 12, 16}) {
        ASSERT_EQ(found.substr(at, 4), expected.substr(at, 4)) << what << ", header byte " << at;
    }
    for (size_t i = 20; i < found.size(); i++) {
        ASSERT_EQ(static_cast<int>(found[i]), static_cast<int>(expected[i]))
            << what << ", byte " << i;
    }
}

} // namespace

/* --- The spans --- */

TEST_F(histories_test, the_standard_spans_go_from_ten_minutes_to_thirty_days) {
    const history_span expected[] = {{"10m", 1, 600},
                                     {"2h", 12, 600},
                                     {"day", 360, 240},
                                     {"week", 1440, 420},
                                     {"mon", 2880, 900}};
    const unsigned seconds[] = {600, 7200, 86400, 604800, 2592000};
    ASSERT_EQ(HISTORY_SPANS, 5u);
    for (unsigned i = 0; i < HISTORY_SPANS; i++) {
        EXPECT_STREQ(history_standard_spans[i].name, expected[i].name);
        EXPECT_EQ(history_standard_spans[i].period, expected[i].period);
        EXPECT_EQ(history_standard_spans[i].slots, expected[i].slots);
        EXPECT_EQ(history_standard_spans[i].period * history_standard_spans[i].slots, seconds[i]);
    }
}

TEST_F(histories_test, the_ping_spans_count_reports) {
    const history_span expected[] = {{"day", 3, 288}, {"week", 21, 288}, {"mon", 90, 288}};
    ASSERT_EQ(HISTORY_PING_SPANS, 3u);
    for (unsigned i = 0; i < HISTORY_PING_SPANS; i++) {
        EXPECT_STREQ(history_ping_spans[i].name, expected[i].name);
        EXPECT_EQ(history_ping_spans[i].period, expected[i].period);
        EXPECT_EQ(history_ping_spans[i].slots, expected[i].slots);
    }
}

/* --- A new series --- */

TEST_F(histories_test, a_new_ring_is_zero_but_for_its_period_and_slots) {
    const history_series& s = series("cpu", {"2h", 12, 600}, 1);
    EXPECT_EQ(bytes_of(s.name), "cpu.2h");
    EXPECT_EQ(value_of(s), std::string("\0\0\0\0"
                                       "\0\0\0\x0C"
                                       "\0\0\x02\x58"
                                       "\0\0\0\0"
                                       "\0\0\0\0",
                                       20) +
                               std::string(600, '\0'));
    EXPECT_EQ(s.period, 12u);
    EXPECT_EQ(s.slots, 600u);
    EXPECT_EQ(s.sample_size, 1u);
    EXPECT_EQ(s.ticks, 0u);
    EXPECT_EQ(s.filled, 0u);
    EXPECT_EQ(s.head, 0u);
}

TEST_F(histories_test, the_key_points_to_its_series_and_cannot_be_deleted) {
    const history_series& s = small_series();
    EXPECT_EQ(object_of(s)->aux, &s);
    EXPECT_EQ(object_of(s)->flags, flags_of(OBJ_TSTRING, 0x200));
    test_client client;
    EXPECT_EQ(client.call({"del", "x.day"}), ":0\r\n");
    EXPECT_EQ(client.call({"exists", "x.day"}), ":1\r\n");
}

TEST_F(histories_test, a_set_has_one_series_for_every_standard_span) {
    history_series set[HISTORY_SPANS];
    history_init_set(set, "conn", 4);
    const char* const names[] = {"conn.10m", "conn.2h", "conn.day", "conn.week", "conn.mon"};
    const uint32_t lengths[] = {20 + 600 * 4, 20 + 600 * 4, 20 + 240 * 4, 20 + 420 * 4,
                                20 + 900 * 4};
    for (unsigned i = 0; i < HISTORY_SPANS; i++) {
        EXPECT_EQ(bytes_of(set[i].name), names[i]);
        EXPECT_EQ(value_of(set[i]).size(), lengths[i]);
        EXPECT_EQ(object_lookup(names[i])->aux, &set[i]);
        EXPECT_EQ(value_of(set[i]).substr(4, 4), be32(history_standard_spans[i].period));
        EXPECT_EQ(value_of(set[i]).substr(8, 4), be32(history_standard_spans[i].slots));
        history_free(&set[i]);
    }
}

TEST_F(histories_test, a_value_that_was_there_is_cleared_whatever_its_length) {
    for (const size_t length : {0, 1, 19, 20, 27, 28, 29, 1000}) {
        object* obj = make("x.day", OBJ_TSTRING);
        sstr_assign(&obj->string, std::string(length, 'z').c_str(), static_cast<uint32_t>(length));
        const history_series& s = small_series();
        EXPECT_EQ(value_of(s), model_of(s).value()) << length;
        EXPECT_EQ(object_of(s)->string[28], '\0') << "a string ends in a NUL";
    }
}

TEST_F(histories_test, a_series_that_begins_anew_forgets_its_samples) {
    history_series& s = small_series();
    take_samples(s, 0, 3);
    history_series& again = small_series();
    EXPECT_EQ(value_of(again), model_of(again).value());
    EXPECT_EQ(object_of(again)->aux, &again);
}

TEST_F(histories_test, a_key_of_another_type_is_left_alone_and_the_series_only_counts) {
    object_rpush(make("x.day", OBJ_TLIST), "item");
    history_series& s = small_series();
    const std::string sample = sample_of(1, 2);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(history_tick(&s, sample.c_str()), 0);
        EXPECT_EQ(history_tick(&s, sample.c_str()), 0);
        EXPECT_EQ(history_tick(&s, sample.c_str()), 1);
    }
    history_reset(&s);
    const object* obj = object_lookup_type("x.day", OBJ_TLIST);
    ASSERT_NE(obj, nullptr);
    EXPECT_EQ(obj->list->count, 1);
    EXPECT_EQ(obj->flags & OBJ_PROTECTED, 0);
}

/* --- Ticks --- */

TEST_F(histories_test, a_sample_is_taken_on_every_periodth_tick) {
    history_series& s = series("cpu", {"2h", 12, 600}, 1);
    for (int tick = 1; tick <= 60; tick++) {
        EXPECT_EQ(history_tick(&s, "\x2A"), tick % 12 == 0 ? 1 : 0) << tick;
        EXPECT_EQ(s.filled, static_cast<uint32_t>(tick / 12));
        EXPECT_EQ(s.ticks, static_cast<uint32_t>(tick % 12));
    }
}

TEST_F(histories_test, the_time_of_the_last_sample_stands_in_front) {
    history_series& s = small_series();
    test_clock::frozen clock(0x12345678);
    EXPECT_EQ(history_tick(&s, "ab"), 0);
    EXPECT_EQ(history_tick(&s, "ab"), 0);
    EXPECT_EQ(value_of(s).substr(0, 4), be32(0)) << "no sample yet";
    EXPECT_EQ(history_tick(&s, "ab"), 1);
    EXPECT_EQ(value_of(s).substr(0, 4), "\x12\x34\x56\x78");
    test_clock::set(0xFEDCBA98);
    history_tick(&s, "ab");
    EXPECT_EQ(value_of(s).substr(0, 4), "\x12\x34\x56\x78") << "between two samples";
    history_tick(&s, "ab");
    history_tick(&s, "ab");
    EXPECT_EQ(value_of(s).substr(0, 4), "\xFE\xDC\xBA\x98");
}

TEST_F(histories_test, samples_follow_each_other_behind_the_header) {
    history_series& s = small_series();
    const test_clock::frozen clock(7);
    for (const char* sample : {"aA", "bB", "cC"}) {
        while (history_tick(&s, sample) == 0) {
        }
    }
    EXPECT_EQ(value_of(s), std::string("\0\0\0\7"
                                       "\0\0\0\3"
                                       "\0\0\0\4"
                                       "\0\0\0\3"
                                       "\0\0\0\3"
                                       "aAbBcC\0\0",
                                       28));
}

TEST_F(histories_test, a_full_ring_overwrites_its_oldest_sample) {
    history_series& s = series("cpu", history_standard_spans[0], 1);
    const test_clock::frozen clock(NOW);
    for (uint32_t n = 0; n < 600; n++) {
        EXPECT_EQ(history_tick(&s, sample_of(n, 1).c_str()), 1);
    }
    EXPECT_EQ(value_of(s).substr(12, 8), be32(600) + be32(0));
    const std::string full = value_of(s).substr(20);
    for (uint32_t n = 0; n < 600; n++) {
        ASSERT_EQ(full.substr(n, 1), sample_of(n, 1));
    }
    EXPECT_EQ(history_tick(&s, "\xFE"), 1);
    EXPECT_EQ(value_of(s).substr(12, 8), be32(600) + be32(1));
    EXPECT_EQ(value_of(s).substr(20), "\xFE" + full.substr(1));
}

TEST_F(histories_test, every_span_and_sample_size_keeps_its_ring_exact) {
    test_clock::frozen clock(NOW);
    std::vector<history_span> spans(history_standard_spans, history_standard_spans + HISTORY_SPANS);
    spans.insert(spans.end(), history_ping_spans, history_ping_spans + HISTORY_PING_SPANS);
    for (size_t i = 0; i < spans.size(); i++) {
        for (const uint32_t size : sample_sizes) {
            const std::string what =
                std::string(spans[i].name) + " of " + std::to_string(size) + " bytes";
            history_series& s = series(
                ("r" + std::to_string(i) + "-" + std::to_string(size)).c_str(), spans[i], size);
            ring_model model = model_of(s);
            expect_value(value_of(s), model.value(), what);
            for (uint32_t n = 0; n < spans[i].slots + 2; n++) {
                const std::string sample = sample_of(n, size);
                for (uint32_t tick = 1; tick < spans[i].period; tick++) {
                    ASSERT_EQ(history_tick(&s, sample.c_str()), 0) << what;
                }
                test_clock::set(NOW + n);
                ASSERT_EQ(history_tick(&s, sample.c_str()), 1) << what;
                model.push(sample);
                model.time = NOW + n;
                /* The header at each sample, everything near the ends. */
                ASSERT_EQ(value_of(s).substr(0, 20), model.header()) << what << ", sample " << n;
                if (n < 3 || n > spans[i].slots - 2) {
                    expect_value(value_of(s), model.value(),
                                 what + ", sample " + std::to_string(n));
                }
            }
        }
    }
}

TEST_F(histories_test, nothing_is_announced) {
    test_client observer;
    observer.call({"observe"});
    history_series& s = small_series();
    take_samples(s, 0, 6);
    history_reset(&s);
    load(s, model_of(s, 3, NOW).record());
    EXPECT_EQ(observer.received(), "");
}

/* --- What clients do to a ring --- */

TEST_F(histories_test, a_value_of_another_length_is_left_alone_while_ticks_are_counted) {
    for (const char* value :
         {"", "short", "twenty-seven bytes are few.", "twenty-nine bytes are too many"}) {
        history_series& s = small_series();
        take_samples(s, 0, 2);
        set_value(s, value);
        EXPECT_EQ(history_tick(&s, "zz"), 0);
        EXPECT_EQ(history_tick(&s, "zz"), 0);
        EXPECT_EQ(history_tick(&s, "zz"), 1) << "the collector starts a new accumulation";
        EXPECT_EQ(value_of(s), value);
        EXPECT_EQ(s.filled, 2u);
        EXPECT_EQ(s.head, 2u);
        EXPECT_EQ(s.ticks, 0u);
    }
}

TEST_F(histories_test, a_string_without_value_is_left_without_one) {
    history_series& s = small_series();
    sstr_free(&object_of(s)->string);
    EXPECT_EQ(history_tick(&s, "zz") + history_tick(&s, "zz") + history_tick(&s, "zz"), 1);
    EXPECT_EQ(object_of(s)->string, nullptr);
    history_reset(&s);
    EXPECT_EQ(object_of(s)->string, nullptr);
}

TEST_F(histories_test, a_value_of_the_right_length_is_written_on_from_the_running_counts) {
    history_series& s = small_series();
    const test_clock::frozen clock(NOW);
    take_samples(s, 0, 2);
    set_value(s, std::string(28, '\xFF'));
    history_tick(&s, "zz");
    history_tick(&s, "zz");
    EXPECT_EQ(value_of(s), std::string(28, '\xFF'));
    EXPECT_EQ(history_tick(&s, "zz"), 1);
    EXPECT_EQ(value_of(s), be32(NOW) + std::string(8, '\xFF') + be32(3) + be32(3) +
                               std::string(4, '\xFF') + "zz" + std::string(2, '\xFF'));
}

TEST_F(histories_test, a_full_ring_writes_its_filled_count_no_more) {
    history_series& s = small_series();
    const test_clock::frozen clock(NOW);
    take_samples(s, 0, 4);
    set_value(s, std::string(28, '\xFF'));
    take_samples(s, 4, 5);
    EXPECT_EQ(value_of(s), be32(NOW) + std::string(12, '\xFF') + be32(1) + sample_of(4, 2) +
                               std::string(6, '\xFF'));
}

TEST_F(histories_test, a_sample_behind_the_end_of_a_short_value_is_counted_and_not_written) {
    history_series& s = small_series();
    const fenced_value value(&object_of(s)->string, 25);
    history_push(&s, object_of(s)->string, "aA");
    history_push(&s, object_of(s)->string, "bB");
    history_push(&s, object_of(s)->string, "cC");
    EXPECT_EQ(value_of(s), std::string(12, 'v') + be32(3) + be32(3) + "aAbBv")
        << "no half sample either";
    history_push(&s, object_of(s)->string, "dD");
    history_push(&s, object_of(s)->string, "eE");
    EXPECT_EQ(value_of(s), std::string(12, 'v') + be32(4) + be32(1) + "eEbBv");
    EXPECT_TRUE(value.fence_stands());
}

TEST_F(histories_test, a_key_that_expired_is_not_made_again) {
    history_series& s = small_series();
    take_samples(s, 0, 2);
    object_of(s)->flags |= OBJ_DEAD;
    EXPECT_EQ(history_tick(&s, "zz") + history_tick(&s, "zz") + history_tick(&s, "zz"), 1);
    EXPECT_EQ(object_lookup("x.day"), nullptr);
    EXPECT_EQ(s.filled, 2u);
}

TEST_F(histories_test, a_key_that_became_a_hash_is_left_alone) {
    history_series& s = small_series();
    object_of(s)->flags |= OBJ_DEAD;
    object* obj = make("x.day", OBJ_THASH);
    ASSERT_NE(obj, nullptr);
    EXPECT_EQ(obj->aux, nullptr);
    EXPECT_EQ(history_tick(&s, "zz") + history_tick(&s, "zz") + history_tick(&s, "zz"), 1);
    EXPECT_EQ(object_lookup_type("x.day", OBJ_THASH), obj);
}

/* --- Reset --- */

TEST_F(histories_test, a_reset_restarts_the_counts_and_leaves_samples_and_time_stamp) {
    history_series& s = small_series();
    const test_clock::frozen clock(NOW);
    take_samples(s, 0, 3);
    history_tick(&s, "zz");
    const std::string before = value_of(s);
    history_reset(&s);
    EXPECT_EQ(s.ticks, 0u);
    EXPECT_EQ(s.filled, 0u);
    EXPECT_EQ(s.head, 0u);
    EXPECT_EQ(value_of(s), before.substr(0, 12) + be32(0) + be32(0) + before.substr(20));
    EXPECT_EQ(history_tick(&s, "zz") + history_tick(&s, "zz"), 0) << "the period begins anew";
    EXPECT_EQ(history_tick(&s, "zz"), 1);
    EXPECT_EQ(value_of(s),
              be32(NOW) + before.substr(4, 8) + be32(1) + be32(1) + "zz" + before.substr(22));
}

TEST_F(histories_test, a_reset_leaves_a_value_of_another_length_alone) {
    history_series& s = small_series();
    take_samples(s, 0, 3);
    set_value(s, "a value that is not a ring");
    history_reset(&s);
    EXPECT_EQ(value_of(s), "a value that is not a ring");
    EXPECT_EQ(s.filled, 0u);
    EXPECT_EQ(s.head, 0u);
}

/* --- Dump --- */

TEST_F(histories_test, a_record_holds_the_header_and_the_filled_samples) {
    history_series& s = small_series();
    const test_clock::frozen clock(0x01020304);
    EXPECT_EQ(dumped(s), std::string("\0\0\0\5x.day\0\0\0\x14"
                                     "\0\0\0\0\0\0\0\3\0\0\0\4\0\0\0\0\0\0\0\0",
                                     33));
    while (history_tick(&s, "aA") == 0) {
    }
    EXPECT_EQ(dumped(s), std::string("\0\0\0\5x.day\0\0\0\x16"
                                     "\1\2\3\4\0\0\0\3\0\0\0\4\0\0\0\1\0\0\0\1aA",
                                     35));
}

TEST_F(histories_test, five_samples_of_an_interface_are_a_record_of_one_hundred_bytes) {
    history_series& s = series("eth0", history_standard_spans[2], 16);
    take_samples(s, 0, 5);
    EXPECT_EQ(dumped(s), record("eth0.day", value_of(s).substr(0, 20 + 5 * 16)));
}

TEST_F(histories_test, the_record_of_a_full_ring_is_the_whole_ring) {
    for (const uint32_t count : {4u, 5u, 7u, 9u}) {
        history_series& s = small_series();
        take_samples(s, 0, count);
        EXPECT_EQ(dumped(s), record("x.day", value_of(s)));
    }
}

TEST_F(histories_test, a_record_takes_no_more_than_the_value_really_has) {
    history_series& s = small_series();
    take_samples(s, 0, 3);
    for (const char* value : {"", "x", "nineteen bytes here", "twenty-five bytes of text"}) {
        set_value(s, value);
        EXPECT_EQ(dumped(s), record("x.day", value));
    }
    set_value(s, "a value of more bytes than the ring ever had");
    EXPECT_EQ(dumped(s), record("x.day", "a value of more bytes than"));
    sstr_free(&object_of(s)->string);
    EXPECT_EQ(dumped(s), record("x.day", ""));
}

TEST_F(histories_test, day_week_and_month_travel_as_records) {
    for (const history_span& span : history_standard_spans) {
        const std::string key = "x." + std::string(span.name);
        EXPECT_EQ(history_key_suffix(key.c_str()), key != "x.10m" && key != "x.2h") << key;
    }
    EXPECT_TRUE(history_key_suffix("x.days"));
    EXPECT_FALSE(history_key_suffix("day"));
}

TEST_F(histories_test, a_key_without_series_has_no_record) {
    object* obj = make("x.day", OBJ_TSTRING);
    sstr_assign(&obj->string, "value", 5);
    register_dump_skip_hook(skip_hook<1, HISTORY_NEXT>);
    const int fd = open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    history_dump_record(obj, fd);
    close(fd);
    EXPECT_EQ(file_content(), "");
    EXPECT_TRUE(hook_calls.empty());
}

TEST_F(histories_test, the_first_hook_that_answers_one_keeps_the_record_out) {
    const history_series& s = small_series();
    register_dump_skip_hook(skip_hook<1, 0>);
    register_dump_skip_hook(skip_hook<2, HISTORY_LOAD>);
    register_dump_skip_hook(skip_hook<3, HISTORY_SKIP>);
    register_dump_skip_hook(skip_hook<4, HISTORY_SKIP>);
    EXPECT_EQ(dumped(s), "");
    EXPECT_EQ(hook_calls, (std::vector<std::string>{"1 x.day its series", "2 x.day its series",
                                                    "3 x.day its series"}));
}

TEST_F(histories_test, a_record_is_written_when_no_hook_answers_one) {
    const history_series& s = small_series();
    register_dump_skip_hook(skip_hook<1, -1>);
    register_dump_skip_hook(skip_hook<2, HISTORY_NEXT>);
    register_dump_skip_hook(skip_hook<3, HISTORY_LOAD>);
    EXPECT_EQ(dumped(s), record("x.day", value_of(s).substr(0, 20)));
    EXPECT_EQ(hook_calls.size(), 3u);
}

TEST_F(histories_test, a_record_that_is_not_taken_whole_ends_the_dump) {
    object* obj = object_of(small_series());
    const int fd = open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    EXPECT_TRUE(history_dump_record(obj, fd));
    test_kernel::writev_answers = {7, -ENOSPC};
    EXPECT_FALSE(history_dump_record(obj, fd));
    register_dump_skip_hook(skip_hook<1, HISTORY_SKIP>);
    EXPECT_TRUE(history_dump_record(obj, fd)) << "left out is not cut off";
    EXPECT_TRUE(history_dump_record(make("y.day", OBJ_TSTRING), fd)) << "nor is what has no series";
    close(fd);
}

TEST_F(histories_test, a_fifth_hook_is_dropped_without_a_word) {
    const test_clock::frozen clock(NOW);
    history_series& s = small_series();
    log.start();
    for (int i = 0; i < 4; i++) {
        register_dump_skip_hook(skip_hook<1, HISTORY_NEXT>);
        register_load_hook(answering_load_hook<1, HISTORY_NEXT>);
    }
    register_dump_skip_hook(skip_hook<5, HISTORY_SKIP>);
    register_load_hook(answering_load_hook<5, HISTORY_SKIP>);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(dumped(s), record("x.day", value_of(s).substr(0, 20)));
    EXPECT_EQ(hook_calls, std::vector<std::string>(4, "1 x.day its series"));

    hook_calls.clear();
    history_load_record("x.day", model_of(s, 1, NOW).record().c_str(), 22);
    EXPECT_EQ(hook_calls, std::vector<std::string>(4, "1 x.day 22 1 unit 1"));
    EXPECT_EQ(s.filled, 1u);
}

/* --- Load --- */

TEST_F(histories_test, a_record_of_five_samples_restores_the_counts_and_the_samples) {
    const test_clock::frozen clock(NOW);
    history_series& s = series("eth0", history_standard_spans[2], 16);
    const ring_model model = model_of(s, 5, NOW);
    load(s, model.record());
    EXPECT_EQ(s.filled, 5u);
    EXPECT_EQ(s.head, 5u);
    expect_value(value_of(s), model.value(), "restored");
}

TEST_F(histories_test, the_rest_of_the_value_keeps_what_it_held) {
    const test_clock::frozen clock(NOW);
    history_series& s = small_series();
    take_samples(s, 0, 4);
    const std::string before = value_of(s);
    load(s, be32(NOW) + be32(3) + be32(4) + be32(1) + be32(1) + "zz");
    EXPECT_EQ(value_of(s),
              be32(NOW) + be32(3) + be32(4) + be32(1) + be32(1) + "zz" + before.substr(22));
}

TEST_F(histories_test, a_records_own_period_and_slots_are_stored_but_not_used) {
    const test_clock::frozen clock(NOW);
    history_series& s = small_series();
    set_value(s, std::string(28, 'v'));
    log.start(LOG_INFO);
    load(s, be32(NOW - 6) + be32(1) + be32(2) + be32(1) + be32(1) + "aA");
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{
                  "info  *** loading x.day: (1700000000-1699999994)/(3*1)  -> span = 2"});
    const std::string padded =
        be32(NOW) + be32(1) + be32(2) + be32(3) + be32(3) + "aA" + std::string(4, '\0') + "vv";
    EXPECT_EQ(value_of(s), padded);
    EXPECT_EQ(history_tick(&s, "zz") + history_tick(&s, "zz"), 0);
    EXPECT_EQ(history_tick(&s, "zz"), 1);
    EXPECT_EQ(value_of(s), padded.substr(0, 12) + be32(4) + be32(0) + padded.substr(20, 6) + "zz");

    load(s, be32(NOW) + be32(1000) + be32(2) + be32(4) + be32(3));
    EXPECT_EQ(s.filled, 4u) << "more than the record's slots, but not more than the ring's";
    load(s, be32(NOW) + be32(3) + be32(100) + be32(5) + be32(5));
    EXPECT_EQ(s.filled, 4u) << "not more than the record's slots, but more than the ring's";
    EXPECT_EQ(s.head, 3u);
}

TEST_F(histories_test, the_ticks_since_the_last_sample_go_on) {
    const test_clock::frozen clock(NOW);
    history_series& s = small_series();
    history_tick(&s, "zz");
    load(s, model_of(s, 2, NOW).record());
    EXPECT_EQ(history_tick(&s, "zz"), 0);
    EXPECT_EQ(history_tick(&s, "zz"), 1);
    EXPECT_EQ(s.filled, 3u);
}

TEST_F(histories_test, an_hour_of_absence_is_three_hundred_empty_samples_of_twelve_seconds) {
    const test_clock::frozen clock(NOW);
    history_series& s = series("cpu", history_standard_spans[1], 1);
    log.start(LOG_INFO);
    load(s, model_of(s, 5, NOW - 3600).record());
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{
                  "info  *** loading cpu.2h: (1700000000-1699996400)/(12*1)  -> span = 300"});
    ring_model model = model_of(s, 5, NOW);
    for (int i = 0; i < 300; i++) {
        model.push(std::string(1, '\0'));
    }
    EXPECT_EQ(model.filled, 305u);
    expect_value(value_of(s), model.value(), "padded");
    EXPECT_EQ(s.filled, 305u);
    EXPECT_EQ(s.head, 305u);
}

TEST_F(histories_test, only_whole_periods_are_padded) {
    for (const auto& [age, span] : {std::pair(0u, 0u),
                                    {1u, 0u},
                                    {359u, 0u},
                                    {360u, 1u},
                                    {361u, 1u},
                                    {719u, 1u},
                                    {720u, 2u},
                                    {86399u, 239u},
                                    {86400u, 240u},
                                    {86760u, 241u}}) {
        const test_clock::frozen clock(NOW);
        history_series& s = series("cpu", history_standard_spans[2], 1);
        load(s, model_of(s, 5, NOW - age).record());
        ring_model model = model_of(s, 5, NOW);
        for (unsigned i = 0; i < span; i++) {
            model.push(std::string(1, '\0'));
        }
        expect_value(value_of(s), model.value(), std::to_string(age) + " seconds");
    }
}

TEST_F(histories_test, a_record_from_the_future_is_not_padded) {
    const test_clock::frozen clock(NOW);
    for (const uint32_t ahead : {1u, 3u, 360u, 1000000000u, 0x7FFFFFFFu}) {
        history_series& s = small_series();
        log.start(LOG_INFO);
        load(s, model_of(s, 2, NOW + ahead).record());
        EXPECT_EQ(log.text(), "");
        EXPECT_EQ(value_of(s), model_of(s, 2, NOW).value()) << ahead;
    }
}

TEST_F(histories_test, the_age_is_a_signed_32_bit_difference) {
    /* 2^31 seconds and more ago count as the future. */
    test_clock::frozen clock(0x90000000);
    history_series& s = small_series();
    load(s, model_of(s, 2, 0x10000001).record());
    EXPECT_EQ(s.filled, 4u) << "2^31 - 1 seconds";
    load(s, model_of(s, 2, 0x10000000).record());
    EXPECT_EQ(value_of(s), model_of(s, 2, 0x90000000).value());
    load(s, model_of(s, 2, 0).record());
    EXPECT_EQ(value_of(s), model_of(s, 2, 0x90000000).value());

    /* The clock's own turn of 32 bits is no gap. */
    test_clock::set(INT64_C(0x100000003));
    load(s, model_of(s, 2, 0xFFFFFFFD).record());
    ring_model model = model_of(s, 2, 3);
    model.push(std::string(2, '\0'));
    model.push(std::string(2, '\0'));
    EXPECT_EQ(value_of(s), model.value()) << "six seconds, two periods";
}

TEST_F(histories_test, padding_equals_pushing_each_missed_sample) {
    const test_clock::frozen clock(NOW);
    history_series& s = small_series();
    for (uint32_t slots = 1; slots <= 4; slots++) {
        for (const uint32_t size : {1u, 3u}) {
            for (uint32_t filled = 0; filled <= slots; filled++) {
                for (uint32_t head = 0; head < slots; head++) {
                    for (uint32_t span = 0; span <= 2 * slots + 1; span++) {
                        for (uint32_t length = 20; length <= 20 + slots * size + 2; length++) {
                            s.slots = slots;
                            s.sample_size = size;
                            ASSERT_TRUE(padding_equals_pushing(s, filled, head, span, length))
                                << slots << " slots of " << size << ", " << filled
                                << " filled, head " << head << ", span " << span << ", " << length
                                << " bytes";
                        }
                    }
                }
            }
        }
    }
}

TEST_F(histories_test, decades_old_records_equal_pushing_each_missed_sample) {
    const test_clock::frozen clock(NOW);
    unsigned number = 0;
    for (const uint32_t stamp : {0u, 1u, 315532800u, 946684800u}) {
        for (const uint32_t slots : {7u, 240u, 420u, 900u}) {
            for (const uint32_t samples : {0u, 5u, slots + 100}) {
                /* Five days: decades are some thousand of them. */
                history_series& s =
                    series(("r" + std::to_string(number++)).c_str(), {"mon", 432000, slots}, 1);
                load(s, model_of(s, samples, stamp).record());
                ring_model model = model_of(s, samples, NOW);
                for (uint32_t n = (NOW - stamp) / s.period; n > 0; n--) {
                    model.push(std::string(1, '\0'));
                }
                expect_value(value_of(s), model.value(), s.name);
                EXPECT_EQ(s.filled, model.filled);
                EXPECT_EQ(s.head, model.head);
            }
        }
    }
}

TEST_F(histories_test, gaps_of_any_length_turn_the_ring_by_what_is_left_of_whole_turns) {
    history_series& s = series("x", {"day", 1, 600}, 1);
    for (const uint32_t slots : {1u, 2u, 3u, 7u, 600u}) {
        for (const uint32_t span :
             {2147483647u, 2147483646u, 1000000007u, slots * 1000, slots * 1000 + 1}) {
            for (const uint32_t head : {0u, slots / 2, slots - 1}) {
                const test_clock::frozen clock(span);
                s.slots = slots;
                load(s, be32(0) + be32(1) + be32(slots) + be32(0) + be32(head));
                EXPECT_EQ(s.filled, slots);
                EXPECT_EQ(s.head, (head + span % slots) % slots)
                    << slots << " slots, span " << span;
                EXPECT_EQ(value_of(s).substr(12, 8), be32(s.filled) + be32(s.head));
            }
        }
    }
}

TEST_F(histories_test, the_longest_gap_takes_no_longer_than_the_ring) {
    /* 2^31 - 1 samples of a period of one second; one by one they would take minutes. */
    const test_clock::frozen clock(0x7FFFFFFF);
    history_series& s = series("x", {"day", 1, 600}, 200);
    for (int i = 0; i < 100; i++) {
        load(s, model_of(s, 7, 0).record());
        EXPECT_EQ(s.filled, 600u);
        EXPECT_EQ(s.head, (7 + 2147483647u) % 600);
    }
    EXPECT_EQ(value_of(s).substr(20), std::string(size_t{600} * 200, '\0'));
}

TEST_F(histories_test, counts_that_do_not_fit_the_ring_are_ignored_with_their_record) {
    const test_clock::frozen clock(NOW);
    history_series& s = small_series();
    take_samples(s, 0, 3);
    const std::string before = value_of(s);
    for (const auto& [filled, head] : {std::pair(5u, 0u),
                                       {0xFFFFFFFFu, 0u},
                                       {0x80000000u, 0u},
                                       {0u, 4u},
                                       {4u, 5u},
                                       {2u, 0xFFFFFFFFu},
                                       {0u, 0x7FFFFFFFu}}) {
        load(s, be32(NOW - 3600) + be32(3) + be32(4) + be32(filled) + be32(head) + "zzzzzzzz");
        EXPECT_EQ(value_of(s), before) << filled << ", " << head;
        EXPECT_EQ(s.filled, 3u);
        EXPECT_EQ(s.head, 3u);
    }
    load(s, be32(NOW) + be32(3) + be32(4) + be32(4) + be32(3) + "zzzzzzzz");
    EXPECT_EQ(s.filled, 4u) << "the largest counts that fit";
    EXPECT_EQ(s.head, 3u);
}

TEST_F(histories_test, a_record_shorter_than_its_header_is_ignored) {
    const test_clock::frozen clock(NOW);
    history_series& s = small_series();
    take_samples(s, 0, 3);
    const std::string before = value_of(s);
    const std::string record = model_of(s, 0, NOW - 3600).record();
    for (size_t length = 0; length < 20; length++) {
        load(s, record.substr(0, length));
        EXPECT_EQ(value_of(s), before) << length;
        EXPECT_EQ(s.filled, 3u);
    }
}

TEST_F(histories_test, a_record_longer_than_the_value_is_ignored) {
    const test_clock::frozen clock(NOW);
    history_series& s = small_series();
    take_samples(s, 0, 3);
    const std::string record = model_of(s, 4, NOW - 3600).record();
    ASSERT_EQ(record.size(), 28u);
    load(s, record + "x");
    EXPECT_EQ(s.filled, 3u);
    set_value(s, std::string(27, 'v'));
    load(s, record);
    EXPECT_EQ(value_of(s), std::string(27, 'v'));
    sstr_free(&object_of(s)->string);
    load(s, record);
    load(s, record.substr(0, 20));
    EXPECT_EQ(object_of(s)->string, nullptr);
    EXPECT_EQ(s.filled, 3u);
}

TEST_F(histories_test, a_longer_value_takes_the_record_at_its_start) {
    const test_clock::frozen clock(NOW);
    history_series& s = small_series();
    set_value(s, std::string(40, 'v'));
    load(s, model_of(s, 4, NOW).record());
    EXPECT_EQ(value_of(s), model_of(s, 4, NOW).value() + std::string(12, 'v'));
}

/* --- Records offered by a loader --- */

TEST_F(histories_test, a_record_of_a_key_without_series_is_ignored) {
    object* obj = make("y.day", OBJ_TSTRING);
    sstr_assign(&obj->string, std::string(28, 'v').c_str(), 28);
    object_rpush(make("l.day", OBJ_TLIST), "item");
    const std::string record = be32(0) + be32(3) + be32(4) + be32(0) + be32(0);
    for (const char* key : {"y.day", "l.day", "nobody.day"}) {
        history_load_record(key, record.c_str(), 20);
    }
    EXPECT_EQ(bytes_of(obj->string), std::string(28, 'v'));
    EXPECT_EQ(object_lookup("nobody.day"), nullptr);
}

TEST_F(histories_test, a_load_hook_that_answers_one_keeps_the_record_out) {
    const test_clock::frozen clock(NOW);
    history_series& s = small_series();
    register_load_hook(answering_load_hook<1, 0>);
    register_load_hook(answering_load_hook<2, HISTORY_NEXT>);
    register_load_hook(answering_load_hook<3, HISTORY_SKIP>);
    register_load_hook(answering_load_hook<4, HISTORY_NEXT>);
    history_load_record("x.day", model_of(s, 2, NOW).record().c_str(), 24);
    EXPECT_EQ(hook_calls, (std::vector<std::string>{"1 x.day 24 2 unit 1", "2 x.day 24 2 unit 1",
                                                    "3 x.day 24 2 unit 1"}));
    EXPECT_EQ(s.filled, 0u);
    EXPECT_EQ(value_of(s), model_of(s).value());
}

TEST_F(histories_test, a_load_hook_that_answers_three_ends_the_asking) {
    const test_clock::frozen clock(NOW);
    history_series& s = small_series();
    register_load_hook(answering_load_hook<1, HISTORY_LOAD>);
    register_load_hook(answering_load_hook<2, HISTORY_SKIP>);
    history_load_record("x.day", model_of(s, 2, NOW).record().c_str(), 24);
    EXPECT_EQ(hook_calls, std::vector<std::string>{"1 x.day 24 2 unit 1"});
    EXPECT_EQ(value_of(s), model_of(s, 2, NOW).value());
}

TEST_F(histories_test, a_load_hook_sets_the_seconds_of_a_tick) {
    const test_clock::frozen clock(NOW);
    history_series& s = small_series();
    log.start(LOG_INFO);
    register_load_hook(answering_load_hook<1, HISTORY_NEXT, 100>);
    /* 899 seconds are two periods of 3 * 100 seconds. */
    history_load_record("x.day", model_of(s, 1, NOW - 899).record().c_str(), 22);
    ring_model model = model_of(s, 1, NOW);
    model.push(std::string(2, '\0'));
    model.push(std::string(2, '\0'));
    EXPECT_EQ(value_of(s), model.value());
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{
                  "info  *** loading x.day: (1700000000-1699999101)/(3*100)  -> span = 2"});
}

TEST_F(histories_test, with_ticks_of_no_length_nothing_is_padded) {
    const test_clock::frozen clock(NOW);
    history_series& s = small_series();
    log.start(LOG_INFO);
    register_load_hook(answering_load_hook<1, HISTORY_NEXT, 0>);
    history_load_record("x.day", model_of(s, 2, NOW - 899).record().c_str(), 24);
    EXPECT_EQ(value_of(s), model_of(s, 2, NOW).value());
    EXPECT_EQ(log.text(), "");
}

TEST_F(histories_test, a_start_forgets_hooks) {
    register_dump_skip_hook(skip_hook<1, HISTORY_SKIP>);
    register_load_hook(answering_load_hook<1, HISTORY_SKIP>);
    history_start();
    const test_clock::frozen clock(NOW);
    history_series& s = small_series();
    EXPECT_EQ(dumped(s), record("x.day", value_of(s).substr(0, 20)));
    history_load_record("x.day", model_of(s, 2, NOW).record().c_str(), 24);
    EXPECT_EQ(s.filled, 2u);
    EXPECT_TRUE(hook_calls.empty());
}

/* --- Through a dump file --- */

TEST_F(histories_test, a_file_brings_day_week_and_month_back_with_the_gap_padded) {
    test_clock::frozen clock(NOW);
    history_series set[HISTORY_SPANS];
    history_init_set(set, "host", 4);
    std::vector<ring_model> models;
    for (history_series& s : set) {
        take_samples(s, 0, 11);
        models.push_back(model_of(s, 11, NOW));
        history_free(&s);
    }
    ASSERT_EQ(dump_keys(path.c_str(), "*"), 0);

    object_reset();
    /* 10000 seconds: 27 periods of 360, 6 of 1440, 3 of 2880. */
    test_clock::set(NOW + 10000);
    history_init_set(set, "host", 4);
    take_samples(set[0], 100, 103);
    take_samples(set[1], 100, 102);
    ASSERT_EQ(load_keys(path.c_str()), 0);
    for (const auto& [span, missed] : {std::pair(2, 27), {3, 6}, {4, 3}}) {
        ring_model& model = models[static_cast<size_t>(span)];
        for (int i = 0; i < missed; i++) {
            model.push(std::string(4, '\0'));
        }
        model.time = NOW + 10000;
        expect_value(value_of(set[span]), model.value(), set[span].name);
        EXPECT_EQ(set[span].filled, 11u + static_cast<uint32_t>(missed));
        EXPECT_EQ(set[span].head, 11u + static_cast<uint32_t>(missed));
    }

    /* The two short ones come back as they were, without the gap, and go on from the running
     * counts. */
    expect_value(value_of(set[0]), models[0].value(), "10m");
    expect_value(value_of(set[1]), models[1].value(), "2h");
    EXPECT_EQ(set[0].filled, 3u);
    EXPECT_EQ(set[0].head, 3u);
    take_samples(set[0], 103, 104);
    models[0].samples.replace(3 * 4, 4, sample_of(103, 4));
    models[0].filled = models[0].head = 4;
    models[0].time = NOW + 10000;
    expect_value(value_of(set[0]), models[0].value(), "10m written on");
    for (history_series& s : set) {
        history_free(&s);
    }
}

TEST_F(histories_test, a_file_cut_anywhere_leaves_each_ring_as_it_was_or_restored) {
    test_clock::frozen clock(NOW);
    history_series& a = small_series("a");
    history_series& b = small_series("b");
    take_samples(a, 0, 4);
    take_samples(b, 0, 2);
    ASSERT_EQ(dump_keys(path.c_str(), "*"), 0);
    const std::string whole = file_content();
    const std::string full_a = value_of(a);
    const std::string full_b = value_of(b);
    for (size_t length = 0; length <= whole.size(); length++) {
        history_series& a2 = small_series("a");
        history_series& b2 = small_series("b");
        std::ofstream(path, std::ios::binary | std::ios::trunc) << whole.substr(0, length);
        ASSERT_EQ(load_keys(path.c_str()), 0);
        EXPECT_TRUE(value_of(a2) == model_of(a2).value() || value_of(a2) == full_a) << length;
        EXPECT_TRUE(value_of(b2) == model_of(b2).value() || value_of(b2) == full_b) << length;
        const bool all = length == whole.size();
        EXPECT_EQ(value_of(a2) == full_a && value_of(b2) == full_b, all) << length;
    }
}
