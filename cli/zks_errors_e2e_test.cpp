// What goes wrong ends in one line on standard error, an exit code of its own and nothing left behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <tuple>

#include "cli/testing/TestService.h"
#include "cli/testing/ZksFixture.h"
#include "execution/testing/waiting.h"
#include "platform/spf/core/errors.h"
#include "platform/zksmessages/zksmessages.pb.h"

namespace zks {
namespace {

using agent::spf::core::ServerCall;
using parallel::zksmessages::ResultPayload;
using parallel::zksmessages::TesselTaskExecutionInfo;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ZksErrors : public ZksFixture {
 protected:
  void SetUp() override { std::filesystem::create_directory(path("out")); }

  // One line with all of the words, the exit code, and no files in "out".
  void expectFailure(const ProcessOutcome& outcome, int exitCode, const Words& words) const {
    EXPECT_EQ(outcome.exitCode, exitCode);
    EXPECT_THAT(outcome.error, testing::StartsWith("zks: "));
    EXPECT_EQ(std::count(outcome.error.begin(), outcome.error.end(), '\n'), 1) << outcome.error;
    EXPECT_TRUE(outcome.error.ends_with("\n"));
    for (const std::string& word : words)
      EXPECT_THAT(outcome.error, HasSubstr(word));
    EXPECT_THAT(namesIn("out"), IsEmpty());
  }
};

// --- Containers as a service would write them ---

std::string bigEndian(std::uint64_t value, int nbytes) {
  std::string bytes;
  for (int i = nbytes; i-- > 0;)
    bytes += static_cast<char>(value >> (8 * i) & 0xFF);
  return bytes;
}

std::string container(std::uint32_t count, const std::string& items) {
  return '\0' + bigEndian(count, 4) + items;
}

std::string framed(const std::string& content) {
  std::string bytes;
  for (std::size_t at = 0; at < content.size(); at += 32767) {
    const std::string block = content.substr(at, 32767);
    bytes += bigEndian(block.size(), 2) + block;
  }
  return bytes + "\xFF\xFF";
}

std::string framedResult(const google::protobuf::Message& message) {
  ResultPayload payload;
  payload.mutable_result()->set_type_url("type.googleapis.com/" + message.GetTypeName());
  payload.mutable_result()->set_value(message.SerializeAsString());
  return framed(payload.SerializeAsString());
}

std::string framedPlain(const std::string& bytes) {
  return framed(bigEndian(bytes.size(), 8) + bytes);
}

std::string goodTaskReplyHead() {
  TesselTaskExecutionInfo info;
  info.set_outcome(TesselTaskExecutionInfo::OUTCOME_EXITED);
  info.set_exit_status(0);
  return framedResult(info) + framedPlain("") + framedPlain("");
}

// --- Where the service is ---

TEST_F(ZksErrors, MalformedAddressSaysWhatAnAddressIs) {
  setAddress("nonsense");
  expectFailure(zks({"echo"}), 2, {"\"nonsense\" is not a service address", "unix:PATH or HOST:PORT"});
}

TEST_F(ZksErrors, AddressWithoutAPathIsTheDefaultSocket) {
  Words words = zksWords({"--address", "unix:", "echo"});
  words.insert(words.begin(), {"env", "XDG_RUNTIME_DIR=" + directory()});
  expectFailure(runProgram(words, directory()), 1, {path("zks/zksd.sock")});
  ChildProcess daemon({"env", "XDG_RUNTIME_DIR=" + directory(), ZKSD_PROGRAM, "--log", "off"}, directory());
  ASSERT_THAT(daemon.readLine(), HasSubstr("listening"));
  EXPECT_EQ(runProgram(words, directory()).exitCode, 0);
}

TEST_F(ZksErrors, EnvironmentNamesTheServiceWhereTheLineDoesNot) {
  Words words = zksWords({"echo"});
  words.insert(words.begin(), {"env", "ZKS_ADDRESS=unix:" + path("none")});
  expectFailure(runProgram(words, directory()), 1, {path("none")});
}

TEST_F(ZksErrors, SocketFileThatIsNotThereIsNamed) {
  setAddress("unix:" + path("none"));
  expectFailure(zks({"echo"}), 1, {path("none")});
  expectFailure(zks({"run", "--", "true"}), 125, {path("none")});
}

TEST_F(ZksErrors, PortWhereNothingListensIsNamed) {
  const files::UniqueFd bound(::socket(AF_INET, SOCK_STREAM, 0));  // keeps the port, does not listen
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof name;
  ASSERT_EQ(::bind(bound.get(), reinterpret_cast<const sockaddr*>(&name), size), 0);
  ASSERT_EQ(::getsockname(bound.get(), reinterpret_cast<sockaddr*>(&name), &size), 0);
  setAddress("127.0.0.1:" + std::to_string(ntohs(name.sin_port)));
  expectFailure(zks({"--insecure", "echo"}), 1, {address(), "nothing listens there"});
}

TEST_F(ZksErrors, ServiceThatHasEndedIsNamed) {
  startDaemon();
  daemon().send(SIGKILL);
  daemon().wait();
  expectFailure(zks({"echo"}), 1, {path("daemon/s")});
}

TEST_F(ZksErrors, ServiceThatEndsDuringACallHasGoneAway) {
  startDaemon();
  ASSERT_EQ(::mkfifo(path("started").c_str(), 0600), 0);
  const auto running = startZks(
      {"run", "--output", "o", "--to", "out", "--", "sh", "-c", "echo > " + path("started") + "; exec sleep 1000"});
  const files::UniqueFd started(::open(path("started").c_str(), O_RDONLY));
  parallel::execution::testing::readLine(started.get());
  daemon().send(SIGKILL);
  expectFailure(running->wait(), 125, {"went away while runTask was under way", path("daemon/s")});
}

// --- What is asked for ---

TEST_F(ZksErrors, UnknownMethodIsAnsweredWithThoseThereAre) {
  expectFailure(zks({"call", "jump"}), 1, {"\"jump\"", "echo", "runTask"});
}

TEST_F(ZksErrors, WrongNumberOfItemsSaysBothNumbers) {
  expectFailure(zks({"call", "echo"}), 1, {"wrong number of items", "1 expected", "0 found"});
  expectFailure(zks({"call", "runTask", "--protobuf",
                     R"({"@type":"parallel.zksmessages.TaskDescription","argv":["x"]})", "--plain", "more"}),
                1, {"wrong number of items"});
}

TEST_F(ZksErrors, WrongNumberOfReplyKindsSaysBothNumbers) {
  const auto outcome =
      zks({"call", "runTask", "--protobuf", R"({"@type":"parallel.zksmessages.TaskDescription","argv":["true"]})",
           "--reply", "protobuf"});
  expectFailure(outcome, 1, {"has 3 items and --reply names 1"});
}

TEST_F(ZksErrors, StandardInputThatCannotBeReadIsNamed) {
  setAddress("unix:" + path("none"));
  expectFailure(zks({"run", "--stdin", "gone", "--", "true"}), 125, {"\"gone\"", "No such file or directory"});
  expectFailure(zks({"run", "--stdin", "out", "--", "true"}), 125, {"\"out\"", "it is a directory"});
  setAddress("");
  Words words{"sh", "-c", "exec \"$@\" < out", "sh"};
  const Words command = zksWords({"run", "--stdin", "-", "--", "true"});
  words.insert(words.end(), command.begin(), command.end());
  expectFailure(runProgram(words, directory()), 125, {"\"standard input\"", "Is a directory"});
}

TEST_F(ZksErrors, ItemWronglyTakenForPlainBytesSaysSo) {
  const auto outcome =
      zks({"call", "runTask", "--protobuf", R"({"@type":"parallel.zksmessages.TaskDescription","argv":["true"]})",
           "--reply", "plain,plain,plain"});
  expectFailure(outcome, 1,
                {"Item 1 of 3", "could not be read as plain bytes", "Take it as the kind that the method returns"});
}

TEST_F(ZksErrors, MissingFileIsNamedBeforeAnythingHappens) {
  setAddress("unix:" + path("none"));  // nothing is asked of a service
  for (const auto& [words, code] :
       {std::pair{Words{"echo", "--file", "gone"}, 1}, std::pair{Words{"call", "m", "--plain", "@gone"}, 1},
        std::pair{Words{"echo", "--array", "@gone.npy"}, 1},
        std::pair{Words{"run", "--file", "gone", "--", "true"}, 125}})
    expectFailure(zks(words), code, {"\"gone", "No such file or directory"});
  expectFailure(zks({"echo", "--file", "out"}), 1, {"\"out\"", "it is a directory"});
}

TEST_F(ZksErrors, FileThatIsNotAnArrayIsNamed) {
  writeFile(path("x.npy"), "hello");
  writeFile(path("x.cbor"), "hello");
  expectFailure(zks({"echo", "--array", "@x.npy"}), 1, {"\"x.npy\"", "NumPy"});
  expectFailure(zks({"echo", "--array", "@x.cbor"}), 1, {"\"x.cbor\"", "saved array"});
}

TEST_F(ZksErrors, TextsThatMeanNothingAreUsageErrors) {
  expectFailure(zks({"echo", "--array", "[1,"}), 2, {"--array"});
  expectFailure(zks({"echo", "--protobuf", "{}"}), 2, {"@type"});
  expectFailure(zks({"echo", "--protobuf", R"({"@type":"parallel.zksmessages.TaskDescription","argvv":1})"}), 2,
                {"argvv"});
  writeFile(path("m.json"), "[]");
  expectFailure(zks({"echo", "--protobuf", "@m.json"}), 2, {"--protobuf @m.json: the text is not a JSON object"});
  expectFailure(zks({"--log", "loud", "echo"}), 2, {"\"loud\"", "trace"});
  expectFailure(zks({"echo", "--what"}), 2, {"--what", "zks echo --help"});
}

TEST_F(ZksErrors, FileThatIsNotADescriptorSetIsRefused) {
  writeFile(path("bad"), "hello");
  expectFailure(zks({"--descriptors", "bad", "echo"}), 1, {"--descriptors bad: ", "FileDescriptorSet"});
}

// --- Where things go ---

TEST_F(ZksErrors, DirectoryThatCannotBeWrittenToIsNamedBeforeTheTaskRuns) {
  startDaemon();
  writeFile(path("file"), "");
  const Words task{"--", "touch", path("ran"), "o"};
  for (const auto& [to, reason] : {std::pair{"none", "No such file"}, std::pair{"file", "not a directory"}}) {
    Words words{"run", "--output", "o", "--to", to};
    words.insert(words.end(), task.begin(), task.end());
    expectFailure(zks(words), 125, {std::string("\"") + to + "\"", reason});
  }
  EXPECT_FALSE(std::filesystem::exists(path("ran")));
  expectFailure(zks({"echo", "--plain", "x", "--save", "none"}), 1, {"\"none\"", "No such file"});
}

TEST_F(ZksErrors, PlaceThatCannotTakeAFileIsNamedBeforeTheCall) {
  startDaemon();
  ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
  const std::string task =
      R"({"@type":"parallel.zksmessages.TaskDescription","argv":["touch",")" + path("ran") + "\"]}";
  for (const auto& [place, reason] : {std::pair{"none/x", "No such file"}, std::pair{"out", "it is a directory"},
                                      std::pair{"pipe", "not a regular file"}})
    expectFailure(zks({"call", "runTask", "--protobuf", task, "--reply", std::string("protobuf,plain,file:") + place}),
                  1, {place == std::string("none/x") ? "\"none\"" : "\"" + std::string(place) + "\"", reason});
  expectFailure(zks({"call", "runTask", "--protobuf", task, "--reply", "protobuf,plain,plain", "--save", "none"}), 1,
                {"\"none\""});
  expectFailure(zks({"run", "--output", "pipe", "--", "touch", path("ran")}), 125, {"pipe\"", "not a regular file"});
  EXPECT_FALSE(std::filesystem::exists(path("ran")));
  EXPECT_TRUE(std::filesystem::is_fifo(path("pipe")));
}

TEST_F(ZksErrors, ItemThatFindsNoRoomIsNamedByWhereItGoes) {
  const std::string limited = "ulimit -f 64; exec \"$@\"";  // 64 blocks of 512 or 1024 bytes, as shells count them
  writeFile(path("big"), someBytes(1 << 20));
  std::string array = "[0";
  for (int i = 0; i < 20'000; ++i)
    array += ",0";
  for (const auto& [option, value, name] :
       {std::tuple{"--plain", std::string("@big"), "item-1.bin"}, std::tuple{"--array", array + "]", "item-1.npy"}}) {
    Words words = zksWords({"echo", "--save", "out", option, value});
    words.insert(words.begin(), {"sh", "-c", limited, "sh"});
    expectFailure(runProgram(words, directory()), 1, {std::string("out/") + name + "\"", "File too large"});
  }
}

TEST_F(ZksErrors, FileWhoseNameTheHostCannotHaveIsNamed) {
  writeFile(path("caf\xE9"), "x");
  expectFailure(zks({"echo", "--file", "caf\xE9"}), 1, {"\"caf\\xe9\"", "its name is not UTF-8"});
}

TEST_F(ZksErrors, TemporaryDirectoryThatIsNotThereIsNamed) {
  Words words = zksWords({"run", "--", "true"});
  words.insert(words.begin(), {"env", "TMPDIR=" + path("none")});
  expectFailure(runProgram(words, directory()), 125, {"\"" + path("none") + "\"", "No such file"});
}

TEST_F(ZksErrors, OutputsAreFetchedThoughNobodyTakesWhatTheTaskSaid) {
  Words words = zksWords({"run", "--output", "o", "--to", "out", "--", "sh", "-c", "echo told; echo made >o"});
  words.insert(words.begin(), {"sh", "-c", "exec \"$@\" >&-", "sh"});
  const auto outcome = runProgram(words, directory());
  EXPECT_EQ(outcome.exitCode, 125);
  EXPECT_EQ(outcome.error, "zks: cannot write to standard output: Bad file descriptor\n");
  EXPECT_EQ(readFile(path("out/o")), "made\n");
}

TEST_F(ZksErrors, CurrentDirectoryThatHasGoneIsNamed) {
  const std::string leave = "mkdir gone && cd gone && rmdir ../gone && exec \"$@\"";
  const auto daemon = runProgram({"sh", "-c", leave, "sh", ZKSD_PROGRAM, "--socket", "s"}, directory());
  EXPECT_EQ(daemon.exitCode, 1);
  EXPECT_THAT(daemon.error, HasSubstr("The current directory, from which the path \"s\" starts, cannot be found"));
  setAddress("unix:s");
  Words words = zksWords({"echo"});
  words.insert(words.begin(), {"sh", "-c", leave, "sh"});
  expectFailure(runProgram(words, directory()), 2, {"\"unix:s\"", "the current directory", "cannot be found"});
}

TEST_F(ZksErrors, StandardStreamsThatAreClosedAreNobodysDescriptors) {
  ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
  Words words{"sh", "-c", "exec \"$@\" <&- >&- 2>&-", "sh"};
  const Words command = zksWords({"run", "--stdin", "pipe", "--", "true"});
  words.insert(words.end(), command.begin(), command.end());
  ChildProcess zks(words, directory());
  const files::UniqueFd writer(::open(path("pipe").c_str(), O_WRONLY | O_CLOEXEC));  // zks has opened it
  for (const char* stream : {"0", "1", "2"})
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(zks.pid()) + "/fd/" + stream), "/dev/null");
}

