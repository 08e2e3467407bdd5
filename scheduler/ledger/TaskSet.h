// A set of task numbers, kept as spans: a million consecutive tasks cost as much as one.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "scheduler/ledger/TaskSpan.h"

namespace parallel::scheduler::ledger {

// Adjacent spans are one. An operation costs the logarithm of the number of spans, and a step for each span it meets.
// Threads: as a standard container.
class TaskSet {
 public:
  // Is told how the spans change. A span is known by its last task, so that taking from the front of one is one change.
  class Observer {
   public:
    virtual void erased(TaskNumber last) = 0;
    virtual void put(TaskSpan span) = 0;  // new, or in the place of the one with the same last task

   protected:
    ~Observer() = default;
  };

  TaskSet() = default;
  explicit TaskSet(TaskSpan span) { add(span); }

  void add(TaskSpan span, Observer* observer = nullptr);
  void remove(TaskSpan span, Observer* observer = nullptr);
  void add(const TaskSet& other);
  void remove(const TaskSet& other);

  bool empty() const { return spans_.empty(); }
  std::uint64_t count() const { return count_; }
  bool contains(TaskNumber task) const;
  TaskNumber front() const { return spans_.begin()->second; }  // of a set that is not empty

  // Its spans, or the parts of them within `bounds`, in ascending order.
  std::vector<TaskSpan> spans() const;
  std::vector<TaskSpan> within(TaskSpan bounds) const;
  TaskSet intersection(const TaskSet& other) const;

  bool operator==(const TaskSet&) const = default;

 private:
  using Spans = std::map<TaskNumber, TaskNumber>;  // the last task of each span to its first

  Spans spans_;
  std::uint64_t count_ = 0;
};

}  // namespace parallel::scheduler::ledger
