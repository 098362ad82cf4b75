#include "ctl/ctl_series.h"

#include <string.h>

#include "core/text.h"
#include "stats/formats.h"

namespace {

constexpr ctl_kind CPU = {.sample_size = CPU_SAMPLE_SIZE,
                          .figure_size = CPU_SAMPLE_SIZE,
                          .count = 1,
                          .most = 100,
                          .reports = false,
                          .figures = {{"percent", "percent", 0}}};
constexpr ctl_kind HOSTS = {.sample_size = HOST_SAMPLE_SIZE,
                            .figure_size = HOST_SAMPLE_SIZE,
                            .count = 1,
                            .most = 0,
                            .reports = false,
                            .figures = {{"hosts", "hosts", 0}}};
constexpr ctl_kind CONNECTIONS = {.sample_size = CONN_SAMPLE_SIZE,
                                  .figure_size = CONN_SAMPLE_SIZE,
                                  .count = 1,
                                  .most = 0,
                                  .reports = false,
                                  .figures = {{"connections", "connections", 0}}};
constexpr ctl_kind PING = {.sample_size = PING_ENTRY_SIZE,
                           .figure_size = sizeof(uint32_t),
                           .count = 5,
                           .most = 0,
                           .reports = true,
                           .figures = {{"max", nullptr, PING_AT_MAX},
                                       {"min", nullptr, PING_AT_MIN},
                                       {"avg", "avg", PING_AT_AVG},
                                       {"total", nullptr, PING_AT_TOTAL},
                                       {"loss", "loss", PING_AT_LOSS}}};
constexpr ctl_kind INTERFACE = {.sample_size = IFACE_SAMPLE_SIZE,
                                .figure_size = sizeof(uint32_t),
                                .count = 4,
                                .most = 0,
                                .reports = false,
                                .figures = {{"rxb", "rxb, bytes per second", IFACE_AT_RXB},
                                            {"rxp", nullptr, IFACE_AT_RXP},
                                            {"txb", "txb, bytes per second", IFACE_AT_TXB},
                                            {"txp", nullptr, IFACE_AT_TXP}}};

bool base_is(ctl_text base, const char* name) {
    return base.length == strlen(name) && memcmp(base.bytes, name, base.length) == 0;
}

/* "ping" and a number from 1 to 20 as the daemon writes it. */
bool is_ping(ctl_text base) {
    if (base.length < 5 || memcmp(base.bytes, "ping", 4) != 0 || base.bytes[4] == '0') {
        return false;
    }
    int64_t target;
    return ctl_text_number({base.bytes + 4, base.length - 4}, 1, PING_TARGETS, &target);
}

/* The kind that the key's name promises; null for a name without a "." or with nothing before it.
 */
const ctl_kind* kind_of(ctl_text key) {
    size_t length = key.length;
    while (length > 0 && key.bytes[length - 1] != '.') {
        length--;
    }
    if (length < 2) {
        return nullptr;
    }
    const ctl_text base = {key.bytes, length - 1};
    if (base_is(base, "cpu")) {
        return &CPU;
    }
    if (base_is(base, "host")) {
        return &HOSTS;
    }
    if (base_is(base, "conn")) {
        return &CONNECTIONS;
    }
    return is_ping(base) ? &PING : &INTERFACE;
}

/* The slot of a sample. */
uint32_t slot_of(const ctl_series* series, uint32_t sample) {
    if (series->filled < series->slots) {
        return sample;
    }
    const uint32_t behind = series->slots - series->head;
    return sample < behind ? series->head + sample : sample - behind;
}

} // namespace

const char* ctl_series_decode(ctl_text key, ctl_text value, ctl_series* series) {
    if (value.length < HISTORY_HEADER) {
        return "it is too short for the header of a history";
    }
    series->kind = kind_of(key);
    series->last = text_get_be32(value.bytes + HISTORY_AT_TIME);
    series->period = text_get_be32(value.bytes + HISTORY_AT_PERIOD);
    series->slots = text_get_be32(value.bytes + HISTORY_AT_SLOTS);
    series->filled = text_get_be32(value.bytes + HISTORY_AT_FILLED);
    series->head = text_get_be32(value.bytes + HISTORY_AT_HEAD);
    series->ring = value.bytes + HISTORY_HEADER;
    const size_t room = value.length - HISTORY_HEADER;
    if (series->slots == 0) {
        return "its header says that it has no slots";
    }
    if (series->slots > room || room % series->slots != 0) {
        return "its length does not fit the number of its slots";
    }
    if (series->filled > series->slots) {
        return "its header says that more slots are filled than there are";
    }
    if (series->head >= series->slots) {
        return "its header says that the next slot is none of its own";
    }
    if (series->kind == nullptr) {
        return "its name does not tell what its samples are";
    }
    if (series->kind->sample_size != room / series->slots) {
        return "its samples have another size than those of a history of that name";
    }
    return nullptr;
}

bool ctl_series_is_interface(const ctl_series* series) {
    return series->kind == &INTERFACE;
}

bool ctl_series_is_timed(const ctl_series* series) {
    return !series->kind->reports && series->last != 0;
}

uint32_t ctl_series_value(const ctl_series* series, uint32_t sample, unsigned figure) {
    const ctl_kind* kind = series->kind;
    const char* at = series->ring + size_t{slot_of(series, sample)} * kind->sample_size +
                     kind->figures[figure].at;
    return kind->figure_size == 1 ? static_cast<unsigned char>(*at) : text_get_be32(at);
}

bool ctl_series_time(const ctl_series* series, uint32_t sample, int64_t* seconds) {
    if (!ctl_series_is_timed(series)) {
        return false;
    }
    const int64_t periods = int64_t{series->filled} - 1 - sample;
    *seconds = series->last - periods * series->period;
    return true;
}

unsigned ctl_series_spread(const ctl_series* series, unsigned figure, uint32_t* columns,
                           unsigned width) {
    const uint32_t filled = series->filled;
    if (filled == 0) {
        return 0;
    }
    const unsigned used = filled >= width ? width : width / filled * filled;
    uint32_t sample = 0;
    for (unsigned i = 0; i < used; i++) {
        sample = ctl_series_at(series, i, used);
        columns[i] = ctl_series_value(series, sample, figure);
        const uint32_t next = ctl_series_at(series, i + 1, used);
        for (sample++; sample < next; sample++) {
            const uint32_t value = ctl_series_value(series, sample, figure);
            if (value > columns[i]) {
                columns[i] = value;
            }
        }
    }
    return used;
}

uint32_t ctl_series_at(const ctl_series* series, unsigned column, unsigned used) {
    return static_cast<uint32_t>(uint64_t{column} * series->filled / used);
}
