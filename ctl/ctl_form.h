#pragma once

#include <stdio.h>

#include "ctl/ctl_series.h"
#include "ctl/ctl_text.h"

/* Histories in letters and digits: a table for people, CSV and JSON for programs.
 *
 * Each form shows every sample, oldest first, with every figure of its kind. A form that has times
 * has numbers of samples, from 1, where the times are not known. The key is that of the series and
 * may hold any bytes. Nothing here fails; whether the output took everything is for the caller to
 * find out. */

/* Local time and the figures in columns, below a line of names. Where the times are not known,
 * lines in front say why; a history without samples is one line that says so. */
void ctl_form_table(FILE* out, ctl_text key, const ctl_series* series);

/* A line of names, then a line for each sample; times in UTC as in 2024-05-06T07:08:09Z. */
void ctl_form_csv(FILE* out, const ctl_series* series);

/* One object:
 *
 *     {"key":"cpu.10m","last":"2024-05-06T07:08:09Z","period_seconds":1,"slots":600,"samples":[
 *     {"time":"2024-05-06T07:08:09Z","percent":12}
 *     ]}
 *
 * with "period_reports" for ping, "sample":1 for a time that is not known, and null for a last time
 * that is not. */
void ctl_form_json(FILE* out, ctl_text key, const ctl_series* series);
