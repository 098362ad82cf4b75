#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

/* The world of one test. The daemon's paths are fixed, so a test process moves into mount and
 * network namespaces of its own and lays private folders over those paths; nothing that a test or
 * the daemon writes reaches the real disk, and tests that run at the same time do not meet.
 *
 * What enter() makes, fresh for each test:
 *
 *   /tmp                       empty: the daemon's socket, pid file, log and dumps
 *   /usr/lib/lua/tplugins      empty: the plug-in folder
 *   /dev                       null, zero, full, random, urandom, tty, terminals of its own
 *                              (ptmx, pts) and nothing else: no panel, no serial port; tests
 *                              add files and links to terminals
 *   /srv                       the test's own workspace, see below
 *   network                    a loopback interface that is up, no other
 *
 * In the workspace: programs/ (the programs under test, reachable there even when they were built
 * below /tmp), tools/ (first in PATH of everything started) and work/ (the current folder of
 * everything started, which also takes the captured output). */

namespace system_test::sandbox {

/* Enters a fresh world. Returns "", or the reason why there is none here; then nothing that follows
 * may be used and the test is to be skipped with that reason. */
std::string enter();

/* Takes the world down again. Every process that lived in it must have ended. */
void leave();

/* Every process but this one that lives in the test's network, whoever its parent is. Empty unless
 * a world has been entered: outside one, the network is the machine's and its processes are none of
 * ours. */
std::vector<pid_t> inhabitants();

/* A path below the folder that the sandbox keeps for a test: "work/x" gives "/srv/work/x". */
std::string workspace(const std::string& below);

/* The programs under test, as they are to be started. */
std::string tessard_path();
std::string tessctl_path();

/* The words of an emulator's command line, blank between them, when the programs are for another
 * processor; else "". */
std::string emulator();

/* Makes a shell script that is found in PATH under the name (hostmon, conntrack, uci): body without
 * the "#!" line. */
void add_tool(const std::string& name, const std::string& body);

/* Takes it away again, so that the machine's own tool of that name, if any, is found in its place.
 */
void remove_tool(const std::string& name);

/* Puts a shell script into the plug-in folder. Mode 0755 makes it run. */
void add_plugin(const std::string& name, const std::string& body, mode_t mode = 0755);

/* Adds a pair of connected network interfaces, both up. Returns "", or the reason why there are
 * none here. */
std::string add_veth(const std::string& name, const std::string& peer);

/* Removes an interface (and its peer). */
void remove_interface(const std::string& name);

/* From the first call on, programs that are started see a /proc that holds what the tests laid down
 * with this function and nothing else but self, thread-self and sys, which the C library and
 * sanitizers need. The name is relative to /proc ("net/dev"); the file changes at once for programs
 * that run already. The test keeps its own /proc. A program started thus has mounts of its own; it
 * sees new files and links in the folders above, but not new mounts. */
void set_proc_file(const std::string& name, const std::string& text);
void remove_proc_file(const std::string& name);

/* For the child between fork and exec: lays the made-up /proc over the real one, when there is one.
 * False on failure. */
bool enter_proc();

/* Opens a new terminal pair, makes device ("/dev/ttyS0") a link to its terminal and returns its
 * other side, non-blocking; -1 on failure. The terminal is set raw and is held open, so that
 * nothing is lost between two openings by the daemon. Both are closed by leave(). */
int add_terminal(const std::string& device);

} // namespace system_test::sandbox
