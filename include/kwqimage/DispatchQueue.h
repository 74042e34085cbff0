#pragma once

/// @file
/// Where work runs: the main queue, serial queues with a thread of their own, and a small global
/// pool. The capture engine names the queue of every callback it makes; a host that receives a
/// callback off the main queue hops to it with DispatchQueue::main().async(...).

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "kwqimage/Export.h"

namespace kwq {

/// A queue of blocks (closures), after the platform's dispatch queues.
///
/// - main(): blocks run on the thread that runs GLib's default main context
///   (g_main_context_default()): the GUI thread of a GTK or Qt host, a g_main_loop_run() loop,
///   or a thread that pumps the context with g_main_context_iteration(). A host must run or
///   pump that context; otherwise main-queue work (layer updates, metadata callbacks) waits.
/// - serial queues: one thread each; blocks run one at a time, in the order submitted. A queue
///   runs every block submitted before its last handle went away, then its thread ends.
/// - global(): a pool of threads; blocks may run at the same time. It keeps one thread a core
///   (2 to 8) for blocks that compute and adds threads while its blocks sleep or wait, so a
///   block that waits (for a frame, a timer, another queue) never holds back the blocks queued
///   behind it. Added threads end after a few idle seconds.
///
/// A block that throws is caught and logged; the exception never ends a queue. Every method may
/// be called from any thread.
class KWQ_EXPORT DispatchQueue {
 public:
  /// A unit of work.
  using Block = std::function<void()>;

  /// The main queue (GLib's default main context).
  static DispatchQueue& main();
  /// The global concurrent pool; never ends. Long-running and waiting blocks are welcome.
  static DispatchQueue& global();
  /// A new serial queue with its own thread, named `label` (shown to debuggers, cut to 15
  /// characters there).
  static std::shared_ptr<DispatchQueue> createSerial(std::string label);

  ~DispatchQueue();
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  /// The name the queue was made with ("kwq.main" and "kwq.global" for those two).
  const std::string& label() const;

  /// Queues `block` and returns at once. From a block of the main queue, a block posted to the
  /// main queue runs on a later turn of the main context, never inside the call.
  void async(Block block);

  /// Runs `block` on the queue and waits for it. Called from the queue itself (a block of this
  /// serial queue, or the main thread for main()) the block runs at once in the caller instead
  /// of deadlocking. Two queues waiting on each other with sync still deadlock; so does
  /// main().sync() from another thread while nobody runs the main context.
  void sync(const Block& block);

  /// True on a thread currently running this queue's blocks. For main(): the thread that owns
  /// the default main context, or the process's initial thread while no thread owns it.
  bool isCurrent() const;

  struct Impl;

 private:
  explicit DispatchQueue(std::unique_ptr<Impl> d);
  std::unique_ptr<Impl> d_;
};

/// Runs `block` the first time it is called with `flag`, once for the process's life; later
/// calls return after the first has finished. Thread: any.
KWQ_EXPORT void dispatchOnce(std::once_flag& flag, const std::function<void()>& block);

}  // namespace kwq
