// Ctrl-C at every stage of a call, and the progress bar that one sees until then.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <iostream>
#include <string>

#include "cli/testing/TestService.h"
#include "cli/testing/ZksFixture.h"
#include "execution/testing/waiting.h"
#include "toolbox/testing/SilentListener.h"

namespace zks {
namespace {

using agent::spf::core::ServerCall;
using files::UniqueFd;
using parallel::execution::testing::eventually;
using parallel::execution::testing::isReadable;
using parallel::execution::testing::readLine;
using parallel::toolbox::SilentListener;
using testing::HasSubstr;
using testing::IsEmpty;

class ZksInterrupt : public ZksFixture {
 protected:
  void SetUp() override { std::filesystem::create_directory(path("out")); }

  // The time goes into the test's record; what is asserted is that it ends, with its code and one line.
  void interrupt(ChildProcess& zks, int signal = SIGINT) {
    const auto begin = std::chrono::steady_clock::now();
    zks.send(signal);
    const ProcessOutcome outcome = zks.wait();
    const auto took = std::chrono::steady_clock::now() - begin;
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(took).count();
    RecordProperty("milliseconds", static_cast<int>(milliseconds));
    std::cout << "ended " << milliseconds << " ms after the signal\n";
    EXPECT_EQ(outcome.exitCode, 128 + signal);
    EXPECT_EQ(outcome.error, "zks: interrupted\n");
    EXPECT_THAT(namesIn("out"), IsEmpty());
  }

  // A task that says when it has begun; the pipe ends when all of its processes have.
  Words taskThatWaits() {
    EXPECT_EQ(::mkfifo(path("alive").c_str(), 0600), 0);
    return {"run",  "--output", "o",
            "--to", "out",      "--",
            "sh",   "-c",       "exec 3> " + path("alive") + "; echo started >&3; sleep 1000; true"};
  }

