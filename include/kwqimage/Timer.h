#pragma once

/// @file
/// Timers on the main queue (GLib's default main context), after the platform's scheduled
/// timers: the simple capture view's focus timer is one.

#include <chrono>
#include <functional>
#include <memory>

#include "kwqimage/Export.h"

namespace kwq {

/// A timer that calls its block on the main context. The returned handle owns the timer:
/// dropping the last handle invalidates it (unlike the platform, no run loop keeps it alive).
class KWQ_EXPORT Timer {
 public:
  /// Calls `block` every `interval` (at least 1 ms), the first time one interval from now;
  /// with `repeats` false, once. Thread: any; the block runs on the main context's thread.
  static std::shared_ptr<Timer> scheduledTimer(std::chrono::milliseconds interval, bool repeats,
                                               std::function<void()> block);

  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  /// Stops the timer; no call starts after it returns. A call already running on another
  /// thread finishes. Thread: any; may be called from the block itself.
  void invalidate();
  /// False after invalidate() and after a one-shot timer has fired.
  bool isValid() const;
  /// The time between calls (or before the one call).
  std::chrono::milliseconds interval() const { return interval_; }

  struct State;

 private:
  Timer(std::shared_ptr<State> state, std::chrono::milliseconds interval);
  std::shared_ptr<State> state_;
  std::chrono::milliseconds interval_;
};

}  // namespace kwq