TEST_F(ZksErrors, DaemonWithoutStandardErrorLogsIntoNoneOfItsFiles) {
  ChildProcess daemon({"sh", "-c", "exec \"$@\" 2>&-", "sh", ZKSD_PROGRAM, "--socket", path("s"), "--log", "trace"},
                      directory());
  ASSERT_THAT(daemon.readLine(), HasSubstr("listening"));
  setAddress("unix:" + path("s"));
  EXPECT_EQ(zks({"echo", "--plain", "x"}).exitCode, 0);
  EXPECT_EQ(readFile(path("s.lock")), std::to_string(daemon.pid()));
  daemon.send(SIGTERM);
  EXPECT_EQ(daemon.wait().exitCode, 0);
}

TEST_F(ZksErrors, DaemonThatCannotSayWhatItWasAskedFails) {
  for (const char* option : {"--help", "--version"}) {
    const auto outcome = runProgram({"sh", "-c", "exec \"$@\" >/dev/full", "sh", ZKSD_PROGRAM, option}, directory());
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(outcome.error, "zksd: cannot write to standard output\n");
  }
}

TEST_F(ZksErrors, DirectoryThatRefusesNewFilesIsNamed) {
  // Even the super-user cannot create files there.
  expectFailure(zks({"run", "--output", "o", "--to", "/proc", "--", "touch", "o"}), 125, {"\"/proc\""});
}

