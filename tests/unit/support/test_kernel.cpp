#include "tests/unit/support/test_kernel.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace test_kernel {

std::deque<int> send_answers;
std::deque<int> recv_answers;
std::deque<int> writev_answers;
std::deque<int> read_answers;
std::deque<int> ioctl_failures;
std::deque<int> fstat_failures;
std::deque<int> fcntl_failures;
std::deque<int> daemon_failures;
std::deque<int> accept_failures;
std::deque<std::vector<epoll_event>> epoll_answers;
uint32_t memory;
int select_descriptors = -1;
timeval select_timeout;
int epoll_timeout = -1;
std::vector<control_call> control_calls;
int control_descriptor = -1;

} // namespace test_kernel

using namespace test_kernel;

namespace {

int take(std::deque<int>* answers) {
    const int answer = answers->front();
    answers->pop_front();
    return answer;
}

int give(std::deque<int>* answers) {
    errno = take(answers);
    return errno == 0 ? 0 : -1;
}

/* Makes the pieces so much shorter together that `size` bytes are left. */
void shorten(std::vector<iovec>* pieces, size_t size) {
    for (iovec& piece : *pieces) {
        piece.iov_len = std::min(piece.iov_len, size);
        size -= piece.iov_len;
    }
}

constexpr size_t PAGE = 4096;

} // namespace

/* Defined in the program, these take precedence over the C library's. */

extern "C" ssize_t send(int fd, const void* bytes, size_t size, int flags) {
    return send_answers.empty() ? sendto(fd, bytes, size, flags, nullptr, 0) : give(&send_answers);
}

extern "C" ssize_t recv(int fd, void* bytes, size_t size, int flags) {
    return recv_answers.empty() ? recvfrom(fd, bytes, size, flags, nullptr, nullptr)
                                : give(&recv_answers);
}

extern "C" ssize_t writev(int fd, const iovec* pieces, int count) {
    std::vector<iovec> taken(pieces, pieces + count);
    if (!writev_answers.empty()) {
        const int answer = take(&writev_answers);
        if (answer < 0) {
            errno = -answer;
            return -1;
        }
        shorten(&taken, static_cast<size_t>(answer));
    }
    return syscall(SYS_writev, fd, taken.data(), count);
}

extern "C" ssize_t read(int fd, void* bytes, size_t size) {
    if (read_answers.empty()) {
        return syscall(SYS_read, fd, bytes, size);
    }
    const int answer = take(&read_answers);
    const size_t given = answer < 0 ? 0 : static_cast<size_t>(answer);
    const ssize_t got = syscall(SYS_read, fd, bytes, std::min(size, given + PAGE));
    if (answer < 0) {
        errno = -answer;
        return -1;
    }
    return std::min(got, ssize_t{answer});
}

extern "C" int fstat(int fd, struct stat* status) noexcept {
    return fstat_failures.empty() ? fstatat(fd, "", status, AT_EMPTY_PATH) : give(&fstat_failures);
}

extern "C" int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
#ifdef SYS_fcntl64
    constexpr long number = SYS_fcntl64;
#else
    constexpr long number = SYS_fcntl;
#endif
    return fcntl_failures.empty() ? static_cast<int>(syscall(number, fd, command, argument))
                                  : give(&fcntl_failures);
}

extern "C" int accept4(int fd, sockaddr* peer, socklen_t* size, int flags) {
    return accept_failures.empty() ? static_cast<int>(syscall(SYS_accept4, fd, peer, size, flags))
                                   : give(&accept_failures);
}

extern "C" int daemon(int keep_folder, int keep_output) noexcept {
    static const auto real = reinterpret_cast<int (*)(int, int)>(dlsym(RTLD_NEXT, "daemon"));
    return daemon_failures.empty() ? real(keep_folder, keep_output) : give(&daemon_failures);
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return ioctl_failures.empty() ? static_cast<int>(syscall(SYS_ioctl, fd, request, argument))
                                  : give(&ioctl_failures);
}

extern "C" int select(int descriptors, fd_set* readable, fd_set* writable, fd_set* failed,
                      timeval* timeout) {
    select_descriptors = descriptors;
    if (timeout == nullptr) {
        return pselect(descriptors, readable, writable, failed, nullptr, nullptr);
    }
    select_timeout = *timeout;
    const timespec wait = {timeout->tv_sec, static_cast<long>(timeout->tv_usec) * 1000};
    return pselect(descriptors, readable, writable, failed, &wait, nullptr);
}

extern "C" int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
    control_descriptor = epoll;
    control_calls.push_back({operation, fd, event->events});
    return static_cast<int>(syscall(SYS_epoll_ctl, epoll, operation, fd, event));
}

extern "C" int epoll_wait(int epoll, epoll_event* events, int most, int timeout) {
    epoll_timeout = timeout;
    if (epoll_answers.empty()) {
        return epoll_pwait(epoll, events, most, timeout, nullptr);
    }
    const std::vector<epoll_event> answer = epoll_answers.front();
    epoll_answers.pop_front();
    int count = 0;
    for (const epoll_event& event : answer) {
        events[count++] = event;
    }
    return count;
}

extern "C" int sysinfo(struct sysinfo* machine) noexcept {
    const int result = static_cast<int>(syscall(SYS_sysinfo, machine));
    if (result == 0 && memory != 0) {
        /* In units, as the kernel counts where bytes would not fit. */
        machine->totalram = memory / 4096;
        machine->mem_unit = 4096;
    }
    return result;
}
