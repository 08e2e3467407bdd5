// The service as its callers see it: a real client, over the embedded framework.
#include "scheduler/SchedulerService.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>

#include "execution/testing/waiting.h"
#include "platform/array/qxArray.h"
#include "platform/errors/IException.h"
#include "platform/spf/core/ImportedDataSource.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/core/promiseCompletingHandler.h"
#include "platform/spf/inprocess/connectInProcess.h"
#include "platform/zksmessages/zksmessages.pb.h"
#include "scheduler/testing/containers.h"
#include "transport/client/TransportClient.h"
#include "transport/data/testing/TemporaryDirectory.h"
#include "transport/data/testing/arrays.h"

namespace parallel::scheduler {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using agent::spf::core::ImportedDataSource;
using spf::transport::ByteSink;
using spf::transport::ConnectionRecord;
using spf::transport::InputPayload;
using spf::transport::SerializableData;
using spf::transport::TransportClient;
using spf::transport::testing::TemporaryDirectory;
using tova::factory::qxArrayProxy;

using Item = std::shared_ptr<SerializableData>;

// An item of bytes that are ready.
Item itemOf(const std::string& bytes) {
  const qxArrayPtr nothing = qxCreateScalar(0);
  return std::make_shared<SerializableData>(nothing.get(), [bytes](const qxArray*, ByteSink& sink) {
    sink.write(reinterpret_cast<const std::byte*>(bytes.data()), bytes.size());
  });
}

Item itemOf(const google::protobuf::MessageLite& message) {
  return itemOf(message.SerializeAsString());
}

class SchedulerService : public ::testing::Test {
 protected:
  SchedulerService() {
    record_->invokable = agent::spf::inprocess::connectInProcess(makeSchedulerService(
        {.slots = 2, .scratchParent = scratch(), .killGrace = 100ms, .logger = nullptr, .counter = counter_}));
  }
  ~SchedulerService() override {
    record_->invokable.reset();
    EXPECT_TRUE(fs::is_empty(scratch())) << "a scratch directory is left";
  }

  fs::path scratch() const {
    const fs::path path = place_.file("scratch");
    fs::create_directories(path);
    return path;
  }
  fs::path file(const char* name) const { return place_.file(name); }

  auto call(const std::string& method, std::vector<Item> items) {
    return TransportClient(record_).invokeMethod(method, InputPayload(std::move(items))).getDeserializableData();
  }

  // The identifier of the error that a call ends with, and its text.
  std::pair<std::string, std::string> errorOf(const std::string& method, std::vector<Item> items) {
    try {
      for (const auto& item : call(method, std::move(items)))
        item->deserializeToFile(file("ignored").u16string());
      return {"", "no error"};
    } catch (const IException& failure) {
      const auto* standard = dynamic_cast<const std::exception*>(&failure);
      return {failure.identifier(), standard == nullptr ? "" : standard->what()};
    } catch (const std::exception& failure) {
      return {"", failure.what()};
    }
  }

  // A call that is given up by dropping the connection, once `begun` is true.
  template <class Condition>
  void callAndDrop(const std::string& method, std::vector<Item> items, const Condition& begun) {
    auto promise = std::make_shared<std::promise<std::shared_ptr<ImportedDataSource>>>();
    auto reply = promise->get_future();
    TransportClient(record_).invokeMethodAsync(method, InputPayload(std::move(items)),
                                               agent::spf::core::promiseCompletingHandler(promise));
    ASSERT_TRUE(execution::testing::eventually(begun));
    record_->invokable.reset();
    ASSERT_EQ(reply.wait_for(execution::testing::kDeadline), std::future_status::ready);
    EXPECT_THROW(reply.get(), agent::spf::Terminated);
  }

  // Of the one call that there was; it is counted when its reply has ended.
  void expectOneCounted() const {
    EXPECT_TRUE(
        execution::testing::eventually([this] { return counter_->finished() == 1 && counter_->underWay() == 0; }));
  }

  std::shared_ptr<CallCounter> counter_ = std::make_shared<CallCounter>();

