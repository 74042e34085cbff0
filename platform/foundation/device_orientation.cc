#include "kwqimage/DeviceOrientation.h"

#include <atomic>

namespace kwq {

static std::atomic<int64_t> gDeviceOrientation{DeviceOrientation::Unknown};

int64_t DeviceOrientation::current() {
  return gDeviceOrientation.load(std::memory_order_relaxed);
}

void DeviceOrientation::setCurrent(int64_t orientation) {
  gDeviceOrientation.store(orientation, std::memory_order_relaxed);
}

}  // namespace kwq
