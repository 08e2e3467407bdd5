// A directory of a test's own, and whole files in one go.
#pragma once

#include <filesystem>
#include <fstream>
#include <ios>
#include <stdexcept>
#include <string_view>

#include "platform/files/testing/TemporaryDirectory.h"
#include "transport/data/testing/RecordingByteSink.h"

namespace parallel::spf::transport::testing {

class TemporaryDirectory : public files::testing::TemporaryDirectory {
 public:
  std::filesystem::path write(std::string_view name, const Bytes& bytes) const {
    std::ofstream out(file(name), std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return file(name);
  }
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
