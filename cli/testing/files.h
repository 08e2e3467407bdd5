// Whole files in one go, for tests.
#pragma once

#include <cstdio>
#include <stdexcept>
#include <string>

namespace zks {

inline std::string readFile(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr)
    throw std::runtime_error("cannot open " + path);
  std::string bytes;
  char piece[65536];
  std::size_t got = 0;
  while ((got = std::fread(piece, 1, sizeof piece, file)) > 0)
    bytes.append(piece, got);
  std::fclose(file);
  return bytes;
}

inline void writeFile(const std::string& path, const std::string& bytes) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr)
    throw std::runtime_error("cannot create " + path);
  const bool whole = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  if (std::fclose(file) != 0 || !whole)
    throw std::runtime_error("cannot write " + path);
}

}  // namespace zks
