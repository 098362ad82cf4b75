#include "stats/lcd.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include "core/descriptor.h"
#include "core/log.h"
#include "core/text.h"
#include "loop/loop.h"
#include "stats/tool.h"
#include "store/object.h"

namespace {

constexpr uint32_t REFRESH_MS = 3000;
constexpr char DRIVER_NODE[] = "/dev/st7565";
constexpr size_t SCREEN_SIZE = 128;
constexpr size_t FRAME_SIZE = 91;
constexpr unsigned FRAME_LINES = 4;
constexpr size_t LINE_WIDTH = 20;
constexpr char CLEAR_TEXT[] = "__clear";
constexpr size_t RATE_SIZE = 12;
constexpr size_t MODEL_SIZE = 16;

enum lcd_mode { MODE_NONE, MODE_NODE, MODE_SERIAL };

typedef int (*lcd_writer)(int fd, const char* text, size_t length);

struct lcd_state {
    tool model_tool;
    bool decided; /* false until the kind of panel is settled */
    lcd_mode mode;
    const char* path;  /* the device; null without a panel */
    lcd_writer writer; /* how a screen is sent; null without a panel */
    int port = -1;     /* the serial port as it was last opened, -1 when it is closed */
    uint32_t shown_up; /* bytes per second, kept from refresh to refresh */
    uint32_t shown_down;
};

lcd_state state;

/* What the screen shows, with the value last read. */
struct lcd_stat_key {
    const char* key;
    uint32_t value;
};

enum stat_index { CPU_LOAD, MEM_LOAD, HOST_NUM, RXBRATE, TXBRATE, STAT_KEYS };

lcd_stat_key lcd_stat_keys[STAT_KEYS] = {
    {"cpu.load", 0}, {"mem.load", 0}, {"host.num", 0}, {"rxbrate", 0}, {"txbrate", 0}};

/* Models whose panel is on the first port. */
const char* const first_port_models[] = {"KT7010", "KT7020", "KT7030",
                                         "KT7040", "KQM810", "KQM820"};

int write_text(int fd, const char* text, size_t length) {
    return static_cast<int>(write(fd, text, length));
}

/* What the port has not taken by now is part of an old screen. */
void drop_old_screen() {
    if (state.port >= 0) {
        (void)tcflush(state.port, TCOFLUSH);
    }
}

/* Takes over the port as it was opened just now, or -1. Whoever closes a port last waits for what
 * it holds, so one stays open until it is open once more. */
void keep_port(int fd) {
    if (state.port >= 0) {
        close(state.port);
    }
    state.port = fd;
}

void close_port() {
    drop_old_screen();
    keep_port(-1);
}

void decide(lcd_mode mode, const char* path, lcd_writer writer) {
    state.decided = true;
    state.mode = mode;
    state.path = path;
    state.writer = writer;
}

bool has_serial_panel(const object* sys) {
    constexpr char PANEL[] = "LCD";
    const hash_field* pnp = object_hash_field(sys, "pnp");
    return pnp != nullptr && pnp->value != nullptr && sstr_length(pnp->value) == strlen(PANEL) &&
           strcmp(pnp->value, PANEL) == 0;
}

/* Takes the first word of the tool's output, cut to what fits; none leaves the model empty. Returns
 * where the reading stopped. */
const char* read_model(const char* output, char (&model)[MODEL_SIZE]) {
    int end = 0;
    (void)sscanf(output, "%15s%n", model, &end);
    return output + end;
}

/* The word has an end, or is longer than what is looked at. */
bool is_model_complete(const char* output) {
    char model[MODEL_SIZE] = {};
    const char* end = read_model(output, model);
    return strlen(model) == sizeof model - 1 || (end != output && *end != '\0');
}

const char* serial_port() {
    char output[TOOL_OUTPUT_SIZE];
    char model[MODEL_SIZE] = {};
    if (tool_ask(&state.model_tool, output)) {
        (void)read_model(output, model);
    }
    for (const char* known : first_port_models) {
        if (strncmp(model, known, 6) == 0) {
            return "/dev/ttyS0";
        }
    }
    return "/dev/ttyS1";
}

/* 9600 baud, 8 data bits, no parity, 1 stop bit. A port that is no terminal gets its message and is
 * used all the same. */
void set_up_line(int fd) {
    termios line;
    if (tcgetattr(fd, &line) < 0) {
        perror("SetupSerial 1");
        return;
    }
    line.c_cflag &= ~static_cast<tcflag_t>(CSIZE | CSTOPB | PARENB);
    line.c_cflag |= CS8;
    line.c_iflag |= INPCK;
    line.c_cc[VMIN] = 0;
    line.c_cc[VTIME] = 150;
    (void)tcflush(fd, TCIFLUSH);
    if (tcsetattr(fd, TCSANOW, &line) < 0) {
        perror("SetupSerial 3");
    }
    if (tcgetattr(fd, &line) < 0 || cfgetospeed(&line) == B9600) {
        return;
    }
    (void)tcflush(fd, TCIOFLUSH);
    (void)cfsetispeed(&line, B9600);
    (void)cfsetospeed(&line, B9600);
    if (tcsetattr(fd, TCSANOW, &line) < 0) {
        perror("tcsetattr fd");
    }
}

void try_serial_panel() {
    const char* path = serial_port();
    const int fd = descriptor_open_untrusted(path, O_RDWR);
    if (fd < 0) {
        perror("Can't Open x86_LCD Port.");
        return;
    }
    set_up_line(fd);
    (void)lcd_write_frame(fd, CLEAR_TEXT, sizeof CLEAR_TEXT);
    keep_port(fd);
    decide(MODE_SERIAL, path, lcd_write_frame);
}

void try_to_decide() {
    if (access(DRIVER_NODE, W_OK) == 0) {
        decide(MODE_NODE, DRIVER_NODE, write_text);
        return;
    }
    const object* sys = object_lookup_type("sys", OBJ_THASH);
    if (sys == nullptr) {
        return;
    }
    if (has_serial_panel(sys)) {
        try_serial_panel();
    } else {
        decide(MODE_NONE, nullptr, nullptr);
    }
}

uint32_t number_of(const char* text) {
    return static_cast<uint32_t>(text_parse_int32(text, nullptr, 10));
}

void read_stat_keys() {
    for (lcd_stat_key& stat : lcd_stat_keys) {
        const object* obj = object_lookup_type(stat.key, OBJ_TSTRING);
        if (obj != nullptr) {
            stat.value = number_of(object_string(obj));
        }
    }
}

void read_rate(const object* hash, lcd_stat_key* stat) {
    const hash_field* field = object_hash_field(hash, stat->key);
    if (field != nullptr && field->value != nullptr) {
        stat->value = number_of(field->value);
    }
}

/* "sys.lan" names the LAN interfaces, separated by ":"; a later one overrides an earlier one. The
 * stored text itself is split, deliberately: it ends at its first ":" from then on, and the next
 * refresh finds the first name alone. */
void read_lan_rates() {
    const object* lan = object_lookup_type("sys.lan", OBJ_TSTRING);
    if (lan == nullptr || lan->string == nullptr) {
        return;
    }
    lcd_stat_keys[RXBRATE].value = 0;
    lcd_stat_keys[TXBRATE].value = 0;
    char* rest = nullptr;
    for (const char* name = strtok_r(lan->string, ":", &rest); name != nullptr;
         name = strtok_r(nullptr, ":", &rest)) {
        const object* hash = object_lookup_type(name, OBJ_THASH);
        if (hash != nullptr) {
            read_rate(hash, &lcd_stat_keys[RXBRATE]);
            read_rate(hash, &lcd_stat_keys[TXBRATE]);
        }
    }
    state.shown_up = lcd_stat_keys[RXBRATE].value;
    state.shown_down = lcd_stat_keys[TXBRATE].value;
}

/* The panel shows half the stored processor load, on purpose. */
void format_screen(char (&screen)[SCREEN_SIZE]) {
    char up[RATE_SIZE];
    char down[RATE_SIZE];
    memcpy(up, rate_format(state.shown_up), sizeof up);
    memcpy(down, rate_format(state.shown_down), sizeof down);
    memset(screen, 0, sizeof screen);
    snprintf(screen, sizeof screen,
             "CPU : %2d%% MEM:%4d%%\nUP  : %s\nDOWN: %s\nHosts Online: %3d\n",
             static_cast<int>(lcd_stat_keys[CPU_LOAD].value >> 1),
             static_cast<int>(lcd_stat_keys[MEM_LOAD].value), up, down,
             static_cast<int>(lcd_stat_keys[HOST_NUM].value));
}

void refresh() {
    read_stat_keys();
    read_lan_rates();
    const int fd = descriptor_open_untrusted(state.path, O_WRONLY);
    if (fd < 0) {
        LOG(LOG_ERROR, "open (%s) failed.", state.path);
        close_port();
        return;
    }
    char screen[SCREEN_SIZE];
    format_screen(screen);
    if (state.mode == MODE_SERIAL) {
        keep_port(fd);
    }
    (void)state.writer(fd, screen, sizeof screen);
    if (state.mode == MODE_NODE) {
        close(fd);
    }
}

/* Fills the frame from the text, which is split in place. */
void compose_frame(char (&frame)[FRAME_SIZE], char* text) {
    static const char start[] = {'\xCC', '\xB3', 0, 0, 1};
    memset(frame, 0, sizeof frame);
    memcpy(frame, start, sizeof start);
    char* at = frame + sizeof start;
    for (unsigned lines = 0; lines < FRAME_LINES && text != nullptr; lines++) {
        const char* line = strsep(&text, "\n");
        if (text == nullptr && *line == '\0') {
            /* Behind the last newline there is no further line. */
            break;
        }
        const size_t length = strnlen(line, LINE_WIDTH);
        memset(at, ' ', LINE_WIDTH);
        memcpy(at, line, length);
        at += LINE_WIDTH;
    }
    at[0] = '\xAA';
    at[1] = '\xD0';
}

} // namespace

