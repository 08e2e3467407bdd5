// zksd as a process of its own.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>

#include "execution/testing/waiting.h"
#include "platform/spf/core/ExportedDataSource.h"
#include "platform/spf/core/ImportedDataSource.h"
#include "platform/spf/core/promiseCompletingHandler.h"
#include "platform/spf/grpc/connect.h"
#include "platform/spf/security/CredentialsDirectory.h"
#include "platform/zksmessages/jobs.pb.h"
#include "platform/zksmessages/zksmessages.pb.h"
#include "scheduler/testing/containers.h"
#include "transport/data/testing/TemporaryDirectory.h"

namespace parallel::scheduler {
namespace {

namespace fs = std::filesystem;
namespace core = agent::spf::core;
using execution::testing::TestPipe;
using spf::transport::testing::TemporaryDirectory;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;

std::string restOf(int fd) {
  std::string text;
  char buffer[4096];
  for (ssize_t got = 0; execution::testing::isReadable(fd) && (got = ::read(fd, buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<std::size_t>(got));
  return text;
}

// A running zksd. Killed with its owner, if it has not ended before.
class Daemon {
 public:
  // `launcher` is a command that runs the one which follows it.
  explicit Daemon(std::vector<std::string> arguments, const std::vector<std::string>& environment = {},
                  std::vector<std::string> launcher = {}) {
    launcher.emplace_back(ZKSD_PATH);
    arguments.insert(arguments.begin(), launcher.begin(), launcher.end());
    std::vector<std::string> variables = environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
      if (!std::string(*entry).starts_with("XDG_RUNTIME_DIR="))
        variables.emplace_back(*entry);
    }
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, output_.writing.get(), 1);
    ::posix_spawn_file_actions_adddup2(&actions, error_.writing.get(), 2);
    EXPECT_EQ(::posix_spawnp(&pid_, arguments[0].c_str(), &actions, nullptr, pointersTo(arguments).data(),
                             pointersTo(variables).data()),
              0);
    ::posix_spawn_file_actions_destroy(&actions);
    output_.writing.reset();
    error_.writing.reset();
  }
  ~Daemon() {
    if (!status_) {
      ::kill(pid_, SIGKILL);
      exitCode();
    }
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Waits until it listens; its address.
  std::string address() {
    const std::string line = execution::testing::readLine(output_.reading.get());
    EXPECT_THAT(line, StartsWith("zksd: listening on "));
    return line.substr(std::string("zksd: listening on ").size());
  }
  int outputFd() const { return output_.reading.get(); }
  void signal(int number) const { ::kill(pid_, number); }
  // Waits for its end. Negative: the signal that ended it.
  int exitCode() {
    if (!status_) {
      EXPECT_TRUE(execution::testing::hasEnded(pid_));
      ::kill(pid_, SIGKILL);  // no more than a zombie, unless the deadline came first
      int status = 0;
      EXPECT_EQ(::waitpid(pid_, &status, 0), pid_);
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    return *status_;
  }
  std::string output() const { return restOf(output_.reading.get()); }
  std::string error() const { return restOf(error_.reading.get()); }

 private:
  static std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts)
      pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
  }
  TestPipe output_;
  TestPipe error_;
  pid_t pid_ = -1;
  std::optional<int> status_;
};

using Reply = std::shared_ptr<core::ImportedDataSource>;

std::future<Reply> start(core::Invokable& service, const std::string& method, const std::string& request) {
  auto writer = std::make_shared<core::ExportedDataSource::Writer>(
      [request](std::ostream& out) { out.write(request.data(), static_cast<std::streamsize>(request.size())); });
  auto source = std::make_shared<core::ExportedDataSource>(std::move(writer), static_cast<long>(request.size()));
  auto promise = std::make_shared<std::promise<Reply>>();
  auto reply = promise->get_future();
  service.invoke({}, method, core::promiseCompletingHandler(promise), core::GenericPayload(std::move(source)), 0);
  return reply;
}

std::string contentOf(const Reply& reply) {
  const auto stream = reply->getImportedIstream();
  std::string content;
  char buffer[4096];
  do {
    stream->read(buffer, sizeof buffer);
    content.append(buffer, static_cast<std::size_t>(stream->gcount()));
  } while (*stream);
  return content;
}

using agent::spf::grpc_transport::ConnectOptions;

std::string call(const std::string& address, const std::string& method, const std::string& request,
                 const ConnectOptions& options = {}) {
  const auto service = agent::spf::grpc_transport::connect(address, options);
  auto reply = start(*service, method, request);
  EXPECT_EQ(reply.wait_for(execution::testing::kDeadline), std::future_status::ready);
  return contentOf(reply.get());
}

std::string taskRequest(const std::string& script) {
  zksmessages::TaskDescription task;
  for (const std::string& argument : {std::string("sh"), std::string("-c"), script})
    task.add_argv(argument);
  return testing::requestOf(task);
}

// That the service answers.
void expectServes(const std::string& address, const ConnectOptions& options = {}) {
  const auto items = testing::itemsOf(call(address, "runTask", taskRequest("echo it works"), options));
  ASSERT_EQ(items.size(), 3U);
  EXPECT_EQ(testing::plainOf(items[1]), "it works\n");
}

// What a method of one message answers.
template <class Answer>
Answer ask(const std::string& address, const std::string& method, const google::protobuf::MessageLite& request) {
  zksmessages::ResultPayload payload;
  Answer answer;
  EXPECT_TRUE(payload.ParseFromString(testing::itemsOf(call(address, method, testing::requestOf(request))).at(0)));
  EXPECT_TRUE(answer.ParseFromString(payload.result().value()));
  return answer;
}

zksmessages::SubmitJobRequest smallJob() {
  zksmessages::SubmitJobRequest request;
  request.set_key("small");
  request.mutable_job()->add_arrays()->set_count(3);
  request.mutable_job()->mutable_arrays(0)->mutable_command()->add_argv("true");
  return request;
}

class Zksd : public ::testing::Test {
 protected:
  Zksd() { fs::create_directory(scratch()); }
  ~Zksd() override { EXPECT_TRUE(fs::is_empty(scratch())) << "a scratch directory is left"; }

