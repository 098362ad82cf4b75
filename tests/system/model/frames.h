#pragma once

#include <string>
#include <vector>

#include "tests/system/model/written_frames.h"
#include "tests/system/support/resp_client.h"

/* Frames as an observer meets them. The daemon's own figures (processor load and the like) change
 * by themselves and are announced to every observer, so whoever waits for a certain frame looks
 * past those. */

namespace system_test {

/* What stands in an array of bulk strings ("*" or "!"), without the nils; empty for any other
 * bytes. */
std::vector<std::string> elements_of(const std::string& frame);

/* The frames that stand one behind the other; bytes that make no whole frame are the last of them.
 */
std::vector<std::string> split_frames(const std::string& bytes);

/* True for a pushed frame about one of the daemon's own figures. */
bool is_about_a_figure(const std::string& frame);

/* The next frame, and everything that comes within the time, both without the frames about figures.
 */
std::string next_frame(resp_client& client, int limit_ms = LIMIT_MS);
std::string heard(resp_client& client, int ms);

/* Returns when the daemon has carried out all that was sent to it before, also what it does not
 * answer, and has forgotten the clients that have closed. The first reply comes from a pass over
 * all clients that sees what was sent before it, the second from a later pass. */
void let_it_catch_up(resp_client& other);

} // namespace system_test
