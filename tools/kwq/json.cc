#include "kwq/json.h"

#include <cmath>
#include <cstdio>
#include <sstream>

namespace kwq::tool {
namespace {

void writeString(std::ostream& out, std::string_view text) {
  out << '"';
  for (const char c : text) {
    switch (c) {
      case '"':
        out << "\\\"";
        break;
      case '\\':
        out << "\\\\";
        break;
      case '\n':
        out << "\\n";
        break;
      case '\r':
        out << "\\r";
        break;
      case '\t':
        out << "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out << escaped;
        } else {
          out << c;  // UTF-8 passes through
        }
    }
  }
  out << '"';
}

}  // namespace

Json Json::numbers(std::initializer_list<double> values) {
  Json a = array();
  for (double v : values) a.push(v);
  return a;
}

Json& Json::set(std::string_view key, Json value) {
  for (size_t i = 0; i < keys_.size(); ++i) {
    if (keys_[i] == key) {
      items_[i] = std::move(value);
      return *this;
    }
  }
  keys_.emplace_back(key);
  items_.push_back(std::move(value));
  return *this;
}

Json& Json::push(Json value) {
  items_.push_back(std::move(value));
  return *this;
}

void Json::write(std::ostream& out) const {
  switch (kind_) {
    case Kind::Null:
      out << "null";
      break;
    case Kind::Bool:
      out << (bool_ ? "true" : "false");
      break;
    case Kind::Number: {
      if (!std::isfinite(number_)) {
        out << "null";
      } else if (number_ == std::floor(number_) && std::fabs(number_) < 1e15) {
        out << static_cast<int64_t>(number_);
      } else {
        char text[32];
        std::snprintf(text, sizeof text, "%.6g", number_);
        out << text;
      }
      break;
    }
    case Kind::String:
      writeString(out, string_);
      break;
    case Kind::Array:
      out << '[';
      for (size_t i = 0; i < items_.size(); ++i) {
        if (i) out << ',';
        items_[i].write(out);
      }
      out << ']';
      break;
    case Kind::Object:
      out << '{';
      for (size_t i = 0; i < items_.size(); ++i) {
        if (i) out << ',';
        writeString(out, keys_[i]);
        out << ':';
        items_[i].write(out);
      }
      out << '}';
      break;
  }
}

std::string Json::dump() const {
  std::ostringstream out;
  write(out);
  return out.str();
}

}  // namespace kwq::tool
