#include "toolbox/WorkerClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "platform/spf/inprocess/connectInProcess.h"
#include "toolbox/testing/messageMethods.h"

namespace parallel::toolbox {
namespace {

TEST(WorkerClient, MessagesGoThereAndBackAsTheyAre) {
  auto service = std::make_shared<agent::spf::core::Service>();
  addMessageMethod<zksmessages::JoinRequest>(*service, "join", [](const zksmessages::JoinRequest& request) {
    zksmessages::JoinReply reply;
    reply.set_worker(request.sequence() + 1);
    for (const auto& held : request.held())
      *reply.add_stop() = held.attempt();
    return reply;
  });
  addMessageMethod<zksmessages::FinishRequest>(*service, "finish", [](const zksmessages::FinishRequest& request) {
    zksmessages::FinishReply reply;
    for (const auto& result : request.results()) {
      auto* verdict = reply.add_verdicts();
      *verdict->mutable_attempt() = result.attempt();
      verdict->add_missing_blobs(result.files(0).content().content());
    }
    return reply;
  });
  const Connection connection(agent::spf::inprocess::connectInProcess(service), "embedded");
  const SchedulerClient client(connection);
  const WorkerClient worker(client);

  zksmessages::JoinRequest join;
  join.set_sequence(0xFFFF'FFFF'FFFFULL);
  join.add_held()->mutable_attempt()->set_number(7);
  const zksmessages::JoinReply joined = worker.join(join);
  EXPECT_EQ(joined.worker(), 0x1'0000'0000'0000ULL);
  EXPECT_EQ(joined.stop(0).number(), 7U);

  zksmessages::FinishRequest finish;
  const std::string bytes("\0\xFFz", 3);
  finish.add_results()->add_files()->mutable_content()->set_content(bytes);
  EXPECT_EQ(worker.finish(finish).verdicts(0).missing_blobs(0), bytes);
}

TEST(WorkerClient, AnotherMessageIsAMalformedReply) {
  auto service = std::make_shared<agent::spf::core::Service>();
  addMessageMethod<zksmessages::RenewRequest>(*service, "renew", [](const auto&) { return zksmessages::TakeReply(); });
  const Connection connection(agent::spf::inprocess::connectInProcess(service), "embedded");
  const SchedulerClient client(connection);
  EXPECT_THAT([&] { WorkerClient(client).renew({}); },
              testing::ThrowsMessage<std::exception>(testing::HasSubstr("parallel.zksmessages.RenewReply")));
}

}  // namespace
}  // namespace parallel::toolbox
