#pragma once

// printf-style formatting for the library's own log lines.

#include <string>

namespace kwq {

/// Formats like printf and logs the result as one line.
void logf(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Formats like printf into a string.
std::string formatString(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kwq
