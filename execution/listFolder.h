// What is in a folder that a task has left.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace parallel::execution {

// Paths from the task's directory.
struct FolderContents {
  std::vector<std::string> folders;  // itself, then those inside, each after the one that it is in
  std::vector<std::string> files;    // all else; not yet looked at
  // What a message cannot name, escaped, or folders that cannot be read; and why.
  std::vector<std::pair<std::string, std::string>> unusable;

  std::size_t entries() const noexcept { return folders.size() + files.size() + unusable.size(); }
};

// Of the folder "NAME" in the directory, the names in each folder in alphabetical order. Follows no link. Ends early
// when there are more than `most` entries.
FolderContents listFolder(const std::filesystem::path& directory, const std::string& name, std::size_t most);

}  // namespace parallel::execution
