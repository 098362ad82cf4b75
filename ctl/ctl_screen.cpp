#include "ctl/ctl_screen.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "ctl/ctl_net.h"
#include "ctl/ctl_status.h"

namespace {

constexpr unsigned DEFAULT_WIDTH = 80;
constexpr unsigned DEFAULT_HEIGHT = 24;

/* How long a terminal that takes no output may delay the end. */
constexpr int PATIENCE_MS = 500;

constexpr char INTERRUPT_KEY = 3;

/* A screen of its own where the terminal has two, no cursor, no wrapping. */
constexpr char ENTER[] = "\x1b[?1049h\x1b[?25l\x1b[?7l";

/* Where the terminal has one screen only, the prompt comes below what was drawn. */
constexpr char LEAVE[] = "\x1b[0m\x1b[?7h\x1b[?25h\x1b[999;1H\r\n\x1b[?1049l";

/* Shared with the handlers of signals. `taken` is set before the terminal is changed and cleared
 * after it was given back; giving it back twice does no harm. */
struct screen_state {
    volatile sig_atomic_t taken;
    volatile sig_atomic_t is_new;
    termios settings; /* as they were */
    char complaints[1024];
};

screen_state state;

/* From here to catch_signals: called by handlers, so nothing but what is safe there. */

void put(const char* bytes, size_t length) {
    while (length > 0) {
        pollfd ready = {STDOUT_FILENO, POLLOUT, 0};
        if (poll(&ready, 1, PATIENCE_MS) <= 0) {
            return;
        }
        const ssize_t written = write(STDOUT_FILENO, bytes, length);
        if (written < 0 && errno != EINTR) {
            return;
        }
        if (written > 0) {
            bytes += written;
            length -= static_cast<size_t>(written);
        }
    }
}

void set_terminal() {
    termios settings = state.settings;
    settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | IEXTEN);
    /* A terminal halted by a key could not be given back. */
    settings.c_iflag &= ~static_cast<tcflag_t>(IXON);
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    tcsetattr(STDIN_FILENO, TCSANOW, &settings);
    put(ENTER, sizeof ENTER - 1);
    state.is_new = 1;
}

void take() {
    if (tcgetattr(STDIN_FILENO, &state.settings) == 0) {
        state.taken = 1;
        set_terminal();
    }
}

void give_back() {
    if (state.taken == 0) {
        return;
    }
    /* In the background this would stop us for good. */
    sigset_t background;
    sigset_t before;
    sigemptyset(&background);
    sigaddset(&background, SIGTTOU);
    sigprocmask(SIG_BLOCK, &background, &before);
    tcsetattr(STDIN_FILENO, TCSANOW, &state.settings);
    put(LEAVE, sizeof LEAVE - 1);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    state.taken = 0;
}

void on_end(int) {
    give_back();
    _exit(CTL_DONE);
}

void handle(int number, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    /* A terminal that is slow to take what is drawn must not make the drawing fail. */
    action.sa_flags = SA_RESTART;
    sigaction(number, &action, nullptr);
}

/* Sends the signal to ourselves with its usual effect, which is over when this returns, if it does.
 */
void suffer(int number) {
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, number);
    handle(number, SIG_DFL);
    raise(number);
    sigprocmask(SIG_UNBLOCK, &one, nullptr);
}

void on_usual_end(int number) {
    give_back();
    suffer(number);
}

void on_stop(int number) {
    const int error = errno;
    give_back();
    suffer(number);
    handle(number, on_stop);
    take();
    errno = error;
}

/* After a SIGSTOP, of which nobody is told, the shell has changed the terminal. */
void on_continue(int) {
    const int error = errno;
    if (state.taken != 0) {
        set_terminal();
    }
    errno = error;
}

void on_resize(int) {
    state.is_new = 1;
}

struct reaction {
    int number;
    void (*handler)(int);
};

constexpr reaction REACTIONS[] = {
    {SIGINT, on_end},   {SIGTERM, on_end},      {SIGHUP, on_usual_end}, {SIGQUIT, on_usual_end},
    {SIGTSTP, on_stop}, {SIGCONT, on_continue}, {SIGWINCH, on_resize},
};

void catch_signals() {
    for (const reaction& r : REACTIONS) {
        struct sigaction before = {};
        sigaction(r.number, nullptr, &before);
        /* Whoever started us and had it ignored meant it. */
        if (before.sa_handler != SIG_IGN) {
            handle(r.number, r.handler);
        }
    }
}

/* True when the user wants to go, or is gone. */
bool read_quit() {
    char key = 0;
    const ssize_t got = read(STDIN_FILENO, &key, 1);
    if (got < 0) {
        return errno != EINTR && errno != EAGAIN;
    }
    return got == 0 || key == 'q' || key == 'Q' || key == INTERRUPT_KEY;
}

} // namespace

bool ctl_screen_open() {
    if (isatty(STDIN_FILENO) != 1 || isatty(STDOUT_FILENO) != 1) {
        return false;
    }
    setvbuf(stderr, state.complaints, _IOFBF, sizeof state.complaints);
    atexit(give_back);
    catch_signals();
    take();
    return true;
}

void ctl_screen_close() {
    give_back();
    fflush(stderr);
}

void ctl_screen_size(unsigned* width, unsigned* height) {
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) < 0) {
        size = {};
    }
    *width = size.ws_col != 0 ? size.ws_col : DEFAULT_WIDTH;
    *height = size.ws_row != 0 ? size.ws_row : DEFAULT_HEIGHT;
}

bool ctl_screen_is_new() {
    if (state.is_new == 0) {
        return false;
    }
    state.is_new = 0;
    return true;
}

ctl_screen_event ctl_screen_wait(int64_t deadline) {
    for (;;) {
        if (state.is_new != 0) {
            return CTL_SCREEN_DRAW;
        }
        const int64_t left = deadline - ctl_net_now();
        if (left <= 0) {
            return CTL_SCREEN_TIME;
        }
        pollfd ready = {STDIN_FILENO, POLLIN, 0};
        const int found = poll(&ready, 1, static_cast<int>(left));
        if (found > 0 && read_quit()) {
            return CTL_SCREEN_QUIT;
        }
    }
}
