#include "worker/AttemptRunner.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <optional>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "execution/ProcessRunner.h"
#include "execution/listFolder.h"
#include "platform/errors/systemError.h"
#include "platform/errors/visibleText.h"
#include "platform/files/UniqueFd.h"
#include "platform/files/relativePath.h"
#include "toolbox/BlobClient.h"
#include "worker/matchFiles.h"
#include "worker/resultMessages.h"

namespace parallel::worker {

using errors::inQuotes;
using execution::fileStatus;
using execution::OutputStatus;
using execution::ProcessResult;
using execution::TaskDescriptors;
using execution::TaskScratch;
using zksmessages::AttemptResult;
using zksmessages::OutputFile;
using zksmessages::TaskCommand;
namespace fs = std::filesystem;

namespace {

// Of all files of a result that travel inside it.
constexpr std::uint64_t kInlineBytesOfResult = std::uint64_t{1} << 20U;
constexpr std::size_t kMostFiles = 100'000;
constexpr mode_t kPrivateFile = S_IRUSR | S_IWUSR;

void checkName(const std::string& name, const char* what) {
  if (!::files::isRelativePath(name))
    throw std::runtime_error(std::string("The ") + what + " " + inQuotes(name) + " leads out of the task's directory.");
}

void writeContent(const fs::path& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary);
  if (!(file << content).flush())
    throw std::runtime_error("The input \"" + path.string() + "\" cannot be written.");
}

std::string readContent(const fs::path& path, std::uint64_t nbytes) {
  std::ifstream file(path, std::ios::binary);
  std::string content(nbytes, '\0');
  file.read(content.data(), static_cast<std::streamsize>(nbytes));
  content.resize(static_cast<std::size_t>(file.gcount()));
  return content;
}

::files::UniqueFd openFolder(const std::string& path) {
  ::files::UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder)
    ::errors::throwSystemError("Opening the folder " + inQuotes(path));
  return folder;
}

}  // namespace

std::uint32_t Assignment::cores() const {
  return std::max(needs().cores(), 1U);
}

zksmessages::Resources Assignment::needs() const {
  zksmessages::Resources needs = array->needs();
  if (!array->has_needs())
    needs.set_cores(1);
  return needs;
}

SpooledFile::~SpooledFile() {
  ::unlink(path_.c_str());
}

class AttemptRunner::Run {
 public:
  Run(AttemptRunner& runner, const Assignment& assignment, const std::stop_token& stop)
      : runner_(runner), assignment_(assignment), stop_(stop) {
    *outcome_.result.mutable_attempt() = assignment.attempt;
  }

  AttemptOutcome run(const OnStart& onStart) {
    ProcessResult process;
    try {
      command_ = expandCommand(assignment_.array->command(), assignment_.values);
      if (command_.argv().empty() || command_.argv(0).empty())
        throw std::runtime_error("The task has no program.");
      scratch_.emplace(runner_.area_);
      prepare();
      onStart(*scratch_);
      process = execute();
    } catch (const std::exception& problem) {
      process.outcome = stop_.stop_requested() ? ProcessResult::Outcome::Stopped : ProcessResult::Outcome::NotStarted;
      process.message = problem.what();
    }
    describe(process);
    return std::move(outcome_);
  }

 private:
  bool isInPlace() const { return !command_.in_place_folder().empty(); }

  void prepare() {
    if (command_.has_standard_input())
      bringStandardInput(command_.standard_input());
    if (isInPlace())
      return;
    for (const std::string& name : command_.outputs())
      checkName(name, "output");
    for (const auto& input : command_.inputs())
      bring(input);
  }

  void bring(const zksmessages::TaskInput& input) {
    checkName(input.name(), "input");
    const fs::path path = scratch_->createInput(input.name(), input.executable() ? S_IRWXU : kPrivateFile);
    if (input.content().has_content())
      writeContent(path, input.content().content());
    else
      placeCopy(cached(input.content())->path(), path, input.executable() ? S_IRWXU : kPrivateFile);
  }

  void bringStandardInput(const zksmessages::Blob& blob) {
    if (blob.has_content()) {
      const fs::path path = scratch_->createStandardInput();
      writeContent(path, blob.content());
      input_ = ::files::UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    } else {
      inputUse_ = cached(blob);
      input_ = ::files::UniqueFd(::open(inputUse_->path().c_str(), O_RDONLY | O_CLOEXEC));
    }
    if (!input_)
      ::errors::throwSystemError("Opening the standard input");
  }

  std::unique_ptr<InputCache::Use> cached(const zksmessages::Blob& blob) {
    const auto digest = toolbox::digestOf(blob);
    if (!digest)
      throw std::runtime_error("An input has no SHA-256.");
    return runner_.cache_.use(*digest, blob.nbytes(),
                              [&](const std::string& path) { runner_.fetch_(blob, path, stop_); });
  }

