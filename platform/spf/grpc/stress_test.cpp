// Calls of all kinds at once, given up, dropped and cut off at random: no wrong byte, no hang, nothing left over. Each
// run repeats itself from the seed that it prints.
#include <random>
#include <stop_token>
#include <thread>

#include "platform/spf/core/Closable.h"
#include "platform/spf/grpc/TransportsTest.h"

namespace agent::spf::testing {
namespace {

class Stress : public Transports {
 protected:
  void serveEverything() {
    service().add("echo", echo);
    service().add("wait", [](ServerCall& call) {
      std::promise<void> cancelled;
      call.onCancel([&] { cancelled.set_value(); });
      cancelled.get_future().wait();
    });
    service().add("fail", [](ServerCall& call) {
      call.reply() << "abc";
      throw std::runtime_error("it failed");
    });
    connect();
  }
};

using Random = std::mt19937;

std::size_t randomSize(Random& random) {
  return std::size_t{1} << (random() % 21U);
}

void echoWhole(core::Invokable& client, Random& random) {
  const std::string bytes = patternOf(randomSize(random), random());
  EXPECT_TRUE(call(client, "echo", bytes) == bytes);
}

void dropHalfRead(core::Invokable& client, Random& random) {
  auto reply = start(client, "echo", sourceOf(patternOf(randomSize(random))));
  const auto stream = await(reply)->getImportedIstream();
  stream->ignore(static_cast<std::streamsize>(randomSize(random) / 2));
}

void giveUpWaiting(core::Invokable& client, Random& random) {
  std::stop_source giveUp;
  auto reply = start(client, "wait", sourceOf(patternOf(randomSize(random))), {giveUp.get_token()});
  if (random() % 2U == 0)
    std::this_thread::yield();
  giveUp.request_stop();
  EXPECT_THROW(await(reply), Terminated);
}

void seeItFail(core::Invokable& client, Random& /*random*/) {
  auto reply = start(client, "fail", sourceOf(""));
  EXPECT_THROW(readAll(*await(reply)->getImportedIstream()), std::runtime_error);
}

using Action = void (*)(core::Invokable&, Random&);
constexpr Action kActions[] = {echoWhole, dropHalfRead, giveUpWaiting, seeItFail};

// Runs actions until they are done, or the connection has been closed under them.
void makeCalls(core::Invokable& client, Random random, int count) {
  try {
    for (int i = 0; i < count; ++i)
      kActions[random() % std::size(kActions)](client, random);
  } catch (const Terminated&) {  // NOLINT(bugprone-empty-catch): the other outcome there may be
  } catch (const std::exception& e) {
    ADD_FAILURE() << e.what();
  }
}

TEST_P(Stress, CallsThatEndInAllWaysAtOnceDisturbNoOther) {
  const unsigned seed = std::random_device()();
  RecordProperty("seed", std::to_string(seed));
  SCOPED_TRACE("seed " + std::to_string(seed));
  serveEverything();
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 6; ++i)
    threads.emplace_back([&, i] { makeCalls(client(), Random(seed + i), 60); });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(call(client(), "echo", std::string("next")), "next");
}

TEST_P(Stress, ConnectionThatIsClosedInTheMiddleOfItAllEndsEveryCall) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  serveEverything();
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 6; ++i)
    threads.emplace_back([&, i] { makeCalls(client(), Random(seed + i), 1'000'000); });
  call(client(), "echo", patternOf(3'000'000));
  dynamic_cast<core::Closable&>(client()).close();
  for (std::thread& thread : threads)
    thread.join();
}

INSTANTIATE_TRANSPORTS(Stress);

}  // namespace
}  // namespace agent::spf::testing
