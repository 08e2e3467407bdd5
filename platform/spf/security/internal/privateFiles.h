// Files that are their owner's alone.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "platform/files/UniqueFd.h"

namespace agent::spf::security::internal {

enum class Openness { anybody, ownerOnly };

// Its content; nothing when there is none. FrameworkError when it cannot be read, or others could where only the owner
// should.
std::optional<std::string> readFile(const std::filesystem::path& path, Openness openness);

// Puts a file with that content there, in one step and durably. FrameworkError when it cannot.
void writeFile(const std::filesystem::path& path, const std::string& content, Openness openness,
               const std::function<void()>& onStep);

// FrameworkError unless it is this user's directory, or the super-user's, and nobody else may enter.
void requirePrivateDirectory(const std::filesystem::path& directory);
// Makes it, and its parents, for this user alone, where they are missing.
void makePrivateDirectory(const std::filesystem::path& directory, const std::function<void()>& onStep);

// What writeFile() that was killed has left there.
bool isLeftOver(const std::filesystem::path& path);

// The one process at a time that works in the directory. Waits for its turn.
class DirectoryLock {
 public:
  explicit DirectoryLock(const std::filesystem::path& directory);

  static constexpr const char* kName = ".lock";

 private:
  files::UniqueFd file_;
};

}  // namespace agent::spf::security::internal
