// Every function of the framework's core is run with its first, second, ... allocation failing, until it runs through:
// std::bad_alloc comes out, nothing torn is taken for whole, and what is left behind can be used, or says again that it
// cannot. A leak would be reported by the leak sanitizer.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <istream>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/errors/RemoteException.h"
#include "platform/spf/core/errorChain.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/core/internal/CallRequest.h"
#include "platform/spf/core/internal/CancelNotice.h"
#include "platform/spf/core/internal/InputStreambuf.h"
#include "platform/spf/core/internal/LimitedInlet.h"
#include "platform/spf/core/internal/ReplySource.h"
#include "platform/spf/core/internal/ServedCall.h"
#include "platform/spf/core/internal/WorkerThreads.h"
#include "platform/spf/core/internal/testCalls.h"
#include "tests/allocation/allocationHooks.h"

namespace agent::spf::core::internal {
namespace {

using allocation_testing::failEachAllocation;
using testing::patternOf;
using testing::sourceOf;

const std::string kLong = " with a text that is too long to be kept inside a string object";

// Room is made when it is first needed, as transports do.
class GatheringOutlet : public ReplyOutlet {
 public:
  void setSize(long /*size*/) override {}
  void notify(std::string_view /*text*/) override {}
  std::span<char> room() override {
    room_.resize(1000);
    return room_;
  }
  void sendGathered(std::size_t nbytes) override { bytes.append(room_.data(), nbytes); }
  void sendBorrowed(std::span<const char> lent) override { bytes.append(lent.data(), lent.size()); }
  void finish(std::size_t nbytes) override {
    sendGathered(nbytes);
    finished = true;
  }

  std::string bytes;
  bool finished = false;

 private:
  std::vector<char> room_;
};

// Hands out copies of pieces of its text.
class CopyingInlet : public ByteInlet {
 public:
  explicit CopyingInlet(std::string text) : text_(std::move(text)) {}

  std::span<const char> next() override {
    piece_ = std::make_unique<std::string>(text_.substr(given_, 100));
    given_ += piece_->size();
    return *piece_;
  }
  std::optional<long> remaining() const noexcept override { return std::nullopt; }
  void close() noexcept override { closed = true; }

  bool closed = false;

