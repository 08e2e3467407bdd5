// Typed calls of the job-scheduler service's methods. The methods: docs/methods.md.
//
// Ownership: borrows the connection.
// Threads:   one call at a time per client; clients are cheap.
// Errors:    `ZKSUnreachable` when the connection is gone, the host's interrupt exception when the user stopped the
//            call (noticed within 100 ms on an interpreter thread), `MalformedReply`; anything else as one exception of
//            the type that throwExpandedSPFErrors gives, its message the chain of causes.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/zksmessages/zksmessages.pb.h"
#include "toolbox/Connection.h"
#include "toolbox/ErrorForm.h"
#include "toolbox/Item.h"
#include "toolbox/Reply.h"
#include "toolbox/TransferProgress.h"

namespace parallel::toolbox {

// How a task ran and what it left. The output files, in the order of the description, are still to be taken from
// `outputs`; one that the task did not make is empty and named in info.missing_outputs(). An output that is a folder is
// empty too, and named in info.output_folders(); after all outputs come info.folder_files(), paths that stay in the folders
// asked for.
struct TaskResult {
  zksmessages::TesselTaskExecutionInfo info;
  tova::factory::qxArrayProxy standardOutput;  // uint8 columns
  tova::factory::qxArrayProxy standardError;
  Reply outputs;
};

class SchedulerClient {
 public:
  // `progress` may be null; it then goes unwatched.
  explicit SchedulerClient(const Connection& connection, std::shared_ptr<TransferProgress> progress = nullptr,
                           ErrorForm errors = ErrorForm::OneMessage);

  // Any method, by name.
  Reply call(const std::string& method, const std::vector<Item>& items) const;

  // The items come back in their order and kinds, byte for byte; so a message that is to be taken from the reply goes
  // out as a resultItem.
  Reply echo(const std::vector<Item>& items) const;

  // `inputs` are the standard input where description.standard_input() says so, as plain bytes or a file, and then a
  // file item for each of description.input_files().
  TaskResult runTask(const zksmessages::TaskDescription& description, const std::vector<Item>& inputs) const;

 private:
  const Connection& connection_;
  std::shared_ptr<TransferProgress> progress_;
  ErrorForm errors_;
};

}  // namespace parallel::toolbox
