#include "cli/jobOutputs.h"

#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <limits>
#include <thread>

#include "cli/CliError.h"
#include "cli/StandardStreams.h"
#include "cli/jobTexts.h"
#include "cli/jobWaiting.h"
#include "platform/digest/Sha256.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/files/relativePath.h"
#include "platform/interrupt/throwIfInterrupted.h"
#include "toolbox/AtomicFile.h"
#include "toolbox/BlobClient.h"
#include "toolbox/folders.h"
#include "transport/streams/FunctionalByteSink.h"

namespace zks {
namespace {

using parallel::digest::Sha256;
using parallel::spf::transport::ByteSink;
using parallel::spf::transport::FunctionalByteSink;
using parallel::toolbox::FileKind;
using parallel::toolbox::JobClient;
using parallel::toolbox::JobOutputs;
using parallel::zksmessages::FetchOutputsRequest;
using parallel::zksmessages::JobSummary;
using parallel::zksmessages::ListTasksRequest;
using parallel::zksmessages::OutputFile;
using parallel::zksmessages::ReadOutputRequest;
using parallel::zksmessages::TaskOutputs;
using parallel::zksmessages::TaskSummary;
using parallel::zksmessages::WaitForChangeRequest;

std::string_view viewOf(const std::byte* data, std::size_t n) {
  return {reinterpret_cast<const char*>(data), n};
}

TaskSummary lookAtTask(JobSession& session, std::uint64_t job, std::uint64_t task) {
  ListTasksRequest request;
  request.set_job(job);
  request.set_first_task(task);
  request.set_limit(1);
  const auto reply = session.ask([&](const JobClient& client) { return client.listTasks(request); });
  if (reply.tasks_size() == 0 || reply.tasks(0).task() != task)
    throw CliError("job " + std::to_string(job) + " has no task " + std::to_string(task));
  return reply.tasks(0);
}

void waitForAnyChange(JobSession& session, std::uint64_t job, std::uint64_t& version) {
  constexpr std::int64_t kSeconds = 30;
  constexpr std::chrono::milliseconds kLeastPause{50};
  WaitForChangeRequest request;
  request.set_job(job);
  request.set_version(version);
  request.mutable_wait()->set_seconds(kSeconds);
  version = session.ask([&](const JobClient& client) { return client.waitForChange(request); }).summary().version();
  throwIfInterrupted();
  std::this_thread::sleep_for(kLeastPause);  // a large job changes faster than one task
}

bool isEnd(parallel::zksmessages::TaskState state) {
  return state >= parallel::zksmessages::TASK_STATE_SUCCEEDED;
}

// The file's content is what was said of it.
bool isSame(const std::string& place, const OutputFile& file) {
  struct stat status {};
  if (::stat(place.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
      static_cast<std::uint64_t>(status.st_size) != file.content().nbytes())
    return false;
  std::ifstream stream(place, std::ios::binary);
  Sha256 hash;
  std::string piece(std::size_t{1} << 20U, '\0');
  while (stream.read(piece.data(), static_cast<std::streamsize>(piece.size())) || stream.gcount() > 0) {
    throwIfInterrupted();
    hash.add(std::string_view(piece.data(), static_cast<std::size_t>(stream.gcount())));
  }
  return !stream.bad() && hash.digest().bytes() == file.content().sha256();
}

bool exists(const std::string& place) {
  struct stat status {};
  return ::lstat(place.c_str(), &status) == 0;
}

void passOver(JobOutputs& outputs) {
  FunctionalByteSink nowhere([](const std::byte*, std::size_t) {});
  outputs.files.takeBytes(nowhere);
}

}  // namespace

std::uint64_t beganAttempt(JobSession& session, std::uint64_t job, std::uint64_t task, bool wait) {
  for (std::uint64_t version = 0;;) {
    const TaskSummary now = lookAtTask(session, job, task);
    if (now.attempt() > 0)
      return now.attempt();
    if (!wait || isEnd(now.state())) {
      const std::string note = taskNote(now);
      throw CliError("task " + std::to_string(task) + " of job " + std::to_string(job) + " has not run: it is " +
                     stateText(now.state()) + (note.empty() ? "" : " (" + note + ")"));
    }
    waitForAnyChange(session, job, version);
  }
}

std::uint64_t nextAttempt(JobSession& session, std::uint64_t job, std::uint64_t before) {
  for (std::uint64_t version = 0;;) {
    const TaskSummary now = lookAtTask(session, job, 0);
    if (now.attempt() > before || isEnd(now.state()))
      return std::max(now.attempt(), before);
    waitForAnyChange(session, job, version);
  }
}

OutputReader::OutputReader(std::uint64_t job, std::uint64_t task, std::uint64_t attempt, OutputFile::Stream stream) {
  request_.set_job(job);
  request_.set_task(task);
  request_.set_attempt(attempt);
  request_.set_stream(stream);
}

bool OutputReader::read(JobSession& session, std::chrono::milliseconds wait) {
  request_.mutable_wait()->set_seconds(wait.count() / 1000);
  request_.mutable_wait()->set_nanos(static_cast<std::int32_t>(wait.count() % 1000 * 1'000'000));
  const auto piece = session.ask([&](const JobClient& client) { return client.readOutput(request_); });
  if (request_.stream() == OutputFile::STREAM_STANDARD_ERROR)
    writeErrorOutput(piece.bytes);
  else
    writeOutput(piece.bytes);
  request_.set_offset(piece.place.next_offset());
  ended_ = piece.place.ended();
  return !piece.bytes.empty();
}

OutputFetcher::OutputFetcher(JobSession& session, const FetchOptions& options, const JobSummary& job, Streams streams)
    : session_(session),
      options_(options),
      job_(job.job()),
      isSingle_(countAll(job.counts()) == 1 && !job.open()),
      streams_(streams) {}

OutputFetcher::Result OutputFetcher::run() {
  FetchOutputsRequest request;
  request.set_job(job_);
  request.set_first_task(options_.tasks ? options_.tasks->first : 0);
  request.set_last_task(options_.tasks ? options_.tasks->last : std::numeric_limits<std::int64_t>::max());
  for (bool more = true; more;) {
    session_.call([&](const parallel::toolbox::Connection& connection) {
      fetchPage(JobClient(connection, session_.progress(), parallel::toolbox::ErrorForm::Chain), request, more);
      return true;
    });
  }
  return result_;
}

void OutputFetcher::fetchPage(const JobClient& client, FetchOutputsRequest& request, bool& more) {
  const Result before = result_;
  JobOutputs outputs = client.fetchOutputs(request);
  try {
    for (const TaskOutputs& task : outputs.tasks.tasks())
      takeTask(task, outputs);
  } catch (...) {
    result_ = before;  // what is written is there when the page comes again
    throw;
  }
  more = outputs.tasks.has_next_task();
  if (more)
    request.set_first_task(outputs.tasks.next_task());
}

void OutputFetcher::takeTask(const TaskOutputs& task, JobOutputs& outputs) {
  ++result_.tasks;
  sayWhatIsMissing(task);
  for (const OutputFile& file : task.files()) {
    if (file.stream() == OutputFile::STREAM_FILE || streams_ == Streams::AsFiles)
      takeFile(task.task(), file, outputs);
    else if (streams_ == Streams::Printed)
      printFile(task.task(), file, outputs);
    else
      passOver(outputs);
  }
}

void OutputFetcher::sayWhatIsMissing(const TaskOutputs& task) {
  if (task.info().missing_outputs().empty())
    return;
  ++result_.withoutOutputs;
  for (const std::string& name : task.info().missing_outputs())
    say("task " + std::to_string(task.task()) + " did not make \"" + name + "\"");
}

std::string OutputFetcher::placeOf(std::uint64_t task, const OutputFile& file) const {
  std::string name = file.name();
  if (file.stream() != OutputFile::STREAM_FILE)
    name = file.stream() == OutputFile::STREAM_STANDARD_OUTPUT ? "stdout" : "stderr";
  if (!files::isRelativePath(name))
    throw Exception<parallel::toolbox::MalformedReply>("fetchOutputs",
                                                       "it has a file that would lie outside of its folder");
  return options_.directory + "/" + (isSingle_ ? "" : std::to_string(task) + "/") + name;
}

void OutputFetcher::takeFile(std::uint64_t task, const OutputFile& file, JobOutputs& outputs) {
  const bool isEmptyStream = file.stream() != OutputFile::STREAM_FILE && file.content().nbytes() == 0;
  const std::string place = placeOf(task, file);
  if (isEmptyStream)
    return passOver(outputs);
  if (isSame(place, file)) {
    ++result_.same;
    return passOver(outputs);
  }
  if (exists(place) && !options_.force) {
    ++result_.differing;
    say("\"" + place + "\" is there already and differs; --force replaces it");
    return passOver(outputs);
  }
  parallel::toolbox::makeFolder(place.substr(0, place.rfind('/')));
  writeFile(place, file, outputs);
  ++result_.files;
}

void OutputFetcher::writeFile(const std::string& place, const OutputFile& file, JobOutputs& outputs) {
  parallel::toolbox::writeFile(
      place,
      [&](ByteSink& sink) {
        Sha256 hash;
        FunctionalByteSink checked([&](const std::byte* data, std::size_t n) {
          hash.add(viewOf(data, n));
          sink.write(data, n);
        });
        outputs.files.takeBytes(checked);
        if (hash.digest().bytes() != file.content().sha256())
          throw CliError("\"" + place + "\" did not arrive as it was sent; fetch it again");
      },
      file.executable() ? FileKind::Program : FileKind::Data);
}

void OutputFetcher::printFile(std::uint64_t task, const OutputFile& file, JobOutputs& outputs) {
  std::uint64_t& printed = printed_[{task, file.stream()}];
  std::uint64_t seen = 0;
  FunctionalByteSink sink([&](const std::byte* data, std::size_t n) {
    const std::uint64_t known = std::min<std::uint64_t>(n, printed - std::min(printed, seen));
    const std::string_view fresh = viewOf(data, n).substr(static_cast<std::size_t>(known));
    seen += n;
    printed = std::max(printed, seen);
    if (file.stream() == OutputFile::STREAM_STANDARD_ERROR)
      writeErrorOutput(fresh);
    else
      writeOutput(fresh);
  });
  outputs.files.takeBytes(sink);
}

}  // namespace zks