  fs::path socket() const { return place_.file("zksd.sock"); }
  fs::path scratch() const { return place_.file("scratch"); }
  fs::path file(const char* name) const { return place_.file(name); }
  std::vector<std::string> arguments(std::vector<std::string> more = {}) const {
    std::vector<std::string> all{"--scratch", scratch()};
    all.insert(all.end(), more.begin(), more.end());
    return all;
  }
  std::vector<std::string> onSocket() const { return arguments({"--socket", socket()}); }

  // Runs a task that does not end, until it has begun; its process.
  std::pair<std::future<Reply>, pid_t> startEndlessTask(core::Invokable& service) const {
    auto reply = start(service, "runTask", taskRequest("echo $$ > '" + file("pid").string() + "'; exec sleep 1000"));
    std::string line;
    EXPECT_TRUE(execution::testing::eventually([&] {
      std::ifstream pid(file("pid"));
      return std::getline(pid, line) && !pid.eof();
    }));
    return {std::move(reply), std::stoi(line)};
  }

 private:
  TemporaryDirectory place_;
};

TEST_F(Zksd, ServesOnItsSocketAndEndsCleanlyOnEachSignal) {
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    Daemon daemon(onSocket());
    const std::string address = daemon.address();
    EXPECT_EQ(address, "unix:" + socket().string());
    expectServes(address);
    daemon.signal(signal);
    EXPECT_EQ(daemon.exitCode(), 0);
    EXPECT_EQ(daemon.output(), "");
    EXPECT_THAT(daemon.error(), MatchesRegex("zksd: info: zks.scheduler: time=[^\n]* peer=unix method=\"runTask\" "
                                             "program=\"sh\" outcome=\"exited 0\" [^\n]*\n"));
    EXPECT_FALSE(fs::exists(socket()));
    EXPECT_FALSE(fs::exists(socket().string() + ".lock"));
    EXPECT_TRUE(fs::is_empty(scratch()));
  }
}

TEST_F(Zksd, SocketIsItsUsersAlone) {
  Daemon daemon(onSocket());
  daemon.address();
  struct stat status {};
  ASSERT_EQ(::lstat(socket().c_str(), &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.exitCode(), 0);
}

TEST_F(Zksd, DefaultSocketIsInThePrivateRuntimeDirectory) {
  const fs::path runtime = file("run");
  fs::create_directory(runtime);
  Daemon daemon(arguments(), {"XDG_RUNTIME_DIR=" + runtime.string()});
  const std::string address = daemon.address();
  EXPECT_EQ(address, "unix:" + (runtime / "zks" / "zksd.sock").string());
  EXPECT_EQ(fs::status(runtime / "zks").permissions(), fs::perms::owner_all);
  expectServes(address);
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.exitCode(), 0);
}

TEST_F(Zksd, RuntimeDirectoryOpenToOthersIsRefused) {
  const fs::path runtime = file("run");
  fs::create_directories(runtime / "zks");
  fs::permissions(runtime / "zks", fs::perms::owner_all | fs::perms::group_exec);
  Daemon daemon(arguments(), {"XDG_RUNTIME_DIR=" + runtime.string()});
  EXPECT_EQ(daemon.exitCode(), 1);
  EXPECT_THAT(daemon.error(), HasSubstr("is open to others (mode 0710, not 0700)"));
}

TEST_F(Zksd, SecondOnTheSameSocketIsRefusedAndTheFirstGoesOn) {
  Daemon first(onSocket());
  const std::string address = first.address();
  Daemon second(onSocket());
  EXPECT_EQ(second.exitCode(), 1);
  EXPECT_THAT(second.error(), StartsWith("zksd: Another zksd (process "));
  expectServes(address);
  first.signal(SIGTERM);
  EXPECT_EQ(first.exitCode(), 0);
}

TEST_F(Zksd, AfterAKillTheNextTakesOverSocketAndScratch) {
  pid_t task = 0;
  {
    Daemon killed(onSocket());
    const auto service = agent::spf::grpc_transport::connect(killed.address());
    auto [reply, pid] = startEndlessTask(*service);
    task = pid;
    killed.signal(SIGKILL);
    EXPECT_EQ(killed.exitCode(), -SIGKILL);
    EXPECT_EQ(reply.wait_for(execution::testing::kDeadline), std::future_status::ready);
  }
  EXPECT_TRUE(execution::testing::hasEnded(task));
  EXPECT_TRUE(fs::exists(socket()));
  EXPECT_FALSE(fs::is_empty(scratch()));
  Daemon next(onSocket());
  expectServes(next.address());
  next.signal(SIGTERM);
  EXPECT_EQ(next.exitCode(), 0);
}

TEST_F(Zksd, WhatATaskLeftInASessionOfItsOwnIsGoneWithTheReply) {
  Daemon daemon(onSocket());
  const std::string escape = "setsid sh -c 'echo $$; : > ready; exec sleep 1000' & while [ ! -e ready ]; do :; done";
  const auto items = testing::itemsOf(call(daemon.address(), "runTask", taskRequest(escape)));
  EXPECT_NE(::kill(std::stoi(testing::plainOf(items.at(1))), 0), 0);
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.exitCode(), 0);
}

