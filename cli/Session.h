// The service that a command talks to, for the length of the command: one at an address, or one of its own.
#pragma once

#include <memory>

#include "cli/CommandLine.h"
#include "platform/spf/core/Service.h"
#include "toolbox/Connection.h"
#include "toolbox/SchedulerClient.h"

namespace zks {

// Makes the message types known that the options name. Before items are read.
void loadDescriptors(const GlobalOptions& options);

// How to connect, as the options say.
parallel::toolbox::ConnectionOptions connectionOptions(const GlobalOptions& options);

class Session {
 public:
  // Connects, or starts the service.
  explicit Session(const GlobalOptions& options);

  parallel::toolbox::SchedulerClient client() const {
    return parallel::toolbox::SchedulerClient(connection_, progress_);
  }
  const std::shared_ptr<parallel::toolbox::TransferProgress>& progress() const noexcept { return progress_; }

 private:
  std::shared_ptr<parallel::toolbox::TransferProgress> progress_ =
      std::make_shared<parallel::toolbox::TransferProgress>();
  parallel::toolbox::Connection connection_;
};

}  // namespace zks
