// Starts one process, safely from a program with many threads and much memory.
//
// vfork, so nothing of the parent's memory is copied; between it and exec the child makes system calls only. Of the
// parent's descriptors none but the three standard ones passes on; signal handlers and the mask are put back to their
// defaults. The child leads a process group of its own and dies with the thread that started it.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "execution/AttemptMark.h"
#include "platform/files/UniqueFd.h"

namespace parallel::execution {

struct ResourceLimit {
  int resource = 0;  // RLIMIT_...
  rlim_t soft = 0;
  rlim_t hard = 0;  // what the service itself may not exceed wins over both
};

struct SpawnRequest {
  std::string program;  // a path, from `directory` if relative
  std::vector<std::string> argv;
  std::vector<std::string> environment;  // "NAME=value"
  int directory = -1;                    // borrowed, like the three below
  int standardInput = -1;                // -1: empty
  int standardOutput = -1;
  int standardError = -1;
  std::vector<ResourceLimit> limits;
  std::optional<AttemptMark> mark;  // goes into the environment, in the place of one that may be there
};

struct SpawnedProcess {
  pid_t pid = -1;         // also its group; the caller waits for it, with Children
  files::UniqueFd pidfd;  // readable when it has ended
};

// StartFailure (findProgram.h) says what did not work.
SpawnedProcess spawnProcess(const SpawnRequest& request);

}  // namespace parallel::execution
