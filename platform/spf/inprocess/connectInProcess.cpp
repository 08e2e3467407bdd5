#include "platform/spf/inprocess/connectInProcess.h"

#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/spf/core/errors.h"
#include "platform/spf/inprocess/internal/EmbeddedCall.h"

namespace agent::spf::inprocess {

namespace {

using internal::EmbeddedCall;

// Shared with the tasks, so that the caller may let go of the Invokable on one of their threads.
struct Embedded {
  std::shared_ptr<const core::Service> service;
  core::internal::WorkerThreads workers;
  std::mutex mutex;
  std::vector<std::weak_ptr<EmbeddedCall>> calls;  // guarded by mutex

  void add(const std::shared_ptr<EmbeddedCall>& call) {
    const std::lock_guard lock(mutex);
    std::erase_if(calls, [](const auto& weak) { return weak.expired(); });
    calls.push_back(call);
  }

  std::vector<std::weak_ptr<EmbeddedCall>> takeCalls() {
    const std::lock_guard lock(mutex);
    return std::exchange(calls, {});
  }
};

class Connection : public core::Invokable {
 public:
  explicit Connection(std::shared_ptr<const core::Service> service) : embedded_(std::make_shared<Embedded>()) {
    embedded_->service = std::move(service);
  }

  ~Connection() override {
    const auto reason = std::make_exception_ptr(Terminated("The connection to the embedded service was closed."));
    for (const auto& weak : embedded_->takeCalls())
      if (const auto call = weak.lock())
        call->abort(reason);
    embedded_->workers.join();
  }

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void invoke(core::CallTag /*tag*/, const std::string& method, core::CompletionHandler&& handler,
              core::GenericPayload&& request, int flags) override {
    core::internal::CallRequest checked(method, request, flags);
    const auto call =
        std::make_shared<EmbeddedCall>(method, std::move(handler), std::move(checked), embedded_->workers);
    embedded_->add(call);
    try {
      embedded_->workers.run([embedded = embedded_, call] { call->serve(*embedded->service); });
      embedded_->workers.run([embedded = embedded_, call] { call->upload(); });
    } catch (const std::system_error& e) {
      call->abort(std::make_exception_ptr(FrameworkError(std::string("No thread can be had for a call: ") + e.what())));
    }
  }

 private:
  std::shared_ptr<Embedded> embedded_;
};

}  // namespace

std::shared_ptr<core::Invokable> connectInProcess(std::shared_ptr<const core::Service> service) {
  return std::make_shared<Connection>(std::move(service));
}

}  // namespace agent::spf::inprocess