TEST_F(Zksd, WhatTasksOfAKilledOneLeftIsKilledByTheNext) {
  pid_t left = 0;
  {
    Daemon killed(onSocket());
    const auto service = agent::spf::grpc_transport::connect(killed.address());
    auto reply =
        start(*service, "runTask",
              taskRequest("setsid sh -c 'echo $$ > \"" + file("left").string() + "\"; exec sleep 1000' & wait"));
    std::string line;
    EXPECT_TRUE(execution::testing::eventually([&] {
      std::ifstream number(file("left"));
      return std::getline(number, line) && !number.eof();
    }));
    left = std::stoi(line);
    killed.signal(SIGKILL);
    EXPECT_EQ(killed.exitCode(), -SIGKILL);
  }
  EXPECT_EQ(::kill(left, 0), 0);
  Daemon next(onSocket());
  expectServes(next.address());
  EXPECT_TRUE(execution::testing::hasEnded(left));
  next.signal(SIGTERM);
  EXPECT_EQ(next.exitCode(), 0);
  EXPECT_THAT(next.error(), HasSubstr("Killed processes that tasks of a service that died had left: "));
}

TEST_F(Zksd, ShutdownEndsTasksUnderWay) {
  Daemon daemon(onSocket());
  const auto service = agent::spf::grpc_transport::connect(daemon.address());
  auto [reply, task] = startEndlessTask(*service);
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.exitCode(), 0);
  EXPECT_TRUE(execution::testing::hasEnded(task));
  ASSERT_EQ(reply.wait_for(execution::testing::kDeadline), std::future_status::ready);
  EXPECT_ANY_THROW(reply.get());
}

TEST_F(Zksd, ClientThatGoesAwayEndsItsTask) {
  Daemon daemon(onSocket());
  auto service = agent::spf::grpc_transport::connect(daemon.address());
  auto [reply, task] = startEndlessTask(*service);
  service.reset();
  EXPECT_TRUE(execution::testing::hasEnded(task));
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.exitCode(), 0);
}

