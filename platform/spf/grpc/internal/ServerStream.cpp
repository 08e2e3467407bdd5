#include "platform/spf/grpc/internal/ServerStream.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "platform/spf/core/errorChain.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/core/internal/ServedCall.h"
#include "platform/spf/grpc/internal/ServerCore.h"
#include "platform/spf/grpc/internal/errorMessage.h"

namespace agent::spf::grpc_transport::internal {

namespace {

// The short form of an error in a status: percent-encoding may triple it, and stock clients drop trailers of over 4
// KiB.
constexpr std::size_t kStatusTextBytes = 1200;
// The text of an error in one frame: stock clients take messages of up to 4 MiB.
constexpr std::size_t kWholeErrorBytes = std::size_t{1} << 20;

std::exception_ptr abandoned() {
  return std::make_exception_ptr(Terminated("The call was abandoned by its client, or the connection to it is gone."));
}

void checkVersion(const v1::CallHead& head) {
  if (head.protocol_version() != kProtocolVersion)
    throw FrameworkError("The client speaks protocol version " + std::to_string(head.protocol_version()) +
                         ", this service speaks version " + std::to_string(kProtocolVersion) + ".");
}

bool takesErrorParts(const v1::CallHead& head) {
  return std::find(head.capabilities().begin(), head.capabilities().end(), v1::ERROR_PARTS) !=
         head.capabilities().end();
}

std::string encodeHeadOf(const v1::CallHead& call, std::optional<long> size) {
  v1::ReplyHead head;
  head.set_protocol_version(kProtocolVersion);
  if (size)
    head.set_size(*size);
  if (call.capabilities_size() > 0)
    head.add_capabilities(v1::ERROR_PARTS);
  return encodeReplyHead(head);
}

grpc::Status statusOf(const core::ErrorChain& chain) {
  using Kind = core::ErrorLevel::Kind;
  const Kind kind = chain.empty() ? Kind::unknown : chain.front().kind;
  const auto code = kind == Kind::framework    ? grpc::StatusCode::FAILED_PRECONDITION
                    : kind == Kind::timeout    ? grpc::StatusCode::DEADLINE_EXCEEDED
                    : kind == Kind::terminated ? grpc::StatusCode::ABORTED
                                               : grpc::StatusCode::UNKNOWN;
  return {code, wellFormed(core::summaryOf(chain, kStatusTextBytes))};
}

}  // namespace

ServerStream::ServerStream(ServerCore& server)
    : server_(server),
      context_(std::make_unique<grpc::GenericServerContext>()),
      stream_(std::make_unique<grpc::GenericServerAsyncReaderWriter>(context_.get())),
      gate_([this] { dispose(); }),
      sender_([this](const grpc::ByteBuffer& message) { return write(message); }),
      buffers_(std::make_shared<SendBuffers>()) {}

ServerStream::~ServerStream() {
  gate_.close();
  server_.gone(conversing_);
}

void ServerStream::dispose() {
  stream_ = nullptr;
  context_ = nullptr;
}

bool ServerStream::write(const grpc::ByteBuffer& message) {
  if (!gate_.begin())
    return false;
  stream_->Write(message, writeTag_.arm(shared_from_this()));
  return true;
}

void ServerStream::accept() {
  gate_.begin();  // for the end
  gate_.begin();  // for the beginning
  context_->AsyncNotifyWhenDone(doneTag_.arm(shared_from_this()));
  server_.generic().RequestCall(context_.get(), stream_.get(), server_.queue(), server_.queue(),
                                acceptTag_.arm(shared_from_this()));
}

void ServerStream::onAccepted(bool ok) {
  if (ok) {
    opened();
  } else {  // the server has ended; this stream was never opened, and its end will not be told
    doneTag_.disarm();
    gate_.done();
  }
  gate_.done();
}

void ServerStream::opened() {
  server_.acceptNext();
  const bool standard = openStandard();
  conversing_ = context_->method() == kConverseMethod;
  if (conversing_)
    server_.conversing();  // before the server can find it unused
  {
    const std::lock_guard lock(mutex_);
    isStandard_ = standard;
    accepted_ = true;
  }
  // The server's word, and not only this stream's: once one stream has been told, every later one has to say the same.
  const bool draining = server_.isDraining();
  if (!standard && !conversing_)
    return finish({grpc::StatusCode::UNIMPLEMENTED, "There is no method " + context_->method() + " here."});
  if (conversing_ && draining)
    return finish({grpc::StatusCode::UNAVAILABLE, "The service is shutting down."});
  if (draining)
    answer(&StandardCall::drain);
  readNext();
  finishIfUnused();
}

bool ServerStream::openStandard() {
  const std::lock_guard lock(standardMutex_);
  standard_ = openStandardCall(context_->method());
  return standard_ != nullptr;
}

// Does nothing when this is no standard call. The lock keeps the answers to a message and to a drain in order.
void ServerStream::answer(const std::function<StandardAnswer(StandardCall&)>& action) {
  const std::lock_guard lock(standardMutex_);
  if (standard_ == nullptr)
    return;
  const StandardAnswer answer = action(*standard_);
  for (const std::string& message : answer.messages) {
    const grpc::Slice slice(message);
    sender_.enqueue(grpc::ByteBuffer(&slice, 1));
  }
  if (answer.status)
    finish(*answer.status);
}

void ServerStream::drain() {
  {
    const std::lock_guard lock(mutex_);
    draining_ = true;
    if (!accepted_)
      return;
  }
  answer(&StandardCall::drain);
  finishIfUnused();
}

ServerStream::CallPointer ServerStream::current() {
  const std::lock_guard lock(mutex_);
  return call_;
}

bool ServerStream::isStandard() {
  const std::lock_guard lock(mutex_);
  return isStandard_;
}

void ServerStream::takeStandardMessage(const grpc::ByteBuffer& message) {
  std::vector<grpc::Slice> slices;
  static_cast<void>(message.Dump(&slices));
  std::string bytes;
  for (const grpc::Slice& slice : slices)
    bytes.append(slice.begin(), slice.end());
  answer([&](StandardCall& call) { return call.receive(bytes); });
  {
    const std::lock_guard lock(mutex_);
    reading_ = false;
    if (finished_)
      return;
  }
  // Not before the answer is out, or a client that never reads would fill the memory with answers.
  sender_.whenIdle([self = shared_from_this()] { self->readNext(); });
}

// Reads on unless that would read too far ahead. Whoever makes room calls this again.
void ServerStream::readNext() {
  {
    const std::lock_guard lock(mutex_);
    if (reading_ || (call_ != nullptr && !call_->request->hasRoom()) || !gate_.begin())
      return;
    reading_ = true;
  }
  stream_->Read(&incoming_, readTag_.arm(shared_from_this()));
}

void ServerStream::onRead(bool ok) {
  if (ok)
    takeMessage();
  else  // reading_ stays: there is nothing more to read
    endOfStream();
  gate_.done();
}

void ServerStream::endOfStream() {
  const CallPointer call = current();
  {
    const std::lock_guard lock(mutex_);
    halfClosed_ = true;
  }
  if (call != nullptr) {
    // Whether by a half-close or a cancel is not known yet; either way its client has left the call.
    call->request->fail(
        std::make_exception_ptr(Terminated("The call's stream was ended by its client before the request had.")));
    endRequest(*call);
  }
  answer(&StandardCall::halfClosed);
  finishIfUnused();
}

void ServerStream::takeMessage() {
  grpc::ByteBuffer message;
  message.Swap(&incoming_);
  if (isStandard())
    return takeStandardMessage(message);
  try {
    receive(decodeFrame(message));
  } catch (const std::exception& e) {
    const std::string text = std::string("The client does not keep to the protocol: ") + e.what();
    cancelCall(std::make_exception_ptr(FrameworkError(text)));
    finish({grpc::StatusCode::INVALID_ARGUMENT, text});
  }
  {
    const std::lock_guard lock(mutex_);
    reading_ = false;
  }
  readNext();
}

void ServerStream::receive(Frame frame) {
  if (frame.reply)
    throw FrameworkError("a reply where a call is due");
  if (frame.call)
    beginCall(*frame.call);
  receiveRequest(frame);
  if (!frame.call)
    return;
  {
    const std::lock_guard lock(mutex_);
    ++serving_;
  }
  // Not before: the handler of a small call finds its whole request there.
  const bool isQuick = frame.end && server_.quickMethods().contains(frame.call->method());
  server_.runHere([self = shared_from_this(), call = current()] { self->serve(call); }, isQuick);
}

void ServerStream::beginCall(const v1::CallHead& head) {
  const std::weak_ptr<ServerStream> self = weak_from_this();
  const auto readOn = [self] {
    if (const auto stream = self.lock())
      stream->readNext();
  };
  auto call = std::make_shared<IncomingCall>();
  call->head = head;
  call->request = std::make_shared<FrameInlet>("request of call \"" + head.method() + "\"",
                                               FrameInlet::Callbacks{readOn, readOn}, server_.options().idleTimeout);
  if (head.has_size())
    call->request->announce(head.size());
  const std::lock_guard lock(mutex_);
  if (call_ != nullptr)
    throw FrameworkError("a call before the last one on its stream has ended");
  call_ = std::move(call);
}

void ServerStream::receiveRequest(Frame& frame) {
  const CallPointer call = current();
  if (call == nullptr)
    throw FrameworkError("a frame outside any call");
  if (frame.dataBytes > 0)
    call->request->push(std::move(frame.data),
                        frame.dataBytes);  // too many: the transfer has failed, its reader sees it
  if (frame.errorPart)
    call->error.add(std::move(*frame.errorPart));
  if (frame.error)
    call->request->fail(core::rebuildErrorChain(call->error.finish(std::move(*frame.error))));
  else if (frame.end)
    call->request->end();
  if (frame.error || frame.end)
    endRequest(*call);
}

void ServerStream::endRequest(IncomingCall& call) {
  const std::lock_guard lock(mutex_);
  call.requestEnded = true;
  if (call.replyEnded && call_.get() == &call)
    call_ = nullptr;
}

void ServerStream::markReplyEnded(IncomingCall& call) {
  const std::lock_guard lock(mutex_);
  call.replyEnded = true;
  if (call.requestEnded && call_.get() == &call)
    call_ = nullptr;
}

void ServerStream::serve(const CallPointer& call) noexcept {
  FrameOutlet::Options options;
  options.head = [&call](std::optional<long> size) { return encodeHeadOf(call->head, size); };
  options.beforeEnd = [this, &call] { markReplyEnded(*call); };
  options.brokenText = [] { return "The call was abandoned by its client, or the connection to it is gone."; };
  FrameOutlet outlet(sender_, buffers_, std::move(options));
  const auto begin = std::chrono::steady_clock::now();
  reply(*call, outlet);
  if (server_.service().find(call->head.method()) != nullptr)
    server_.quickMethods().note(call->head.method(), std::chrono::steady_clock::now() - begin);
  {
    const std::lock_guard lock(mutex_);
    --serving_;
  }
  finishIfUnused();
}

void ServerStream::reply(IncomingCall& call, FrameOutlet& outlet) {
  std::exception_ptr error;
  try {
    checkVersion(call.head);
    const std::optional<long> size = call.head.has_size() ? std::optional<long>(call.head.size()) : std::nullopt;
    core::internal::ServedCall served(server_.service(), call.head.method(), size, call.request, outlet, call.notice);
    error = served.serve();
    if (error != nullptr)
      replyError(call, outlet, error);
  } catch (...) {
    replyError(call, outlet, std::current_exception());
  }
  call.request->close();  // what is still to come of it is dropped
}

void ServerStream::replyError(const IncomingCall& call, FrameOutlet& outlet, const std::exception_ptr& error) {
  const bool inParts = takesErrorParts(call.head);
  const core::ErrorChain chain = core::flattenErrorChain(error, inParts ? core::kMaxErrorBytes : kWholeErrorBytes);
  {
    const std::lock_guard lock(mutex_);
    lastStatus_ = statusOf(chain);
  }
  outlet.finishWithError(inParts ? toParts(chain) : std::vector<v1::ErrorChain>{toMessage(chain)});
}

// A stream that will carry no further call is ended when the last one has.
void ServerStream::finishIfUnused() {
  grpc::Status status;
  {
    const std::lock_guard lock(mutex_);
    if (isStandard_ || call_ != nullptr || serving_ > 0 || !(halfClosed_ || draining_))
      return;
    status = halfClosed_ ? lastStatus_ : grpc::Status::OK;
  }
  finish(status);
}

void ServerStream::finish(const grpc::Status& status) {
  {
    const std::lock_guard lock(mutex_);
    if (finished_)
      return;
    finished_ = true;
  }
  sender_.whenIdle([self = shared_from_this(), status] {
    if (self->gate_.begin())
      self->stream_->Finish(status, self->finishTag_.arm(self));
  });
}

void ServerStream::onWritten(bool ok) {
  sender_.written(ok);
  gate_.done();
}

void ServerStream::onFinished(bool /*ok*/) {
  gate_.done();
}

// The stream is over, whichever side ended it.
void ServerStream::onDone(bool /*ok*/) {
  cancelCall(abandoned());
  gate_.close();
  gate_.done();
}

void ServerStream::cancelCall(const std::exception_ptr& reason) {
  const CallPointer call = current();
  const bool first = call != nullptr && call->notice.mark();  // before the handler's streams fail: it may ask then
  sender_.breakOff();
  buffers_->stop();
  if (call != nullptr)
    call->request->fail(reason);
  if (first)
    server_.runBlocking([call] { call->notice.run(); });
}

}  // namespace agent::spf::grpc_transport::internal
