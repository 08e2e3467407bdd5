// The socket file at which a service and its clients meet when they are not told of another.
#pragma once

#include <filesystem>
#include <string>

namespace agent::spf::security {

// $XDG_RUNTIME_DIR/zks/zksd.sock where that variable names a directory, else /tmp/zks-UID/zksd.sock. Nothing is made,
// and nothing is said of its directory: see whyNotPrivate.
std::filesystem::path defaultSocket();

// Empty when the directory belongs to this user and lets nobody else in, else why it is not trusted, as the end of a
// sentence about it: "belongs to user 7, not to 1000". Others could put a service of their own there.
std::string whyNotPrivate(const std::filesystem::path& directory);

}  // namespace agent::spf::security
