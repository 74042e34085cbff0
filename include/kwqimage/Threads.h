#pragma once

/// @file
/// How widely the library spreads one image operation (face search, resampling, detection)
/// over threads. By default one call may use every core; a batch that already runs one process
/// per core asks for one thread each, so processes do not compete for the same cores.

#include "kwqimage/Export.h"

namespace kwq {

/// Threads one image operation may use: 1 or more, or 0 for the default (one per core).
/// Affects calls that start afterwards, in the whole process. Thread: any.
KWQ_EXPORT void setImagingThreadCount(int count);
/// The threads one image operation may use now.
KWQ_EXPORT int imagingThreadCount();

}  // namespace kwq
