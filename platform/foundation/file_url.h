#pragma once

// File URLs ("file:///path") for paths, and back. The recorder names its movie by URL, as the
// platform's writer expects, and the writer and photo library work on paths.

#include <optional>
#include <string>

namespace kwq::platform {

/// "file://" followed by the absolute path, every byte outside the unreserved characters and
/// "/" percent-encoded. A relative path is taken relative to the current folder. Empty for an
/// empty path. Slashes are kept as given, doubled ones included. Thread: any.
std::string fileURLWithPath(const std::string& path);

/// The path of a "file://" URL (host empty or "localhost"), percent-decoding undone; nothing
/// for another scheme, a remote host, a relative or empty path, a malformed escape or an
/// encoded NUL byte. Thread: any.
std::optional<std::string> pathFromFileURL(const std::string& url);

}  // namespace kwq::platform
