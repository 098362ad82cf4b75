/* Files to be loaded, on a store with histories; a dump must hold whole records and load as it was.
 * A step is
 *
 *   0, f     the bytes of a file, which is loaded
 *   r        a key, a blank and data: the record of both, put behind the next file's bytes
 *   d        a pattern, a blank and a path: dumped there
 *   l        a path, which is loaded
 *   p        a ping report: the value of "ping.data"
 *
 * and what world_step knows. */

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>

#include "core/text.h"
#include "fuzz/support/check.h"
#include "fuzz/support/files.h"
#include "fuzz/support/steps.h"
#include "fuzz/support/store_check.h"
#include "fuzz/support/world.h"
#include "store/dump.h"
#include "store/object.h"

namespace {

constexpr char FILE_PATH[] = "/dump";
constexpr char FIRST_PATH[] = "/first";
constexpr char SECOND_PATH[] = "/second";

/* Records that wait for their file. */
std::string records;

std::string record_of(const std::string& key, const std::string& data) {
    char lengths[2][4];
    text_put_be32(lengths[0], static_cast<uint32_t>(key.size()));
    text_put_be32(lengths[1], static_cast<uint32_t>(data.size()));
    return std::string(lengths[0], 4) + key + std::string(lengths[1], 4) + data;
}

void load_bytes(const std::string& bytes) {
    files_write(FILE_PATH, records + bytes);
    records.clear();
    fuzz_require(load_keys(FILE_PATH) == 0, "a file cannot be loaded");
}

/* A dump ends at a whole record, also where its file takes no more. */
void check_records(const std::string& dump) {
    size_t at = 0;
    while (at < dump.size()) {
        for (int part = 0; part < 2; part++) {
            fuzz_require(dump.size() - at >= 4, "a dump ends within a length");
            const size_t length = text_get_be32(dump.data() + at);
            at += 4;
            fuzz_require(dump.size() - at >= length, "a dump ends within a record");
            at += length;
        }
    }
}

void carry_out(fuzz_step* step) {
    switch (step->kind) {
    case 'r': {
        const std::string data = world_cut_at_blank(&step->text);
        records += record_of(step->text, data);
        break;
    }
    case 'd': {
        const std::string path = world_cut_at_blank(&step->text);
        if (dump_keys(path.c_str(), step->text.c_str()) == 0) {
            check_records(files_read(path.c_str()));
        }
        break;
    }
    case 'l':
        (void)load_keys(step->text.c_str());
        break;
    case 'p':
        world_set_string("ping.data", step->text);
        break;
    default:
        if (!world_step(step)) {
            load_bytes(step->text);
        }
    }
}

/* The second of two loads at one time finds nothing to pad. */
void check_that_dumps_load() {
    files_shut_in();
    for (int i = 0; i < 2; i++) {
        fuzz_require(dump_keys(FIRST_PATH, "*") == 0 && load_keys(FIRST_PATH) == 0,
                     "a dump cannot be loaded");
    }
    fuzz_require(dump_keys(SECOND_PATH, "*") == 0, "no second dump");
    fuzz_require(files_read(FIRST_PATH) == files_read(SECOND_PATH), "a dump loads as another");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    world_start();
    files_shut_in();
    records.clear();
    files_write(FILE_PATH, "");
    world_set_string("a", "1");
    world_set_string("b.day", "no ring");
    fuzz_steps steps = steps_start(bytes, size);
    fuzz_step step;
    while (steps_next(&steps, &step)) {
        carry_out(&step);
    }
    store_check();
    rings_check(world_rings_are_whole());
    check_that_dumps_load();
    store_check();
    rings_check(world_rings_are_whole());
    files_let_out();
    return 0;
}