const char* rate_format(uint32_t rate) {
    static char text[RATE_SIZE];
    memset(text, 0, sizeof text);
    if (rate >= 1000000) {
        const float megabytes = static_cast<float>(rate) / 1000000.0F;
        snprintf(text, sizeof text, "%3.2fMB/s", static_cast<double>(megabytes));
    } else if (rate >= 1000) {
        snprintf(text, sizeof text, "%3uKB/s", rate / 1000);
    } else {
        snprintf(text, sizeof text, "%3uB/s", rate);
    }
    return text;
}

int lcd_write_frame(int fd, const char* text, size_t length) {
    static const char clear_command[] = {'\xCC', '\xB1', '\xAA', '\xD0'};
    char copy[SCREEN_SIZE] = {};
    const size_t taken = length < sizeof copy ? length : sizeof copy;
    if (taken > 0) {
        memcpy(copy, text, strnlen(text, taken - 1));
    }
    if (strncmp(copy, CLEAR_TEXT, sizeof CLEAR_TEXT - 1) == 0) {
        /* The panel that does not take it shows old text until the first screen. */
        (void)!write(fd, clear_command, sizeof clear_command);
        return 0;
    }
    char frame[FRAME_SIZE];
    compose_frame(frame, copy);
    if (write(fd, frame, sizeof frame) == sizeof frame) {
        return static_cast<int>(taken);
    }
    /* The port takes no more. What waits there goes: the part of a frame would spoil the next one.
     */
    (void)tcflush(fd, TCOFLUSH);
    return -1;
}

int lcd_ontimer(void*) {
    drop_old_screen();
    if (!state.decided) {
        try_to_decide();
    }
    if (state.decided && state.mode != MODE_NONE) {
        refresh();
    }
    return 0;
}

void module_lcd_start() {
    close_port();
    state = {};
    state.model_tool = {"uci get product_params.vendor.standardtype", is_model_complete, false, 0};
    for (lcd_stat_key& stat : lcd_stat_keys) {
        stat.value = 0;
    }
    loop_add_timer(REFRESH_MS, lcd_ontimer, nullptr);
}
