#include "stats/modules.h"

#include "stats/crond.h"
#include "stats/history.h"
#include "stats/lcd.h"
#include "stats/ping.h"
#include "stats/tick.h"

namespace {

typedef void (*module_start)();

/* Ends with a null entry. */
const module_start stat_modules[] = {module_stats_start, module_lcd_start, module_crond_start,
                                     module_ping_start, nullptr};

} // namespace

void modules_start() {
    history_start();
    for (const module_start* start = stat_modules; *start != nullptr; start++) {
        (*start)();
    }
}
