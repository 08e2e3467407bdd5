// The processes that this one has started, until it has waited for them. Every other child is an orphan that it adopted
// (Leftovers.h), and may be waited for by anybody.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>

#include "execution/AttemptMark.h"
#include "platform/threads/Mutex.h"

namespace parallel::execution {

// Threads: any.
class Children {
 public:
  static Children& ofThisProcess();
  Children(const Children&) = delete;
  Children& operator=(const Children&) = delete;

  // While it lives a process is being started that cannot be told from an orphan yet.
  class Start {
   public:
    explicit Start(Children& children);
    ~Start();
    Start(const Start&) = delete;
    Start& operator=(const Start&) = delete;

    void succeeded(pid_t pid, const std::optional<AttemptMark>& mark);

   private:
    Children& children_;
    std::uint64_t ticks_;
  };

  // Waits for the end of one that was started. Its status; nothing when it cannot be waited for.
  std::optional<int> waitFor(pid_t pid, struct rusage& usage) noexcept;

  // What is known of the tasks that run.
  class Running {
   public:
    bool bears(const AttemptMark& mark) const;
    // Whether a process that started at that tick may have come from one of them.
    bool reachesBackTo(std::uint64_t ticks) const;

   private:
    friend class Children;
    explicit Running(const Children& children) : children_(children) {}
    const Children& children_;
  };

  // Visits the adopted children; none while a process is being started. No other is started until all have been seen.
  void forEachOrphan(const std::function<void(pid_t pid, const Running& running)>& visit);

 private:
  struct Child {
    std::uint64_t ticks = 0;
    std::optional<AttemptMark> mark;
  };

  Children() = default;

  mutable threads::Mutex mutex_;
  int starting_ ZKS_GUARDED_BY(mutex_) = 0;
  std::map<pid_t, Child> children_ ZKS_GUARDED_BY(mutex_);
};

}  // namespace parallel::execution
