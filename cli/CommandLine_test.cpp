#include "cli/CommandLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

namespace zks {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;

using Words = std::vector<std::string>;
using ItemForm = ItemArgument::Form;
using ReplyForm = ReplyKind::Form;

template <class Options>
Options parsed(Words words) {
  auto outcome = parseCommandLine(std::move(words));
  if (const auto* exit = std::get_if<EarlyExit>(&outcome)) {
    ADD_FAILURE() << "refused: " << exit->text;
    return {};
  }
  return std::get<Options>(std::get<CommandLine>(outcome).command);
}

GlobalOptions parsedGlobal(Words words) {
  auto outcome = parseCommandLine(std::move(words));
  if (const auto* exit = std::get_if<EarlyExit>(&outcome)) {
    ADD_FAILURE() << "refused: " << exit->text;
    return {};
  }
  return std::get<CommandLine>(outcome).global;
}

EarlyExit refused(Words words) {
  auto outcome = parseCommandLine(std::move(words));
  if (std::holds_alternative<CommandLine>(outcome)) {
    ADD_FAILURE() << "accepted";
    return {};
  }
  return std::get<EarlyExit>(outcome);
}

void expectUsageError(Words words, const std::string& text) {
  const EarlyExit exit = refused(std::move(words));
  EXPECT_EQ(exit.code, 2);
  EXPECT_THAT(exit.text, HasSubstr(text));
  EXPECT_THAT(exit.text, Not(HasSubstr("\n")));
}

TEST(CommandLine, RunTakesEverythingAfterTheMarkAsItIs) {
  const auto run = parsed<RunOptions>({"run", "--", "git", "--file", "-x", "--", "[1,2]", ""});
  EXPECT_THAT(run.command, ElementsAre("git", "--file", "-x", "--", "[1,2]", ""));
  EXPECT_THAT(run.inputs, IsEmpty());
  EXPECT_FALSE(run.standardInput);
  EXPECT_EQ(run.directory, ".");
  EXPECT_FALSE(run.clearEnvironment);
  EXPECT_FALSE(run.limits.timeoutSeconds || run.limits.cpuSeconds || run.limits.memoryBytes || run.limits.fileBytes ||
               run.limits.openFiles);
}

TEST(CommandLine, RunTakesItsOptionsInAnyNumber) {
  const auto run = parsed<RunOptions>({"run",
                                       "--file",
                                       "a/b",
                                       "--output",
                                       "o1",
                                       "--file=c",
                                       "--output",
                                       "o2/",
                                       "--to",
                                       "dir",
                                       "--env",
                                       "A=1",
                                       "--env",
                                       "B=x=y",
                                       "--env",
                                       "C=",
                                       "--clear-environment",
                                       "--stdin",
                                       "-",
                                       "--",
                                       "true"});
  EXPECT_THAT(run.inputs, ElementsAre(InputArgument{"b", "a/b"}, InputArgument{"c", "c"}));
  EXPECT_THAT(run.outputs, ElementsAre(OutputArgument{"o1", false}, OutputArgument{"o2", true}));
  EXPECT_EQ(run.directory, "dir");
  EXPECT_THAT(run.environment, ElementsAre(Pair("A", "1"), Pair("B", "x=y"), Pair("C", "")));
  EXPECT_TRUE(run.clearEnvironment);
  EXPECT_EQ(run.standardInput, "-");
}

TEST(CommandLine, LimitsOfATaskAreThoseOfThePythonPackage) {
  const auto limits = parsed<RunOptions>({"run", "--timeout", "2.5", "--cpu-time", "7", "--memory-bytes", "64M",
                                          "--file-bytes", "0", "--open-files", "16", "--", "true"})
                          .limits;
  EXPECT_EQ(limits.timeoutSeconds, 2.5);
  EXPECT_EQ(limits.cpuSeconds, 7);
  EXPECT_EQ(limits.memoryBytes, 64u << 20);
  EXPECT_EQ(limits.fileBytes, 0);
  EXPECT_EQ(limits.openFiles, 16);
}

TEST(CommandLine, FileCanHaveANameOfItsOwn) {
  const auto run = parsed<RunOptions>({"run", "--file", "n=a/b", "--file", "m=x=y", "--file", "./a=b", "--file", "d/",
                                       "--file", "here=.", "--file", "=x", "--", "true"});
  EXPECT_THAT(run.inputs,
              ElementsAre(InputArgument{"n", "a/b"}, InputArgument{"m", "x=y"}, InputArgument{"a=b", "./a=b"},
                          InputArgument{"d", "d/"}, InputArgument{"here", "."}, InputArgument{"=x", "=x"}));
}

TEST(CommandLine, ConnectionHasItsTimesAndLimits) {
  const auto plain = parsedGlobal({"echo", "--plain", "x"});
  EXPECT_EQ(plain.connectSeconds, 10);
  EXPECT_EQ(plain.idleSeconds, 600);
  EXPECT_FALSE(plain.maxReplyBytes);
  const auto global = parsedGlobal({"--address", "unix:x", "--connect-timeout", "0.5", "--idle-timeout", "0",
                                    "--max-reply", "512M", "echo", "--plain", "x"});
  EXPECT_EQ(global.connectSeconds, 0.5);
  EXPECT_EQ(global.idleSeconds, 0);
  EXPECT_EQ(global.maxReplyBytes, std::uint64_t{512} << 20);
  for (const char* option : {"--connect-timeout", "--idle-timeout", "--max-reply"}) {
    expectUsageError({"--address", "unix:x", option, "soon", "echo"}, option);
    expectUsageError({"--address", "unix:x", option, "-1", "echo"}, option);
    expectUsageError({option, "1", "echo", "--plain", "x"}, "--address");
  }
}

TEST(CommandLine, RunWithoutACommandSaysWhereItGoes) {
  expectUsageError({"run"}, "put it after --");
  expectUsageError({"run", "--"}, "put it after --");
  expectUsageError({"run", "ls"}, "\"zks run --help\" tells more");
}

TEST(CommandLine, RunRefusesMeaninglessOptions) {
  expectUsageError({"run", "--file", "a/x", "--file", "b/x", "--", "c"}, "\"x\" is given twice; NAME=PATH");
  for (const char* file : {"", ".", "..", "a/..", "/", "x=", "..=x"})
    expectUsageError({"run", "--file", file, "--", "c"}, "does not name a file");
  expectUsageError({"run", "--stdin", "", "--", "c"}, "its value is empty");
  for (const char* other : {"o", "o/"})
    expectUsageError({"run", "--output", "o", "--output", other, "--", "c"}, "\"o\" is given twice");
  for (const char* name : {"a/b", ".", "..", "/x", "", "/", "./", "../", "o//", "a/b/"})
    expectUsageError({"run", "--output", name, "--", "c"}, "is not a plain file name");
  expectUsageError({"run", "--env", "A", "--", "c"}, "NAME=VALUE");
  expectUsageError({"run", "--env", "=1", "--", "c"}, "NAME=VALUE");
  expectUsageError({"run", "--env", "A=1", "--env", "A=2", "--", "c"}, "\"A\" is given twice");
  expectUsageError({"run", "--", "caf\xE9"}, "word \"caf\xE9\" is not UTF-8");
  expectUsageError({"run", "--file", "caf\xE9", "--", "c"}, "--file \"caf\xE9\" is not UTF-8");
  expectUsageError({"run", "--output", "caf\xE9", "--", "c"}, "--output \"caf\xE9\" is not UTF-8");
  expectUsageError({"run", "--env", "A=caf\xE9", "--", "c"}, "--env \"A=caf\xE9\" is not UTF-8");
  expectUsageError({"run", "--timeout", "0", "--", "c"}, "--timeout: \"0\" is not a number of seconds greater than 0");
  expectUsageError({"run", "--timeout", "-1", "--", "c"},
                   "--timeout: \"-1\" is not a number of seconds greater than 0");
  expectUsageError({"run", "--timeout", "nan", "--", "c"},
                   "--timeout: \"nan\" is not a number of seconds greater than 0");
  expectUsageError({"run", "--timeout", "soon", "--", "c"}, "--timeout");
  expectUsageError({"run", "--cpu-time", "0", "--", "c"},
                   "--cpu-time: \"0\" is not a number of seconds greater than 0");
  expectUsageError({"run", "--memory-bytes", "much", "--", "c"}, "--memory-bytes");
  expectUsageError({"run", "--file-bytes", "-1", "--", "c"}, "--file-bytes");
  for (const char* number : {"3", "-1", "few", "4.5"})
    expectUsageError({"run", "--open-files", number, "--", "c"},
                     std::string("--open-files: \"") + number + "\" is not a whole number from 4 to ");
}

TEST(CommandLine, ItemsKeepTheOrderOfTheLine) {
  const auto echo = parsed<EchoOptions>({"echo", "--plain", "p1", "--file", "f", "--array", "[1,2,3]", "--plain=p2",
                                         "--protobuf", "{}", "--array", "[]", "--plain", ""});
  EXPECT_THAT(echo.items, ElementsAre(ItemArgument{ItemForm::Plain, "p1"}, ItemArgument{ItemForm::File, "f"},
                                      ItemArgument{ItemForm::Array, "[1,2,3]"}, ItemArgument{ItemForm::Plain, "p2"},
                                      ItemArgument{ItemForm::Message, "{}"}, ItemArgument{ItemForm::Array, "[]"},
                                      ItemArgument{ItemForm::Plain, ""}));
}

TEST(CommandLine, ItemValueMayBeginWithADash) {
  const auto echo = parsed<EchoOptions>({"echo", "--array=-1", "--plain=--x"});
  EXPECT_THAT(echo.items, ElementsAre(ItemArgument{ItemForm::Array, "-1"}, ItemArgument{ItemForm::Plain, "--x"}));
}

TEST(CommandLine, EchoWithoutItemsIsAllowed) {
  EXPECT_THAT(parsed<EchoOptions>({"echo"}).items, IsEmpty());
}

TEST(CommandLine, CallTakesMethodItemsAndReplyKindsInAnyOrder) {
  const auto call = parsed<CallOptions>({"call", "--plain", "x", "stat", "--reply", "array,protobuf", "--file", "f",
                                         "--reply", "plain,file,file:a:b", "--save", "d"});
  EXPECT_EQ(call.method, "stat");
  EXPECT_THAT(call.items, ElementsAre(ItemArgument{ItemForm::Plain, "x"}, ItemArgument{ItemForm::File, "f"}));
  EXPECT_THAT(call.reply, ElementsAre(ReplyKind{ReplyForm::Array, ""}, ReplyKind{ReplyForm::Message, ""},
                                      ReplyKind{ReplyForm::Plain, ""}, ReplyKind{ReplyForm::File, ""},
                                      ReplyKind{ReplyForm::File, "a:b"}));
  EXPECT_EQ(call.saveDirectory, "d");
}

TEST(CommandLine, CallRefusesUnknownKindsAndAMissingMethod) {
  expectUsageError({"call", "m", "--reply", "array,matrix"}, "not \"matrix\"");
  expectUsageError({"call", "m", "--reply", "file:"}, "not \"file:\"");
  expectUsageError({"call", "m", "--reply", "array,,plain"}, "not \"\"");
  expectUsageError({"call"}, "METHOD");
}

TEST(CommandLine, GlobalOptionsStandBeforeOrAfterTheCommand) {
  for (const Words& words : {Words{"--address", "unix:/s", "--log", "trace", "--descriptors", "d", "echo"},
                             Words{"echo", "--address", "unix:/s", "--log", "trace", "--descriptors", "d"}}) {
    const GlobalOptions global = parsedGlobal(words);
    EXPECT_EQ(global.address, "unix:/s");
    EXPECT_EQ(global.logLevel, "trace");
    EXPECT_THAT(global.descriptorFiles, ElementsAre("d"));
  }
  EXPECT_EQ(parsedGlobal({"echo"}).address, "");
  EXPECT_EQ(parsedGlobal({"echo"}).logLevel, "off");
}

TEST(CommandLine, WrongWordsAreUsageErrorsOfOneLine) {
  expectUsageError({}, "the commands are run, echo, call, submit, jobs");
  expectUsageError({"jump"}, "there is no command \"jump\"; the commands are run, echo, call, submit");
  expectUsageError({"--jump"}, "--jump");
  expectUsageError({"--jump", "echo"}, "--jump");
  expectUsageError({"echo", "--nonsense"}, "--nonsense");
  expectUsageError({"echo", "--plain"}, "--plain");
  expectUsageError({"echo", "--", "x"}, "only \"run\"");
}

TEST(CommandLine, MalformedAddressesAreUsageErrors) {
  for (const char* address : {"nowhere", "http://h:80", ":1", "h:", "h:x", "h:65536"})
    expectUsageError({"--address", address, "echo"}, std::string("\"") + address + "\" is not a service address: ");
}

TEST(CommandLine, EmptyValuesAreNotDefaults) {
  for (const Words& words :
       {Words{"--address", "", "echo"}, Words{"--address", "h:1", "--tls", "", "echo"}, Words{"echo", "--save", ""},
        Words{"call", "m", "--save", ""}, Words{"run", "--to", "", "--", "true"}, Words{"call", ""}})
    expectUsageError(words, "its value is empty");
}

TEST(CommandLine, UnusableNumbersAreShownWithWhatIsExpected) {
  for (const char* value : {"soon", "-1", "nan", "1e10", "", "1 s"})
    expectUsageError(
        {"--address", "h:1", "--connect-timeout", value, "echo"},
        std::string("--connect-timeout: \"") + value + "\" is not a number of seconds from 0 to 1000000000");
  for (const char* value : {"12X", "-1", "1.5G", "0", "", "G", "16E", "9223372036854775808"})
    expectUsageError({"run", "--memory-bytes", value, "--", "true"},
                     std::string("--memory-bytes: \"") + value + "\" is not a number of bytes above 0 such as");
}

TEST(CommandLine, SizesHaveUnitsOf1024) {
  for (const auto& [text, bytes] :
       std::vector<std::pair<const char*, std::uint64_t>>{{"17", 17},
                                                          {"17b", 17},
                                                          {"3K", 3 << 10},
                                                          {"3kb", 3 << 10},
                                                          {"3KiB", 3 << 10},
                                                          {"2m", 2 << 20},
                                                          {"7E", 7ULL << 60},
                                                          {"9223372036854775807", (1ULL << 63) - 1}})
    EXPECT_EQ(parsed<RunOptions>({"run", "--memory-bytes", text, "--", "true"}).limits.memoryBytes, bytes) << text;
}

TEST(CommandLine, HelpTellsOfEachCommandAndShowsExamples) {
  const EarlyExit general = refused({"--help"});
  EXPECT_EQ(general.code, 0);
  for (const char* word : {"run", "echo", "call", "--address", "--log", "Examples:"})
    EXPECT_THAT(general.text, HasSubstr(word));
  const EarlyExit run = refused({"run", "--help"});
  EXPECT_EQ(run.code, 0);
  for (const char* word : {"--output", "--to", "--timeout", "Exit code"})
    EXPECT_THAT(run.text, HasSubstr(word));
  EXPECT_THAT(refused({"call", "--help"}).text, HasSubstr("--reply"));
}

TEST(CommandLine, HelpOfACommandTellsOfTheOptionsOfEveryCommand) {
  for (const char* command : {"run", "echo", "call"}) {
    const EarlyExit help = refused({command, "--help"});
    EXPECT_EQ(help.code, 0);
    for (const char* option : {"Options of every command:", "--address", "--tls", "--insecure", "--connect-timeout",
                               "--idle-timeout", "--max-reply", "--log", "--descriptors"})
      EXPECT_THAT(help.text, HasSubstr(option)) << command;
  }
  expectUsageError({"echo", "--address", "h:1", "--idle-timeout", "soon"}, "\"zks echo --help\" tells more");
}

// The variable that stands in for --address.
class DefaultAddress : public testing::Test {
 protected:
  static void set(const char* address) { ::setenv("ZKS_ADDRESS", address, 1); }
  ~DefaultAddress() override { ::unsetenv("ZKS_ADDRESS"); }
};

TEST_F(DefaultAddress, IsThatOfTheEnvironment) {
  set("h:1");
  const GlobalOptions global = parsedGlobal({"--insecure", "--max-reply", "1K", "echo"});
  EXPECT_EQ(global.address, "h:1");
  EXPECT_TRUE(global.insecure);
  EXPECT_EQ(parsedGlobal({"echo", "--address", "other:2"}).address, "other:2");
}

TEST_F(DefaultAddress, IsAbsentWhereTheVariableIsEmpty) {
  set("");
  EXPECT_EQ(parsedGlobal({"echo"}).address, "");
}

TEST_F(DefaultAddress, ThatIsMalformedSaysWhereItIsFrom) {
  set("nowhere");
  expectUsageError({"echo"}, "$ZKS_ADDRESS: \"nowhere\" is not a service address");
  EXPECT_THAT(refused({"--address", "nowhere", "echo"}).text, Not(HasSubstr("$ZKS_ADDRESS")));
}

TEST(CommandLine, VersionIsTheProjects) {
  const EarlyExit exit = refused({"--version"});
  EXPECT_EQ(exit.code, 0);
  EXPECT_EQ(exit.text, std::string("zks ") + ZKS_VERSION + "\n");
}

}  // namespace
}  // namespace zks
