#include "worker/Worker.h"

#include <fcntl.h>
#include <google/protobuf/util/time_util.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/systemError.h"
#include "platform/files/UniqueFd.h"
#include "platform/logging/sinks.h"
#include "platform/spf/core/errors.h"
#include "toolbox/BlobClient.h"
#include "toolbox/WorkerClient.h"

namespace parallel::worker {

using google::protobuf::util::TimeUtil;
using std::chrono::duration;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using threads::MutexLock;
using toolbox::ErrorForm;
using toolbox::SchedulerClient;
using toolbox::WorkerClient;
using zksmessages::AttemptKey;
using zksmessages::Ending;
using zksmessages::FinishReply;
using zksmessages::FinishRequest;
using zksmessages::JoinRequest;
using zksmessages::OutputFile;
using zksmessages::RenewRequest;
using zksmessages::TakeReply;
using zksmessages::TakeRequest;
namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kResultMemory = std::uint64_t{16} << 20U;
constexpr std::size_t kResultsAtOnce = 1000;
constexpr std::uint64_t kResultBytesAtOnce = std::uint64_t{4} << 20U;
constexpr std::size_t kMostHeld = 5000;
constexpr std::size_t kMostRunning = 1000;
constexpr std::uint32_t kPieceBytes = std::uint32_t{256} << 10U;
constexpr seconds kIdleTake{30};
constexpr seconds kBusyTake{1};  // room may grow meanwhile
constexpr seconds kWatchedRenew{1};
constexpr seconds kLongestAtHand{3};
constexpr seconds kHandInTime{5};
constexpr seconds kLaterPause{2};

fs::path madeFolder(fs::path folder) {
  fs::create_directories(folder);
  return folder;
}

std::string randomKey() {
  std::string bytes(16, '\0');
  if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
    ::errors::throwSystemError("Getting random bytes");
  std::string key = "worker-";
  for (const char byte : bytes) {
    constexpr const char* kDigits = "0123456789abcdef";
    key += kDigits[static_cast<unsigned char>(byte) >> 4U];
    key += kDigits[static_cast<unsigned char>(byte) & 0xFU];
  }
  return key;
}

// What went wrong, with its causes.
std::string reasonOf(const std::exception& error) {
  std::string text = error.what();
  try {
    std::rethrow_if_nested(error);
  } catch (const std::exception& cause) {
    text += ": " + reasonOf(cause);
  } catch (...) {
  }
  return text;
}

// Whether the line itself failed, so that another one may do better.
bool isOfTheLine(const std::exception& error) {
  if (const auto* identified = dynamic_cast<const IException*>(&error)) {
    const std::string& name = identified->name();
    if (identified->component() == "parallel:toolbox" && (name == "ServiceGone" || name == "NoAnswer"))
      return true;
    if (name == "ZKSUnreachable")
      return true;
  }
  if (dynamic_cast<const agent::spf::Terminated*>(&error) != nullptr ||
      dynamic_cast<const agent::spf::Timeout*>(&error) != nullptr)
    return true;
  try {
    std::rethrow_if_nested(error);
  } catch (const std::exception& cause) {
    return isOfTheLine(cause);
  } catch (...) {
  }
  return false;
}

TaskValues valuesOf(const zksmessages::Grant& grant, const zksmessages::TaskArray& array) {
  TaskValues values;
  const std::int64_t step = array.index_step() == 0 ? 1 : array.index_step();
  values.index = array.first_index() + static_cast<std::int64_t>(grant.attempt().task() - grant.array_first()) * step;
  if (array.has_lines())
    values.line = grant.line();
  return values;
}

// From the offset on; empty where there is no more.
std::string readPiece(const std::string& path, std::uint64_t offset) {
  std::string piece(kPieceBytes, '\0');
  const ::files::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  const ssize_t got = file ? ::pread(file.get(), piece.data(), piece.size(), static_cast<off_t>(offset)) : 0;
  piece.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
  return piece;
}

AttemptOutcome handedBack(const AttemptKey& attempt) {
  AttemptOutcome outcome;
  *outcome.result.mutable_attempt() = attempt;
  outcome.result.mutable_ending()->set_reason(Ending::REASON_HANDED_BACK);
  return outcome;
}

SchedulerClient clientOf(const toolbox::Connection& connection) {
  return SchedulerClient(connection, nullptr, ErrorForm::Chain);
}

}  // namespace

