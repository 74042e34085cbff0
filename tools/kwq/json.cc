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

void Json::write(std::ostream& out, JsonLayout layout) const {
  const char* comma = layout == JsonLayout::Compact ? "," : ", ";
  const char* colon = layout == JsonLayout::Compact ? ":" : ": ";
  const JsonLayout inner = layout == JsonLayout::Lines ? JsonLayout::Spaced : layout;
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
        if (i) out << comma;
        items_[i].write(out, inner);
      }
      out << ']';
      break;
    case Kind::Object:
      if (layout == JsonLayout::Lines) {
        out << "{\n";
        for (size_t i = 0; i < items_.size(); ++i) {
          out << "  ";
          writeString(out, keys_[i]);
          out << colon;
          items_[i].write(out, inner);
          out << (i + 1 < items_.size() ? ",\n" : "\n");
        }
        out << '}';
        break;
      }
      out << '{';
      for (size_t i = 0; i < items_.size(); ++i) {
        if (i) out << comma;
        writeString(out, keys_[i]);
        out << colon;
        items_[i].write(out, inner);
      }
      out << '}';
      break;
  }
}

std::string Json::dump(JsonLayout layout) const {
  std::ostringstream out;
  write(out, layout);
  return out.str();
}

}  // namespace kwq::tool
