#pragma once

#include <stdint.h>
#include <sys/epoll.h>
#include <sys/time.h>

#include <deque>
#include <vector>

/* The kernel as the units under test meet it: the test program's own functions take the place of
 * some of the C library's. They do the real call unless a test has laid down an answer, and write
 * down what was asked. */
namespace test_kernel {

/* Answers to the next calls, given instead of doing them: an error number, or 0 for no bytes. */
extern std::deque<int> send_answers;
extern std::deque<int> recv_answers;

/* How the next calls end: with so many bytes taken or given at most, or, below 0, with that error
 * number. A read leaves a page more of the file in memory than it says it gave. */
extern std::deque<int> writev_answers;
extern std::deque<int> read_answers;

/* Error numbers with which the next questions about a descriptor (ioctl, fstat, fcntl) fail, the
 * next attempts to become a daemon, and the next to accept a client. */
extern std::deque<int> ioctl_failures;
extern std::deque<int> fstat_failures;
extern std::deque<int> fcntl_failures;
extern std::deque<int> daemon_failures;
extern std::deque<int> accept_failures;

/* What the next waits of epoll return, one batch each. */
extern std::deque<std::vector<epoll_event>> epoll_answers;

/* The memory that the machine seems to have, in bytes; 0 is the truth. */
extern uint32_t memory;

/* What the last wait was asked. */
extern int select_descriptors;
extern timeval select_timeout;
extern int epoll_timeout;

struct control_call {
    int operation;
    int fd;
    uint32_t events;

    bool operator==(const control_call&) const = default;
};

/* What was asked of epoll_ctl, and of which descriptor at last. */
extern std::vector<control_call> control_calls;
extern int control_descriptor;

} // namespace test_kernel