Worker::Worker(WorkerSettings settings, ServiceLine::Connect connect, Logger& logger)
    : settings_(std::move(settings)),
      logger_(logger),
      area_(settings_.scratchParent, logger),
      spool_(madeFolder(area_.path() / "spool")),
      cache_(settings_.cache.empty() ? area_.path() / "cache" : settings_.cache, settings_.cacheBytes),
      runner_(
          area_, cache_, spool_,
          [this](const auto& blob, const std::string& path, const std::stop_token& stop) { fetch(blob, path, stop); },
          settings_.killGrace),
      key_(randomKey()),
      free_(settings_.resources),
      freeCores_(settings_.cores),
      results_(spool_, kResultMemory),
      line_(
          std::move(connect), [this](const toolbox::Connection& connection) { greet(connection); }, logger) {
  threads_.emplace_back([this] { takeAll(); });
  threads_.emplace_back([this] { renewAll(); });
  threads_.emplace_back([this] { finishAll(); });
  threads_.emplace_back([this] { putAll(); });
}

Worker::~Worker() {
  std::vector<std::thread> runners;
  {
    const MutexLock lock(mutex_);
    closing_ = true;
    for (const auto& [number, attempt] : held_) {
      attempt->isUnwanted = true;
      attempt->stop.request_stop();
    }
    runners.swap(runners_);
    wakeAll();
  }
  stopCalls_.request_stop();
  line_.close();
  for (std::thread& thread : threads_)
    thread.join();
  for (std::thread& thread : runners)
    thread.join();
}

// --- ending ---

void Worker::stop() {
  const MutexLock lock(mutex_);
  beginEnd();
}

void Worker::beginEnd() {
  if (stopping_)
    return;
  stopping_ = true;
  endBy_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(settings_.killGrace) + kHandInTime;
  for (const AttemptShare& attempt : queue_)
    handBack(attempt);
  queue_.clear();
  for (const auto& [number, attempt] : held_)
    attempt->stop.request_stop();
  wakeAll();
}

bool Worker::hasEnded() {
  {
    const MutexLock lock(mutex_);
    const auto now = Clock::now();
    if (!held_.empty())
      lastWork_ = now;
    const auto away = line_.awayFor();
    if (!stopping_ && !runsAny() && away && *away > settings_.awayLimit) {
      FOUNDATION_LOG(logger_, logging::kWarning) << "The service has been away for too long, and nothing runs: ending.";
      return true;
    }
    if (!stopping_ && settings_.idleLimit && now - lastWork_ > *settings_.idleLimit) {
      FOUNDATION_LOG(logger_, logging::kInfo) << "There was nothing to do for a while: ending.";
      beginEnd();
    }
    if (!stopping_ || !takes_)
      return stopping_ && (held_.empty() || now > *endBy_);
    if (now > *endBy_)
      return true;
  }
  // Its grants would be nobody's; with the line the service lets go of it.
  line_.drop(line_.current(), "this worker takes nothing more");
  return false;
}

void Worker::wakeAll() {
  for (threads::ConditionVariable* const condition : {&mayTake_, &mayRenew_, &mayRun_, &mayHandIn_, &mayPut_})
    condition->notifyAll();
}

// --- what is held ---

void Worker::setHeld(Held& held) const {
  for (const auto& [number, attempt] : held_) {
    auto* entry = held.Add();
    *entry->mutable_attempt() = attempt->assignment.attempt;
    entry->set_started(attempt->isStarted);
  }
}

