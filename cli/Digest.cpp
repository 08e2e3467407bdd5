#include "cli/Digest.h"

#include <cstdio>

namespace zks {

std::string Digest::text() const {
  char text[16];
  std::snprintf(text, sizeof text, "crc32 %08x", static_cast<unsigned>(crc_.checksum()));
  return text;
}

}  // namespace zks
