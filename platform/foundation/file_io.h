#pragma once

// Whole-file reads and writes, directory listings and removals. Paths are used as given.
// Every function may run on any thread and reports failure by its result, never by throwing.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kwq::platform {

/// Writes `data` to `path` so that readers and crashes see either the old file or the whole
/// new one: a hidden temporary file in the same folder (".<name>.XXXXXX"), written, flushed
/// (fsync), given the usual permissions (0666 less the umask), renamed over `path`, and the
/// folder flushed. False on any failure, after removing the temporary file.
bool writeFileAtomically(const std::string& path, std::span<const uint8_t> data);

/// The whole content of a regular file, or nothing when it cannot be read or exceeds
/// `maxBytes`.
std::optional<std::vector<uint8_t>> readFile(const std::string& path, size_t maxBytes);

/// Names of the folder's entries (not "." and ".."), in the order the system lists them;
/// empty when the folder cannot be read.
std::vector<std::string> listDirectory(const std::string& path);

/// Removes a file, a symbolic link or a folder with everything inside; failures are ignored.
void removeItem(const std::string& path);

/// Creates the folder and any missing parents, each new one owner-only (0700 less the umask);
/// folders that exist keep their permissions. True when `path` is a folder (or a link to one)
/// afterwards; else false with the system's reason in `reason` when given.
bool createDirectories(const std::string& path, std::string* reason = nullptr);

}  // namespace kwq::platform
