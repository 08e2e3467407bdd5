// The line to the service: a connection that is made anew whenever it is lost, for as long as need be.
//
// Between two attempts lies a random pause that doubles up to 15 s, so that a service that comes back is not met by all
// of its workers at once. Each connection begins with a greeting; only then it is given out.
// Threads: any; connecting and greeting happen on a thread of its own.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <stop_token>
#include <thread>

#include "platform/logging/basic_diagnostic_logger.h"
#include "platform/threads/Mutex.h"
#include "toolbox/Connection.h"

namespace parallel::worker {

class ServiceLine {
 public:
  using Logger = foundation::log::basic_diagnostic_logger<char>;
  using Link = std::shared_ptr<toolbox::Connection>;
  using Connect = std::function<toolbox::Connection()>;
  using Greet = std::function<void(const toolbox::Connection& connection)>;

  // What `connect` and `greet` throw counts as a failed attempt.
  ServiceLine(Connect connect, Greet greet, Logger& logger);
  // As close().
  ~ServiceLine();
  ServiceLine(const ServiceLine&) = delete;
  ServiceLine& operator=(const ServiceLine&) = delete;

  // Waits for a connection. None once the line is closed or stop is requested.
  Link wait(const std::stop_token& stop = {});
  // The connection there is; none while there is none.
  Link current() const;
  // The link is of no use any more; `why` is for the log. No effect on a later link.
  void drop(const Link& link, const std::string& why);
  // A call over the link was answered: the next loss is a new one.
  void worked();
  // For how long there has been none; nothing while there is one.
  std::optional<std::chrono::steady_clock::duration> awayFor() const;
  // Ends the calls under way, and waits for the thread.
  void close();

 private:
  void work();
  bool tryConnect();
  std::chrono::milliseconds nextPause() ZKS_REQUIRES(mutex_);

  const Connect connect_;
  const Greet greet_;
  Logger& logger_;
  mutable threads::Mutex mutex_;
  threads::ConditionVariable changed_;
  Link link_ ZKS_GUARDED_BY(mutex_);
  Link greeting_ ZKS_GUARDED_BY(mutex_);  // being greeted
  bool closed_ ZKS_GUARDED_BY(mutex_) = false;
  unsigned failures_ ZKS_GUARDED_BY(mutex_) = 0;  // in a row
  std::chrono::steady_clock::time_point awaySince_ ZKS_GUARDED_BY(mutex_) = std::chrono::steady_clock::now();
  std::mt19937 random_ ZKS_GUARDED_BY(mutex_){std::random_device()()};
  std::thread thread_;
};

}  // namespace parallel::worker
