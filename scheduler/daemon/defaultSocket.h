// Where zksd listens when it is not told: a socket file in a directory that only its user can enter.
#pragma once

#include <filesystem>

namespace parallel::scheduler {

// $XDG_RUNTIME_DIR/zks/zksd.sock where that variable names a directory, else /tmp/zks-UID/zksd.sock. Makes the socket's
// directory (mode 0700). DaemonError when it is there but is not this user's alone.
std::filesystem::path defaultSocket();

// That the directory is there, belongs to this user and lets nobody else in. Made if it is missing.
void requirePrivateDirectory(const std::filesystem::path& directory);

}  // namespace parallel::scheduler
