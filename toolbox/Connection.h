// The connection to a job-scheduler service: owner of the record that its TransportClients share.
//
// The trap: a connection that is found dead stays dead. Its record is emptied, every call after that throws
// `ZKSUnreachable`, and one connects anew.
//
// Ownership: clients may outlive the connection; they then find an empty record.
// Threads:   any, several at once; closing while calls are under way ends them with Terminated.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/spf/core/ByteLimit.h"
#include "platform/spf/core/Invokable.h"
#include "toolbox/ConnectionOptions.h"
#include "transport/client/TransportClient.h"

namespace parallel::toolbox {

class Connection {
 public:
  // Connects to "unix:PATH" or "HOST:PORT". On an interpreter thread a user interrupt ends the wait.
  // Errors: `BadAddress`; `NoCredentials` for TCP without any; `NoAnswer` over the framework's Timeout; what else the
  // framework reports, as throwExpandedSPFErrors gives it.
  static Connection connect(std::string_view address, const ConnectionOptions& options = {});
  static Connection connect(std::string_view address, std::chrono::milliseconds timeout);

  // A connection that exists already, such as an embedded service's. `name` stands for the address in messages.
  Connection(std::shared_ptr<agent::spf::core::Invokable> invokable, std::string name);

  ~Connection();
  Connection(Connection&&) noexcept;
  Connection& operator=(Connection&&) noexcept;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Empties the record, closes the connection, which ends the calls under way (those of the framework's connections are
  // core::Closable; another one is only let go), and lets go of it. Again: no effect.
  void close() noexcept;
  bool isOpen() const;

  const std::string& name() const noexcept { return name_; }
  spf::transport::TransportClient client() const;
  // That it was connected with.
  const std::optional<agent::spf::core::ByteLimit>& replyLimit() const noexcept { return replyLimit_; }

 private:
  struct Record;
  Connection(std::shared_ptr<Record> record, std::string name,
             std::optional<agent::spf::core::ByteLimit> replyLimit = std::nullopt);

  std::shared_ptr<Record> record_;  // null only when moved from
  std::string name_;
  std::optional<agent::spf::core::ByteLimit> replyLimit_;
};

}  // namespace parallel::toolbox
