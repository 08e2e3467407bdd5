// zks against real services: what goes out comes back, tasks run, exit codes are the task's.
#include <gmock/gmock.h>
#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "cli/testing/ZksFixture.h"
#include "cli/testing/saveNpy.h"
#include "platform/zksmessages/zksmessages.pb.h"

namespace zks {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

enum class ServiceKind { Embedded, Socket };

class ZksEndToEnd : public ZksFixture, public testing::WithParamInterface<ServiceKind> {
 protected:
  void SetUp() override {
    std::filesystem::create_directory(path("out"));
    if (GetParam() == ServiceKind::Socket)
      startDaemon();
  }
};

INSTANTIATE_TEST_SUITE_P(Services, ZksEndToEnd, testing::Values(ServiceKind::Embedded, ServiceKind::Socket),
                         [](const auto& service) {
                           return service.param == ServiceKind::Embedded ? "Embedded" : "Socket";
                         });

constexpr std::size_t kBorderSizes[] = {0, 1, 32766, 32767, 32768, 65534, 65535, 70000};

void expectSame(const ProcessOutcome& outcome, std::size_t items) {
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_EQ(outcome.error, "");
  std::size_t same = 0;
  for (std::size_t at = outcome.output.find("  same\n"); at != std::string::npos;
       at = outcome.output.find("  same\n", at + 1))
    ++same;
  EXPECT_EQ(same, items) << outcome.output;
}

TEST_P(ZksEndToEnd, FilesOfBorderSizesComeBackByteForByte) {
  Words words{"echo", "--save", "out"};
  for (const std::size_t size : kBorderSizes) {
    writeFile(path("f" + std::to_string(size)), someBytes(size));
    words.insert(words.end(), {"--file", "f" + std::to_string(size)});
  }
  expectSame(zks(words), std::size(kBorderSizes));
  for (const std::size_t size : kBorderSizes)
    EXPECT_TRUE(readFile(path("out/f" + std::to_string(size))) == someBytes(size)) << size;
  EXPECT_EQ(namesIn("out").size(), std::size(kBorderSizes));
}

TEST_P(ZksEndToEnd, PlainBytesOfBorderSizesComeBackByteForByte) {
  Words words{"echo", "--save", "out"};
  for (const std::size_t size : kBorderSizes) {
    writeFile(path("p" + std::to_string(size)), someBytes(size));
    words.insert(words.end(), {"--plain", "@p" + std::to_string(size)});
  }
  expectSame(zks(words), std::size(kBorderSizes));
  for (std::size_t i = 0; i < std::size(kBorderSizes); ++i)
    EXPECT_TRUE(readFile(path("out/item-" + std::to_string(i + 1) + ".bin")) == someBytes(kBorderSizes[i]))
        << kBorderSizes[i];
}

TEST_P(ZksEndToEnd, ArraysOfBorderSizesComeBackByteForByte) {
  Words words{"echo", "--save", "out"};
  for (const std::size_t size : kBorderSizes) {
    const std::size_t shape[] = {size, 1};
    const qxArrayPtr array = qxCreateNumericArray(shape, qxClass::Uint8);
    const std::string bytes = someBytes(size);
    if (size > 0)
      std::memcpy(qxGetWritableData(array.get()), bytes.data(), size);
    saveNpy(path("a" + std::to_string(size) + ".npy"), array.get());
    words.insert(words.end(), {"--array", "@a" + std::to_string(size) + ".npy"});
  }
  expectSame(zks(words), std::size(kBorderSizes));
  for (std::size_t i = 0; i < std::size(kBorderSizes); ++i)
    EXPECT_TRUE(readFile(path("out/item-" + std::to_string(i + 1) + ".npy")) ==
                readFile(path("a" + std::to_string(kBorderSizes[i]) + ".npy")))
        << kBorderSizes[i];
}

// A description whose item, the message inside a result, has so many bytes.
parallel::zksmessages::TaskDescription descriptionOfItemSize(std::size_t nbytes) {
  parallel::zksmessages::TaskDescription description;
  description.add_argv("");
  std::size_t wanted = nbytes;
  for (;;) {
    description.set_argv(0, std::string(wanted, 'x'));
    parallel::zksmessages::ResultPayload payload;
    payload.mutable_result()->set_type_url("type.googleapis.com/" + description.GetTypeName());
    payload.mutable_result()->set_value(description.SerializeAsString());
    if (payload.ByteSizeLong() == nbytes)
      return description;
    --wanted;
  }
}

TEST_P(ZksEndToEnd, MessagesOfBorderSizesComeBackByteForByte) {
  const std::size_t sizes[] = {32766, 32767, 32768, 65534, 65535, 70000};
  Words words{"echo", "--save", "out"};
  for (const std::size_t size : sizes)
    words.insert(words.end(), {"--protobuf", R"({"@type":"parallel.zksmessages.TaskDescription","argv":[")" +
                                                 descriptionOfItemSize(size).argv(0) + "\"]}"});
  expectSame(zks(words), std::size(sizes));
  for (std::size_t i = 0; i < std::size(sizes); ++i)
    EXPECT_TRUE(readFile(path("out/item-" + std::to_string(i + 1) + ".pb")) ==
                descriptionOfItemSize(sizes[i]).SerializeAsString())
        << sizes[i];
}

