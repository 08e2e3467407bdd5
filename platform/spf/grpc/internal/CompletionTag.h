// What a completion queue hands back: the operation that ended.
#pragma once

#include <atomic>
#include <memory>
#include <utility>

namespace agent::spf::grpc_transport::internal {

class CompletionTag {
 public:
  virtual ~CompletionTag() = default;
  virtual void complete(bool ok) = 0;
};

// Calls a member function of its owner, which it keeps alive while the operation is under way.
// Threads: armed by whoever starts the operation, completed by the queue's thread; one operation at a time.
template <class Owner>
class MemberTag final : public CompletionTag {
 public:
  explicit MemberTag(void (Owner::*member)(bool)) : member_(member) {}

  void* arm(std::shared_ptr<Owner> owner) {
    owner_ = std::move(owner);
    armed_.store(true, std::memory_order_release);
    return static_cast<CompletionTag*>(this);
  }

  // The operation will never be reported: lets go of the owner.
  void disarm() { owner_ = nullptr; }

  void complete(bool ok) override {
    armed_.exchange(false, std::memory_order_acq_rel);  // orders this thread after the arming one
    const std::shared_ptr<Owner> owner = std::move(owner_);
    if (owner != nullptr)
      (owner.get()->*member_)(ok);
  }

 private:
  void (Owner::*member_)(bool);
  std::shared_ptr<Owner> owner_;
  std::atomic<bool> armed_{false};
};

}  // namespace agent::spf::grpc_transport::internal
