// The daemon cannot run as it is told; the text is for the user.
#pragma once

#include <stdexcept>

namespace parallel::scheduler {

class DaemonError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace parallel::scheduler
