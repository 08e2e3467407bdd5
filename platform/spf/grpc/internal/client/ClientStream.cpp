#include "platform/spf/grpc/internal/client/ClientStream.h"

#include <utility>

#include "platform/spf/core/errors.h"
#include "platform/spf/core/internal/LimitedInlet.h"
#include "platform/spf/core/internal/ReplySource.h"
#include "platform/spf/grpc/internal/client/ClientConnection.h"
#include "platform/spf/grpc/internal/wire/FrameOutlet.h"

namespace agent::spf::grpc_transport::internal {

using parallel::threads::MutexLock;
using Due = ClientStreamState::Due;

namespace {

std::string encodeHeadOf(const ClientCall& call) {
  v1::CallHead head;
  head.set_protocol_version(kProtocolVersion);
  head.set_method(call.method);
  head.set_size(call.request.size());
  head.set_tag_high(call.tag.high);
  head.set_tag_low(call.tag.low);
  head.add_capabilities(v1::ERROR_PARTS);
  if (call.handler.caller().noticed)
    head.add_capabilities(v1::NOTICES);
  return encodeCallHead(head);
}

void checkVersion(const v1::ReplyHead& head) {
  if (head.protocol_version() != kProtocolVersion)
    throw FrameworkError("it speaks protocol version " + std::to_string(head.protocol_version()) +
                         ", this client speaks version " + std::to_string(kProtocolVersion));
}

// gRPC has no status of its own for a peer that was asked for a sign of life and gave none.
bool isSilence(const grpc::Status& status) {
  return status.error_code() == grpc::StatusCode::UNAVAILABLE &&
         (status.error_message().find("keepalive watchdog timeout") != std::string::npos ||
          status.error_message().find("Connection timed out") != std::string::npos);
}

}  // namespace

ClientStream::ClientStream(std::shared_ptr<ClientConnection> connection, Purpose purpose)
    : connection_(std::move(connection)),
      purpose_(purpose),
      gate_([this] { dispose(); }),
      sender_([this](const grpc::ByteBuffer& message) { return write(message); }) {}

ClientStream::~ClientStream() {
  gate_.close();
  connection_->streamGone();
}

void ClientStream::dispose() {
  stream_ = nullptr;
  context_ = nullptr;
}

bool ClientStream::write(const grpc::ByteBuffer& message) {
  if (!gate_.begin())
    return false;
  stream_->Write(message, writeTag_.arm(shared_from_this()));
  return true;
}

void ClientStream::open() {
  context_ = std::make_unique<grpc::ClientContext>();
  context_->set_initial_metadata_corked(purpose_ != Purpose::watch);
  stream_ = connection_->stub().PrepareCall(context_.get(), kConverseMethod, &connection_->queue());
  if (purpose_ != Purpose::watch) {
    stream_->StartCall(nullptr);  // corked: it goes with the first message, and no tag comes back
  } else {
    gate_.begin();
    stream_->StartCall(startTag_.arm(shared_from_this()));
  }
}

void ClientStream::onStarted(bool /*ok*/) {
  readNext();
  gate_.done();
}

bool ClientStream::take(const std::shared_ptr<ClientCall>& call) {
  const std::weak_ptr<ClientStream> self = weak_from_this();
  const std::weak_ptr<ClientCall> weakCall = call;
  FrameInlet::Callbacks callbacks;
  callbacks.roomAgain = [self] {
    if (const auto stream = self.lock())
      stream->readNext();
  };
  callbacks.givenUp = [self, weakCall] {
    const auto stream = self.lock();
    const auto givenUp = weakCall.lock();
    if (stream != nullptr && givenUp != nullptr)
      stream->giveUp(givenUp);
  };
  call->reply = std::make_shared<FrameInlet>("reply of call \"" + call->method + "\"", std::move(callbacks),
                                             connection_->options().idleTimeout);
  if (call->request.isBytes())
    call->reply->close();  // its bytes are only counted; no stream carries the call yet, so this gives nothing up
  {
    const MutexLock lock(mutex_);
    if (!state_.take())
      return false;
    call_ = call;
  }
  call->stopRequest.emplace(call->handler.caller().givenUp, [self, weakCall] {
    const auto stream = self.lock();
    const auto givenUp = weakCall.lock();
    if (stream != nullptr && givenUp != nullptr)
      stream->giveUpForCaller(givenUp);
  });
  return true;
}

void ClientStream::upload(const std::shared_ptr<ClientCall>& call) {
  FrameOutlet::Options options;
  options.head = [&](std::optional<long>) { return encodeHeadOf(*call); };
  options.beforeEnd = [&] {
    const MutexLock lock(mutex_);
    state_.beginEndOfRequest();
  };
  options.brokenOffText = [&] { return "Call \"" + call->method + "\" ended before all of its request was sent."; };
  readNext();  // the reply may begin, and must be read, while the request is still being sent
  try {
    FrameOutlet outlet(sender_, buffers_, std::move(options));
    call->request.writeTo(outlet);
    endRequest();
  } catch (...) {
    // A sender that is broken off has its own reason, which reaches the call as the end of the stream.
    if (!sender_.isBrokenOff())
      breakOff(std::current_exception());
  }
}

void ClientStream::endRequest() {
  MutexLock lock(mutex_);
  const Due due = state_.endRequest();
  if (due == Due::release)
    call_ = nullptr;
  lock.unlock();
  obey(due);
}

// The stream is free for the next call before the reader or the handler, who may start that one, is told.
void ClientStream::endReply() {
  MutexLock lock(mutex_);
  const Due due = state_.endReply();
  if (due != Due::nothing)
    call_ = nullptr;  // it has its reply, whatever becomes of the stream
  lock.unlock();
  obey(due);
}

void ClientStream::obey(Due due) {
  if (due == Due::release)
    connection_->release(shared_from_this());
  else if (due == Due::breakOff)
    breakOff(nullptr);
}

std::shared_ptr<ClientCall> ClientStream::current() {
  const MutexLock lock(mutex_);
  return call_;
}

void ClientStream::readNext() {
  if (MemberTag<ClientStream>* const tag = startReading())
    stream_->Read(&incoming_, tag->arm(shared_from_this()));
}

// Null when a read is under way, or would read too far ahead: whoever makes room calls readNext() again.
MemberTag<ClientStream>* ClientStream::startReading() {
  const MutexLock lock(mutex_);
  const bool mayRead = reading_ == Reading::never || reading_ == Reading::paused;
  if (!mayRead || (call_ != nullptr && !call_->reply->hasRoom()) || !gate_.begin())
    return nullptr;
  return std::exchange(reading_, Reading::underWay) == Reading::never ? &firstReadTag_ : &readTag_;
}

// The end of the stream can be waited for once a first read is over: the two would else both ask for the stream's head.
void ClientStream::onFirstRead(bool ok) {
  if (gate_.begin())
    stream_->Finish(&status_, statusTag_.arm(shared_from_this()));
  onRead(ok);
}

void ClientStream::onRead(bool ok) {
  if (ok) {
    connection_->sawLife();
    takeMessage();
  }
  {
    const MutexLock lock(mutex_);
    reading_ = ok ? Reading::paused : Reading::ended;
  }
  if (ok)
    readNext();
  gate_.done();
}

void ClientStream::takeMessage() {
  grpc::ByteBuffer message;
  message.Swap(&incoming_);
  try {
    receive(decodeFrame(message));
  } catch (const FrameworkError& e) {
    breakOff(std::make_exception_ptr(
        FrameworkError("The service at " + connection_->address() + " does not keep to the protocol: " + e.what())));
  } catch (...) {  // no fault of the service
    breakOff(std::current_exception());
  }
}

void ClientStream::receive(Frame frame) {
  const std::shared_ptr<ClientCall> call = current();
  if (call == nullptr) {
    const MutexLock lock(mutex_);
    if (state_.stream() == ClientStreamState::Stream::brokenOff)
      return;  // late frames of a call that has been given up
    throw FrameworkError("a frame outside any call");
  }
  if (frame.call)
    throw FrameworkError("a call where a reply is due");
  checkOrder(frame);
  receiveReply(call, frame);
}

// Also notes the reply's beginning.
void ClientStream::checkOrder(const Frame& frame) {
  using Reply = ClientStreamState::Reply;
  const MutexLock lock(mutex_);
  if (state_.reply() == Reply::ended)
    throw FrameworkError("a frame after the reply has ended");
  if (frame.reply && !state_.beginReply())
    throw FrameworkError("a second reply to one call");
  if ((frame.dataBytes > 0 || frame.end) && state_.reply() != Reply::begun)
    throw FrameworkError("a reply without a head");
}

void ClientStream::receiveReply(const std::shared_ptr<ClientCall>& call, Frame& frame) {
  if (frame.notice && !call->isAnswered())
    call->handler.notice(*frame.notice);
  if (frame.reply) {
    checkVersion(*frame.reply);
    if (frame.reply->has_size())
      call->reply->announce(frame.reply->size());
  }
  if (frame.dataBytes > 0 && !call->reply->push(std::move(frame.data), frame.dataBytes, frame.heldBytes))
    std::rethrow_exception(call->reply->failure());
  if (frame.errorPart)
    call->error.add(std::move(*frame.errorPart));
  const std::exception_ptr error =
      frame.error ? core::rebuildErrorChain(call->error.finish(std::move(*frame.error))) : nullptr;
  if (frame.end || frame.error)
    endReply();
  if (error != nullptr)
    call->reply->fail(error);
  else if (frame.end)
    call->reply->end();
  answer(call, frame);
}

// An error instead of the reply's head, or with it, reaches the handler; one that comes later, whoever reads the reply.
void ClientStream::answer(const std::shared_ptr<ClientCall>& call, const Frame& frame) {
  if (const std::exception_ptr failure = call->reply->failure())
    return fail(call, failure);
  if (call->request.isBytes()) {
    if (frame.end && call->takeAnswer())
      succeed(call, {});
  } else if (frame.reply && call->takeAnswer()) {
    handOverReply(call);
  }
}

void ClientStream::handOverReply(const std::shared_ptr<ClientCall>& call) {
  try {
    std::shared_ptr<core::ImportedDataSource> source =
        std::make_shared<core::internal::ReplySource>(replyWithinLimit(*call));
    succeed(call, core::GenericPayload(std::move(source)));
  } catch (const FrameworkError&) {
    giveUp(call);
    tellHandler(*call, [call, error = std::current_exception()] { call->handler.fail(error); });
  }
}

// Throws FrameworkError when the reply is announced to be too large.
std::shared_ptr<core::internal::ByteInlet> ClientStream::replyWithinLimit(const ClientCall& call) const {
  const std::optional<core::ByteLimit>& limit = connection_->options().replyLimit;
  if (!limit)
    return call.reply;
  const std::string what = "reply of call \"" + call.method + "\"";
  const std::optional<long> announced = call.reply->remaining();
  if (!announced)
    return std::make_shared<core::internal::LimitedInlet>(call.reply, what, *limit);
  core::internal::checkLimit(*limit, what, *announced);
  return call.reply;
}

void ClientStream::tellHandler(const ClientCall& call, const std::function<void()>& outcome) {
  if (connection_->isTurnOfOther(call))
    connection_->runElsewhere(outcome);
  else
    outcome();
}

void ClientStream::succeed(const std::shared_ptr<ClientCall>& call, core::GenericPayload payload) {
  tellHandler(*call, [call, payload = std::move(payload)] { call->handler.succeed(payload); });
}

void ClientStream::fail(const std::shared_ptr<ClientCall>& call, const std::exception_ptr& error) {
  call->reply->fail(error);
  if (call->takeAnswer())
    tellHandler(*call, [call, error] { call->handler.fail(error); });
}

void ClientStream::giveUp(const std::shared_ptr<ClientCall>& call) {
  if (current() == call)
    breakOff(nullptr);
}

// Its caller waits no longer. A reply that has begun is not the waiter's any more, but its reader's.
void ClientStream::giveUpForCaller(const std::shared_ptr<ClientCall>& call) {
  if (!call->takeAnswer())
    return;
  giveUp(call);
  call->handler.fail(std::make_exception_ptr(Terminated("Call \"" + call->method + "\" was given up by its caller.")));
}

void ClientStream::breakOff(const std::exception_ptr& error) {
  std::shared_ptr<ClientCall> call;
  {
    const MutexLock lock(mutex_);
    call = std::exchange(call_, nullptr);
    state_.breakOff();
  }
  sender_.breakOff();
  buffers_->stop();
  if (gate_.begin()) {
    context_->TryCancel();
    gate_.done();
  }
  gate_.close();
  if (call != nullptr && error != nullptr)
    fail(call, error);
}

void ClientStream::onWritten(bool ok) {
  sender_.written(ok);
  gate_.done();
}

void ClientStream::onStatus(bool /*ok*/) {
  const std::shared_ptr<ClientCall> call = current();
  const std::exception_ptr error = errorOf(status_, call == nullptr ? "" : " during call \"" + call->method + "\"");
  connection_->retire(*this);
  if (purpose_ == Purpose::watch || status_.error_code() == grpc::StatusCode::UNAVAILABLE)
    connection_->lose(error);
  breakOff(error);
  gate_.done();
}

std::exception_ptr ClientStream::errorOf(const grpc::Status& status, const std::string& during) const {
  const std::string service = "The service at " + connection_->address();
  const std::string detail = status.error_message().empty() ? "." : ": " + status.error_message();
  if (isSilence(status))
    return connection_->silence(during);
  switch (status.error_code()) {
    case grpc::StatusCode::UNIMPLEMENTED:
      return std::make_exception_ptr(
          FrameworkError("What answers at " + connection_->address() + " is not such a service" + detail));
    case grpc::StatusCode::INVALID_ARGUMENT:
    case grpc::StatusCode::RESOURCE_EXHAUSTED:
    case grpc::StatusCode::FAILED_PRECONDITION:
    case grpc::StatusCode::PERMISSION_DENIED:
    case grpc::StatusCode::UNAUTHENTICATED:
      return std::make_exception_ptr(FrameworkError(service + " broke off" + during + detail));
    case grpc::StatusCode::DEADLINE_EXCEEDED:
      return std::make_exception_ptr(Timeout(service + " did not answer in time" + during + detail));
    default:
      return std::make_exception_ptr(Terminated(service + " went away" + during + detail));
  }
}

}  // namespace agent::spf::grpc_transport::internal
