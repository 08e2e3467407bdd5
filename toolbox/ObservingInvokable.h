// Passes one call on to a connection and watches its bytes: counts them both ways and remembers what broke the reply.
//
// The reason for remembering: a reply's items replace whatever stops them by an error of their own that has no cause.
//
// Ownership: shares everything it is given. What it hands to the framework keeps the observations alive, not itself.
// Threads:   as Invokable; the observation's fields are safe to read from any thread.
#pragma once

#include <exception>
#include <memory>
#include <mutex>
#include <string>

#include "platform/spf/core/Invokable.h"
#include "toolbox/TransferProgress.h"

namespace parallel::toolbox {

class CallObservation {
 public:
  explicit CallObservation(std::shared_ptr<TransferProgress> progress) : progress_(std::move(progress)) {}

  TransferProgress& progress() const noexcept { return *progress_; }

  // What the reply's stream ended with, if it did not end well.
  std::exception_ptr streamFailure() const;
  void setStreamFailure(std::exception_ptr failure);

 private:
  const std::shared_ptr<TransferProgress> progress_;
  mutable std::mutex mutex_;
  std::exception_ptr failure_;  // guarded by mutex_; the first one stays
};

class ObservingInvokable : public agent::spf::core::Invokable {
 public:
  ObservingInvokable(std::shared_ptr<agent::spf::core::Invokable> next, std::shared_ptr<CallObservation> observation);

  void invoke(agent::spf::core::CallTag tag, const std::string& method, agent::spf::core::CompletionHandler&& handler,
              agent::spf::core::GenericPayload&& request, int flags) override;

 private:
  const std::shared_ptr<agent::spf::core::Invokable> next_;
  const std::shared_ptr<CallObservation> observation_;
};

}  // namespace parallel::toolbox
