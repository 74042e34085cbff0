#include "kwq/repeated_lines.h"

#include <algorithm>
#include <vector>

namespace kwq::tool {

RepeatedLines::RepeatedLines(std::ostream& err) : err_(err) {
  previous_ = setLogSink([this](std::string_view line) { take(line); });
}

RepeatedLines::~RepeatedLines() {
  setLogSink(std::move(previous_));  // no more lines come here once this returns
  printCounts();
}

void RepeatedLines::take(std::string_view line) {
  std::lock_guard lock(mutex_);
  auto [it, first] = seen_.try_emplace(std::string(line), next_, 0);
  if (first) ++next_;
  if (++it->second.second == 1) err_ << line << '\n' << std::flush;
}

void RepeatedLines::printCounts() {
  std::lock_guard lock(mutex_);
  std::vector<std::pair<size_t, const std::string*>> order;
  for (const auto& [line, seen] : seen_)
    if (seen.second > 1) order.emplace_back(seen.first, &line);
  std::sort(order.begin(), order.end());
  for (const auto& [first, line] : order)
    err_ << "kwq: " << seen_.at(*line).second << " times in all: " << *line << '\n';
  seen_.clear();
  next_ = 0;
}

}  // namespace kwq::tool
