// Saving the items of a reply when the file system fails at any step, and when zks is killed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <tuple>

#include "cli/testing/TestService.h"
#include "cli/testing/ZksFixture.h"
#include "execution/testing/waiting.h"

namespace zks {
namespace {

using agent::spf::core::ServerCall;
using parallel::execution::testing::eventually;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

enum class Names { None, Temporary };  // whether the file system knows files without names

class ZksSaving : public ZksFixture {
 protected:
  void SetUp() override { std::filesystem::create_directory(path("out")); }

  Words withFault(const std::string& call, int step, int error, Names names, const Words& words) const {
    Words command{"env", "LD_PRELOAD=" FAULTY_FILES,
                  // The library comes before that of a sanitizer, which would refuse to run.
                  "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0",
                  "FAULTY_DIRECTORY=" + std::filesystem::canonical(path("out")).string(), "FAULTY_CALL=" + call,
                  "FAULTY_STEP=" + std::to_string(step), "FAULTY_ERRNO=" + std::to_string(error)};
    if (names == Names::Temporary)
      command.emplace_back("FAULTY_NAMED=1");
    const Words zks = zksWords(words);
    command.insert(command.end(), zks.begin(), zks.end());
    return command;
  }

  // Makes the call fail at each of its steps in turn until there is none left to fail. Returns how many there were.
  int failAtEachStep(const std::string& call, int error, Names names, const std::string& content,
                     const std::string& before) {
    for (int step = 1;; ++step) {
      SCOPED_TRACE(call + " fails at step " + std::to_string(step));
      writeFile(path("in"), content);
      std::filesystem::remove(path("out/in"));
      if (!before.empty())
        writeFile(path("out/in"), before);
      const auto outcome =
          runProgram(withFault(call, step, error, names, {"echo", "--file", "in", "--save", "out"}), directory());
      if (outcome.exitCode == 0) {
        EXPECT_TRUE(readFile(path("out/in")) == content);
        EXPECT_THAT(namesIn("out"), ElementsAre("in"));
        return step - 1;
      }
      EXPECT_EQ(outcome.exitCode, 1);
      EXPECT_THAT(outcome.error, HasSubstr("out/in\" cannot be written: "));
      EXPECT_THAT(outcome.error, HasSubstr(std::strerror(error)));
      EXPECT_EQ(namesIn("out"), before.empty() ? Words{} : Words{"in"});
      if (!before.empty()) {
        EXPECT_EQ(readFile(path("out/in")), before);
      }
      if (HasFailure())
        return step;
    }
  }
};

TEST_F(ZksSaving, FailureAtAnyStepOfASmallFileIsNamedAndLeavesWhatWasThere) {
  for (const Names names : {Names::None, Names::Temporary})
    for (const std::string before : {"", "what was there"})
      for (const auto& [call, error] : {std::pair{"write", EIO}, std::pair{"write", ENOSPC}, std::pair{"write", EDQUOT},
                                        std::pair{"fsync", EIO}, std::pair{"close", EDQUOT}, std::pair{"close", EIO}})
        EXPECT_GE(failAtEachStep(call, error, names, "a few bytes", before), 1) << call;
}

TEST_F(ZksSaving, FailureToPutTheFileInItsPlaceIsNamedAndLeavesWhatWasThere) {
  EXPECT_EQ(failAtEachStep("linkat", EACCES, Names::None, "a few bytes", ""), 1);
  EXPECT_EQ(failAtEachStep("rename", EACCES, Names::None, "a few bytes", "before"), 1);
  EXPECT_EQ(failAtEachStep("rename", EACCES, Names::Temporary, "a few bytes", ""), 1);
}

// The first attempt asks for a file without a name, and the next is for one with a name.
TEST_F(ZksSaving, FailureToOpenTheFileIsNamedAndLeavesWhatWasThere) {
  writeFile(path("in"), "a few bytes");
  const auto save = [&](int step, Names names) {
    writeFile(path("out/in"), "before");
    return runProgram(withFault("open", step, EMFILE, names, {"echo", "--file", "in", "--save", "out"}), directory());
  };
  EXPECT_EQ(save(1, Names::None).exitCode, 0);
  EXPECT_EQ(readFile(path("out/in")), "a few bytes");
  for (const auto& [step, names] : {std::pair{2, Names::None}, std::pair{1, Names::Temporary}}) {
    const auto outcome = save(step, names);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.error, AnyOf(HasSubstr("out/in\" cannot be written: Too many open files"),
                                     HasSubstr("out\": Too many open files")));
    EXPECT_EQ(readFile(path("out/in")), "before");
    EXPECT_THAT(namesIn("out"), ElementsAre("in"));
  }
}

TEST_F(ZksSaving, ProgramThatCannotBecomeOneIsNamedAndLeavesWhatWasThere) {
  const Words run{"run", "--output", "o", "--to", "out", "--", "sh", "-c", "echo x > o; chmod +x o"};
  for (const Names names : {Names::None, Names::Temporary}) {
    const auto alone = runProgram(withFault("fchmod", 1, EPERM, names, run), directory());
    EXPECT_EQ(alone.exitCode, 125);
    EXPECT_THAT(alone.error, HasSubstr("out/o\" cannot be written: Operation not permitted"));
    EXPECT_THAT(namesIn("out"), IsEmpty());
    writeFile(path("out/o"), "before");
    // The first call takes over what the file had, which is not always allowed.
    const auto replacing = runProgram(withFault("fchmod", 2, EPERM, names, run), directory());
    EXPECT_EQ(replacing.exitCode, 125);
    EXPECT_EQ(readFile(path("out/o")), "before");
    EXPECT_THAT(namesIn("out"), ElementsAre("o"));
    std::filesystem::remove(path("out/o"));
  }
}

TEST_F(ZksSaving, PermissionsThatCannotBeTakenOverAreThoseOfTheOwnerAlone) {
  writeFile(path("in"), "new");
  writeFile(path("out/in"), "before");
  const auto outcome =
      runProgram(withFault("fchmod", 1, EPERM, Names::None, {"echo", "--file", "in", "--save", "out"}), directory());
  EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
  EXPECT_EQ(readFile(path("out/in")), "new");
  struct stat status {};
  ASSERT_EQ(::stat(path("out/in").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(ZksSaving, FailureAtAnyStepOfALargeFileIsNamedAndLeavesNothing) {
  const std::string content = someBytes(9 << 20);
  EXPECT_GE(failAtEachStep("sync_file_range", EIO, Names::None, content, ""), 2);
  EXPECT_GE(failAtEachStep("fsync", EIO, Names::None, content, ""), 1);
}

TEST_F(ZksSaving, EveryKindOfItemIsSavedSafely) {
  for (const auto& [option, value, name] :
       {std::tuple{"--plain", "bytes", "item-1.bin"}, std::tuple{"--array", "[1,2]", "item-1.npy"},
        std::tuple{"--array", "\"text\"", "item-1.cbor"},
        std::tuple{"--protobuf", R"({"@type":"parallel.zksmessages.Missing"})", "item-1.pb"}}) {
    const auto outcome =
        runProgram(withFault("close", 1, EDQUOT, Names::None, {"echo", option, value, "--save", "out"}), directory());
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.error, HasSubstr(std::string("out/") + name + "\" cannot be written: Disk quota exceeded"));
    EXPECT_THAT(namesIn("out"), IsEmpty());
  }
}

TEST_F(ZksSaving, OutputOfATaskThatCannotBeStoredIsNamed) {
  const auto outcome = runProgram(withFault("write", 1, ENOSPC, Names::None,
                                            {"run", "--output", "o", "--to", "out", "--", "sh", "-c", "echo x > o"}),
                                  directory());
  EXPECT_EQ(outcome.exitCode, 125);
  EXPECT_THAT(outcome.error, HasSubstr("out/o\" cannot be written: No space left on device"));
  EXPECT_THAT(namesIn("out"), IsEmpty());
}

// The disk of one MiB is a file system of the test's own, in a mount namespace of its own.
TEST_F(ZksSaving, FileThatDoesNotFitOnTheDiskIsNamedAndOneThatFitsIsWhole) {
  writeFile(path("large"), someBytes(2 << 20));
  writeFile(path("small"), someBytes(1'000'000));
  const std::string onSmallDisk = "mount -t tmpfs -o size=1m none out && { \"$@\"; code=$?; ls -A out; exit $code; }";
  const auto save = [&](const std::string& name) {
    Words words{"unshare", "--user", "--map-root-user", "--mount", "sh", "-c", onSmallDisk, "sh"};
    const Words zks = zksWords({"echo", "--file", name, "--save", "out"});
    words.insert(words.end(), zks.begin(), zks.end());
    return runProgram(words, directory());
  };
  if (runProgram({"unshare", "--user", "--map-root-user", "--mount", "sh", "-c", "mount -t tmpfs none out"},
                 directory())
          .exitCode != 0)
    GTEST_SKIP() << "this machine gives no mount namespaces to its users";
  const auto large = save("large");
  EXPECT_EQ(large.exitCode, 1);
  EXPECT_THAT(large.error, HasSubstr("out/large\" cannot be written: No space left on device"));
  EXPECT_EQ(large.output, "") << "nothing is left on the disk";
  const auto small = save("small");
  EXPECT_EQ(small.exitCode, 0) << small.error;
  EXPECT_THAT(small.output, HasSubstr("\nsmall\n"));
}

TEST_F(ZksSaving, KilledProgramLeavesNothing) {
  const TestService service(path("s"), [](ServerCall& call) {
    call.reply().write("\0\0\0\0\1\0\1x", 8).flush();
    eventually([&] { return call.isCancelled(); });
  });
  setAddress(service.address());
  const auto zks = startZks({"call", "any", "--reply", "file:out/half"});
  ASSERT_TRUE(eventually([&] { return hasOpenFile(*zks, "out"); }));
  zks->send(SIGKILL);
  EXPECT_EQ(zks->wait().exitCode, 128 + SIGKILL);
  EXPECT_THAT(namesIn("out"), IsEmpty());
}

TEST_F(ZksSaving, WhatAKilledProgramLeftUnderANameIsRemovedADayLater) {
  const std::string old = ".zks-abcdefghij01";
  const std::string young = ".zks-abcdefghij02";
  const std::string another = ".zks-notes";
  for (const std::string& name : {old, young, another})
    writeFile(path("out/" + name), "half");
  timeval times[2] = {};
  ASSERT_EQ(::gettimeofday(&times[0], nullptr), 0);
  times[0].tv_sec -= 25 * 60 * 60;
  times[1] = times[0];
  for (const std::string& name : {old, another})
    ASSERT_EQ(::utimes(path("out/" + name).c_str(), times), 0);
  const auto outcome =
      runProgram(withFault("", 0, 0, Names::Temporary, {"echo", "--plain", "x", "--save", "out"}), directory());
  EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
  EXPECT_THAT(namesIn("out"), ElementsAre(young, another, "item-1.bin"));
}

TEST_F(ZksSaving, InterruptedProgramRemovesItsFileUnderATemporaryName) {
  const TestService service(path("s"), [](ServerCall& call) {
    call.reply().write("\0\0\0\0\1\0\1x", 8).flush();
    eventually([&] { return call.isCancelled(); });
  });
  setAddress(service.address());
  ChildProcess zks(withFault("", 0, 0, Names::Temporary, {"call", "any", "--reply", "file:out/half"}), directory());
  ASSERT_TRUE(eventually([&] { return !namesIn("out").empty(); }));
  zks.send(SIGINT);
  EXPECT_EQ(zks.wait().exitCode, 130);
  EXPECT_THAT(namesIn("out"), IsEmpty());
}

TEST_F(ZksSaving, ItemsOfOneNameAreAllKept) {
  for (const char* directory : {"a", "b"}) {
    std::filesystem::create_directory(path(directory));
    writeFile(path(std::string(directory) + "/same"), directory);
  }
  writeFile(path("item-4.bin"), "not the fourth item");
  const auto outcome = zks(
      {"echo", "--file", "a/same", "--file", "b/same", "--file", "item-4.bin", "--plain", "fourth", "--save", "out"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
  EXPECT_THAT(namesIn("out"), ElementsAre("item-2-same", "item-4-item-4.bin", "item-4.bin", "same"));
  EXPECT_EQ(readFile(path("out/same")), "a");
  EXPECT_EQ(readFile(path("out/item-2-same")), "b");
  EXPECT_EQ(readFile(path("out/item-4.bin")), "not the fourth item");
  EXPECT_EQ(readFile(path("out/item-4-item-4.bin")), "fourth");
  EXPECT_THAT(outcome.output, HasSubstr("\"out/item-2-same\""));
}

TEST_F(ZksSaving, PathThatTwoItemsOfAReplyWouldGoToIsRefused) {
  const auto outcome = zks({"call", "echo", "--reply", "file:out/x,file:out/./x"});
  EXPECT_EQ(outcome.exitCode, 2);
  EXPECT_THAT(outcome.error, HasSubstr("\"out/./x\" twice"));
}

// --- Files that are sent ---

TEST_F(ZksSaving, FileThatBecomesShorterWhileItIsReadIsNamed) {
  writeFile(path("out/f"), "some bytes");
  for (const std::string option : {"--plain", "--array", "--protobuf"}) {
    const auto outcome = runProgram(withFault("read", 1, 0, Names::None, {"echo", option, "@out/f"}), directory());
    EXPECT_NE(outcome.exitCode, 0);
    EXPECT_THAT(outcome.error, HasSubstr("\"out/f\": it became shorter while it was read"));
  }
}

}  // namespace
}  // namespace zks
