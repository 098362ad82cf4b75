#include "stats/stat_value.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/text.h"

namespace {

typedef void (*signal_handler)(int);

/* The daemon ignores SIGPIPE, and a program that it starts would inherit that: one that writes for
 * ever into a closed pipe would then never end. Returns what end_normal_pipe_signal puts back. */
signal_handler begin_normal_pipe_signal() {
    return signal(SIGPIPE, SIG_DFL);
}

void end_normal_pipe_signal(signal_handler before) {
    (void)signal(SIGPIPE, before);
}

void read_lines(FILE* output, unsigned lines, char (&text)[STAT_OUTPUT_SIZE]) {
    size_t length = 0;
    bool blank = true;
    /* Byte by byte, since a NUL must count as well. */
    for (int c; lines > 0 && length < sizeof text - 1 && (c = getc(output)) != EOF;) {
        text[length++] = static_cast<char>(c);
        if (c == '\n' && !blank) {
            lines--;
        }
        blank = c == '\n' || (blank && strchr(" \t\r\v\f", c) != nullptr && c != '\0');
    }
    text[length] = '\0';
}

} // namespace

void stat_set_number(const char* key, uint32_t value) {
    object* obj = object_get_or_create(key, SSTR_CSTRING, OBJ_TSTRING);
    if (obj == nullptr) {
        return;
    }
    uint32_t length;
    const char* digits = text_unsigned(value, &length);
    sstr text = sstr_new(digits, length);
    object_set_string(obj, text);
    sstr_free(&text);
}

void stat_hset_u64(object* hash, const char* field, uint32_t low, uint32_t high) {
    uint32_t length;
    const char* digits = text_unsigned(uint64_t{high} << 32 | low, &length);
    sstr name = sstr_new(field, SSTR_CSTRING);
    sstr text = sstr_new(digits, length);
    object_hash_set(hash, name, text);
    sstr_free(&name);
    sstr_free(&text);
}

void stat_hset_u32(object* hash, const char* field, uint32_t value) {
    stat_hset_u64(hash, field, value, 0);
}

bool stat_command_output(const char* command, unsigned lines, char (&text)[STAT_OUTPUT_SIZE]) {
    const char* quiet = str_format("exec 2>/dev/null; %s", command);
    const signal_handler before = begin_normal_pipe_signal();
    FILE* output = popen(quiet, "re");
    end_normal_pipe_signal(before);
    text[0] = '\0';
    if (output == nullptr) {
        return false;
    }
    read_lines(output, lines, text);
    (void)pclose(output);
    return true;
}

void stat_command_run(const char* command) {
    const signal_handler before = begin_normal_pipe_signal();
    (void)!system(command);
    end_normal_pipe_signal(before);
}

uint32_t stat_unsigned_reading(unsigned long long value) {
    return value > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(value);
}

uint32_t stat_signed_reading(long long value) {
    if (value > INT32_MAX) {
        return INT32_MAX;
    }
    return value < INT32_MIN ? static_cast<uint32_t>(INT32_MIN) : static_cast<uint32_t>(value);
}
