// A fresh directory under the system's temporary directory, removed with everything in it when
// the object goes. Paths it hands out are absolute and free of symbolic links.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace connector {
namespace test_support {

class TempDirectory {
 public:
  TempDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "connector-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("cannot create a temporary directory from " + pattern);
    }
    path_ = std::filesystem::canonical(pattern);
  }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;
  ~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  const std::filesystem::path& path() const { return path_; }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }

  // The whole content of a file, or "" if it does not exist.
  static std::string read(const std::string& file) {
    std::ifstream in(file);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  // The lines of a file, without their line feeds.
  static std::vector<std::string> lines(const std::string& file) {
    std::ifstream in(file);
    std::vector<std::string> all;
    for (std::string line; std::getline(in, line);) {
      all.push_back(line);
    }
    return all;
  }

 private:
  std::filesystem::path path_;
};

}  // namespace test_support
}  // namespace connector
