#include "cli/taskOutputs.h"

#include <filesystem>
#include <set>
#include <string_view>

#include "cli/CliError.h"
#include "cli/StandardStreams.h"
#include "toolbox/AtomicFile.h"
#include "toolbox/folders.h"
#include "transport/streams/FunctionalByteSink.h"

namespace zks {
namespace {

using parallel::spf::transport::FunctionalByteSink;
using parallel::toolbox::FileKind;
using parallel::toolbox::TaskResult;
using parallel::zksmessages::TesselTaskExecutionInfo;
using Names = google::protobuf::RepeatedPtrField<std::string>;

std::string placeOf(const std::string& name, const RunOptions& options) {
  return options.directory + "/" + name;
}

void checkPlaceOf(const OutputArgument& output, const RunOptions& options) {
  const std::string place = placeOf(output.name, options);
  std::error_code none;
  if (output.isFolder)
    return parallel::toolbox::checkDirectory(std::filesystem::exists(place, none) ? place : options.directory);
  if (std::filesystem::is_directory(place, none))
    throw CliError("\"" + place + "\" cannot be replaced by the output: it is a directory; --output " + output.name +
                   "/ fetches a folder into it");
  parallel::toolbox::checkWritablePlace(place);
}

// Takes one reply's items to their places, in their order.
class Fetching {
 public:
  Fetching(TaskResult& result, const RunOptions& options)
      : result_(result),
        options_(options),
        missing_(setOf(result.info.missing_outputs())),
        programs_(setOf(result.info.executable_outputs())),
        folders_(setOf(result.info.output_folders())) {}

  FetchedOutputs run() {
    sayWhatIsMissing();
    for (const OutputArgument& output : options_.outputs)
      fetch(output);
    for (const std::string& folder : info().output_folders())
      parallel::toolbox::makeFolder(placeOf(folder, options_));
    for (const std::string& file : info().folder_files())
      takeFile(file);
    return std::move(fetched_);
  }

 private:
  static std::set<std::string_view> setOf(const Names& names) { return {names.begin(), names.end()}; }
  const TesselTaskExecutionInfo& info() const { return result_.info; }

  void sayWhatIsMissing() {
    for (const std::string& name : info().missing_outputs()) {
      fetched_.complete = false;
      const auto problem = info().unusable_outputs().find(name);
      if (problem == info().unusable_outputs().end())
        fetched_.notMade.push_back(name);
      else
        sayNotFetched(name, problem->second);
    }
  }

  void fetch(const OutputArgument& output) {
    const bool isFolder = folders_.contains(output.name);
    if (isFolder || missing_.contains(output.name))
      return passOver();
    if (!output.isFolder)
      return takeFile(output.name);
    fetched_.complete = false;
    sayNotFetched(output.name + "/", "it is a file and no folder");
    passOver();
  }

  void takeFile(const std::string& name) {
    result_.outputs.takeFile(placeOf(name, options_), programs_.contains(name) ? FileKind::Program : FileKind::Data);
  }

  void passOver() {
    FunctionalByteSink nowhere([](const std::byte*, std::size_t) {});
    result_.outputs.takeBytes(nowhere);
  }

  static void sayNotFetched(const std::string& name, const std::string& problem) {
    say("the output \"" + name + "\" cannot be fetched: " + problem);
  }

  TaskResult& result_;
  const RunOptions& options_;
  const std::set<std::string_view> missing_;
  const std::set<std::string_view> programs_;
  const std::set<std::string_view> folders_;
  FetchedOutputs fetched_;
};

}  // namespace

void checkOutputPlaces(const RunOptions& options) {
  for (const OutputArgument& output : options.outputs)
    checkPlaceOf(output, options);
}

FetchedOutputs fetchOutputs(TaskResult& result, const RunOptions& options) {
  return Fetching(result, options).run();
}

}  // namespace zks
