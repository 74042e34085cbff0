#pragma once

/// @file
/// The one error object the library hands to a caller: a domain, a code and optional details,
/// after the platform's error objects.

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace kwq {

/// An error value: `domain` names where it comes from, `code` what happened there.
struct Error {
  /// Where the error comes from.
  std::string domain;
  /// What happened, numbered within the domain.
  int64_t code = 0;
  /// Details by key; empty for none.
  std::map<std::string, std::string> userInfo;

  /// Field-wise equality.
  friend bool operator==(const Error&, const Error&) = default;
};

///@{
/// The simple capture view's error for a capture while video is not running. The text is the
/// error's domain (not a description), as the interface has it.
inline constexpr std::string_view KWQVideoNotStartedErrorDomain = "Video not started";
inline constexpr int64_t KWQVideoNotStartedErrorCode = 101;
///@}

}  // namespace kwq
