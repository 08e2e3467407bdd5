#include "scheduler/daemon/DaemonOptions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "platform/logging/sinks.h"

namespace parallel::scheduler {
namespace {

using ::testing::HasSubstr;

struct Outcome {
  ParsedArguments parsed;
  std::string out;
  std::string error;
};

Outcome parse(std::vector<std::string> arguments) {
  std::ostringstream out;
  std::ostringstream error;
  ParsedArguments parsed = parseArguments(std::move(arguments), out, error);
  return {std::move(parsed), out.str(), error.str()};
}

void expectUsageError(std::vector<std::string> arguments, const std::string& text) {
  const Outcome outcome = parse(std::move(arguments));
  EXPECT_FALSE(outcome.parsed.options);
  EXPECT_EQ(outcome.parsed.exitCode, 2);
  EXPECT_EQ(outcome.out, "");
  EXPECT_THAT(outcome.error, HasSubstr(text));
  EXPECT_EQ(outcome.error.find('\n'), outcome.error.size() - 1) << "it is one line";
}

TEST(DaemonOptions, NothingSaidMeansTheDefaults) {
  const auto options = parse({}).parsed.options;
  ASSERT_TRUE(options);
  EXPECT_EQ(options->socket, "");
  EXPECT_EQ(options->listen, "");
  EXPECT_EQ(options->slots, 0U);
  EXPECT_FALSE(options->maxRequestBytes);
  EXPECT_FALSE(options->localEngine);
  EXPECT_EQ(options->idleSeconds, 600);
  EXPECT_EQ(options->leaveAfterSeconds, 0);
  EXPECT_FALSE(options->maxConnections);
  EXPECT_FALSE(options->maxPeerConnections);
  EXPECT_EQ(options->handshakeSeconds, 20);
  EXPECT_EQ(options->maxCalls, 1000U);
  EXPECT_EQ(options->maxFields, 1'000'000U);
  EXPECT_EQ(options->scratch, "");
  EXPECT_EQ(options->logLevels, logging::levelsFromWord("info"));
}

TEST(DaemonOptions, TheLocalEngineIsAskedForOrForbidden) {
  EXPECT_EQ(parse({"--local-engine"}).parsed.options->localEngine, true);
  EXPECT_EQ(parse({"--no-local-engine"}).parsed.options->localEngine, false);
}

TEST(DaemonOptions, EachOptionIsTaken) {
  const auto options =
      parse({"--socket", "/run/x.sock", "--slots", "3", "--scratch", "/tmp", "--log", "trace"}).parsed.options;
  ASSERT_TRUE(options);
  EXPECT_EQ(options->socket, "/run/x.sock");
  EXPECT_EQ(options->slots, 3U);
  EXPECT_EQ(options->scratch, "/tmp");
  EXPECT_EQ(options->logLevels, logging::levelsFromWord("trace"));
  const auto limited =
      parse({"--max-request", "2G", "--idle-timeout", "1.5", "--max-fields", "12", "--leave-after", "2.5"})
          .parsed.options;
  ASSERT_TRUE(limited);
  EXPECT_EQ(limited->maxRequestBytes, std::uint64_t{2} << 30);
  EXPECT_EQ(limited->idleSeconds, 1.5);
  EXPECT_EQ(limited->leaveAfterSeconds, 2.5);
  EXPECT_EQ(limited->maxFields, 12U);
  const auto bounded = parse({"--max-connections", "7", "--max-peer-connections", "3", "--handshake-timeout", "0.5",
                              "--max-memory", "200M", "--max-calls", "9"})
                           .parsed.options;
  ASSERT_TRUE(bounded);
  EXPECT_EQ(bounded->maxConnections, 7U);
  EXPECT_EQ(bounded->maxPeerConnections, 3U);
  EXPECT_EQ(bounded->handshakeSeconds, 0.5);
  EXPECT_EQ(bounded->maxCalls, 9U);
  EXPECT_EQ(bounded->maxMemoryBytes, std::uint64_t{200} << 20);
  const auto open = parse({"--listen", "localhost:0", "--insecure"}).parsed.options;
  ASSERT_TRUE(open);
  EXPECT_EQ(open->listen, "localhost:0");
  EXPECT_TRUE(open->insecure);
}

TEST(DaemonOptions, TcpIsGuardedUnlessToldOtherwise) {
  const auto guarded =
      parse({"--listen", "localhost:0", "--tls", "/etc/zks", "--tls-name", "a.example.org", "--tls-name", "10.0.0.1"})
          .parsed.options;
  ASSERT_TRUE(guarded);
  EXPECT_FALSE(guarded->insecure);
  EXPECT_EQ(guarded->tlsDirectory, "/etc/zks");
  EXPECT_THAT(guarded->tlsNames, ::testing::ElementsAre("a.example.org", "10.0.0.1"));
}

TEST(DaemonOptions, UsageErrorsNameTheOption) {
  expectUsageError({"--insecure"}, "--listen");
  expectUsageError({"--tls", "/x"}, "--listen");
  expectUsageError({"--tls-name", "x"}, "--listen");
  expectUsageError({"--listen", "h:1", "--insecure", "--tls", "/x"}, "--tls");
  expectUsageError({"--listen", "h:1", "--insecure", "--tls-name", "x"}, "--tls-name");
  expectUsageError({"--socket", "/x", "--listen", "h:1", "--insecure"}, "--socket");
  expectUsageError({"--slots", "0"}, "--slots");
  expectUsageError({"--max-request", "many"}, "--max-request");
  expectUsageError({"--max-request", "9223372036854775808"}, "--max-request");
  expectUsageError({"--idle-timeout", "-1"}, "--idle-timeout");
  expectUsageError({"--max-connections", "0"}, "--max-connections");
  expectUsageError({"--max-peer-connections", "0"}, "--max-peer-connections");
  expectUsageError({"--max-calls", "0"}, "--max-calls");
  expectUsageError({"--max-fields", "0"}, "--max-fields");
  expectUsageError({"--max-memory", "1M"}, "--max-memory");
  expectUsageError({"--handshake-timeout", "0"}, "--handshake-timeout");
  expectUsageError({"--slots", "many"}, "--slots");
  expectUsageError({"--scratch", "/no/such/directory"}, "/no/such/directory");
  expectUsageError({"--log", "loud"}, "--log");
  for (const char* address : {"h", ":1", "h:", "h:x", "h:65536", "unix:/x"})
    expectUsageError({"--listen", address, "--insecure"}, "is not HOST:PORT");
  for (const char* option : {"--socket", "--scratch"})
    expectUsageError({option, ""}, "its value is empty");
  expectUsageError({"--listen", "h:1", "--tls", ""}, "its value is empty");
  expectUsageError({"--no-such-option"}, "--no-such-option");
  expectUsageError({"argument"}, "argument");
}

TEST(DaemonOptions, HelpAndVersionGoToStandardOutput) {
  for (const char* option : {"--help", "--version"}) {
    const Outcome outcome = parse({option});
    EXPECT_FALSE(outcome.parsed.options);
    EXPECT_EQ(outcome.parsed.exitCode, 0);
    EXPECT_EQ(outcome.error, "");
    EXPECT_THAT(outcome.out, HasSubstr("zksd"));
  }
}

TEST(DaemonOptions, HelpNamesEveryOption) {
  const std::string help = parse({"--help"}).out;
  for (const char* option :
       {"--socket", "--listen", "--tls", "--tls-name", "--insecure", "--slots", "--scratch", "--log", "--version"})
    EXPECT_THAT(help, HasSubstr(option));
}

}  // namespace
}  // namespace parallel::scheduler
