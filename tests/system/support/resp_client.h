#pragma once

#include <stddef.h>

#include <string>
#include <vector>

#include "tests/system/support/wait.h"

/* A client of the daemon that sees bytes, not values. Every reading function returns what came over
 * the wire, so that a test compares it with the literal bytes of a frame:
 *
 *     EXPECT_EQ(client.call({"get", "k"}), "$1\r\nv\r\n");
 *
 * When a frame does not come, the text says why in place of it, "<closed>" or "<nothing came>",
 * behind whatever bytes did come; no frame looks like that, so the comparison fails and shows the
 * reason. Nothing here waits longer than its limit. */

namespace system_test {

/* What a Unix socket hands on in one piece, whatever state the kernel's memory is in. More may
 * arrive in pieces, and the daemon closes a connection whose request does. */
constexpr size_t ONE_PIECE = 32768;

/* The request frame of a command and its arguments: an array of bulk strings. */
std::string request_frame(const std::vector<std::string>& words);

class resp_client {
  public:
    /* An address with a "/" is the path of a Unix socket; otherwise it is a numeric IPv4 or IPv6
     * address. Connects at once, without retrying; connected() tells whether it worked. */
    explicit resp_client(const std::string& address = "/tmp/tessard.sock", int port = 0);
    ~resp_client();
    resp_client(resp_client&& other) noexcept;
    resp_client& operator=(resp_client&& other) noexcept;
    resp_client(const resp_client&) = delete;
    resp_client& operator=(const resp_client&) = delete;

    bool connected() const {
        return fd >= 0;
    }

    /* Hands the bytes to the kernel in one system call. True when it took them all. Records a test
     * failure when they are more than ONE_PIECE on a Unix socket, see deliver(). */
    bool send(const std::string& bytes);

    /* The same for any number of bytes, where it is all one whether they come apart. */
    bool send_in_pieces(const std::string& bytes);

    /* Sends the command as one request frame in one system call, as send() does, and reads one
     * frame. */
    std::string call(const std::vector<std::string>& words, int limit_ms = LIMIT_MS);

    /* The next whole frame, a reply or one that was pushed ("!"); bytes behind it are kept for the
     * next reading. */
    std::string frame(int limit_ms = LIMIT_MS);

    /* The next count bytes. */
    std::string bytes(size_t count, int limit_ms = LIMIT_MS);

    /* Everything until the other side closes, "" when it closes without a word. "<still open>" is
     * appended when it has not closed after the limit. A reset counts as closed. */
    std::string until_closed(int limit_ms = LIMIT_MS);

    /* Everything that comes within the time, "" for silence; "<closed>" is appended when the
     * connection ends.
     */
    std::string during(int ms);

    /* True when the other side has closed, also while bytes are left to be read. */
    bool hung_up() const;

    /* Tells the other side that nothing more will be sent; replies can still be read. */
    void end_sending();

    /* Closes at once, whatever was left unread. */
    void close();

    /* Lets the kernel hold at least this many unread bytes on the way to the daemon. False where
     * only a real administrator may do so. */
    bool hold_unread(int count);

  private:
    enum class more { bytes, closed, nothing };
    more receive(int limit_ms);
    std::string take(size_t count);
    long whole_frame(size_t start) const;

    int fd = -1;
    std::string unread;
};

} // namespace system_test