TEST_P(ZksEndToEnd, MessagesKeepTheirValues) {
  const auto outcome =
      zks({"echo", "--save", "out", "--protobuf",
           R"({"@type":"parallel.zksmessages.TaskDescription","argv":["a","é\n"],)"
           R"("environment":{"K":"V"},"limits":{"wallTime":"1.5s","memoryBytes":"18446744073709551615"}})",
           "--protobuf", R"({"@type":"parallel.zksmessages.Missing"})"});
  expectSame(outcome, 2);
  EXPECT_THAT(outcome.output, HasSubstr("18446744073709551615"));
  parallel::zksmessages::TaskDescription description;
  ASSERT_TRUE(description.ParseFromString(readFile(path("out/item-1.pb"))));
  EXPECT_THAT(description.argv(), ElementsAre("a", "é\n"));
  EXPECT_EQ(description.environment().at("K"), "V");
  EXPECT_EQ(description.limits().wall_time().nanos(), 500'000'000);
  EXPECT_EQ(description.limits().memory_bytes(), 18446744073709551615U);
  EXPECT_EQ(readFile(path("out/item-2.pb")), "");
}

TEST_P(ZksEndToEnd, ThreeDimensionalArraysOfEveryClassComeBack) {
  const std::size_t shape[] = {3, 4, 5};
  const struct {
    qxClass cls;
    bool complex;
  } classes[] = {{qxClass::Float64, false}, {qxClass::Float64, true}, {qxClass::Float32, false},
                 {qxClass::Float32, true},  {qxClass::Int8, false},   {qxClass::Uint8, false},
                 {qxClass::Int16, false},   {qxClass::Uint16, false}, {qxClass::Int32, false},
                 {qxClass::Uint32, false},  {qxClass::Int64, false},  {qxClass::Uint64, false},
                 {qxClass::Boolean, false}};
  Words words{"echo", "--save", "out"};
  for (std::size_t i = 0; i < std::size(classes); ++i) {
    const qxArrayPtr array = qxCreateNumericArray(shape, classes[i].cls, classes[i].complex);
    auto* data = static_cast<unsigned char*>(qxGetWritableData(array.get()));
    for (std::size_t at = 0; at < qxGetDataBytes(array.get()); ++at)
      data[at] = static_cast<unsigned char>(classes[i].cls == qxClass::Boolean ? at % 2 : at * 31 % 120);
    const std::string name = "c" + std::to_string(i + 1) + ".npy";
    saveNpy(path(name), array.get());
    words.insert(words.end(), {"--array", "@" + name});
  }
  expectSame(zks(words), std::size(classes));
  for (std::size_t i = 1; i <= std::size(classes); ++i)
    EXPECT_TRUE(readFile(path("out/item-" + std::to_string(i) + ".npy")) ==
                readFile(path("c" + std::to_string(i) + ".npy")))
        << i;
}

TEST_P(ZksEndToEnd, TextListAndStructArraysComeBackAsTheyWere) {
  const std::size_t shape[] = {2, 1, 3};
  const std::string fields[] = {"x", "y"};
  const qxArrayPtr record = qxCreateStructArray(shape, fields);
  auto list = qxCreateListArray(shape);
  qxSetListElement(list.get(), 0, qxCreateStringUtf8("ü"));
  qxSetField(record.get(), 5, "y", std::move(list));
  const qxArrayPtr saved(qxSerializeEx(record.get(), qxSerializeDefaults));
  const std::string bytes(static_cast<const char*>(qxGetData(saved.get())), qxGetNumberOfElements(saved.get()));
  writeFile(path("s.cbor"), bytes);
  expectSame(zks({"echo", "--save", "out", "--array", "@s.cbor", "--array", "\"ü\""}), 2);
  EXPECT_EQ(readFile(path("out/item-1.cbor")), bytes);
  EXPECT_THAT(namesIn("out"), ElementsAre("item-1.cbor", "item-2.cbor"));
}

