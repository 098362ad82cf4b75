#include "ctl/ctl_print.h"

#include <errno.h>
#include <inttypes.h>
#include <string.h>

namespace {

constexpr const char NIL[] = "(nil)";

/* Fields wider than this push their value to the right instead of widening the column for all. */
constexpr size_t FIELD_COLUMN_MAX = 32;

enum quoting {
    QUOTE_NONE,
    QUOTE_SINGLE, /* '...' */
    QUOTE_ESCAPE, /* $'...' */
};

void put_text(FILE* out, ctl_text text) {
    if (text.bytes == nullptr) {
        fputs(NIL, out);
    } else {
        fwrite(text.bytes, 1, text.length, out);
    }
}

void put_line(FILE* out, ctl_text text) {
    put_text(out, text);
    fputc('\n', out);
}

unsigned byte_at(ctl_text text, size_t i) {
    return static_cast<unsigned char>(text.bytes[i]);
}

/* Characters, for text in UTF-8: every byte counts that does not continue one. */
size_t text_width(ctl_text text) {
    if (text.bytes == nullptr) {
        return sizeof NIL - 1;
    }
    size_t width = 0;
    for (size_t i = 0; i < text.length; i++) {
        if ((byte_at(text, i) & 0xc0U) != 0x80) {
            width++;
        }
    }
    return width;
}

size_t field_column(const ctl_reply* reply) {
    size_t column = 0;
    for (uint32_t i = 0; i < reply->count; i += 2) {
        const size_t width = text_width(ctl_reply_item(reply, i));
        if (width > column && width <= FIELD_COLUMN_MAX) {
            column = width;
        }
    }
    return column;
}

void print_pairs(FILE* out, const ctl_reply* reply) {
    const size_t column = field_column(reply);
    for (uint32_t i = 0; i + 1 < reply->count; i += 2) {
        const ctl_text field = ctl_reply_item(reply, i);
        const size_t width = text_width(field);
        put_text(out, field);
        fprintf(out, "%*s", static_cast<int>((width < column ? column - width : 0) + 2), "");
        put_line(out, ctl_reply_item(reply, i + 1));
    }
}

void print_items(FILE* out, const ctl_reply* reply) {
    for (uint32_t i = 0; i < reply->count; i++) {
        put_line(out, ctl_reply_item(reply, i));
    }
}

ctl_status reply_status(const ctl_reply* reply) {
    if (reply->kind == '-') {
        return CTL_ERROR;
    }
    const bool nil =
        reply->kind == '$' && reply->count == 1 && ctl_reply_item(reply, 0).bytes == nullptr;
    return nil ? CTL_NIL : CTL_DONE;
}

/* Bytes of the UTF-8 character at i, more than one each, and its code; 0, with `*code` left alone,
 * when there is none. */
size_t utf8_length(ctl_text text, size_t i, uint32_t* code) {
    const unsigned first = byte_at(text, i);
    const size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.length - i < length) {
        return 0;
    }
    uint32_t bits = first & (0x7fU >> length);
    for (size_t k = 1; k < length; k++) {
        const unsigned next = byte_at(text, i + k);
        if ((next & 0xc0U) != 0x80) {
            return 0;
        }
        bits = bits << 6U | (next & 0x3fU);
    }
    const bool overlong = (length == 3 && bits < 0x800) || (length == 4 && bits < 0x10000);
    const bool surrogate = bits >= 0xd800 && bits <= 0xdfff;
    if (overlong || surrogate || bits > 0x10ffff) {
        return 0;
    }
    *code = bits;
    return length;
}

/* U+0080 to U+009F are control characters, to terminals too. */
constexpr uint32_t FIRST_PRINTABLE = 0xa0;

/* Bytes of the printable UTF-8 character at i, more than one each; 0 when there is none. */
size_t printable_length(ctl_text text, size_t i) {
    uint32_t code = 0;
    const size_t length = utf8_length(text, i, &code);
    return length > 0 && code >= FIRST_PRINTABLE ? length : 0;
}

bool is_plain(unsigned c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           (c != 0 && strchr("%+,-./:=@_", static_cast<int>(c)) != nullptr);
}

quoting quoting_needed(ctl_text text) {
    quoting needed = text.length == 0 ? QUOTE_SINGLE : QUOTE_NONE;
    for (size_t i = 0; i < text.length;) {
        const unsigned c = byte_at(text, i);
        const size_t wide = printable_length(text, i);
        if (c < 0x20 || c == 0x7f || (c >= 0x80 && wide == 0)) {
            return QUOTE_ESCAPE;
        }
        if (c < 0x80 && !is_plain(c)) {
            needed = QUOTE_SINGLE;
        }
        i += wide > 0 ? wide : 1;
    }
    return needed;
}

