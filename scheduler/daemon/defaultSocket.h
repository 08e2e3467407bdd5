// Where zksd listens when it is not told: a socket file in a directory that only its user can enter.
#pragma once

#include <filesystem>

namespace parallel::scheduler {

// The default socket (platform/spf/security/defaultSocket.h), its directory made (mode 0700). DaemonError when that is
// there but is not this user's alone.
std::filesystem::path prepareDefaultSocket();

// That the directory is there, belongs to this user and lets nobody else in. Made if it is missing.
void requirePrivateDirectory(const std::filesystem::path& directory);

}  // namespace parallel::scheduler
