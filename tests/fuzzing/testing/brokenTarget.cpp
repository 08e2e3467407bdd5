// A target that does not stand a changed first byte, to see that the driver notices.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t nbytes) {
  if (nbytes > 0 && data[0] != 'a')
    std::abort();
  return 0;
}
