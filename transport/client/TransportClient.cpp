#include "transport/client/TransportClient.h"

#include <chrono>
#include <future>
#include <istream>
#include <mutex>
#include <stop_token>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/interrupt/throwIfInterrupted.h"
#include "platform/spf/core/ExportedDataSource.h"
#include "platform/spf/core/ImportedDataSource.h"
#include "platform/spf/core/promiseCompletingHandler.h"
#include "transport/getLogger.h"
#include "transport/streams/SPFByteStreamAdaptor.h"
#include "transport/streams/createByteStream.h"

namespace parallel::spf::transport {

using agent::spf::core::CallTag;
using agent::spf::core::CompletionHandler;
using agent::spf::core::ExportedDataSource;
using agent::spf::core::GenericPayload;
using agent::spf::core::ImportedDataSource;
using agent::spf::core::Invokable;
using agent::spf::core::promiseCompletingHandler;

namespace {

constexpr std::chrono::milliseconds kInterruptPollInterval(100);

using Reply = std::shared_ptr<ImportedDataSource>;

void logMethodName(const std::string& method) {
  FOUNDATION_LOG(getLogger(), 2) << " methodName=" << method;
}

GenericPayload exportedPayload(InputPayload payload) {
  return GenericPayload(std::make_shared<ExportedDataSource>(createByteStream(std::move(payload))));
}

// Gives the call up when the caller leaves before its outcome is there. After that it has no effect.
class GiveUpOnExit {
 public:
  GiveUpOnExit() = default;
  ~GiveUpOnExit() { source_.request_stop(); }
  GiveUpOnExit(const GiveUpOnExit&) = delete;
  GiveUpOnExit& operator=(const GiveUpOnExit&) = delete;

  std::stop_token token() const { return source_.get_token(); }

 private:
  std::stop_source source_;
};

// Waits without a limit; on an interpreter thread a pending interrupt ends the wait with the host's exception.
void waitForReply(const std::future<Reply>& reply) {
  while (reply.wait_until(std::chrono::steady_clock::now() + kInterruptPollInterval) != std::future_status::ready)
    throwIfInterrupted();
}

OutputPayload readReply(Reply reply) {
  std::shared_ptr<std::istream> input = reply->getImportedIstream();
  reply.reset();
  return OutputPayload::deserialize(std::make_unique<SPFByteStreamAdaptor>(std::move(input)));
}

}  // namespace

TransportClient::TransportClient(std::shared_ptr<ConnectionRecord> record) : record_(std::move(record)) {}

std::shared_ptr<Invokable> TransportClient::getInvokable() const {
  std::shared_ptr<Invokable> invokable;
  {
    const std::lock_guard lock(record_->mutex);
    invokable = record_->invokable;
  }
  if (invokable == nullptr) {
    FOUNDATION_LOG(getLogger(), 8) << "TransportClient tried to use a stale Invokable";
    throw Exception<cluster::ZKSUnreachable>();
  }
  return invokable;
}

OutputPayload TransportClient::invokeMethod(std::string method, InputPayload&& payload) const {
  // First of all, so that the caller's payload is empty whatever happens.
  InputPayload taken = std::move(payload);
  const std::string name = std::move(method);
  logMethodName(name);
  std::shared_ptr<Invokable> invokable = getInvokable();
  GenericPayload request = exportedPayload(std::move(taken));

  // Shared with the handler, which may outlive an interrupted wait.
  auto promise = std::make_shared<std::promise<Reply>>();
  std::future<Reply> reply = promise->get_future();
  const GiveUpOnExit giveUp;
  invokable->invoke(CallTag{}, name, promiseCompletingHandler(promise, {.givenUp = giveUp.token(), .waits = true}),
                    std::move(request), 0);
  invokable.reset();
  promise.reset();  // now the handler's alone: dropped uncalled, it breaks the promise and so ends the wait

  waitForReply(reply);
  return readReply(reply.get());
}

void TransportClient::invokeMethod(std::string method, const std::string& bytes) const {
  const std::string name = std::move(method);
  logMethodName(name);
  std::shared_ptr<Invokable> invokable = getInvokable();
  auto promise = std::make_shared<std::promise<void>>();
  std::future<void> answered = promise->get_future();
  invokable->invoke(CallTag{}, name, promiseCompletingHandler(promise, {.waits = true}),
                    GenericPayload(std::make_shared<std::string>(bytes)), 0);
  invokable.reset();
  promise.reset();
  answered.get();
}

void TransportClient::invokeMethodAsync(std::string method, InputPayload&& payload, CompletionHandler&& handler) const {
  InputPayload taken = std::move(payload);
  const std::string name = std::move(method);
  logMethodName(name);
  const std::shared_ptr<Invokable> invokable = getInvokable();
  CompletionHandler ownHandler = std::move(handler);  // before the request is made, which may throw
  GenericPayload request = exportedPayload(std::move(taken));
  invokable->invoke(CallTag{}, name, std::move(ownHandler), std::move(request), 0);
}

}  // namespace parallel::spf::transport
