#include "toolbox/folders.h"

#include <filesystem>
#include <map>
#include <system_error>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/ustring.h"
#include "platform/interrupt/throwIfInterrupted.h"

namespace parallel::toolbox {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void refuse(const fs::path& path, const std::string& reason) {
  throw Exception<CannotReadFile>(path.string(), reason);
}

// Whether it is a folder, and no file.
bool isFolderInside(const fs::directory_entry& entry) {
  std::error_code error;
  if (!fl::i18n::isWellFormed(entry.path().filename().string()))
    refuse(entry.path(), "its name is not UTF-8, and names travel as texts");
  if (!fs::is_directory(entry.status(error)))
    return false;
  if (fs::is_symlink(entry.symlink_status(error)))
    refuse(entry.path(), "it is a link to a folder, which may lead anywhere");
  return true;
}

std::map<std::string, bool> namesIn(const fs::path& folder, std::size_t most) {
  std::map<std::string, bool> names;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    throwIfInterrupted();
    names[entry->path().filename().string()] = isFolderInside(*entry);
    if (names.size() > most)
      break;
  }
  if (error)
    refuse(folder, error.message());
  return names;
}

}  // namespace

FolderContents contentsOfFolder(const std::string& folder, std::size_t most) {
  FolderContents contents;
  const auto readInto = [&](const std::string& path, const std::string& prefix) {
    for (const auto& [name, isFolder] : namesIn(path, most))
      (isFolder ? contents.folders : contents.files).push_back(prefix + name);
    if (contents.folders.size() + contents.files.size() > most)
      refuse(folder, "it has more than " + std::to_string(most) + " files; pack it into one, with tar for instance");
  };
  readInto(folder, "");
  for (std::size_t i = 0; i < contents.folders.size(); ++i)
    readInto((std::filesystem::path(folder) / contents.folders[i]).string(), contents.folders[i] + "/");
  return contents;
}

void makeFolder(const std::string& path) {
  std::error_code error;
  fs::create_directories(path, error);
  if (error)
    throw Exception<CannotWriteIntoDirectory>(path, error.message());
}

}  // namespace parallel::toolbox
