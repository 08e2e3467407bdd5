#include "transport/streams/reserveBytes.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

namespace parallel::spf::transport::internal {

void adviseHugePages(void* data, std::size_t nbytes) noexcept {
  const auto pageBytes = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  const auto begin = reinterpret_cast<std::uintptr_t>(data);
  const std::uintptr_t firstPage = (begin + pageBytes - 1) / pageBytes * pageBytes;
  const std::uintptr_t endOfPages = (begin + nbytes) / pageBytes * pageBytes;
  if (firstPage >= endOfPages)
    return;
  char* const pages = static_cast<char*>(data) + (firstPage - begin);
  // Refused where the kernel has no huge pages; the memory serves as it is.
  static_cast<void>(madvise(pages, endOfPages - firstPage, MADV_HUGEPAGE));
}

}  // namespace parallel::spf::transport::internal
