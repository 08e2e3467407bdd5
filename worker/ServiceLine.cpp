#include "worker/ServiceLine.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "platform/logging/sinks.h"

namespace parallel::worker {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using threads::MutexLock;

ServiceLine::ServiceLine(Connect connect, Greet greet, Logger& logger)
    : connect_(std::move(connect)), greet_(std::move(greet)), logger_(logger), thread_([this] { work(); }) {}

ServiceLine::~ServiceLine() {
  close();
}

void ServiceLine::close() {
  {
    const MutexLock lock(mutex_);
    closed_ = true;
    for (const Link& link : {link_, greeting_}) {
      if (link)
        link->close();
    }
    changed_.notifyAll();
  }
  if (thread_.joinable())
    thread_.join();
}

ServiceLine::Link ServiceLine::wait(const std::stop_token& stop) {
  const std::stop_callback wake(stop, [this] {
    const MutexLock lock(mutex_);
    changed_.notifyAll();
  });
  MutexLock lock(mutex_);
  changed_.wait(lock, [&]() ZKS_REQUIRES(mutex_) { return closed_ || link_ || stop.stop_requested(); });
  return closed_ || stop.stop_requested() ? nullptr : link_;
}

ServiceLine::Link ServiceLine::current() const {
  const MutexLock lock(mutex_);
  return link_;
}

void ServiceLine::drop(const Link& link, const std::string& why) {
  const MutexLock lock(mutex_);
  if (!link || link_ != link || closed_)
    return;
  link_->close();
  link_.reset();
  awaySince_ = steady_clock::now();
  FOUNDATION_LOG(logger_, logging::kWarning) << "The line to the service is lost: " << why;
  changed_.notifyAll();
}

void ServiceLine::worked() {
  const MutexLock lock(mutex_);
  failures_ = 0;
}

std::optional<steady_clock::duration> ServiceLine::awayFor() const {
  const MutexLock lock(mutex_);
  return link_ ? std::nullopt : std::optional(steady_clock::now() - awaySince_);
}

// Nothing after a line that worked; then between a half and the whole of a pause that doubles.
milliseconds ServiceLine::nextPause() {
  constexpr long kFirst = 100;
  constexpr long kLongest = 15'000;
  if (failures_ == 0)
    return milliseconds(0);
  const long most = std::min(kLongest, kFirst << std::min(failures_, 10U));
  return milliseconds(std::uniform_int_distribution<long>(most / 2, most)(random_));
}

void ServiceLine::work() {
  for (;;) {
    {
      MutexLock lock(mutex_);
      changed_.wait(lock, [this]() ZKS_REQUIRES(mutex_) { return closed_ || !link_; });
      if (changed_.waitFor(lock, nextPause(), [this]() ZKS_REQUIRES(mutex_) { return closed_; }))
        return;
      ++failures_;
    }
    tryConnect();
  }
}

bool ServiceLine::tryConnect() {
  try {
    const auto link = std::make_shared<toolbox::Connection>(connect_());
    {
      const MutexLock lock(mutex_);
      if (closed_)
        return false;
      greeting_ = link;
    }
    greet_(*link);
    const MutexLock lock(mutex_);
    greeting_.reset();
    if (closed_)
      return false;
    link_ = link;
    changed_.notifyAll();
    return true;
  } catch (const std::exception& problem) {
    const MutexLock lock(mutex_);
    greeting_.reset();
    FOUNDATION_LOG(logger_, failures_ == 1 ? logging::kWarning : logging::kInfo)
        << "The service cannot be reached: " << problem.what();
    return false;
  }
}

}  // namespace parallel::worker