TEST_F(Zksd, PlainTcpIsServedAfterTheExplicitWord) {
  Daemon daemon(arguments({"--listen", "127.0.0.1:0", "--insecure"}));
  const std::string address = daemon.address();
  EXPECT_THAT(address, ::testing::Not(::testing::EndsWith(":0")));
  ConnectOptions options;
  options.plainText = true;
  expectServes(address, options);
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.exitCode(), 0);
  EXPECT_EQ(daemon.output(), "");
}

TEST_F(Zksd, TcpIsGuardedByCredentialsMadeAtFirstStart) {
  const fs::path tls = file("state/tls");
  Daemon daemon(arguments({"--listen", "127.0.0.1:0", "--tls", tls}));
  const std::string address = daemon.address();
  EXPECT_EQ(execution::testing::readLine(daemon.outputFd()),
            "zksd: a client needs ca.pem, client.pem, client-key.pem and token of " + tls.string());
  ConnectOptions options;
  options.credentials = agent::spf::security::readClientCredentials(tls);
  expectServes(address, options);
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.exitCode(), 0);
}

TEST_F(Zksd, TasksDoNotInheritItsUmask) {
  Daemon daemon(onSocket());
  const std::string address = daemon.address();
  const mode_t ours = ::umask(0);
  ::umask(ours);
  const auto items = testing::itemsOf(call(address, "runTask", taskRequest("umask")));
  EXPECT_EQ(std::stoul(testing::plainOf(items.at(1)), nullptr, 8), ours);
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.exitCode(), 0);
}

TEST_F(Zksd, LargerRequestThanAllowedIsRefusedNamingTheOption) {
  Daemon daemon(arguments({"--socket", socket(), "--max-request", "1K"}));
  const std::string address = daemon.address();
  expectServes(address);
  EXPECT_THAT(
      [&] { call(address, "echo", std::string(1025, 'x')); },
      ThrowsMessage<std::exception>(
          "The request of call \"echo\" has 1025 bytes, and at most 1024 are allowed: see zksd --max-request."));
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.exitCode(), 0);
}

TEST_F(Zksd, ErrorsCrossTheWire) {
  Daemon daemon(onSocket());
  const std::string address = daemon.address();
  EXPECT_THAT(
      [&] { call(address, "runTask", testing::requestOf(zksmessages::TaskDescription())); },
      ThrowsMessage<std::exception>("The task description cannot be used: argv: it is empty, and names no program."));
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.exitCode(), 0);
  EXPECT_THAT(daemon.error(), HasSubstr("method=\"runTask\" outcome=\"failed: parallel:scheduler:BadTaskField: "));
}

TEST_F(Zksd, HundredsOfTasksWaitTheirTurnWithFewDescriptors) {
  constexpr int kTasks = 500;
  Daemon daemon(arguments({"--socket", socket(), "--slots", "2"}), {},
                {"sh", "-c", "ulimit -n 256; exec \"$0\" \"$@\""});
  const auto service = agent::spf::grpc_transport::connect(daemon.address());
  zksmessages::TaskDescription task;
  for (const char* word : {"cat", "data"})
    task.add_argv(word);
  task.add_input_files("data");
  const auto deadline = std::chrono::steady_clock::now() + 5 * execution::testing::kDeadline;
  std::vector<std::future<Reply>> replies;
  for (int i = 0; i < kTasks; ++i)
    replies.push_back(start(*service, "runTask", testing::requestOf(task, {std::to_string(i)})));
  for (int i = 0; i < kTasks; ++i) {
    auto& reply = replies[static_cast<std::size_t>(i)];
    ASSERT_EQ(reply.wait_until(deadline), std::future_status::ready) << i;
    EXPECT_EQ(testing::plainOf(testing::itemsOf(contentOf(reply.get())).at(1)), std::to_string(i));
  }
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.exitCode(), 0);
}

TEST_F(Zksd, LeavesWhenNobodyHasCalledForSoLong) {
  Daemon daemon(arguments({"--socket", socket(), "--leave-after", "0.3"}));
  EXPECT_THAT(daemon.address(), HasSubstr(socket()));
  EXPECT_EQ(daemon.exitCode(), 0);
  EXPECT_FALSE(fs::exists(socket()));
}

