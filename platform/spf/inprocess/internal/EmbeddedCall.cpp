#include "platform/spf/inprocess/internal/EmbeddedCall.h"

#include <unistd.h>

#include <string_view>
#include <utility>
#include <vector>

#include "platform/spf/core/errorChain.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/core/internal/ReplySource.h"
#include "platform/spf/core/internal/ServedCall.h"
#include "platform/spf/core/internal/makeError.h"

namespace agent::spf::inprocess::internal {

namespace {

constexpr std::size_t kGatherBytes = std::size_t{64} << 10;
constexpr std::size_t kPieceBytes = kGatherBytes;

core::PeerIdentity thisProcess() {
  return {core::PeerRole::client, "process " + std::to_string(::getpid())};
}

std::exception_ptr givenUp() noexcept {
  return core::internal::makeError<Terminated>([] { return "The call was given up by its client."; });
}

// As its caller gets it: what a service of another process would send of it, or else that there was no memory for that.
std::exception_ptr asSent(const std::exception_ptr& error) noexcept {
  try {
    return core::rebuildErrorChain(core::flattenErrorChain(error));
  } catch (...) {
    return std::current_exception();
  }
}

}  // namespace

class EmbeddedCall::Outlet : public core::internal::ReplyOutlet {
 public:
  // `begin` runs before the first bytes, and `notice` is told what is to be known before; both may be empty.
  Outlet(RendezvousPipe& pipe, std::function<void()> begin, std::function<void(std::string_view)> notice)
      : pipe_(pipe), begin_(std::move(begin)), notice_(std::move(notice)) {}

  void setSize(long size) override { pipe_.announce(size); }

  void notify(std::string_view text) override {
    if (begin_ && notice_)
      notice_(text);
  }

  std::span<char> room() override {
    if (buffer_.empty())
      buffer_.resize(kGatherBytes);
    return buffer_;
  }

  void sendGathered(std::size_t nbytes) override { sendBorrowed(std::span<const char>(buffer_.data(), nbytes)); }

  void sendBorrowed(std::span<const char> bytes) override {
    if (const auto begin = std::exchange(begin_, nullptr))
      begin();
    pipe_.write(bytes);
  }

  void finish(std::size_t nbytes) override {
    sendGathered(nbytes);
    pipe_.end();
  }

 private:
  RendezvousPipe& pipe_;
  std::function<void()> begin_;
  std::function<void(std::string_view)> notice_;
  std::vector<char> buffer_;
};

class EmbeddedCall::Inlet : public core::internal::ByteInlet {
 public:
  // `givenUp` runs when reading stops before the end.
  Inlet(std::shared_ptr<EmbeddedCall> call, RendezvousPipe& pipe, std::function<void(EmbeddedCall&)> givenUp)
      : call_(std::move(call)), pipe_(pipe), givenUp_(std::move(givenUp)) {}

  std::span<const char> next() override {
    if (piece_ == nullptr)
      piece_ = std::make_unique_for_overwrite<char[]>(kPieceBytes);
    return {piece_.get(), pipe_.read({piece_.get(), kPieceBytes})};
  }
  std::size_t nextInto(std::span<char> to) override { return pipe_.read(to); }
  std::optional<long> remaining() const noexcept override { return pipe_.remaining(); }
  void close() noexcept override {
    if (pipe_.stopReading())
      givenUp_(*call_);
  }

