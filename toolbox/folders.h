// Folders on the user's side: what is sent of one, and where one is put that a task has made.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace parallel::toolbox {

// By their paths from the folder.
struct FolderContents {
  std::vector<std::string> folders;  // each after the one that it is in
  std::vector<std::string> files;
};

inline constexpr std::size_t kMostFolderEntries = 100'000;

// All that is in the folder. A link to a file is that file. `CannotReadFile` for what cannot be sent: a link to a folder,
// a name that is not UTF-8, a folder that cannot be read, or more than `most` files and folders. The user can interrupt it.
FolderContents contentsOfFolder(const std::string& folder, std::size_t most = kMostFolderEntries);

// Makes a folder and those on its way, unless they are there. `CannotWriteIntoDirectory`.
void makeFolder(const std::string& path);

}  // namespace parallel::toolbox
