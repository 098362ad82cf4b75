#include "stats/netdev.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/time.h>

#include "core/fault.h"
#include "core/text.h"
#include "stats/stat_value.h"

uint32_t netdev_interval_us;
int history_iface_algor = 1;

namespace {

constexpr char NETDEV_FILE[] = "/proc/net/dev";
constexpr size_t LINE_SIZE = 1024;
constexpr size_t LINE_FIGURES = 10;
constexpr size_t NAME_LENGTH = sizeof(iface_stat::name) - 1;

/* A delta from here on is a counter that was reset or whose low word wrapped. */
constexpr uint32_t IMPLAUSIBLE_DELTA = 1000000000;

const char* const name_prefixes[] = {"eth", "br-lan", "br-wan", "pptp-", "pppoe-", "p-", "l2tp-"};

struct counters {
    uint64_t rx_bytes;
    uint32_t rx_packets;
    uint64_t tx_bytes;
    uint32_t tx_packets;
};

/* The fields of an interface's hash. */
enum field { RXB, RXP, TXB, TXP, TXBRATE, TXPRATE, RXBRATE, RXPRATE, FLAGS, FIELDS };

const char* const field_texts[FIELDS] = {"rxb",     "rxp",     "txb",     "txp",  "txbrate",
                                         "txprate", "rxbrate", "rxprate", "flags"};

struct netdev_state {
    iface_stat* ifaces; /* newest first */
    iface_stat* oldest; /* the last of them */
    iface_stat* found;  /* the record found or made last; null when there is none */
    uint32_t last_sec;  /* time of the last poll, 0 before the first */
    uint32_t last_usec;
    uint32_t most_ifaces;     /* the most selected in one poll */
    sstr field_names[FIELDS]; /* made at the start, for all interfaces and ticks */
};

netdev_state state;

bool is_of_interest(const char* name) {
    for (const char* prefix : name_prefixes) {
        if (strncmp(name, prefix, strlen(prefix)) == 0) {
            return true;
        }
    }
    return false;
}

/* Takes the figures of a line from the first on, up to one that is missing. Each is read as scanf's
 * "%llu" reads it: blanks and a sign may stand before it, and it saturates. */
void parse_figures(const char* text, uint64_t (&figures)[LINE_FIGURES]) {
    for (uint64_t& figure : figures) {
        char* end;
        const uint64_t value = strtoull(text, &end, 10);
        if (end == text) {
            return;
        }
        figure = value;
        text = end;
    }
}

/* Understands a line such as
 *   "  eth0: 1296 14 0 0 0 0 0 0 2592 28 0 0 0 0 0 0"
 * (received bytes and packets, six others, transmitted bytes and packets), as scanf does with
 * " %[^ :]:" and ten figures: a name that no colon follows has none, and what is missing is 0.
 * Packet counters are cut to 32 bits. Returns the name, which is ended in the line; null for the
 * two header lines, which have a "|", and for lines without a name. */
const char* parse_line(char* line, counters* read) {
    if (strchr(line, '|') != nullptr) {
        return nullptr;
    }
    char* name = line + strspn(line, " \t\n\v\f\r");
    char* end = name + strcspn(name, " :");
    uint64_t figures[LINE_FIGURES] = {};
    if (*end == ':') {
        parse_figures(end + 1, figures);
    }
    *end = '\0';
    *read = {figures[0], static_cast<uint32_t>(figures[1]), figures[8],
             static_cast<uint32_t>(figures[9])};
    return end != name ? name : nullptr;
}

iface_stat* new_iface(const char* name) {
    iface_stat* iface = static_cast<iface_stat*>(calloc(1, sizeof(iface_stat)));
    if (iface == nullptr) {
        fault_no_memory();
    }
    memcpy(iface->name, name, strnlen(name, NAME_LENGTH));
    history_init_set(iface->history, iface->name, IFACE_SAMPLE_SIZE);
    iface->next = state.ifaces;
    if (state.ifaces != nullptr) {
        state.ifaces->prev = iface;
    } else {
        state.oldest = iface;
    }
    state.ifaces = iface;
    state.found = iface;
    return iface;
}

/* Each fresh rate is averaged with the last; a first one shows at half its size, on purpose. */
uint32_t smoothed(uint32_t delta, double seconds, uint32_t old) {
    const uint32_t fresh = static_cast<uint32_t>(static_cast<uint64_t>(delta / seconds));
    return static_cast<uint32_t>((uint64_t{fresh} + old) >> 1);
}

uint32_t condensed(uint32_t accumulated, uint32_t rate) {
    if (history_iface_algor == 1) {
        return accumulated > rate ? accumulated : rate;
    }
    return accumulated == 0 ? rate : static_cast<uint32_t>((uint64_t{accumulated} + rate) >> 1);
}

void update_history(iface_stat* iface, unsigned span) {
    iface_rates* sum = &iface->accumulated[span];
    sum->rxb = condensed(sum->rxb, iface->rate.rxb);
    sum->rxp = condensed(sum->rxp, iface->rate.rxp);
    sum->txb = condensed(sum->txb, iface->rate.txb);
    sum->txp = condensed(sum->txp, iface->rate.txp);
    char sample[IFACE_SAMPLE_SIZE];
    text_put_be32(sample + IFACE_AT_RXB, sum->rxb);
    text_put_be32(sample + IFACE_AT_RXP, sum->rxp);
    text_put_be32(sample + IFACE_AT_TXB, sum->txb);
    text_put_be32(sample + IFACE_AT_TXP, sum->txp);
    if (history_tick(&iface->history[span], sample) == 1) {
        *sum = {};
    }
}

/* Only the low words of the byte counters are compared. */
void update_rates(iface_stat* iface, const counters* read) {
    const uint32_t rx_bytes = static_cast<uint32_t>(read->rx_bytes - iface->rx_bytes);
    const uint32_t tx_bytes = static_cast<uint32_t>(read->tx_bytes - iface->tx_bytes);
    const uint32_t rx_packets = read->rx_packets - iface->rx_packets;
    const uint32_t tx_packets = read->tx_packets - iface->tx_packets;
    if (rx_bytes >= IMPLAUSIBLE_DELTA || tx_bytes >= IMPLAUSIBLE_DELTA ||
        rx_packets >= IMPLAUSIBLE_DELTA || tx_packets >= IMPLAUSIBLE_DELTA) {
        return;
    }
    const double seconds = netdev_interval_us / 1000000.0;
    iface->rate.rxb = smoothed(rx_bytes, seconds, iface->rate.rxb);
    iface->rate.rxp = smoothed(rx_packets, seconds, iface->rate.rxp);
    iface->rate.txb = smoothed(tx_bytes, seconds, iface->rate.txb);
    iface->rate.txp = smoothed(tx_packets, seconds, iface->rate.txp);
    for (unsigned span = 0; span < HISTORY_SPANS; span++) {
        update_history(iface, span);
    }
}

/* One announcement for the whole hash. */
void publish(const char* name, const iface_stat* iface) {
    object* hash = object_get_or_create(name, SSTR_CSTRING, OBJ_THASH);
    if (hash == nullptr) {
        return;
    }
    object_defer(hash);
    stat_hset_u64(hash, state.field_names[RXB], static_cast<uint32_t>(iface->rx_bytes),
                  static_cast<uint32_t>(iface->rx_bytes >> 32));
    stat_hset_u32(hash, state.field_names[RXP], iface->rx_packets);
    stat_hset_u64(hash, state.field_names[TXB], static_cast<uint32_t>(iface->tx_bytes),
                  static_cast<uint32_t>(iface->tx_bytes >> 32));
    stat_hset_u32(hash, state.field_names[TXP], iface->tx_packets);
    stat_hset_u32(hash, state.field_names[TXBRATE], iface->rate.txb);
    stat_hset_u32(hash, state.field_names[TXPRATE], iface->rate.txp);
    stat_hset_u32(hash, state.field_names[RXBRATE], iface->rate.rxb);
    stat_hset_u32(hash, state.field_names[RXPRATE], iface->rate.rxp);
    stat_hset_u32(hash, state.field_names[FLAGS], iface->flags);
    object_flush(hash);
}

void update_iface(const char* name, const counters* read) {
    iface_stat* iface = iface_find(name);
    if (iface == nullptr) {
        iface = new_iface(name);
    }
    if (netdev_interval_us != 0) {
        update_rates(iface, read);
    }
    iface->rx_bytes = read->rx_bytes;
    iface->rx_packets = read->rx_packets;
    iface->tx_bytes = read->tx_bytes;
    iface->tx_packets = read->tx_packets;
    publish(name, iface);
}

} // namespace

