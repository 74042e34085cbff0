#pragma once

// Which instruction set the measures' inner loops use. Every path gives bit-identical results;
// the choice only changes speed. Tests force each available path in turn.

#include <optional>
#include <vector>

// SSE2 is part of every x86-64 CPU; AVX2 is chosen at run time where the CPU has it.
#if defined(__x86_64__)
#define KWQ_QUALITY_X86 1
#else
#define KWQ_QUALITY_X86 0
#endif

namespace kwq::quality {

enum class SimdPath { Scalar, Sse2, Avx2 };

/// The paths this machine can run, slowest first.
std::vector<SimdPath> availableSimdPaths();

/// The path the measures use now: the fastest available unless one was forced.
SimdPath activeSimdPath();

/// Makes every measure use `path` (an unavailable path means scalar); nullopt restores the
/// automatic choice. Meant for tests; safe from any thread.
void forceSimdPath(std::optional<SimdPath> path);

/// Short name for messages: "scalar", "sse2", "avx2".
const char* simdPathName(SimdPath path);

}  // namespace kwq::quality
