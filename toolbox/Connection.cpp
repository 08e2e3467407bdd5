#include "toolbox/Connection.h"

#include <exception>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/interrupt/throwIfInterrupted.h"
#include "platform/spf/core/Closable.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/grpc/connect.h"
#include "platform/spf/security/CredentialsDirectory.h"
#include "toolbox/Address.h"
#include "transport/client/ConnectionRecord.h"
#include "transport/client/expandSPFErrors.h"

namespace parallel::toolbox {

using agent::spf::core::Invokable;

// A dead connection is found by a thread of the framework, which must not be the one that destroys it: there it would
// wait for itself. So it is put aside until the owner lets go.
struct Connection::Record : spf::transport::ConnectionRecord {
  bool dead = false;                   // guarded by mutex
  std::shared_ptr<Invokable> retired;  // guarded by mutex

  void fill(std::shared_ptr<Invokable> connected) {
    const std::lock_guard lock(mutex);
    (dead ? retired : invokable) = std::move(connected);
  }

  void markDead() {
    const std::lock_guard lock(mutex);
    dead = true;
    if (invokable != nullptr)
      retired = std::move(invokable);
    invokable = nullptr;
  }

  void release() {
    std::shared_ptr<Invokable> live;
    std::shared_ptr<Invokable> old;
    {
      const std::lock_guard lock(mutex);
      dead = true;
      live = std::move(invokable);
      old = std::move(retired);
      invokable = nullptr;
      retired = nullptr;
    }
    // Outside the lock. A call under way holds the connection, so letting go alone would not end the call.
    closeIfPossible(live.get());
    closeIfPossible(old.get());
  }

  static void closeIfPossible(Invokable* connection) {
    if (auto* closable = dynamic_cast<agent::spf::core::Closable*>(connection))
      closable->close();
  }
};

namespace {

// Where the credentials for the address are; empty when it is to be called without.
std::filesystem::path credentialsDirectory(const std::string& address, const ConnectionOptions& options) {
  if (!options.tls.empty() || options.insecure || address.starts_with("unix:"))
    return options.tls;
  std::filesystem::path directory = agent::spf::security::defaultDirectory();
  std::error_code ignored;
  if (directory.empty() || !std::filesystem::exists(directory, ignored))
    throw Exception<NoCredentials>(address, directory.empty() ? "the default place" : directory.string(),
                                   options.tlsAdvice, options.insecureAdvice);
  return directory;
}

}  // namespace

Connection Connection::connect(std::string_view address, std::chrono::milliseconds timeout) {
  ConnectionOptions options;
  options.timeout = timeout;
  return connect(address, options);
}

Connection Connection::connect(std::string_view address, const ConnectionOptions& wanted) {
  const std::string resolved = resolveAddress(address);
  const std::filesystem::path directory = credentialsDirectory(resolved, wanted);
  auto record = std::make_shared<Record>();
  agent::spf::grpc_transport::ConnectOptions options;
  options.connectTimeout = wanted.timeout;
  options.plainText = wanted.insecure;
  options.credentialsAdvice = wanted.tlsAdvice;
  options.plainTextAdvice = wanted.insecureAdvice;
  options.idleTimeout = wanted.idleTimeout;
  options.replyLimit = wanted.replyLimit;
  options.poll = throwIfInterrupted;
  options.onDisconnect = [watched = std::weak_ptr<Record>(record)] {
    if (const auto found = watched.lock())
      found->markDead();
  };
  try {
    if (!directory.empty())
      options.credentials = agent::spf::security::readClientCredentials(directory);
    record->fill(agent::spf::grpc_transport::connect(resolved, options));
  } catch (const agent::spf::Timeout&) {
    std::throw_with_nested(
        Exception<NoAnswer>("the connection attempt", resolved));  // the expansion says "Timeout" only
  } catch (...) {
    spf::transport::throwExpandedSPFErrors();
  }
  return Connection(std::move(record), resolved, wanted.replyLimit);
}

Connection::Connection(std::shared_ptr<Invokable> invokable, std::string name)
    : Connection(std::make_shared<Record>(), std::move(name)) {
  record_->fill(std::move(invokable));
}

Connection::Connection(std::shared_ptr<Record> record, std::string name,
                       std::optional<agent::spf::core::ByteLimit> replyLimit)
    : record_(std::move(record)), name_(std::move(name)), replyLimit_(std::move(replyLimit)) {}

Connection::Connection(Connection&&) noexcept = default;

Connection& Connection::operator=(Connection&& other) noexcept {
  if (this != &other) {
    close();
    record_ = std::move(other.record_);
    name_ = std::move(other.name_);
    replyLimit_ = std::move(other.replyLimit_);
  }
  return *this;
}

Connection::~Connection() {
  close();
}

void Connection::close() noexcept {
  if (record_ != nullptr)
    record_->release();
}

bool Connection::isOpen() const {
  const std::lock_guard lock(record_->mutex);
  return record_->invokable != nullptr;
}

spf::transport::TransportClient Connection::client() const {
  return spf::transport::TransportClient(record_);
}

}  // namespace parallel::toolbox
