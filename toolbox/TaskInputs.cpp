#include "toolbox/TaskInputs.h"

#include <sys/stat.h>

#include "toolbox/folders.h"

namespace parallel::toolbox {
namespace {

bool isProgram(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && (status.st_mode & S_IXUSR) != 0;
}

bool isFolder(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

void TaskInputs::add(const std::string& name, const std::string& path) {
  if (!isFolder(path))
    return addFile(name, path);
  const FolderContents contents = contentsOfFolder(path);
  described_.add_input_folders(name);
  for (const std::string& inside : contents.folders)
    described_.add_input_folders(std::string(name).append("/").append(inside));
  for (const std::string& inside : contents.files)
    addFile(std::string(name).append("/").append(inside), std::string(path).append("/").append(inside));
}

void TaskInputs::addFile(const std::string& name, const std::string& path) {
  files_.push_back(fileItem(path));
  described_.add_input_files(name);
  if (isProgram(path))
    described_.add_executable_inputs(name);
}

void TaskInputs::describe(zksmessages::TaskDescription& task) const {
  task.MergeFrom(described_);
  task.set_standard_input(standardInput_.has_value());
}

std::vector<Item> TaskInputs::items() const {
  std::vector<Item> items;
  items.reserve(files_.size() + 1);
  if (standardInput_)
    items.push_back(*standardInput_);
  items.insert(items.end(), files_.begin(), files_.end());
  return items;
}

}  // namespace parallel::toolbox