 private:
  const std::string text_;
  std::size_t given_ = 0;
  std::unique_ptr<std::string> piece_;
};

ErrorChain exampleChain() {
  using Kind = ErrorLevel::Kind;
  return {{Kind::framework, "", "", "outermost" + kLong},
          {Kind::identified, "component" + kLong, "name" + kLong, "identified" + kLong},
          {Kind::standard, "", "", "standard" + kLong},
          {Kind::unknown, "", "", "innermost" + kLong}};
}

TEST(OutOfMemory, FlatteningAChainThrows) {
  const std::exception_ptr error = rebuildErrorChain(exampleChain());
  ErrorChain flat;
  EXPECT_GT(failEachAllocation([&] { flat = flattenErrorChain(error); }, [&] { return flat.empty(); }), 6);
  EXPECT_EQ(flat, exampleChain());
}

TEST(OutOfMemory, RebuildingAChainThrowsRatherThanMakeAnother) {
  const ErrorChain chain = exampleChain();
  for (std::size_t levels = 1; levels <= chain.size(); ++levels) {
    std::exception_ptr rebuilt;
    const std::span<const ErrorLevel> first = std::span(chain).first(levels);
    EXPECT_GT(failEachAllocation([&] { rebuilt = rebuildErrorChain(first); }, [&] { return rebuilt == nullptr; }), 0);
    EXPECT_EQ(flattenErrorChain(rebuilt), ErrorChain(first.begin(), first.end()));
  }
}

TEST(OutOfMemory, SummarisingAChainThrows) {
  const ErrorChain chain = exampleChain();
  EXPECT_GT(failEachAllocation([&] { static_cast<void>(summaryOf(chain, 100)); }), 2);
}

TEST(OutOfMemory, WritingLeavesTheTransferWithoutAnEnd) {
  const std::string large = patternOf(kBorrowBytes);
  std::unique_ptr<GatheringOutlet> outlet;
  const auto write = [&] {
    outlet = std::make_unique<GatheringOutlet>();
    OutputStreambuf buffer(*outlet, "thing" + kLong);
    buffer.announce(static_cast<long>(large.size()) + 5);
    std::ostream out(&buffer);
    out.exceptions(std::ios::badbit);
    try {
      out << "first" << large;
    } catch (const std::bad_alloc&) {
      EXPECT_THROW(buffer.finish(), std::bad_alloc);  // a writer that goes on as if nothing were
      throw;
    }
    buffer.finish();
  };
  EXPECT_GT(failEachAllocation(write, [&] { return outlet == nullptr || !outlet->finished; }), 3);
  EXPECT_TRUE(outlet->bytes == "first" + large);
}

TEST(OutOfMemory, ErrorsOfAWriterAreReplacedByIt) {
  GatheringOutlet outlet;
  const auto writeTooLittle = [&] {
    OutputStreambuf buffer(outlet, "thing" + kLong);
    buffer.announce(1);
    try {
      buffer.finish();
    } catch (const FrameworkError&) {
    }
  };
  EXPECT_GT(failEachAllocation(writeTooLittle, [&] { return !outlet.finished; }), 3);
}

TEST(OutOfMemory, ReadingThrowsAndGoesOnThrowing) {
  const std::string text = patternOf(1000);
  const auto read = [&] {
    const auto inlet = std::make_shared<CopyingInlet>(text);
    InputStreambuf buffer(inlet);
    std::istream in(&buffer);
    in.exceptions(std::ios::badbit);
    std::string got(text.size() + 1, '\0');
    try {
      in.read(got.data(), static_cast<long>(got.size()));
    } catch (const std::bad_alloc&) {
      EXPECT_THROW(buffer.sgetc(), std::bad_alloc);
      EXPECT_THROW(buffer.sgetn(got.data(), 1), std::bad_alloc);
      throw;
    }
    EXPECT_TRUE(got.substr(0, static_cast<std::size_t>(in.gcount())) == text);
  };
  EXPECT_GT(failEachAllocation(read), 20);
}

TEST(OutOfMemory, LimitIsKept) {
  const std::string text = patternOf(1000);
  const auto inlet = [&] {
    return std::make_shared<LimitedInlet>(std::make_shared<CopyingInlet>(text), "thing" + kLong,
                                          ByteLimit{500, "option" + kLong});
  };
  const auto read = [&] {
    InputStreambuf buffer(inlet());
    std::string got(text.size(), '\0');
    try {
      buffer.sgetn(got.data(), static_cast<long>(got.size()));
      ADD_FAILURE() << "more was read than is allowed";
    } catch (const FrameworkError&) {
    }
  };
  EXPECT_GT(failEachAllocation(read), 15);
}

TEST(OutOfMemory, ReplyWhoseStreamCannotBeMadeIsStillThere) {
  const auto inlet = std::make_shared<CopyingInlet>(patternOf(1000));
  ReplySource source(inlet);
  std::unique_ptr<std::istream> stream;
  const auto stillThere = [&] { return !inlet->closed; };
  EXPECT_GT(failEachAllocation([&] { stream = source.getImportedIstream(); }, stillThere), 0);
  EXPECT_TRUE(testing::readAll(*stream) == patternOf(1000));
  stream = nullptr;
  EXPECT_TRUE(inlet->closed);
}

TEST(OutOfMemory, ReplyWhoseStreamCannotBeMadeIsAbandonedInTheEnd) {
  const auto inlet = std::make_shared<CopyingInlet>(patternOf(1000));
  {
    ReplySource source(inlet);
    const allocation_testing::FailingAllocation failing(0);
    EXPECT_THROW(source.getImportedIstream(), std::bad_alloc);
  }
  EXPECT_TRUE(inlet->closed);
}

TEST(OutOfMemory, RequestsAreWrittenWholeOrNot) {
  const std::string method = "method" + kLong;
  const std::string bytes = patternOf(1500);
  const GenericPayload payloads[] = {GenericPayload(std::make_shared<std::string>(bytes)),
                                     GenericPayload(sourceOf(bytes))};
  for (const GenericPayload& payload : payloads) {
    std::unique_ptr<GatheringOutlet> outlet;
    const auto send = [&] {
      outlet = std::make_unique<GatheringOutlet>();
      const CallRequest request(method, payload, 0);
      request.writeTo(*outlet);
    };
    EXPECT_GT(failEachAllocation(send, [&] { return outlet == nullptr || !outlet->finished; }), 3);
    EXPECT_TRUE(outlet->bytes == bytes);
  }
}

TEST(OutOfMemory, RequestsThatAreRefusedAreNotAccepted) {
  const auto refuse = [](const GenericPayload& payload, int flags) {
    try {
      CallRequest("method" + kLong, payload, flags);
      ADD_FAILURE() << "the request was accepted";
    } catch (const FrameworkError&) {
    }
  };
  EXPECT_GT(failEachAllocation([&] { refuse({}, 0); }), 2);
  EXPECT_GT(failEachAllocation([&] { refuse({}, 1); }), 2);
}

// What a transport does with one call.
void serve(const Service& service, const std::string& method, std::shared_ptr<CopyingInlet>& request,
           GatheringOutlet& reply) {
  CancelNotice notice;
  request = std::make_shared<CopyingInlet>(patternOf(1000));
  std::exception_ptr outcome;
  const ServedCall::Hooks hooks{.runInLine = [](const std::function<void()>& task) { task(); },
                                .done = [&outcome](const std::exception_ptr& error) { outcome = error; }};
  std::make_shared<ServedCall>(service,
                               CallFacts{.method = method, .peer = "somebody", .identity = {}, .requestSize = {}},
                               request, reply, notice, hooks)
      ->serve();
  if (outcome != nullptr)
    std::rethrow_exception(outcome);
}

TEST(OutOfMemory, ServingACallAnswersItWholeOrWithAnError) {
  Service service;
  service.limitRequests({1000, "option" + kLong});
  service.add("echo", [](ServerCall& call) {
    call.onCancel([copy = patternOf(100)] { static_cast<void>(copy); });
    const std::string request = testing::readAll(call.request());
    call.setReplySize(static_cast<long>(request.size()));
    call.reply() << request;
  });
  std::shared_ptr<CopyingInlet> request;
  std::unique_ptr<GatheringOutlet> reply;
  const auto once = [&] {
    reply = std::make_unique<GatheringOutlet>();
    serve(service, "echo", request, *reply);
  };
  EXPECT_GT(failEachAllocation(once, [&] { return reply == nullptr || !reply->finished; }), 20);
  EXPECT_TRUE(reply->bytes == patternOf(1000));
  EXPECT_TRUE(request->closed);
}

TEST(OutOfMemory, CallOfAnUnknownMethodIsRefusedAllTheSame) {
  Service service;
  service.add("a method" + kLong, [](ServerCall&) {});
  std::shared_ptr<CopyingInlet> request;
  GatheringOutlet reply;
  const auto once = [&] {
    try {
      serve(service, "another method" + kLong, request, reply);
      ADD_FAILURE() << "the method was found";
    } catch (const FrameworkError&) {
    }
  };
  EXPECT_GT(failEachAllocation(once, [&] { return !reply.finished; }), 5);
}

TEST(OutOfMemory, TaskThatCannotBeHandedOverIsNotRunAndTheNextOneIs) {
  std::atomic<int> ran{0};
  int handedOver = 0;
  for (int round = 0; round < 20; ++round) {  // some find an idle thread, others start one
    WorkerThreads workers;
    for (int task = 0; task < 3; ++task) {
      EXPECT_GT(failEachAllocation([&] { workers.run([&ran] { ++ran; }); }), -1);
      ++handedOver;
    }
  }
  EXPECT_EQ(ran, handedOver);
}

}  // namespace
}  // namespace agent::spf::core::internal
