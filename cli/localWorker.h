// A worker on this machine for this user's own service, started where it has none.
//
// It runs in a session of its own, offers what the machine has, and goes some minutes after its service. Its output goes to
// zks-worker.log beside the service's log. On a machine from which batch jobs are submitted none is started: work belongs
// elsewhere there, and users lose their accounts for less.
#pragma once

#include "cli/JobSession.h"

namespace zks {

// Does nothing for a service at an address: that has workers of its own. Says what it did, or that there is no worker.
void provideWorker(JobSession& session);

}  // namespace zks
