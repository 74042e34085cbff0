#include "platform/draw/exact_paths.h"

#include <atomic>

namespace kwq::platform {

static std::atomic<bool> gExactShortcuts{true};

void setExactShortcutsEnabled(bool enabled) {
  gExactShortcuts.store(enabled, std::memory_order_relaxed);
}

bool exactShortcutsEnabled() {
  return gExactShortcuts.load(std::memory_order_relaxed);
}

}  // namespace kwq::platform
