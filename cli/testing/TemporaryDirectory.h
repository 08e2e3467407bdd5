// A directory of its own for a test, gone with all that is in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace zks {

class TemporaryDirectory {
 public:
  TemporaryDirectory() : path_((std::filesystem::temp_directory_path() / "zks-test-XXXXXX").string()) {
    if (mkdtemp(path_.data()) == nullptr)
      throw std::system_error(errno, std::generic_category(), "mkdtemp");
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

}  // namespace zks
