#include "foundation/log/detail/Confinement.h"

#include <sys/stat.h>

#include <stdexcept>
#include <system_error>

namespace foundation {
namespace log {
namespace detail {

namespace fs = std::filesystem;

namespace {

std::string inQuotes(const std::string& text) {
  return "\"" + text + "\"";
}

bool sameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The directory and the file may not be, or become, symbolic links: a link swapped in between
// the check and the open would lead out of the root.
void refuseLinks(const std::string& refused, const std::string& confined, const fs::path& parent,
                 const fs::path& path) {
  std::error_code error;
  if (fs::canonical(parent, error) != parent || error) {
    throw std::invalid_argument(refused + "the directory " + inQuotes(parent.string()) +
                                " is reached through a symbolic link (" + confined + ")");
  }
  if (fs::is_symlink(fs::symlink_status(path, error))) {
    throw std::invalid_argument(refused + inQuotes(path.string()) + " is a symbolic link (" + confined + ")");
  }
}

}  // namespace

fs::path canonical_confinement(const std::string& directory) {
  if (directory.empty()) {
    return {};
  }
  std::error_code error;
  fs::path root = fs::canonical(directory, error);
  if (error || !fs::is_directory(root, error)) {
    throw std::invalid_argument("cannot confine log files to " + inQuotes(directory) +
                                ": it is not an existing directory");
  }
  return root;
}

confined_file confine_file(const std::string& text, const fs::path& given, const fs::path& root) {
  const std::string refused = "log destination " + inQuotes(text) + " is refused: ";
  const std::string confined = "log files are confined to " + inQuotes(root.string());
  for (const auto& part : given) {
    if (part == "..") {
      throw std::invalid_argument(refused + "\"..\" may not appear in the path (" + confined + ")");
    }
  }
  const fs::path path = (root / given).lexically_normal();  // an absolute `given` replaces the root
  const fs::path inside = path.lexically_relative(root);
  if (inside == "." || inside == "./") {
    throw std::invalid_argument(refused + inQuotes(path.string()) +
                                " is the confinement directory itself, not a file (name a file inside it, "
                                "such as file:app.log)");
  }
  if (inside.empty() || *inside.begin() == "..") {
    throw std::invalid_argument(refused + inQuotes(path.string()) + " lies outside the directory (" +
                                confined + ")");
  }
  const fs::path parent = path.parent_path();
  std::error_code error;
  if (!fs::is_directory(parent, error)) {
    throw std::runtime_error("cannot open log file " + inQuotes(path.string()) + " for " + inQuotes(text) +
                             ": its directory " + inQuotes(parent.string()) + " does not exist");
  }
  refuseLinks(refused, confined, parent, path);
  return {path, [refused, confined, parent, path](std::FILE* opened) {
            refuseLinks(refused, confined, parent, path);
            struct stat openedStatus {};
            struct stat namedStatus {};
            if (::fstat(::fileno(opened), &openedStatus) != 0 || ::lstat(path.c_str(), &namedStatus) != 0 ||
                !sameFile(openedStatus, namedStatus)) {
              throw std::invalid_argument(refused + inQuotes(path.string()) +
                                          " was replaced while it was being opened (" + confined + ")");
            }
          }};
}

}  // namespace detail
}  // namespace log
}  // namespace foundation
