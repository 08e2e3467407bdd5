// The methods of kept jobs, of blobs and of workers. Protocol: docs/methods.md.
//
// Ownership: owns the books and all that its methods share.
// Threads:   methods run on the framework's threads, any number at once. One that waits holds none.
// Errors:    those of BookKeeper when it is made; each method's in docs/methods.md.
#pragma once

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/spf/core/Service.h"
#include "platform/threads/Mutex.h"
#include "scheduler/calls/DescriptionLimit.h"
#include "scheduler/methods/BookKeeper.h"
#include "scheduler/methods/ChangeWaiters.h"
#include "scheduler/methods/KeptArrays.h"
#include "scheduler/methods/OpenReaders.h"
#include "scheduler/methods/RunningOutput.h"
#include "scheduler/methods/StalePins.h"
#include "scheduler/methods/UploadClaims.h"
#include "scheduler/methods/WaitingTakes.h"

namespace parallel::scheduler::methods {

using agent::spf::core::ServerCall;

class JobMethods {
 public:
  struct Options {
    BookKeeper::Options keeper{};
    DescriptionLimit descriptionLimit{};
    std::string version{};  // of this program
    // Set while there is work and no worker that is given any; may be null.
    std::shared_ptr<std::atomic<bool>> wantsWorker{};
  };
  using Method = void (JobMethods::*)(ServerCall&);
  // Every method is for clients; those that say so are for workers, too.
  enum class Callers { clients, clientsAndWorkers };
  struct NamedMethod {
    const char* name;
    Method method;
    Callers callers = Callers::clients;
    bool isFrequent = false;  // called again and again by whoever waits or works: hardly worth a line in a log
  };

  // All of them.
  static const std::vector<NamedMethod>& all();

  explicit JobMethods(Options options);
  ~JobMethods();
  JobMethods(const JobMethods&) = delete;
  JobMethods& operator=(const JobMethods&) = delete;

  // Runs the method for whoever may call it. `NotAllowed` for others.
  void serve(const NamedMethod& named, ServerCall& call);

  BookKeeper& keeper() noexcept { return keeper_; }

  // --- clients ---
  void submitJob(ServerCall& call);
  void extendJob(ServerCall& call);
  void closeJob(ServerCall& call);
  void hold(ServerCall& call);
  void release(ServerCall& call);
  void setPriority(ServerCall& call);
  void cancel(ServerCall& call);
  void retry(ServerCall& call);
  void deleteJob(ServerCall& call);
  void prune(ServerCall& call);
  void describeJob(ServerCall& call);
  void listJobs(ServerCall& call);
  void listTasks(ServerCall& call);
  void waitForChange(ServerCall& call);
  void fetchOutputs(ServerCall& call);
  void readOutput(ServerCall& call);
  void listWorkers(ServerCall& call);
  void drainWorker(ServerCall& call);
  void describeService(ServerCall& call);

  // --- blobs ---
  void findBlobs(ServerCall& call);
  void putBlob(ServerCall& call);
  void getBlob(ServerCall& call);

  // --- workers ---
  void join(ServerCall& call);
  void take(ServerCall& call);
  void renew(ServerCall& call);
  void finish(ServerCall& call);

 private:
  class OutputReading;

  template <class Change>
  void changeJob(ServerCall& call, ledger::JobId job, Change change);
  // What a question to the committed tables is answered with.
  template <class Question>
  auto ask(Question question) {
    return keeper_.store().ledger().read(std::move(question));
  }
  store::WallTime wallTime() const { return keeper_.now().wall; }

  void sendTaken(ServerCall& call, const ledger::Taken& taken);
  void noteHeard(ledger::WorkerId worker);

  const Options options_;
  // Those that the keeper's last turns use stand before it, those that use it behind it.
  threads::Mutex heardMutex_;
  std::map<ledger::WorkerId, Alarms::Clock::time_point> heard_ ZKS_GUARDED_BY(heardMutex_);
  RunningOutput running_;
  UploadClaims uploads_;
  BookKeeper keeper_;
  KeptArrays arrays_;
  OpenReaders readers_;
  ChangeWaiters changes_;
  ChangeWaiters outputs_;
  WaitingTakes takes_;
  StalePins stalePins_;
  const store::WallTime started_;
};

}  // namespace parallel::scheduler::methods
