#include "toolbox/ObservingInvokable.h"

#include <algorithm>
#include <istream>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <string_view>
#include <utility>

#include "platform/spf/core/ExportedDataSource.h"
#include "platform/spf/core/ImportedDataSource.h"

namespace parallel::toolbox {
namespace {

using agent::spf::core::CompletionHandler;
using agent::spf::core::ExportedDataSource;
using agent::spf::core::GenericPayload;
using agent::spf::core::ImportedDataSource;

// Large enough to cost nothing, small enough for a progress bar to move.
constexpr std::streamsize kCountedPiece = std::streamsize{1} << 20;

// Unbuffered: everything goes on to the framework's stream as it comes, in pieces that are counted.
class CountingOutput : public std::streambuf {
 public:
  CountingOutput(std::ostream& next, TransferProgress& progress) : next_(next), progress_(progress) {}

 protected:
  std::streamsize xsputn(const char* data, std::streamsize nbytes) override {
    for (std::streamsize done = 0; done < nbytes;) {
      const std::streamsize piece = std::min(nbytes - done, kCountedPiece);
      if (!next_.write(data + done, piece))
        return done;
      done += piece;
      progress_.sent += static_cast<std::uint64_t>(piece);
    }
    return nbytes;
  }

  int_type overflow(int_type byte) override {
    if (traits_type::eq_int_type(byte, traits_type::eof()))
      return traits_type::not_eof(byte);
    const char value = traits_type::to_char_type(byte);
    return xsputn(&value, 1) == 1 ? byte : traits_type::eof();
  }

  int sync() override { return next_.flush() ? 0 : -1; }

 private:
  std::ostream& next_;
  TransferProgress& progress_;
};

// Unbuffered but for the one byte that peeking needs.
class CountingInput : public std::streambuf {
 public:
  CountingInput(std::unique_ptr<std::istream> next, std::shared_ptr<TransferProgress> progress)
      : next_(std::move(next)), progress_(std::move(progress)) {
    announce();
  }

 protected:
  std::streamsize showmanyc() override { return next_->rdbuf()->in_avail(); }

  std::streamsize xsgetn(char* data, std::streamsize nbytes) override {
    std::streamsize done = 0;
    if (gptr() != egptr() && nbytes > 0) {
      *data = *gptr();
      gbump(1);
      done = 1;
    }
    return done + pull(data + done, nbytes - done);
  }

  int_type underflow() override {
    if (gptr() != egptr())
      return traits_type::to_int_type(*gptr());
    if (pull(&peeked_, 1) != 1)
      return traits_type::eof();
    setg(&peeked_, &peeked_, &peeked_ + 1);
    return traits_type::to_int_type(peeked_);
  }

 private:
  // The framework knows the reply's size where the service announced it.
  void announce() {
    const std::streamsize expected = next_->rdbuf()->in_avail();
    if (expected > 0)
      progress_->toReceive = static_cast<std::uint64_t>(expected);
  }

  std::streamsize pull(char* data, std::streamsize nbytes) {
    const std::streamsize got = next_->rdbuf()->sgetn(data, nbytes);
    progress_->received += static_cast<std::uint64_t>(got);
    return got;
  }

  std::unique_ptr<std::istream> next_;
  std::shared_ptr<TransferProgress> progress_;
  char peeked_ = 0;
};

class CountingIstream : public std::istream {
 public:
  CountingIstream(std::unique_ptr<std::istream> next, std::shared_ptr<TransferProgress> progress)
      : std::istream(nullptr), buffer_(std::move(next), std::move(progress)) {
    rdbuf(&buffer_);
    exceptions(std::ios_base::badbit);
  }

 private:
  CountingInput buffer_;
};

constexpr std::size_t kContainerHeadBytes = 5;  // docs/container.md

class ObservedReply : public ImportedDataSource {
 public:
  ObservedReply(std::shared_ptr<ImportedDataSource> next, std::shared_ptr<CallObservation> observation)
      : next_(std::move(next)), observation_(std::move(observation)) {}

  std::unique_ptr<std::istream> getImportedIstream() override {
    observation_->keepReply(std::make_shared<CountingIstream>(next_->getImportedIstream(), observation_->progress()));
    return std::make_unique<std::istringstream>(std::string(kContainerHeadBytes, '\0'));
  }

 private:
  const std::shared_ptr<ImportedDataSource> next_;
  const std::shared_ptr<CallObservation> observation_;
};

GenericPayload observeRequest(GenericPayload&& request, const std::shared_ptr<CallObservation>& observation) {
  if (!request.holds<ExportedDataSource>(0))
    return std::move(request);
  const auto source = request.getValueAsPointer<ExportedDataSource>(0);
  observation->progress()->toSend = static_cast<std::uint64_t>(source->size());
  auto writer = [next = source->writer(), observation](std::ostream& output) {
    observation->progress()->sent = 0;  // the framework may start over
    CountingOutput counting(output, *observation->progress());
    std::ostream counted(&counting);
    counted.exceptions(std::ios_base::badbit);
    (*next)(counted);
  };
  return GenericPayload(std::make_shared<ExportedDataSource>(
      std::make_shared<ExportedDataSource::Writer>(std::move(writer)), source->size()));
}

GenericPayload observeReply(GenericPayload reply, const std::shared_ptr<CallObservation>& observation) {
  if (!reply.holds<ImportedDataSource>(0))
    return reply;
  auto next = reply.getValueAsPointer<ImportedDataSource>(0);
  return GenericPayload(
      std::shared_ptr<ImportedDataSource>(std::make_shared<ObservedReply>(std::move(next), observation)));
}

// The notices of runTask (docs/methods.md). Those of other methods are not known.
void obeyNotice(std::string_view notice, TransferProgress& progress) {
  if (notice == "queued")
    progress.turn = TransferProgress::Turn::queued;
  else if (notice == "running")
    progress.turn = TransferProgress::Turn::running;
}

}  // namespace

ObservingInvokable::ObservingInvokable(std::shared_ptr<Invokable> next, std::shared_ptr<CallObservation> observation)
    : next_(std::move(next)), observation_(std::move(observation)) {}

void ObservingInvokable::invoke(agent::spf::core::CallTag tag, const std::string& method, CompletionHandler&& handler,
                                GenericPayload&& request, int flags) {
  const auto original = std::make_shared<CompletionHandler>(std::move(handler));
  auto success = [original, observation = observation_](GenericPayload reply) {
    observation->progress()->answered = true;
    original->succeed(observeReply(std::move(reply), observation));
  };
  auto failure = [original](std::exception_ptr error) { original->fail(std::move(error)); };
  agent::spf::core::Caller caller = original->caller();
  caller.noticed = [original, observation = observation_](std::string_view notice) {
    obeyNotice(notice, *observation->progress());
    original->notice(notice);
  };
  CompletionHandler observed(std::move(success), std::move(failure), original->companions(), std::move(caller));
  next_->invoke(tag, method, std::move(observed), observeRequest(std::move(request), observation_), flags);
}

}  // namespace parallel::toolbox
