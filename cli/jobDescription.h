// A job as the service is told of it, out of what the user wrote.
//
// Errors: UsageError and CliError; `CannotReadFile` for what cannot be sent.
#pragma once

#include <string>
#include <vector>

#include "cli/jobOptions.h"
#include "platform/zksmessages/jobs.pb.h"
#include "toolbox/BlobClient.h"

namespace zks {

struct DescribedJob {
  parallel::zksmessages::JobDescription job;
  std::vector<parallel::toolbox::LocalBlob> blobs;  // those that do not travel in the description
};

// Reads the files. The jobs that it waits for are not looked up: `dependencies` are theirs.
DescribedJob describeJob(const SubmitOptions& options,
                         const std::vector<parallel::zksmessages::Dependency>& dependencies);

// The text with its braces doubled, so that it stands for itself where {index} and {line} stand for those of the task.
std::string literalText(const std::string& text);

// Lines, each with its end. The last one may lack it.
struct Lines {
  std::string text;
  std::uint64_t count = 0;
};
Lines linesOf(std::string text);
// A JSON list of texts.
Lines linesOfJson(const std::string& json);

// The variables of this process that a task gets: those that name its user, language, zone and programs, or all; then those
// of `settings`, NAME or NAME=VALUE. Values that are not UTF-8 are left out.
std::vector<std::pair<std::string, std::string>> taskEnvironment(const std::vector<std::string>& settings, bool whole);

}  // namespace zks
