#include "scheduler/standardDescriptors.h"

#include <fcntl.h>
#include <unistd.h>

namespace parallel::scheduler {

void occupyStandardDescriptors() noexcept {
  int lowest = ::open("/dev/null", O_RDONLY);
  while (lowest >= 0 && lowest <= STDERR_FILENO)
    lowest = ::open("/dev/null", O_RDONLY);
  if (lowest >= 0)
    ::close(lowest);
}

}  // namespace parallel::scheduler
