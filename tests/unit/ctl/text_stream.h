#pragma once

#include <stdio.h>
#include <stdlib.h>

#include <string>

/* A stream that ends up in a string. */
class stream {
  public:
    stream() : file(open_memstream(&bytes, &length)) {}
    ~stream() {
        fclose(file);
        free(bytes);
    }
    stream(const stream&) = delete;
    stream& operator=(const stream&) = delete;

    operator FILE*() {
        return file;
    }
    std::string text() {
        fflush(file);
        return std::string(bytes, length);
    }

  private:
    char* bytes = nullptr;
    size_t length = 0;
    FILE* file;
};
