// The service that keeps jobs, for the length of a command: the one at the address given, else this user's own, which is
// started if it does not run.
//
// Threads: the command's own.
// Errors:  those of JobClient, as one message.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <utility>

#include "cli/CommandLine.h"
#include "toolbox/Connection.h"
#include "toolbox/JobClient.h"

namespace zks {

class JobSession {
 public:
  // Connects.
  explicit JobSession(const GlobalOptions& options);

  const std::shared_ptr<parallel::toolbox::TransferProgress>& progress() const noexcept { return progress_; }
  const std::string& serviceName() const { return connection_->name(); }

  // Has the action call the service. When the connection goes meanwhile, a new one is made and the action runs again: it
  // is for calls that may be repeated. An error once a minute has passed without one, and
  // when it goes time and again: the call itself may be what ends the service.
  template <class Action>
  auto call(Action action) {
    for (Patience patience;;) {
      try {
        return action(*connection_);
      } catch (...) {
        reconnectOrThrow(patience);
      }
    }
  }

  // One call of a typed method.
  template <class Action>
  auto ask(Action action) {
    return call([&](const parallel::toolbox::Connection& connection) {
      return action(parallel::toolbox::JobClient(connection, progress_, parallel::toolbox::ErrorForm::Chain));
    });
  }

 private:
  struct Patience {
    int losses = 0;
    std::optional<std::chrono::steady_clock::time_point> end;
  };

  void connect();
  // In a catch block.
  void reconnectOrThrow(Patience& patience);

  const GlobalOptions options_;
  std::shared_ptr<parallel::toolbox::TransferProgress> progress_ =
      std::make_shared<parallel::toolbox::TransferProgress>();
  std::optional<parallel::toolbox::Connection> connection_;
};

}  // namespace zks
