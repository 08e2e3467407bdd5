#include "platform/spf/grpc/internal/ClientStream.h"

#include <utility>

#include "platform/spf/core/errors.h"
#include "platform/spf/core/internal/LimitedInlet.h"
#include "platform/spf/core/internal/ReplySource.h"
#include "platform/spf/grpc/internal/ClientConnection.h"
#include "platform/spf/grpc/internal/FrameOutlet.h"

namespace agent::spf::grpc_transport::internal {

namespace {

using Upload = ClientCall::Upload;

std::string encodeHeadOf(const ClientCall& call) {
  v1::CallHead head;
  head.set_protocol_version(kProtocolVersion);
  head.set_method(call.method);
  head.set_size(call.request.size());
  head.set_tag_high(call.tag.high);
  head.set_tag_low(call.tag.low);
  head.add_capabilities(v1::ERROR_PARTS);
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

ClientStream::ClientStream(std::shared_ptr<ClientConnection> connection)
    : connection_(std::move(connection)),
      gate_([this] { dispose(); }),
      sender_([this](const grpc::ByteBuffer& message) { return write(message); }),
      buffers_(std::make_shared<SendBuffers>()) {}

ClientStream::~ClientStream() {
  gate_.close();
  connection_->gone();
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

void ClientStream::prepare() {
  context_ = std::make_unique<grpc::ClientContext>();
  context_->set_initial_metadata_corked(!watch_);
  stream_ = connection_->stub().PrepareCall(context_.get(), kConverseMethod, &connection_->queue());
}

void ClientStream::open() {
  prepare();
  stream_->StartCall(nullptr);  // corked: it goes with the first message, and no tag comes back
}

void ClientStream::openAsWatch() {
  watch_ = true;
  prepare();
  gate_.begin();
  stream_->StartCall(startTag_.arm(shared_from_this()));
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
  callbacks.abandoned = [self, weakCall] {
    const auto stream = self.lock();
    const auto abandoned = weakCall.lock();
    if (stream != nullptr && abandoned != nullptr)
      stream->abandon(abandoned);
  };
  call->reply = std::make_shared<FrameInlet>("reply of call \"" + call->method + "\"", std::move(callbacks),
                                             connection_->options().idleTimeout);
  if (call->request.isBytes())
    call->reply->close();  // its bytes are only counted; no stream carries the call yet, so this abandons nothing
  {
    const std::lock_guard lock(mutex_);
    if (aborted_)
      return false;
    call_ = call;
  }
  call->givenUp.emplace(call->handler.caller().givenUp, [self, weakCall] {
    const auto stream = self.lock();
    const auto givenUp = weakCall.lock();
    if (stream != nullptr && givenUp != nullptr)
      stream->giveUp(givenUp);
  });
  return true;
}

void ClientStream::upload(const std::shared_ptr<ClientCall>& call) {
  FrameOutlet::Options options;
  options.head = [&](std::optional<long>) { return encodeHeadOf(*call); };
  options.beforeEnd = [&] { setUpload(*call, Upload::ending); };
  options.brokenText = [&] { return "Call \"" + call->method + "\" ended before all of its request was sent."; };
  readNext();  // the reply may begin, and must be read, while the request is still being sent
  try {
    FrameOutlet outlet(sender_, buffers_, std::move(options));
    call->request.writeTo(outlet);
    finishUpload(call);
  } catch (...) {
    // A sender that is broken has its own reason, which reaches the call as the end of the stream.
    if (!sender_.isBroken())
      abort(std::current_exception());
  }
}

void ClientStream::setUpload(ClientCall& call, Upload state) {
  const std::lock_guard lock(mutex_);
  call.upload = state;
}

void ClientStream::finishUpload(const std::shared_ptr<ClientCall>& call) {
  {
    const std::lock_guard lock(mutex_);
    call->upload = Upload::ended;
    if (!call->replyEnded || call_ != call)
      return;
    call_ = nullptr;
  }
  connection_->release(shared_from_this());
}

std::shared_ptr<ClientCall> ClientStream::current() {
  const std::lock_guard lock(mutex_);
  return call_;
}

// Reads on unless that would read too far ahead. Whoever makes room calls this again.
void ClientStream::readNext() {
  {
    const std::lock_guard lock(mutex_);
    if (reading_ || (call_ != nullptr && !call_->reply->hasRoom()) || !gate_.begin())
      return;
    reading_ = true;
  }
  stream_->Read(&incoming_, readTag_.arm(shared_from_this()));
}

// The end of the stream can be waited for once a first read is over: the two would else both ask for the stream's head.
void ClientStream::askStatus() {
  if (std::exchange(statusAsked_, true) || !gate_.begin())
    return;
  stream_->Finish(&status_, statusTag_.arm(shared_from_this()));
}

void ClientStream::onRead(bool ok) {
  askStatus();
  if (ok) {  // else reading_ stays: there is nothing more to read
    connection_->sawLife();
    takeMessage();
  }
  gate_.done();
}

void ClientStream::takeMessage() {
  grpc::ByteBuffer message;
  message.Swap(&incoming_);
  try {
    receive(decodeFrame(message));
  } catch (const std::bad_alloc&) {  // no fault of the service
    abort(std::current_exception());
  } catch (const std::exception& e) {
    abort(std::make_exception_ptr(
        FrameworkError("The service at " + connection_->address() + " does not keep to the protocol: " + e.what())));
  }
  {
    const std::lock_guard lock(mutex_);
    reading_ = false;
  }
  readNext();
}

void ClientStream::receive(Frame frame) {
  const std::shared_ptr<ClientCall> call = current();
  if (call == nullptr) {
    const std::lock_guard lock(mutex_);
    if (aborted_)
      return;  // late frames of a call that has been given up
    throw FrameworkError("a frame outside any call");
  }
  if (frame.call)
    throw FrameworkError("a call where a reply is due");
  receiveReply(call, frame);
}

void ClientStream::receiveReply(const std::shared_ptr<ClientCall>& call, Frame& frame) {
  if (frame.reply) {
    if (std::exchange(call->replyBegun, true))
      throw FrameworkError("a second reply to one call");
    checkVersion(*frame.reply);
    if (frame.reply->has_size())
      call->reply->announce(frame.reply->size());
  }
  if ((frame.dataBytes > 0 || frame.end) && !call->replyBegun)
    throw FrameworkError("a reply without a head");
  if (frame.dataBytes > 0 && !call->reply->push(std::move(frame.data), frame.dataBytes))
    std::rethrow_exception(call->reply->failure());
  if (frame.errorPart)
    call->error.add(std::move(*frame.errorPart));
  const std::exception_ptr error =
      frame.error ? core::rebuildErrorChain(call->error.finish(std::move(*frame.error))) : nullptr;
  if (frame.end || frame.error)
    endReply(call);
  if (error != nullptr)
    call->reply->fail(error);
  else if (frame.end)
    call->reply->end();
  answer(call, frame);
}

// The stream is free for the next call before the reader or the handler, who may start that one, is told.
void ClientStream::endReply(const std::shared_ptr<ClientCall>& call) {
  Upload upload{};
  {
    const std::lock_guard lock(mutex_);
    call->replyEnded = true;
    upload = call->upload;
    if (upload != Upload::ending && call_ == call)
      call_ = nullptr;
  }
  if (upload == Upload::ended)
    connection_->release(shared_from_this());
  else if (upload == Upload::underWay)
    abort(nullptr);  // the service wants no more of the request
}

void ClientStream::answer(const std::shared_ptr<ClientCall>& call, const Frame& frame) {
  const std::exception_ptr failure = call->reply->failure();
  const bool isBytes = call->request.isBytes();
  const bool begins = frame.reply.has_value();
  const bool ends = frame.end || frame.error.has_value();
  // An error after the head reaches whoever reads the reply; one that comes instead of it, or with it, the handler.
  if (failure != nullptr && (begins || isBytes || !call->replyBegun))
    return failCall(call, failure);
  if (!(isBytes ? ends : begins) || !takeAnswer(*call))
    return;
  if (isBytes)
    return succeed(call, {});
  try {
    std::shared_ptr<core::ImportedDataSource> source =
        std::make_shared<core::internal::ReplySource>(replyWithinLimit(*call));
    succeed(call, core::GenericPayload(std::move(source)));
  } catch (const FrameworkError&) {
    abandon(call);
    fail(call, std::current_exception());
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

bool ClientStream::isAnswered(const ClientCall& call) {
  const std::lock_guard lock(mutex_);
  return call.answered;
}

bool ClientStream::takeAnswer(ClientCall& call) {
  const std::lock_guard lock(mutex_);
  return !std::exchange(call.answered, true);
}

void ClientStream::succeed(const std::shared_ptr<ClientCall>& call, core::GenericPayload payload) {
  if (connection_->isOthersThread(*call))
    connection_->runElsewhere([call, payload] { call->handler.succeed(payload); });
  else
    call->handler.succeed(std::move(payload));
}

void ClientStream::fail(const std::shared_ptr<ClientCall>& call, const std::exception_ptr& error) {
  if (connection_->isOthersThread(*call))
    connection_->runElsewhere([call, error] { call->handler.fail(error); });
  else
    call->handler.fail(error);
}

void ClientStream::failCall(const std::shared_ptr<ClientCall>& call, const std::exception_ptr& error) {
  call->reply->fail(error);
  if (takeAnswer(*call))
    fail(call, error);
}

void ClientStream::abandon(const std::shared_ptr<ClientCall>& call) {
  if (current() == call)
    abort(nullptr);
}

// Its caller waits no longer. A reply that has begun is not the waiter's any more, but its reader's.
void ClientStream::giveUp(const std::shared_ptr<ClientCall>& call) {
  if (!takeAnswer(*call))
    return;
  abandon(call);
  call->handler.fail(std::make_exception_ptr(Terminated("Call \"" + call->method + "\" was given up by its caller.")));
}

void ClientStream::abort(const std::exception_ptr& error) {
  std::shared_ptr<ClientCall> call;
  {
    const std::lock_guard lock(mutex_);
    call = std::exchange(call_, nullptr);
    aborted_ = true;
  }
  sender_.breakOff();
  buffers_->stop();
  if (gate_.begin()) {
    context_->TryCancel();
    gate_.done();
  }
  gate_.close();
  if (call != nullptr && error != nullptr)
    failCall(call, error);
}

void ClientStream::onWritten(bool ok) {
  sender_.written(ok);
  gate_.done();
}

void ClientStream::onStatus(bool /*ok*/) {
  const std::shared_ptr<ClientCall> call = current();
  const std::exception_ptr error = errorOf(status_, call == nullptr ? "" : " during call \"" + call->method + "\"");
  const bool lost = watch_ || status_.error_code() == grpc::StatusCode::UNAVAILABLE;
  connection_->ended(*this, lost ? error : nullptr);
  abort(error);
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
