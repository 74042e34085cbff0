#pragma once

// A small JSON value for the tool's machine-readable output: built up in code, written in one
// line with keys in the order they were set.

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kwq::tool {

/// How a value is laid out: one line with nothing between tokens, one line with a space after
/// every comma and colon, or an object's members one to a line (each value then spaced).
enum class JsonLayout { Compact, Spaced, Lines };

class Json {
 public:
  /// null
  Json() = default;
  Json(std::nullptr_t) {}
  Json(bool value) : kind_(Kind::Bool), bool_(value) {}
  Json(double value) : kind_(Kind::Number), number_(value) {}
  Json(int value) : Json(static_cast<double>(value)) {}
  Json(int64_t value) : Json(static_cast<double>(value)) {}
  Json(uint64_t value) : Json(static_cast<double>(value)) {}
  Json(std::string value) : kind_(Kind::String), string_(std::move(value)) {}
  Json(const char* value) : Json(std::string(value)) {}

  static Json object() { return Json(Kind::Object); }
  static Json array() { return Json(Kind::Array); }
  /// An array of numbers.
  static Json numbers(std::initializer_list<double> values);

  /// Sets a member of an object (replacing one of the same key); returns *this.
  Json& set(std::string_view key, Json value);
  /// Appends to an array; returns *this.
  Json& push(Json value);

  /// One line (or a line a member, see JsonLayout); numbers that are whole print without a
  /// fraction, others with up to 6 significant digits past what is needed; NaN and infinities as
  /// null.
  void write(std::ostream& out, JsonLayout layout = JsonLayout::Compact) const;
  std::string dump(JsonLayout layout = JsonLayout::Compact) const;

 private:
  enum class Kind { Null, Bool, Number, String, Array, Object };
  explicit Json(Kind kind) : kind_(kind) {}
  Kind kind_ = Kind::Null;
  bool bool_ = false;
  double number_ = 0.0;
  std::string string_;
  std::vector<Json> items_;
  std::vector<std::string> keys_;  // objects: keys_[i] names items_[i]
};

}  // namespace kwq::tool
