#include "scheduler/methods/JobMethods.h"

#include <utility>

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
      {"waitForChange", &JobMethods::waitForChange, true},
      {"fetchOutputs", &JobMethods::fetchOutputs},
      {"readOutput", &JobMethods::readOutput, true},
      {"listWorkers", &JobMethods::listWorkers},
      {"drainWorker", &JobMethods::drainWorker},
      {"describeService", &JobMethods::describeService},
      {"findBlobs", &JobMethods::findBlobs, true},
      {"putBlob", &JobMethods::putBlob},
      {"getBlob", &JobMethods::getBlob},
      {"join", &JobMethods::join},
      {"take", &JobMethods::take, true},
      {"renew", &JobMethods::renew, true},
      {"finish", &JobMethods::finish, true},
  };
  return methods;
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
  keeper_.start({.watcher = [this](BookKeeper::Turn& turn) { takes_.serve(turn); },
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
