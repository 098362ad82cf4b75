#pragma once

#include <stdint.h>

#include "core/buffer.h"
#include "core/sstr.h"

/* One request of a client: a RESP array of bulk strings, the command name first.
 *
 * A request must stand whole in the input when it is parsed: an incomplete one is refused like a
 * malformed one, because the daemon serves one request for each delivery and keeps no half-read
 * state. */

struct request {
    sstr name;
    uint32_t argc; /* arguments after the name */
    sstr* argv;    /* argc of them, in the record's own block; null where none was read yet */
};

/* Parses the unread bytes of `input`, which keeps its read position; the line ends of the headers
 * are overwritten with NUL. Returns a request, owned by the caller until request_free, or null.
 * What follows the last element is not looked at. Counts that cannot fit into the delivered bytes
 * are refused before anything is allocated for them. */
request* request_parse(const buffer* input);

/* Frees a request, also a partly filled one. */
void request_free(request* r);
