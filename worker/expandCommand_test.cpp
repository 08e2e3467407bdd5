#include "worker/expandCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <exception>

namespace parallel::worker {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;

TEST(ExpandCommand, PlaceholdersBecomeTheTasksValues) {
  const TaskValues values{-3, "a {index} b"};
  EXPECT_EQ(expandText("run {index}:{line}.txt", values), "run -3:a {index} b.txt");
  EXPECT_EQ(expandText("{index}{index}", values), "-3-3");
  EXPECT_EQ(expandText("", values), "");
  EXPECT_EQ(expandText("{{index}} }", values), "{index}} }");
  EXPECT_EQ(expandText("{{{index}", values), "{-3");
}

TEST(ExpandCommand, OtherPlaceholdersAreNamed) {
  EXPECT_THAT([] { expandText("x {indx} y", {1, "l"}); }, ThrowsMessage<std::exception>(HasSubstr("{indx}")));
  EXPECT_THAT([] { expandText("{line}", {1}); }, ThrowsMessage<std::exception>(HasSubstr("no lines")));
  EXPECT_THAT([] { expandText("awk {print", {1}); }, ThrowsMessage<std::exception>(HasSubstr("awk {print")));
}

TEST(ExpandCommand, AllPartsOfACommandAreExpanded) {
  zksmessages::TaskCommand command;
  command.add_argv("prog{index}");
  command.add_argv("{line}");
  (*command.mutable_environment())["N{index}"] = "{index}";
  command.add_inputs()->set_name("in{index}");
  command.add_outputs("out{line}*");
  const auto expanded = expandCommand(command, {5, "five"});
  EXPECT_THAT(expanded.argv(), ElementsAre("prog5", "five"));
  EXPECT_EQ(expanded.environment().at("N{index}"), "5");
  EXPECT_EQ(expanded.inputs(0).name(), "in5");
  EXPECT_THAT(expanded.outputs(), ElementsAre("outfive*"));
}

TEST(ExpandCommand, TheEnvironmentIsTheDescribedOneAndWhatTheWorkerAdds) {
  ::setenv("SLURM_JOB_ID", "77", 1);
  zksmessages::TaskCommand command;
  (*command.mutable_environment())["A"] = "1";
  (*command.mutable_environment())["ZKS_JOB"] = "wrong";
  zksmessages::AttemptKey attempt;
  attempt.set_job(2);
  attempt.set_task(3);
  attempt.set_number(4);
  EXPECT_THAT(environmentOf(command, attempt, {9, "text"}, 8),
              ElementsAre("A=1", "OMP_NUM_THREADS=8", "ZKS_ATTEMPT=4", "ZKS_CORES=8", "ZKS_INDEX=9", "ZKS_JOB=2",
                          "ZKS_LINE=text", "ZKS_TASK=3"));
  ::unsetenv("SLURM_JOB_ID");
  (*command.mutable_environment())["OMP_NUM_THREADS"] = "1";
  const auto own = environmentOf(command, attempt, {9}, 8);
  EXPECT_THAT(own, Contains("OMP_NUM_THREADS=1"));
  EXPECT_THAT(own, Not(Contains(StartsWith("ZKS_LINE="))));
}

}  // namespace
}  // namespace parallel::worker
