#pragma once

#include <stdio.h>

#include "ctl/ctl_reply.h"
#include "ctl/ctl_status.h"
#include "ctl/ctl_text.h"

/* Replies and events as people and scripts want them.
 *
 * Each item is written as its bytes are, and then one newline, always: also behind a value that
 * ends with a newline itself, and behind an empty one. A script that strips one newline has the
 * value. Nothing here flushes but ctl_print_finish. */

/* Writes a reply and returns what it means:
 *
 *     status, integer, bulk   the text                                             CTL_DONE
 *     nil                     "(nil)" on a terminal, else not even a newline       CTL_NIL
 *     multibulk               one item a line, nil as "(nil)"; nothing for none    CTL_DONE
 *     error                   the text, on `err`                                   CTL_ERROR
 *
 * With `pairs`, which only a terminal wants, the items of a multibulk are taken by two, field and
 * value, and each pair is a line in two columns. A multibulk that has an odd item is written as
 * without. */
ctl_status ctl_print_reply(FILE* out, FILE* err, const ctl_reply* reply, bool terminal, bool pairs);

/* Writes the frame as it came, and nothing else; the status is as for ctl_print_reply, CTL_DONE for
 * what is not whole. */
ctl_status ctl_print_raw(FILE* out, const ctl_reply* reply);

/* Writes an event as one line of words with a blank between: its name, the key, the values. Each is
 * quoted as ctl_print_quoted does; a nil value is the bare word (nil), which no value looks like.
 */
void ctl_print_event(FILE* out, const ctl_reply* reply);

/* Writes the text so that a shell reads it back as one word, and so that it stays on one line and
 * does not touch the terminal: as it is when it holds nothing special, else in '...', and in $'...'
 * with octal escapes when it holds control characters or bytes that are not UTF-8. */
void ctl_print_quoted(FILE* out, ctl_text text);

/* Writes the text as a JSON string, its quotes included, in valid UTF-8. Control characters, those
 * from U+0080 to U+009F among them, are escaped; bytes that are not UTF-8 become U+FFFD each. */
void ctl_print_json(FILE* out, ctl_text text);

/* Flushes. CTL_OUTPUT, with a word on standard error, when anything written to `out` so far was not
 * taken. */
ctl_status ctl_print_finish(FILE* out);
