#include "platform/foundation/timer.h"

#include <glib.h>

#include <atomic>
#include <exception>
#include <mutex>

#include "kwqimage/Log.h"

namespace kwq {

struct Timer::State {
  std::function<void()> block;
  bool repeats = true;
  std::atomic<bool> valid{true};
  std::mutex mutex;  // guards source
  GSource* source = nullptr;

  void destroySource() {
    GSource* s = nullptr;
    {
      std::lock_guard lock(mutex);
      std::swap(s, source);
    }
    if (s) {
      g_source_destroy(s);
      g_source_unref(s);
    }
  }
};

namespace {

gboolean fire(gpointer data) {
  // The source holds its own reference to the state, so an invalidate() from the block cannot
  // free what is running.
  auto state = *static_cast<std::shared_ptr<Timer::State>*>(data);
  if (!state->valid.load()) return G_SOURCE_REMOVE;
  if (!state->repeats) state->valid.store(false);
  try {
    state->block();
  } catch (...) {
    log("Timer: the block threw");
  }
  return state->repeats && state->valid.load() ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

void releaseState(gpointer data) {
  delete static_cast<std::shared_ptr<Timer::State>*>(data);
}

}  // namespace

Timer::Timer(std::shared_ptr<State> state, std::chrono::milliseconds interval)
    : state_(std::move(state)), interval_(interval) {}

std::shared_ptr<Timer> Timer::scheduledTimer(std::chrono::milliseconds interval, bool repeats,
                                             std::function<void()> block) {
  if (interval.count() < 1) interval = std::chrono::milliseconds(1);
  auto state = std::make_shared<State>();
  state->block = std::move(block);
  state->repeats = repeats;
  GSource* source = g_timeout_source_new(static_cast<guint>(interval.count()));
  g_source_set_callback(source, &fire, new std::shared_ptr<State>(state), &releaseState);
  g_source_set_name(source, "kwq timer");
  {
    std::lock_guard lock(state->mutex);
    state->source = source;  // keeps the creation reference until invalidate()
  }
  g_source_attach(source, g_main_context_default());
  return std::shared_ptr<Timer>(new Timer(std::move(state), interval));
}

Timer::~Timer() {
  invalidate();
}

void Timer::invalidate() {
  state_->valid.store(false);
  state_->destroySource();
}

bool Timer::isValid() const {
  return state_->valid.load();
}

}  // namespace kwq
