#include "kwqimage/DispatchQueue.h"

#include <glib.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <thread>
#include <vector>

#include "kwqimage/Log.h"
#include "platform/foundation/log_format.h"

namespace kwq {
namespace {

// The queue whose block the current thread is running (serial queues and the pool).
thread_local const DispatchQueue::Impl* tlsCurrentQueue = nullptr;

void runGuarded(const DispatchQueue::Block& block, const std::string& label) {
  try {
    if (block) block();
  } catch (const std::exception& e) {
    logf("DispatchQueue %s: a block threw: %s", label.c_str(), e.what());
  } catch (...) {
    logf("DispatchQueue %s: a block threw", label.c_str());
  }
}

bool isInitialThread() {
  return static_cast<pid_t>(syscall(SYS_gettid)) == getpid();
}

// Waits for one block that another thread runs.
struct Completion {
  std::mutex mutex;
  std::condition_variable cv;
  bool done = false;

  void finish() {
    std::lock_guard lock(mutex);
    done = true;
    cv.notify_all();
  }
  void wait() {
    std::unique_lock lock(mutex);
    cv.wait(lock, [this] { return done; });
  }
};

}  // namespace

struct DispatchQueue::Impl {
  explicit Impl(std::string l) : label(std::move(l)) {}
  virtual ~Impl() = default;
  virtual void async(Block block) = 0;
  virtual bool isCurrent() const { return tlsCurrentQueue == this; }
  // Called when the queue's handle goes away.
  virtual void close() {}

  void sync(const Block& block) {
    if (isCurrent()) {
      runGuarded(block, label);
      return;
    }
    auto done = std::make_shared<Completion>();
    async([&block, done, this] {
      runGuarded(block, label);
      done->finish();
    });
    done->wait();
  }

  const std::string label;
};

namespace {

// Blocks run in submission order by one idle source on the default main context. One source
// for the whole queue (rather than one per block) keeps the order strict.
struct MainQueue final : DispatchQueue::Impl {
  MainQueue() : Impl("kwq.main") {}

  void async(DispatchQueue::Block block) override {
    std::lock_guard lock(mutex);
    items.push_back(std::move(block));
    if (scheduled) return;
    scheduled = true;
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, &MainQueue::dispatch, this, nullptr);
    g_source_set_name(source, "kwq main queue");
    g_source_attach(source, g_main_context_default());
    g_source_unref(source);
  }

  bool isCurrent() const override {
    GMainContext* context = g_main_context_default();
    if (g_main_context_is_owner(context)) return true;
    // Nobody runs the context: the initial thread stands for the main thread.
    if (!isInitialThread()) return false;
    if (!g_main_context_acquire(context)) return false;
    g_main_context_release(context);
    return true;
  }

  // Runs the blocks queued so far; blocks they post run on the next turn.
  static gboolean dispatch(gpointer data) {
    auto* self = static_cast<MainQueue*>(data);
    std::deque<DispatchQueue::Block> batch;
    {
      std::lock_guard lock(self->mutex);
      batch.swap(self->items);
    }
    for (auto& block : batch) {
      runGuarded(block, self->label);
      block = nullptr;  // release captures on this thread, in order
    }
    std::lock_guard lock(self->mutex);
    if (!self->items.empty()) return G_SOURCE_CONTINUE;
    self->scheduled = false;
    return G_SOURCE_REMOVE;
  }