TEST_F(ZksErrors, OutputWhosePlaceIsADirectoryLeavesNothing) {
  std::filesystem::create_directories(path("to/o"));
  const auto outcome = zks({"run", "--output", "o", "--to", "to", "--", "touch", "o"});
  expectFailure(outcome, 125, {"\"to/o\"", "it is a directory; --output o/ fetches a folder into it"});
  EXPECT_THAT(namesIn("to"), ElementsAre("o"));
}

TEST_F(ZksErrors, FolderWhosePlaceIsAFileIsNamed) {
  std::filesystem::create_directories(path("to"));
  writeFile(path("to/o"), "what was there");
  const Words before{"run", "--output", "o/", "--to", "to", "--", "touch", path("ran")};
  expectFailure(zks(before), 125, {"\"to/o\"", "it is not a directory"});
  EXPECT_FALSE(std::filesystem::exists(path("ran")));
  expectFailure(zks({"run", "--output", "o", "--to", "to", "--", "mkdir", "o"}), 125, {"\"to/o\"", "Not a directory"});
  EXPECT_EQ(readFile(path("to/o")), "what was there");
}

TEST_F(ZksErrors, OutputThatIsNoFolderOrInOneThatIsNoFileIsSaid) {
  const auto file = zks({"run", "--output", "o/", "--", "touch", "o"});
  EXPECT_EQ(file.exitCode, 125);
  EXPECT_EQ(file.error, "zks: the output \"o/\" cannot be fetched: it is a file and no folder\n");
  const auto link = zks({"run", "--output", "o", "--", "sh", "-c", "mkdir o; ln -s / o/root; touch o/x"});
  EXPECT_EQ(link.exitCode, 125);
  EXPECT_EQ(link.error,
            "zks: the output \"o/root\" cannot be fetched: it is a symbolic link, and only regular files can "
            "be returned\n");
  EXPECT_THAT(namesIn("o"), ElementsAre("x"));
}

