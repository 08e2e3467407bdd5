#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "cli/CliError.h"
#include "cli/ItemReader.h"
#include "cli/ProgressBar.h"
#include "cli/ReplyPrinter.h"
#include "cli/Session.h"
#include "cli/commands.h"
#include "cli/requestItem.h"
#include "toolbox/AtomicFile.h"

namespace zks {
namespace {

using parallel::toolbox::Item;
using parallel::toolbox::Reply;
using ReplyForm = ReplyKind::Form;

void show(ReplyPrinter& printer, const ReplyKind& kind) {
  switch (kind.form) {
    case ReplyForm::Array:
      printer.showArray();
      break;
    case ReplyForm::Message:
      printer.showMessage();
      break;
    case ReplyForm::Plain:
      printer.showPlain();
      break;
    case ReplyForm::File:
      printer.showFile(kind.path, "");
      break;
  }
}

// Before the call is made for nothing.
void checkPlaces(const CallOptions& options) {
  if (!options.saveDirectory.empty())
    parallel::toolbox::checkDirectory(options.saveDirectory);
  std::set<std::string> paths;
  for (const ReplyKind& kind : options.reply) {
    if (kind.path.empty())
      continue;
    if (!paths.insert(std::filesystem::path(kind.path).lexically_normal().string()).second)
      throw UsageError("--reply names the file \"" + kind.path + "\" twice");
    parallel::toolbox::checkWritablePlace(kind.path);
  }
}

void checkKinds(const Reply& reply, const CallOptions& options) {
  if (reply.itemCount() == options.reply.size())
    return;
  throw CliError("the reply to " + options.method + " has " + std::to_string(reply.itemCount()) +
                 " items and --reply names " + std::to_string(options.reply.size()) + " kinds; name the kind of each");
}

}  // namespace

int callCommand(const GlobalOptions& global, const CallOptions& options) {
  loadDescriptors(global);
  std::vector<Item> items;
  for (const ItemArgument& argument : options.items)
    items.push_back(requestItem(argument, readItem(argument).get()));
  checkPlaces(options);
  const Session session(global);
  const ProgressBar bar(session.progress());
  Reply reply = session.client().call(options.method, items);
  checkKinds(reply, options);
  ReplyPrinter printer(reply, options.saveDirectory);
  for (const ReplyKind& kind : options.reply)
    show(printer, kind);
  return 0;
}

}  // namespace zks
