#pragma once

#include <stdint.h>

/* The bytes that the statistics keep in the values of string keys, described once for the daemon,
 * which writes them, and for clients, which read them. All integers are unsigned 32-bit and
 * big-endian, at any alignment. There is nothing here to link.
 *
 * A history such as "cpu.10m" is a ring of samples behind a header:
 *
 *   offset  size                   what
 *   0       4                      time of the last sample, seconds; 0 until the first
 *   4       4                      period in ticks
 *   8       4                      slots
 *   12      4                      filled: samples written so far, at most slots
 *   16      4                      head: index of the slot written next
 *   20      slots * sample size    samples; the oldest is slot 0 until all are filled, then head
 *
 * The samples, by the text before the key's last ".":
 *
 *   "cpu"                 1 byte      percent
 *   "host", "conn"        4 bytes     number of hosts, of connections
 *   "ping1" to "ping20"   20 bytes    max, min, avg, total, loss
 *   an interface          16 bytes    rates of received bytes and packets, transmitted bytes and
 *                                     packets, per second
 *
 * "ping.snap" is a row of entries like the ping samples, one for each target: that of target i
 * stands at (i - 1) * 20. */

/* --- The ring --- */

constexpr uint32_t HISTORY_AT_TIME = 0;
constexpr uint32_t HISTORY_AT_PERIOD = 4;
constexpr uint32_t HISTORY_AT_SLOTS = 8;
constexpr uint32_t HISTORY_AT_FILLED = 12;
constexpr uint32_t HISTORY_AT_HEAD = 16;
constexpr uint32_t HISTORY_HEADER = 20;

struct history_span {
    const char* name;
    uint32_t period; /* ticks for each sample */
    uint32_t slots;  /* samples in the ring */
};

/* At one tick a second: ten minutes, two hours, a day, a week and 30 days. */
constexpr unsigned HISTORY_SPANS = 5;
inline constexpr history_span history_standard_spans[HISTORY_SPANS] = {
    {"10m", 1, 600}, {"2h", 12, 600}, {"day", 360, 240}, {"week", 1440, 420}, {"mon", 2880, 900},
};

/* One tick is one ping report; at one report every 100 seconds a day, a week and 30 days. */
constexpr unsigned HISTORY_PING_SPANS = 3;
inline constexpr history_span history_ping_spans[HISTORY_PING_SPANS] = {
    {"day", 3, 288}, {"week", 21, 288}, {"mon", 90, 288}};

/* --- Samples --- */

constexpr uint32_t CPU_SAMPLE_SIZE = 1;
constexpr uint32_t HOST_SAMPLE_SIZE = 4;
constexpr uint32_t CONN_SAMPLE_SIZE = 4;

constexpr uint32_t IFACE_AT_RXB = 0;
constexpr uint32_t IFACE_AT_RXP = 4;
constexpr uint32_t IFACE_AT_TXB = 8;
constexpr uint32_t IFACE_AT_TXP = 12;
constexpr uint32_t IFACE_SAMPLE_SIZE = 16;

/* --- Ping entries: a sample of a ping history, or a target's summary in "ping.snap" --- */

constexpr uint32_t PING_AT_MAX = 0;
constexpr uint32_t PING_AT_MIN = 4;
constexpr uint32_t PING_AT_AVG = 8;
constexpr uint32_t PING_AT_TOTAL = 12;
constexpr uint32_t PING_AT_LOSS = 16;
constexpr uint32_t PING_ENTRY_SIZE = 20;

constexpr uint32_t PING_TARGETS = 20;
constexpr uint32_t PING_SNAP_SIZE = PING_TARGETS * PING_ENTRY_SIZE;

/* Where the entry of a target, 1 to PING_TARGETS, begins. */
constexpr uint32_t ping_entry_offset(uint32_t target) {
    return (target - 1) * PING_ENTRY_SIZE;
}
