// A program started by a test, with pipes on its three streams. Ended, if need be by force, with the object.
//
// Errors: std::system_error when it cannot be started; std::runtime_error when a deadline passes.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/files/UniqueFd.h"

namespace zks {

struct ProcessOutcome {
  int exitCode = -1;  // 128 + N when signal N ended it
  std::string output;
  std::string error;
  long peakMemoryKiB = 0;
};

class ChildProcess {
 public:
  // Starts it in the directory given.
  ChildProcess(const std::vector<std::string>& command, const std::string& directory);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const noexcept { return pid_; }
  void send(int signal) const;
  // Standard output up to and without the next line's end; before wait() only.
  std::string readLine() const;
  // Collects both streams to their ends and waits for the process.
  ProcessOutcome wait();

 private:
  pid_t pid_ = -1;
  files::UniqueFd output_;
  files::UniqueFd error_;
};

// From beginning to end.
ProcessOutcome runProgram(const std::vector<std::string>& command, const std::string& directory);

}  // namespace zks