// A result that waits is handed in all the same: its verdict tells what became of it.
void Worker::obey(const Keys& unwanted) {
  for (const AttemptKey& key : unwanted) {
    const auto found = held_.find(key.number());
    if (found == held_.end())
      continue;
    const AttemptShare attempt = found->second;
    if (attempt->phase == Phase::Running) {
      attempt->isUnwanted = true;
      attempt->stop.request_stop();
    } else if (attempt->phase == Phase::Queued) {
      queue_.erase(std::find(queue_.begin(), queue_.end(), attempt));
      held_.erase(found);
    }
  }
  startWhatFits();
}

// --- joining ---

void Worker::greet(const toolbox::Connection& connection) {
  JoinRequest request;
  {
    const MutexLock lock(mutex_);
    request.set_key(key_);
    request.set_name(settings_.name);
    *request.mutable_resources() = settings_.resources;
    request.set_sequence(sequence_);
    setHeld(*request.mutable_held());
  }
  const SchedulerClient client = clientOf(connection);
  zksmessages::JoinReply reply;
  try {
    reply = WorkerClient(client).join(request);
  } catch (const std::exception& problem) {
    throw std::runtime_error(reasonOf(problem));
  }
  const MutexLock lock(mutex_);
  worker_ = reply.worker();
  if (reply.has_renew_every())
    renewEvery_ = nanoseconds(TimeUtil::DurationToNanoseconds(reply.renew_every()));
  FOUNDATION_LOG(logger_, logging::kInfo) << "Joined as worker " << worker_ << " with " << held_.size() << " attempts";
  obey(reply.stop());
  wakeAll();
}

// --- taking ---

// Nothing while there is no room.
std::optional<TakeRequest> Worker::nextTake() {
  handBackWhatWaitsTooLong();
  if (runsAlone_ || held_.size() >= kMostHeld)
    return std::nullopt;
  const std::uint32_t cores = settings_.resources.cores();
  const std::uint32_t ahead = measure_.attemptsAhead(cores);
  if (queue_.size() > ahead / 2)
    return std::nullopt;
  TakeRequest request;
  *request.mutable_room() = times(settings_.resources, static_cast<double>(ahead) / cores);
  add(*request.mutable_room(), free_);
  for (const AttemptShare& attempt : queue_)
    subtract(*request.mutable_room(), attempt->needs);
  if (request.room().cores() == 0)
    return std::nullopt;
  request.set_limit(request.room().cores());
  request.set_worker(worker_);
  request.set_sequence(++sequence_);
  setHeld(*request.mutable_held());
  *request.mutable_wait() = TimeUtil::SecondsToDuration((held_.empty() ? kIdleTake : kBusyTake).count());
  return request;
}

void Worker::accept(const TakeReply& reply) {
  using ArrayKey = std::pair<std::uint64_t, std::uint64_t>;
  std::map<ArrayKey, std::shared_ptr<const zksmessages::TaskArray>> arrays;
  for (const auto& array : reply.arrays())
    arrays[{array.job(), array.first_task()}] = std::make_shared<const zksmessages::TaskArray>(array.array());
  for (const auto& grant : reply.grants()) {
    const auto array = arrays.find({grant.attempt().job(), grant.array_first()});
    if (array == arrays.end() || held_.count(grant.attempt().number()) != 0)
      continue;  // it is not held then, and goes back
    auto attempt = std::make_shared<Attempt>();
    attempt->assignment = {grant.attempt(), array->second, valuesOf(grant, *array->second)};
    attempt->needs = attempt->assignment.needs();
    attempt->alone = grant.alone();
    attempt->reportStart = grant.report_start();
    held_[grant.attempt().number()] = attempt;
    if (stopping_)
      handBack(attempt);
    else
      queue_.push_back(attempt);
  }
  obey(reply.stop());
}

