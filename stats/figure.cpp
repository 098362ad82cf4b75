#include "stats/figure.h"

#include "core/text.h"

void figure_start(figure* f, const char* name, uint32_t sample_size) {
    history_free_set(f->history);
    *f = {};
    history_init_set(f->history, name, sample_size);
}

void figure_tick(figure* f) {
    for (unsigned i = 0; i < HISTORY_SPANS; i++) {
        uint32_t* maximum = &f->maximum[i];
        if (*maximum < f->value) {
            *maximum = f->value;
        }
        char sample[4];
        text_put_be32(sample, *maximum);
        const char* low_bytes = sample + sizeof sample - f->history[i].sample_size;
        if (history_tick(&f->history[i], low_bytes) == 1) {
            *maximum = 0;
        }
    }
}
