// What every transport must do: many calls at once, slow readers, calls that are given up, connections that end.
#include <algorithm>
#include <stop_token>
#include <thread>

#include "platform/interrupt/interpreterContext.h"
#include "platform/interrupt/utInterruptState.h"
#include "platform/spf/grpc/TransportsTest.h"

namespace agent::spf::testing {
namespace {

constexpr long kMebibyte = 1L << 20;
// What a writer may be ahead of a reader that does nothing: the kernel's buffers, gRPC's window, which over TLS is
// gRPC's own estimate, a few frames. Each test writes several times as much.
constexpr long kMostAhead = 24 * kMebibyte;
constexpr long kMostAheadOverTls = 48 * kMebibyte;

class TransportsFlow : public Transports {
 protected:
  static long mostAhead() { return GetParam() == "tls" ? kMostAheadOverTls : kMostAhead; }
};

// Writes pieces for ever, counting, until the call is given up.
void produce(ServerCall& call, Probe& probe) {
  const std::string piece = patternOf(static_cast<std::size_t>(kMebibyte) / 2);
  try {
    for (;;) {
      call.reply().write(piece.data(), static_cast<long>(piece.size()));
      probe.bytes += static_cast<long>(piece.size());
    }
  } catch (const std::exception&) {
    probe.left.set_value();
    throw;
  }
}

TEST_P(TransportsFlow, SixtyFourCallsAtOnceAllEndWell) {
  auto arrived = std::make_shared<std::atomic<int>>(0);
  serve("meet", [arrived](ServerCall& call) {
    const std::string request = readAll(call.request());
    ++*arrived;
    arrived->notify_all();
    for (int count = *arrived; count < 64; count = *arrived)
      arrived->wait(count);  // every call is in its handler before the first returns
    call.reply() << request;
  });
  std::vector<core::testing::ReplyFuture> futures;
  for (std::size_t i = 0; i < 64; ++i)
    futures.push_back(start(client(), "meet", sourceOf(patternOf(1000 * i, i))));
  for (std::size_t i = 0; i < 64; ++i)
    EXPECT_TRUE(readAll(*await(futures[i])->getImportedIstream()) == patternOf(1000 * i, i)) << i;
}

TEST_P(TransportsFlow, InterruptEndsTheWaitForTheRestOfAReply) {
  std::promise<void> cancelled;
  serve("stall", [&](ServerCall& call) {
    std::promise<void> told;
    call.onCancel([&] { told.set_value(); });
    call.reply().write("first", 5).flush();
    awaitEvent(told);
    cancelled.set_value();
  });
  auto reply = openReply(client(), "stall", sourceOf(""));
  char first[5];
  reply->read(first, 5);
  EXPECT_EQ(reply->gcount(), 5);
  const foundation::usm::InterpreterContext context;
  utInterruptState::request();
  EXPECT_THROW(reply->get(), Corvane::System::InterruptException);
  reply = nullptr;
  awaitEvent(cancelled);
}

TEST_P(TransportsFlow, ThreadsThatCallOverAndOverGetTheirOwnReplies) {
  serve("echo", echo);
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (std::uint64_t thread = 0; thread < 6; ++thread)
    threads.emplace_back([&, thread] {
      for (std::uint64_t i = 0; i < 60; ++i) {
        const std::string bytes = patternOf((i % 7 == 0 ? 400'000 : 100) + i, thread * 1000 + i);
        if (call(client(), "echo", bytes) != bytes)
          ++wrong;
      }
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(wrong, 0);
}

TEST_P(TransportsFlow, QuickMethodThatOnceWaitsForAnotherCallDoesNotHoldItUp) {
  service().add("open", [probe = probe()](ServerCall&) { probe->mayGoOn.set_value(); });
  serve("quick", [open = probe()->mayGoOn.get_future().share()](ServerCall& call) {
    if (readAll(call.request()) == "wait")
      open.wait();
  });
  for (int i = 0; i < 100; ++i)
    call(client(), "quick", "");
  std::vector<core::testing::ReplyFuture> waiting;
  for (int i = 0; i < 3; ++i)
    waiting.push_back(start(client(), "quick", sourceOf("wait")));
  call(client(), "open", "");
  for (auto& reply : waiting)
    EXPECT_EQ(readAll(*await(reply)->getImportedIstream()), "");
}

TEST_P(TransportsFlow, HandlerRunsNotOnTheThreadOfACallerThatWaitsForAnotherCall) {
  serve("echo", echo);
  std::atomic<bool> enough{false};
  std::thread waiter([&] {
    while (!enough)
      call(client(), "echo", "of the waiter");
  });
  for (int i = 0; i < 300; ++i) {
    std::promise<std::thread::id> answered;
    auto where = answered.get_future();
    const auto succeed = [&](const core::GenericPayload&) { answered.set_value(std::this_thread::get_id()); };
    client().invoke({}, "echo", core::CompletionHandler(succeed, {}), core::GenericPayload(sourceOf("x")), 0);
    EXPECT_NE(await(where), waiter.get_id());
  }
  enough = true;
  waiter.join();
}

// How far a writer got whose reader does nothing, after far more time than it needs to fill every buffer on its way:
// the other calls in the meantime also show that it holds up nobody else.
long stalledAt(core::Invokable& client, const std::atomic<long>& bytes) {
  for (int i = 0; i < 20; ++i)
    call(client, "echo", patternOf(10'000'000));
  return bytes;
}

TEST_P(TransportsFlow, SlowReaderStallsTheWriterOfTheReply) {
  service().add("echo", echo);
  serve("produce", [probe = probe()](ServerCall& call) { produce(call, *probe); });
  auto reply = openReply(client(), "produce", sourceOf(""));
  long read = 0;
  std::vector<char> part(static_cast<std::size_t>(kMebibyte));
  for (int round = 0; round < 3; ++round) {
    EXPECT_LE(stalledAt(client(), probe()->bytes) - read, mostAhead());
    for (int i = 0; i < 60; ++i) {  // more than any buffer holds: the writer went on
      reply->read(part.data(), static_cast<long>(part.size()));
      read += reply->gcount();
    }
    EXPECT_GE(probe()->bytes + kMebibyte, read);
  }
  reply = nullptr;
  awaitEvent(probe()->left);
}

TEST_P(TransportsFlow, SlowHandlerStallsTheWriterOfTheRequest) {
  service().add("echo", echo);
  serve("slow", [probe = probe()](ServerCall& call) {
    awaitEvent(probe->mayGoOn);
    readAll(call.request());
  });
  constexpr long kSize = 200 * kMebibyte;
  const auto writer = [probe = probe()](std::ostream& out) {
    const std::string piece = patternOf(static_cast<std::size_t>(kMebibyte));
    for (long sent = 0; sent < kSize; sent += kMebibyte) {
      out.write(piece.data(), kMebibyte);
      probe->bytes += kMebibyte;
    }
  };
  auto future = start(client(), "slow", sourceOf(writer, kSize));
  EXPECT_LE(stalledAt(client(), probe()->bytes), mostAhead());
  probe()->mayGoOn.set_value();
  EXPECT_EQ(readAll(*await(future)->getImportedIstream()), "");
  EXPECT_EQ(probe()->bytes, kSize);
}

TEST_P(TransportsFlow, ReplyGivenUpHalfwayCancelsItsHandlerAndTheNextCallSucceeds) {
  service().add("echo", echo);
  serve("produce", [probe = probe()](ServerCall& call) {
    std::promise<void> told;
    call.onCancel([&told] { told.set_value(); });
    try {
      produce(call, *probe);
    } catch (const Terminated&) {
      awaitEvent(told);  // a handler that has left is told nothing any more
      probe->cancelled.set_value();
      throw;
    }
  });
  auto reply = openReply(client(), "produce", sourceOf(""));
  reply->ignore(1000);
  reply = nullptr;
  awaitEvent(probe()->cancelled);
  awaitEvent(probe()->left);
  EXPECT_EQ(call(client(), "echo", std::string("next")), "next");
}

TEST_P(TransportsFlow, ReplyWhoseStreamIsNeverTakenCancelsItsHandler) {
  service().add("echo", echo);
  serve("produce", [probe = probe()](ServerCall& call) { produce(call, *probe); });
  auto future = start(client(), "produce", sourceOf(""));
  await(future);
  awaitEvent(probe()->left);
  EXPECT_EQ(call(client(), "echo", std::string("next")), "next");
}

TEST_P(TransportsFlow, WaiterThatGivesUpCancelsItsHandlerAndTheNextCallSucceeds) {
  service().add("echo", echo);
  serve("silent", [probe = probe()](ServerCall& call) {
    call.onCancel([probe] { probe->cancelled.set_value(); });
    probe->entered.set_value();
    awaitEvent(probe->mayGoOn);
    EXPECT_TRUE(call.isCancelled());
    probe->left.set_value();
  });
  std::stop_source giveUp;
  auto waiting = start(client(), "silent", sourceOf("x"), {giveUp.get_token()});
  awaitEvent(probe()->entered);
  giveUp.request_stop();
  const auto chain = chainThrownBy([&] { await(waiting); });
  ASSERT_EQ(chain.size(), 1U);
  EXPECT_EQ(chain[0].kind, core::ErrorLevel::Kind::terminated);
  EXPECT_EQ(chain[0].text, "Call \"silent\" was given up by its caller.");
  awaitEvent(probe()->cancelled);
  EXPECT_EQ(call(client(), "echo", std::string("next")), "next");
  probe()->mayGoOn.set_value();
  awaitEvent(probe()->left);
}

TEST_P(TransportsFlow, UploadThatIsGivenUpEndsAndTheNextCallSucceeds) {
  service().add("echo", echo);
  serve("deaf", [probe = probe()](ServerCall&) { awaitEvent(probe->mayGoOn); });
  std::stop_source giveUp;
  std::promise<void> ended;
  const auto endless = [&](std::ostream& out) {
    try {
      for (;;)
        out << patternOf(1'000'000) << std::flush;
    } catch (const std::exception&) {
      ended.set_value();
      throw;
    }
  };
  auto waiting = start(client(), "deaf", sourceOf(endless, 1L << 40), {giveUp.get_token()});
  giveUp.request_stop();
  EXPECT_THROW(await(waiting), Terminated);
  awaitEvent(ended);
  EXPECT_EQ(call(client(), "echo", std::string("next")), "next");
  probe()->mayGoOn.set_value();
}

TEST_P(TransportsFlow, CallThatIsGivenUpBeforeItBeginsIsNotHeldUp) {
  serve("echo", echo);
  std::stop_source giveUp;
  giveUp.request_stop();
  auto waiting = start(client(), "echo", sourceOf("x"), {giveUp.get_token()});
  EXPECT_THROW(await(waiting), Terminated);
  EXPECT_EQ(call(client(), "echo", std::string("next")), "next");
}

TEST_P(TransportsFlow, GivingUpAfterTheReplyHasBegunHasNoEffect) {
  serve("echo", echo);
  std::stop_source giveUp;
  const std::string bytes = patternOf(5'000'000);
  auto waiting = start(client(), "echo", sourceOf(bytes), {giveUp.get_token()});
  const auto reply = await(waiting)->getImportedIstream();
  giveUp.request_stop();
  EXPECT_TRUE(readAll(*reply) == bytes);
}

TEST_P(TransportsFlow, CancelledHandlerSeesItAndIsToldOnce) {
  auto told = std::make_shared<std::atomic<int>>(0);
  serve("wait", [probe = probe(), told](ServerCall& call) {
    call.onCancel([told, probe] {
      if (++*told == 1)
        probe->cancelled.set_value();
    });
    call.reply() << "x" << std::flush;
    awaitEvent(probe->cancelled);
    EXPECT_TRUE(call.isCancelled());
    int late = 0;
    call.onCancel([&late] { ++late; });  // it has happened: at once
    EXPECT_EQ(late, 1);
    EXPECT_THROW(call.reply() << patternOf(10'000'000), Terminated);
    probe->left.set_value();
  });
  auto reply = openReply(client(), "wait", sourceOf(""));
  EXPECT_EQ(reply->get(), 'x');
  reply = nullptr;
  awaitEvent(probe()->left);
  disconnect();
  EXPECT_EQ(*told, 1);
}

TEST_P(TransportsFlow, HandlerWaitingForItsRequestIsWokenByTheCancel) {
  serve("read", [probe = probe()](ServerCall& call) {
    try {
      call.reply() << "x" << std::flush;
      readAll(call.request());
    } catch (const std::exception&) {
      probe->left.set_value();
      throw;
    }
  });
  const auto writer = [probe = probe()](std::ostream& out) {
    out << "first" << std::flush;
    awaitEvent(probe->mayGoOn);
    out << "never read";
  };
  auto reply = openReply(client(), "read", sourceOf(writer, 100'000));
  EXPECT_EQ(reply->get(), 'x');
  reply = nullptr;
  awaitEvent(probe()->left);
  probe()->mayGoOn.set_value();
}

TEST_P(TransportsFlow, CallbackTakenBackIsNotRun) {
  auto told = std::make_shared<std::atomic<int>>(0);
  serve("wait", [probe = probe(), told](ServerCall& call) {
    call.onCancel([told] { ++*told; });
    call.onCancel(nullptr);
    produce(call, *probe);
  });
  openReply(client(), "wait", sourceOf(""));
  awaitEvent(probe()->left);
  disconnect();
  EXPECT_EQ(*told, 0);
}

TEST_P(TransportsFlow, ClosingTheConnectionTerminatesWaitersAndReaders) {
  service().add("produce", [probe = probe()](ServerCall& call) { produce(call, *probe); });
  serve("silent", [probe = probe()](ServerCall& call) {
    call.onCancel([probe] { probe->cancelled.set_value(); });
    probe->entered.set_value();
    awaitEvent(probe->cancelled);
  });
  auto waiting = start(client(), "silent", sourceOf(""));
  awaitEvent(probe()->entered);
  const auto reading = openReply(client(), "produce", sourceOf(""));
  disconnect();
  EXPECT_THROW(await(waiting), Terminated);
  EXPECT_THROW(readAll(*reading), Terminated);
}

TEST_P(TransportsFlow, ConnectionMayBeLetGoInsideACompletionHandler) {
  serve("echo", echo);
  auto held = std::make_shared<std::shared_ptr<core::Invokable>>();
  std::promise<void> answered;
  core::CompletionHandler handler(
      [held, &answered](core::GenericPayload) {
        *held = nullptr;
        answered.set_value();
      },
      [](const std::exception_ptr&) {});
  core::Invokable& invokable = client();
  *held = takeClient();
  invokable.invoke({}, "echo", std::move(handler), core::GenericPayload(sourceOf("x")), 0);
  awaitEvent(answered);
}

INSTANTIATE_TRANSPORTS(TransportsFlow);

// The rest needs a server of its own.
class TransportsServer : public Transports {};

TEST_P(TransportsServer, StoppingTheServiceTerminatesCallsUnderWayAndLaterOnes) {
  std::promise<void> disconnected;
  setOnDisconnect([&] { disconnected.set_value(); });
  service().add("produce", [probe = probe()](ServerCall& call) { produce(call, *probe); });
  serve("silent", [probe = probe()](ServerCall& call) {
    call.onCancel([probe] { probe->cancelled.set_value(); });
    probe->entered.set_value();
    awaitEvent(probe->cancelled);
  });
  auto waiting = start(client(), "silent", sourceOf(""));
  awaitEvent(probe()->entered);
  const auto reading = openReply(client(), "produce", sourceOf(""));
  const std::string where = address();
  stopServer();
  const auto chain = chainThrownBy([&] { await(waiting); });
  ASSERT_EQ(chain.size(), 1U);
  EXPECT_EQ(chain[0].kind, core::ErrorLevel::Kind::terminated);
  EXPECT_THAT(chain[0].text, HasSubstr(where));
  EXPECT_THROW(readAll(*reading), Terminated);
  EXPECT_THROW(call(client(), "silent", std::string()), Terminated);
  awaitEvent(disconnected);
}

TEST_P(TransportsServer, IdleConnectionLearnsThatTheServiceEnded) {
  std::promise<void> disconnected;
  setOnDisconnect([&] {
    disconnect();  // as an owner does that empties its record: the last reference goes on a framework's thread
    disconnected.set_value();
  });
  serve("echo", echo);
  EXPECT_EQ(call(client(), "echo", std::string("x")), "x");
  stopServer();
  awaitEvent(disconnected);
}

INSTANTIATE_TEST_SUITE_P(All, TransportsServer, ::testing::Values("unix", "tcp"), nameOfTransport);

}  // namespace
}  // namespace agent::spf::testing