void Worker::takeAll() {
  for (;;) {
    const ServiceLine::Link link = line_.wait(stopCalls_.get_token());
    if (!link)
      return;
    std::optional<TakeRequest> request;
    {
      MutexLock lock(mutex_);
      if (closing_ || stopping_)
        return;
      request = nextTake();
      if (!request) {
        const auto atMost = seconds(1);
        mayTake_.waitFor(lock, atMost, [&]() ZKS_REQUIRES(mutex_) {
          return closing_ || stopping_ || (request = nextTake()).has_value();
        });
        if (!request)
          continue;
      }
      takes_ = true;
    }
    try {
      const SchedulerClient client = clientOf(*link);
      const TakeReply reply = WorkerClient(client).take(*request);
      line_.worked();
      const MutexLock lock(mutex_);
      takes_ = false;
      accept(reply);
    } catch (const std::exception& problem) {
      {
        const MutexLock lock(mutex_);
        takes_ = false;
      }
      line_.drop(link, reasonOf(problem));
    }
  }
}

// --- running ---

void Worker::startWhatFits() {
  while (!queue_.empty() && running_ < kMostRunning) {
    const AttemptShare attempt = queue_.front();
    if (runsAlone_ || (attempt->alone && running_ > 0) || !covers(free_, attempt->needs))
      break;
    if (attempt->reportStart && !attempt->isReported) {
      renewNow_ = !attempt->isStarted || renewNow_;
      attempt->isStarted = true;
      mayRenew_.notifyAll();
      break;
    }
    queue_.pop_front();
    attempt->phase = Phase::Running;
    attempt->isStarted = true;
    attempt->since = Clock::now();
    runsAlone_ = attempt->alone;
    ++running_;
    subtract(free_, attempt->needs);
    attempt->cores = freeCores_.take(attempt->needs.cores());
    toRun_.push_back(attempt);
    if (toRun_.size() > idleRunners_)
      runners_.emplace_back([this] { runAttempts(); });
    mayRun_.notifyOne();
  }
  mayTake_.notifyAll();
}

void Worker::runAttempts() {
  std::vector<int> pinned;
  for (;;) {
    AttemptShare attempt;
    {
      MutexLock lock(mutex_);
      ++idleRunners_;
      mayRun_.wait(lock, [this]() ZKS_REQUIRES(mutex_) { return closing_ || !toRun_.empty(); });
      --idleRunners_;
      if (toRun_.empty())
        return;
      attempt = toRun_.front();
      toRun_.pop_front();
    }
    if (!settings_.cores.empty() && attempt->cores != pinned) {
      pinned = attempt->cores;
      pinThisThread(pinned, settings_.cores);
    }
    runOne(attempt);
  }
}

void Worker::runOne(const AttemptShare& attempt) {
  AttemptOutcome outcome;
  try {
    outcome = runner_.run(attempt->assignment, attempt->stop.get_token(), [&](const execution::TaskScratch& scratch) {
      const MutexLock lock(mutex_);
      attempt->standardOutput = scratch.standardOutput().string();
      attempt->standardError = scratch.standardError().string();
    });
  } catch (const std::exception& problem) {
    *outcome.result.mutable_attempt() = attempt->assignment.attempt;
    outcome.result.mutable_ending()->set_reason(Ending::REASON_NOT_STARTED);
    outcome.result.mutable_info()->set_message(problem.what());
  }
  const MutexLock lock(mutex_);
  measure_.ran(duration<double>(Clock::now() - attempt->since).count());
  --running_;
  runsAlone_ = false;
  add(free_, attempt->needs);
  freeCores_.giveBack(attempt->cores);
  finished(attempt, std::move(outcome));
  startWhatFits();
}

void Worker::finished(const AttemptShare& attempt, AttemptOutcome outcome) {
  attempt->phase = Phase::Done;
  if (attempt->isUnwanted)
    held_.erase(attempt->assignment.attempt.number());
  else if (!outcome.files.empty())
    toPut_.push_back(std::move(outcome));
  else
    results_.push(std::move(outcome));
  mayHandIn_.notifyAll();
  mayPut_.notifyAll();
}

void Worker::handBack(const AttemptShare& attempt) {
  finished(attempt, handedBack(attempt->assignment.attempt));
}

// Other workers may be idle.
void Worker::handBackWhatWaitsTooLong() {
  const auto now = Clock::now();
  if (queue_.empty() || now - queue_.front()->since < kLongestAtHand || running_ == 0)
    return;
  measure_.isSlow();
  for (const AttemptShare& attempt : queue_)
    handBack(attempt);
  queue_.clear();
}

