#pragma once

#include <functional>

/* Bounded waiting. System tests never sleep for a fixed time in the hope that something has
 * happened by then: they poll for the thing itself, with a limit that only a failing test ever
 * reaches. */

namespace system_test {

/* How long a test waits for something that must happen, in ms. Generous, since builders are slow
 * and shared and some of them emulate the device's processor; a passing test never waits that long.
 */
constexpr int LIMIT_MS = 20000;

/* Milliseconds of a clock that never jumps. */
long now_ms();

/* Asks condition every few milliseconds until it holds; false when it still does not after
 * limit_ms. */
bool eventually(const std::function<bool()>& condition, int limit_ms = LIMIT_MS);

} // namespace system_test
