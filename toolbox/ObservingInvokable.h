// Passes one call on to a connection, counts its bytes both ways, notes what its service says of it, and keeps the reply for its owner. Whoever made the
// call through it gets a container without items in its place: of the real one it would make every item that the reply
// counts, be there any or not.
//
// Ownership: shares everything it is given. What it hands to the framework keeps the observation alive, not itself.
// Threads:   as Invokable; the counts are safe to read from any thread, the reply's stream belongs to the thread that
//            waits for the reply.
#pragma once

#include <istream>
#include <memory>
#include <string>
#include <utility>

#include "platform/spf/core/Invokable.h"
#include "toolbox/TransferProgress.h"

namespace parallel::toolbox {

class CallObservation {
 public:
  explicit CallObservation(std::shared_ptr<TransferProgress> progress) : progress_(std::move(progress)) {}

  const std::shared_ptr<TransferProgress>& progress() const noexcept { return progress_; }

  // The stream of the reply, from its first byte. Null before the reply's stream was asked for, and once it is taken.
  std::shared_ptr<std::istream> takeReply() noexcept { return std::exchange(reply_, nullptr); }
  void keepReply(std::shared_ptr<std::istream> reply) noexcept { reply_ = std::move(reply); }

 private:
  const std::shared_ptr<TransferProgress> progress_;
  std::shared_ptr<std::istream> reply_;
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
