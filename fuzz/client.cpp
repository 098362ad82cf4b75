/* What tessctl is given by whoever answers it: frames in pieces, rings and ping entries, and all
 * that it prints of them. A step is
 *
 *   0 to 9   bytes of the stream, which come one by one, or so many at a time
 *   s        a key, a blank and the value of a history
 *   p        the value of "ping.snap" */

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "ctl/ctl_board.h"
#include "ctl/ctl_chart.h"
#include "ctl/ctl_form.h"
#include "ctl/ctl_pings.h"
#include "ctl/ctl_print.h"
#include "ctl/ctl_reply.h"
#include "ctl/ctl_series.h"
#include "fuzz/support/check.h"
#include "fuzz/support/steps.h"

namespace {

/* Where everything is printed. */
struct printed {
    FILE* out;
    char* bytes;
    size_t size;
};

void start_printing(printed* p) {
    p->out = open_memstream(&p->bytes, &p->size);
    fuzz_require(p->out != nullptr, "no stream in memory");
}

std::string end_printing(printed* p) {
    fclose(p->out);
    const std::string all(p->bytes, p->size);
    free(p->bytes);
    return all;
}

void print_frame(FILE* out, const ctl_reply* reply) {
    ctl_print_reply(out, out, reply, false, false);
    ctl_print_reply(out, out, reply, true, true);
    ctl_print_raw(out, reply);
    if (reply->kind == '!') {
        ctl_print_event(out, reply);
    }
}

/* Everything that is printed of a stream whose bytes come `piece` at a time, and why it broke. */
std::string print_stream(const std::string& bytes, size_t piece) {
    printed p;
    start_printing(&p);
    ctl_reply reply;
    ctl_reply_init(&reply);
    for (size_t done = 0; done < bytes.size();) {
        size_t room;
        char* place = ctl_reply_room(&reply, &room);
        if (place == nullptr) {
            break;
        }
        const size_t left = bytes.size() - done;
        const size_t count = piece < left ? piece : left;
        room = room < count ? room : count;
        memcpy(place, bytes.data() + done, room);
        ctl_reply_added(&reply, room);
        done += room;
        while (ctl_reply_parse(&reply) == CTL_WHOLE) {
            print_frame(p.out, &reply);
            ctl_reply_next(&reply);
        }
    }
    if (reply.broken != nullptr) {
        fputs(reply.broken, p.out);
    } else {
        ctl_print_raw(p.out, &reply);
    }
    ctl_reply_free(&reply);
    return end_printing(&p);
}

void read_stream(const std::string& bytes, size_t piece) {
    fuzz_require(print_stream(bytes, piece) == print_stream(bytes, SIZE_MAX),
                 "a stream reads otherwise when it comes in pieces");
}

void draw_board(FILE* out, const ctl_series* series, ctl_text name) {
    static ctl_board board;
    board = {};
    board.count = 1;
    ctl_gauge_init(&board.gauges[0], name, "", CTL_UNIT_COUNT);
    ctl_gauge_take(&board.gauges[0], series, 0);
    ctl_board_draw(out, &board, 80, 24, true);
}

void show_series(const std::string& text) {
    const size_t blank = text.find(' ');
    const size_t behind = blank != std::string::npos ? blank + 1 : text.size();
    const ctl_text key = {text.data(), blank != std::string::npos ? blank : text.size()};
    /* The value in a block of its own, so that what is read beyond it shows. */
    const std::string value = text.substr(behind);
    ctl_series series;
    if (ctl_series_decode(key, {value.data(), value.size()}, &series) != nullptr) {
        return;
    }
    printed p;
    start_printing(&p);
    ctl_form_table(p.out, key, &series);
    ctl_form_csv(p.out, &series);
    ctl_form_json(p.out, key, &series);
    ctl_chart_draw(p.out, key, &series, 80, true);
    ctl_chart_draw(p.out, key, &series, 1, false);
    draw_board(p.out, &series, key);
    end_printing(&p);
}

void show_pings(const std::string& value) {
    printed p;
    start_printing(&p);
    ctl_pings_table(p.out, {value.data(), value.size()});
    end_printing(&p);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    fuzz_steps steps = steps_start(bytes, size);
    fuzz_step step;
    while (steps_next(&steps, &step)) {
        if (step.kind == 's') {
            show_series(step.text);
        } else if (step.kind == 'p') {
            show_pings(step.text);
        } else {
            read_stream(step.text, step.kind > '0' && step.kind <= '9'
                                       ? static_cast<size_t>(step.kind - '0')
                                       : 1);
        }
    }
    return 0;
}
