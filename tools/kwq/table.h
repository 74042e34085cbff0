#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace kwq::tool {

/// A plain-text table: a header row, then rows; columns sized to their widest cell.
/// Numeric-looking cells are right-aligned, text is left-aligned.
class Table {
 public:
  explicit Table(std::vector<std::string> header) : header_(std::move(header)) {}
  void addRow(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  /// Left-aligns every cell (for tables of labelled values that mix numbers and text).
  void alignLeft() { alignLeft_ = true; }
  void print(std::ostream& out) const;

 private:
  std::vector<std::string> header_;
  std::vector<std::vector<std::string>> rows_;
  bool alignLeft_ = false;
};

/// `value` as printf prints it with `fmt` (one conversion of a double), for a cell or a line.
std::string formatNumber(const char* fmt, double value);

}  // namespace kwq::tool
