// What tasks have written and made, on its way to the user.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

#include "cli/JobSession.h"
#include "cli/jobOptions.h"
#include "platform/zksmessages/jobs.pb.h"

namespace zks {

constexpr std::chrono::milliseconds kLongestRead{30'000};

// The task's last attempt. Waits for the first one where told to; CliError says why there is none.
std::uint64_t beganAttempt(JobSession& session, std::uint64_t job, std::uint64_t task, bool wait);

// The attempt after `before`, once there is one; `before` again when the task has ended without another.
std::uint64_t nextAttempt(JobSession& session, std::uint64_t job, std::uint64_t before);

// Standard output or error of an attempt, passed on piece by piece to the stream of zks that is called alike.
class OutputReader {
 public:
  OutputReader(std::uint64_t job, std::uint64_t task, std::uint64_t attempt,
               parallel::zksmessages::OutputFile::Stream stream);

  // The next piece. False when there was none in that time.
  bool read(JobSession& session, std::chrono::milliseconds wait);
  bool hasEnded() const noexcept { return ended_; }

 private:
  parallel::zksmessages::ReadOutputRequest request_;
  bool ended_ = false;
};

// Fetches outputs into a folder: each file that is not there yet, or all that differ where told to replace them.
class OutputFetcher {
 public:
  enum class Streams { AsFiles, Printed, LeftOut };

  // A job of one task has its files right in the folder, another one in a folder for each task.
  OutputFetcher(JobSession& session, const FetchOptions& options, const parallel::zksmessages::JobSummary& job,
                Streams streams);

  struct Result {
    std::uint64_t tasks = 0;  // that have ended with an attempt
    std::uint64_t files = 0;  // that were written
    std::uint64_t same = 0;   // that were there already
    std::uint64_t differing = 0;
    std::uint64_t withoutOutputs = 0;  // tasks whose outputs are not all there
  };
  Result run();

 private:
  using Outputs = parallel::toolbox::JobOutputs;

  void fetchPage(const parallel::toolbox::JobClient& client, parallel::zksmessages::FetchOutputsRequest& request,
                 bool& more);
  void takeTask(const parallel::zksmessages::TaskOutputs& task, Outputs& outputs);
  void takeFile(std::uint64_t task, const parallel::zksmessages::OutputFile& file, Outputs& outputs);
  void printFile(std::uint64_t task, const parallel::zksmessages::OutputFile& file, Outputs& outputs);
  void writeFile(const std::string& place, const parallel::zksmessages::OutputFile& file, Outputs& outputs);
  bool isThere(std::uint64_t task, const parallel::zksmessages::OutputFile& file) const;
  std::string placeOf(std::uint64_t task, const parallel::zksmessages::OutputFile& file) const;
  void sayWhatIsMissing(const parallel::zksmessages::TaskOutputs& task);

  JobSession& session_;
  const FetchOptions& options_;
  std::uint64_t job_;
  bool isSingle_;
  Streams streams_;
  Result result_;
  // Bytes that have been printed of a stream: a page that breaks off comes again.
  std::map<std::pair<std::uint64_t, int>, std::uint64_t> printed_;
};

}  // namespace zks
