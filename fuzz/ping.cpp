/* What clients write to "ping.data" and "ping.del", and over the keys of the ping statistics. A
 * step is
 *
 *   0, p     the value of "ping.data"
 *   x        the value of "ping.del"
 *   n        the last report once more, as many times as its first byte says
 *   d        everything dumped and loaded
 *
 * and what world_step knows. */

#include "stats/ping.h"

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>

#include "ctl/ctl_pings.h"
#include "fuzz/support/check.h"
#include "fuzz/support/files.h"
#include "fuzz/support/steps.h"
#include "fuzz/support/store_check.h"
#include "fuzz/support/world.h"
#include "store/dump.h"
#include "store/object.h"

namespace {

/* The value of "ping.snap", none when the key is gone. */
std::string snap() {
    const object* obj = object_lookup_type("ping.snap", OBJ_TSTRING);
    if (obj == nullptr) {
        return "";
    }
    const sstr value = object_string(obj);
    return std::string(value, sstr_length(value));
}

/* One report or deletion is about one target. */
void set_figures(const char* key, const std::string& value) {
    const std::string before = snap();
    world_set_string(key, value);
    const std::string after = snap();
    fuzz_require(after.size() == before.size(), "ping.snap has another length");
    unsigned changed = 0;
    for (size_t at = 0; at + PING_ENTRY_SIZE <= after.size(); at += PING_ENTRY_SIZE) {
        changed += after.compare(at, PING_ENTRY_SIZE, before, at, PING_ENTRY_SIZE) != 0 ? 1 : 0;
    }
    fuzz_require(changed <= 1, "more than one target changed");
}

void carry_out(const fuzz_step* step, std::string* report) {
    switch (step->kind) {
    case 'x':
        set_figures("ping.del", step->text);
        break;
    case 'n':
        for (unsigned left = step->text.empty() ? 0 : static_cast<unsigned char>(step->text[0]);
             left > 0; left--) {
            set_figures("ping.data", *report);
        }
        break;
    case 'd':
        fuzz_require(dump_keys("/dump", "*") == 0 && load_keys("/dump") == 0, "no dump");
        break;
    default:
        if (!world_step(step)) {
            *report = step->text;
            set_figures("ping.data", *report);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    world_start();
    files_shut_in();
    std::string report;
    fuzz_steps steps = steps_start(bytes, size);
    fuzz_step step;
    while (steps_next(&steps, &step)) {
        carry_out(&step, &report);
    }
    store_check();
    rings_check(world_rings_are_whole());
    files_let_out();
    return 0;
}
