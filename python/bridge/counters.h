// How many native things that belong to Python objects are alive: for tests that look for leaks.
#pragma once

#include <atomic>

namespace zks::bridge {

struct Counters {
  std::atomic<long> borrowed{0};  // host arrays over memory of Python objects
  std::atomic<long> exported{0};  // NumPy arrays over memory of host arrays
  std::atomic<long> handles{0};   // handles of host objects
  std::atomic<long> sessions{0};  // open ones
  std::atomic<long> replies{0};
};

inline Counters& counters() {
  static Counters instance;
  return instance;
}

// Counts its owner while it lives.
class Counted {
 public:
  explicit Counted(std::atomic<long>& count) noexcept : count_(&count) { ++*count_; }
  ~Counted() { --*count_; }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;

 private:
  std::atomic<long>* count_;
};

}  // namespace zks::bridge
