// What goes along with a task: its standard input, its files and folders, as its description tells them and as items.
//
// Threads: one at a time.
// Errors:  `CannotReadFile` for what cannot be sent.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/zksmessages/zksmessages.pb.h"
#include "toolbox/Item.h"

namespace parallel::toolbox {

class TaskInputs {
 public:
  // What the task reads from its standard input: plain bytes or a file.
  void setStandardInput(Item item) { standardInput_ = std::move(item); }

  // The file or folder at the path, which the task finds under the name. Programs are told as such.
  void add(const std::string& name, const std::string& path);

  void describe(zksmessages::TaskDescription& task) const;
  // In the order in which the service reads them.
  std::vector<Item> items() const;

 private:
  void addFile(const std::string& name, const std::string& path);

  zksmessages::TaskDescription described_;  // its fields for inputs
  std::optional<Item> standardInput_;
  std::vector<Item> files_;
};

}  // namespace parallel::toolbox