  std::mutex mutex;
  std::deque<DispatchQueue::Block> items;
  bool scheduled = false;
};

// Worker threads that take blocks from one FIFO: one thread for a serial queue, several for
// the global pool. The state outlives the handle while the threads drain it.
struct WorkerState {
  std::mutex mutex;
  std::condition_variable cv;
  std::deque<DispatchQueue::Block> items;
  bool closing = false;
};

void workerLoop(std::shared_ptr<WorkerState> state, const DispatchQueue::Impl* queue,
                std::string label) {
  tlsCurrentQueue = queue;
  for (;;) {
    DispatchQueue::Block block;
    {
      std::unique_lock lock(state->mutex);
      state->cv.wait(lock, [&] { return state->closing || !state->items.empty(); });
      if (state->items.empty()) break;
      block = std::move(state->items.front());
      state->items.pop_front();
    }
    runGuarded(block, label);
  }
  tlsCurrentQueue = nullptr;
}

void nameThread(std::thread& thread, const std::string& label) {
  // Linux keeps 15 characters; the end of a reverse-DNS label is the telling part.
  const std::string name = label.size() > 15 ? label.substr(label.size() - 15) : label;
  pthread_setname_np(thread.native_handle(), name.c_str());
}

struct SerialQueue final : DispatchQueue::Impl {
  explicit SerialQueue(std::string l) : Impl(std::move(l)), state(std::make_shared<WorkerState>()) {
    thread = std::thread(workerLoop, state, this, label);
    nameThread(thread, label);
  }

  ~SerialQueue() override { close(); }

  void async(DispatchQueue::Block block) override {
    std::lock_guard lock(state->mutex);
    state->items.push_back(std::move(block));
    state->cv.notify_one();
  }

  // The remaining blocks still run. From the queue's own thread (its last handle dropped by a
  // block) the thread cannot be joined: it finishes on its own, holding the state.
  void close() override {
    {
      std::lock_guard lock(state->mutex);
      if (state->closing) return;
      state->closing = true;
      state->cv.notify_all();
    }
    if (!thread.joinable()) return;
    if (thread.get_id() == std::this_thread::get_id()) {
      thread.detach();
    } else {
      thread.join();
    }
  }

  std::shared_ptr<WorkerState> state;
  std::thread thread;
};

struct GlobalQueue final : DispatchQueue::Impl {
  GlobalQueue() : Impl("kwq.global"), state(std::make_shared<WorkerState>()) {
    const unsigned n = std::clamp(std::thread::hardware_concurrency(), 2u, 8u);
    for (unsigned i = 0; i < n; ++i) {
      std::thread t(workerLoop, state, this, label);
      pthread_setname_np(t.native_handle(), "kwq-global");
      t.detach();  // the pool lives as long as the process
    }
  }

  void async(DispatchQueue::Block block) override {
    std::lock_guard lock(state->mutex);
    state->items.push_back(std::move(block));
    state->cv.notify_one();
  }

  std::shared_ptr<WorkerState> state;
};

}  // namespace

DispatchQueue::DispatchQueue(std::unique_ptr<Impl> d) : d_(std::move(d)) {}

DispatchQueue::~DispatchQueue() {
  if (d_) d_->close();
}

DispatchQueue& DispatchQueue::main() {
  // Never destroyed: blocks may still be posted while the process exits.
  static DispatchQueue* queue = new DispatchQueue(std::make_unique<MainQueue>());
  return *queue;
}

DispatchQueue& DispatchQueue::global() {
  static DispatchQueue* queue = new DispatchQueue(std::make_unique<GlobalQueue>());
  return *queue;
}

std::shared_ptr<DispatchQueue> DispatchQueue::createSerial(std::string label) {
  return std::shared_ptr<DispatchQueue>(
      new DispatchQueue(std::make_unique<SerialQueue>(std::move(label))));
}

const std::string& DispatchQueue::label() const {
  return d_->label;
}

void DispatchQueue::async(Block block) {
  d_->async(std::move(block));
}

void DispatchQueue::sync(const Block& block) {
  d_->sync(block);
}

bool DispatchQueue::isCurrent() const {
  return d_->isCurrent();
}

void dispatchOnce(std::once_flag& flag, const std::function<void()>& block) {
  try {
    std::call_once(flag, block);
  } catch (...) {
    // A throwing block leaves the flag unset, so a later call tries again.
    log("dispatchOnce: the block threw");
  }
}

}  // namespace kwq
