#include "platform/spf/grpc/internal/server/ServerStream.h"

#include <utility>

#include "platform/spf/grpc/internal/endpoint/peerText.h"
#include "platform/spf/grpc/internal/server/Conversation.h"
#include "platform/spf/grpc/internal/server/ServerCore.h"
#include "platform/spf/grpc/internal/server/peerIdentity.h"
#include "platform/spf/grpc/internal/standard/StandardStream.h"
#include "platform/spf/grpc/internal/wire/Frame.h"

namespace agent::spf::grpc_transport::internal {

using parallel::threads::MutexLock;

ServerStream::ServerStream(ServerCore& server)
    : server_(server),
      context_(std::make_unique<grpc::GenericServerContext>()),
      stream_(std::make_unique<grpc::GenericServerAsyncReaderWriter>(context_.get())),
      gate_([this] { dispose(); }),
      sender_([this](const grpc::ByteBuffer& message) { return write(message); }) {}

ServerStream::~ServerStream() {
  gate_.close();
  user_ = nullptr;  // it uses this stream, and the server
  server_.streamGone();
}

void ServerStream::dispose() {
  stream_ = nullptr;
  context_ = nullptr;
}

void ServerStream::accept() {
  gate_.begin();  // for the end
  gate_.begin();  // for the beginning
  context_->AsyncNotifyWhenDone(overTag_.arm(shared_from_this()));
  server_.generic().RequestCall(context_.get(), stream_.get(), server_.queue(), server_.queue(),
                                acceptTag_.arm(shared_from_this()));
}

void ServerStream::onAccepted(bool ok) {
  if (ok) {
    opened();
  } else {  // the server has ended; this stream was never opened, and its end will not be told
    overTag_.disarm();
    gate_.done();
  }
  gate_.done();
}

void ServerStream::opened() {
  server_.acceptNext();
  const std::string client = peerText(context_->peer());
  server_.introduced(client);
  user_ = makeUser(client);
  {
    const MutexLock lock(mutex_);
    state_ = State::open;
  }
  if (user_ == nullptr)
    return end({grpc::StatusCode::UNIMPLEMENTED, "There is no method " + context_->method() + " here."});
  // Asked after the state was set: the server tells every stream that is open then.
  if (server_.isDraining())
    user_->drain();
  readNext();
}

// Null when there is no such method.
std::unique_ptr<StreamUser> ServerStream::makeUser(const std::string& client) {
  if (context_->method() == kConverseMethod)
    return std::make_unique<Conversation>(*this, server_, client,
                                          identityOf(*context_->auth_context(), client, server_.socketUser()));
  if (auto call = openStandardCall(context_->method()))
    return std::make_unique<StandardStream>(*this, std::move(call));
  return nullptr;
}

bool ServerStream::isOpen() {
  const MutexLock lock(mutex_);
  return state_ == State::open;
}

void ServerStream::drain() {
  if (isOpen() && user_ != nullptr)
    user_->drain();
}

void ServerStream::readNext() {
  if (startReading())
    stream_->Read(&incoming_, readTag_.arm(shared_from_this()));
}

bool ServerStream::startReading() {
  const MutexLock lock(mutex_);
  if (state_ != State::open || reading_ != Reading::paused || !user_->wantsMessage() || !gate_.begin())
    return false;
  reading_ = Reading::underWay;
  return true;
}

void ServerStream::onRead(bool ok) {
  grpc::ByteBuffer message;
  message.Swap(&incoming_);
  const bool mayReceive = isOpen();  // what comes after the end is dropped
  if (ok && mayReceive)
    user_->receive(message);
  {
    const MutexLock lock(mutex_);
    reading_ = ok ? Reading::paused : Reading::ended;
  }
  if (ok)
    readNext();
  else
    user_->halfClosed();
  gate_.done();
}

bool ServerStream::write(const grpc::ByteBuffer& message) {
  if (!gate_.begin())
    return false;
  stream_->Write(message, writeTag_.arm(shared_from_this()));
  return true;
}

void ServerStream::onWritten(bool ok) {
  sender_.written(ok);
  readNext();  // the user may have waited for its messages to go out
  gate_.done();
}

void ServerStream::end(const grpc::Status& status) {
  {
    const MutexLock lock(mutex_);
    if (state_ == State::ending)
      return;
    state_ = State::ending;
  }
  sender_.whenIdle([self = shared_from_this(), status] {
    if (self->gate_.begin())
      self->stream_->Finish(status, self->endTag_.arm(self));
  });
}

void ServerStream::onEnded(bool /*ok*/) {
  gate_.done();
}

void ServerStream::onOver(bool /*ok*/) {
  if (user_ != nullptr)
    user_->over();
  gate_.close();
  gate_.done();
}

}  // namespace agent::spf::grpc_transport::internal
