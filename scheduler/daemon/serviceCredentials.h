// What a zksd that listens on TCP shows its clients.
#pragma once

#include <filesystem>

#include "platform/spf/security/Credentials.h"
#include "scheduler/daemon/DaemonOptions.h"

namespace parallel::scheduler {

// The directory that the options name, or the default one. DaemonError when there is no default.
std::filesystem::path credentialsDirectory(const DaemonOptions& options);

// Those of the directory, which is made or renewed first. The certificate names the host that is listened at, too.
agent::spf::security::Credentials serviceCredentials(const DaemonOptions& options);

}  // namespace parallel::scheduler
