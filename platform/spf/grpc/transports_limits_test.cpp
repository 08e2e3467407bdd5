// What every transport must do: hold requests and replies to the limits that are set for them.
#include "platform/spf/grpc/TransportsTest.h"

namespace agent::spf::testing {
namespace {

using core::ByteLimit;

using Kind = core::ErrorLevel::Kind;

class TransportsLimits : public Transports {};

core::ErrorChain refusal(const std::string& text) {
  return {{Kind::framework, "", "", text}};
}

TEST_P(TransportsLimits, RequestAboveTheServicesLimitIsRefusedBeforeItsHandlerIsCalled) {
  service().limitRequests({100'000, "daemon --max-request"});
  serve("count", [probe = probe()](ServerCall& call) {
    ++probe->bytes;
    call.reply() << readAll(call.request()).size();
  });
  EXPECT_EQ(call(client(), "count", patternOf(100'000)), "100000");
  for (const std::size_t size : {100'001UL, 50'000'000UL})
    EXPECT_EQ(chainThrownBy([&] { call(client(), "count", patternOf(size)); }),
              refusal("The request of call \"count\" has " + std::to_string(size) +
                      " bytes, and at most 100000 are allowed: see daemon --max-request."));
  EXPECT_EQ(call(client(), "count", std::string("next")), "4");
  EXPECT_EQ(probe()->bytes, 2);
}

TEST_P(TransportsLimits, LimitOfAMethodComesBeforeThatOfTheService) {
  service().limitRequests({10, "the service's"});
  service().add("large", echo, ByteLimit{20, "its own"});
  serve("small", echo);
  EXPECT_EQ(call(client(), "large", patternOf(20)), patternOf(20));
  EXPECT_EQ(chainThrownBy([&] { call(client(), "large", patternOf(21)); }),
            refusal("The request of call \"large\" has 21 bytes, and at most 20 are allowed: see its own."));
  EXPECT_EQ(chainThrownBy([&] { call(client(), "small", patternOf(20)); }),
            refusal("The request of call \"small\" has 20 bytes, and at most 10 are allowed: see the service's."));
}

INSTANTIATE_TRANSPORTS(TransportsLimits);

class ReplyLimit : public Transports {};

TEST_P(ReplyLimit, ReplyThatIsAnnouncedTooLargeFailsItsCallAndCancelsIt) {
  connectOptions().replyLimit = ByteLimit{1'000'000, "--max-reply"};
  serve("echo", [](ServerCall& call) {
    call.setReplySize(*call.requestSize());
    call.reply() << readAll(call.request());
  });
  EXPECT_TRUE(call(client(), "echo", patternOf(1'000'000)) == patternOf(1'000'000));
  for (const std::size_t size : {1'000'001UL, 30'000'000UL}) {
    auto waiting = start(client(), "echo", sourceOf(patternOf(size)));
    EXPECT_EQ(chainThrownBy([&] { await(waiting); }),
              refusal("The reply of call \"echo\" has " + std::to_string(size) +
                      " bytes, and at most 1000000 are allowed: see --max-reply."));
  }
  EXPECT_EQ(call(client(), "echo", std::string("next")), "next");
}

TEST_P(ReplyLimit, ReplyOfUnknownSizeIsCountedAsItIsRead) {
  connectOptions().replyLimit = ByteLimit{1'000'000, "--max-reply"};
  service().add("echo", [](ServerCall& call) { call.reply() << readAll(call.request()); });
  serve("endless", [](ServerCall& call) {
    for (;;)
      call.reply() << patternOf(1000);
  });
  EXPECT_TRUE(call(client(), "echo", patternOf(1'000'000)) == patternOf(1'000'000));
  const auto reply = openReply(client(), "endless", sourceOf(""));
  const auto chain = chainThrownBy([&] { readAll(*reply); });
  ASSERT_EQ(chain.size(), 1U);
  EXPECT_THAT(chain[0].text, ::testing::AllOf(::testing::StartsWith("The reply of call \"endless\" has "),
                                              ::testing::EndsWith(" or more bytes, and at most 1000000 are allowed: "
                                                                  "see --max-reply.")));
  reply->clear();
  EXPECT_THROW(reply->get(), FrameworkError) << "the error stays";
  EXPECT_EQ(call(client(), "echo", std::string("next")), "next");
}

INSTANTIATE_TEST_SUITE_P(All, ReplyLimit, ::testing::Values("unix", "tcp"), nameOfTransport);

}  // namespace
}  // namespace agent::spf::testing
