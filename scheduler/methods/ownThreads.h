// Who may let go of the last share of a keeper of books: its own threads cannot, since they would wait for themselves.
//
// A thread of the commits that has resumed a call may hold that call's last share, and with it the service's.
#pragma once

#include <thread>

namespace parallel::scheduler::methods {

// This thread is one of a keeper's, from now on to its end.
void markOwnThread() noexcept;
bool isOwnThread() noexcept;

// Deletes; on a thread of a keeper by another one.
struct DeleteElsewhere {
  template <class Object>
  void operator()(Object* object) const {
    if (isOwnThread())
      std::thread([object] { delete object; }).detach();
    else
      delete object;
  }
};

}  // namespace parallel::scheduler::methods
