#include "cli/randomKey.h"

#include <sys/random.h>

#include "platform/errors/systemError.h"

namespace zks {

std::string randomKey() {
  constexpr char kDigits[] = "0123456789abcdef";
  unsigned char bytes[16];
  if (::getrandom(bytes, sizeof bytes, 0) != sizeof bytes)
    errors::throwSystemError("getrandom");
  std::string key;
  for (const unsigned char byte : bytes) {
    key += kDigits[byte >> 4U];
    key += kDigits[byte & 15U];
  }
  return key;
}

}  // namespace zks