iface_stat* iface_find(const char* name) {
    if (name == nullptr || state.found == nullptr) {
        return nullptr;
    }
    iface_stat* iface = state.found;
    do {
        if (strncasecmp(iface->name, name, NAME_LENGTH) == 0) {
            state.found = iface;
            return iface;
        }
        iface = iface->prev != nullptr ? iface->prev : state.oldest;
    } while (iface != state.found);
    return nullptr;
}

void netdev_poll_flags() {
    ifaddrs* addresses;
    if (getifaddrs(&addresses) < 0) {
        return;
    }
    for (const ifaddrs* a = addresses; a != nullptr; a = a->ifa_next) {
        iface_stat* iface = iface_find(a->ifa_name);
        if (iface != nullptr) {
            iface->flags = ((a->ifa_flags & IFF_UP) != 0 ? 2U : 0U) +
                           ((a->ifa_flags & IFF_RUNNING) != 0 ? 1U : 0U);
        }
    }
    freeifaddrs(addresses);
}

void netdev_set_interval(uint32_t sec, uint32_t usec) {
    if (state.last_sec != 0 || state.last_usec != 0) {
        const uint32_t elapsed = (sec - state.last_sec) * 1000000 + (usec - state.last_usec);
        netdev_interval_us = static_cast<int32_t>(elapsed) > 0 ? elapsed : 0;
    }
    state.last_sec = sec;
    state.last_usec = usec;
}

