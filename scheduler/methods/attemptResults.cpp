#include "scheduler/methods/attemptResults.h"

#include <set>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/ustring.h"
#include "platform/errors/visibleText.h"
#include "platform/files/relativePath.h"
#include "scheduler/methods/TaskArrays.h"
#include "scheduler/methods/holders.h"
#include "scheduler/methods/ledgerForms.h"
#include "scheduler/methods/requests.h"

namespace parallel::scheduler::methods {

using store::Digest;
using zksmessages::AttemptResult;
using zksmessages::OutputFile;

namespace {

constexpr std::size_t kMostErrorEnd = std::size_t{4} << 10;
constexpr int kMostFiles = 200'000;

void checkFiles(const ServerCall& call, const std::string& field, const AttemptResult& result) {
  if (result.files_size() > kMostFiles)
    refuseField(call, field + ".files", "more than " + std::to_string(kMostFiles));
  std::set<std::pair<int, std::string_view>> seen;
  for (const OutputFile& file : result.files()) {
    if (!OutputFile::Stream_IsValid(file.stream()))
      refuseField(call, field + ".files", "an unknown stream");
    const bool isFile = file.stream() == OutputFile::STREAM_FILE;
    if (isFile ? !files::isRelativePath(file.name()) || file.name().find('\0') != std::string::npos
               : !file.name().empty())
      refuseField(call, field + ".files", errors::inQuotes(file.name()) + " is not the path of a file in a folder");
    if (!seen.insert({file.stream(), file.name()}).second)
      refuseField(call, field + ".files", errors::inQuotes(file.name()) + " is there twice");
  }
}

std::size_t contentBytes(const AttemptResult& result) {
  std::size_t nbytes = 0;
  for (const OutputFile& file : result.files())
    nbytes += file.content().content().size();
  return nbytes;
}

}  // namespace

DeliveredResult::DeliveredResult(const ServerCall& call, const std::string& field, AttemptResult result)
    : result_(std::move(result)), attempt_(fromMessage(result_.attempt())), ending_(fromMessage(result_.ending())) {
  if (!zksmessages::Ending::Reason_IsValid(result_.ending().reason()))
    refuseField(call, field + ".ending", "its reason is unknown");
  if (result_.error_end().size() > kMostErrorEnd)
    refuseField(call, field + ".error_end", "more than " + std::to_string(kMostErrorEnd) + " bytes");
  checkFiles(call, field, result_);
  *undecided_.mutable_attempt() = result_.attempt();
  const bool staysInRow = contentBytes(result_) <= kMostInRow;
  for (OutputFile& file : *result_.mutable_files()) {
    zksmessages::Blob blob = file.content();
    if (const std::string problem = normalise(blob, contents_); !problem.empty())
      refuseField(call, field + ".files", errors::inQuotes(file.name()) + ": " + problem);
    const bool hasContent = file.content().has_content();
    if (hasContent && staysInRow) {
      blob.set_content(std::move(contents_.back()));
      contents_.pop_back();
    } else {
      digests_.push_back(*Digest::fromBytes(blob.sha256()));
    }
    *file.mutable_content() = std::move(blob);
  }
  // The row says these itself.
  result_.clear_attempt();
  result_.clear_ending();
}

void DeliveredResult::keepBlobs(store::Store& store, store::WallTime now) try {
  if (store.room() == store::Room::none) {
    undecided_.set_later(true);
    return;
  }
  if (digests_.empty())
    return;
  const store::Holder holder = holderOfAttempt(attempt_);
  if (!contents_.empty())
    store.blobs().putSmall(holder, contents_, now);
  for (const Digest& digest : store.blobs().pin(holder, digests_, now))
    undecided_.add_missing_blobs(std::string(digest.bytes()));
} catch (const Exception<parallel::store::QuotaExceeded>&) {
  undecided_.set_later(true);
}

AttemptResult resultOf(const ledger::AttemptRecord& attempt) {
  AttemptResult result;
  result.ParseFromString(attempt.details);
  return result;
}

std::string errorEndOf(const AttemptResult& result) {
  if (!result.error_end().empty())
    return result.error_end();
  for (const OutputFile& file : result.files()) {
    if (file.stream() != OutputFile::STREAM_STANDARD_ERROR)
      continue;
    const std::string& content = file.content().content();
    const std::string end = content.substr(content.size() - std::min(content.size(), kMostErrorEnd));
    return fl::i18n::to_string(fl::i18n::to_ustring(end));
  }
  return "";
}

}  // namespace parallel::scheduler::methods