  ProcessResult execute() {
    const TaskDescriptors opened = scratch_->open(false);
    ::files::UniqueFd folder;
    if (isInPlace())
      folder = openFolder(command_.in_place_folder());
    execution::ProcessSpec spec;
    spec.argv.assign(command_.argv().begin(), command_.argv().end());
    spec.environment = environmentOf(command_, assignment_.attempt, assignment_.values, assignment_.cores());
    spec.directory = isInPlace() ? folder.get() : opened.directory.get();
    spec.standardInput = input_.get();
    spec.standardOutput = opened.output.get();
    spec.standardError = opened.error.get();
    spec.limits = limitsOf(command_.limits());
    spec.killGrace = runner_.killGrace_;
    return execution::runProcess(spec, stop_);
  }

  void describe(const ProcessResult& process) {
    outcome_.isStopped = process.outcome == ProcessResult::Outcome::Stopped;
    AttemptResult& result = outcome_.result;
    *result.mutable_ending() = endingOf(process);
    *result.mutable_info() = infoOf(process);
    if (!scratch_ || outcome_.isStopped)
      return;
    keep(OutputFile::STREAM_STANDARD_OUTPUT, "", scratch_->standardOutput());
    keep(OutputFile::STREAM_STANDARD_ERROR, "", scratch_->standardError());
    if (!isInPlace())
      keepOutputs();
  }

  void keepOutputs() {
    std::set<std::string> names;
    for (const std::string& output : command_.outputs()) {
      if (!isPattern(output))
        addFiles(output, names);
      else
        for (const std::string& name : matchFiles(scratch_->workDirectory(), output))
          addFiles(name, names);
    }
    for (const std::string& name : names)
      keep(OutputFile::STREAM_FILE, name, scratch_->output(name));
  }

  // Itself, or the files in it.
  void addFiles(const std::string& name, std::set<std::string>& names) {
    if (!S_ISDIR(fileStatus(scratch_->output(name)).mode)) {
      names.insert(name);
      return;
    }
    const auto contents = execution::listFolder(scratch_->workDirectory(), name, kMostFiles);
    names.insert(contents.files.begin(), contents.files.end());
    for (const auto& [path, problem] : contents.unusable)
      tellMissing(path, problem);
  }

  void tellMissing(const std::string& name, const std::string& problem) {
    outcome_.result.mutable_info()->add_missing_outputs(name);
    if (!problem.empty())
      (*outcome_.result.mutable_info()->mutable_unusable_outputs())[name] = problem;
  }

  void keep(OutputFile::Stream stream, const std::string& name, const fs::path& path) {
    const OutputStatus status = fileStatus(path);
    if (stream != OutputFile::STREAM_FILE && status.nbytes == 0)
      return;
    if (!status.isThere)
      return tellMissing(name, status.problem);
    try {
      OutputFile file;
      file.set_stream(stream);
      file.set_name(name);
      file.set_executable(stream == OutputFile::STREAM_FILE && (status.mode & S_IXUSR) != 0);
      *file.mutable_content() = keptContent(path, status.nbytes);
      *outcome_.result.add_files() = std::move(file);
    } catch (const std::exception& problem) {
      tellMissing(name, problem.what());
    }
  }

  // A small one goes into the result, a larger one to the spool.
  zksmessages::Blob keptContent(const fs::path& path, std::uint64_t nbytes) {
    if (nbytes <= toolbox::kInlineBlobBytes && inlineBytes_ + nbytes <= kInlineBytesOfResult) {
      inlineBytes_ += nbytes;
      return toolbox::LocalBlob::ofBytes(readContent(path, nbytes)).described();
    }
    static std::atomic<std::uint64_t> number{0};
    auto file = std::make_shared<const SpooledFile>((runner_.spool_ / ("file-" + std::to_string(++number))).string());
    fs::rename(path, file->path());
    zksmessages::Blob blob;
    const auto local = toolbox::LocalBlob::ofFile(file->path());
    blob.set_sha256(std::string(local.digest().bytes()));
    blob.set_nbytes(local.nbytes());
    outcome_.files.push_back(std::move(file));
    return blob;
  }

  AttemptRunner& runner_;
  const Assignment& assignment_;
  const std::stop_token& stop_;
  TaskCommand command_;
  std::optional<TaskScratch> scratch_;
  std::unique_ptr<InputCache::Use> inputUse_;
  ::files::UniqueFd input_;
  AttemptOutcome outcome_;
  std::uint64_t inlineBytes_ = 0;
};

AttemptRunner::AttemptRunner(execution::ScratchArea& area, InputCache& cache, fs::path spool, Fetch fetch,
                             std::chrono::nanoseconds killGrace)
    : area_(area), cache_(cache), spool_(std::move(spool)), fetch_(std::move(fetch)), killGrace_(killGrace) {}

AttemptOutcome AttemptRunner::run(const Assignment& assignment, const std::stop_token& stop, const OnStart& onStart) {
  return Run(*this, assignment, stop).run(onStart);
}

}  // namespace parallel::worker
