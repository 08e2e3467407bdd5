#include "scheduler/methods/TaskArrays.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include <algorithm>
#include <exception>
#include <limits>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/visibleText.h"
#include "scheduler/calls/checkTaskDescription.h"
#include "scheduler/calls/durations.h"
#include "scheduler/methods/Lines.h"
#include "scheduler/methods/ledgerForms.h"

namespace parallel::scheduler::methods {

using errors::inQuotes;
using store::Digest;
using zksmessages::Blob;
using zksmessages::TaskArray;
using zksmessages::TaskCommand;

namespace {

[[noreturn]] void refuseJob(const std::string& field, const std::string& problem) {
  throw Exception<parallel::scheduler::BadJobField>(field, problem);
}

std::string element(const std::string& field, int index) {
  return field + "[" + std::to_string(index) + "]";
}

// By the rules of runTask, which has the same fields.
void checkCommand(const TaskCommand& command, const std::string& field) {
  zksmessages::TaskDescription task;
  *task.mutable_argv() = command.argv();
  *task.mutable_environment() = command.environment();
  for (const zksmessages::TaskInput& input : command.inputs())
    task.add_input_files(input.name());
  *task.mutable_output_files() = command.outputs();
  *task.mutable_limits() = command.limits();
  try {
    checkTaskDescription(task);
  } catch (const std::exception&) {
    std::throw_with_nested(Exception<parallel::scheduler::BadJobField>(field, "it is no command that can be run"));
  }
  const std::string& folder = command.in_place_folder();
  if (!folder.empty() && (folder.front() != '/' || folder.find('\0') != std::string::npos))
    refuseJob(field + ".in_place_folder", inQuotes(folder) + " is not the whole path of a folder");
}

void checkNeeds(const zksmessages::Resources& needs, const std::string& field) {
  constexpr int kMostNames = 64;
  constexpr std::size_t kMostNameBytes = 128;
  if (needs.named_size() > kMostNames)
    refuseJob(field, "more than " + std::to_string(kMostNames) + " named resources");
  for (const auto& [name, count] : needs.named()) {
    if (name.empty() || name.size() > kMostNameBytes)
      refuseJob(field, "the name of a resource has 1 to " + std::to_string(kMostNameBytes) + " bytes");
  }
}

bool isDelay(const google::protobuf::Duration& delay) {
  return (delay.seconds() == 0 && delay.nanos() == 0) || isPositiveDuration(delay);
}

void checkRetries(const zksmessages::RetryRules& rules, const std::string& field) {
  for (const auto* rule : {&rules.exit_code(), &rules.signal(), &rules.out_of_memory(), &rules.time_limit(),
                           &rules.not_started(), &rules.worker_lost()}) {
    if (!isDelay(rule->first_delay()) || !isDelay(rule->longest_delay()))
      refuseJob(field, "a delay is not a length of time");
  }
}

void checkDependencies(const TaskArray& array, const std::string& field) {
  for (int i = 0; i < array.dependencies_size(); ++i) {
    if (!zksmessages::Dependency::Kind_IsValid(array.dependencies(i).kind()))
      refuseJob(element(field, i), "its kind is unknown");
  }
}

// That every task has an index.
void checkIndexes(const TaskArray& array, const std::string& field) {
  std::int64_t distance = 0;
  std::int64_t last = 0;
  const std::int64_t step = array.index_step() == 0 ? 1 : array.index_step();
  if (__builtin_mul_overflow(static_cast<std::int64_t>(array.count() - 1), step, &distance) ||
      __builtin_add_overflow(array.first_index(), distance, &last))
    refuseJob(field, "its last index is too great to be counted");
}

void checkNumbers(const TaskArray& array, const std::string& field) {
  constexpr std::uint64_t kMostTasks = 1'000'000'000'000;
  if (array.count() == 0 || array.count() > kMostTasks)
    refuseJob(field + ".count",
              std::to_string(array.count()) + " is not a number of tasks from 1 to " + std::to_string(kMostTasks));
  if (array.has_deaths_allowed() && array.deaths_allowed() == 0)
    refuseJob(field + ".deaths_allowed", "0 is too few: no task could be tried");
  checkIndexes(array, field);
}

void checkLines(const TaskArray& array, const std::string& field) {
  if (!array.has_lines())
    return;
  if (array.lines().nbytes() > kMostLinesBytes)
    refuseJob(field, "lines have " + std::to_string(kMostLinesBytes) + " bytes at most");
  if (array.lines().has_content() && countLines(array.lines().content()) != array.count())
    refuseJob(field, std::to_string(countLines(array.lines().content())) + " lines for " +
                         std::to_string(array.count()) + " tasks");
}

template <class Visit>
void forEachBlob(TaskArray& array, const std::string& field, Visit visit) {
  if (array.has_lines())
    visit(*array.mutable_lines(), field + ".lines");
  TaskCommand& command = *array.mutable_command();
  if (command.has_standard_input())
    visit(*command.mutable_standard_input(), field + ".command.standard_input");
  for (int i = 0; i < command.inputs_size(); ++i)
    visit(*command.mutable_inputs(i)->mutable_content(), element(field + ".command.inputs", i) + ".content");
}

}  // namespace

std::string normalise(Blob& blob, std::vector<std::string>& contents) {
  if (!blob.has_content())
    return blob.sha256().size() == Digest::kBytes
               ? ""
               : "it has neither content nor a digest of " + std::to_string(Digest::kBytes) + " bytes";
  if (blob.content().size() > kMostContentBytes)
    return "its content has more than " + std::to_string(kMostContentBytes) + " bytes; put it as a blob first";
  const Digest digest = Digest::of(blob.content());
  if (!blob.sha256().empty() && blob.sha256() != digest.bytes())
    return "its digest is not that of its content";
  if (blob.nbytes() != 0 && blob.nbytes() != blob.content().size())
    return "its content has another number of bytes than " + std::to_string(blob.nbytes());
  blob.set_sha256(std::string(digest.bytes()));
  blob.set_nbytes(blob.content().size());
  contents.push_back(std::move(*blob.mutable_content()));
  blob.clear_content();
  return "";
}

TaskArrays::TaskArrays(Messages arrays, const std::string& field) : arrays_(std::move(arrays)) {
  for (int i = 0; i < arrays_.size(); ++i) {
    TaskArray& array = arrays_[i];
    const std::string name = element(field, i);
    checkNumbers(array, name);
    checkCommand(array.command(), name + ".command");
    checkNeeds(array.needs(), name + ".needs");
    checkRetries(array.retries(), name + ".retries");
    checkDependencies(array, name + ".dependencies");
    checkLines(array, name + ".lines");
    forEachBlob(array, name, [this](Blob& blob, const std::string& blobField) {
      if (const std::string problem = normalise(blob, contents_); !problem.empty())
        refuseJob(blobField, problem);
      digests_.push_back(*Digest::fromBytes(blob.sha256()));
    });
  }
  std::sort(digests_.begin(), digests_.end());
  digests_.erase(std::unique(digests_.begin(), digests_.end()), digests_.end());
}

std::vector<ledger::ArraySpec> TaskArrays::specs() const {
  std::vector<ledger::ArraySpec> specs;
  for (const TaskArray& array : arrays_) {
    specs.push_back(specOf(array));
    specs.back().details = array.SerializeAsString();
  }
  return specs;
}

std::string stableBytes(const google::protobuf::MessageLite& message) {
  std::string bytes;
  {
    google::protobuf::io::StringOutputStream stream(&bytes);
    google::protobuf::io::CodedOutputStream coded(&stream);
    coded.SetSerializationDeterministic(true);
    message.SerializeToCodedStream(&coded);
  }
  return bytes;
}

}  // namespace parallel::scheduler::methods
