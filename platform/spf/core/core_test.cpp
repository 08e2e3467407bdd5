// The small classes that a caller and a service meet: handlers, payloads, the table of methods.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "platform/spf/core/CompletionHandler.h"
#include "platform/spf/core/GenericPayload.h"
#include "platform/spf/core/ImportedDataSource.h"
#include "platform/spf/core/Service.h"
#include "platform/spf/core/promiseCompletingHandler.h"

namespace agent::spf::core {
namespace {

std::string textOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const FrameworkError& e) {
    return e.what();
  }
  return "no FrameworkError";
}

TEST(CompletionHandler, CallsTheCallbackOfItsOutcomeOnly) {
  int successes = 0;
  int errors = 0;
  const CompletionHandler handler([&](GenericPayload) { ++successes; }, [&](const std::exception_ptr&) { ++errors; });
  handler.succeed({});
  EXPECT_EQ(successes, 1);
  EXPECT_EQ(errors, 0);
  handler.fail(std::make_exception_ptr(1));
  EXPECT_EQ(errors, 1);
}

TEST(CompletionHandler, DropsWhatACallbackThrows) {
  const CompletionHandler handler([](GenericPayload) { throw 1; }, [](const std::exception_ptr&) { throw 1; });
  EXPECT_NO_THROW(handler.succeed({}));
  EXPECT_NO_THROW(handler.fail(nullptr));
}

TEST(CompletionHandler, WithoutCallbacksDoesNothing) {
  const CompletionHandler handler;
  EXPECT_NO_THROW(handler.succeed({}));
  EXPECT_NO_THROW(handler.fail(nullptr));
}

TEST(CompletionHandler, CarriesItsCompanionsUnchanged) {
  int called = 0;
  CompletionHandler handler(nullptr, nullptr, {[&] { ++called; }});
  const CompletionHandler moved = std::move(handler);
  moved.companions().at(0)();
  EXPECT_EQ(called, 1);
}

TEST(GenericPayload, GivesItsValuesByPositionAndType) {
  GenericPayload payload(std::make_shared<int>(7));
  payload.add(std::make_shared<std::string>("text"));
  EXPECT_EQ(payload.size(), 2U);
  EXPECT_EQ(*payload.getValueAsPointer<int>(0), 7);
  EXPECT_EQ(*payload.getValueAsPointer<std::string>(1), "text");
  EXPECT_TRUE(payload.holds<int>(0));
  EXPECT_FALSE(payload.holds<int>(1));
  EXPECT_FALSE(payload.holds<int>(2));
}

TEST(GenericPayload, SaysWhatIsWrongWithAPosition) {
  GenericPayload payload(std::make_shared<int>(7));
  payload.add(std::shared_ptr<int>());
  EXPECT_EQ(textOf([&] { payload.getValueAsPointer<int>(2); }), "Invalid GenericPayload index");
  EXPECT_EQ(textOf([&] { payload.getValueAsPointer<int>(1); }), "GenericPayload empty at index");
  EXPECT_EQ(textOf([&] { payload.getValueAsPointer<long>(0); }), "Polymorphic types are not supported with futures");
}

TEST(PromiseCompletingHandler, FulfilsWithTheFirstValue) {
  auto promise = std::make_shared<std::promise<std::shared_ptr<int>>>();
  auto future = promise->get_future();
  promiseCompletingHandler<std::shared_ptr<int>>(promise).succeed(GenericPayload(std::make_shared<int>(3)));
  EXPECT_EQ(*future.get(), 3);
}

TEST(PromiseCompletingHandler, StoresTheErrorOfAPayloadWithoutThatValue) {
  auto promise = std::make_shared<std::promise<std::shared_ptr<int>>>();
  auto future = promise->get_future();
  promiseCompletingHandler<std::shared_ptr<int>>(promise).succeed({});
  EXPECT_EQ(textOf([&] { future.get(); }), "Invalid GenericPayload index");
}

TEST(PromiseCompletingHandler, StoresTheVeryErrorObject) {
  auto promise = std::make_shared<std::promise<void>>();
  auto future = promise->get_future();
  const auto error = std::make_exception_ptr(std::runtime_error("it"));
  promiseCompletingHandler<void>(promise).fail(error);
  try {
    future.get();
    FAIL();
  } catch (...) {
    EXPECT_EQ(std::current_exception(), error);
  }
}

TEST(PromiseCompletingHandler, CarriesTheCallersStopRequest) {
  std::stop_source source;
  const auto promise = std::make_shared<std::promise<void>>();
  const CompletionHandler handler = promiseCompletingHandler<void>(promise, {source.get_token()});
  EXPECT_FALSE(handler.caller().givenUp.stop_requested());
  source.request_stop();
  EXPECT_TRUE(handler.caller().givenUp.stop_requested());
  EXPECT_FALSE(promiseCompletingHandler<void>(promise).caller().givenUp.stop_possible());
}

TEST(Service, FindsItsMethodsAndListsThemForAnUnknownOne) {
  Service service;
  EXPECT_EQ(service.unknownMethodText("x"), "The service has no method \"x\"; it has none.");
  service.add("b", [](ServerCall&) {});
  service.add("a", [](ServerCall&) {});
  EXPECT_NE(service.find("a"), nullptr);
  EXPECT_EQ(service.find("x"), nullptr);
  EXPECT_EQ(service.unknownMethodText("x"), "The service has no method \"x\"; it has a, b.");
}

TEST(Service, RefusedCallIsToldWithItsPeerAndReason) {
  Service service;
  service.add(
      "a", [](ServerCall&) {}, ByteLimit{10, "an option"});
  std::vector<std::string> refusals;
  service.setRefusalObserver([&](std::string_view method, std::string_view peer, const std::exception& refusal) {
    refusals.push_back(std::string(method) + " " + std::string(peer) + " " + refusal.what());
  });
  service.checkCall("a", "somewhere:1", 10);
  EXPECT_THROW(service.checkCall("x", "somewhere:2", 1), FrameworkError);
  EXPECT_THROW(service.checkCall("a", "somewhere:3", 11), FrameworkError);
  EXPECT_EQ(refusals,
            (std::vector<std::string>{
                "x somewhere:2 The service has no method \"x\"; it has a.",
                "a somewhere:3 The request of call \"a\" has 11 bytes, and at most 10 are allowed: see an option."}));
}

TEST(Service, NameOfAnUnknownMethodIsShownOnOneLineAndCut) {
  const std::string text = Service().unknownMethodText("a\n" + std::string(1'000'000, '\x1B'));
  EXPECT_NE(text.find("\"a\\x0a\\x1b"), std::string::npos);
  EXPECT_LT(text.size(), 2000U);
}

}  // namespace
}  // namespace agent::spf::core
