#include "programs/standardDescriptors.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace programs {

namespace {

// By the kernel's own call: a sanitizer that watches open() may not be ready yet.
int openNothing() noexcept {
  return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDONLY));
}

void runFirst(int, char**, char**) noexcept {
  occupyStandardDescriptors();
}

// What the dynamic linker calls before it initialises any library.
__attribute__((section(".preinit_array"), used)) void (*const first)(int, char**, char**) noexcept = runFirst;

}  // namespace

void occupyStandardDescriptors() noexcept {
  int lowest = openNothing();
  while (lowest >= 0 && lowest <= STDERR_FILENO)
    lowest = openNothing();
  if (lowest >= 0)
    ::close(lowest);
}

}  // namespace programs
