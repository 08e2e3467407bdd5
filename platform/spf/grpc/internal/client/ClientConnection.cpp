#include "platform/spf/grpc/internal/client/ClientConnection.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "platform/spf/core/errors.h"
#include "platform/spf/grpc/internal/wire/FrameOutlet.h"

namespace agent::spf::grpc_transport::internal {

using parallel::threads::MutexLock;

namespace {

// Requests up to this size are written on the thread that calls invoke(): one hand-off less, and no time to speak of.
constexpr long kDirectBytes = 64L << 10;
// Requests up to this size are written without waiting for the queue to be served.
constexpr long kUnhinderedBytes = static_cast<long>(FrameOutlet::kCopyBytes);
// Streams kept open for later calls.
constexpr std::size_t kFreeStreams = 32;

}  // namespace

ClientConnection::ClientConnection(std::shared_ptr<grpc::Channel> channel, std::string address,
                                   const ConnectOptions& options, std::unique_ptr<UnixSocket> socket)
    : channel_(std::move(channel)),
      address_(std::move(address)),
      socket_(std::move(socket)),
      options_(options),
      stub_(channel_),
      onDisconnect_(options.onDisconnect) {
  options_.poll = nullptr;  // what callbacks hold is not to live as long as this
  options_.onDisconnect = nullptr;
  options_.credentials.reset();  // nor are secrets
}

void ClientConnection::start() {
  queueThread_ = std::thread([self = shared_from_this()] { self->queue_.serve(); });
  if (socket_ != nullptr)
    startLifeCheck();
  newStream(ClientStream::Purpose::watch);
}

void ClientConnection::startLifeCheck() {
  LifeCheck::Options check;
  check.interval = options_.keepaliveInterval;
  check.timeout = options_.keepaliveTimeout;
  check.ask = [self = weak_from_this()] {
    if (const auto connection = self.lock())
      connection->askForLife({});
  };
  check.silent = [self = weak_from_this()] {
    const auto connection = self.lock();
    if (connection == nullptr)
      return;
    connection->lose(connection->silence(""));
    connection->breakOffStreams(connection->silence(" during a call"));
    connection->cutOff();
  };
  lifeCheck_ = std::make_shared<LifeCheck>(queue(), std::move(check));
  lifeCheck_->start();
}

// Of a method that no service has.
void ClientConnection::askForLife(core::CompletionHandler handler) {
  const core::GenericPayload nothing(std::make_shared<std::string>());
  invoke(std::make_shared<ClientCall>(core::CallTag{}, "", std::move(handler),
                                      core::internal::CallRequest("", nothing, 0)),
         ClientStream::Purpose::lifeCheck);
}

// gRPC ends no operation on a socket that takes nothing any more, unless the socket ends.
void ClientConnection::cutOff() noexcept {
  if (socket_ != nullptr)
    socket_->cutOff();
}

std::exception_ptr ClientConnection::silence(const std::string& during) const {
  const auto time = options_.keepaliveInterval + options_.keepaliveTimeout;
  return std::make_exception_ptr(Timeout("The service at " + address_ + " has given no sign of life for " +
                                         std::to_string(time.count()) + " ms" + during + "."));
}

// Null when the connection is dead. A stream is counted before it uses the queue, which stays until all have gone, and
// can be found by close() only when it is open.
std::shared_ptr<ClientStream> ClientConnection::newStream(ClientStream::Purpose purpose) {
  {
    const MutexLock lock(mutex_);
    if (dead_ != nullptr)
      return nullptr;
    ++openCount_;
  }
  auto stream = std::make_shared<ClientStream>(shared_from_this(), purpose);
  stream->open();
  {
    const MutexLock lock(mutex_);
    std::erase_if(open_, [](const auto& weak) { return weak.expired(); });
    open_.push_back(stream);
    if (!closed_)
      return stream;
  }
  stream->breakOff(nullptr);
  return nullptr;
}

// Null when the connection is dead.
std::shared_ptr<ClientStream> ClientConnection::freeStream(ClientStream::Purpose purpose) {
  {
    const MutexLock lock(mutex_);
    if (dead_ != nullptr)
      return nullptr;
    if (auto kept = takeKept(purpose))
      return kept;
  }
  return newStream(purpose);
}

std::shared_ptr<ClientStream> ClientConnection::takeKept(ClientStream::Purpose purpose) {
  if (purpose == ClientStream::Purpose::lifeCheck)
    return std::exchange(freeForLifeCheck_, nullptr);
  if (free_.empty())
    return nullptr;
  auto stream = std::move(free_.back());
  free_.pop_back();
  return stream;
}

std::vector<std::shared_ptr<ClientStream>> ClientConnection::takeAllKept() {
  auto kept = std::exchange(free_, {});
  if (freeForLifeCheck_ != nullptr)
    kept.push_back(std::exchange(freeForLifeCheck_, nullptr));
  return kept;
}

std::exception_ptr ClientConnection::deadReason() {
  const MutexLock lock(mutex_);
  return dead_;
}

void ClientConnection::runBlocking(std::function<void()> task) {
  try {
    workers_.run(std::move(task));
  } catch (const std::system_error& e) {
    throw FrameworkError(std::string("No thread can be had for a call: ") + e.what());
  }
}

void ClientConnection::runElsewhere(const std::function<void()>& task) {
  try {
    workers_.run(task);
  } catch (const std::system_error&) {
    task();
  }
}

// The watch and the free streams wait for nothing that is soon to come.
bool ClientConnection::isBusy() {
  const MutexLock lock(mutex_);
  return closed_ || dead_ != nullptr || openCount_ > 1 + free_.size() + (freeForLifeCheck_ != nullptr ? 1 : 0);
}

void ClientConnection::invoke(const std::shared_ptr<ClientCall>& call, ClientStream::Purpose purpose) {
  std::shared_ptr<ClientStream> stream;
  do {
    stream = freeStream(purpose);
    if (stream == nullptr)
      return runBlocking([call, reason = deadReason()] { call->handler.fail(reason); });
  } while (!stream->take(call));
  if (call->request.size() <= kDirectBytes)
    uploadHere(*stream, call);
  else
    uploadOnWorker(stream, call);
}

void ClientConnection::uploadHere(ClientStream& stream, const std::shared_ptr<ClientCall>& call) {
  const bool mayServe = call->handler.caller().waits && call->request.size() <= kUnhinderedBytes;
  if (!mayServe)
    queue_.callThread();
  stream.upload(call);
  if (mayServe)
    queue_.serveHere([&] { return call->isAnswered(); });
}

void ClientConnection::uploadOnWorker(const std::shared_ptr<ClientStream>& stream,
                                      const std::shared_ptr<ClientCall>& call) {
  queue_.callThread();
  try {
    runBlocking([stream, call] { stream->upload(call); });
  } catch (const FrameworkError&) {
    stream->breakOff(nullptr);
    throw;
  }
}

void ClientConnection::release(const std::shared_ptr<ClientStream>& stream) {
  {
    const MutexLock lock(mutex_);
    if (dead_ == nullptr && stream->purpose() == ClientStream::Purpose::lifeCheck) {
      freeForLifeCheck_ = stream;
      return;
    }
    if (dead_ == nullptr && free_.size() < kFreeStreams) {
      free_.push_back(stream);
      return;
    }
  }
  stream->breakOff(nullptr);
}

void ClientConnection::retire(const ClientStream& stream) {
  const MutexLock lock(mutex_);
  std::erase_if(free_, [&](const auto& candidate) { return candidate.get() == &stream; });
  if (freeForLifeCheck_.get() == &stream)
    freeForLifeCheck_ = nullptr;
}

void ClientConnection::lose(const std::exception_ptr& reason) {
  std::vector<std::shared_ptr<ClientStream>> unused;
  std::function<void()> onDisconnect;
  {
    const MutexLock lock(mutex_);
    if (dead_ != nullptr)
      return;
    dead_ = reason;
    unused = takeAllKept();
    onDisconnect.swap(onDisconnect_);
  }
  for (const auto& stream : unused)
    stream->breakOff(nullptr);
  if (!onDisconnect)
    return;
  runElsewhere([self = shared_from_this(), onDisconnect] { onDisconnect(); });
}

void ClientConnection::streamGone() {
  bool last = false;
  {
    const MutexLock lock(mutex_);
    --openCount_;
    last = closed_ && openCount_ == 0;
  }
  if (last)
    queue().Shutdown();
}

bool ClientConnection::onOwnThread() const {
  return queueThread_.get_id() == std::this_thread::get_id() || workers_.isOwnThread();
}

void ClientConnection::breakOffStreams(const std::exception_ptr& reason) {
  std::vector<std::weak_ptr<ClientStream>> streams;
  {
    const MutexLock lock(mutex_);
    streams.swap(open_);
  }
  for (const auto& weak : streams)
    if (const auto stream = weak.lock())
      stream->breakOff(reason);
}

void ClientConnection::close() {
  const auto reason = std::make_exception_ptr(Terminated("The connection to " + address_ + " was closed."));
  std::vector<std::shared_ptr<ClientStream>> unused;
  {
    const MutexLock lock(mutex_);
    if (std::exchange(closed_, true))
      return;
    ++openCount_;  // this function's own, so that the queue stays until here all has been cancelled
    if (dead_ == nullptr)
      dead_ = reason;
    onDisconnect_ = nullptr;  // this is no disconnect
    unused = takeAllKept();
  }
  if (lifeCheck_ != nullptr)
    lifeCheck_->stop();
  breakOffStreams(reason);
  cutOff();
  unused.clear();
  queue_.callThread();
  streamGone();
}

void ClientConnection::closeAndWait() {
  close();
  if (onOwnThread())
    return queueThread_.detach();
  queueThread_.join();
  workers_.join();
}

}  // namespace agent::spf::grpc_transport::internal
