// Whole calls inside the process, with their first, second, ... allocation failing on whatever thread it is made: the
// caller's, the handler's or the one that writes the request. Each call ends, whole or with an error, and the next one
// on the same connection succeeds. A leak would be reported by the leak sanitizer.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <future>
#include <memory>
#include <new>
#include <stop_token>
#include <string>
#include <tuple>
#include <utility>

#include "platform/errors/RemoteException.h"
#include "platform/spf/core/Closable.h"
#include "platform/spf/core/errorChain.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/core/internal/testCalls.h"
#include "platform/spf/inprocess/connectInProcess.h"
#include "tests/allocation/allocationHooks.h"

namespace agent::spf {
namespace {

using allocation_testing::FailingAllocation;
using core::ServerCall;
using core::testing::await;
using core::testing::patternOf;
using core::testing::readAll;
using core::testing::sourceOf;

// More than the core lends without a copy, and more than one piece of a pipe.
constexpr std::size_t kLarge = 300'000;

void echo(ServerCall& call) {
  call.reply() << readAll(call.request());
}

// Throws as a method does that says what it was about, and why it failed.
void fail(ServerCall& /*call*/) {
  try {
    throw RemoteException("parallel:cluster", "NotThere", "the inner text, which is not a short one");
  } catch (const std::exception&) {
    std::throw_with_nested(std::runtime_error("the outer text, which is not a short one"));
  }
}

// Replies with its first byte and waits until nobody wants the rest.
void stall(ServerCall& call) {
  std::promise<void> cancelled;
  std::future<void> future = cancelled.get_future();
  call.onCancel([&cancelled] { cancelled.set_value(); });
  call.reply() << "x" << std::flush;
  await(future);
}

// As above, without any reply.
void keepWaiting(ServerCall& call) {
  std::promise<void> cancelled;
  std::future<void> future = cancelled.get_future();
  call.onCancel([&cancelled] { cancelled.set_value(); });
  await(future);
}

std::shared_ptr<core::Service> exampleService() {
  auto service = std::make_shared<core::Service>();
  service->add("echo", echo);
  service->add("fail", fail);
  service->add("stall", stall);
  service->add("keepWaiting", keepWaiting);
  service->limitRequests({1'000'000, "some option"});
  return service;
}

// An error that may come of a failed allocation: one that says so, or that the call broke off for it.
bool isOfMemory(const std::exception_ptr& error) {
  const core::ErrorChain chain = core::flattenErrorChain(error);
  return std::any_of(chain.begin(), chain.end(), [](const core::ErrorLevel& level) {
    return level.text == std::bad_alloc().what() || level.kind == core::ErrorLevel::Kind::terminated;
  });
}

// What `action` throws, null for nothing, with the allocation of this number failing; whether there were that many.
std::pair<std::exception_ptr, bool> outcomeOf(const std::function<void()>& action, int number) {
  const FailingAllocation failing(number);
  std::exception_ptr thrown;
  try {
    action();
  } catch (...) {
    thrown = std::current_exception();
  }
  return {thrown, failing.happened()};
}

std::string textOf(const std::exception_ptr& error) {
  return core::summaryOf(core::flattenErrorChain(error), 1000);
}

using Action = std::function<void(core::Invokable&)>;

// `action` makes a call and throws unless its outcome is the right one. Returns how many allocations there are.
int failEachAllocationOfCalls(const Action& action) {
  const auto service = exampleService();
  for (int number = 0; number < 10'000; ++number) {
    const auto client = inprocess::connectInProcess(service);
    const auto [thrown, failed] = outcomeOf([&] { action(*client); }, number);
    if (!failed) {
      EXPECT_EQ(thrown, nullptr) << "without any failure: " << textOf(thrown);
      return number;
    }
    EXPECT_TRUE(thrown == nullptr || isOfMemory(thrown)) << "allocation " << number << ": " << textOf(thrown);
    EXPECT_EQ(core::testing::call(*client, "echo", std::string("next")), "next") << "allocation " << number;
  }
  ADD_FAILURE() << "the allocations do not end";
  return 0;
}

class Wrong : public std::exception {
 public:
  const char* what() const noexcept override { return "not what was expected"; }
};

void require(bool condition) {
  if (!condition)
    throw Wrong();
}

TEST(OutOfMemory, SmallCallIsAnsweredWholeOrFails) {
  const std::string bytes = patternOf(100);
  const auto action = [&](core::Invokable& client) { require(core::testing::call(client, "echo", bytes) == bytes); };
  EXPECT_GT(failEachAllocationOfCalls(action), 20);
}

TEST(OutOfMemory, LargeCallIsAnsweredWholeOrFails) {
  const std::string bytes = patternOf(kLarge);
  const auto action = [&](core::Invokable& client) { require(core::testing::call(client, "echo", bytes) == bytes); };
  EXPECT_GT(failEachAllocationOfCalls(action), 20);
}

TEST(OutOfMemory, CallWithBytesIsAnsweredOrFails) {
  const std::string bytes = patternOf(kLarge);
  EXPECT_GT(
      failEachAllocationOfCalls([&](core::Invokable& client) { core::testing::callWithBytes(client, "echo", bytes); }),
      20);
}

TEST(OutOfMemory, ErrorOfTheHandlerArrivesAsItIsOrAsALackOfMemory) {
  const auto action = [](core::Invokable& client) {
    try {
      core::testing::call(client, "fail", patternOf(100));
    } catch (const std::runtime_error&) {
      const core::ErrorChain chain = core::flattenErrorChain(std::current_exception());
      if (chain.size() == 2 && chain[0].text == "the outer text, which is not a short one" &&
          chain[1].name == "NotThere")
        return;
      throw;
    }
    throw Wrong();
  };
  EXPECT_GT(failEachAllocationOfCalls(action), 20);
}

TEST(OutOfMemory, CallThatTheFrameworkRefusesFailsAllTheSame) {
  const auto action = [](core::Invokable& client) {
    try {
      core::testing::call(client, "noSuchMethod", patternOf(100));
    } catch (const FrameworkError&) {
      return;
    }
    throw Wrong();
  };
  EXPECT_GT(failEachAllocationOfCalls(action), 20);
}

TEST(OutOfMemory, WriterThatFailsFailsTheCall) {
  const auto action = [](core::Invokable& client) {
    const auto writer = [](std::ostream& out) {
      out << patternOf(1000) << std::flush;
      throw std::range_error("the writer has no more, which it says at length");
    };
    try {
      core::testing::call(client, "echo", sourceOf(writer, 10'000));
    } catch (const std::range_error&) {
      return;
    }
    throw Wrong();
  };
  EXPECT_GT(failEachAllocationOfCalls(action), 20);
}

TEST(OutOfMemory, ReplyThatIsAbandonedEndsItsHandler) {
  const auto action = [](core::Invokable& client) {
    const auto reply = core::testing::openReply(client, "stall", sourceOf(patternOf(kLarge)));
    require(reply->get() == 'x');
  };
  EXPECT_GT(failEachAllocationOfCalls(action), 20);
}

TEST(OutOfMemory, CallThatIsGivenUpEndsItsHandler) {
  const auto action = [](core::Invokable& client) {
    std::stop_source giveUp;
    auto waiting = core::testing::start(client, "keepWaiting", sourceOf(patternOf(kLarge)), {giveUp.get_token()});
    giveUp.request_stop();
    try {
      await(waiting);
    } catch (const Terminated&) {
      return;
    }
    throw Wrong();
  };
  EXPECT_GT(failEachAllocationOfCalls(action), 20);
}

// The connection's end waits for the handlers: it would not come if one of them had not been told.
TEST(OutOfMemory, ConnectionThatIsClosedEndsItsCalls) {
  const auto service = exampleService();
  int number = 0;
  for (bool failed = true; failed; ++number) {
    const auto client = inprocess::connectInProcess(service);
    const auto callAndClose = [&] {
      auto waiting = core::testing::start(*client, "keepWaiting", sourceOf(patternOf(kLarge)));
      dynamic_cast<core::Closable&>(*client).close();
      await(waiting);
    };
    std::exception_ptr thrown;
    std::tie(thrown, failed) = outcomeOf(callAndClose, number);
    EXPECT_TRUE(isOfMemory(thrown)) << "allocation " << number << ": " << textOf(thrown);
  }
  EXPECT_GT(number, 20);
}

}  // namespace
}  // namespace agent::spf
