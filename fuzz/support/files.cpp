#include "fuzz/support/files.h"

#include <errno.h>
#include <fcntl.h>
#include <sanitizer/asan_interface.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <sys/uio.h>
#include <unistd.h>

#include "fuzz/support/check.h"
#include "store/dump.h"

namespace {

/* What a name begins with, and so how the file behaves. */
enum file_kind {
    FILE_PLAIN,
    FILE_FULL,
    FILE_SHORT,
    FILE_STUCK,
    FILE_HUGE,
    FILE_LARGE,
    FILE_VAST,
    FILE_LOST,
    FILE_BROKEN,
    FILE_FOLDER
};

struct kind_row {
    const char* prefix;
    file_kind kind;
};

const kind_row kinds[] = {{"/full", FILE_FULL}, {"/short", FILE_SHORT},   {"/stuck", FILE_STUCK},
                          {"/huge", FILE_HUGE}, {"/large", FILE_LARGE},   {"/vast", FILE_VAST},
                          {"/lost", FILE_LOST}, {"/broken", FILE_BROKEN}, {"/folder", FILE_FOLDER}};

struct memory_file {
    std::string path;
    file_kind kind;
    int fd; /* holds the content */
};

struct files_state {
    bool shut_in;
    unsigned count;
    memory_file files[FILES_MAX];
    int opened; /* the descriptor that was opened last, and its kind */
    file_kind opened_kind;
    bool interrupted; /* the last write to a short file was */
};

files_state state;

constexpr int PIECES_MAX = 8;

/* What a file is made to hold when it is read, which a load refuses for one reason or another. */
constexpr off_t HUGE_SIZE = LOAD_MAX_SIZE + 1;
constexpr off_t LARGE_SIZE = LOAD_MAX_SIZE / 2;

off_t size_of(file_kind kind) {
    return kind == FILE_HUGE ? HUGE_SIZE : kind == FILE_LARGE || kind == FILE_VAST ? LARGE_SIZE : 0;
}

file_kind kind_of(const char* path) {
    for (const kind_row& row : kinds) {
        if (strncmp(path, row.prefix, strlen(row.prefix)) == 0) {
            return row.kind;
        }
    }
    return FILE_PLAIN;
}

memory_file* find(const char* path) {
    for (unsigned i = 0; i < state.count; i++) {
        if (state.files[i].path == path) {
            return &state.files[i];
        }
    }
    return nullptr;
}

memory_file* make(const char* path) {
    if (state.count == FILES_MAX) {
        errno = EACCES;
        return nullptr;
    }
    memory_file* file = &state.files[state.count];
    *file = {path, kind_of(path), memfd_create("fuzz", MFD_CLOEXEC)};
    fuzz_require(file->fd >= 0, "no file in memory");
    state.count++;
    return file;
}

/* A descriptor of its own, with a place of its own, onto what `fd` holds. */
int reopen(int fd, int flags) {
    char path[32];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags | O_CLOEXEC));
}

/* All that a folder is asked for fails. */
int open_folder() {
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/", O_RDONLY | O_CLOEXEC));
}

int open_in_memory(const char* path, int flags) {
    const bool creates = (flags & O_CREAT) != 0;
    if (kind_of(path) == FILE_FOLDER) {
        errno = EISDIR;
        return creates ? -1 : open_folder();
    }
    memory_file* file = find(path);
    if (path[0] == '\0' || (file == nullptr && !creates)) {
        errno = ENOENT;
        return -1;
    }
    file = file != nullptr ? file : make(path);
    if (file == nullptr) {
        return -1;
    }
    if ((flags & O_TRUNC) == 0 && size_of(file->kind) > 0) {
        (void)!ftruncate(file->fd, size_of(file->kind));
    }
    state.opened = reopen(file->fd, flags & (O_ACCMODE | O_TRUNC));
    state.opened_kind = file->kind;
    return state.opened;
}

bool is_opened(int fd, file_kind kind) {
    return state.shut_in && fd == state.opened && state.opened_kind == kind;
}

/* What is left of a full file. */
size_t room_in(int fd) {
    const off_t place = lseek(fd, 0, SEEK_CUR);
    return static_cast<size_t>(place) < FILES_FULL_SIZE
               ? FILES_FULL_SIZE - static_cast<size_t>(place)
               : 0;
}

/* Writes at most `most` bytes of the pieces, all of which must be there: the sanitizer does not see
 * this call. */
ssize_t write_some(int fd, const iovec* pieces, int count, size_t most) {
    iovec taken[PIECES_MAX];
    fuzz_require(count <= PIECES_MAX, "too many pieces");
    for (int i = 0; i < count; i++) {
        fuzz_require(__asan_region_is_poisoned(pieces[i].iov_base, pieces[i].iov_len) == nullptr,
                     "bytes are written that are not there");
        taken[i] = {pieces[i].iov_base, pieces[i].iov_len < most ? pieces[i].iov_len : most};
        most -= taken[i].iov_len;
    }
    return syscall(SYS_writev, fd, taken, count);
}

} // namespace

/* Defined in the program, these take precedence over the C library's. */

extern "C" int open(const char* path, int flags, ...) {
    if (state.shut_in) {
        return open_in_memory(path, flags);
    }
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

extern "C" ssize_t writev(int fd, const iovec* pieces, int count) {
    if (is_opened(fd, FILE_SHORT)) {
        state.interrupted = !state.interrupted;
        if (state.interrupted) {
            errno = EINTR;
            return -1;
        }
        return write_some(fd, pieces, count, FILES_SHORT_SIZE);
    }
    if (is_opened(fd, FILE_STUCK)) {
        return 0;
    }
    if (is_opened(fd, FILE_FULL)) {
        const size_t room = room_in(fd);
        if (room == 0) {
            errno = ENOSPC;
            return -1;
        }
        return write_some(fd, pieces, count, room);
    }
    return write_some(fd, pieces, count, SIZE_MAX);
}

extern "C" int fstat(int fd, struct stat* status) noexcept {
    if (is_opened(fd, FILE_BROKEN)) {
        errno = EIO;
        return -1;
    }
    return fstatat(fd, "", status, AT_EMPTY_PATH);
}

extern "C" int sysinfo(struct sysinfo* machine) noexcept {
    if (is_opened(state.opened, FILE_LOST)) {
        errno = EFAULT;
        return -1;
    }
    const int result = static_cast<int>(syscall(SYS_sysinfo, machine));
    if (result == 0 && state.shut_in) {
        machine->totalram = LARGE_SIZE;
        machine->mem_unit = is_opened(state.opened, FILE_VAST) ? LOAD_MEMORY_SHARE : 1;
    }
    return result;
}

/* No input needs a block as large as a file of these. */
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}

void files_shut_in() {
    for (unsigned i = 0; i < state.count; i++) {
        close(state.files[i].fd);
    }
    state.count = 0;
    state.opened = -1;
    state.shut_in = true;
}

void files_let_out() {
    state.shut_in = false;
}

std::string files_read(const char* path) {
    std::string bytes;
    const memory_file* file = find(path);
    const int fd = file != nullptr ? file->fd : -1;
    char chunk[4096];
    for (off_t at = 0;;) {
        const ssize_t got = pread(fd, chunk, sizeof chunk, at);
        if (got <= 0) {
            return bytes;
        }
        bytes.append(chunk, static_cast<size_t>(got));
        at += got;
    }
}

void files_write(const char* path, std::string_view bytes) {
    const int fd = open_in_memory(path, O_WRONLY | O_CREAT | O_TRUNC);
    if (fd >= 0) {
        (void)!write(fd, bytes.data(), bytes.size());
        close(fd);
    }
}
