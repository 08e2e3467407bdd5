// A completion handler that fulfils a promise.
#pragma once

#include <future>
#include <memory>
#include <type_traits>
#include <utility>

#include "platform/spf/core/CompletionHandler.h"

namespace agent::spf::core {

// For T = std::shared_ptr<X> the promise gets the payload's first value as an X; for void it is only set. A payload
// without that value stores the FrameworkError of getValueAsPointer; the error callback stores its exception as it is.
template <class T>
CompletionHandler promiseCompletingHandler(std::shared_ptr<std::promise<T>> promise, Caller caller = {}) {
  auto success = [promise](GenericPayload payload) {
    if constexpr (std::is_void_v<T>) {
      promise->set_value();
    } else {
      try {
        promise->set_value(payload.getValueAsPointer<typename T::element_type>(0));
      } catch (...) {
        promise->set_exception(std::current_exception());
      }
    }
  };
  auto error = [promise](std::exception_ptr failure) { promise->set_exception(std::move(failure)); };
  return CompletionHandler(std::move(success), std::move(error), {}, std::move(caller));
}

}  // namespace agent::spf::core
