#pragma once

/// @file
/// The library's log and where its lines go.

#include <functional>
#include <string_view>

#include "kwqimage/Export.h"

namespace kwq {

/// Receives one complete log line, without a trailing line feed.
using LogSink = std::function<void(std::string_view line)>;

/// Writes one line through the current sink (stderr unless the host replaced it).
/// Thread: any; lines from different threads never interleave.
KWQ_EXPORT void log(std::string_view line);

/// Replaces the sink and returns the previous one; an empty sink restores the stderr sink.
/// Thread: any. The sink is called on the thread that logs, one line at a time.
KWQ_EXPORT LogSink setLogSink(LogSink sink);

}  // namespace kwq
