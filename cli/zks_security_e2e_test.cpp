// zks and zksd over TCP: who is let in, what the others are told, and that no secret is ever said.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "cli/testing/ZksFixture.h"
#include "platform/spf/security/CredentialsDirectory.h"

namespace zks {
namespace {

namespace fs = std::filesystem;
namespace security = agent::spf::security;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

std::string contentOf(const fs::path& path) {
  std::ifstream in(path);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

class ZksSecurity : public ZksFixture {
 protected:
  // The directory of the service's credentials.
  std::string tls() const { return path("service/tls"); }

  // Starts zksd on TCP; its address.
  std::string serve(const Words& options) {
    fs::create_directories(path("scratch"));
    Words words{"env", "ZKS_TLS=" + tls(), ZKSD_PROGRAM, "--scratch", path("scratch")};
    words.insert(words.end(), options.begin(), options.end());
    service_ = std::make_unique<ChildProcess>(words, directory());
    const std::string line = service_->readLine();
    EXPECT_THAT(line, HasSubstr("listening on "));
    return line.substr(line.rfind(' ') + 1);
  }
  std::string serveGuarded(const Words& more = {}) {
    Words options{"--listen", "127.0.0.1:0", "--log", "trace"};
    options.insert(options.end(), more.begin(), more.end());
    return serve(options);
  }
  ProcessOutcome stopService() {
    service_->send(SIGTERM);
    ProcessOutcome outcome = service_->wait();
    service_ = nullptr;
    EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
    return outcome;
  }

  // zks in an environment whose default directory is not there, or is the one given.
  ProcessOutcome run(const std::string& address, const Words& words, const std::string& defaultDirectory = "") const {
    Words command{"env", "ZKS_TLS=" + (defaultDirectory.empty() ? path("none") : defaultDirectory), ZKS_PROGRAM,
                  "--address", address};
    command.insert(command.end(), words.begin(), words.end());
    return runProgram(command, directory());
  }
  ProcessOutcome echo(const std::string& address, const Words& how) const {
    Words words = how;
    words.insert(words.end(), {"echo", "--plain", "hello"});
    return run(address, words);
  }
  void expectServed(const ProcessOutcome& outcome) const {
    EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
    EXPECT_THAT(outcome.output, HasSubstr("same"));
    EXPECT_EQ(outcome.error, "");
  }
  // One line with all of the words.
  void expectRefused(const ProcessOutcome& outcome, const Words& words) const {
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_THAT(outcome.error, testing::StartsWith("zks: "));
    EXPECT_EQ(std::count(outcome.error.begin(), outcome.error.end(), '\n'), 1) << outcome.error;
    for (const std::string& word : words)
      EXPECT_THAT(outcome.error, HasSubstr(word));
  }

  // A client's own directory, with its four files of the service's.
  std::string clientDirectory(const std::string& name = "client") const {
    fs::create_directory(path(name));
    fs::permissions(path(name), fs::perms::owner_all);
    for (const char* file : {"ca.pem", "client.pem", "client-key.pem", "token"})
      fs::copy_file(fs::path(tls()) / file, fs::path(path(name)) / file, fs::copy_options::overwrite_existing);
    return path(name);
  }

 private:
  std::unique_ptr<ChildProcess> service_;
};

TEST_F(ZksSecurity, OnTheServicesMachineNothingHasToBeSaid) {
  const std::string address = serveGuarded();
  expectServed(run(address, {"echo", "--plain", "hello"}, tls()));
  const auto task = run(address, {"run", "--", "echo", "it works"}, tls());
  EXPECT_EQ(task.exitCode, 0);
  EXPECT_EQ(task.output, "it works\n");
}

TEST_F(ZksSecurity, ClientsFourFilesAreEnough) {
  const std::string address = serveGuarded();
  expectServed(echo(address, {"--tls", clientDirectory()}));
  expectServed(echo(address, {"--tls", "client"}));  // from the current directory
}

TEST_F(ZksSecurity, ServiceSaysWhereTheClientsFilesAre) {
  serveGuarded();
  EXPECT_THAT(stopService().output,
              HasSubstr("zksd: a client needs ca.pem, client.pem, client-key.pem and token of " + tls()));
}

TEST_F(ZksSecurity, ClientWithoutCredentialsIsToldWhatToDo) {
  const std::string address = serveGuarded();
  expectRefused(echo(address, {}), {address, path("none"), "--tls DIR", "--insecure"});
}

TEST_F(ZksSecurity, WrongAndMissingTokensAreRefused) {
  const std::string address = serveGuarded();
  const std::string client = clientDirectory();
  std::ofstream(client + "/token") << "guessed";
  expectRefused(echo(address, {"--tls", client}), {address, "the token is not the service's; get the file token"});
  std::ofstream(client + "/token").close();
  expectRefused(echo(address, {"--tls", client}), {"/token\"", "holds no token"});
  fs::remove(client + "/token");
  expectRefused(echo(address, {"--tls", client}), {"There is no file", "/token"});
}

TEST_F(ZksSecurity, FilesOfAnotherServiceAreRefused) {
  const std::string address = serveGuarded();
  security::prepareDirectory({path("other")});
  expectRefused(echo(address, {"--tls", path("other")}), {address, "does not come from the authority", "get ca.pem"});
  fs::copy_file(tls() + "/ca.pem", path("other/ca.pem"), fs::copy_options::overwrite_existing);
  expectRefused(echo(address, {"--tls", path("other")}), {address, "which another authority signed", "get ca.pem"});
}

TEST_F(ZksSecurity, ExpiredClientIsRefusedWhileTheServiceRenewsItsOwn) {
  const auto longAgo = std::chrono::system_clock::now() - security::kCertificateLife - std::chrono::hours(24);
  security::prepareDirectory({tls(), {}, longAgo});
  const std::string old = clientDirectory();
  const std::string address = serveGuarded();
  expectRefused(echo(address, {"--tls", old}), {address, "client's certificate, which expired on", "get ca.pem"});
  expectServed(echo(address, {"--tls", clientDirectory("renewed")}));
}

TEST_F(ZksSecurity, RotatedTokenShutsOldClientsOut) {
  std::string address = serveGuarded();
  const std::string client = clientDirectory();
  expectServed(echo(address, {"--tls", client}));
  stopService();
  fs::remove(tls() + "/token");
  address = serveGuarded();
  expectRefused(echo(address, {"--tls", client}), {"the token is not the service's"});
  fs::copy_file(tls() + "/token", client + "/token", fs::copy_options::overwrite_existing);
  expectServed(echo(address, {"--tls", client}));
}

TEST_F(ZksSecurity, HostThatIsNotInTheCertificateIsRefusedUntilItIsNamed) {
  const auto there = [](const std::string& address) { return "127.0.0.2" + address.substr(address.rfind(':')); };
  std::string address = there(serve({"--listen", "0.0.0.0:0"}));
  expectRefused(echo(address, {"--tls", tls()}),
                {"is for localhost, 127.0.0.1, ::1", "not for 127.0.0.2", "zksd --tls-name 127.0.0.2"});
  stopService();
  address = there(serve({"--listen", "0.0.0.0:0", "--tls-name", "127.0.0.2"}));
  expectServed(echo(address, {"--tls", tls()}));
}

TEST_F(ZksSecurity, PlainTextNeedsTheWordAtBothEnds) {
  const std::string guarded = serveGuarded();
  expectRefused(echo(guarded, {"--insecure"}), {guarded, "the service speaks TLS", "--tls DIR"});
  const std::string client = clientDirectory();
  stopService();
  const std::string plain = serve({"--listen", "127.0.0.1:0", "--insecure"});
  expectRefused(echo(plain, {"--tls", client}), {plain, "does not speak TLS", "--insecure"});
  expectServed(echo(plain, {"--insecure"}));
}

TEST_F(ZksSecurity, WhatOthersCanReadIsNotUsed) {
  const std::string address = serveGuarded();
  const std::string client = clientDirectory();
  ASSERT_EQ(::chmod((client + "/client-key.pem").c_str(), 0644), 0);
  expectRefused(echo(address, {"--tls", client}), {"open to others (mode 0644)", "chmod 600 " + client});
  stopService();
  ASSERT_EQ(::chmod(tls().c_str(), 0755), 0);
  const auto service =
      runProgram({ZKSD_PROGRAM, "--listen", "127.0.0.1:0", "--tls", tls(), "--scratch", path("scratch")}, directory());
  EXPECT_EQ(service.exitCode, 1);
  EXPECT_THAT(service.error, AllOf(HasSubstr("open to others (mode 0755)"), HasSubstr("chmod 700 " + tls())));
}

TEST_F(ZksSecurity, WordsThatMeanNothingTogetherAreUsageErrors) {
  for (const Words& words : {Words{ZKS_PROGRAM, "--tls", ".", "echo"}, Words{ZKS_PROGRAM, "--insecure", "echo"},
                             Words{ZKS_PROGRAM, "--address", "h:1", "--tls", ".", "--insecure", "echo"}})
    EXPECT_EQ(runProgram(words, directory()).exitCode, 2);
}

TEST_F(ZksSecurity, NoSecretIsEverSaid) {
  const std::string address = serveGuarded();
  const std::string client = clientDirectory();
  std::string said;
  const auto collect = [&](const ProcessOutcome& outcome) { said += outcome.output + outcome.error; };
  collect(echo(address, {"--log", "trace", "--tls", client}));
  collect(run(address, {"--log", "trace", "--tls", client, "run", "--", "env"}));
  std::ofstream(client + "/token") << "guessed-by-somebody";
  collect(echo(address, {"--log", "trace", "--tls", client}));
  collect(echo(address, {"--log", "trace", "--insecure"}));
  const ProcessOutcome service = stopService();
  collect(service);
  EXPECT_THAT(service.error, HasSubstr("A call was refused: the token is not the service's"));
  EXPECT_THAT(service.error, HasSubstr("Handshake failed"));
  Words secrets{"guessed-by-somebody", "PRIVATE KEY"};
  for (const char* file : {"token", "ca-key.pem", "server-key.pem", "client-key.pem"}) {
    std::istringstream lines(contentOf(fs::path(tls()) / file));
    for (std::string line; std::getline(lines, line);)
      secrets.push_back(line);
  }
  for (const std::string& secret : secrets)
    EXPECT_THAT(said, Not(HasSubstr(secret)));
}

}  // namespace
}  // namespace zks
