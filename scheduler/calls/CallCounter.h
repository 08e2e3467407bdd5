// How many calls are under way, and how many there have been.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

namespace parallel::scheduler {

// Threads: any.
class CallCounter {
 public:
  class Call {
   public:
    // `counter` may be null: then nothing is counted.
    explicit Call(std::shared_ptr<CallCounter> counter) noexcept : counter_(std::move(counter)) {
      if (counter_ != nullptr)
        ++counter_->underWay_;
    }
    ~Call() {
      if (counter_ == nullptr)
        return;
      ++counter_->finished_;
      --counter_->underWay_;
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

   private:
    std::shared_ptr<CallCounter> counter_;
  };

  std::uint64_t underWay() const noexcept { return underWay_; }
  std::uint64_t finished() const noexcept { return finished_; }

 private:
  std::atomic<std::uint64_t> underWay_{0};
  std::atomic<std::uint64_t> finished_{0};
};

}  // namespace parallel::scheduler