void put_single_quoted(FILE* out, ctl_text text) {
    fputc('\'', out);
    for (size_t i = 0; i < text.length; i++) {
        if (text.bytes[i] == '\'') {
            fputs("'\\''", out);
        } else {
            fputc(text.bytes[i], out);
        }
    }
    fputc('\'', out);
}

void put_escaped_byte(FILE* out, unsigned c) {
    if (c == '\n') {
        fputs("\\n", out);
    } else if (c == '\t') {
        fputs("\\t", out);
    } else if (c == '\r') {
        fputs("\\r", out);
    } else if (c == '\'' || c == '\\') {
        fprintf(out, "\\%c", static_cast<int>(c));
    } else if (c < 0x20 || c >= 0x7f) {
        /* Three octal digits end by themselves, whatever follows; hexadecimal ones do not in every
         * shell. */
        fprintf(out, "\\%03o", c);
    } else {
        fputc(static_cast<int>(c), out);
    }
}

void put_escaped(FILE* out, ctl_text text) {
    fputs("$'", out);
    for (size_t i = 0; i < text.length;) {
        const unsigned c = byte_at(text, i);
        const size_t wide = printable_length(text, i);
        if (wide > 0) {
            fwrite(text.bytes + i, 1, wide, out);
            i += wide;
        } else {
            put_escaped_byte(out, c);
            i++;
        }
    }
    fputc('\'', out);
}

} // namespace

ctl_status ctl_print_reply(FILE* out, FILE* err, const ctl_reply* reply, bool terminal,
                           bool pairs) {
    const ctl_status status = reply_status(reply);
    if (reply->kind == '*') {
        if (pairs && reply->count % 2 == 0) {
            print_pairs(out, reply);
        } else {
            print_items(out, reply);
        }
    } else if (status == CTL_ERROR) {
        put_line(err, ctl_reply_item(reply, 0));
    } else if (status != CTL_NIL || terminal) {
        put_line(out, ctl_reply_item(reply, 0));
    }
    return status;
}

ctl_status ctl_print_raw(FILE* out, const ctl_reply* reply) {
    const ctl_text bytes = ctl_reply_bytes(reply);
    if (bytes.length > 0) {
        fwrite(bytes.bytes, 1, bytes.length, out);
    }
    return reply_status(reply);
}

void ctl_print_event(FILE* out, const ctl_reply* reply) {
    for (uint32_t i = 0; i < reply->count; i++) {
        const ctl_text text = ctl_reply_item(reply, i);
        if (i > 0) {
            fputc(' ', out);
        }
        if (text.bytes == nullptr) {
            fputs(NIL, out);
        } else {
            ctl_print_quoted(out, text);
        }
    }
    fputc('\n', out);
}

void ctl_print_quoted(FILE* out, ctl_text text) {
    switch (quoting_needed(text)) {
    case QUOTE_NONE:
        put_text(out, text);
        break;
    case QUOTE_SINGLE:
        put_single_quoted(out, text);
        break;
    case QUOTE_ESCAPE:
        put_escaped(out, text);
        break;
    }
}

void ctl_print_json(FILE* out, ctl_text text) {
    fputc('"', out);
    for (size_t i = 0; i < text.length;) {
        uint32_t code = byte_at(text, i);
        const size_t wide = utf8_length(text, i, &code);
        if (code >= 0x80 && wide == 0) {
            fputs("\\ufffd", out);
        } else if (code < 0x20 || (code >= 0x7f && code < FIRST_PRINTABLE)) {
            fprintf(out, "\\u%04" PRIx32, code);
        } else if (wide > 0) {
            fwrite(text.bytes + i, 1, wide, out);
        } else {
            fprintf(out, code == '"' || code == '\\' ? "\\%c" : "%c", static_cast<int>(code));
        }
        i += wide > 0 ? wide : 1;
    }
    fputc('"', out);
}

ctl_status ctl_print_finish(FILE* out) {
    if (fflush(out) == 0 && ferror(out) == 0) {
        return CTL_DONE;
    }
    fprintf(stderr, "tessctl: cannot write the output: %s\n", strerror(errno));
    return CTL_OUTPUT;
}
