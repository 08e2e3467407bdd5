// For tests: a directory of a test's own, gone with all that is in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

#include "platform/errors/systemError.h"

namespace files::testing {

class TemporaryDirectory {
 public:
  TemporaryDirectory() : path_((std::filesystem::temp_directory_path() / "zks-test-XXXXXX").string()) {
    if (::mkdtemp(path_.data()) == nullptr)
      errors::throwSystemError("mkdtemp");
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const noexcept { return path_; }
  std::filesystem::path file(std::string_view name) const { return std::filesystem::path(path_) / name; }

 private:
  std::string path_;
};

}  // namespace files::testing