TEST_F(ZksErrors, FolderThatCannotBeSentWholeIsNamed) {
  std::filesystem::create_directories(path("d"));
  std::filesystem::create_directory_symlink("/", path("d/root"));
  expectFailure(zks({"run", "--file", "d", "--", "true"}), 125, {"\"d/root\" cannot be sent", "a link to a folder"});
}

TEST_F(ZksErrors, OutputThatDoesNotFitIsNamedAndLeavesNothing) {
  startDaemon();  // which is not under the limit
  for (const char* size : {"100000", "4100"}) {
    Words words{"sh", "-c", "ulimit -f 8; exec \"$@\"", "sh"};
    const Words command = zksWords(
        {"run", "--output", "o", "--to", "out", "--", "sh", "-c", std::string("head -c ") + size + " /dev/zero > o"});
    words.insert(words.end(), command.begin(), command.end());
    expectFailure(runProgram(words, directory()), 125, {"\"out/o\"", "File too large"});
  }
}

TEST_F(ZksErrors, StandardOutputThatIsFullIsNamed) {
  const Words words{"sh", "-c", "exec \"$@\" > /dev/full", "sh", ZKS_PROGRAM, "run", "--", "echo", "hello"};
  expectFailure(runProgram(words, directory()), 125, {"standard output", "No space left on device"});
}

