// What every transport must do when its connection is closed while calls are under way and others still hold it.
#include <thread>

#include "platform/spf/core/Closable.h"
#include "platform/spf/grpc/TransportsTest.h"

namespace agent::spf::testing {
namespace {

class TransportsClose : public Transports {
 protected:
  // Writes for ever, and tells when the call's end has reached it.
  void addProduce() {
    service().add("produce", [probe = probe()](ServerCall& call) {
      call.onCancel([probe] { probe->cancelled.set_value(); });
      const std::string piece = patternOf(500'000);
      try {
        for (;;)
          call.reply() << piece;
      } catch (const Terminated&) {
        awaitEvent(probe->cancelled);
        probe->left.set_value();
        throw;
      }
    });
  }

  // Says nothing until the call is given up.
  void addSilent() {
    service().add("silent", [probe = probe()](ServerCall& call) {
      call.onCancel([probe] { probe->cancelled.set_value(); });
      probe->entered.set_value();
      awaitEvent(probe->cancelled);
      probe->left.set_value();
    });
  }

  void close() { dynamic_cast<core::Closable&>(client()).close(); }
};

TEST_P(TransportsClose, EndsACallThatWaits) {
  addSilent();
  connect();
  auto waiting = start(client(), "silent", sourceOf("request"));
  awaitEvent(probe()->entered);
  close();
  EXPECT_THROW(await(waiting), Terminated);
  awaitEvent(probe()->left);
}

TEST_P(TransportsClose, EndsACallThatWaitsWithBytes) {
  addSilent();
  connect();
  auto promise = std::make_shared<std::promise<void>>();
  auto waiting = promise->get_future();
  client().invoke({}, "silent", core::promiseCompletingHandler<void>(std::move(promise)),
                  core::GenericPayload(std::make_shared<std::string>("request")), 0);
  awaitEvent(probe()->entered);
  close();
  EXPECT_THROW(await(waiting), Terminated);
  awaitEvent(probe()->left);
}

TEST_P(TransportsClose, EndsACallThatUploads) {
  addSilent();
  connect();
  auto stopped = std::make_shared<std::promise<void>>();
  const auto writer = [stopped](std::ostream& out) {
    const std::string piece = patternOf(1'000'000);
    try {
      for (;;)
        out << piece;
    } catch (const Terminated&) {
      stopped->set_value();
      throw;
    }
  };
  auto uploading = start(client(), "silent", sourceOf(writer, 1L << 50));
  awaitEvent(probe()->entered);
  close();
  EXPECT_THROW(await(uploading), Terminated);
  awaitEvent(*stopped);
  awaitEvent(probe()->left);
}

TEST_P(TransportsClose, EndsAReplyThatIsReadAllTheTime) {
  addProduce();
  connect();
  const auto reply = openReply(client(), "produce", sourceOf(""));
  std::promise<void> underWay;
  std::thread reader([&] {
    reply->ignore(3'000'000);
    underWay.set_value();
    EXPECT_THROW(readAll(*reply), Terminated);
  });
  awaitEvent(underWay);
  close();
  reader.join();
  awaitEvent(probe()->left);
}

// The reader has stopped halfway through a piece that the handler wrote.
TEST_P(TransportsClose, CancelsAReplyThatIsHeldHalfReadWhoseReaderThenGetsTerminated) {
  addProduce();
  connect();
  const auto reply = openReply(client(), "produce", sourceOf(""));
  reply->ignore(100'001);
  close();
  awaitEvent(probe()->left);
  EXPECT_THROW(readAll(*reply), Terminated);
}

TEST_P(TransportsClose, EndOfTheConnectionCancelsAReplyThatIsHeldHalfRead) {
  addProduce();
  connect();
  const auto reply = openReply(client(), "produce", sourceOf(""));
  reply->ignore(100'001);
  disconnect();
  awaitEvent(probe()->left);
  EXPECT_THROW(readAll(*reply), Terminated);
}

TEST_P(TransportsClose, EndOfTheConnectionCancelsAReplyWhoseReaderStoppedAfterOneCharacter) {
  addProduce();
  connect();
  const auto reply = openReply(client(), "produce", sourceOf(""));
  reply->get();
  disconnect();
  awaitEvent(probe()->left);
  EXPECT_THROW(readAll(*reply), Terminated);
}

TEST_P(TransportsClose, ReplyMayBeDroppedAfterTheConnection) {
  addProduce();
  connect();
  auto reply = openReply(client(), "produce", sourceOf(""));
  reply->ignore(100'001);
  disconnect();
  reply = nullptr;
  awaitEvent(probe()->left);
}

TEST_P(TransportsClose, LaterCallsOfBothKindsAreTerminated) {
  serve("echo", echo);
  EXPECT_EQ(call(client(), "echo", std::string("x")), "x");
  close();
  EXPECT_THROW(call(client(), "echo", std::string("x")), Terminated);
  EXPECT_THROW(call(client(), "echo", patternOf(1'000'000)), Terminated);
  EXPECT_THROW(core::testing::callWithBytes(client(), "echo", "x"), Terminated);
}

TEST_P(TransportsClose, AgainHasNoEffect) {
  serve("echo", echo);
  EXPECT_EQ(call(client(), "echo", std::string("x")), "x");
  close();
  close();
  EXPECT_THROW(call(client(), "echo", std::string("x")), Terminated);
}

TEST_P(TransportsClose, IsNotADisconnect) {
  auto told = std::make_shared<std::atomic<int>>(0);
  setOnDisconnect([told] { ++*told; });
  serve("echo", echo);
  EXPECT_EQ(call(client(), "echo", std::string("x")), "x");
  close();
  disconnect();  // waits for whatever it might have run
  EXPECT_EQ(*told, 0);
}

TEST_P(TransportsClose, MayHappenInsideACompletionHandler) {
  serve("echo", echo);
  std::promise<void> answered;
  core::CompletionHandler handler(
      [&](core::GenericPayload) {
        close();
        answered.set_value();
      },
      [](const std::exception_ptr&) {});
  client().invoke({}, "echo", std::move(handler), core::GenericPayload(sourceOf("x")), 0);
  awaitEvent(answered);
  EXPECT_THROW(call(client(), "echo", std::string("x")), Terminated);
}

// Wherever a call is when its connection is closed, it ends: with its reply or with Terminated.
TEST_P(TransportsClose, AmidCallsThatStartEndsThemAll) {
  service().add("echo", echo);
  for (int round = 0; round < 20; ++round) {
    connect();
    std::atomic<int> answered{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
      threads.emplace_back([&, thread] {
        const std::string bytes = patternOf(thread % 2 == 0 ? 10 : 300'000);
        try {
          for (;;) {
            EXPECT_TRUE(call(client(), "echo", bytes) == bytes);
            ++answered;
            answered.notify_all();
          }
        } catch (const Terminated&) {
        }
      });
    for (int count = answered; count < round; count = answered)
      answered.wait(count);
    close();
    for (std::thread& thread : threads)
      thread.join();
    disconnect();
    stopServer();
  }
}

INSTANTIATE_TRANSPORTS(TransportsClose);

}  // namespace
}  // namespace agent::spf::testing
