#include "kwqimage/DispatchQueue.h"

#include <glib.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <ctime>
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

// The global pool: as many threads as cores (2 to 8) for blocks that compute, and more while
// those threads sit in blocks that sleep or wait (an animation loop, a wait for a camera frame),
// so that a waiting block never holds back the blocks queued behind it. A watchdog looks at the
// pool whenever blocks are queued and no thread is free: a busy thread that used less than a
// quarter of the last interval's time on a core counts as waiting, and one thread is added for
// each queued block the computing threads leave uncovered. Threads beyond the base number end
// after a few idle seconds.
struct GlobalQueue final : DispatchQueue::Impl {
  static constexpr auto kWatchInterval = std::chrono::milliseconds(20);
  static constexpr auto kSpareIdle = std::chrono::seconds(5);
  static constexpr unsigned kMaxThreads = 128;

  struct Worker {
    clockid_t clock{};
    bool haveClock = false;
    bool busy = false;
    int64_t cpuMark = 0;  // CPU time at the start of the watchdog's interval
  };

  GlobalQueue() : Impl("kwq.global") {
    base = std::clamp(std::thread::hardware_concurrency(), 2u, 8u);
    std::lock_guard lock(mutex);
    for (unsigned i = 0; i < base; ++i) spawnLocked();
    std::thread watch([this] { watchdog(); });
    pthread_setname_np(watch.native_handle(), "kwq-global-wd");
    watch.detach();  // the pool lives as long as the process
  }

  void async(DispatchQueue::Block block) override {
    std::lock_guard lock(mutex);
    items.push_back(std::move(block));
    if (idle > 0)
      work.notify_one();
    else
      watch.notify_one();
  }

  static int64_t cpuNs(const Worker& w) {
    timespec ts{};
    if (!w.haveClock || clock_gettime(w.clock, &ts) != 0) return 0;
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
  }

  // Mutex held.
  void spawnLocked() {
    auto worker = std::make_shared<Worker>();
    workers.push_back(worker);
    ++threads;
    try {
      std::thread t([this, worker] { run(worker); });
      pthread_setname_np(t.native_handle(), "kwq-global");
      t.detach();
    } catch (...) {
      // No thread to be had: the blocks wait for the threads there are.
      workers.pop_back();
      --threads;
    }
  }

  void run(const std::shared_ptr<Worker>& self) {
    tlsCurrentQueue = this;
    std::unique_lock lock(mutex);
    self->haveClock = pthread_getcpuclockid(pthread_self(), &self->clock) == 0;
    for (;;) {
      ++idle;
      const bool spare = threads > base;
      bool woke = true;
      if (spare)
        woke = work.wait_for(lock, kSpareIdle, [&] { return !items.empty(); });
      else
        work.wait(lock, [&] { return !items.empty(); });
      --idle;
      if (!woke) break;  // a spare thread with nothing to do for a while
      DispatchQueue::Block block = std::move(items.front());
      items.pop_front();
      self->busy = true;
      if (!items.empty() && idle == 0) watch.notify_one();  // more waiting, no thread free
      lock.unlock();
      runGuarded(block, label);
      block = nullptr;  // captures released before the thread counts as free
      lock.lock();
      self->busy = false;
    }
    workers.erase(std::find(workers.begin(), workers.end(), self));
    --threads;
    tlsCurrentQueue = nullptr;
  }

  void watchdog() {
    std::unique_lock lock(mutex);
    for (;;) {
      watch.wait(lock, [&] { return !items.empty() && idle == 0; });
      for (auto& w : workers) w->cpuMark = cpuNs(*w);
      const auto start = std::chrono::steady_clock::now();
      const auto deadline = start + kWatchInterval;
      // Blocks queued meanwhile notify this condition too: the interval is waited out whole.
      while (std::chrono::steady_clock::now() < deadline) watch.wait_until(lock, deadline);
      if (items.empty() || idle > 0) continue;
      const int64_t elapsed = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                  std::chrono::steady_clock::now() - start)
                                  .count();
      unsigned computing = 0;
      for (auto& w : workers)
        if (w->busy && cpuNs(*w) - w->cpuMark >= elapsed / 4) ++computing;
      const size_t uncovered = computing >= base ? 0 : base - computing;
      size_t add = std::min(items.size(), uncovered);
      add = std::min<size_t>(add, threads >= kMaxThreads ? 0 : kMaxThreads - threads);
      for (size_t i = 0; i < add; ++i) spawnLocked();
    }
  }

  unsigned base = 2;
  std::mutex mutex;
  std::condition_variable work;   // a block was queued for an idle thread
  std::condition_variable watch;  // a block was queued and no thread was idle
  std::deque<DispatchQueue::Block> items;
  std::vector<std::shared_ptr<Worker>> workers;
  unsigned threads = 0;
  unsigned idle = 0;
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