// --- renewing ---

RenewRequest Worker::nextRenew() {
  renewNow_ = false;
  RenewRequest request;
  request.set_worker(worker_);
  setHeld(*request.mutable_held());
  for (const auto& wanted : wanted_) {
    const auto found = held_.find(wanted.attempt().number());
    if (found == held_.end() || found->second->phase != Phase::Running)
      continue;
    const bool isError = wanted.stream() == OutputFile::STREAM_STANDARD_ERROR;
    auto* piece = request.add_output();
    *piece->mutable_attempt() = wanted.attempt();
    piece->set_stream(wanted.stream());
    piece->set_offset(wanted.offset());
    piece->set_content(
        readPiece(isError ? found->second->standardError : found->second->standardOutput, wanted.offset()));
  }
  return request;
}

void Worker::renewOnce(const ServiceLine::Link& link) {
  RenewRequest request;
  {
    const MutexLock lock(mutex_);
    request = nextRenew();
  }
  const SchedulerClient client = clientOf(*link);
  const zksmessages::RenewReply reply = WorkerClient(client).renew(request);
  line_.worked();
  const MutexLock lock(mutex_);
  wanted_.assign(reply.output().begin(), reply.output().end());
  std::set<std::uint64_t> unwanted;
  for (const AttemptKey& key : reply.stop())
    unwanted.insert(key.number());
  for (const auto& held : request.held()) {
    const auto found = held_.find(held.attempt().number());
    if (found != held_.end() && held.started() && unwanted.count(held.attempt().number()) == 0)
      found->second->isReported = true;
  }
  obey(reply.stop());
}

// Those that run and have not been told yet are told soon: people watch.
bool Worker::hasNews() const {
  return std::any_of(held_.begin(), held_.end(), [](const auto& entry) {
    return entry.second->phase == Phase::Running && !entry.second->isReported;
  });
}

void Worker::renewAll() {
  auto last = Clock::now() - std::chrono::hours(1);
  for (;;) {
    const ServiceLine::Link link = line_.wait(stopCalls_.get_token());
    if (!link)
      return;
    {
      MutexLock lock(mutex_);
      const auto soon = Clock::now() + kWatchedRenew;
      mayRenew_.waitUntil(lock, std::min(soon, dueAfter(last)),
                          [this]() ZKS_REQUIRES(mutex_) { return closing_ || renewNow_; });
      if (closing_)
        return;
      const bool isWatched = !wanted_.empty() || hasNews();
      if (!renewNow_ && !isWatched && Clock::now() < dueAfter(last))
        continue;
    }
    last = Clock::now();
    try {
      renewOnce(link);
    } catch (const std::exception& problem) {
      line_.drop(link, reasonOf(problem));
    }
  }
}

Worker::Clock::time_point Worker::dueAfter(Clock::time_point last) const {
  return last + std::chrono::duration_cast<Clock::duration>(renewEvery_);
}

// --- handing in ---

void Worker::settle(std::vector<AttemptOutcome> outcomes, const FinishReply& reply) {
  std::vector<AttemptOutcome> later;
  tryResultsAt_ = Clock::now() + measure_.pauseBetweenResults();
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    const auto& verdict = reply.verdicts(static_cast<int>(i));
    if (verdict.missing_blobs_size() > 0 && !outcomes[i].files.empty()) {
      toPut_.push_back(std::move(outcomes[i]));
    } else if (verdict.later() || verdict.missing_blobs_size() > 0) {
      later.push_back(std::move(outcomes[i]));
    } else {
      held_.erase(outcomes[i].result.attempt().number());
    }
  }
  if (!later.empty())
    tryResultsAt_ = Clock::now() + kLaterPause;
  results_.putBack(std::move(later));
  mayPut_.notifyAll();
  mayTake_.notifyAll();
}

