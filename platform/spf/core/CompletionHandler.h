// Receives the outcome of one call: a payload or an error, once.
#pragma once

#include <exception>
#include <functional>
#include <utility>
#include <vector>

#include "platform/spf/core/GenericPayload.h"

namespace agent::spf::core {

// Threads: the framework calls exactly one of the two, on a thread of its own; a callback does not block and does not
// throw (what it throws is dropped).
class CompletionHandler {
 public:
  using Success = std::function<void(GenericPayload)>;
  using Error = std::function<void(std::exception_ptr)>;
  using Companions = std::vector<std::function<void()>>;

  CompletionHandler() = default;
  CompletionHandler(Success success, Error error, Companions companions = {})
      : success_(std::move(success)), error_(std::move(error)), companions_(std::move(companions)) {}
  CompletionHandler(CompletionHandler&&) noexcept = default;
  CompletionHandler& operator=(CompletionHandler&&) noexcept = default;
  CompletionHandler(const CompletionHandler&) = delete;
  CompletionHandler& operator=(const CompletionHandler&) = delete;
  ~CompletionHandler() = default;

  void succeed(GenericPayload payload) const;
  void fail(std::exception_ptr error) const;

  // Callables that travel with the handler unchanged, for its owner's use.
  const Companions& companions() const noexcept { return companions_; }

 private:
  Success success_;
  Error error_;
  Companions companions_;
};

}  // namespace agent::spf::core