// --- Replies as they should not be ---

struct BadReply {
  const char* what;
  std::string bytes;
  Words words;
};

TEST_F(ZksErrors, MalformedRepliesSayWhatIsWrong) {
  const Words echoPlain{"echo", "--plain", "x", "--save", "out"};
  const Words echoArray{"echo", "--array", "1", "--save", "out"};
  const Words echoMessage{"echo", "--protobuf", R"({"@type":"parallel.zksmessages.Missing"})", "--save", "out"};
  const Words run{"run", "--output", "o", "--to", "out", "--", "true"};
  const std::string endsEarly = "Byte stream did not have enough bytes for deserializing type";
  const struct {
    std::string bytes;
    Words command;
    Words words;
  } cases[] = {
      {"", echoPlain, {"echo", endsEarly}},
      {std::string(4, '\0'), echoPlain, {"echo", endsEarly}},
      {'\0' + std::string(4, '\xFF'), echoPlain, {"echo", "negative overflow"}},
      {container(0, ""), echoPlain, {"echo", "has 0 items, not 1"}},
      {container(2, ""), echoPlain, {"echo", "has 2 items, not 1"}},
      {container(1, ""), echoPlain, {"Item 1 of 1", endsEarly}},
      {container(1, framed("short")), echoPlain, {"Item 1 of 1", "not plain bytes", "it has 5 bytes"}},
      {container(1, framed(std::string(9, '\xFF'))), echoPlain, {"Item 1 of 1", "more than memory can hold"}},
      {container(1, std::string("\x80\x00", 2)), echoPlain, {"Item 1 of 1", "negative overflow"}},
      {container(1, framed("hello")), echoArray, {"Item 1 of 1", "not a serialised array"}},
      {container(1, framed("")), echoMessage, {"Item 1 of 1", "result"}},
      {container(1, framed("")), run, {"runTask", "has 1 items, not 4"}},
      {container(4, framedResult(parallel::zksmessages::Missing()) + framedPlain("") + framedPlain("") + framed("")),
       run,
       {"runTask", "not an execution record"}},
      {container(4, goodTaskReplyHead() + std::string("\x00\x05half", 6)), run, {"Item 4 of 4", endsEarly}},
      {container(4, goodTaskReplyHead()), run, {"Item 4 of 4", endsEarly}},
  };
  int number = 0;
  for (const auto& [bytes, command, words] : cases) {
    const TestService service(path("s" + std::to_string(++number)), answering(bytes));
    setAddress(service.address());
    SCOPED_TRACE("case " + std::to_string(number));
    expectFailure(zks(command), command.front() == "run" ? 125 : 1, words);
  }
}

