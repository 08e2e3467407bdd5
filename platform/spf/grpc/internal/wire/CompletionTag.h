// What a completion queue hands back: the operation that ended.
#pragma once

#include <memory>
#include <utility>

#include "platform/spf/grpc/internal/wire/tsanOrder.h"

namespace agent::spf::grpc_transport::internal {

class CompletionTag {
 public:
  virtual ~CompletionTag() = default;
  virtual void complete(bool ok) = 0;
};

inline void complete(void* tag, bool ok) {
  takenOver(tag);
  static_cast<CompletionTag*>(tag)->complete(ok);
}

// Serves the next completion; false when the queue has been shut down and drained.
template <class Queue>
bool serveCompletion(Queue& queue) {
  void* tag = nullptr;
  bool ok = false;
  if (!queue.Next(&tag, &ok))
    return false;
  complete(tag, ok);
  return true;
}

// Calls a member function of its owner, which it keeps alive while the operation is under way.
// Threads: armed by whoever starts the operation, completed by whoever serves the queue; one operation at a time.
template <class Owner>
class MemberTag final : public CompletionTag {
 public:
  explicit MemberTag(void (Owner::*member)(bool)) : member_(member) {}

  void* arm(std::shared_ptr<Owner> owner) {
    owner_ = std::move(owner);
    void* tag = static_cast<CompletionTag*>(this);
    handedOver(tag);
    return tag;
  }

  // The operation will never be reported: lets go of the owner.
  void disarm() { owner_ = nullptr; }

  void complete(bool ok) override {
    const std::shared_ptr<Owner> owner = std::move(owner_);
    if (owner != nullptr)
      (owner.get()->*member_)(ok);
  }

 private:
  void (Owner::*member_)(bool);
  std::shared_ptr<Owner> owner_;
};

}  // namespace agent::spf::grpc_transport::internal
