#include "quality/simd_path.h"

#include <atomic>

namespace kwq::quality {
namespace {

// -1 means "not forced"; otherwise the forced SimdPath's value.
std::atomic<int> forcedPath{-1};

bool cpuHasAvx2() {
#if KWQ_QUALITY_X86
  static const bool has = __builtin_cpu_supports("avx2") != 0;
  return has;
#else
  return false;
#endif
}

bool isAvailable(SimdPath path) {
  switch (path) {
    case SimdPath::Scalar:
      return true;
    case SimdPath::Sse2:
      return KWQ_QUALITY_X86 != 0;
    case SimdPath::Avx2:
      return cpuHasAvx2();
  }
  return false;
}

}  // namespace

std::vector<SimdPath> availableSimdPaths() {
  std::vector<SimdPath> paths;
  for (SimdPath p : {SimdPath::Scalar, SimdPath::Sse2, SimdPath::Avx2}) {
    if (isAvailable(p)) paths.push_back(p);
  }
  return paths;
}

SimdPath activeSimdPath() {
  const int forced = forcedPath.load(std::memory_order_relaxed);
  if (forced >= 0) {
    const auto path = static_cast<SimdPath>(forced);
    return isAvailable(path) ? path : SimdPath::Scalar;
  }
  if (cpuHasAvx2()) return SimdPath::Avx2;
  return KWQ_QUALITY_X86 ? SimdPath::Sse2 : SimdPath::Scalar;
}

void forceSimdPath(std::optional<SimdPath> path) {
  forcedPath.store(path ? static_cast<int>(*path) : -1, std::memory_order_relaxed);
}

const char* simdPathName(SimdPath path) {
  switch (path) {
    case SimdPath::Scalar:
      return "scalar";
    case SimdPath::Sse2:
      return "sse2";
    case SimdPath::Avx2:
      return "avx2";
  }
  return "?";
}

}  // namespace kwq::quality
