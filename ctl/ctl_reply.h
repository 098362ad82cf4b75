#pragma once

#include <stddef.h>
#include <stdint.h>

#include "ctl/ctl_text.h"

/* Frames of the daemon, taken apart as their bytes arrive:
 *
 *     +text\r\n                          status, one item: the text
 *     -text\r\n                          error, one item: the text
 *     :n\r\n                             integer, one item: its digits
 *     $n\r\n<n bytes>\r\n  or $-1\r\n    bulk, one item, perhaps nil
 *     *n\r\n<n bulks>                    multibulk, n items, each perhaps nil
 *     !n\r\n<n bulks>                    an event pushed to an observer: event name, key, values
 *
 * The bytes need not come from the daemon at all, so nothing in them is trusted: memory grows with
 * the bytes that have really come, never with a number that was announced, and never beyond
 * CTL_REPLY_MAX. What does not fit the forms above is broken, and stays so: after a broken frame
 * nobody knows where the next begins.
 *
 * Invariants of ctl_reply:
 *   1. The frame being read begins at data + start; the first `parsed` of its bytes are understood.
 *   2. start + parsed <= length <= capacity.
 *   3. Items 0 .. count - 1 lie wholly within the understood bytes; their offsets count from the
 * frame's beginning, so that they stay true when the bytes move.
 *   4. `broken` is null as long as everything was well formed. */

/* The most bytes of one frame. The daemon drops a client that lets one or two megabytes pile up, so
 * no frame of its own comes near. */
constexpr size_t CTL_REPLY_MAX = 16U << 20U;

/* The most bytes of a line: all of a status or error, the head of everything else. */
constexpr size_t CTL_REPLY_LINE_MAX = 1024;

enum ctl_state {
    CTL_MORE,   /* the frame is not whole yet */
    CTL_WHOLE,  /* the frame is whole, its items may be read */
    CTL_BROKEN, /* `broken` says why */
};

struct ctl_span {
    size_t offset;
    size_t length; /* SIZE_MAX for nil */
};

struct ctl_reply {
    char kind;       /* first byte of the frame, 0 until its first line is understood */
    uint32_t wanted; /* items that the first line announces */
    uint32_t count;  /* items that are there */
    uint32_t slots;  /* items for which `items` has room */
    ctl_span* items;
    char* data;
    size_t start;
    size_t parsed;
    size_t length;
    size_t capacity;
    const char* broken; /* a literal in plain words, or null */
};

void ctl_reply_init(ctl_reply* reply);

/* Frees what the reply holds, not the record; it is as after ctl_reply_init. */
void ctl_reply_free(ctl_reply* reply);

/* Makes room for more bytes and returns where they go; `*size` becomes how many fit, at least 1.
 * The caller writes there and says with ctl_reply_added how many. Null, with `broken` set, when the
 * frame outgrows CTL_REPLY_MAX or memory is exhausted. */
char* ctl_reply_room(ctl_reply* reply, size_t* size);
void ctl_reply_added(ctl_reply* reply, size_t length);

/* Goes on understanding the frame with the bytes that are there. May be called at any time; a frame
 * that is whole stays so until it is dropped. */
ctl_state ctl_reply_parse(ctl_reply* reply);

/* Drops the whole frame; bytes behind it stay and are the beginning of the next. */
void ctl_reply_next(ctl_reply* reply);

/* True when not a byte of the frame has come. */
bool ctl_reply_untouched(const ctl_reply* reply);

/* Item i of a whole frame: valid until the reply is next given room, dropped or freed. */
ctl_text ctl_reply_item(const ctl_reply* reply, uint32_t i);

/* The frame as it came: all of a whole one, of any other the bytes that are there. Valid as long as
 * an item is. */
ctl_text ctl_reply_bytes(const ctl_reply* reply);
