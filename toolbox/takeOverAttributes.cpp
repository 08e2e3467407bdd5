#include "toolbox/takeOverAttributes.h"

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <string_view>
#include <vector>

namespace parallel::toolbox {
namespace {

constexpr mode_t kPermissions = S_IRWXU | S_IRWXG | S_IRWXO;  // not set-user-ID: new contents have not earned it
constexpr const char* kAccessList = "system.posix_acl_access";

// Whether the file has that group now.
bool takeOverOwner(const struct stat& from, int file) noexcept {
  struct stat now {};
  if (::fstat(file, &now) != 0)
    return false;
  if (now.st_uid != from.st_uid && ::fchown(file, from.st_uid, from.st_gid) == 0)
    return true;
  return now.st_gid == from.st_gid || ::fchown(file, static_cast<uid_t>(-1), from.st_gid) == 0;
}

void takeOver(const char* attribute, const std::string& from, int file) {
  const ssize_t nbytes = ::getxattr(from.c_str(), attribute, nullptr, 0);
  if (nbytes < 0)
    return;
  std::vector<char> value(static_cast<std::size_t>(nbytes));
  const ssize_t got = ::getxattr(from.c_str(), attribute, value.data(), value.size());
  if (got >= 0)
    static_cast<void>(::fsetxattr(file, attribute, value.data(), static_cast<std::size_t>(got), 0));
}

void takeOverUserAttributes(const std::string& from, int file) {
  const ssize_t nbytes = ::listxattr(from.c_str(), nullptr, 0);
  if (nbytes <= 0)
    return;
  std::vector<char> names(static_cast<std::size_t>(nbytes));
  const ssize_t got = ::listxattr(from.c_str(), names.data(), names.size());
  for (ssize_t at = 0; at < got;) {
    const std::string_view name(names.data() + at);
    if (name.starts_with("user."))
      takeOver(name.data(), from, file);
    at += static_cast<ssize_t>(name.size()) + 1;
  }
}

mode_t withoutGroup(mode_t mode) noexcept {
  const mode_t others = mode & S_IRWXO;
  return (mode & ~static_cast<mode_t>(S_IRWXG)) | (others << 3 & mode & S_IRWXG);
}

}  // namespace

void takeOverAttributes(const std::string& from, int file) noexcept {
  try {
    struct stat status {};
    if (::stat(from.c_str(), &status) != 0)
      return;
    const mode_t mode = status.st_mode & kPermissions;
    const bool groupKept = takeOverOwner(status, file);
    static_cast<void>(::fchmod(file, groupKept ? mode : withoutGroup(mode)));
    takeOverUserAttributes(from, file);
    if (groupKept)
      takeOver(kAccessList, from, file);
  } catch (...) {  // no memory: the file has its owner's permissions alone
    return;
  }
}

}  // namespace parallel::toolbox