TEST_F(ZksErrors, ServicesErrorInMidReplyIsTheCauseAndLeavesNothing) {
  const TestService service(path("s"), [](ServerCall& call) {
    const std::string begun = container(4, goodTaskReplyHead()) + bigEndian(32767, 2) + std::string(32767, 'x');
    call.reply().write(begun.data(), static_cast<std::streamsize>(begun.size())).flush();
    throw agent::spf::FrameworkError("the disk of the service is on fire");
  });
  setAddress(service.address());
  expectFailure(zks({"run", "--output", "o", "--to", "out", "--", "true"}), 125,
                {"Item 4 of 4", "runTask", "the disk of the service is on fire"});
}

TEST_F(ZksErrors, ServicesErrorChainIsOneLine) {
  const TestService service(path("s"), [](ServerCall&) {
    try {
      throw std::runtime_error("the reason");
    } catch (...) {
      std::throw_with_nested(agent::spf::FrameworkError("the consequence"));
    }
  });
  setAddress(service.address());
  expectFailure(zks({"call", "any"}), 1, {"any", "the consequence: the reason"});
}

TEST_F(ZksErrors, ItemsThatComeBackDifferentAreNamed) {
  const TestService service(path("s"), answering(container(2, framedPlain("a") + framedPlain("c"))));
  setAddress(service.address());
  const auto outcome = zks({"echo", "--plain", "a", "--plain", "b"});
  expectFailure(outcome, 1, {"item 2"});
  EXPECT_THAT(outcome.output, HasSubstr("DIFFERENT"));
}

}  // namespace
}  // namespace zks
