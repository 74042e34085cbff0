#pragma once

// Tests wait for main-queue work by running GLib's default main context, never by sleeping.

#include <chrono>
#include <functional>

namespace kwq::test {

/// Runs the default main context until `condition` holds or `timeout` has passed; true when the
/// condition held. The condition is checked after every dispatch and at least every 5 ms, so
/// conditions that other threads make true are seen promptly. Call it from the test's thread.
bool pumpMainContextUntil(const std::function<bool()>& condition,
                          std::chrono::milliseconds timeout = std::chrono::seconds(10));

/// Runs everything the default main context has ready now, without blocking.
void drainMainContext();

}  // namespace kwq::test
