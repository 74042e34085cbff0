#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "kwqimage/Log.h"
#include "platform/foundation/log_format.h"

namespace kwq {
namespace {

std::mutex& sinkMutex() {
  static std::mutex m;
  return m;
}

LogSink& currentSink() {
  static LogSink sink;
  return sink;
}

std::string vformat(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  const int n = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (n <= 0) return {};
  std::string s(static_cast<size_t>(n), '\0');
  std::vsnprintf(s.data(), s.size() + 1, format, args);
  return s;
}

}  // namespace

void log(std::string_view line) {
  std::lock_guard lock(sinkMutex());
  if (currentSink()) {
    currentSink()(line);
    return;
  }
  std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
}

LogSink setLogSink(LogSink sink) {
  std::lock_guard lock(sinkMutex());
  LogSink previous = std::move(currentSink());
  currentSink() = std::move(sink);
  return previous;
}

void logf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const std::string line = vformat(format, args);
  va_end(args);
  log(line);
}

std::string formatString(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string s = vformat(format, args);
  va_end(args);
  return s;
}

}  // namespace kwq
