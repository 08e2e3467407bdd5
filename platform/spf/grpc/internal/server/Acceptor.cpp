#include "platform/spf/grpc/internal/server/Acceptor.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include "platform/errors/systemError.h"
#include "platform/logging/createQLVLogger.h"
#include "platform/logging/sinks.h"

namespace agent::spf::grpc_transport::internal {

using parallel::threads::MutexLock;

namespace {

using Clock = std::chrono::steady_clock;

// Nobody tells when a descriptor or a connection's place is free again, so that is asked anew.
constexpr int kPauseMilliseconds = 50;
// How often the connections are looked at: nobody tells when one closes, or when its client takes nothing any more.
constexpr std::chrono::milliseconds kLongestLookInterval{1000};
// Looks in the time after which a connection is stuck, at least.
constexpr int kLooksAtStuck = 8;
// Refusals and the like are counted and told of so often at most: a peer can cause as many as it likes.
constexpr std::chrono::seconds kReportInterval{10};
// Peers that are named in one report.
constexpr std::size_t kReportedPeers = 10;

files::UniqueFd makeEvent() {
  files::UniqueFd event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!event)
    errors::throwSystemError("Making an event for the thread that accepts connections");
  return event;
}

std::chrono::milliseconds lookIntervalFor(std::chrono::milliseconds stuckTime) {
  return std::clamp(stuckTime / kLooksAtStuck, std::chrono::milliseconds{1}, kLongestLookInterval);
}

// Names a few peers.
void add(const std::string& peer, std::size_t count, std::map<std::string, std::size_t>& counts) {
  if (counts.size() < kReportedPeers || counts.contains(peer))
    counts[peer] += count;
}

void warn(const std::string& text) {
  FOUNDATION_LOG(parallel::logging::createQLVLogger("zks.spf"), parallel::logging::kWarning) << text;
}

}  // namespace

Acceptor::Acceptor(const ListeningSockets& listening, const Limits& limits, HandOver handOver)
    : listening_(listening),
      handOver_(std::move(handOver)),
      end_(makeEvent()),
      limits_(limits),
      lookInterval_(lookIntervalFor(limits.stuckTime)),
      table_(limits.connections, limits.perPeer) {}

Acceptor::~Acceptor() {
  stop();
}

void Acceptor::start() {
  thread_ = std::thread([this] { run(); });
}

void Acceptor::stop() {
  ::eventfd_write(end_.get(), 1);
  if (thread_.joinable())
    thread_.join();
}

// While it pauses, those who come wait in the kernel's queue.
void Acceptor::run() {
  std::vector<pollfd> waiting{{end_.get(), POLLIN, 0}};
  for (const files::UniqueFd& socket : listening_.sockets())
    waiting.push_back({socket.get(), POLLIN, 0});
  while (true) {
    ::poll(waiting.data(), pausing_ ? 1 : waiting.size(), pollMilliseconds());
    if ((waiting.front().revents & POLLIN) != 0)
      return;
    pausing_ = !acceptAll();
    look();
    report();
  }
}

int Acceptor::pollMilliseconds() {
  if (pausing_)
    return kPauseMilliseconds;
  const MutexLock lock(mutex_);
  if (table_.isEmpty() && refused_.empty() && strangers_.empty())
    return -1;
  return static_cast<int>(lookInterval_.count());
}

// Which connections have closed, and which are stuck.
void Acceptor::look() {
  const Clock::time_point now = Clock::now();
  if (now < nextLook_)
    return;
  nextLook_ = now + lookInterval_ / 2;
  Counts closed;
  std::vector<std::string> ended;
  {
    const MutexLock lock(mutex_);
    closed = table_.takeClosedStrangers();
    ended = table_.endStuck(now, limits_.stuckTime);
  }
  for (const auto& [peer, count] : closed)
    add(peer, count, strangers_);
  for (const std::string& peer : ended)
    warn("A connection of " + peer + " was ended: for " + std::to_string(limits_.stuckTime.count()) +
         " ms its client has taken nothing of what it is sent.");
}

// False when some may still wait whom nothing can be done for now.
bool Acceptor::acceptAll() {
  for (const files::UniqueFd& listener : listening_.sockets()) {
    Outcome outcome = Outcome::accepted;
    while (outcome == Outcome::accepted) {
      if (isFull()) {
        pause("There are " + std::to_string(limits_.connections) + " connections, as many as may be.");
        return false;
      }
      outcome = acceptOne(listener.get());
    }
    if (outcome == Outcome::outOfResources)
      return false;
  }
  return true;
}

bool Acceptor::isFull() {
  const MutexLock lock(mutex_);
  return table_.isFull();
}

void Acceptor::introduced(const std::string& client) {
  const MutexLock lock(mutex_);
  table_.introduced(client);
}

std::optional<uid_t> Acceptor::socketUser() {
  const MutexLock lock(mutex_);
  return table_.onlyUser();
}

std::optional<std::string> Acceptor::endHeaviest() {
  const MutexLock lock(mutex_);
  return table_.endHeaviest();
}

Acceptor::Outcome Acceptor::acceptOne(int listener) {
  files::UniqueFd connection(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (connection) {
    take(listener, std::move(connection));
    return Outcome::accepted;
  }
  switch (const int error = errno; error) {
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
      pause("No connection can be accepted: " + errors::systemErrorText(error) + ".");
      return Outcome::outOfResources;
    case EAGAIN:
      return Outcome::nobodyWaits;
    default:  // this one has left already, or its network has
      return Outcome::accepted;
  }
}

void Acceptor::take(int listener, files::UniqueFd connection) {
  const std::string peer = peerOf(connection.get());
  bool isWelcome = false;
  {
    const MutexLock lock(mutex_);
    isWelcome = table_.admit(connection.get(), peer);
  }
  if (isWelcome)
    handOver_(listener, std::move(connection));
  else
    add(peer, 1, refused_);
}

void Acceptor::pause(const std::string& why) {
  if (!std::exchange(pausing_, true))
    warn(why + " Those who come now wait until that changes.");
}

void Acceptor::report() {
  if ((refused_.empty() && strangers_.empty()) || Clock::now() < nextReport_)
    return;
  nextReport_ = Clock::now() + kReportInterval;
  for (const auto& [peer, count] : std::exchange(refused_, {}))
    warn("Connections refused: " + std::to_string(count) + " of " + peer + ", which has " +
         std::to_string(limits_.perPeer) + " already, as many as one peer may.");
  for (const auto& [peer, count] : std::exchange(strangers_, {}))
    warn("Connections that ended before their client had shown who it is: " + std::to_string(count) + " of " + peer +
         ".");
}

}  // namespace agent::spf::grpc_transport::internal
