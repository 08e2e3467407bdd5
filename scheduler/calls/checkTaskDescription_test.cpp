#include "scheduler/calls/checkTaskDescription.h"

#include <gtest/gtest.h>

#include <functional>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/visibleText.h"
#include "scheduler/testing/containers.h"
#include "scheduler/testing/expectError.h"

namespace parallel::scheduler {
namespace {

using testing::raw;
using zksmessages::TaskDescription;

TaskDescription goodTask() {
  TaskDescription task;
  task.add_argv("sort");
  task.add_argv("");
  (*task.mutable_environment())["LANG"] = "C";
  (*task.mutable_environment())["EMPTY"] = "";
  task.add_input_files("data.txt");
  task.add_input_files("..data");
  task.add_executable_inputs("..data");
  task.add_output_files("data.txt");
  task.add_output_files(std::string(255, 'n'));
  auto& limits = *task.mutable_limits();
  limits.mutable_wall_time()->set_nanos(1);
  limits.mutable_cpu_time()->set_seconds(315'576'000'000);
  limits.set_memory_bytes(1);
  limits.set_file_bytes(0);
  limits.set_open_files(4);
  return task;
}

void expectRefused(const std::function<void(TaskDescription&)>& spoil, const std::string& problem) {
  TaskDescription task = goodTask();
  spoil(task);
  EXPECT_IDENTIFIED(BadTaskField, "The task description cannot be used: " + problem + ".", checkTaskDescription(task));
}

TEST(CheckTaskDescription, GoodOnePasses) {
  EXPECT_NO_THROW(checkTaskDescription(goodTask()));
  TaskDescription task = goodTask();
  task.add_input_files("in/deeper/file");
  task.add_input_folders("in");
  task.add_input_folders("in/empty");
  EXPECT_NO_THROW(checkTaskDescription(task));
}

TEST(CheckTaskDescription, ArgumentsNeedAProgramAndNoNul) {
  expectRefused([](auto& task) { task.clear_argv(); }, "argv: it is empty, and names no program");
  expectRefused([](auto& task) { task.set_argv(0, ""); }, "argv[0]: \"\" is not a program");
  expectRefused([](auto& task) { task.set_argv(1, raw("a\0b")); }, "argv[1]: it holds a NUL");
}

TEST(CheckTaskDescription, EnvironmentNamesAndValuesAreChecked) {
  const auto with = [](const std::string& name, const std::string& value) {
    return [=](TaskDescription& task) { (*task.mutable_environment())[name] = value; };
  };
  expectRefused(with("", "x"), "environment[\"\"]: a variable needs a name");
  expectRefused(with("A=B", "x"), "environment[\"A=B\"]: a variable's name holds neither \"=\" nor a NUL");
  expectRefused(with(raw("A\0"), "x"), "environment[\"A\\x00\"]: a variable's name holds neither \"=\" nor a NUL");
  expectRefused(with("A", raw("x\0")), "environment[\"A\"]: its value holds a NUL");
}

TEST(CheckTaskDescription, NamesOfOutputsAreSingleNames) {
  const std::string longName(256, 'n');
  const std::pair<std::string, std::string> problems[] = {
      {"", "\"\" is not the name of a file"},
      {".", "\".\" is not the name of a file"},
      {"..", "\"..\" is not the name of a file"},
      {"../x", "\"../x\" holds a \"/\", and a file's name here has no directories"},
      {"/etc/passwd", "\"/etc/passwd\" holds a \"/\", and a file's name here has no directories"},
      {"a/", "\"a/\" holds a \"/\", and a file's name here has no directories"},
      {raw("a\0b"), "\"a\\x00b\" holds a NUL"},
      {longName, "\"" + longName + "\" is longer than 255 bytes"},
  };
  for (const auto& [name, problem] : problems)
    expectRefused([&, n = name](auto& task) { task.set_output_files(0, n); }, "output_files[0]: " + problem);
}

TEST(CheckTaskDescription, PathsOfInputsStayInTheTasksDirectory) {
  const std::string longName = "d/" + std::string(256, 'n');
  std::string longPath = "d";
  while (longPath.size() <= 2048)
    longPath += "/d";
  std::vector<std::pair<std::string, std::string>> problems = {
      {raw("a\0b"), "\"a\\x00b\" holds a NUL"},
      {longName, errors::inQuotes(longName) + " has a name longer than 255 bytes"},
      {longPath, errors::inQuotes(longPath) + " is longer than 2048 bytes"},
  };
  for (const std::string path : {"", ".", "..", "../x", "a/../../x", "/etc/passwd", "a/", "a//b", "./a"})
    problems.emplace_back(path, "\"" + path + "\" is not the path of a file in the task's directory");
  for (const auto& [path, problem] : problems) {
    expectRefused([&, p = path](auto& task) { task.set_input_files(0, p); }, "input_files[0]: " + problem);
    expectRefused([&, p = path](auto& task) { task.add_input_folders(p); }, "input_folders[0]: " + problem);
  }
}

TEST(CheckTaskDescription, NothingIsFileAndFolderAtOnce) {
  expectRefused([](auto& task) { task.add_input_files("data.txt/a/b"); },
                "input_files[2]: \"data.txt/a/b\" is in \"data.txt\", which is a file");
  expectRefused([](auto& task) { task.add_input_folders("data.txt/a"); },
                "input_folders[0]: \"data.txt/a\" is in \"data.txt\", which is a file");
  expectRefused([](auto& task) { task.add_input_folders("data.txt"); }, "input_folders[0]: \"data.txt\" is a file too");
}

TEST(CheckTaskDescription, NamesOccurOnceInEachList) {
  expectRefused([](auto& task) { task.set_input_files(1, "data.txt"); }, "input_files[1]: \"data.txt\" is there twice");
  expectRefused([](auto& task) { task.set_output_files(1, "data.txt"); },
                "output_files[1]: \"data.txt\" is there twice");
}

TEST(CheckTaskDescription, FoldersOccurOnce) {
  expectRefused(
      [](auto& task) {
        task.add_input_folders("d");
        task.add_input_folders("d");
      },
      "input_folders[1]: \"d\" is there twice");
}

TEST(CheckTaskDescription, ProgramsAreAmongTheInputs) {
  expectRefused([](auto& task) { task.add_executable_inputs("else"); },
                "executable_inputs[1]: \"else\" is not among input_files");
}

TEST(CheckTaskDescription, LimitsAreAboveZero) {
  using zksmessages::TaskLimits;
  const auto with = [](std::function<void(TaskLimits&)> spoil) {
    return [spoil](TaskDescription& task) { spoil(*task.mutable_limits()); };
  };
  expectRefused(with([](TaskLimits& limits) { limits.mutable_wall_time()->Clear(); }),
                "limits.wall_time: 0 s and 0 ns is not a length of time above zero");
  expectRefused(with([](TaskLimits& limits) { limits.mutable_wall_time()->set_seconds(-1); }),
                "limits.wall_time: -1 s and 1 ns is not a length of time above zero");
  expectRefused(with([](TaskLimits& limits) { limits.mutable_wall_time()->set_nanos(1'000'000'000); }),
                "limits.wall_time: 0 s and 1000000000 ns is not a length of time above zero");
  expectRefused(with([](TaskLimits& limits) { limits.mutable_cpu_time()->set_nanos(-1); }),
                "limits.cpu_time: 315576000000 s and -1 ns is not a length of time above zero");
  expectRefused(with([](TaskLimits& limits) { limits.mutable_cpu_time()->set_seconds(315'576'000'001); }),
                "limits.cpu_time: 315576000001 s and 0 ns is not a length of time above zero");
  expectRefused(with([](TaskLimits& limits) { limits.set_memory_bytes(0); }),
                "limits.memory_bytes: nothing runs in 0 bytes");
  expectRefused(with([](TaskLimits& limits) { limits.set_open_files(3); }),
                "limits.open_files: 3 is too few; a program needs at least 4");
}

}  // namespace
}  // namespace parallel::scheduler
