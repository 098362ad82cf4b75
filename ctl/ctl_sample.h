#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "ctl/ctl_series.h"
#include "ctl/ctl_text.h"

/* How the samples of a history are called, the same in every form that a history is shown in: by
 * their time, or by their number where the time is not known. Local times are those of the zone
 * that tzset() found. Nothing here fails. */

/* Room for the text of a time or number, NUL included. */
constexpr size_t CTL_SAMPLE_TEXT = 48;

enum ctl_stamp {
    CTL_STAMP_LOCAL,        /* 2024-05-06 07:08:09 */
    CTL_STAMP_LOCAL_MINUTE, /* 2024-05-06 07:08 */
    CTL_STAMP_LOCAL_CLOCK,  /* 07:08:09 */
    CTL_STAMP_UTC,          /* 2024-05-06T05:08:09Z */
};

/* Writes a time, given in seconds since 1970. A clock of 32 bits may not reach it; then the plain
 * number of seconds is left. */
void ctl_sample_time(char (&text)[CTL_SAMPLE_TEXT], int64_t seconds, ctl_stamp wanted);

/* Writes the time of a sample, or else its number, counted from 1 for the oldest. Returns whether
 * it is the time. */
bool ctl_sample_name(char (&text)[CTL_SAMPLE_TEXT], const ctl_series* series, uint32_t sample,
                     ctl_stamp wanted);

/* The line that stands in place of the samples of a history that has none. */
void ctl_sample_none(FILE* out, ctl_text key);

/* What a noun that is counted ends with: "s", or nothing for one. */
const char* ctl_sample_plural(uint32_t number);
