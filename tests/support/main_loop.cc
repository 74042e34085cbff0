#include "support/main_loop.h"

#include <glib.h>

namespace kwq::test {
namespace {

// ThreadSanitizer runs the code 5 to 15 times slower (the synthetic camera included), so a
// TSan build waits ten times as long before it gives up; what is checked stays the same.
#if defined(__SANITIZE_THREAD__)
constexpr int kDeadlineScale = 10;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr int kDeadlineScale = 10;
#else
constexpr int kDeadlineScale = 1;
#endif
#else
constexpr int kDeadlineScale = 1;
#endif

}  // namespace

bool pumpMainContextUntil(const std::function<bool()>& condition,
                          std::chrono::milliseconds timeout) {
  GMainContext* context = g_main_context_default();
  const auto deadline = std::chrono::steady_clock::now() + timeout * kDeadlineScale;
  // A ticking source wakes the blocking iteration so the condition and deadline are re-checked.
  GSource* tick = g_timeout_source_new(5);
  g_source_set_callback(
      tick, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
  g_source_attach(tick, context);
  bool held = false;
  for (;;) {
    if (condition()) {
      held = true;
      break;
    }
    if (std::chrono::steady_clock::now() >= deadline) break;
    g_main_context_iteration(context, TRUE);
  }
  g_source_destroy(tick);
  g_source_unref(tick);
  return held;
}

void drainMainContext() {
  GMainContext* context = g_main_context_default();
  while (g_main_context_iteration(context, FALSE)) {
  }
}

}  // namespace kwq::test
