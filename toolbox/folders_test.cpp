#include "toolbox/folders.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "platform/errors/IException.h"
#include "platform/files/testing/TemporaryDirectory.h"
#include "platform/interrupt/interpreterContext.h"
#include "platform/interrupt/utInterruptState.h"
#include "toolbox/TaskInputs.h"

namespace parallel::toolbox {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class Folders : public ::testing::Test {
 protected:
  std::string path(const std::string& name) const { return directory_.path() + "/" + name; }
  void makeFile(const std::string& name) const { std::ofstream(path(name)) << "x"; }

  static std::string refusal(const std::function<void()>& action) {
    try {
      action();
    } catch (const std::exception& error) {
      return error.what();
    }
    return "no error";
  }

  files::testing::TemporaryDirectory directory_;
};

TEST_F(Folders, EverythingInAFolderIsFoundInOrder) {
  fs::create_directories(path("d/b/deep"));
  fs::create_directories(path("d/a"));
  for (const char* name : {"d/z", "d/.hidden", "d/a/y", "d/b/deep/x"})
    makeFile(name);
  fs::create_symlink("../z", path("d/a/link"));
  const FolderContents contents = contentsOfFolder(path("d/"));
  EXPECT_THAT(contents.folders, ElementsAre("a", "b", "b/deep"));
  EXPECT_THAT(contents.files, ElementsAre(".hidden", "z", "a/link", "a/y", "b/deep/x"));
}

TEST_F(Folders, EmptyFolderHasNothing) {
  EXPECT_THAT(contentsOfFolder(directory_.path()).folders, IsEmpty());
  EXPECT_THAT(contentsOfFolder(directory_.path()).files, IsEmpty());
}

TEST_F(Folders, WhatCannotBeSentIsNamed) {
  const auto list = [this] { contentsOfFolder(directory_.path()); };
  fs::create_directory_symlink("/", path("root"));
  EXPECT_THAT(refusal(list), HasSubstr("/root\" cannot be sent: it is a link to a folder"));
  fs::remove(path("root"));
  makeFile("caf\xE9");
  EXPECT_THAT(refusal(list), HasSubstr("its name is not UTF-8"));
  EXPECT_THAT(refusal([this] { contentsOfFolder(path("none")); }), HasSubstr("/none\" cannot be sent: No such file"));
}

TEST_F(Folders, MoreFilesThanCanBeSentAreRefused) {
  fs::create_directories(path("a/b"));
  for (const char* name : {"1", "a/2", "a/b/3"})
    makeFile(name);
  const auto list = [this](std::size_t most) { return refusal([&] { contentsOfFolder(directory_.path(), most); }); };
  EXPECT_EQ(list(5), "no error");
  for (const std::size_t few : {0U, 1U, 2U, 3U, 4U})
    EXPECT_THAT(list(few), HasSubstr("it has more than " + std::to_string(few) + " files; pack it into one"));
}

TEST_F(Folders, InterruptEndsTheSearch) {
  makeFile("x");
  const foundation::usm::InterpreterContext context;
  utInterruptState::request();
  EXPECT_THROW(contentsOfFolder(directory_.path()), Corvane::System::InterruptException);
}

TEST_F(Folders, FolderIsMadeOnceAndAFileInItsPlaceIsNamed) {
  makeFolder(path("a/b"));
  makeFolder(path("a/b"));
  EXPECT_TRUE(fs::is_directory(path("a/b")));
  makeFile("file");
  EXPECT_THAT(refusal([this] { makeFolder(path("file/x")); }), HasSubstr("/file/x\""));
  EXPECT_THAT(refusal([this] { makeFolder(path("file")); }), HasSubstr("/file\""));
}

TEST_F(Folders, InputsAreToldByTheirPathsWithWhichArePrograms) {
  fs::create_directories(path("d/sub/empty"));
  makeFile("d/sub/data");
  makeFile("d/tool");
  ASSERT_EQ(::chmod(path("d/tool").c_str(), 0755), 0);
  makeFile("file");
  TaskInputs inputs;
  inputs.add("in", path("d/"));
  inputs.add("data", path("file"));
  zksmessages::TaskDescription task;
  inputs.describe(task);
  EXPECT_THAT(task.input_folders(), ElementsAre("in", "in/sub", "in/sub/empty"));
  EXPECT_THAT(task.input_files(), ElementsAre("in/tool", "in/sub/data", "data"));
  EXPECT_THAT(task.executable_inputs(), ElementsAre("in/tool"));
  EXPECT_EQ(inputs.items().size(), 3U);
  EXPECT_FALSE(task.standard_input());
}

}  // namespace
}  // namespace parallel::toolbox
