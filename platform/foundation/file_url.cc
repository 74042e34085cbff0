#include "platform/foundation/file_url.h"

#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace kwq::platform {
namespace {

bool isUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~' || c == '/';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string currentFolder() {
  std::unique_ptr<char, decltype(&std::free)> cwd(::getcwd(nullptr, 0), &std::free);
  return cwd ? std::string(cwd.get()) : std::string("/");
}

}  // namespace

std::string fileURLWithPath(const std::string& path) {
  if (path.empty()) return {};
  std::string absolute = path;
  if (path.front() != '/') {
    absolute = currentFolder();
    if (absolute.back() != '/') absolute += '/';
    absolute += path;
  }
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string url = "file://";
  url.reserve(url.size() + absolute.size());
  for (unsigned char c : absolute) {
    if (isUnreserved(c)) {
      url += static_cast<char>(c);
    } else {
      url += '%';
      url += kHex[c >> 4];
      url += kHex[c & 15];
    }
  }
  return url;
}

std::optional<std::string> pathFromFileURL(const std::string& url) {
  constexpr std::string_view kScheme = "file://";
  std::string_view rest(url);
  if (rest.size() < kScheme.size()) return std::nullopt;
  for (size_t i = 0; i < kScheme.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(rest[i])) != kScheme[i]) return std::nullopt;
  rest.remove_prefix(kScheme.size());
  constexpr std::string_view kLocalhost = "localhost";
  if (rest.substr(0, kLocalhost.size()) == kLocalhost) rest.remove_prefix(kLocalhost.size());
  if (rest.empty() || rest.front() != '/') return std::nullopt;
  std::string path;
  path.reserve(rest.size());
  for (size_t i = 0; i < rest.size(); ++i) {
    if (rest[i] == '?' || rest[i] == '#') break;
    if (rest[i] != '%') {
      path += rest[i];
      continue;
    }
    if (i + 2 >= rest.size()) return std::nullopt;
    const int hi = hexValue(rest[i + 1]), lo = hexValue(rest[i + 2]);
    if (hi < 0 || lo < 0 || (hi == 0 && lo == 0)) return std::nullopt;
    path += static_cast<char>(hi * 16 + lo);
    i += 2;
  }
  return path;
}

}  // namespace kwq::platform
