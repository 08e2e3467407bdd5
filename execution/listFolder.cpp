#include "execution/listFolder.h"

#include <algorithm>
#include <map>
#include <system_error>

#include "platform/errors/ustring.h"
#include "platform/errors/visibleText.h"

namespace parallel::execution {

namespace fs = std::filesystem;

namespace {

// The entries of one folder by name, and whether each is a folder; `most` and one more at most.
std::map<std::string, bool> namesIn(const fs::path& folder, std::size_t most, std::error_code& error) {
  std::map<std::string, bool> names;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    std::error_code gone;
    names[entry->path().filename().string()] = fs::is_directory(entry->symlink_status(gone));
    if (names.size() > most)
      break;
  }
  return names;
}

}  // namespace

FolderContents listFolder(const fs::path& directory, const std::string& name, std::size_t most) {
  FolderContents contents;
  contents.folders.push_back(name);
  for (std::size_t i = 0; i < contents.folders.size() && contents.entries() <= most; ++i) {
    const std::string prefix = contents.folders[i] + "/";
    std::error_code error;
    for (const auto& [entry, isFolder] : namesIn(directory / prefix, most, error)) {
      const std::string path = prefix + entry;
      if (!fl::i18n::isWellFormed(entry))
        contents.unusable.emplace_back(errors::visibleText(path), "its name is not UTF-8");
      else
        (isFolder ? contents.folders : contents.files).push_back(path);
    }
    if (error)
      contents.unusable.emplace_back(contents.folders[i], "it cannot be read: " + error.message());
  }
  return contents;
}

}  // namespace parallel::execution
