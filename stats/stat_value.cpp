#include "stats/stat_value.h"

#include <signal.h>
#include <stdlib.h>

#include "core/text.h"

namespace {

/* The daemon ignores SIGPIPE, and a program would inherit that: one that writes for ever into a closed pipe
 * would then never end. */
void while_pipe_signal_is_normal(void (*start)(const char*, FILE**), const char* command, FILE** output) {
    const auto before = signal(SIGPIPE, SIG_DFL);
    start(command, output);
    (void)signal(SIGPIPE, before);
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

FILE* stat_command_open(const char* command) {
    const char* quiet = str_format("exec 2>/dev/null; %s", command);
    FILE* output = nullptr;
    while_pipe_signal_is_normal([](const char* c, FILE** out) { *out = popen(c, "re"); }, quiet, &output);
    return output;
}

void stat_command_close(FILE* output) {
    (void)pclose(output);
}

void stat_command_run(const char* command) {
    while_pipe_signal_is_normal([](const char* c, FILE**) { (void)!system(c); }, command, nullptr);
}

uint32_t stat_reading(long long value) {
    if (value > INT32_MAX) {
        return INT32_MAX;
    }
    return value < INT32_MIN ? static_cast<uint32_t>(INT32_MIN) : static_cast<uint32_t>(value);
}
