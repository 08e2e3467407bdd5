#include <filesystem>
#include <string>
#include <vector>

#include "cli/CliError.h"
#include "cli/ItemReader.h"
#include "cli/ProgressBar.h"
#include "cli/ReplyPrinter.h"
#include "cli/Session.h"
#include "cli/commands.h"
#include "cli/requestItem.h"

namespace zks {
namespace {

using parallel::toolbox::Item;
using parallel::toolbox::Reply;
using ItemForm = ItemArgument::Form;

Item echoItem(const ItemArgument& argument, const qxArray* value) {
  return argument.form == ItemForm::Message ? parallel::toolbox::resultItem(value) : requestItem(argument, value);
}

// True when what came is what went.
bool show(ReplyPrinter& printer, const ItemArgument& argument, const qxArray* sent) {
  switch (argument.form) {
    case ItemForm::Array:
      return printer.showArray(sent);
    case ItemForm::Message:
      return printer.showMessage(sent);
    case ItemForm::Plain:
      return printer.showPlain(sent);
    case ItemForm::File:
      return printer.showFile("", std::filesystem::path(argument.text).filename().string(), argument.text);
  }
  return false;
}

}  // namespace

int echoCommand(const GlobalOptions& global, const EchoOptions& options) {
  loadDescriptors(global);
  std::vector<qxArrayPtr> values;
  std::vector<Item> items;
  for (const ItemArgument& argument : options.items) {
    values.push_back(readItem(argument));
    items.push_back(echoItem(argument, values.back().get()));
  }
  const Session session(global);
  const ProgressBar bar(session.progress());
  Reply reply = session.client().echo(items);
  ReplyPrinter printer(reply, options.saveDirectory);
  std::string different;
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (!show(printer, options.items[i], values[i].get()))
      different += (different.empty() ? "" : ", ") + std::to_string(i + 1);
  }
  if (!different.empty())
    throw CliError("what came back is not what was sent: item " + different);
  return 0;
}

}  // namespace zks
