// The checks that keep the process log's files inside one directory: no absolute path outside
// it, no ".." component, no symbolic link on the way, and the opened file is the one checked.
//
// Internal to connector_common_services (not installed). Pure functions of their arguments and
// the file system; safe from any thread.
#pragma once

#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>

namespace foundation {
namespace log {
namespace detail {

// The canonical form of `directory`, for use as a confinement root; empty for an empty text.
// Throws std::invalid_argument when it does not exist or is not a directory.
std::filesystem::path canonical_confinement(const std::string& directory);

// A log file accepted under confinement, and the check to run once it is open.
struct confined_file {
  std::filesystem::path path;  // absolute, normalised, inside the root
  // Throws std::invalid_argument unless `opened` is the file at `path` and nothing on the way
  // became a symbolic link meanwhile. Owns copies of everything it checks.
  std::function<void(std::FILE* opened)> verify_opened;
};

// Resolves `given`, named by the destination `text`, inside `root` (a relative path is taken
// relative to it). Throws std::invalid_argument when the path leaves the root, names the root
// itself, has a ".." component or goes through a symbolic link, and std::runtime_error when
// its directory does not exist.
confined_file confine_file(const std::string& text, const std::filesystem::path& given,
                           const std::filesystem::path& root);

}  // namespace detail
}  // namespace log
}  // namespace foundation