  UniqueFd waitForTask() {
    UniqueFd alive(::open(path("alive").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(readLine(alive.get()), "started");
    return alive;
  }

  static bool hasEnded(const UniqueFd& alive) {
    char byte = 0;
    return isReadable(alive.get()) && ::read(alive.get(), &byte, 1) == 0;
  }
};

TEST_F(ZksInterrupt, WhileConnectingToASocketThatNeverAnswers) {
  const SilentListener silent(path("s"));
  setAddress("unix:" + path("s"));
  const auto zks = startZks({"call", "echo"});
  const UniqueFd connection = silent.accept();
  interrupt(*zks);
}

TEST_F(ZksInterrupt, WhileWaitingForAServiceThatHasStopped) {
  startDaemon();
  const auto zks = startZks(taskThatWaits());
  const UniqueFd alive = waitForTask();
  daemon().send(SIGSTOP);
  int status = 0;
  ASSERT_EQ(::waitpid(daemon().pid(), &status, WUNTRACED), daemon().pid());
  ASSERT_TRUE(WIFSTOPPED(status));
  interrupt(*zks);
  daemon().send(SIGCONT);
  EXPECT_TRUE(hasEnded(alive)) << "the abandoned task is ended once the service goes on";
}

TEST_F(ZksInterrupt, OfATaskMakesTheServiceEndIt) {
  startDaemon();
  const auto zks = startZks(taskThatWaits());
  const UniqueFd alive = waitForTask();
  interrupt(*zks);
  EXPECT_TRUE(hasEnded(alive));
}

TEST_F(ZksInterrupt, OfATaskOfTheEmbeddedServiceEndsIt) {
  const auto zks = startZks(taskThatWaits());
  const UniqueFd alive = waitForTask();
  interrupt(*zks);
  EXPECT_TRUE(hasEnded(alive));
}

TEST_F(ZksInterrupt, ByTerminationEndsTheSameWay) {
  startDaemon();
  const auto zks = startZks(taskThatWaits());
  const UniqueFd alive = waitForTask();
  interrupt(*zks, SIGTERM);
  EXPECT_TRUE(hasEnded(alive));
}

TEST_F(ZksInterrupt, WhileSendingToAServiceThatDoesNotRead) {
  std::atomic<bool> called = false;
  const TestService service(path("s"), [&called](ServerCall& call) {
    called = true;
    eventually([&] { return call.isCancelled(); });
  });
  setAddress(service.address());
  writeFile(path("large"), std::string(64 << 20, 'x'));
  const auto zks = startZks({"call", "any", "--file", "large"});
  ASSERT_TRUE(eventually([&] { return called.load(); }));
  interrupt(*zks);
}

TEST_F(ZksInterrupt, WhileAReplyWithoutEndComesIn) {
  std::atomic<int> written = 0;
  const TestService service(path("s"), [&written](ServerCall& call) {
    call.reply().write("\0\0\0\0\1", 5);
    std::string block(32769, 'x');
    block[0] = '\x7F';
    block[1] = '\xFF';
    while (!call.isCancelled() && call.reply().write(block.data(), static_cast<std::streamsize>(block.size())))
      ++written;
  });
  setAddress(service.address());
  const auto zks = startZks({"call", "any", "--reply", "file:out/endless"});
  ASSERT_TRUE(eventually([&] { return written > 1000; }));
  interrupt(*zks);
}

TEST_F(ZksInterrupt, WhileAReplyStandsStill) {
  const TestService service(path("s"), [](ServerCall& call) {
    call.reply().write("\0\0\0\0\1\0\1x", 8).flush();
    eventually([&] { return call.isCancelled(); });
  });
  setAddress(service.address());
  const auto zks = startZks({"call", "any", "--reply", "file:out/half"});
  // The file stands open when the reply has begun.
  ASSERT_TRUE(eventually([&] { return hasOpenFile(*zks, "out"); }));
  interrupt(*zks);
}

TEST_F(ZksInterrupt, WhileNobodyReadsTheOutput) {
  startDaemon();
  ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
  const UniqueFd reader(::open(path("pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  Words words{"sh", "-c", "exec \"$@\" > " + path("pipe"), "sh"};
  const Words command = zksWords({"run", "--", "head", "-c", "1000000", "/dev/zero"});
  words.insert(words.end(), command.begin(), command.end());
  ChildProcess zks(words, directory());
  ASSERT_TRUE(isReadable(reader.get()));
  interrupt(zks);
}

TEST_F(ZksInterrupt, WhileItsStandardInputHasNoEnd) {
  startDaemon();
  ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
  const auto zks = startZks({"run", "--stdin", "pipe", "--", "cat"});
  const UniqueFd writer(::open(path("pipe").c_str(), O_WRONLY | O_CLOEXEC));  // zks has opened it
  ASSERT_EQ(::write(writer.get(), "x", 1), 1);
  interrupt(*zks);
}

TEST_F(ZksInterrupt, ThatWhoeverStartedZksIgnoresIsIgnored) {
  startDaemon();
  ASSERT_EQ(::mkfifo(path("go").c_str(), 0600), 0);
  Words words{"sh", "-c", "trap '' INT; exec \"$@\"", "sh"};
  Words task = taskThatWaits();
  task.back() = "exec 3> " + path("alive") + "; echo started >&3; read line < " + path("go") + "; touch o";
  const Words command = zksWords(task);
  words.insert(words.end(), command.begin(), command.end());
  ChildProcess zks(words, directory());
  const UniqueFd alive = waitForTask();
  zks.send(SIGINT);
  const UniqueFd go(::open(path("go").c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_EQ(::write(go.get(), "\n", 1), 1);
  const ProcessOutcome outcome = zks.wait();
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_EQ(outcome.error, "");
  EXPECT_THAT(namesIn("out"), testing::ElementsAre("o"));
}

// --- On a terminal ---

class Terminal {
 public:
  Terminal(const Words& command, const std::string& directory, unsigned short columns = 100) {
    std::vector<char*> words;
    for (const std::string& word : command)
      words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    int file = -1;
    winsize size{24, columns, 0, 0};
    pid_ = ::forkpty(&file, nullptr, nullptr, &size);
    if (pid_ == 0) {
      std::signal(SIGINT, SIG_DFL);
      if (::chdir(directory.c_str()) == 0)
        ::execv(words[0], words.data());
      ::_exit(99);
    }
    file_ = UniqueFd(file);
  }

  ~Terminal() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  // Everything shown up to now; false when the terminal's program has ended or the deadline passed.
  bool readUntil(const std::string& text) {
    char piece[4096];
    while (shown_.find(text) == std::string::npos) {
      const ssize_t got = isReadable(file_.get()) ? ::read(file_.get(), piece, sizeof piece) : 0;
      if (got <= 0)
        return false;
      shown_.append(piece, static_cast<std::size_t>(got));
    }
    return true;
  }

  void type(char key) { EXPECT_EQ(::write(file_.get(), &key, 1), 1); }
  const std::string& shown() const noexcept { return shown_; }

  int wait() {
    readUntil("nothing that is ever shown");
    int status = 0;
    EXPECT_EQ(::waitpid(pid_, &status, 0), pid_);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  pid_t pid_ = -1;
  UniqueFd file_;
  std::string shown_;
};

// What is left on the screen's last line.
std::string lastLine(const std::string& shown) {
  const std::size_t wiped = shown.rfind("\r\x1b[K");
  return wiped == std::string::npos ? shown : shown.substr(wiped + 4);
}

TEST_F(ZksInterrupt, ProgressIsShownOnATerminalAndWipedBeforeTheOutput) {
  startDaemon();
  ASSERT_EQ(::mkfifo(path("go").c_str(), 0600), 0);
  Terminal terminal(zksWords({"run", "--", "sh", "-c", "read line < " + path("go") + "; echo done"}), directory());
  ASSERT_TRUE(terminal.readUntil("running ")) << terminal.shown();
  const UniqueFd go(::open(path("go").c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_EQ(::write(go.get(), "\n", 1), 1);
  EXPECT_EQ(terminal.wait(), 0);
  EXPECT_EQ(lastLine(terminal.shown()), "done\r\n");
}

TEST_F(ZksInterrupt, ProgressTellsATaskThatWaitsForItsTurnFromOneThatRuns) {
  startDaemon({"--slots", "1"});
  const auto first = startZks(taskThatWaits());
  const UniqueFd alive = waitForTask();
  ASSERT_EQ(::mkfifo(path("go").c_str(), 0600), 0);
  Terminal terminal(zksWords({"run", "--", "sh", "-c", "read line < " + path("go")}), directory());
  ASSERT_TRUE(terminal.readUntil("queued ")) << terminal.shown();
  interrupt(*first);
  ASSERT_TRUE(terminal.readUntil("running ")) << terminal.shown();
  const UniqueFd go(::open(path("go").c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_EQ(::write(go.get(), "\n", 1), 1);
  EXPECT_EQ(terminal.wait(), 0);
}

// Announces one item of two blocks, and holds back the second until it may go on.
void replyInHalves(ServerCall& call, const std::atomic<bool>& go) {
  const std::string block = std::string("\x7F\xFF", 2) + std::string(32767, 'x');
  call.setReplySize(5 + 2 * 32769 + 2);
  call.reply().write("\0\0\0\0\1", 5);
  call.reply().write(block.data(), 32769).flush();
  eventually([&] { return go || call.isCancelled(); });
  call.reply().write(block.data(), 32769).write("\xFF\xFF", 2);
}

TEST_F(ZksInterrupt, ProgressOfAReplyOfKnownSizeShowsABar) {
  std::atomic<bool> go = false;
  const TestService service(path("s"), [&go](ServerCall& call) { replyInHalves(call, go); });
  setAddress(service.address());
  Terminal terminal(zksWords({"call", "any", "--reply", "file"}), directory());
  ASSERT_TRUE(terminal.readUntil("receiving 32.0 KiB of 64.0 KiB [============>")) << terminal.shown();
  go = true;
  EXPECT_EQ(terminal.wait(), 0);
  EXPECT_THAT(lastLine(terminal.shown()), testing::StartsWith("1 file  65534 bytes"));
}

TEST_F(ZksInterrupt, ProgressFitsANarrowTerminal) {
  std::atomic<bool> go = false;
  const TestService service(path("s"), [&go](ServerCall& call) { replyInHalves(call, go); });
  setAddress(service.address());
  Terminal terminal(zksWords({"call", "any", "--reply", "file"}), directory(), 20);
  ASSERT_TRUE(terminal.readUntil("receiving 50%")) << terminal.shown();
  go = true;
  EXPECT_EQ(terminal.wait(), 0);
}

TEST_F(ZksInterrupt, CtrlCOnATerminalLeavesOneLine) {
  startDaemon();
  Terminal terminal(zksWords(taskThatWaits()), directory());
  const UniqueFd alive = waitForTask();
  ASSERT_TRUE(terminal.readUntil("running ")) << terminal.shown();
  terminal.type('\x03');
  EXPECT_EQ(terminal.wait(), 130);
  EXPECT_EQ(lastLine(terminal.shown()), "zks: interrupted\r\n");
  EXPECT_TRUE(hasEnded(alive));
}

TEST_F(ZksInterrupt, NoProgressIsShownInAPipe) {
  startDaemon();
  const auto outcome = zks({"run", "--", "sleep", "1.5"});
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_EQ(outcome.error, "");
}

}  // namespace
}  // namespace zks