void netdev_read(FILE* file) {
    char line[LINE_SIZE];
    counters read;
    uint32_t selected = 0;
    while (fgets(line, sizeof line, file) != nullptr) {
        const char* name = parse_line(line, &read);
        if (name != nullptr && is_of_interest(name)) {
            update_iface(name, &read);
            selected++;
        }
    }
    if (selected > state.most_ifaces) {
        state.most_ifaces = selected;
    }
}

void netdev_poll() {
    FILE* file = fopen(NETDEV_FILE, "re");
    if (file == nullptr) {
        return;
    }
    timeval now;
    gettimeofday(&now, nullptr);
    netdev_set_interval(static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_usec));
    netdev_read(file);
    fclose(file);
}

void history_algor_option(const char* text) {
    if (strcmp(text, "max") == 0) {
        history_iface_algor = 1;
    } else if (strcmp(text, "avg") == 0) {
        history_iface_algor = 0;
    }
}

int history_algor_hook(object* obj) {
    if (object_key_is(obj, "history-iface-algor")) {
        const char* word = object_string(obj);
        /* One that goes on behind a NUL is neither of the two. */
        if (strlen(word) == sstr_length(word)) {
            history_algor_option(word);
        }
    }
    return 0;
}

void netdev_start() {
    while (state.ifaces != nullptr) {
        iface_stat* next = state.ifaces->next;
        history_free_set(state.ifaces->history);
        free(state.ifaces);
        state.ifaces = next;
    }
    for (sstr& name : state.field_names) {
        sstr_free(&name);
    }
    state = {};
    netdev_interval_us = 0;
    for (unsigned i = 0; i < FIELDS; i++) {
        state.field_names[i] = sstr_new(field_texts[i], SSTR_CSTRING);
    }
}
