// Receives the outcome of one call: a payload or an error, once.
#pragma once

#include <exception>
#include <functional>
#include <stop_token>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/spf/core/GenericPayload.h"

namespace agent::spf::core {

// What the framework knows of the caller as long as the call has no outcome.
struct Caller {
  // A stop request gives the call up: the framework cancels it at the service, and the handler gets Terminated, on the
  // thread that made the request. After the outcome it has no effect. Without an associated state: the call cannot be
  // given up.
  std::stop_token givenUp = {};
  // The caller does nothing until the outcome is there. So invoke() may keep its thread for a moment, a few
  // milliseconds at most, and call the handler on it: a reply that comes soon then wakes no thread.
  bool waits = false;
  // Is told each notice of the service (ServerCall::notify) in order, while the call has no outcome; a last one may still
  // be under way when the caller gives the call up. On a thread of the framework, or the caller's if it waits: it does not
  // block; what it throws is dropped.
  std::function<void(std::string_view)> noticed = {};
};

// Threads: the framework calls exactly one of the two, on a thread of its own unless the caller waits or has given up;
// a callback does not block and does not throw (what it throws is dropped).
class CompletionHandler {
 public:
  using Success = std::function<void(GenericPayload)>;
  using Error = std::function<void(std::exception_ptr)>;
  using Companions = std::vector<std::function<void()>>;

  CompletionHandler() = default;
  CompletionHandler(Success success, Error error, Companions companions = {}, Caller caller = {})
      : success_(std::move(success)),
        error_(std::move(error)),
        companions_(std::move(companions)),
        caller_(std::move(caller)) {}
  CompletionHandler(CompletionHandler&&) noexcept = default;
  CompletionHandler& operator=(CompletionHandler&&) noexcept = default;
  CompletionHandler(const CompletionHandler&) = delete;
  CompletionHandler& operator=(const CompletionHandler&) = delete;
  ~CompletionHandler() = default;

  void succeed(GenericPayload payload) const;
  void fail(std::exception_ptr error) const;

  // Callables that travel with the handler unchanged, for its owner's use.
  const Companions& companions() const noexcept { return companions_; }

  const Caller& caller() const noexcept { return caller_; }
  // Passes a notice on to a caller that listens.
  void notice(std::string_view text) const noexcept;

 private:
  Success success_;
  Error error_;
  Companions companions_;
  Caller caller_;
};

}  // namespace agent::spf::core
