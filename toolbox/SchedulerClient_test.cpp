#include "toolbox/SchedulerClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <new>
#include <numeric>

#include "platform/errors/IException.h"
#include "platform/interrupt/XExceptionTester.h"
#include "platform/interrupt/interpreterContext.h"
#include "platform/interrupt/utInterruptState.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/inprocess/connectInProcess.h"
#include "scheduler/SchedulerService.h"
#include "scheduler/calls/ReplyWriter.h"
#include "toolbox/TaskInputs.h"
#include "toolbox/hostMessage.h"
#include "toolbox/testing/FakeInvokable.h"
#include "toolbox/testing/SocketDirectory.h"

namespace parallel::toolbox {
namespace {

using agent::spf::core::ServerCall;
using agent::spf::core::Service;
using testing::ElementsAre;
using testing::HasSubstr;

std::string messageOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "no error";
}

std::string textOf(const tova::factory::qxArrayProxy& bytes) {
  return {static_cast<const char*>(qxGetData(bytes.get())), qxGetNumberOfElements(bytes.get())};
}

qxArrayPtr bytesOf(const std::string& text) {
  const std::size_t shape[] = {text.size(), 1};
  qxArrayPtr array = qxCreateNumericArray(shape, qxClass::Uint8);
  if (!text.empty())
    std::memcpy(qxGetWritableData(array.get()), text.data(), text.size());
  return array;
}

class SchedulerClientTest : public testing::Test {
 protected:
  std::string write(const std::string& name, const std::string& bytes) const {
    const std::string path = files_.directory() + "/" + name;
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  std::string read(const std::string& name) const {
    std::ostringstream bytes;
    bytes << std::ifstream(files_.directory() + "/" + name, std::ios::binary).rdbuf();
    return bytes.str();
  }

  SocketDirectory files_;
  Connection connection_{agent::spf::inprocess::connectInProcess(scheduler::makeSchedulerService()), "embedded"};
  std::shared_ptr<TransferProgress> progress_ = std::make_shared<TransferProgress>();
  SchedulerClient client_{connection_, progress_};
};

TEST_F(SchedulerClientTest, EchoGivesEveryKindOfItemBackInOrder) {
  const qxArrayPtr number = qxCreateScalar(4.5);
  zksmessages::TaskDescription description;
  description.add_argv("word");
  const qxArrayPtr message = hostFromMessage(description);
  Reply reply = client_.echo({arrayItem(number.get()), plainItem(bytesOf("bytes").get()), resultItem(message.get()),
                              fileItem(write("in", "contents")), plainItem(bytesOf("").get())});
  ASSERT_EQ(reply.itemCount(), 5U);
  EXPECT_TRUE(qxEqual(reply.takeArray().get(), number.get()));
  EXPECT_EQ(textOf(reply.takePlain()), "bytes");
  EXPECT_TRUE(qxEqual(reply.takeMessage().get(), message.get()));
  reply.takeFile(files_.directory() + "/out");
  EXPECT_EQ(read("out"), "contents");
  EXPECT_EQ(textOf(reply.takePlain()), "");
  EXPECT_EQ(reply.itemsTaken(), 5U);
  EXPECT_THAT(messageOf([&] { reply.takePlain(); }), HasSubstr("ends after 5 items"));
}

TEST_F(SchedulerClientTest, EchoCountsItsBytesBothWays) {
  const std::string bytes(100'000, 'x');
  client_.echo({plainItem(bytesOf(bytes).get())}).takePlain();
  EXPECT_GE(progress_->packed, bytes.size());
  EXPECT_GT(progress_->toSend, bytes.size());
  EXPECT_EQ(progress_->sent, progress_->toSend);
  EXPECT_EQ(progress_->received, progress_->toReceive);
  EXPECT_GT(progress_->toReceive, bytes.size());
}

TEST_F(SchedulerClientTest, RunTaskTellsHowItRanAndLeavesOutputsToTake) {
  zksmessages::TaskDescription description;
  for (const char* word : {"sh", "-c", "cat a b > c; echo out; echo err >&2; exit 3"})
    description.add_argv(word);
  description.add_input_files("a");
  description.add_input_files("b");
  description.add_output_files("c");
  description.add_output_files("d");
  TaskResult result = client_.runTask(description, {fileItem(write("x", "1")), fileItem(write("y", "2"))});
  EXPECT_EQ(result.info.outcome(), zksmessages::TesselTaskExecutionInfo::OUTCOME_EXITED);
  EXPECT_EQ(result.info.exit_status(), 3);
  EXPECT_THAT(result.info.missing_outputs(), ElementsAre("d"));
  EXPECT_EQ(textOf(result.standardOutput), "out\n");
  EXPECT_EQ(textOf(result.standardError), "err\n");
  result.outputs.takeFile(files_.directory() + "/c");
  EXPECT_EQ(read("c"), "12");
}

TEST_F(SchedulerClientTest, FoldersGoThereAndComeBack) {
  std::filesystem::create_directories(files_.directory() + "/in/sub");
  write("in/sub/data", "12");
  TaskInputs inputs;
  inputs.add("d", files_.directory() + "/in");
  zksmessages::TaskDescription description;
  for (const char* word : {"sh", "-c", "echo 3 > d/new"})
    description.add_argv(word);
  inputs.describe(description);
  description.add_output_files("d");
  description.set_return_folders(true);
  TaskResult result = client_.runTask(description, inputs.items());
  EXPECT_THAT(result.info.output_folders(), ElementsAre("d", "d/sub"));
  ASSERT_THAT(result.info.folder_files(), ElementsAre("d/new", "d/sub/data"));
  for (const char* name : {"none", "new", "data"})
    result.outputs.takeFile(files_.directory() + "/" + name);
  EXPECT_EQ(read("none") + read("new") + read("data"), "3\n12");
}

TEST_F(SchedulerClientTest, UnknownMethodIsAFrameworkErrorThatNamesCallAndCause) {
  try {
    client_.call("jump", {});
    FAIL() << "no error";
  } catch (const agent::spf::FrameworkError& error) {
    EXPECT_THAT(error.what(), HasSubstr("jump at embedded failed\n"));
    EXPECT_THAT(error.what(), HasSubstr("retry, runTask, setPriority"));
  }
}

TEST_F(SchedulerClientTest, ClosedConnectionIsUnreachable) {
  connection_.close();
  try {
    client_.echo({});
    FAIL() << "no error";
  } catch (const std::exception& error) {
    const auto* identified = dynamic_cast<const IException*>(&error);
    ASSERT_NE(identified, nullptr);
    EXPECT_EQ(identified->identifier(), "parallel:cluster:ZKSUnreachable");
  }
}

TEST_F(SchedulerClientTest, PendingInterruptEndsThePackingAsItself) {
  const foundation::usm::InterpreterContext context;
  utInterruptState::request();
  EXPECT_THROW(client_.echo({plainItem(bytesOf("x").get())}), Corvane::System::InterruptException);
  utInterruptState::clear();
}

TEST_F(SchedulerClientTest, ArraysAreCountedWithoutBeingCopiedIntoTheItem) {
  const std::size_t shape[] = {1000, 1};
  const qxArrayPtr array = qxCreateNumericArray(shape, qxClass::Float64);
  EXPECT_TRUE(qxEqual(client_.echo({arrayItem(array.get())}).takeArray().get(), array.get()));
}

TEST(Items, PlainItemsAreOfBytesOnly) {
  const qxArrayPtr number = qxCreateScalar(1);
  EXPECT_THAT(messageOf([&] { plainItem(number.get()); }), HasSubstr("float64"));
}

TEST(Items, FileThatCannotBeOpenedIsNamedWithTheReason) {
  EXPECT_THAT(messageOf([] { fileItem("/no/such/file"); }), HasSubstr("\"/no/such/file\" cannot be sent: No such"));
  EXPECT_THAT(messageOf([] { fileItem("/tmp"); }), HasSubstr("it is a directory"));
  EXPECT_THAT(messageOf([] { fileItem("/dev/null"); }), HasSubstr("not a regular file"));
}

TEST_F(SchedulerClientTest, FileThatVanishesBeforeTheCallIsNamedWithTheReason) {
  const std::string path = write("gone", "x");
  const Item item = fileItem(path);
  ASSERT_EQ(::unlink(path.c_str()), 0);
  const std::string message = messageOf([&] { client_.echo({item}); });
  EXPECT_THAT(message, HasSubstr("\"" + path + "\" cannot be sent: No such file"));
}

// --- Services that answer what they should not ---

std::shared_ptr<Service> serviceOf(const Service::Handler& handler) {
  auto service = std::make_shared<Service>();
  service->add("any", handler);
  service->add("echo", handler);
  service->add("runTask", handler);
  return service;
}

Connection connectionTo(const Service::Handler& handler) {
  return {agent::spf::inprocess::connectInProcess(serviceOf(handler)), "odd service"};
}

TEST(SchedulerClientOfOddServices, TerminatedMeansThatTheServiceWentAway) {
  const auto invokable = std::make_shared<FakeInvokable>();
  invokable->error = std::make_exception_ptr(agent::spf::Terminated());
  const Connection connection(invokable, "fake");
  EXPECT_THAT(messageOf([&] { SchedulerClient(connection).call("any", {}); }),
              HasSubstr("The service at fake went away while any was under way"));
}

TEST(SchedulerClientOfOddServices, TimeoutMeansThatItDidNotAnswer) {
  const auto invokable = std::make_shared<FakeInvokable>();
  invokable->error = std::make_exception_ptr(agent::spf::Timeout());
  const Connection connection(invokable, "fake");
  EXPECT_THAT(messageOf([&] { SchedulerClient(connection).call("any", {}); }),
              HasSubstr("The service at fake did not answer any in time"));
}

TEST(SchedulerClientOfOddServices, InterruptFromTheServicesSidePassesAsItself) {
  const auto invokable = std::make_shared<FakeInvokable>();
  invokable->error = std::make_exception_ptr(Corvane::System::InterruptException());
  const Connection connection(invokable, "fake");
  EXPECT_THROW(SchedulerClient(connection).call("any", {}), Corvane::System::InterruptException);
}

TEST(SchedulerClientOfOddServices, InterruptedWaitCancelsTheCallAtTheServiceAndTheNextOneSucceeds) {
  std::promise<void> cancelled;
  const auto service = std::make_shared<Service>();
  service->add("silent", [&](ServerCall& call) {
    std::promise<void> told;
    call.onCancel([&] { told.set_value(); });
    utInterruptState::request();
    told.get_future().wait();
    cancelled.set_value();
  });
  service->add("empty", [](ServerCall& call) { call.reply().write("\0\0\0\0\0", 5); });
  const Connection connection(agent::spf::inprocess::connectInProcess(service), "embedded");
  const foundation::usm::InterpreterContext context;
  EXPECT_THROW(SchedulerClient(connection).call("silent", {}), Corvane::System::InterruptException);
  EXPECT_EQ(cancelled.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
  EXPECT_EQ(SchedulerClient(connection).call("empty", {}).itemCount(), 0U);
}

TEST(SchedulerClientOfOddServices, BreakInMidReplyIsTheCauseOfTheItemsError) {
  const Connection connection = connectionTo([](ServerCall& call) {
    call.reply().write("\0\0\0\0\1\0\5half", 11).flush();
    throw agent::spf::FrameworkError("the other half is gone");
  });
  Reply reply = SchedulerClient(connection).call("any", {});
  const std::string message = messageOf([&] { reply.takePlain(); });
  EXPECT_THAT(message, HasSubstr("Item 1 of 1 of the reply to any could not be received"));
  EXPECT_THAT(message, HasSubstr("the other half is gone"));
}

TEST(SchedulerClientOfOddServices, InterruptInMidItemPassesAsItselfAndEndsTheCall) {
  std::promise<void> cancelled;
  const Connection connection = connectionTo([&](ServerCall& call) {
    call.reply().write("\0\0\0\0\1\0\5half", 11).flush();
    std::promise<void> givenUp;  // the other half never comes
    call.onCancel([&] { givenUp.set_value(); });
    givenUp.get_future().wait();
    cancelled.set_value();
  });
  Reply reply = SchedulerClient(connection).call("any", {});
  const foundation::usm::InterpreterContext context;
  utInterruptState::request();
  EXPECT_THROW(reply.takePlain(), Corvane::System::InterruptException);
  EXPECT_FALSE(utInterruptState::isPending());
  // Though the reply lives on.
  EXPECT_EQ(cancelled.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
}

TEST(SchedulerClientOfOddServices, InterruptBetweenThePiecesOfAnItemPassesAsItself) {
  const Connection connection = connectionTo([](ServerCall& call) { call.reply().write("\0\0\0\0\1\0\5whole", 12); });
  Reply reply = SchedulerClient(connection).call("any", {});
  const xtester::ArmedTester pressed("SPFByteStreamAdaptor::ctrl_c");
  const foundation::usm::InterpreterContext context;
  EXPECT_THROW(reply.takePlain(), Corvane::System::InterruptException);
}

TEST(SchedulerClientOfOddServices, AfterAnItemThatFailedTheRestOfTheReplyIsLost) {
  const Connection connection =
      connectionTo([](ServerCall& call) { call.reply().write("\0\0\0\0\2\0\4none\0\0\0\1x\0\0", 18); });
  Reply reply = SchedulerClient(connection).call("any", {});
  EXPECT_THAT(messageOf([&] { reply.takeArray(); }), HasSubstr("Item 1 of 2"));
  EXPECT_THAT(messageOf([&] { reply.takePlain(); }), HasSubstr("The rest of the reply to any is lost"));
  EXPECT_THAT(messageOf([&] { reply.takePlain(); }), HasSubstr("ends after 2 items"));
}

// What a plain item of those bytes gives.
std::string plainInto(const std::string& content) {
  const Connection connection = connectionTo([&](ServerCall& call) {
    scheduler::ReplyWriter writer(call.reply(), 1);
    writer.writeItem([&](spf::transport::ByteSink& item) {
      for (const char& byte : content)  // in pieces of one byte
        item.write(reinterpret_cast<const std::byte*>(&byte), 1);
    });
  });
  Reply reply = SchedulerClient(connection).call("any", {});
  std::string bytes = "no memory was asked for";
  const std::string message = messageOf([&] {
    reply.takePlainInto([&](std::size_t nbytes) {
      if (nbytes > 1000)
        throw std::bad_alloc();
      bytes.assign(nbytes, '?');
      return reinterpret_cast<std::byte*>(bytes.data());
    });
  });
  return message == "no error" ? bytes : message;
}

TEST(SchedulerClientOfOddServices, PlainBytesComeIntoMemoryOfTheCaller) {
  const std::string length("\0\0\0\0\0\0\0\3", 8);
  EXPECT_EQ(plainInto(length + "abc"), "abc");
  EXPECT_EQ(plainInto(length + "abcd"), "abc") << "what is too much is dropped";
  EXPECT_EQ(plainInto(length + "a"), std::string("a\0\0", 3)) << "what was announced and did not come is zero";
  EXPECT_EQ(plainInto(std::string(8, '\0')), "");
  EXPECT_THAT(plainInto("abc"), HasSubstr("it has 3 bytes, and plain bytes begin with the 8 of their length"));
  EXPECT_THAT(plainInto(""), HasSubstr("it has 0 bytes"));
  for (const char first : {'\1', '\x80', '\xFF'})
    EXPECT_THAT(plainInto(first + length), HasSubstr("are more than memory can hold"));
}

TEST(SchedulerClientOfOddServices, ItemsThatAReplyOnlyCountsCostNothing) {
  const Connection connection = connectionTo([](ServerCall& call) { call.reply().write("\0\x7F\xFF\xFF\xFF", 5); });
  Reply reply = SchedulerClient(connection).call("any", {});
  EXPECT_EQ(reply.itemCount(), 0x7FFFFFFFU);
  EXPECT_THAT(messageOf([&] { reply.takePlain(); }), HasSubstr("Item 1 of 2147483647"));
}

TEST(SchedulerClientOfOddServices, WrongNumberOfItemsIsAMalformedReply) {
  const Connection connection = connectionTo([](ServerCall& call) { call.reply().write("\0\0\0\0\0", 5); });
  const SchedulerClient client(connection);
  EXPECT_THAT(messageOf([&] { client.echo({plainItem(bytesOf("x").get())}); }), HasSubstr("has 0 items, not 1"));
  EXPECT_THAT(messageOf([&] { client.runTask({}, {}); }), HasSubstr("has 0 items, not 3"));
}

// A reply to runTask whose folders are those, without a byte in its other items.
Connection connectionWithFolders(const zksmessages::TesselTaskExecutionInfo& info, int items) {
  return connectionTo([info, items](ServerCall& call) {
    scheduler::ReplyWriter writer(call.reply(), items);
    zksmessages::ResultPayload payload;
    payload.mutable_result()->set_type_url("type.googleapis.com/" + info.GetTypeName());
    payload.mutable_result()->set_value(info.SerializeAsString());
    writer.writeMessage(payload);
    const auto nothing = [](spf::transport::ByteSink&) {};
    writer.writePlain(0, nothing);
    writer.writePlain(0, nothing);
    for (int i = 3; i < items; ++i)
      writer.writeItem(nothing);
  });
}

TEST(SchedulerClientOfOddServices, FoldersThatWereNotAskedForAreAMalformedReply) {
  zksmessages::TaskDescription task;
  task.add_output_files("d");
  for (const bool wanted : {true, false}) {
    task.set_return_folders(wanted);
    for (const char* path : {"../x", "/etc", "d/../../x", "e/x", "d//x", "d/", "", "d", "d/x"}) {
      const bool good = wanted && (std::string_view(path) == "d" || std::string_view(path) == "d/x");
      zksmessages::TesselTaskExecutionInfo folder;
      folder.add_output_folders(path);
      const std::string ofFolder =
          messageOf([&] { SchedulerClient(connectionWithFolders(folder, 4)).runTask(task, {}); });
      zksmessages::TesselTaskExecutionInfo file;
      file.add_folder_files(path);
      const std::string ofFile =
          messageOf([&] { SchedulerClient(connectionWithFolders(file, wanted ? 5 : 4)).runTask(task, {}); });
      for (const std::string& message : {ofFolder, ofFile})
        EXPECT_THAT(message, good ? HasSubstr("no error") : HasSubstr("which is in no folder that was asked for"))
            << path;
    }
  }
}

TEST(SchedulerClientOfOddServices, FilesOfFoldersAreCounted) {
  zksmessages::TaskDescription task;
  task.add_output_files("d");
  task.set_return_folders(true);
  zksmessages::TesselTaskExecutionInfo info;
  info.add_output_folders("d");
  info.add_folder_files("d/x");
  const auto outcome = [&](int items) {
    return messageOf([&] { SchedulerClient(connectionWithFolders(info, items)).runTask(task, {}); });
  };
  EXPECT_THAT(outcome(3), HasSubstr("has 3 items, not 4"));
  EXPECT_THAT(outcome(4), HasSubstr("has 4 items, not 5"));
  EXPECT_EQ(outcome(5), "no error");
  EXPECT_THAT(outcome(6), HasSubstr("has 6 items, not 5"));
}

TEST(HostMessage, TypedMessageAndStructAreEachOthersImage) {
  zksmessages::TaskDescription description;
  description.add_argv("a");
  (*description.mutable_environment())["K"] = "V";
  zksmessages::TaskDescription back;
  ASSERT_TRUE(tryMessageFromHost(hostFromMessage(description).get(), back));
  EXPECT_EQ(back.SerializeAsString(), description.SerializeAsString());
}

TEST(HostMessage, StructThatWasUnpackedFromAnUnusualUrlIsTaken) {
  zksmessages::TaskDescription description;
  description.add_argv("a");
  zksmessages::ResultPayload payload;
  payload.mutable_result()->set_type_url("elsewhere.example/" + description.GetTypeName());
  payload.mutable_result()->set_value(description.SerializeAsString());
  const qxArrayPtr host = hostFromMessage(payload);
  zksmessages::TaskDescription back;
  ASSERT_TRUE(tryMessageFromHost(qxGetField(host.get(), 0, "result"), back));
  EXPECT_EQ(back.SerializeAsString(), description.SerializeAsString());
}

TEST(HostMessage, StructOfAnotherMessageIsNotTaken) {
  zksmessages::TaskDescription description;
  description.add_argv("kept");
  EXPECT_FALSE(tryMessageFromHost(hostFromMessage(zksmessages::Missing()).get(), description));
  EXPECT_EQ(description.argv(0), "kept");
}

}  // namespace
}  // namespace parallel::toolbox
