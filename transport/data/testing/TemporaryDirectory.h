// A directory of a test's own, removed with all that is in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <ios>
#include <stdexcept>
#include <string>
#include <string_view>

#include "transport/data/testing/RecordingByteSink.h"

namespace parallel::spf::transport::testing {

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "transport-test-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr)
      throw std::runtime_error("no temporary directory");
    path_ = name;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  std::filesystem::path file(std::string_view name) const { return path_ / name; }

  std::filesystem::path write(std::string_view name, const Bytes& bytes) const {
    std::ofstream out(file(name), std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return file(name);
  }

 private:
  std::filesystem::path path_;
};

inline Bytes readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  Bytes bytes(std::filesystem::file_size(path));
  in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!in)
    throw std::runtime_error("the file could not be read");
  return bytes;
}

}  // namespace parallel::spf::transport::testing
