// For tests: a process with few descriptors left.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>

#include "platform/errors/systemError.h"
#include "platform/files/UniqueFd.h"

namespace parallel::execution::testing {

// While it lives the process can open `free` descriptors more. No other thread may open or close one meanwhile.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t free) {
    if (::getrlimit(RLIMIT_NOFILE, &previous_) != 0)
      errors::throwSystemError("getrlimit");
    const files::UniqueFd lowest(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (!lowest)
      errors::throwSystemError("open");
    struct rlimit limit = previous_;
    limit.rlim_cur = static_cast<rlim_t>(lowest.get()) + free;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0)
      errors::throwSystemError("setrlimit");
  }
  ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &previous_); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  struct rlimit previous_ {};
};

}  // namespace parallel::execution::testing