TEST_P(ZksEndToEnd, ItemsOfAllKindsKeepTheirOrder) {
  writeFile(path("f"), "file");
  const auto outcome = zks({"echo", "--plain", "1", "--array", "2", "--file", "f", "--plain", "@@4", "--protobuf",
                            R"({"@type":"parallel.zksmessages.Missing"})"});
  expectSame(outcome, 5);
  EXPECT_THAT(outcome.output, testing::MatchesRegex("1 plain  [^\n]*\"1\"  same\n2 array  [^\n]*  2  same\n"
                                                    "3 file  \"f\"  4 bytes  [^\n]*same\n4 plain  [^\n]*\"@4\"  same\n"
                                                    "5 protobuf  parallel.zksmessages.Missing[^\n]*same\n"));
}

TEST_P(ZksEndToEnd, EchoOfNothingIsFine) {
  expectSame(zks({"echo"}), 0);
}

TEST_P(ZksEndToEnd, CallNamesTheKindsOfTheReply) {
  const auto outcome = zks({"call", "runTask", "--protobuf",
                            R"({"@type":"parallel.zksmessages.TaskDescription","argv":["sh","-c","cat i; cp i o"],)"
                            R"("inputFiles":["i"],"outputFiles":["o"]})",
                            "--file", ZKSD_PROGRAM, "--reply", "protobuf,plain", "--reply", "plain,file:out/copy"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
  EXPECT_THAT(outcome.output, HasSubstr("1 protobuf  parallel.zksmessages.TesselTaskExecutionInfo"));
  EXPECT_THAT(outcome.output, HasSubstr("4 file  \"out/copy\""));
  EXPECT_TRUE(readFile(path("out/copy")) == readFile(ZKSD_PROGRAM));
}

TEST_P(ZksEndToEnd, DescriptorSetsAddMessageTypes) {
  const std::string json = R"({"@type":"sample.Point","x":9007199254740993})";
  const auto unknown = zks({"echo", "--protobuf", json});
  EXPECT_EQ(unknown.exitCode, 2);
  EXPECT_THAT(unknown.error, HasSubstr("no message type \"sample.Point\""));
  google::protobuf::FileDescriptorSet set;
  auto* file = set.add_file();
  file->set_name("sample.proto");
  file->set_package("sample");
  file->set_syntax("proto3");
  auto* field = file->add_message_type()->add_field();
  file->mutable_message_type(0)->set_name("Point");
  field->set_name("x");
  field->set_number(1);
  field->set_type(google::protobuf::FieldDescriptorProto::TYPE_INT64);
  field->set_label(google::protobuf::FieldDescriptorProto::LABEL_OPTIONAL);
  writeFile(path("sample.desc"), set.SerializeAsString());
  const auto known = zks({"--descriptors", "sample.desc", "echo", "--protobuf", json});
  expectSame(known, 1);
  EXPECT_THAT(known.output, HasSubstr("\"x\": 9007199254740993"));
}

TEST_P(ZksEndToEnd, RunSendsFilesAndFetchesOutputs) {
  const std::string data = someBytes(100'000);
  std::filesystem::create_directory(path("in"));
  writeFile(path("in/data"), data);
  const auto outcome =
      zks({"run", "--file", "in/data", "--output", "copy", "--output", "size", "--to", "out", "--env", "WORD=a b", "--",
           "sh", "-c", "cat data > copy; wc -c < data > size; echo \"$WORD\"; echo oops >&2"});
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_EQ(outcome.output, "a b\n");
  EXPECT_EQ(outcome.error, "oops\n");
  EXPECT_TRUE(readFile(path("out/copy")) == data);
  EXPECT_EQ(readFile(path("out/size")), "100000\n");
  EXPECT_THAT(namesIn("out"), ElementsAre("copy", "size"));
}

TEST_P(ZksEndToEnd, RunReplacesAnOutputThatIsThere) {
  writeFile(path("out/o"), "old and longer");
  EXPECT_EQ(zks({"run", "--output", "o", "--to", "out", "--", "sh", "-c", "printf new > o"}).exitCode, 0);
  EXPECT_EQ(readFile(path("out/o")), "new");
}

TEST_P(ZksEndToEnd, RunFetchesProgramsThatCanBeRun) {
  writeFile(path("data"), "x");
  writeFile(path("tool"), "#!/bin/sh\n");
  std::filesystem::permissions(path("tool"), std::filesystem::perms(0755));
  const auto outcome =
      zks({"run", "--file", "data", "--file", "tool", "--output", "data", "--output", "tool", "--output", "prog",
           "--to", "out", "--", "sh", "-c", R"(printf '#!/bin/sh\necho ran\n' > prog; chmod +x prog)"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
  const auto mayRun = [&](const char* name) { return ::access(path(std::string("out/") + name).c_str(), X_OK) == 0; };
  EXPECT_FALSE(mayRun("data"));
  EXPECT_TRUE(mayRun("tool"));
  EXPECT_EQ(runProgram({path("out/prog")}, directory()).output, "ran\n");
}

TEST_P(ZksEndToEnd, RunSendsAndFetchesFolders) {
  std::filesystem::create_directories(path("in/sub/empty"));
  writeFile(path("in/data"), "data");
  writeFile(path("in/sub/tool"), "#!/bin/sh\necho ran\n");
  std::filesystem::permissions(path("in/sub/tool"), std::filesystem::perms(0755));
  const Words run{
      "run",      "--file", "in",       "--file", "other=in/sub",
      "--output", "in/",    "--output", "other",  "--to",
      "out",      "--",     "sh",       "-c",     "in/sub/tool; test -d other/empty && rm other/tool; echo > in/new"};
  const auto outcome = zks(run);
  EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
  EXPECT_EQ(outcome.output, "ran\n");
  EXPECT_THAT(namesIn("out"), ElementsAre("in", "other"));
  EXPECT_THAT(namesIn("out/in"), ElementsAre("data", "new", "sub"));
  EXPECT_THAT(namesIn("out/in/sub"), ElementsAre("empty", "tool"));
  EXPECT_THAT(namesIn("out/other"), ElementsAre("empty"));
  EXPECT_EQ(readFile(path("out/in/data")), "data");
  EXPECT_NE(::access(path("out/in/data").c_str(), X_OK), 0);
  EXPECT_EQ(runProgram({path("out/in/sub/tool")}, directory()).output, "ran\n");
}

TEST_P(ZksEndToEnd, FetchedFolderGoesIntoOneThatIsThere) {
  std::filesystem::create_directories(path("out/d"));
  writeFile(path("out/d/kept"), "kept");
  writeFile(path("out/d/replaced"), "old and longer");
  const auto outcome =
      zks({"run", "--output", "d/", "--to", "out", "--", "sh", "-c", "mkdir d; printf new > d/replaced; touch d/more"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
  EXPECT_THAT(namesIn("out/d"), ElementsAre("kept", "more", "replaced"));
  EXPECT_EQ(readFile(path("out/d/kept")) + readFile(path("out/d/replaced")), "keptnew");
}

TEST_P(ZksEndToEnd, ExitCodeIsTheTasksOwn) {
  for (const int code : {0, 1, 2, 7, 255}) {
    const auto outcome = zks({"run", "--", "sh", "-c", "exit " + std::to_string(code)});
    EXPECT_EQ(outcome.exitCode, code);
    EXPECT_EQ(outcome.error, "");
  }
}

TEST_P(ZksEndToEnd, TaskEndedBySignalExitsWith128AndTheSignal) {
  const auto outcome = zks({"run", "--", "sh", "-c", "kill -USR1 $$"});
  EXPECT_EQ(outcome.exitCode, 128 + 10);
  EXPECT_EQ(outcome.error, "zks: the task was ended by signal 10 (User defined signal 1)\n");
}

TEST_P(ZksEndToEnd, TaskPastItsTimeExitsWith124) {
  const auto outcome = zks({"run", "--timeout", "0.2", "--", "sleep", "1000"});
  EXPECT_EQ(outcome.exitCode, 124);
  EXPECT_EQ(outcome.error, "zks: the task's time was over, and it was ended\n");
}

TEST_P(ZksEndToEnd, ProgramThatCannotBeStartedExitsWith127) {
  const auto outcome = zks({"run", "--", "no-such-program-here"});
  EXPECT_EQ(outcome.exitCode, 127);
  EXPECT_THAT(outcome.error, testing::StartsWith("zks: the task could not be started: "));
  EXPECT_THAT(outcome.error, HasSubstr("no-such-program-here"));
}

TEST_P(ZksEndToEnd, LimitsReachTheTask) {
  const auto outcome = zks({"run", "--cpu-time", "32.5", "--memory-bytes", "64M", "--file-bytes", "1M", "--open-files",
                            "44", "--", "sh", "-c", "ulimit -t; ulimit -v; ulimit -f; ulimit -n"});
  EXPECT_EQ(outcome.output, "33\n65536\n2048\n44\n");
}

TEST_P(ZksEndToEnd, EnvironmentCanBeTheGivenOneAlone) {
  EXPECT_THAT(zks({"run", "--clear-environment", "--env", "A=1", "--", "/usr/bin/env"}).output,
              testing::MatchesRegex("A=1\nZKS_MARK=[0-9.]+\n"));
}

TEST_P(ZksEndToEnd, FileGoesUnderTheNameThatItIsGiven) {
  std::filesystem::create_directory(path("in"));
  writeFile(path("in/data"), "one");
  writeFile(path("data"), "two");
  EXPECT_EQ(zks({"run", "--file", "in/data", "--file", "other=data", "--", "sh", "-c", "cat data other; ls"}).output,
            "onetwodata\nother\n");
}

TEST_P(ZksEndToEnd, StandardInputIsAFile) {
  const std::string data = someBytes(200'000);
  writeFile(path("data"), data);
  EXPECT_TRUE(zks({"run", "--stdin", "data", "--", "cat"}).output == data);
  EXPECT_EQ(zks({"run", "--", "wc", "-c"}).output, "0\n");
}

TEST_P(ZksEndToEnd, StandardInputIsThatOfZks) {
  const Words command = zksWords({"run", "--stdin", "-", "--", "wc", "-c"});
  for (const auto& [shell, count] :
       {std::pair{"head -c 3000000 /dev/zero | \"$@\"", "3000000\n"}, std::pair{"exec \"$@\" < /dev/null", "0\n"},
        std::pair{"exec \"$@\" <&-", "0\n"}}) {
    Words words{"sh", "-c", shell, "sh"};
    words.insert(words.end(), command.begin(), command.end());
    const auto outcome = runProgram(words, directory());
    EXPECT_EQ(outcome.output, count) << shell;
    EXPECT_EQ(outcome.error, "") << shell;
  }
}

TEST_P(ZksEndToEnd, StandardInputCanBeAPipeWithAName) {
  Words words{"sh", "-c", "mkfifo p; printf through >p & exec \"$@\"", "sh"};
  const Words command = zksWords({"run", "--stdin", "p", "--", "cat"});
  words.insert(words.end(), command.begin(), command.end());
  EXPECT_EQ(runProgram(words, directory()).output, "through");
}

TEST_P(ZksEndToEnd, FilesOfTheKernelAreSentWhole) {
  const auto outcome = zks({"echo", "--file", "/proc/version", "--save", "out"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
  EXPECT_EQ(readFile(path("out/version")), readFile("/proc/version"));
}

TEST_P(ZksEndToEnd, MissingOutputsAreNamedAndTheOthersFetched) {
  const auto outcome =
      zks({"run", "--output", "a", "--output", "b", "--output", "c", "--to", "out", "--", "touch", "b"});
  EXPECT_EQ(outcome.exitCode, 125);
  EXPECT_EQ(outcome.error, "zks: the task did not make \"a\", \"c\"\n");
  EXPECT_THAT(namesIn("out"), ElementsAre("b"));
}

TEST_P(ZksEndToEnd, FailureOfTheTaskGoesBeforeMissingOutputs) {
  const auto outcome = zks({"run", "--output", "a", "--to", "out", "--", "false"});
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_EQ(outcome.error, "");
  EXPECT_THAT(namesIn("out"), IsEmpty());
}

TEST_P(ZksEndToEnd, LogGoesToStandardErrorWhenAskedFor) {
  EXPECT_THAT(zks({"--log", "trace", "echo"}).error, HasSubstr("methodName=echo"));
  EXPECT_EQ(zks({"echo"}).error, "");
}

}  // namespace
}  // namespace zks
