#pragma once

#include <stdlib.h>

#include <string>
#include <vector>

/* A terminal of the plainest kind: understands what a live screen sends and finds fault with all
 * else, with lines that are too long and with places that are not on it. Characters are UTF-8, each
 * one column wide. */
class text_screen {
  public:
    text_screen(size_t columns, size_t rows)
        : width(columns), cells(rows, std::vector<std::string>(columns, " ")) {}

    void write(const std::string& bytes) {
        pending += bytes;
        size_t at = 0;
        while (at < pending.size()) {
            const size_t used = take(at);
            if (used == 0) {
                break;
            }
            at += used;
        }
        pending.erase(0, at);
    }

    /* The lines, blanks at their ends taken off. */
    std::vector<std::string> lines() const {
        std::vector<std::string> all;
        for (const auto& row : cells) {
            std::string line;
            for (const std::string& cell : row) {
                line += cell;
            }
            line.erase(line.find_last_not_of(' ') + 1);
            all.push_back(line);
        }
        return all;
    }

    std::string text() const {
        std::string all;
        for (const std::string& line : lines()) {
            all += line + "\n";
        }
        return all;
    }

    /* What was wrong, a line each. */
    std::string faults() const {
        return found;
    }

    /* False in the middle of a character or sequence. */
    bool whole() const {
        return pending.empty();
    }

    bool cursor_shown = true;
    bool wraps = true;
    bool alternate = false;

  private:
    /* Takes one character or sequence and returns its bytes; 0 when it is not whole yet. */
    size_t take(size_t at) {
        const unsigned char first = static_cast<unsigned char>(pending[at]);
        if (first == '\x1b') {
            return take_sequence(at);
        }
        if (first == '\r') {
            column = 0;
            return 1;
        }
        if (first == '\n') {
            if (row + 1 < cells.size()) {
                row++;
            }
            return 1;
        }
        const size_t length = first < 0x80 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
        if (pending.size() - at < length) {
            return 0;
        }
        if (first < 0x20 || first == 0x7f) {
            found += "a control character\n";
        } else if (column >= width) {
            found += "a line is too long\n";
        } else {
            cells[row][column++] = pending.substr(at, length);
        }
        return length;
    }

    size_t take_sequence(size_t at) {
        size_t end = at + 2;
        while (end < pending.size() && (pending[end] < '@' || pending[end] > '~')) {
            end++;
        }
        if (end >= pending.size()) {
            return 0;
        }
        obey(pending.substr(at, end + 1 - at));
        return end + 1 - at;
    }

    void obey(const std::string& sequence) {
        if (sequence == "\x1b[2J") {
            wipe();
        } else if (sequence == "\x1b[K") {
            if (column >= width) {
                found += "erased behind a full line\n";
            }
            for (size_t i = column; i < width; i++) {
                cells[row][i] = " ";
            }
        } else if (sequence == "\x1b[?25h" || sequence == "\x1b[?25l") {
            cursor_shown = sequence.back() == 'h';
        } else if (sequence == "\x1b[?7h" || sequence == "\x1b[?7l") {
            wraps = sequence.back() == 'h';
        } else if (sequence == "\x1b[?1049h" || sequence == "\x1b[?1049l") {
            /* Each screen has its own contents; those of the one that is left are not of interest.
             */
            alternate = sequence.back() == 'h';
            wipe();
            row = column = 0;
        } else if (sequence.back() == 'H') {
            move(sequence);
        } else if (sequence != "\x1b[0m") {
            found += "unknown: ESC" + sequence.substr(1) + "\n";
        }
    }

    void wipe() {
        for (auto& line : cells) {
            line.assign(width, " ");
        }
    }

    void move(const std::string& sequence) {
        const size_t semicolon = sequence.find(';');
        row = static_cast<size_t>(atoi(sequence.c_str() + 2)) - 1;
        column = static_cast<size_t>(atoi(sequence.c_str() + semicolon + 1)) - 1;
        /* 999 is the way to say "the last line". */
        if (row == 998) {
            row = cells.size() - 1;
        }
        if (row >= cells.size() || column >= width) {
            found += "outside: ESC" + sequence.substr(1) + "\n";
            row = column = 0;
        }
    }

    size_t width;
    std::vector<std::vector<std::string>> cells;
    size_t row = 0;
    size_t column = 0;
    std::string pending;
    std::string found;
};
