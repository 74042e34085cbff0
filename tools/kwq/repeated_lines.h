#pragma once

// The library's log lines as the tool prints them: each distinct line once, as it first comes,
// and at the end how often every repeated one came. A recording onto a full disk logs the same
// failure for every frame; hundreds of identical lines hide what else was said.

#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>

#include <kwqimage/Log.h>

namespace kwq::tool {

class RepeatedLines {
 public:
  /// Becomes the library's log sink; the previous sink returns when this goes.
  explicit RepeatedLines(std::ostream& err);
  ~RepeatedLines();
  RepeatedLines(const RepeatedLines&) = delete;
  RepeatedLines& operator=(const RepeatedLines&) = delete;

  /// Prints "kwq: <n> times in all: <line>" for every line that came more than once, in the
  /// order the lines first came, and forgets them. Thread: any.
  void printCounts();

 private:
  void take(std::string_view line);

  std::ostream& err_;
  std::mutex mutex_;
  std::map<std::string, std::pair<size_t, size_t>> seen_;  // line -> (first seen, count)
  size_t next_ = 0;
  LogSink previous_;
};

}  // namespace kwq::tool
