#include "platform/spf/security/defaultSocket.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>

#include "platform/files/testing/TemporaryDirectory.h"

namespace agent::spf::security {
namespace {

namespace fs = std::filesystem;

class DefaultSocket : public ::testing::Test {
 protected:
  DefaultSocket() {
    if (const char* value = std::getenv(kVariable))
      before_ = value;
  }
  ~DefaultSocket() override { setRuntimeDirectory(before_ ? before_->c_str() : nullptr); }

  static void setRuntimeDirectory(const char* value) {
    if (value != nullptr)
      ::setenv(kVariable, value, 1);
    else
      ::unsetenv(kVariable);
  }

  ::files::testing::TemporaryDirectory place_;

 private:
  static constexpr const char* kVariable = "XDG_RUNTIME_DIR";
  std::optional<std::string> before_;
};

TEST_F(DefaultSocket, IsInTheRuntimeDirectoryWhereThereIsOne) {
  setRuntimeDirectory(place_.path().c_str());
  EXPECT_EQ(defaultSocket(), place_.file("zks/zksd.sock"));
}

TEST_F(DefaultSocket, IsInADirectoryOfTheUsersWhereThereIsNone) {
  const fs::path users = "/tmp/zks-" + std::to_string(::geteuid()) + "/zksd.sock";
  for (const char* value : {static_cast<const char*>(nullptr), "", "relative", "/no/such/place"}) {
    setRuntimeDirectory(value);
    EXPECT_EQ(defaultSocket(), users);
  }
}

TEST_F(DefaultSocket, DirectoryOpenToOthersIsNotPrivate) {
  const fs::path directory = place_.file("d");
  EXPECT_EQ(whyNotPrivate(directory), "cannot be looked at: No such file or directory");
  fs::create_directory(directory);
  fs::permissions(directory, fs::perms::owner_all);
  EXPECT_EQ(whyNotPrivate(directory), "");
  fs::permissions(directory, fs::perms::owner_all | fs::perms::group_exec);
  EXPECT_EQ(whyNotPrivate(directory), "is open to others (mode 0710, not 0700)");
  fs::create_directory_symlink(directory, place_.file("link"));
  EXPECT_EQ(whyNotPrivate(place_.file("link")), "is not a directory");
}

}  // namespace
}  // namespace agent::spf::security
