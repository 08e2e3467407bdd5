// A service of job methods in this process, over a store in a folder of its own, with typed clients. Its clock is the
// test's, and it can be stopped and started again on the same store.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "platform/errors/IException.h"
#include "platform/files/testing/TemporaryDirectory.h"
#include "platform/spf/core/Service.h"
#include "platform/spf/inprocess/connectInProcess.h"
#include "scheduler/methods/JobMethods.h"
#include "toolbox/BlobClient.h"
#include "toolbox/JobClient.h"
#include "toolbox/WorkerClient.h"

namespace parallel::scheduler::methods::testing {

class RunningService {
 public:
  explicit RunningService(store::Quota::Limits quota = {}) : quota_(quota) { start(); }
  ~RunningService() { stop(); }
  RunningService(const RunningService&) = delete;
  RunningService& operator=(const RunningService&) = delete;

  void start() {
    BookKeeper::Options keeper;
    keeper.folder = place_.file("store");
    keeper.store.quota = quota_;
    keeper.store.isDurable = false;
    keeper.store.reserveBytes = 0;
    keeper.clock = [this] { return now(); };
    // A thread that has resumed a call may hold the last share: nobody's own thread ends it.
    const auto ended = std::make_shared<std::promise<void>>();
    ended_ = ended->get_future();
    const auto end = [ended](JobMethods* methods) {
      std::thread([ended, methods] {
        delete methods;
        ended->set_value();
      }).detach();
    };
    methods_ = std::shared_ptr<JobMethods>(new JobMethods({std::move(keeper), {}, "1.2.3"}), end);
    auto service = std::make_shared<agent::spf::core::Service>();
    for (const auto& named : JobMethods::all())
      service->add(named.name, [methods = methods_, named](ServerCall& call) { methods->serve(named, call); });
    connection_.emplace(agent::spf::inprocess::connectInProcess(service), "embedded");
    client_.emplace(*connection_);
  }
  void stop() {
    client_.reset();
    connection_.reset();
    methods_.reset();
    ended_.wait();
  }
  void restart() {
    stop();
    start();
  }

  JobMethods& methods() { return *methods_; }
  toolbox::SchedulerClient& client() { return *client_; }
  toolbox::JobClient jobs() { return toolbox::JobClient(*connection_, nullptr, toolbox::ErrorForm::OneMessage); }
  toolbox::WorkerClient workers() { return toolbox::WorkerClient(*client_); }
  toolbox::BlobClient blobs() { return toolbox::BlobClient(*client_); }

  // Lets time pass in steps that the ledger counts wholly.
  void pass(std::chrono::seconds time) {
    for (; time.count() > 0; time -= std::chrono::seconds(4)) {
      passed_ += std::chrono::nanoseconds(std::chrono::seconds(4)).count();
      methods_->keeper().tick();
    }
  }

 private:
  ledger::Moment now() const {
    const std::chrono::nanoseconds passed(passed_.load());
    return {passed, ledger::WallTime(std::chrono::milliseconds(1'700'000'000'000)) +
                        std::chrono::floor<std::chrono::milliseconds>(passed)};
  }

  const store::Quota::Limits quota_;
  std::atomic<std::int64_t> passed_{0};
  files::testing::TemporaryDirectory place_;
  std::shared_ptr<JobMethods> methods_;
  std::future<void> ended_;
  std::optional<toolbox::Connection> connection_;
  std::optional<toolbox::SchedulerClient> client_;
};

// The text of the error that a call ends with; empty: none.
template <class Call>
std::string errorOf(Call call) {
  try {
    call();
    return "";
  } catch (const std::exception& failure) {
    return failure.what();
  }
}

}  // namespace parallel::scheduler::methods::testing
