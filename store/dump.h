#pragma once

#include <stdint.h>

#include "store/object.h"

/* String keys written to a file and read back.
 *
 * The file is a bare sequence of records, the same on every machine; lengths are unsigned 32-bit
 * big-endian:
 *
 *   offset       size      what
 *   0            4         namelen
 *   4            namelen   the key
 *   4 + namelen  4         datalen
 *   8 + namelen  datalen   the value's bytes
 *
 * Keys of histories (see is_history_key) are written and read by the history unit, in the same
 * frame.
 *
 * Neither direction ever blocks on what a client names as the path: files are opened non-blocking,
 * a terminal does not become the daemon's own, and what a serial port has not sent at the end of a
 * dump is dropped. Neither announces anything or touches an expiry. */

/* The largest file that is loaded: a larger one would keep the daemon from its other clients. */
constexpr int64_t LOAD_MAX_SIZE = 256 * 1024 * 1024;

/* Nor is a file loaded that is larger than the machine's memory divided by this. */
constexpr unsigned LOAD_MEMORY_SHARE = 4;

/* What the history unit registers at start-up. */
struct dump_history_hooks {
    /* Writes the record of a history key, or nothing. False as dump_write_record. */
    bool (*write_record)(object* obj, int fd);
    /* Takes the data of a record in; `key` is a C string, the data is valid during the call. */
    void (*load_record)(const char* key, const char* data, uint32_t length);
};

/* Null members until they are registered: history keys are then neither written nor read. */
extern dump_history_hooks dump_history;

/* True when the text behind the key's last "." begins with "day", "week" or "mon". */
bool is_history_key(const char* key);

/* What dump_keys returns when there is no selection (store/selection.h): the file is not touched.
 */
constexpr int DUMP_GIVEN_UP = -1;

/* Writes every string key that matches the pattern `keys` (core/pattern.h) to the file, which is
 * created (0644) or emptied. A deleted key whose record still stands is written too. The dump ends
 * before the first record that is not taken whole, and that is no failure. Returns 0, the error
 * number of the failed creation, or DUMP_GIVEN_UP. */
int dump_keys(const char* path, const char* keys);

/* Writes one record, continuing short writes. False when the file does not take all of it: then it
 * is cut back to where the record began, so that it ends with a whole one, and nothing more is to
 * be written. Of a pipe or device nothing can be taken back. */
bool dump_write_record(int fd, const char* key, uint32_t namelen, const char* data,
                       uint32_t datalen);

/* Assigns the values of a file's records to the string keys that exist; other records are skipped.
 * A malformed rest ends the loading and is no failure. Returns 0, or the error number of the failed
 * opening: ENOMEM when memory does not allow the file, EFBIG above LOAD_MAX_SIZE. */
int load_keys(const char* path);