TEST_F(Zksd, FullScratchIsSaidToTheClientAndInTheLog) {
  if (std::system("unshare --user --map-root-user --mount mount -t tmpfs none /tmp") != 0)
    GTEST_SKIP() << "this system lets nobody mount a file system of their own";
  const std::string mount = "mount -t tmpfs -o size=64k none '" + scratch().string() + "' && exec \"$0\" \"$@\"";
  Daemon daemon(onSocket(), {}, {"unshare", "--user", "--map-root-user", "--mount", "sh", "-c", mount});
  const std::string address = daemon.address();
  const auto run = [&](const std::string& script) {
    const auto items = testing::itemsOf(call(address, "runTask", taskRequest(script)));
    zksmessages::ResultPayload payload;
    zksmessages::TesselTaskExecutionInfo info;
    EXPECT_TRUE(payload.ParseFromString(items.at(0)) && info.ParseFromString(payload.result().value()));
    return info;
  };
  EXPECT_EQ(run("echo hi").message(), "");
  run("cat /dev/zero > ../../../fill");
  const auto info = run("echo hi");
  EXPECT_EQ(info.exit_status(), 1);
  EXPECT_EQ(info.message(),
            "The service's scratch directory is full (No space left on device): what the task wrote may be cut short.");
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.exitCode(), 0);
  EXPECT_THAT(daemon.error(), HasSubstr("is full: No space left on device"));
}

TEST_F(Zksd, ScratchThatWasCleanedAwayIsMadeAnew) {
  Daemon daemon(onSocket());
  const std::string address = daemon.address();
  expectServes(address);
  for (const auto& area : fs::directory_iterator(scratch()))
    fs::remove_all(area);
  expectServes(address);
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.exitCode(), 0);
  EXPECT_THAT(daemon.error(), HasSubstr("has been taken away; another one is made"));
}

TEST_F(Zksd, JobsOutliveAServiceThatIsKilled) {
  const std::vector<std::string> withStore = arguments({"--socket", socket(), "--store", file("store").string()});
  {
    Daemon daemon(withStore);
    const auto submitted = ask<zksmessages::SubmitJobReply>(daemon.address(), "submitJob", smallJob());
    EXPECT_EQ(submitted.job(), 1U);
    daemon.signal(SIGKILL);
    EXPECT_EQ(daemon.exitCode(), -SIGKILL);
  }
  for (const auto& left : fs::directory_iterator(scratch()))
    fs::remove_all(left);
  Daemon daemon(withStore);
  const std::string address = daemon.address();
  const auto again = ask<zksmessages::SubmitJobReply>(address, "submitJob", smallJob());
  EXPECT_TRUE(again.is_repeat());
  EXPECT_EQ(again.job(), 1U);
  zksmessages::JobRequest job;
  job.set_job(1);
  EXPECT_EQ(ask<zksmessages::DescribeJobReply>(address, "describeJob", job).summary().counts().ready(), 3U);
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.exitCode(), 0);
}

TEST_F(Zksd, WaitingTakeDoesNotHoldUpItsEnd) {
  Daemon daemon(arguments({"--socket", socket(), "--store", file("store").string()}));
  const std::string address = daemon.address();
  zksmessages::JoinRequest join;
  join.set_key("worker");
  zksmessages::TakeRequest take;
  take.set_worker(ask<zksmessages::JoinReply>(address, "join", join).worker());
  take.set_sequence(1);
  take.set_limit(1);
  take.mutable_wait()->set_seconds(60);
  const auto service = agent::spf::grpc_transport::connect(address, {});
  auto waiting = start(*service, "take", testing::requestOf(take));
  // A call that came later is answered: the other one waits by now, or will find the end.
  ask<zksmessages::DescribeServiceReply>(address, "describeService", zksmessages::DescribeServiceRequest());
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.exitCode(), 0);
  EXPECT_EQ(waiting.wait_for(execution::testing::kDeadline), std::future_status::ready);
}

TEST_F(Zksd, StoreOfAnotherServiceIsRefusedAtTheStart) {
  Daemon first(arguments({"--socket", socket(), "--store", file("store").string()}));
  first.address();
  Daemon second(arguments({"--socket", file("other.sock").string(), "--store", file("store").string()}));
  EXPECT_EQ(second.exitCode(), 1);
  EXPECT_THAT(second.error(), HasSubstr("is in use by"));
  first.signal(SIGTERM);
  EXPECT_EQ(first.exitCode(), 0);
}

}  // namespace
}  // namespace parallel::scheduler
