// Receives the outcome of one call: a payload or an error, once.
#pragma once

#include <exception>
#include <functional>
#include <stop_token>
#include <utility>
#include <vector>

#include "platform/spf/core/GenericPayload.h"

namespace agent::spf::core {

// Threads: the framework calls exactly one of the two, on a thread of its own; a callback does not block and does not
// throw (what it throws is dropped).
//
// The caller may give the call up before it has an outcome, by a stop request: the framework then cancels the call at
// the service, and the handler gets Terminated, on the thread that made the request. After the outcome a stop request
// has no effect.
class CompletionHandler {
 public:
  using Success = std::function<void(GenericPayload)>;
  using Error = std::function<void(std::exception_ptr)>;
  using Companions = std::vector<std::function<void()>>;

  CompletionHandler() = default;
  CompletionHandler(Success success, Error error, Companions companions = {}, std::stop_token givenUp = {})
      : success_(std::move(success)),
        error_(std::move(error)),
        companions_(std::move(companions)),
        givenUp_(std::move(givenUp)) {}
  CompletionHandler(CompletionHandler&&) noexcept = default;
  CompletionHandler& operator=(CompletionHandler&&) noexcept = default;
  CompletionHandler(const CompletionHandler&) = delete;
  CompletionHandler& operator=(const CompletionHandler&) = delete;
  ~CompletionHandler() = default;

  void succeed(GenericPayload payload) const;
  void fail(std::exception_ptr error) const;

  // Callables that travel with the handler unchanged, for its owner's use.
  const Companions& companions() const noexcept { return companions_; }

  // Where the caller's stop request arrives; without an associated state when the caller cannot give up.
  const std::stop_token& givenUp() const noexcept { return givenUp_; }

 private:
  Success success_;
  Error error_;
  Companions companions_;
  std::stop_token givenUp_;
};

}  // namespace agent::spf::core
