#include "platform/spf/inprocess/connectInProcess.h"

#include <system_error>
#include <utility>
#include <vector>

#include "platform/spf/core/Closable.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/core/internal/makeError.h"
#include "platform/spf/inprocess/internal/EmbeddedCall.h"
#include "platform/threads/Mutex.h"

namespace agent::spf::inprocess {

namespace {

using internal::EmbeddedCall;

// Shared with the tasks, so that the caller may let go of the Invokable on one of their threads.
struct Embedded {
  std::shared_ptr<const core::Service> service;
  core::internal::WorkerThreads workers;
  parallel::threads::Mutex mutex;
  std::vector<std::weak_ptr<EmbeddedCall>> calls ZKS_GUARDED_BY(mutex);
  bool closed ZKS_GUARDED_BY(mutex) = false;

  // False, and not added, once closed.
  bool add(const std::shared_ptr<EmbeddedCall>& call) {
    const parallel::threads::MutexLock lock(mutex);
    if (closed)
      return false;
    std::erase_if(calls, [](const auto& weak) { return weak.expired(); });
    calls.push_back(call);
    return true;
  }

  std::vector<std::weak_ptr<EmbeddedCall>> close() noexcept {
    const parallel::threads::MutexLock lock(mutex);
    closed = true;
    return std::exchange(calls, {});
  }
};

std::exception_ptr connectionClosed() noexcept {
  return core::internal::makeError<Terminated>([] { return "The connection to the embedded service was closed."; });
}

class Connection : public core::Invokable, public core::Closable {
 public:
  explicit Connection(std::shared_ptr<const core::Service> service) : embedded_(std::make_shared<Embedded>()) {
    embedded_->service = std::move(service);
  }

  ~Connection() override {
    closeCalls();
    embedded_->workers.join();
  }

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void invoke(core::CallTag /*tag*/, const std::string& method, core::CompletionHandler&& handler,
              core::GenericPayload&& request, int flags) override {
    core::internal::CallRequest checked(method, request, flags);
    const std::shared_ptr<core::internal::WorkerThreads> workers(embedded_, &embedded_->workers);
    const auto call = std::make_shared<EmbeddedCall>(method, std::move(handler), std::move(checked), workers);
    if (!embedded_->add(call))
      return call->fail(connectionClosed());
    call->obeyStopRequests();
    try {
      embedded_->workers.run([embedded = embedded_, call] { call->serve(*embedded->service); });
      embedded_->workers.run([embedded = embedded_, call] { call->upload(); });
    } catch (const std::system_error& e) {
      call->fail(core::internal::makeError<FrameworkError>(
          [&e] { return std::string("No thread can be had for a call: ") + e.what(); }));
    } catch (...) {  // half of the call may be under way: its handler gets the error
      call->fail(std::current_exception());
    }
  }

  void close() noexcept override { closeCalls(); }

 private:
  void closeCalls() noexcept {
    for (const auto& weak : embedded_->close())
      if (const auto call = weak.lock())
        call->fail(connectionClosed());
  }

  std::shared_ptr<Embedded> embedded_;
};

}  // namespace

std::shared_ptr<core::Invokable> connectInProcess(std::shared_ptr<const core::Service> service) {
  return std::make_shared<Connection>(std::move(service));
}

}  // namespace agent::spf::inprocess
