// The framework itself as a contender.
#include <atomic>
#include <cstring>
#include <functional>
#include <future>
#include <stdexcept>
#include <thread>

#include "bench/spf_peers_internal.h"
#include "platform/spf/core/ExportedDataSource.h"
#include "platform/spf/core/ImportedDataSource.h"
#include "platform/spf/core/Service.h"
#include "platform/spf/core/promiseCompletingHandler.h"
#include "platform/spf/grpc/Server.h"
#include "platform/spf/grpc/connect.h"

namespace bench {

namespace {

using namespace agent::spf;
using Source = core::ExportedDataSource;

void echo(core::ServerCall& call) {
  thread_local std::vector<char> part(std::size_t{1} << 20);
  while (call.request().read(part.data(), static_cast<long>(part.size())), call.request().gcount() > 0)
    call.reply().write(part.data(), call.request().gcount());
}

class FrameworkPeer : public Peer {
 public:
  explicit FrameworkPeer(const std::string& address)
      : client_(grpc_transport::connect(withoutFamily(address), clientOptions(address))) {}

  void sink(const std::vector<char>& payload) override {
    char byte = 0;
    open("sink", sourceOf(payload))->read(&byte, 1);
  }

  void echo(const std::vector<char>& payload, std::vector<char>& back) override {
    const auto reply = open("echo", sourceOf(payload));
    reply->read(back.data(), static_cast<long>(back.size()));
    if (reply->gcount() != static_cast<long>(payload.size()) || reply->get() != EOF)
      throw std::runtime_error("short echo");
  }

  void ping() override {
    const auto reply = open("ping", sourceOf(ping_));
    char bytes[kPingBytes];
    reply->read(bytes, kPingBytes);
    if (reply->gcount() != static_cast<long>(kPingBytes) || reply->get() != EOF)
      throw std::runtime_error("short ping");
  }

  // Each answer starts the next call, on the thread that it came on.
  void pings(int calls, int inFlight) override {
    std::atomic<int> toStart{calls};
    std::atomic<int> unanswered{calls};
    std::promise<void> done;
    std::function<void()> start = [&] {
      if (toStart.fetch_sub(1) <= 0)
        return;
      auto answered = [&](const core::GenericPayload& reply) {
        char bytes[kPingBytes];
        reply.getValueAsPointer<core::ImportedDataSource>(0)->getImportedIstream()->read(bytes, kPingBytes);
        if (unanswered.fetch_sub(1) == 1)
          return done.set_value();
        start();
      };
      const auto failed = [&](const std::exception_ptr& error) { done.set_exception(error); };
      client_->invoke({}, "ping", core::CompletionHandler(answered, failed), core::GenericPayload(sourceOf(ping_)), 0);
    };
    for (int i = 0; i < inFlight; ++i)
      start();
    done.get_future().get();
  }

 private:
  static grpc_transport::ConnectOptions clientOptions(const std::string& address) {
    grpc_transport::ConnectOptions options;
    options.credentials = clientCredentials(address);
    options.plainText = !options.credentials;
    return options;
  }

  static std::shared_ptr<Source> sourceOf(const std::vector<char>& payload) {
    auto writer = std::make_shared<Source::Writer>(
        [&payload](std::ostream& out) { out.write(payload.data(), static_cast<long>(payload.size())); });
    return std::make_shared<Source>(std::move(writer), static_cast<long>(payload.size()));
  }

  std::unique_ptr<std::istream> open(const std::string& method, std::shared_ptr<Source> request) {
    using Reply = std::shared_ptr<core::ImportedDataSource>;
    auto promise = std::make_shared<std::promise<Reply>>();
    auto future = promise->get_future();
    client_->invoke({}, method, core::promiseCompletingHandler<Reply>(std::move(promise), {.waits = true}),
                    core::GenericPayload(std::move(request)), 0);
    return future.get()->getImportedIstream();
  }

  std::shared_ptr<core::Invokable> client_;
  std::vector<char> ping_ = std::vector<char>(kPingBytes, 'p');
};

}  // namespace

void serveSpf(const std::string& address) {
  std::vector<char> store(kStoreBytes, 1);
  auto service = std::make_shared<core::Service>();
  service->add("echo", echo);
  service->add("ping", echo);
  service->add("sink", [&store](core::ServerCall& call) {
    call.request().read(store.data(), static_cast<long>(store.size()));
    call.reply().put('k');
  });
  grpc_transport::ServerOptions options;
  options.address = withoutFamily(address);
  options.credentials = serverCredentials(address);
  options.plainText = !options.credentials;
  const grpc_transport::Server server(service, options);
  announceAddress(familyOf(address) + server.address());
  waitForEndOfInput();
}

std::unique_ptr<Peer> connectSpf(const std::string& address) {
  return std::make_unique<FrameworkPeer>(address);
}

}  // namespace bench
