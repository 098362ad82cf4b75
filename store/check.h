#pragma once

#include "core/log.h"

/* The checks of the units that the log calls "object": this folder's objects and their events. */

/* The lines at which the log reports them. Operators recognise them, so they do not move with the
 * sources. */
enum object_line : int {
    OBJECT_LINE_STRING_HOOK = 96,
    OBJECT_LINE_EXPIRE = 567,
    OBJECT_LINE_EXPIRE_AT = 576,
    OBJECT_LINE_APPEND = 686,
    OBJECT_LINE_INCR = 697,
    OBJECT_LINE_HASH_SET = 718,
    OBJECT_LINE_HASH_INCR = 749,
    OBJECT_LINE_HASH_DEL = 771,
    OBJECT_LINE_HASH_PROTECT = 791,
    OBJECT_LINE_RPOP = 815,
    OBJECT_LINE_LPOP = 841,
    OBJECT_LINE_LINDEX = 854,
    OBJECT_LINE_LTRIM_TAIL = 861
};

/* Ends the process through a fatal log line when the invariant does not hold. */
inline void object_require(bool holds, const char* expression, object_line line) {
    log_require(holds, expression, "object", line);
}
