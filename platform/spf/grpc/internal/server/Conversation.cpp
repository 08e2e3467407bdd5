#include "platform/spf/grpc/internal/server/Conversation.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <utility>

#include "platform/errors/visibleText.h"
#include "platform/spf/core/errorChain.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/core/internal/ServedCall.h"
#include "platform/spf/grpc/internal/server/ServerCore.h"
#include "platform/spf/grpc/internal/server/ServerStream.h"

namespace agent::spf::grpc_transport::internal {

using parallel::threads::MutexLock;

namespace {

// The short form of an error in a status: percent-encoding may triple it, and stock clients drop trailers of over 4
// KiB.
constexpr std::size_t kStatusTextBytes = 1200;
// The text of an error in one frame: stock clients take messages of up to 4 MiB.
constexpr std::size_t kWholeErrorBytes = std::size_t{1} << 20;

// The whole error as its only message. Moved into its place: an initializer list would copy its texts, and with g++ 12
// leaks what was copied when memory runs out on the way.
std::vector<v1::ErrorChain> wholeMessage(const core::ErrorChain& chain) {
  std::vector<v1::ErrorChain> messages;
  messages.push_back(toMessage(chain));
  return messages;
}

constexpr const char* kGivenUp = "The call was given up by its client, or the connection to it was lost.";

void checkVersion(const v1::CallHead& head) {
  if (head.protocol_version() != kProtocolVersion)
    throw FrameworkError("The client speaks protocol version " + std::to_string(head.protocol_version()) +
                         ", this service speaks version " + std::to_string(kProtocolVersion) + ".");
}

std::optional<long> sizeIn(const v1::CallHead& head) {
  return head.has_size() ? std::optional<long>(head.size()) : std::nullopt;
}

bool hasCapability(const v1::CallHead& head, v1::Capability capability) {
  return std::find(head.capabilities().begin(), head.capabilities().end(), capability) != head.capabilities().end();
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

Conversation::Conversation(ServerStream& stream, ServerCore& server, std::string peer, core::PeerIdentity identity)
    : stream_(stream), server_(server), peer_(std::move(peer)), identity_(std::move(identity)) {
  server_.conversationBegun();
}

Conversation::~Conversation() {
  server_.conversationOver();
}

// What happens to the state; the call is let go of when it has ended.
template <class Event>
void Conversation::advance(Event event) {
  const MutexLock lock(mutex_);
  event(state_);
  if (state_.call() == ConversationState::Call::none)
    call_ = nullptr;
}

Conversation::CallPointer Conversation::current() {
  const MutexLock lock(mutex_);
  return call_;
}

// Between calls: not before the client has read enough of its replies, or those would wait without bound.
bool Conversation::wantsMessage() {
  const CallPointer call = current();
  return call == nullptr ? !stream_.sender().isFull() : call->request->hasRoom();
}

void Conversation::receive(const grpc::ByteBuffer& message) {
  try {
    receiveFrame(decodeFrame(message));
  } catch (const FrameworkError& e) {
    const std::string text = std::string("The client does not keep to the protocol: ") + e.what();
    breakOff({grpc::StatusCode::INVALID_ARGUMENT, text}, std::make_exception_ptr(FrameworkError(text)));
  } catch (const std::bad_alloc&) {
    breakOff({grpc::StatusCode::RESOURCE_EXHAUSTED, "The service has no memory left for a frame of the call."},
             std::current_exception());
  } catch (const std::exception& e) {
    breakOff({grpc::StatusCode::INTERNAL, std::string("The service failed to take a frame: ") + e.what()},
             std::current_exception());
  }
}

void Conversation::receiveFrame(Frame frame) {
  if (frame.reply)
    throw FrameworkError("a reply where a call is due");
  if (frame.call)
    beginCall(*frame.call);
  const CallPointer call = current();
  if (call == nullptr)
    throw FrameworkError("a frame outside any call");
  receiveRequest(call, frame);
  if (frame.call)  // not before: the handler of a small call finds its whole request there
    startHandler(call, frame.end);
}

void Conversation::beginCall(const v1::CallHead& head) {
  const std::weak_ptr<ServerStream> stream = stream_.weak_from_this();
  const auto readOn = [stream] {
    if (const auto held = stream.lock())
      held->readNext();
  };
  auto call = std::make_shared<IncomingCall>();
  call->head = head;
  call->request = std::make_shared<FrameInlet>("request of call " + errors::inQuotes(head.method()),
                                               FrameInlet::Callbacks{readOn, readOn}, server_.options().idleTimeout);
  if (head.has_size())
    call->request->announce(head.size());
  const MutexLock lock(mutex_);
  if (!state_.beginCall())
    throw FrameworkError("a call before the last one on its stream has ended");
  call_ = std::move(call);
}

void Conversation::receiveRequest(const CallPointer& call, Frame& frame) {
  if (frame.dataBytes > 0)  // too many: the transfer has failed, its reader sees it
    call->request->push(std::move(frame.data), frame.dataBytes, frame.heldBytes);
  if (frame.errorPart)
    call->error.add(std::move(*frame.errorPart));
  if (frame.error)
    call->request->fail(core::rebuildErrorChain(call->error.finish(std::move(*frame.error))));
  else if (frame.end)
    call->request->end();
  if (frame.error || frame.end)
    advance([](ConversationState& state) { state.endRequest(); });
}

// A call that no handler will see needs no thread: it is refused here, however busy the handlers are.
void Conversation::startHandler(const CallPointer& call, bool hasWholeRequest) {
  advance([](ConversationState& state) { state.beginHandler(); });
  if (const std::exception_ptr refusal = refusalOf(call->head))
    return refuse(call, refusal);
  const auto handler = [this, stream = stream_.shared_from_this(), call] { serve(call); };
  const bool isQuick = hasWholeRequest && server_.quickMethods().contains(call->head.method());
  if (!isQuick || !server_.runSoon(handler))
    server_.runInLine(handler);
}

std::exception_ptr Conversation::refusalOf(const v1::CallHead& head) const {
  try {
    checkVersion(head);
    server_.service().checkCall(head.method(), peer_, sizeIn(head));
    return nullptr;
  } catch (const FrameworkError&) {
    return std::current_exception();
  }
}

FrameOutlet::Options Conversation::outletOptions(const IncomingCall& call) {
  FrameOutlet::Options options;
  options.head = [&call](std::optional<long> size) { return encodeHeadOf(call.head, size); };
  options.beforeEnd = [this] { advance([](ConversationState& state) { state.endReply(); }); };
  options.brokenOffText = [] { return kGivenUp; };
  options.peerTakesNotices = hasCapability(call.head, v1::NOTICES);
  return options;
}

void Conversation::refuse(const CallPointer& call, const std::exception_ptr& refusal) {
  {
    FrameOutlet outlet(stream_.sender(), buffers_, outletOptions(*call));
    replyWithErrorOrLess(*call, outlet, refusal);
  }
  finish(*call);
}

void Conversation::serve(const CallPointer& call) noexcept {
  const auto begin = std::chrono::steady_clock::now();
  if (const std::exception_ptr refusal = runHandler(call))
    refuse(call, refusal);
  server_.quickMethods().note(call->head.method(), std::chrono::steady_clock::now() - begin);
}

// Null, or why the handler was not called.
std::exception_ptr Conversation::runHandler(const CallPointer& call) noexcept {
  try {
    if (call->notice.isCancelled())  // while it waited in line
      throw Terminated(kGivenUp);
    const auto outlet = std::make_shared<FrameOutlet>(stream_.sender(), buffers_, outletOptions(*call));
    core::internal::ServedCall::Hooks hooks;
    hooks.runInLine = [this](std::function<void()> task) { server_.runInLine(std::move(task)); };
    hooks.done = [this, stream = stream_.shared_from_this(), call, outlet](const std::exception_ptr& error) {
      if (error != nullptr)
        replyWithErrorOrLess(*call, *outlet, error);
      finish(*call);
    };
    std::make_shared<core::internal::ServedCall>(
        server_.service(), core::internal::CallFacts{call->head.method(), peer_, identity_, sizeIn(call->head)},
        call->request, *outlet, call->notice, std::move(hooks))
        ->serve();
    return nullptr;
  } catch (...) {
    return std::current_exception();
  }
}

// Nothing of the service works on the call any more.
void Conversation::finish(IncomingCall& call) {
  call.request->close();  // what is still to come of it is dropped
  advance([](ConversationState& state) { state.endHandler(); });
  endIfDone();
}

void Conversation::replyWithError(const IncomingCall& call, FrameOutlet& outlet, const std::exception_ptr& error) {
  const bool inParts = hasCapability(call.head, v1::ERROR_PARTS);
  const core::ErrorChain chain = core::flattenErrorChain(error, inParts ? core::kMaxErrorBytes : kWholeErrorBytes);
  {
    const MutexLock lock(mutex_);
    lastStatus_ = statusOf(chain);
  }
  outlet.finishWithError(inParts ? toParts(chain) : wholeMessage(chain));
}

// With the want of memory in its place where there is none for the error.
void Conversation::replyWithErrorOrLess(const IncomingCall& call, FrameOutlet& outlet,
                                        const std::exception_ptr& error) {
  try {
    replyWithError(call, outlet, error);
  } catch (...) {
    replyWithError(call, outlet, std::current_exception());
  }
}

void Conversation::halfClosed() {
  if (const CallPointer call = current()) {
    // Whether by a half-close or a cancel is not known yet; either way its client has left the call.
    call->request->fail(
        std::make_exception_ptr(Terminated("The call's stream was ended by its client before the request had.")));
  }
  advance([](ConversationState& state) {
    state.halfClose();
    state.endRequest();
  });
  endIfDone();
}

void Conversation::drain() {
  advance([](ConversationState& state) { state.drain(); });
  endIfDone();
}

void Conversation::endIfDone() {
  grpc::Status status;
  {
    const MutexLock lock(mutex_);
    if (!state_.isDone())
      return;
    if (state_.stream() == ConversationState::Stream::halfClosed)
      status = lastStatus_;
    else if (!state_.hasCarriedCalls())
      status = {grpc::StatusCode::UNAVAILABLE, "The service is shutting down."};
  }
  stream_.end(status);
}

void Conversation::over() {
  cancelCall(std::make_exception_ptr(Terminated(kGivenUp)));
}

void Conversation::breakOff(const grpc::Status& status, const std::exception_ptr& reason) {
  cancelCall(reason);
  stream_.end(status);
}

void Conversation::cancelCall(const std::exception_ptr& reason) {
  const CallPointer call = current();
  const bool first = call != nullptr && call->notice.mark();  // before the handler's streams fail: it may ask then
  stream_.sender().breakOff();
  buffers_->stop();
  if (call != nullptr)
    call->request->fail(reason);
  if (first)
    server_.runNotice([call] { call->notice.run(); });
}

}  // namespace agent::spf::grpc_transport::internal