void Worker::handIn(const ServiceLine::Link& link, std::vector<AttemptOutcome> outcomes) {
  FinishRequest request;
  {
    const MutexLock lock(mutex_);
    request.set_worker(worker_);
  }
  for (const AttemptOutcome& outcome : outcomes)
    *request.add_results() = outcome.result;
  try {
    const SchedulerClient client = clientOf(*link);
    const FinishReply reply = WorkerClient(client).finish(request);
    if (reply.verdicts_size() != request.results_size())
      throw Exception<toolbox::MalformedReply>("finish", "it has not one verdict for each result");
    line_.worked();
    const MutexLock lock(mutex_);
    settle(std::move(outcomes), reply);
  } catch (const std::exception& problem) {
    {
      const MutexLock lock(mutex_);
      results_.putBack(std::move(outcomes));
    }
    line_.drop(link, reasonOf(problem));
  }
}

void Worker::finishAll() {
  for (;;) {
    const ServiceLine::Link link = line_.wait(stopCalls_.get_token());
    if (!link)
      return;
    std::vector<AttemptOutcome> outcomes;
    {
      MutexLock lock(mutex_);
      mayHandIn_.wait(lock, [this]() ZKS_REQUIRES(mutex_) { return closing_ || !results_.empty(); });
      mayHandIn_.waitUntil(lock, tryResultsAt_, [this]() ZKS_REQUIRES(mutex_) { return closing_ || stopping_; });
      if (closing_)
        return;
      outcomes = results_.pop(kResultsAtOnce, kResultBytesAtOnce);
    }
    handIn(link, std::move(outcomes));
  }
}

void Worker::put(const ServiceLine::Link& link, const AttemptOutcome& outcome) const {
  zksmessages::BlobHolder holder;
  *holder.mutable_attempt() = outcome.result.attempt();
  std::vector<toolbox::LocalBlob> blobs;
  for (const auto& file : outcome.files)
    blobs.push_back(toolbox::LocalBlob::ofFile(file->path()));
  const SchedulerClient client = clientOf(*link);
  toolbox::BlobClient(client).putMissing(holder, blobs);
}

// One after another, so that contents do not crowd out what is short. What the service refuses is said when the result is
// handed in.
void Worker::putAll() {
  for (;;) {
    const ServiceLine::Link link = line_.wait(stopCalls_.get_token());
    if (!link)
      return;
    AttemptOutcome outcome;
    {
      MutexLock lock(mutex_);
      mayPut_.wait(lock, [this]() ZKS_REQUIRES(mutex_) { return closing_ || !toPut_.empty(); });
      if (closing_)
        return;
      outcome = std::move(toPut_.front());
      toPut_.pop_front();
    }
    try {
      put(link, outcome);
      const MutexLock lock(mutex_);
      results_.push(std::move(outcome));
      mayHandIn_.notifyAll();
    } catch (const std::exception& problem) {
      const bool again = isOfTheLine(problem);
      {
        const MutexLock lock(mutex_);
        if (again) {
          toPut_.push_front(std::move(outcome));
        } else {
          results_.push(std::move(outcome));
          tryResultsAt_ = Clock::now() + kLaterPause;
          mayHandIn_.notifyAll();
        }
      }
      if (again)
        line_.drop(link, reasonOf(problem));
      else
        FOUNDATION_LOG(logger_, logging::kWarning) << "Output cannot be put: " << reasonOf(problem);
    }
  }
}

// --- inputs ---

void Worker::fetch(const zksmessages::Blob& blob, const std::string& path, const std::stop_token& stop) {
  for (;;) {
    const ServiceLine::Link link = line_.wait(stop);
    if (!link)
      throw std::runtime_error("An input was not fetched: the worker ends.");
    try {
      const SchedulerClient client = clientOf(*link);
      return toolbox::BlobClient(client).getFile(blob, path);
    } catch (const std::exception& problem) {
      if (!isOfTheLine(problem))
        throw std::runtime_error("An input could not be fetched: " + reasonOf(problem));
      line_.drop(link, reasonOf(problem));
    }
  }
}

}  // namespace parallel::worker
