#include "tests/system/support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace system_test {

std::string read_file(const std::string& path) {
    std::string text;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return text;
    }
    char chunk[16384];
    ssize_t got;
    while ((got = read(fd, chunk, sizeof chunk)) > 0) {
        text.append(chunk, static_cast<size_t>(got));
    }
    close(fd);
    return text;
}

void make_folders(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        mkdir(path.substr(0, slash).c_str(), 0755);
    }
    mkdir(path.c_str(), 0755);
}

void write_file(const std::string& path, const std::string& text, mode_t mode) {
    size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) {
        make_folders(path.substr(0, slash));
    }

    /* A leading dot keeps the half-written file out of sight of everything that lists the folder.
     */
    std::string draft = path.substr(0, slash + 1) + "." + path.substr(slash + 1) + ".draft";
    int fd = open(draft.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << draft << ": " << strerror(errno);
    size_t done = 0;
    while (done < text.size()) {
        ssize_t put = write(fd, text.data() + done, text.size() - done);
        ASSERT_GT(put, 0) << draft << ": " << strerror(errno);
        done += static_cast<size_t>(put);
    }
    fchmod(fd, mode);
    close(fd);
    ASSERT_EQ(rename(draft.c_str(), path.c_str()), 0) << path << ": " << strerror(errno);
}

bool file_exists(const std::string& path) {
    struct stat info;
    return lstat(path.c_str(), &info) == 0;
}

} // namespace system_test