 private:
  TemporaryDirectory place_;
  std::shared_ptr<ConnectionRecord> record_ = std::make_shared<ConnectionRecord>();
};

std::string contentOf(const fs::path& path) {
  return testing::textOf(spf::transport::testing::readFile(path));
}

TEST_F(SchedulerService, EchoReturnsArrayBytesAndFile) {
  const std::string content = testing::patternOf(3'000'000);
  std::ofstream(file("sent"), std::ios::binary) << content;
  const qxArrayPtr matrix = spf::transport::testing::columnOf<double>({1.5, -2, 1e300});
  const qxArrayPtr bytes = spf::transport::testing::byteColumn(testing::bytesOf(content));
  const qxArrayPtr path = qxCreateStringUtf8(file("sent").string());
  zksmessages::EchoRequest request;
  request.add_items()->set_kind(zksmessages::ITEM_KIND_ARRAY);
  auto* plain = request.add_items();
  plain->set_kind(zksmessages::ITEM_KIND_PLAIN);
  plain->set_nbytes(content.size());
  request.add_items()->set_kind(zksmessages::ITEM_KIND_FILE);

  const auto items =
      call("echo", {itemOf(request), SerializableData::createQxArray(matrix.get()),
                    SerializableData::createPlain(bytes.get()), SerializableData::createFile(path.get())});
  ASSERT_EQ(items.size(), 3U);
  EXPECT_TRUE(qxEqual(items[0]->deserializeQxArray(qxArrayProxy()).get(), matrix.get()));
  EXPECT_TRUE(qxEqual(items[1]->deserializePlain().get(), bytes.get()));
  items[2]->deserializeToFile(file("received").u16string());
  EXPECT_EQ(contentOf(file("received")), content);
}

TEST_F(SchedulerService, TaskWorksOnAFile) {
  std::ofstream(file("numbers")) << "3\n1\n2\n";
  const qxArrayPtr path = qxCreateStringUtf8(file("numbers").string());
  zksmessages::TaskDescription task;
  for (const char* argument : {"sh", "-c", "sort numbers > sorted; echo done; exit 5"})
    task.add_argv(argument);
  task.add_input_files("numbers");
  task.add_output_files("sorted");

  const auto items = call("runTask", {itemOf(task), SerializableData::createFile(path.get())});
  ASSERT_EQ(items.size(), 4U);
  const qxArrayProxy result = items[0]->deserializeProtobuf();
  EXPECT_TRUE(qxHasField(result.get(), "result"));
  const qxArrayProxy output = items[1]->deserializePlain();
  EXPECT_EQ(testing::textOf(spf::transport::testing::bytesOfArray(output.get())), "done\n");
  EXPECT_EQ(qxGetNumberOfElements(items[2]->deserializePlain().get()), 0U);
  items[3]->deserializeToFile(file("sorted").u16string());
  EXPECT_EQ(contentOf(file("sorted")), "1\n2\n3\n");
}

TEST_F(SchedulerService, ErrorsKeepTheirIdentifierAndText) {
  zksmessages::EchoRequest request;
  request.add_items()->set_kind(zksmessages::ITEM_KIND_FILE);
  const auto [identifier, text] = errorOf("echo", {itemOf(request)});
  EXPECT_EQ(identifier, "parallel:scheduler:WrongItemCount");
  EXPECT_EQ(text, "The request to echo has the wrong number of items: 2 expected, 1 found.");
  EXPECT_EQ(errorOf("runTask", {itemOf(zksmessages::TaskDescription())}).first, "parallel:scheduler:BadTaskField");
}

TEST_F(SchedulerService, UnknownMethodNamesThoseThereAre) {
  const std::string text = errorOf("ecko", {}).second;
  for (const char* word : {"ecko", "echo", "runTask"})
    EXPECT_NE(text.find(word), std::string::npos) << text;
}

TEST_F(SchedulerService, DroppedConnectionEndsTheTask) {
  zksmessages::TaskDescription task;
  for (const std::string& argument :
       {std::string("sh"), std::string("-c"), "echo $$ > '" + file("pid").string() + "'; exec sleep 1000"})
    task.add_argv(argument);
  callAndDrop("runTask", {itemOf(task)},
              [this] { return fs::exists(file("pid")) && contentOf(file("pid")).ends_with('\n'); });
  EXPECT_TRUE(execution::testing::hasEnded(std::stoi(contentOf(file("pid")))));
  expectOneCounted();
}

TEST_F(SchedulerService, CallsAreCounted) {
  EXPECT_EQ(counter_->finished(), 0U);
  call("echo", {itemOf(zksmessages::EchoRequest())});
  expectOneCounted();
}

TEST(AvailableCores, IsAtLeastOne) {
  EXPECT_GE(availableCores(), 1U);
}

}  // namespace
}  // namespace parallel::scheduler
