#include "kwq/table.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <iomanip>

namespace kwq::tool {
namespace {

bool looksNumeric(const std::string& s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](unsigned char c) {
    return std::isdigit(c) || c == '.' || c == '-' || c == '+' || c == 'x' || c == '%';
  });
}

}  // namespace

std::string formatNumber(const char* fmt, double value) {
  char text[64];
  std::snprintf(text, sizeof text, fmt, value);
  return text;
}

void Table::print(std::ostream& out) const {
  std::vector<size_t> widths(header_.size(), 0);
  auto widen = [&](const std::vector<std::string>& row) {
    for (size_t i = 0; i < row.size() && i < widths.size(); ++i)
      widths[i] = std::max(widths[i], row[i].size());
  };
  widen(header_);
  for (const auto& row : rows_) widen(row);

  auto printRow = [&](const std::vector<std::string>& row, bool isHeader) {
    for (size_t i = 0; i < widths.size(); ++i) {
      const std::string cell = i < row.size() ? row[i] : "";
      const bool right = !alignLeft_ && (!isHeader ? looksNumeric(cell) && i > 0 : i > 0);
      // The last column is not padded when left-aligned: no trailing blanks.
      const bool pad = right || i + 1 < widths.size();
      out << (i ? "  " : "") << (right ? std::right : std::left)
          << std::setw(pad ? static_cast<int>(widths[i]) : 0) << cell;
    }
    out << '\n';
  };
  printRow(header_, true);
  size_t total = 0;
  for (size_t w : widths) total += w;
  out << std::string(total + 2 * (widths.empty() ? 0 : widths.size() - 1), '-') << '\n';
  for (const auto& row : rows_) printRow(row, false);
}

}  // namespace kwq::tool
