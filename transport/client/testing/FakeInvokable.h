// A service for tests that answers when and how the test says.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <istream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/spf/core/ExportedDataSource.h"
#include "platform/spf/core/ImportedDataSource.h"
#include "platform/spf/core/Invokable.h"
#include "platform/threads/Mutex.h"
#include "transport/data/testing/RecordingByteSink.h"

namespace parallel::spf::transport::testing {

// A reply that is there already.
class FakeReply : public agent::spf::core::ImportedDataSource {
 public:
  explicit FakeReply(const Bytes& bytes) : text_(reinterpret_cast<const char*>(bytes.data()), bytes.size()) {}
  std::unique_ptr<std::istream> getImportedIstream() override {
    ++istreams;
    return std::make_unique<std::istringstream>(text_);
  }

  int istreams = 0;

 private:
  std::string text_;
};

inline agent::spf::core::GenericPayload replyPayload(std::shared_ptr<agent::spf::core::ImportedDataSource> reply) {
  return agent::spf::core::GenericPayload(std::move(reply));
}

// One call as it reached the service; the test completes it through the handler.
struct ReceivedCall {
  agent::spf::core::CallTag tag;
  std::string method;
  agent::spf::core::CompletionHandler handler;
  agent::spf::core::GenericPayload request;
  int flags = -1;

  // What the request's writer writes.
  std::string exportedBytes() const {
    const auto source = request.getValueAsPointer<agent::spf::core::ExportedDataSource>(0);
    std::ostringstream out;
    (*source->writer())(out);
    return out.str();
  }
};

class FakeInvokable : public agent::spf::core::Invokable {
 public:
  FakeInvokable() = default;
  // `onInvoke` runs inside invoke(), before the call is kept; what it throws leaves invoke().
  explicit FakeInvokable(std::function<void(ReceivedCall&)> onInvoke) : onInvoke_(std::move(onInvoke)) {}

  void invoke(agent::spf::core::CallTag tag, const std::string& method, agent::spf::core::CompletionHandler&& handler,
              agent::spf::core::GenericPayload&& request, int flags) override {
    ReceivedCall call{tag, method, std::move(handler), std::move(request), flags};
    if (onInvoke_)
      onInvoke_(call);
    const threads::MutexLock lock(mutex_);
    calls_.push_back(std::move(call));
    arrived_.notifyAll();
  }

  // The next call, waiting for it.
  ReceivedCall take() {
    threads::MutexLock lock(mutex_);
    if (!arrived_.waitFor(lock, std::chrono::seconds(30), [this]() ZKS_REQUIRES(mutex_) { return !calls_.empty(); }))
      throw std::runtime_error("no call arrived");
    ReceivedCall call = std::move(calls_.front());
    calls_.erase(calls_.begin());
    return call;
  }

  std::size_t waiting() const {
    const threads::MutexLock lock(mutex_);
    return calls_.size();
  }

 private:
  const std::function<void(ReceivedCall&)> onInvoke_;
  mutable threads::Mutex mutex_;
  threads::ConditionVariable arrived_;
  std::vector<ReceivedCall> calls_ ZKS_GUARDED_BY(mutex_);
};

}  // namespace parallel::spf::transport::testing
