// The right to listen on one socket file, for as long as it lives.
//
// A lock file beside the socket ("PATH.lock") tells a live daemon from one that died: a dead one's socket file is
// removed, a live one's is refused. Both files are removed with the claim. Errors: DaemonError says what is in the way.
#pragma once

#include <filesystem>
#include <string>

#include "platform/files/UniqueFd.h"

namespace parallel::scheduler {

class SocketClaim {
 public:
  explicit SocketClaim(const std::filesystem::path& socket);
  ~SocketClaim();
  SocketClaim(const SocketClaim&) = delete;
  SocketClaim& operator=(const SocketClaim&) = delete;

  // "unix:/absolute/path"
  std::string address() const { return "unix:" + socket_.string(); }

  // Makes a new file's mode 0600 while it lives, so that nobody else can open the socket at any moment.
  class PrivateFiles {
   public:
    PrivateFiles();
    ~PrivateFiles();
    PrivateFiles(const PrivateFiles&) = delete;
    PrivateFiles& operator=(const PrivateFiles&) = delete;

   private:
    mode_t previous_;
  };

 private:
  void lock();
  void removeDeadSocket() const;

  std::filesystem::path socket_;
  std::filesystem::path lockPath_;
  files::UniqueFd lock_;
};

}  // namespace parallel::scheduler
