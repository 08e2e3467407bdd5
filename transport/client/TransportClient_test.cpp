#include "transport/client/TransportClient.h"

#include <gtest/gtest.h>

#include <future>
#include <ios>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/spf/core/errors.h"
#include "transport/client/testing/FakeInvokable.h"
#include "transport/data/testing/LogCapture.h"
#include "transport/data/testing/arrays.h"
#include "transport/data/testing/framing.h"

namespace parallel::spf::transport {
namespace {

using agent::spf::core::CompletionHandler;
using agent::spf::core::ExportedDataSource;
using agent::spf::core::GenericPayload;
using agent::spf::core::ImportedDataSource;
using testing::Bytes;
using testing::bytesOf;
using testing::FakeInvokable;
using testing::FakeReply;
using testing::LogCapture;
using testing::ReceivedCall;

InputPayload payloadOf(const std::string& content) {
  return InputPayload({SerializableData::createPlain(testing::byteColumn(bytesOf(content)))});
}

InputPayload payloadOfMissingFile() {
  return InputPayload({SerializableData::createFile(qxCreateString(u"/nonexistent/file"))});
}

std::string textOf(const Bytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

bool isEmpty(const InputPayload& payload) {
  return testing::serialized(payload).bytes == Bytes(5);
}

GenericPayload replyOf(const std::vector<Bytes>& contents) {
  return testing::replyPayload(std::make_shared<FakeReply>(testing::container(contents)));
}

class TransportClientTest : public ::testing::Test {
 protected:
  explicit TransportClientTest(std::function<void(ReceivedCall&)> onInvoke = {})
      : service_(std::make_shared<FakeInvokable>(std::move(onInvoke))),
        record_(std::make_shared<ConnectionRecord>()),
        client_(record_) {
    record_->invokable = service_;
  }

  std::shared_ptr<FakeInvokable> service_;
  std::shared_ptr<ConnectionRecord> record_;
  TransportClient client_;
};

// --- The connection ---

TEST_F(TransportClientTest, GetInvokableGivesTheRecordsOwn) {
  EXPECT_EQ(client_.getInvokable(), service_);
}

TEST_F(TransportClientTest, StaleRecordIsUnreachableFromEveryOperationAndLoggedOnceACall) {
  record_->invokable = nullptr;
  const std::vector<std::function<void()>> operations{
      [&] { client_.getInvokable(); }, [&] { client_.invokeMethod("echo", payloadOf("abc")); },
      [&] { client_.invokeMethod("echo", std::string("abc")); },
      [&] { client_.invokeMethodAsync("echo", payloadOf("abc"), CompletionHandler()); }};
  for (const auto& operation : operations) {
    const LogCapture log(8);
    try {
      operation();
      FAIL() << "there is no connection";
    } catch (const Exception<cluster::ZKSUnreachable>& error) {
      EXPECT_EQ(error.component(), "parallel:cluster");
      EXPECT_EQ(error.name(), "ZKSUnreachable");
    }
    EXPECT_EQ(log.texts(), (std::vector<std::string>{"TransportClient tried to use a stale Invokable"}));
    EXPECT_TRUE(record_->mutex.try_lock()) << "the lock was not released";
    record_->mutex.unlock();
  }
  EXPECT_EQ(service_->waiting(), 0U);
}

TEST_F(TransportClientTest, StaleRecordIsNotLoggedWhenTheLevelIsOff) {
  record_->invokable = nullptr;
  const LogCapture log(~8U);
  EXPECT_THROW(client_.getInvokable(), IException);
  EXPECT_TRUE(log.records().empty());
}

TEST_F(TransportClientTest, CopiesShareTheRecord) {
  const TransportClient copy = client_;  // NOLINT(performance-unnecessary-copy-initialization)
  record_->invokable = nullptr;
  EXPECT_THROW(copy.getInvokable(), Exception<cluster::ZKSUnreachable>);
}

// --- What is logged of a call ---

TEST_F(TransportClientTest, EveryCallIsLoggedByItsMethodBeforeTheConnectionIsLookedAt) {
  record_->invokable = nullptr;
  const LogCapture log(2 | 8);
  EXPECT_ANY_THROW(client_.invokeMethod("first", payloadOf("")));
  EXPECT_ANY_THROW(client_.invokeMethod("second", std::string()));
  EXPECT_ANY_THROW(client_.invokeMethodAsync("third", payloadOf(""), CompletionHandler()));
  const std::string stale = "TransportClient tried to use a stale Invokable";
  EXPECT_EQ(log.texts(), (std::vector<std::string>{" methodName=first", stale, " methodName=second", stale,
                                                   " methodName=third", stale}));
  EXPECT_EQ(log.records()[0].level, 2U);
}

TEST_F(TransportClientTest, CallIsNotLoggedWhenTheLevelIsOff) {
  const LogCapture log(~2U);
  client_.invokeMethodAsync("echo", payloadOf(""), CompletionHandler());
  EXPECT_EQ(service_->waiting(), 1U);
  EXPECT_TRUE(log.records().empty());
}

// --- Payload calls ---

class AnsweringService : public TransportClientTest {
 protected:
  AnsweringService() : TransportClientTest([](ReceivedCall& call) { call.handler.succeed(replyOf({{}, {}})); }) {}
};

TEST_F(AnsweringService, RequestIsThePayloadsContainerWithItsSize) {
  client_.invokeMethod("someMethod", payloadOf("abc"));
  const ReceivedCall call = service_->take();
  EXPECT_EQ(call.method, "someMethod");
  EXPECT_EQ(call.tag.high, 0U);
  EXPECT_EQ(call.tag.low, 0U);
  EXPECT_EQ(call.flags, 0);
  ASSERT_EQ(call.request.size(), 1U);
  const std::string expected = textOf(testing::container({bytesOf("abc")}));
  EXPECT_EQ(call.request.getValueAsPointer<ExportedDataSource>(0)->size(), static_cast<long>(expected.size()));
  EXPECT_EQ(call.exportedBytes(), expected);
}

TEST_F(AnsweringService, PayloadIsEmptyAfterwards) {
  InputPayload payload = payloadOf("abc");
  client_.invokeMethod("echo", std::move(payload));
  EXPECT_TRUE(isEmpty(payload));  // NOLINT(bugprone-use-after-move): what is being tested
  payload = payloadOf("abc");
  client_.invokeMethodAsync("echo", std::move(payload), CompletionHandler([](const GenericPayload&) {}, {}));
  EXPECT_TRUE(isEmpty(payload));  // NOLINT(bugprone-use-after-move): what is being tested
}

TEST(TransportClientReply, ItemsComeOutOfTheRepliesBytes) {
  const auto reply = std::make_shared<FakeReply>(
      testing::container({testing::replyPlain(bytesOf("first")), testing::replyPlain(bytesOf("second"))}));
  const auto service =
      std::make_shared<FakeInvokable>([&](ReceivedCall& call) { call.handler.succeed(testing::replyPayload(reply)); });
  const auto record = std::make_shared<ConnectionRecord>();
  record->invokable = service;

  const auto items = TransportClient(record).invokeMethod("echo", payloadOf("")).getDeserializableData();
  ASSERT_EQ(items.size(), 2U);
  EXPECT_EQ(testing::bytesOfArray(items[0]->deserializePlain().get()), bytesOf("first"));
  EXPECT_EQ(testing::bytesOfArray(items[1]->deserializePlain().get()), bytesOf("second"));
  EXPECT_EQ(reply->istreams, 1);
}

TEST(TransportClientReply, SourceIsReleasedAndItsStreamKept) {
  std::weak_ptr<FakeReply> watched;
  const auto service = std::make_shared<FakeInvokable>([&](ReceivedCall& call) {
    auto reply = std::make_shared<FakeReply>(testing::container({testing::replyPlain(bytesOf("abc"))}));
    watched = reply;
    call.handler.succeed(testing::replyPayload(std::move(reply)));
  });
  const auto record = std::make_shared<ConnectionRecord>();
  record->invokable = service;
  const OutputPayload output = TransportClient(record).invokeMethod("echo", payloadOf(""));
  service->take();  // and with it the handler, the promise's other owner
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(testing::bytesOfArray(output.getDeserializableData()[0]->deserializePlain().get()), bytesOf("abc"));
}

TEST_F(TransportClientTest, InvokableIsReleasedWhileTheCallWaits) {
  std::future<OutputPayload> output =
      std::async(std::launch::async, [&] { return client_.invokeMethod("echo", payloadOf("abc")); });
  ReceivedCall call = service_->take();
  const std::weak_ptr<FakeInvokable> watched = service_;
  {
    const std::lock_guard lock(record_->mutex);
    record_->invokable.reset();
  }
  service_.reset();
  // invoke() has handed the call over, but may not have returned yet.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!watched.expired() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::yield();
  EXPECT_TRUE(watched.expired());
  call.handler.succeed(replyOf({{}}));
  EXPECT_EQ(output.get().getDeserializableData().size(), 1U);
}

TEST(TransportClientLock, IsFreeDuringInvoke) {
  const auto record = std::make_shared<ConnectionRecord>();
  bool wasFree = false;
  record->invokable = std::make_shared<FakeInvokable>([&](ReceivedCall& call) {
    wasFree = std::async(std::launch::async, [&] {
                const bool locked = record->mutex.try_lock();
                if (locked)
                  record->mutex.unlock();
                return locked;
              }).get();
    call.handler.succeed(replyOf({}));
  });
  TransportClient(record).invokeMethod("echo", payloadOf(""));
  EXPECT_TRUE(wasFree);
}

TEST_F(TransportClientTest, ThreadsMayShareOneClient) {
  constexpr int kCallers = 4;
  std::vector<std::future<std::size_t>> callers;
  for (int i = 1; i <= kCallers; ++i) {
    callers.push_back(std::async(std::launch::async, [&, i] {
      return client_.invokeMethod(std::to_string(i), payloadOf("")).getDeserializableData().size();
    }));
  }
  for (int i = 0; i < kCallers; ++i) {
    ReceivedCall call = service_->take();
    call.handler.succeed(replyOf(std::vector<Bytes>(std::stoul(call.method))));
  }
  for (std::size_t i = 0; i < callers.size(); ++i)
    EXPECT_EQ(callers[i].get(), i + 1);
}

// --- Failures of payload calls ---

struct OddError : std::logic_error {
  using std::logic_error::logic_error;
};

TEST_F(TransportClientTest, ErrorOfTheServiceIsTheVeryObjectThatWasStored) {
  const std::exception_ptr stored = std::make_exception_ptr(OddError("odd"));
  const void* storedObject = nullptr;
  try {
    std::rethrow_exception(stored);
  } catch (const OddError& error) {
    storedObject = &error;
  }
  const auto expectStored = [&](const std::function<void()>& operation) {
    std::future<void> caller = std::async(std::launch::async, operation);
    service_->take().handler.fail(stored);
    try {
      caller.get();
      FAIL() << "no error";
    } catch (const OddError& error) {
      EXPECT_EQ(&error, storedObject);
    }
  };
  InputPayload payload = payloadOf("abc");
  expectStored([&] { client_.invokeMethod("echo", std::move(payload)); });
  EXPECT_TRUE(isEmpty(payload));  // NOLINT(bugprone-use-after-move): what is being tested
  expectStored([&] { client_.invokeMethod("echo", std::string("abc")); });
}

TEST_F(TransportClientTest, PayloadIsEmptyAfterAStaleConnectionToo) {
  record_->invokable = nullptr;
  InputPayload payload = payloadOf("abc");
  EXPECT_ANY_THROW(client_.invokeMethod("echo", std::move(payload)));
  EXPECT_TRUE(isEmpty(payload));  // NOLINT(bugprone-use-after-move): what is being tested
  payload = payloadOf("abc");
  EXPECT_ANY_THROW(client_.invokeMethodAsync("echo", std::move(payload), CompletionHandler()));
  EXPECT_TRUE(isEmpty(payload));  // NOLINT(bugprone-use-after-move): what is being tested
}

class RefusingService : public TransportClientTest {
 protected:
  RefusingService() : TransportClientTest([](ReceivedCall&) { throw OddError("refused"); }) {}
};

TEST_F(RefusingService, ErrorOfInvokePassesUnchangedFromEveryForm) {
  InputPayload payload = payloadOf("abc");
  EXPECT_THROW(client_.invokeMethod("echo", std::move(payload)), OddError);
  EXPECT_TRUE(isEmpty(payload));  // NOLINT(bugprone-use-after-move): what is being tested
  payload = payloadOf("abc");
  EXPECT_THROW(client_.invokeMethodAsync("echo", std::move(payload), CompletionHandler()), OddError);
  EXPECT_TRUE(isEmpty(payload));  // NOLINT(bugprone-use-after-move): what is being tested
  EXPECT_THROW(client_.invokeMethod("echo", std::string()), OddError);
}

TEST_F(TransportClientTest, PayloadThatCannotBeSerializedIsNotSent) {
  InputPayload payload = payloadOfMissingFile();
  EXPECT_THROW(client_.invokeMethod("echo", std::move(payload)), std::ios_base::failure);
  EXPECT_TRUE(isEmpty(payload));  // NOLINT(bugprone-use-after-move): what is being tested
  payload = payloadOfMissingFile();
  EXPECT_THROW(client_.invokeMethodAsync("echo", std::move(payload), CompletionHandler()), std::ios_base::failure);
  EXPECT_TRUE(isEmpty(payload));  // NOLINT(bugprone-use-after-move): what is being tested
  EXPECT_EQ(service_->waiting(), 0U);
}

// --- A handler that the framework drops ---

class DroppingService : public TransportClientTest {
 protected:
  DroppingService()
      : TransportClientTest([](ReceivedCall& call) { const CompletionHandler dropped = std::move(call.handler); }) {}

  static void expectBrokenPromise(const std::function<void()>& operation) {
    try {
      operation();
      FAIL() << "nobody answered";
    } catch (const std::future_error& error) {
      EXPECT_EQ(error.code(), std::future_errc::broken_promise);
    }
  }
};

TEST_F(DroppingService, EndsTheWaitOfAPayloadCall) {
  expectBrokenPromise([&] { client_.invokeMethod("echo", payloadOf("abc")); });
}

TEST_F(DroppingService, EndsTheWaitOfAStringCall) {
  expectBrokenPromise([&] { client_.invokeMethod("echo", std::string("abc")); });
}

TEST_F(TransportClientTest, HandlerDroppedWhileTheCallWaitsEndsTheWait) {
  const std::vector<std::function<void()>> operations{[&] { client_.invokeMethod("echo", payloadOf("abc")); },
                                                      [&] { client_.invokeMethod("echo", std::string("abc")); }};
  for (const auto& operation : operations) {
    std::future<void> caller = std::async(std::launch::async, operation);
    { const ReceivedCall dropped = service_->take(); }
    EXPECT_THROW(caller.get(), std::future_error);
  }
}

// --- Replies that are not right ---

TEST_F(TransportClientTest, MalformedReplyPassesTheContainersError) {
  std::future<void> caller = std::async(std::launch::async, [&] { client_.invokeMethod("echo", payloadOf("")); });
  service_->take().handler.succeed(testing::replyPayload(std::make_shared<FakeReply>(Bytes(4))));
  try {
    caller.get();
    FAIL() << "a head has five bytes";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Byte stream did not have enough bytes for deserializing type");
  }
}

TEST_F(TransportClientTest, ReplyWithoutDataPassesTheFrameworksError) {
  std::future<void> caller = std::async(std::launch::async, [&] { client_.invokeMethod("echo", payloadOf("")); });
  service_->take().handler.succeed(GenericPayload());
  EXPECT_THROW(caller.get(), agent::spf::FrameworkError);
}

// --- String calls ---

TEST_F(TransportClientTest, StringGoesOutAsACopyOfItsBytes) {
  const std::string bytes("a\0b", 3);
  std::future<void> caller = std::async(std::launch::async, [&] { client_.invokeMethod("someMethod", bytes); });
  ReceivedCall call = service_->take();
  EXPECT_EQ(call.method, "someMethod");
  EXPECT_EQ(call.tag.high, 0U);
  EXPECT_EQ(call.tag.low, 0U);
  EXPECT_EQ(call.flags, 0);
  ASSERT_EQ(call.request.size(), 1U);
  const auto sent = call.request.getValueAsPointer<std::string>(0);
  EXPECT_EQ(*sent, bytes);
  EXPECT_NE(sent.get(), &bytes);
  call.handler.succeed(GenericPayload());
  EXPECT_NO_THROW(caller.get());
}

// --- Asynchronous calls ---

TEST_F(TransportClientTest, AsyncReturnsAtOnceAndTheHandlerGetsTheRawReply) {
  static_assert(std::is_void_v<decltype(client_.invokeMethodAsync("", payloadOf(""), CompletionHandler()))>);
  std::shared_ptr<ImportedDataSource> received;
  int companionCalls = 0;
  client_.invokeMethodAsync(
      "someMethod", payloadOf("abc"),
      CompletionHandler([&](const GenericPayload& reply) { received = reply.getValueAsPointer<ImportedDataSource>(0); },
                        [](const std::exception_ptr&) { FAIL(); }, {[&] { ++companionCalls; }}));
  const ReceivedCall call = service_->take();
  EXPECT_EQ(call.method, "someMethod");
  EXPECT_EQ(call.tag.high, 0U);
  EXPECT_EQ(call.tag.low, 0U);
  EXPECT_EQ(call.flags, 0);
  EXPECT_EQ(call.exportedBytes(), textOf(testing::container({bytesOf("abc")})));
  ASSERT_EQ(call.handler.companions().size(), 1U) << "what travels with the handler was lost";
  call.handler.companions()[0]();
  EXPECT_EQ(companionCalls, 1);

  EXPECT_EQ(received, nullptr);
  const auto reply = std::make_shared<FakeReply>(testing::container({}));
  call.handler.succeed(testing::replyPayload(reply));
  EXPECT_EQ(received, reply);
  EXPECT_EQ(reply->istreams, 0) << "the reply is the handler's to read";
}

// A handler whose callbacks share `watched` as long as they live.
CompletionHandler watchedHandler(std::shared_ptr<int> watched) {
  return CompletionHandler([watched](const GenericPayload&) {}, [watched](const std::exception_ptr&) {});
}

TEST_F(TransportClientTest, AsyncReleasesTheHandlerWhenThePayloadCannotBeSerialized) {
  const auto watched = std::make_shared<int>();
  CompletionHandler handler = watchedHandler(watched);
  EXPECT_THROW(client_.invokeMethodAsync("echo", payloadOfMissingFile(), std::move(handler)), std::ios_base::failure);
  EXPECT_EQ(watched.use_count(), 1) << "the caller's handler still holds its callbacks";
}

TEST_F(RefusingService, AsyncReleasesTheHandler) {
  const auto watched = std::make_shared<int>();
  CompletionHandler handler = watchedHandler(watched);
  EXPECT_THROW(client_.invokeMethodAsync("echo", payloadOf("abc"), std::move(handler)), OddError);
  EXPECT_EQ(watched.use_count(), 1) << "the caller's handler still holds its callbacks";
}

TEST_F(TransportClientTest, AsyncLeavesTheHandlerAloneWithoutAConnection) {
  record_->invokable = nullptr;
  const auto watched = std::make_shared<int>();
  CompletionHandler handler = watchedHandler(watched);
  EXPECT_THROW(client_.invokeMethodAsync("echo", payloadOf("abc"), std::move(handler)),
               Exception<cluster::ZKSUnreachable>);
  EXPECT_EQ(watched.use_count(), 3) << "nothing was taken before the connection was looked at";
}

TEST_F(TransportClientTest, AsyncErrorReachesTheHandlerAsItIs) {
  std::exception_ptr received;
  client_.invokeMethodAsync("echo", payloadOf(""),
                            CompletionHandler([](const GenericPayload&) { FAIL(); },
                                              [&](std::exception_ptr error) { received = std::move(error); }));
  const std::exception_ptr stored = std::make_exception_ptr(OddError("odd"));
  service_->take().handler.fail(stored);
  EXPECT_EQ(received, stored);
}

}  // namespace
}  // namespace parallel::spf::transport
