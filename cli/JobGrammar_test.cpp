#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/CommandLine.h"
#include "cli/testing/files.h"
#include "platform/files/testing/TemporaryDirectory.h"

namespace zks {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

using Words = std::vector<std::string>;

template <class Options>
Options parsedJob(Words words) {
  auto outcome = parseCommandLine(std::move(words));
  if (const auto* exit = std::get_if<EarlyExit>(&outcome)) {
    ADD_FAILURE() << "refused: " << exit->text;
    return {};
  }
  return std::get<Options>(std::get<JobCommand>(std::get<CommandLine>(outcome).command));
}

void expectRefusedJob(Words words, const std::string& text) {
  auto outcome = parseCommandLine(std::move(words));
  const auto* exit = std::get_if<EarlyExit>(&outcome);
  ASSERT_NE(exit, nullptr) << "accepted: " << text;
  EXPECT_EQ(exit->code, 2);
  EXPECT_THAT(exit->text, HasSubstr(text));
}

TEST(JobGrammar, SubmitTakesACommandAsItIs) {
  const auto submit = parsedJob<SubmitOptions>({"submit", "--", "git", "--name", "{index}", ""});
  EXPECT_THAT(submit.command, ElementsAre("git", "--name", "{index}", ""));
  EXPECT_EQ(submit.name, "");
  EXPECT_EQ(submit.cores, 1U);
  EXPECT_FALSE(submit.array || submit.linesFile || submit.retries || submit.timeSeconds || submit.follow);
}

TEST(JobGrammar, SubmitTakesItsOptions) {
  const auto submit = parsedJob<SubmitOptions>({"submit",
                                                "--name",
                                                "fit",
                                                "--array",
                                                "0-9%3",
                                                "--input",
                                                "a=b",
                                                "--input",
                                                "c",
                                                "--output",
                                                "x*",
                                                "--stdin",
                                                "in",
                                                "--cores",
                                                "2",
                                                "--memory",
                                                "2G",
                                                "--resource",
                                                "gpu=1",
                                                "--time",
                                                "1h",
                                                "--env",
                                                "A=1",
                                                "--env",
                                                "B",
                                                "--env-all",
                                                "--retries",
                                                "3",
                                                "--retry-on",
                                                "exit:75,lost",
                                                "--retry-delay",
                                                "10s",
                                                "--priority",
                                                "-5",
                                                "--hold",
                                                "--after",
                                                "6:2",
                                                "--after",
                                                "other",
                                                "--after-same-index",
                                                "5",
                                                "--key",
                                                "k",
                                                "--in-place",
                                                "/data",
                                                "--quiet",
                                                "--",
                                                "p"});
  EXPECT_EQ(submit.name, "fit");
  EXPECT_EQ(submit.array, (ArrayArgument{0, 9, 1, 3}));
  EXPECT_EQ(submit.atOnce, 3U);
  EXPECT_THAT(submit.inputs, ElementsAre(JobInputArgument{"a", "b"}, JobInputArgument{"c", std::nullopt}));
  EXPECT_THAT(submit.outputs, ElementsAre("x*"));
  EXPECT_EQ(submit.standardInput, "in");
  EXPECT_EQ(submit.cores, 2U);
  EXPECT_EQ(submit.memoryBytes, std::uint64_t{2} << 30U);
  EXPECT_THAT(submit.resources, ElementsAre(Pair("gpu", 1U)));
  EXPECT_EQ(submit.timeSeconds, 3600);
  EXPECT_THAT(submit.environment, ElementsAre("A=1", "B"));
  EXPECT_TRUE(submit.wholeEnvironment && submit.held && submit.quiet);
  RetryArgument retries;
  retries.limit = 3;
  retries.delaySeconds = 10;
  retries.exit = retries.lost = true;
  retries.exitCodes = {75};
  EXPECT_EQ(submit.retries, retries);
  EXPECT_EQ(submit.priority, -5);
  EXPECT_THAT(submit.after, ElementsAre(AfterArgument{"6", 2}, AfterArgument{"other", std::nullopt}));
  EXPECT_THAT(submit.afterSameIndex, ElementsAre("5"));
  EXPECT_EQ(submit.key, "k");
  EXPECT_EQ(submit.inPlaceFolder, "/data");
}

TEST(JobGrammar, RetriesAreAfterExitsAndSignalsUnlessToldOtherwise) {
  const auto submit = parsedJob<SubmitOptions>({"submit", "--retries", "2", "--", "p"});
  RetryArgument retries;
  retries.limit = 2;
  retries.exit = retries.signal = true;
  EXPECT_EQ(submit.retries, retries);
}

TEST(JobGrammar, WhatDoesNotGoTogetherIsRefused) {
  expectRefusedJob({"submit"}, "there is no command to submit");
  expectRefusedJob({"submit", "--array", "0-9", "--lines", "f", "--", "p"}, "give one of them");
  expectRefusedJob({"submit", "--lines", "-", "--stdin", "-", "--", "p"}, "cannot both");
  expectRefusedJob({"submit", "--retry-on", "exit", "--", "p"}, "go with --retries");
  expectRefusedJob({"submit", "--follow", "--open", "--", "p"}, "--follow waits");
  expectRefusedJob({"submit", "--cores", "0", "--", "p"}, "--cores");
  expectRefusedJob({"submit", "--key", "a b", "--", "p"}, "--key");
  expectRefusedJob({"submit", "--", "\xFF"}, "UTF-8");
  expectRefusedJob({"cancel", "1", "2", "--task", "3"}, "--task goes with one job");
  expectRefusedJob({"jobs", "--", "p"}, "only \"run\" and \"submit\"");
  expectRefusedJob({"service"}, "\"zks service --help\"");
  expectRefusedJob({"workers", "drain"}, "\"zks workers drain --help\"");
  expectRefusedJob({"tasks", "7", "--state", "lost"}, "--state");
}

TEST(JobGrammar, AScriptsOptionsAreOvercomeByThoseBesideIt) {
  const files::testing::TemporaryDirectory directory;
  const std::string script = directory.path() + "/fit.sh";
  writeFile(script, "#!/bin/sh\n# zks: --name 'from the script' --cores 4 --output a\n# zks: --env-all\necho\n");
  const auto submit = parsedJob<SubmitOptions>({"submit", "--cores", "2", script, "--output", "b", "--", "x"});
  EXPECT_EQ(submit.script, script);
  EXPECT_EQ(submit.name, "from the script");
  EXPECT_EQ(submit.cores, 2U);
  EXPECT_THAT(submit.outputs, ElementsAre("a", "b"));
  EXPECT_TRUE(submit.wholeEnvironment);
  EXPECT_THAT(submit.command, ElementsAre("x"));
  writeFile(script, "# zks: --colour 4\n");
  expectRefusedJob({"submit", script}, "--colour");
  expectRefusedJob({"submit", directory.path() + "/none"}, "cannot read the file");
}

TEST(JobGrammar, OtherCommandsTakeTheirWords) {
  EXPECT_TRUE(parsedJob<JobsOptions>({"jobs", "--json"}).json);
  EXPECT_EQ(parsedJob<JobsOptions>({"jobs"}).limit, 20U);
  EXPECT_EQ(parsedJob<ShowOptions>({"show", "last"}).job, "last");
  const auto tasks = parsedJob<TasksOptions>({"tasks", "7", "--state", "failed", "--state", "running", "--limit", "5"});
  EXPECT_THAT(tasks.states, ElementsAre("failed", "running"));
  EXPECT_EQ(tasks.limit, 5U);
  const auto logs = parsedJob<LogsOptions>({"logs", "7", "3", "-f", "--stderr"});
  EXPECT_EQ(logs.task, 3U);
  EXPECT_TRUE(logs.follow && logs.standardError);
  EXPECT_EQ(parsedJob<LogsOptions>({"logs", "7"}).task, std::nullopt);
  EXPECT_THAT(parsedJob<WaitOptions>({"wait", "7", "fit"}).jobs, ElementsAre("7", "fit"));
  const auto fetch = parsedJob<FetchOptions>({"fetch", "7", "--to", "out", "--task", "1-3", "--force", "--print"});
  EXPECT_EQ(fetch.directory, "out");
  EXPECT_EQ(fetch.tasks, (TaskRange{1, 3}));
  EXPECT_TRUE(fetch.force && fetch.print);
  EXPECT_EQ(parsedJob<PruneOptions>({"prune", "--older-than", "30d"}).olderThanSeconds, 30 * 86400);
  EXPECT_TRUE(parsedJob<WorkersOptions>({"workers", "--json"}).json);
  EXPECT_EQ(parsedJob<DrainOptions>({"workers", "drain", "4"}).worker, 4U);
  EXPECT_TRUE(parsedJob<StatusOptions>({"status", "--json"}).json);
  EXPECT_EQ(parsedJob<ServiceOptions>({"service", "restart"}).action, ServiceOptions::Action::Restart);
}

TEST(JobGrammar, JobsAreSteeredAllOrByTasks) {
  using Action = SteerOptions::Action;
  EXPECT_EQ(parsedJob<SteerOptions>({"hold", "1", "2"}).action, Action::Hold);
  EXPECT_EQ(parsedJob<SteerOptions>({"release", "1"}).action, Action::Release);
  EXPECT_EQ(parsedJob<SteerOptions>({"delete", "1"}).action, Action::Delete);
  const auto cancel = parsedJob<SteerOptions>({"cancel", "fit", "--task", "3", "--task", "5-9"});
  EXPECT_EQ(cancel.action, Action::Cancel);
  EXPECT_THAT(cancel.tasks, ElementsAre(TaskRange{3, 3}, TaskRange{5, 9}));
  EXPECT_THAT(parsedJob<SteerOptions>({"retry", "1", "2"}).tasks, IsEmpty());
}

TEST(JobGrammar, EachCommandTellsAboutItself) {
  for (const Words& command : std::vector<Words>{{"submit"},
                                                 {"jobs"},
                                                 {"show"},
                                                 {"tasks"},
                                                 {"logs"},
                                                 {"wait"},
                                                 {"fetch"},
                                                 {"cancel"},
                                                 {"hold"},
                                                 {"release"},
                                                 {"retry"},
                                                 {"delete"},
                                                 {"prune"},
                                                 {"workers"},
                                                 {"workers", "drain"},
                                                 {"status"},
                                                 {"service"},
                                                 {"service", "start"}}) {
    Words words = command;
    words.push_back("--help");
    const auto outcome = parseCommandLine(words);
    const auto* exit = std::get_if<EarlyExit>(&outcome);
    ASSERT_NE(exit, nullptr) << command.front();
    EXPECT_EQ(exit->code, 0);
    std::string name = "zks";
    for (const std::string& word : command)
      name += " " + word;
    EXPECT_THAT(exit->text, HasSubstr(name));
    EXPECT_THAT(exit->text, HasSubstr("--address"));
  }
}

}  // namespace
}  // namespace zks