 private:
  std::shared_ptr<EmbeddedCall> call_;
  RendezvousPipe& pipe_;
  std::function<void(EmbeddedCall&)> givenUp_;
  std::unique_ptr<char[]> piece_;
};

EmbeddedCall::EmbeddedCall(std::string method, core::CompletionHandler handler, core::internal::CallRequest request,
                           std::shared_ptr<core::internal::WorkerThreads> workers)
    : method_(std::move(method)),
      handler_(std::move(handler)),
      request_(std::move(request)),
      workers_(std::move(workers)) {
  requestPipe_.announce(request_.size());
  if (request_.isBytes())
    replyPipe_.stopReading();
}

void EmbeddedCall::obeyStopRequests() {
  stopRequest_.emplace(handler_.caller().givenUp, [self = weak_from_this()] {
    if (const auto call = self.lock())
      call->giveUp();
  });
}

void EmbeddedCall::upload() noexcept {
  Outlet outlet(requestPipe_, nullptr, nullptr);
  try {
    request_.writeTo(outlet);
  } catch (...) {
    // A pipe that is broken off has its own reason, which has reached the caller, or need not.
    if (!requestPipe_.isBrokenOff())
      fail(std::current_exception());
  }
}

void EmbeddedCall::serve(const core::Service& service) noexcept {
  try {
    runHandler(service);
  } catch (...) {
    stopUpload();  // there is nobody yet to do it
    done(std::current_exception());
  }
}

// What it throws comes before the handler.
void EmbeddedCall::runHandler(const core::Service& service) {
  const auto self = shared_from_this();
  const auto outlet = std::make_shared<Outlet>(
      replyPipe_, [this] { beginReply(); },
      [this](std::string_view text) {
        if (!answered_)
          handler_.notice(text);
      });
  const auto request = std::make_shared<Inlet>(self, requestPipe_, [](EmbeddedCall& call) { call.stopUpload(); });
  core::internal::ServedCall::Hooks hooks;
  hooks.runInLine = [self](std::function<void()> task) { self->workers_->runInLine(std::move(task)); };
  hooks.done = [self, outlet](const std::exception_ptr& error) { self->done(error); };
  std::make_shared<core::internal::ServedCall>(
      service, core::internal::CallFacts{method_, "in-process", thisProcess(), request_.size()}, request, *outlet,
      notice_, std::move(hooks))
      ->serve();
}

void EmbeddedCall::done(const std::exception_ptr& error) noexcept {
  if (error != nullptr)
    failReply(asSent(error));
  else if (request_.isBytes() && takeAnswer())
    handler_.succeed({});
}

std::exception_ptr EmbeddedCall::endedEarly() const noexcept {
  return core::internal::makeError<Terminated>(
      [this] { return "Call \"" + method_ + "\" ended before all of its request was sent."; });
}

// The handler is done with the request, and reads no more of it.
void EmbeddedCall::stopUpload() noexcept {
  requestPipe_.breakOff(givenUp(), endedEarly());
}

// The answer is taken when there is one to give: one that cannot be made fails the call, which gives the error instead.
void EmbeddedCall::beginReply() {
  if (request_.isBytes())
    return;
  std::shared_ptr<core::ImportedDataSource> source = std::make_shared<core::internal::ReplySource>(
      std::make_shared<Inlet>(shared_from_this(), replyPipe_, [](EmbeddedCall& call) { call.cancel(givenUp()); }));
  core::GenericPayload reply(std::move(source));
  if (takeAnswer())
    handler_.succeed(std::move(reply));
}

void EmbeddedCall::failReply(const std::exception_ptr& error) noexcept {
  replyPipe_.fail(error);
  if (takeAnswer())
    handler_.fail(error);
}

void EmbeddedCall::cancel(const std::exception_ptr& reason) noexcept {
  if (!notice_.mark())
    return;
  requestPipe_.breakOff(givenUp(), endedEarly());
  replyPipe_.breakOff(reason, givenUp());
  try {
    workers_->run([self = shared_from_this()] { self->notice_.run(); });
  } catch (...) {
    notice_.run();  // no thread to be had, or no memory: better here than never
  }
}

// Its caller waits no longer. A reply that has begun is not the waiter's any more, but its reader's.
void EmbeddedCall::giveUp() noexcept {
  if (!takeAnswer())
    return;
  const auto reason =
      core::internal::makeError<Terminated>([this] { return "Call \"" + method_ + "\" was given up by its caller."; });
  cancel(reason);
  handler_.fail(reason);
}

void EmbeddedCall::fail(const std::exception_ptr& reason) noexcept {
  const bool unanswered = takeAnswer();  // before the handler, which cancel() may end, answers with an error of its own
  cancel(reason);
  if (unanswered)
    handler_.fail(reason);
}

}  // namespace agent::spf::inprocess::internal
