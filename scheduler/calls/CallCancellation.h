// A call's end of interest as a stop token, while a handler serves it.
#pragma once

#include <stop_token>

#include "platform/spf/core/Service.h"

namespace parallel::scheduler {

// Ownership: borrows the call.
// Threads:   stop is requested on a thread of the framework; the destructor waits for a request that is being made.
class CallCancellation {
 public:
  explicit CallCancellation(agent::spf::core::ServerCall& call) : call_(call) {
    call_.onCancel([this] { source_.request_stop(); });
  }
  ~CallCancellation() { call_.onCancel({}); }
  CallCancellation(const CallCancellation&) = delete;
  CallCancellation& operator=(const CallCancellation&) = delete;

  std::stop_token token() const noexcept { return source_.get_token(); }

 private:
  agent::spf::core::ServerCall& call_;
  std::stop_source source_;
};

}  // namespace parallel::scheduler
