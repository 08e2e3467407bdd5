#include "scheduler/methods/JobMethods.h"

#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace parallel::scheduler::methods {

const std::vector<JobMethods::NamedMethod>& JobMethods::all() {
  static const std::vector<NamedMethod> methods{
      {"submitJob", &JobMethods::submitJob},
      {"extendJob", &JobMethods::extendJob},
      {"closeJob", &JobMethods::closeJob},
      {"hold", &JobMethods::hold},
      {"release", &JobMethods::release},
      {"setPriority", &JobMethods::setPriority},
      {"cancel", &JobMethods::cancel},
      {"retry", &JobMethods::retry},
      {"deleteJob", &JobMethods::deleteJob},
      {"prune", &JobMethods::prune},
      {"describeJob", &JobMethods::describeJob},
      {"listJobs", &JobMethods::listJobs},
      {"listTasks", &JobMethods::listTasks},
      {"waitForChange", &JobMethods::waitForChange, Callers::clients, true},
      {"fetchOutputs", &JobMethods::fetchOutputs},
      {"readOutput", &JobMethods::readOutput, Callers::clients, true},
      {"listWorkers", &JobMethods::listWorkers},
      {"drainWorker", &JobMethods::drainWorker},
      {"describeService", &JobMethods::describeService},
      {"findBlobs", &JobMethods::findBlobs, Callers::clientsAndWorkers, true},
      {"putBlob", &JobMethods::putBlob, Callers::clientsAndWorkers},
      {"getBlob", &JobMethods::getBlob, Callers::clientsAndWorkers},
      {"join", &JobMethods::join, Callers::clientsAndWorkers},
      {"take", &JobMethods::take, Callers::clientsAndWorkers, true},
      {"renew", &JobMethods::renew, Callers::clientsAndWorkers, true},
      {"finish", &JobMethods::finish, Callers::clientsAndWorkers, true},
  };
  return methods;
}

void JobMethods::serve(const NamedMethod& named, ServerCall& call) {
  using agent::spf::core::PeerRole;
  const PeerRole role = call.identity().role;
  const bool isAllowed =
      role == PeerRole::client || (role == PeerRole::worker && named.callers == Callers::clientsAndWorkers);
  if (!isAllowed)
    throw Exception<parallel::scheduler::NotAllowed>(
        named.name, role == PeerRole::worker ? "workers" : "who has no role",
        named.callers == Callers::clients ? "clients" : "clients and workers");
  (this->*named.method)(call);
}

JobMethods::JobMethods(Options options)
    : options_(std::move(options)),
      keeper_(options_.keeper),
      arrays_(keeper_.store()),
      readers_(keeper_.store().blobs()),
      changes_(keeper_.alarms()),
      outputs_(keeper_.alarms()),
      takes_(keeper_, [this] { return keeper_.store().room() < store::Room::noGrants; }),
      stalePins_(keeper_),
      started_(keeper_.now().wall) {
  const auto seeDemand = [wanted = options_.wantsWorker](BookKeeper::Turn& turn) {
    if (wanted != nullptr)
      *wanted = turn.ledger().wantsWorker();
  };
  keeper_.run(seeDemand);
  keeper_.start({.watcher =
                     [this, seeDemand](BookKeeper::Turn& turn) {
                       takes_.serve(turn);
                       seeDemand(turn);
                     },
                 .listener =
                     [this](const BookKeeper::ChangedJobs& jobs) {
                       changes_.changed(jobs);
                       outputs_.changed(jobs);
                     },
                 .tidier = [this] { stalePins_.sweep(); }});
}

JobMethods::~JobMethods() {
  keeper_.stop();
}

}  // namespace parallel::scheduler::methods
