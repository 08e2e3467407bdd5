#include "scheduler/daemon/SocketClaim.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>

#include "scheduler/daemon/DaemonError.h"
#include "scheduler/daemon/defaultSocket.h"
#include "transport/data/testing/TemporaryDirectory.h"

namespace parallel::scheduler {
namespace {

using files::UniqueFd;
namespace fs = std::filesystem;
using spf::transport::testing::TemporaryDirectory;

// A socket file, with somebody listening on it while the descriptor is open.
UniqueFd listenOn(const fs::path& path) {
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(::listen(socket.get(), 1), 0);
  return socket;
}

template <class Action>
std::string refusalOf(const Action& action) {
  try {
    action();
    return "";
  } catch (const DaemonError& refusal) {
    return refusal.what();
  }
}

std::string claimRefusal(const fs::path& path) {
  return refusalOf([&] { const SocketClaim claim(path); });
}

class SocketClaims : public ::testing::Test {
 protected:
  ~SocketClaims() override { EXPECT_FALSE(fs::exists(socket_.string() + ".lock")); }
  TemporaryDirectory place_;
  fs::path socket_ = place_.file("zksd.sock");
};

TEST_F(SocketClaims, AddressIsAbsoluteAndBothFilesGoWithTheClaim) {
  {
    const SocketClaim claim(socket_);
    EXPECT_EQ(claim.address(), "unix:" + socket_.string());
    EXPECT_TRUE(fs::exists(socket_.string() + ".lock"));
    listenOn(socket_);
  }
  EXPECT_FALSE(fs::exists(socket_));
}

TEST_F(SocketClaims, SecondClaimIsRefusedAndNamesTheOwner) {
  const std::optional<SocketClaim> claim(std::in_place, socket_);
  EXPECT_EQ(claimRefusal(socket_),
            "Another zksd (process " + std::to_string(::getpid()) + ") listens on \"" + socket_.string() + "\"");
  EXPECT_TRUE(fs::exists(socket_.string() + ".lock"));
}

TEST_F(SocketClaims, ClaimCanBeTakenAgainAfterItsEnd) {
  EXPECT_EQ(claimRefusal(socket_), "");
  EXPECT_EQ(claimRefusal(socket_), "");
}

TEST_F(SocketClaims, DeadSocketAndLockAreReplaced) {
  listenOn(socket_);
  std::ofstream(socket_.string() + ".lock") << "4711";
  const SocketClaim claim(socket_);
  EXPECT_FALSE(fs::exists(socket_));
}

TEST_F(SocketClaims, SocketOfAnotherProgramIsRefusedAndLeftAlone) {
  const UniqueFd other = listenOn(socket_);
  EXPECT_EQ(claimRefusal(socket_), "Another program listens on \"" + socket_.string() + "\"");
  EXPECT_TRUE(fs::exists(socket_));
}

TEST_F(SocketClaims, OtherFileInThePlaceIsLeftAlone) {
  std::ofstream(socket_) << "precious";
  EXPECT_EQ(claimRefusal(socket_),
            "There is a file at \"" + socket_.string() + "\" that is not a socket; it is left alone");
  EXPECT_EQ(fs::file_size(socket_), 8U);
}

TEST_F(SocketClaims, PathsThatCannotBeAreNamed) {
  EXPECT_NE(claimRefusal(place_.file(std::string(120, 'x'))).find("takes at most 107"), std::string::npos);
  EXPECT_NE(claimRefusal(place_.file("none") / "zksd.sock").find("No such file or directory"), std::string::npos);
}

TEST_F(SocketClaims, FilesMadeInPrivateAreTheirOwnersOnly) {
  {
    const SocketClaim::PrivateFiles ownersOnly;
    listenOn(socket_);
  }
  struct stat status {};
  ASSERT_EQ(::lstat(socket_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
}

std::string directoryRefusal(const fs::path& path) {
  return refusalOf([&] { requirePrivateDirectory(path); });
}

TEST(PrivateDirectory, IsMadeForItsUserAlone) {
  const TemporaryDirectory place;
  const fs::path directory = place.file("zks");
  EXPECT_EQ(directoryRefusal(directory), "");
  EXPECT_EQ(fs::status(directory).permissions(), fs::perms::owner_all);
  EXPECT_EQ(directoryRefusal(directory), "");
}

TEST(PrivateDirectory, OpenOneIsRefused) {
  const TemporaryDirectory place;
  const fs::path directory = place.file("zks");
  fs::create_directory(directory);
  for (const char* mode : {"0710", "0701", "0750", "0755", "0777"}) {
    ASSERT_EQ(::chmod(directory.c_str(), static_cast<mode_t>(std::strtol(mode, nullptr, 8))), 0);
    EXPECT_EQ(directoryRefusal(directory), "The socket's directory \"" + directory.string() +
                                               "\" is open to others (mode " + mode +
                                               ", not 0700); put it right, or choose another place with --socket PATH");
  }
}

TEST(PrivateDirectory, LinkOrFileIsRefused) {
  const TemporaryDirectory place;
  fs::create_directory(place.file("target"));
  fs::create_directory_symlink(place.file("target"), place.file("link"));
  std::ofstream(place.file("file")) << "x";
  for (const char* name : {"link", "file"})
    EXPECT_NE(directoryRefusal(place.file(name)).find("is not a directory"), std::string::npos);
}

TEST(PrivateDirectory, AnothersIsRefused) {
  if (::geteuid() != 0)
    GTEST_SKIP() << "only root can give a directory away";
  const TemporaryDirectory place;
  const fs::path directory = place.file("zks");
  fs::create_directory(directory);
  fs::permissions(directory, fs::perms::owner_all);
  ASSERT_EQ(::chown(directory.c_str(), 12345, 12345), 0);
  EXPECT_NE(directoryRefusal(directory).find("belongs to user 12345, not to 0"), std::string::npos);
}

TEST(PrivateDirectory, ThatCannotBeMadeIsNamed) {
  EXPECT_NE(directoryRefusal("/no/such/place/zks").find("cannot be made: No such file or directory"),
            std::string::npos);
}

}  // namespace
}  // namespace parallel::scheduler
