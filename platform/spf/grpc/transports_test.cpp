// What every transport must do: bytes and errors arrive as they were.
#include <algorithm>
#include <mutex>
#include <stdexcept>

#include "platform/errors/RemoteException.h"
#include "platform/spf/grpc/TransportsTest.h"

namespace agent::spf::testing {
namespace {

using core::ErrorChain;
using core::ErrorLevel;
using core::testing::callWithBytes;
using core::testing::digestOf;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

using Kind = ErrorLevel::Kind;

constexpr std::size_t kFrame = std::size_t{1} << 20;
constexpr std::size_t kBuffer = std::size_t{256} << 10;

void digest(ServerCall& call) {
  call.reply() << digestOf(readAll(call.request()));
}

// Sizes around every border that the transports know.
const std::vector<std::size_t>& borderSizes() {
  static const std::vector<std::size_t> sizes{
      0,     1,           1023,    1024,        1025,       8191,   8192,       8193,       65535,          65536,
      65537, kBuffer - 1, kBuffer, kBuffer + 1, kFrame - 1, kFrame, kFrame + 1, 2 * kFrame, 5 * kFrame + 17};
  return sizes;
}

TEST_P(Transports, RequestsAndRepliesOfBorderSizesArriveWhole) {
  service().add("digest", digest);
  serve("echo", echo);
  for (const std::size_t size : borderSizes()) {
    const std::string bytes = patternOf(size);
    EXPECT_TRUE(call(client(), "echo", bytes) == bytes) << size;
    EXPECT_EQ(call(client(), "digest", bytes), std::to_string(digestOf(bytes))) << size;
  }
}

TEST_P(Transports, RepliesWrittenInSmallPiecesArriveWhole) {
  serve("pieces", [](ServerCall& call) {
    const std::string bytes = patternOf(3 * kBuffer + 5);
    for (std::size_t offset = 0; offset < bytes.size(); offset += 32769) {
      call.reply().put(bytes[offset]);
      call.reply().write(bytes.data() + offset + 1,
                         static_cast<long>(std::min<std::size_t>(32768, bytes.size() - offset - 1)));
    }
  });
  EXPECT_TRUE(call(client(), "pieces", std::string()) == patternOf(3 * kBuffer + 5));
}

TEST_P(Transports, RequestWrittenInPiecesOfAllSizesArrivesWhole) {
  serve("digest", digest);
  const std::string bytes = patternOf(4 * kFrame);
  const auto writer = [&](std::ostream& out) {
    std::size_t piece = 1;
    for (std::size_t offset = 0; offset < bytes.size(); piece = piece * 3 + 1) {
      const std::size_t part = std::min(piece, bytes.size() - offset);
      out.write(bytes.data() + offset, static_cast<long>(part));
      offset += part;
    }
  };
  EXPECT_EQ(call(client(), "digest", sourceOf(writer, static_cast<long>(bytes.size()))),
            std::to_string(digestOf(bytes)));
}

TEST_P(Transports, QuarterGibibyteArrivesWhole) {
  serve("echo", echo);
  const std::size_t kSize = std::size_t{256} << 20;
  auto source = sourceOf(patternOf(kSize));
  const auto reply = openReply(client(), "echo", source);
  EXPECT_EQ(reply->rdbuf()->in_avail(), static_cast<long>(kSize));
  std::vector<char> part(1'000'003);
  std::uint64_t digest = digestOf("");
  long total = 0;
  while (reply->read(part.data(), static_cast<long>(part.size())), reply->gcount() > 0) {
    digest = digestOf({part.data(), static_cast<std::size_t>(reply->gcount())}, digest);
    total += reply->gcount();
  }
  EXPECT_EQ(total, static_cast<long>(kSize));
  EXPECT_EQ(digest, digestOf(patternOf(kSize)));
}

TEST_P(Transports, ReplyCountsDownWhatIsStillSureToCome) {
  serve("ten", [](ServerCall& call) {
    call.setReplySize(10);
    call.reply() << "0123456789";
  });
  const auto reply = openReply(client(), "ten", sourceOf(""));
  EXPECT_EQ(reply->rdbuf()->in_avail(), 10);
  EXPECT_EQ(reply->get(), '0');
  EXPECT_EQ(reply->rdbuf()->in_avail(), 9);
  EXPECT_EQ(reply->peek(), '1');
  EXPECT_EQ(readAll(*reply), "123456789");
  EXPECT_LE(reply->rdbuf()->in_avail(), 0);
}

TEST_P(Transports, HandlerLearnsTheSizeOfTheRequest) {
  serve("size", [](ServerCall& call) { call.reply() << call.requestSize().value_or(-1) << call.method(); });
  EXPECT_EQ(call(client(), "size", std::string(12345, 'x')), "12345size");
}

TEST_P(Transports, HandlerLearnsWhoCalls) {
  serve("who", [](ServerCall& call) { call.reply() << call.peer(); });
  const std::string peer = call(client(), "who", std::string());
  if (isInProcess())
    EXPECT_EQ(peer, "in-process");
  else if (GetParam() == "unix")
    EXPECT_EQ(peer, "unix");
  else
    EXPECT_THAT(peer, MatchesRegex("127.0.0.1:[0-9]+"));
}

TEST_P(Transports, HandlerIsToldWhoCallsAndInWhichRole) {
  serve("who", [](ServerCall& call) {
    call.reply() << (call.identity().role == core::PeerRole::client ? "client: " : "nobody: ") << call.identity().name;
  });
  const std::map<std::string, std::string> expected{{"inprocess", "client: process " + std::to_string(::getpid())},
                                                    {"unix", "client: user " + std::to_string(::geteuid())},
                                                    {"tcp", "client: "},
                                                    {"tls", "client: certificate zks client"}};
  EXPECT_EQ(call(client(), "who", std::string()), expected.at(GetParam()));
}

TEST_P(Transports, StringRequestIsAnsweredWhenItsReplyHasEnded) {
  std::mutex mutex;
  std::string seen;
  serve("keep", [&](ServerCall& call) {
    std::string request = readAll(call.request());
    call.reply() << patternOf(kFrame);
    const std::lock_guard lock(mutex);
    seen = std::move(request);
  });
  for (const std::string& request : {std::string("some bytes"), patternOf(3 * kFrame), std::string()}) {
    callWithBytes(client(), "keep", request);
    const std::lock_guard lock(mutex);
    EXPECT_TRUE(seen == request);
  }
}

TEST_P(Transports, StringRequestFailsWithTheErrorOfItsHandler) {
  serve("fail", [](ServerCall& call) {
    call.reply() << patternOf(2 * kFrame);
    throw FrameworkError("after the reply");
  });
  EXPECT_THAT(chainThrownBy([&] { callWithBytes(client(), "fail", "x"); }),
              ElementsAre(ErrorLevel{Kind::framework, "", "", "after the reply"}));
}

TEST_P(Transports, UnknownMethodIsNamedWithThoseThereAre) {
  service().add("one", echo);
  serve("two", echo);
  EXPECT_THAT(
      chainThrownBy([&] { call(client(), "three", std::string("x")); }),
      ElementsAre(ErrorLevel{Kind::framework, "", "", "The service has no method \"three\"; it has one, two."}));
  EXPECT_EQ(call(client(), "one", std::string("still works")), "still works");
}

TEST_P(Transports, ReservedFlagsAndForeignPayloadsAreRefusedAtOnce) {
  serve("echo", echo);
  core::CompletionHandler handler;
  EXPECT_THROW(client().invoke({}, "echo", core::CompletionHandler(), core::GenericPayload(sourceOf("")), 1),
               FrameworkError);
  EXPECT_THROW(client().invoke({}, "echo", core::CompletionHandler(), core::GenericPayload(), 0), FrameworkError);
  EXPECT_THROW(
      client().invoke({}, "echo", core::CompletionHandler(), core::GenericPayload(std::make_shared<int>(3)), 0),
      FrameworkError);
}

void throwChain() {
  try {
    try {
      try {
        throw std::string("not a standard error");
      } catch (...) {
        std::throw_with_nested(std::invalid_argument("innermost standard"));
      }
    } catch (...) {
      std::throw_with_nested(RemoteException("parallel:cluster", "TaskFailed", "task \xC3\xA4"));
    }
  } catch (...) {
    std::throw_with_nested(FrameworkError("outermost"));
  }
}

TEST_P(Transports, NestedChainOfTheHandlerArrivesAsItIs) {
  serve("fail", [](ServerCall&) { throwChain(); });
  EXPECT_THAT(chainThrownBy([&] { call(client(), "fail", std::string()); }),
              ElementsAre(ErrorLevel{Kind::framework, "", "", "outermost"},
                          ErrorLevel{Kind::identified, "parallel:cluster", "TaskFailed", "task \xC3\xA4"},
                          ErrorLevel{Kind::standard, "", "", "innermost standard"},
                          ErrorLevel{Kind::unknown, "", "", "not a standard error"}));
}

TEST_P(Transports, ErrorKindsArriveAsTheirTypes) {
  service().add("timeout", [](ServerCall&) { throw Timeout("too slow"); });
  service().add("terminated", [](ServerCall&) { throw Terminated("gone"); });
  service().add("identified", [](ServerCall&) { throw RemoteException("a", "B", "text"); });
  service().add("number", [](ServerCall&) { throw 42; });
  connect();
  EXPECT_THROW(call(client(), "timeout", std::string()), Timeout);
  EXPECT_THROW(call(client(), "terminated", std::string()), Terminated);
  EXPECT_THROW(call(client(), "identified", std::string()), IException);
  EXPECT_THROW(call(client(), "number", std::string()), core::UnknownRemoteError);
}

TEST_P(Transports, DeepChainOfLongTextsArrivesWhole) {
  const std::string text = patternOf(200'000);
  serve("fail", [text](ServerCall&) {
    ErrorChain chain(60, ErrorLevel{Kind::standard, "", "", "level"});
    chain[30] = {Kind::framework, "", "", text};
    // what() ends at a zero byte; the texts of real errors have none
    for (char& byte : chain[30].text)
      byte = byte == '\0' ? '0' : byte;
    std::rethrow_exception(core::rebuildErrorChain(chain));
  });
  const ErrorChain chain = chainThrownBy([&] { call(client(), "fail", std::string()); });
  ASSERT_THAT(chain, SizeIs(60));
  EXPECT_EQ(chain[30].text.size(), text.size());
  EXPECT_EQ(chain[59].text, "level");
}

// The reader must see the error at whatever byte the reply breaks off, and never an end.
TEST_P(Transports, ErrorAfterAnyPartOfTheReplyReachesTheReaderAndNeverLooksLikeTheEnd) {
  serve("failAfter", [](ServerCall& call) {
    const std::size_t size = std::stoul(readAll(call.request()));
    call.reply() << patternOf(size) << std::flush;
    throwChain();
  });
  for (const std::size_t size : borderSizes()) {
    std::string got;
    const ErrorChain chain = chainThrownBy([&] {
      const auto reply = openReply(client(), "failAfter", sourceOf(std::to_string(size)));
      for (;;)
        got.push_back(static_cast<char>(reply->get()));
    });
    EXPECT_TRUE(got == patternOf(size)) << size;
    ASSERT_THAT(chain, SizeIs(4)) << size;
    EXPECT_EQ(chain[1].name, "TaskFailed") << size;
  }
}

// As patternOf, without the NULs, which end what an exception says.
std::string textOf(std::size_t nbytes, std::uint64_t seed) {
  std::string text = patternOf(nbytes, seed);
  std::replace(text.begin(), text.end(), '\0', '0');
  return text;
}

TEST_P(Transports, ErrorOfSeveralMebibytesAfterSomeDataArrivesWhole) {
  serve("fail", [](ServerCall& call) {
    call.reply() << "abc" << std::flush;
    std::rethrow_exception(core::rebuildErrorChain(ErrorChain{{Kind::framework, "", "", textOf(1'000'000, 1)},
                                                              {Kind::timeout, "", "", textOf(10, 2)},
                                                              {Kind::standard, "", "", textOf(2'000'000, 3)}}));
  });
  const auto reply = openReply(client(), "fail", sourceOf(""));
  const ErrorChain chain = chainThrownBy([&] { reply->ignore(10); });
  ASSERT_THAT(chain, SizeIs(3));
  EXPECT_TRUE(chain[0].text == textOf(1'000'000, 1));
  EXPECT_EQ(chain[1].kind, Kind::timeout);
  EXPECT_TRUE(chain[2].text == textOf(2'000'000, 3));
}

TEST_P(Transports, FailedReadFailsAgainWhenReadOn) {
  serve("fail", [](ServerCall& call) {
    call.reply() << "abc" << std::flush;
    throw Timeout("x");
  });
  const auto reply = openReply(client(), "fail", sourceOf(""));
  char bytes[10];
  EXPECT_THROW(reply->read(bytes, 10), Timeout);
  EXPECT_TRUE(reply->bad());
  reply->clear();
  EXPECT_THROW(reply->read(bytes, 10), Timeout);
}

TEST_P(Transports, StreamOfAReplyIsGivenOnce) {
  serve("echo", echo);
  auto future = start(client(), "echo", sourceOf("x"));
  const auto source = await(future);
  EXPECT_EQ(readAll(*source->getImportedIstream()), "x");
  EXPECT_THROW(source->getImportedIstream(), FrameworkError);
}

TEST_P(Transports, ErrorOfTheRequestsWriterFailsTheCall) {
  serve("digest", digest);
  for (const long written : {0L, 1L, 100L, 70'000L, 3'000'000L}) {
    const auto writer = [written](std::ostream& out) {
      out << patternOf(static_cast<std::size_t>(written));
      throw std::out_of_range("the writer failed");
    };
    EXPECT_THROW(call(client(), "digest", sourceOf(writer, 4'000'000)), std::out_of_range) << written;
    EXPECT_THROW(call(client(), "digest", sourceOf(writer, written)), std::out_of_range) << written;
  }
  EXPECT_EQ(call(client(), "digest", std::string("next")), std::to_string(digestOf("next")));
}

TEST_P(Transports, RequestOfAnotherSizeThanAnnouncedFailsNamingBoth) {
  serve("digest", digest);
  const auto chainOf = [&](std::size_t written, long announced) {
    const auto writer = [written](std::ostream& out) { out << patternOf(written); };
    return chainThrownBy([&] { call(client(), "digest", sourceOf(writer, announced)); });
  };
  const auto names = [](const char* first, const char* second) {
    return ElementsAre(
        ::testing::AllOf(::testing::Field(&ErrorLevel::kind, Kind::framework),
                         ::testing::Field(&ErrorLevel::text, AllOf(HasSubstr(first), HasSubstr(second)))));
  };
  EXPECT_THAT(chainOf(7, 10), names(" 10 bytes", " 7 "));
  EXPECT_THAT(chainOf(12, 10), names(" 10 bytes", " 12 "));
  EXPECT_THAT(chainOf(0, 1), names(" 1 bytes", " 0 "));
  EXPECT_THAT(chainOf(3'000'000, 4'000'000), names(" 4000000 bytes", " 3000000 "));
  EXPECT_THAT(chainOf(4'000'000, 3'000'000), names(" 3000000 bytes", " 4000000 "));
}

TEST_P(Transports, SingleCharactersBeyondTheAnnouncedSizeFailTheCall) {
  serve("digest", digest);
  const auto writer = [](std::ostream& out) {
    for (int i = 0; i < 11; ++i)
      out.put('x');
  };
  EXPECT_THROW(call(client(), "digest", sourceOf(writer, 10)), FrameworkError);
}

TEST_P(Transports, WriterThatSwallowsTheErrorStillFailsTheCall) {
  serve("digest", digest);
  const auto writer = [](std::ostream& out) {
    out.exceptions(std::ios::goodbit);
    out.write("too many bytes", 14);
  };
  EXPECT_THROW(call(client(), "digest", sourceOf(writer, 3)), FrameworkError);
}

TEST_P(Transports, ReplyOfAnotherSizeThanAnnouncedFailsNamingBoth) {
  service().add("short", [](ServerCall& call) {
    call.setReplySize(10);
    call.reply() << "1234567";
  });
  service().add("long", [](ServerCall& call) {
    call.setReplySize(10);
    call.reply() << "12345678901";
  });
  service().add("late", [](ServerCall& call) {
    call.reply() << "1";
    call.setReplySize(10);
  });
  connect();
  const auto textOf = [&](const char* method) {
    const ErrorChain chain = chainThrownBy([&] { call(client(), method, std::string()); });
    return chain.size() == 1 && chain[0].kind == Kind::framework ? chain[0].text : "another chain";
  };
  EXPECT_THAT(textOf("short"), AllOf(HasSubstr(" 10 bytes"), HasSubstr(" 7 ")));
  EXPECT_THAT(textOf("long"), AllOf(HasSubstr(" 10 bytes"), HasSubstr(" 11 ")));
  EXPECT_THAT(textOf("late"), HasSubstr("after its first byte"));
}

TEST_P(Transports, ServiceMayAnswerWithoutReadingTheRequest) {
  serve("ignore", [](ServerCall& call) { call.reply() << "no thanks"; });
  for (const std::size_t size : {std::size_t{0}, std::size_t{10}, kFrame, 64 * kFrame})
    EXPECT_EQ(call(client(), "ignore", patternOf(size)), "no thanks") << size;
}

TEST_P(Transports, ServiceMayFailWithoutReadingTheRequest) {
  serve("refuse", [](ServerCall&) { throw FrameworkError("refused"); });
  for (const std::size_t size : {std::size_t{0}, std::size_t{10}, kFrame, 64 * kFrame})
    EXPECT_THAT(chainThrownBy([&] { call(client(), "refuse", patternOf(size)); }),
                ElementsAre(ErrorLevel{Kind::framework, "", "", "refused"}))
        << size;
}

// An echo of more than all buffers on the way can only end when both directions move at once.
TEST_P(Transports, ReplyMayBeReadWhileTheRequestIsStillWritten) {
  serve("echo", echo);
  auto mayFinish = std::make_shared<std::promise<void>>();
  auto finish = std::make_shared<std::shared_future<void>>(mayFinish->get_future().share());
  const auto writer = [finish](std::ostream& out) {
    out << patternOf(kFrame) << std::flush;
    finish->wait();
    out << "the rest";
  };
  const auto reply = openReply(client(), "echo", sourceOf(writer, static_cast<long>(kFrame) + 8));
  std::string first(kFrame - 400'000, '\0');  // the echo reads in pieces of 300 kB
  reply->read(first.data(), static_cast<long>(first.size()));
  EXPECT_EQ(reply->gcount(), static_cast<long>(first.size()));
  mayFinish->set_value();
  EXPECT_TRUE(first + readAll(*reply) == patternOf(kFrame) + "the rest");
}

TEST_P(Transports, FlushSendsTheHeadBeforeAnyByte) {
  serve("head", [probe = probe()](ServerCall& call) {
    call.setReplySize(4);
    call.reply().flush();
    awaitEvent(probe->mayGoOn);
    call.reply() << "body";
  });
  const auto reply = openReply(client(), "head", sourceOf(""));
  EXPECT_EQ(reply->rdbuf()->in_avail(), 4);
  probe()->mayGoOn.set_value();
  EXPECT_EQ(readAll(*reply), "body");
}

INSTANTIATE_TRANSPORTS(Transports);

}  // namespace
}  // namespace agent::spf::testing
