#include "store/dump.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/uio.h>
#include <termios.h>
#include <unistd.h>

#include "core/descriptor.h"
#include "core/log.h"
#include "core/text.h"
#include "store/selection.h"

dump_history_hooks dump_history;

namespace {

/* The two length words, and a byte of key or data. */
constexpr uint32_t SMALLEST_RECORD = 9;

/* Moves the pieces past what was written. */
void advance(iovec* pieces, int count, size_t written) {
    for (int i = 0; i < count; i++) {
        const size_t taken = written < pieces[i].iov_len ? written : pieces[i].iov_len;
        pieces[i].iov_base = static_cast<char*>(pieces[i].iov_base) + taken;
        pieces[i].iov_len -= taken;
        written -= taken;
    }
}

/* Cuts off the last bytes. Pipes and devices have no end to cut: there the part stands. */
void take_back(int fd, size_t bytes) {
    const off_t end = lseek(fd, 0, SEEK_CUR);
    if (end > 0) {
        (void)!ftruncate(fd, end - static_cast<off_t>(bytes));
    }
}

/* False when the dump is to end there. */
bool dump_object(object* obj, int fd) {
    if (is_history_key(obj->key)) {
        return dump_history.write_record == nullptr || dump_history.write_record(obj, fd);
    }
    const sstr value = object_string(obj);
    return dump_write_record(fd, obj->key, sstr_length(obj->key), value, sstr_length(value));
}

/* Returns 0, or the error number of the failed creation. */
int dump_objects(const selection* s, const char* path) {
    const int fd = descriptor_open_untrusted(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
        return errno;
    }
    uint32_t done = 0;
    while (done < s->count && dump_object(s->objects[done], fd)) {
        done++;
    }
    /* Closing a serial port waits until it has sent what it holds. On other files this fails. */
    (void)tcflush(fd, TCOFLUSH);
    close(fd);
    return 0;
}

void load_record(const char* key, const char* data, uint32_t length) {
    if (is_history_key(key)) {
        if (dump_history.load_record != nullptr) {
            dump_history.load_record(key, data, length);
        }
        return;
    }
    object* obj = object_lookup_type(key, OBJ_TSTRING);
    if (obj != nullptr) {
        sstr_assign(&obj->string, data, length);
    }
}

/* Loads the records that are whole. The key is made a C string in place: the first byte behind it,
 * of the second length word, is read before it is overwritten. */
void load_records(char* p, uint32_t left) {
    while (left >= SMALLEST_RECORD) {
        const uint32_t namelen = text_get_be32(p);
        if (namelen > left - 8) {
            return;
        }
        char* const key = p + 4;
        const uint32_t datalen = text_get_be32(key + namelen);
        key[namelen] = '\0';
        const uint32_t room = left - 8 - namelen;
        if (datalen > room) {
            return;
        }
        LOG(LOG_DEBUG, "name=%s, namelen=%d, datalen=%d, siz=%d", key, static_cast<int>(namelen),
            static_cast<int>(datalen), static_cast<int>(room));
        load_record(key, key + namelen + 4, datalen);
        p += 8 + namelen + datalen;
        left = room - datalen;
    }
}

/* Whether the machine has room for a file of this size: malloc alone would promise memory that is
 * not there, and the kernel would then end the daemon. */
bool memory_allows(off_t size) {
    struct sysinfo machine;
    if (sysinfo(&machine) < 0) {
        return true;
    }
    return static_cast<uint64_t>(size) <=
           uint64_t{machine.totalram} * machine.mem_unit / LOAD_MEMORY_SHARE;
}

/* What a file holds, or why it is not loaded. */
struct dump_content {
    int error;       /* 0, or an error number */
    char* bytes;     /* malloc'ed; null after an error */
    uint32_t length; /* of what was really read */
};

dump_content read_content(int fd) {
    struct stat status;
    if (fstat(fd, &status) < 0) {
        return {errno, nullptr, 0};
    }
    if (status.st_size > LOAD_MAX_SIZE) {
        return {EFBIG, nullptr, 0};
    }
    const size_t size = static_cast<size_t>(status.st_size);
    char* bytes = memory_allows(status.st_size) ? static_cast<char*>(malloc(size + 1)) : nullptr;
    if (bytes == nullptr) {
        return {ENOMEM, nullptr, 0};
    }
    /* What cannot be read, a folder for instance, has no bytes. */
    const ssize_t got = read(fd, bytes, size);
    return {0, bytes, got > 0 ? static_cast<uint32_t>(got) : 0};
}

dump_content read_file(const char* path) {
    const int fd = descriptor_open_untrusted(path, O_RDONLY);
    if (fd < 0) {
        return {errno, nullptr, 0};
    }
    const dump_content content = read_content(fd);
    close(fd);
    return content;
}

} // namespace

bool is_history_key(const char* key) {
    const char* dot = strrchr(key, '.');
    if (dot == nullptr) {
        return false;
    }
    return strncmp(dot + 1, "day", 3) == 0 || strncmp(dot + 1, "mon", 3) == 0 ||
           strncmp(dot + 1, "week", 4) == 0;
}

int dump_keys(const char* path, const char* keys) {
    selection wanted;
    if (!selection_make(&wanted, keys, SELECT_STRINGS)) {
        return DUMP_GIVEN_UP;
    }
    const int error = dump_objects(&wanted, path);
    selection_free(&wanted);
    if (error != 0) {
        LOG(LOG_INFO, "failed to dump %s to %s: %d", keys, path, error);
    } else {
        LOG(LOG_INFO, "dumped %s to %s", keys, path);
    }
    return error;
}

bool dump_write_record(int fd, const char* key, uint32_t namelen, const char* data,
                       uint32_t datalen) {
    char lengths[2][4];
    text_put_be32(lengths[0], namelen);
    text_put_be32(lengths[1], datalen);
    iovec pieces[4] = {{lengths[0], 4},
                       {const_cast<char*>(key), namelen},
                       {lengths[1], 4},
                       {const_cast<char*>(data), datalen}};
    const size_t size = size_t{namelen} + datalen + 8;
    size_t left = size;
    while (left > 0) {
        const ssize_t written = writev(fd, pieces, 4);
        if (written > 0) {
            advance(pieces, 4, static_cast<size_t>(written));
            left -= static_cast<size_t>(written);
        } else if (written == 0 || errno != EINTR) {
            take_back(fd, size - left);
            return false;
        }
    }
    return true;
}

int load_keys(const char* path) {
    const dump_content content = read_file(path);
    if (content.error == 0) {
        load_records(content.bytes, content.length);
        free(content.bytes);
    }
    if (content.error != 0) {
        LOG(LOG_INFO, "failed to load %s: %d", path, content.error);
    } else {
        LOG(LOG_INFO, "loaded %s", path);
    }
    return content.error;
}
