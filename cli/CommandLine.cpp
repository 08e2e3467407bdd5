#include "cli/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <memory>
#include <string_view>

#include "cli/CliError.h"
#include "cli/FileContents.h"
#include "cli/JobGrammar.h"
#include "cli/jobArguments.h"
#include "cli/optionHelpers.h"
#include "cli/runArguments.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "programs/optionValues.h"
#include "toolbox/Address.h"

namespace zks {
namespace {

using programs::notEmpty;
using programs::secondsAboveZero;
using programs::secondsFromZero;
using programs::sizeInBytes;
using programs::wholeNumber;

constexpr std::uint64_t kFewestOpenFiles = 4;  // as the service has it
constexpr std::uint64_t kMostOpenFiles = std::uint64_t{1} << 32;

constexpr const char* kExamples = R"(
Examples:
  zks run --file data.csv --output sum.txt -- sh -c 'cut -d, -f2 data.csv | sort > sum.txt'
      Sends data.csv, runs the command on the service, fetches sum.txt into this directory.
  zks echo --array '[[1,2],[3,4]]' --plain hello --file data.csv
      Sends items of three kinds to the service and compares what comes back.
  zks --address unix:/run/user/1000/zks.sock call runTask \
      --protobuf '{"@type": "parallel.zksmessages.TaskDescription", "argv": ["date"]}' --reply protobuf,plain,plain
      Calls a method of a running service by its name.

Without --address and $ZKS_ADDRESS the service is started inside zks, for the length of the command.
)";

constexpr const char* kEveryCommand = "Options of every command";
constexpr const char* kAddressVariable = "ZKS_ADDRESS";

constexpr const char* kItemHelp = R"(
Items go out in the order in which they are given:
  --array VALUE      numbers as nested lists, '[[1,2],[3,4]]', with a class before them if it is not float64,
                     'int32:[1,2]', true and false, or a "text"; '@FILE.npy' a NumPy file, '@FILE.cbor' a saved array
  --protobuf JSON    a message; its member "@type" names it: '{"@type": "parallel.zksmessages.TaskDescription", ...}';
                     '@FILE' reads the JSON from a file
  --plain TEXT       the bytes of the text; '@FILE' those of a file, '@@...' a text that begins with '@'
  --file PATH        the contents of a file, of any size
)";

constexpr const char* kRunExits = R"(
Files lie in the task's scratch directory under their own names, or that before the "="; a path that holds an "=" and no
slash before it is written with one, as in ./a=b. Outputs are fetched from there; NAME/ is a folder and may go into one
that is there already. Sizes may be written as 512M, 2G.
Exit code: the task's own; 128 + N when signal N ended it; 124 when its time was over; 127 when it could not be started;
125 when zks itself failed or an output is missing; 130 after Ctrl-C.
)";

// Item options of one command, which keep the order of the line.
class ItemOptions {
 public:
  explicit ItemOptions(CLI::App& command) : command_(command) {
    add("--array", ItemArgument::Form::Array, "VALUE", "An array (see below)");
    add("--protobuf", ItemArgument::Form::Message, "JSON", "A message (see below)");
    add("--plain", ItemArgument::Form::Plain, "TEXT", "Bytes (see below)");
    add("--file", ItemArgument::Form::File, "PATH", "The contents of a file");
  }

  std::vector<ItemArgument> inOrder() const {
    std::map<const CLI::Option*, std::size_t> used;
    std::vector<ItemArgument> items;
    for (const CLI::Option* option : command_.parse_order()) {
      const auto form = forms_.find(option);
      if (form != forms_.end())
        items.push_back({form->second, option->results().at(used[option]++)});
    }
    return items;
  }

 private:
  void add(const char* name, ItemArgument::Form form, const char* type, const char* help) {
    CLI::Option* option = command_.add_option(name)->description(help)->type_name(type);
    // One value each time the option is given; brackets in a value are the array's and not a list of CLI11's.
    option->type_size(1)->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)->allow_extra_args(false);
    forms_[option] = form;
  }

  CLI::App& command_;
  std::map<const CLI::Option*, ItemArgument::Form> forms_;
};

[[noreturn]] void refuseOptions(const std::string& text) {
  throw CLI::ValidationError(text);
}

// `source` says where it is from, unless that is plain to see.
void checkAddress(const std::string& address, const std::string& source) {
  if (address.empty())
    return;
  try {
    parallel::toolbox::resolveAddress(address);
  } catch (const Exception<parallel::toolbox::BadAddress>& error) {
    refuseOptions(source + error.what());
  }
}

ReplyKind parseReplyKind(std::string_view word) {
  constexpr std::string_view filePrefix = "file:";
  if (word == "array")
    return {ReplyKind::Form::Array, {}};
  if (word == "protobuf")
    return {ReplyKind::Form::Message, {}};
  if (word == "plain")
    return {ReplyKind::Form::Plain, {}};
  if (word == "file")
    return {ReplyKind::Form::File, {}};
  if (word.starts_with(filePrefix) && word.size() > filePrefix.size())
    return {ReplyKind::Form::File, std::string(word.substr(filePrefix.size()))};
  refuseOptions("--reply knows the kinds array, protobuf, plain, file and file:PATH, and not \"" + std::string(word) +
                "\"");
}

std::vector<ReplyKind> parseReplyKinds(const std::vector<std::string>& lists) {
  std::vector<ReplyKind> kinds;
  for (std::string_view list : lists) {
    while (!list.empty()) {
      const std::size_t comma = std::min(list.find(','), list.size());
      kinds.push_back(parseReplyKind(list.substr(0, comma)));
      list.remove_prefix(std::min(comma + 1, list.size()));
    }
  }
  return kinds;
}

std::string firstLine(std::string text) {
  text.erase(std::min(text.find('\n'), text.size()));
  while (!text.empty() && (text.back() == '.' || text.back() == ' '))
    text.pop_back();
  return text;
}

// What may stand with every command is told of with each.
class CommandHelp : public CLI::Formatter {
 public:
  std::string make_footer(const CLI::App* command) const override {
    std::string footer = Formatter::make_footer(command);
    const CLI::App* program = command;
    while (program->get_parent() != nullptr)
      program = program->get_parent();
    if (program == command)
      return footer;
    const auto ofEveryCommand = [](const CLI::Option* option) { return option->get_group() == kEveryCommand; };
    return make_group(kEveryCommand, false, program->get_options(ofEveryCommand)) + footer;
  }
};

struct Grammar {
  CLI::App app{"zks: run commands and call methods on a job-scheduler service (ZKS)", "zks"};
  CommandLine line;
  RunOptions run;
  EchoOptions echo;
  CallOptions call;
  CLI::Option* address = nullptr;
  std::vector<std::string> inputs;
  std::vector<std::string> outputs;
  std::vector<std::string> environment;
  std::vector<std::string> replyLists;
  CLI::App* runCommand = nullptr;
  CLI::App* echoCommand = nullptr;
  CLI::App* callCommand = nullptr;
  std::optional<JobGrammar> jobs;
  std::optional<ItemOptions> echoItems;
  std::optional<ItemOptions> callItems;

  Grammar() {
    app.set_version_flag("--version", std::string("zks ") + ZKS_VERSION);
    app.footer(kExamples);
    app.formatter(std::make_shared<CommandHelp>());
    app.option_defaults()->group(kEveryCommand);
    addConnection();
    app.add_option("--log", line.global.logLevel,
                   "Log records on standard error: off, error, warning, info, detail or trace")
        ->type_name("LEVEL")
        ->capture_default_str();
    addRepeated(app, "--descriptors", line.global.descriptorFiles, "FILE",
                "Message types to know: a descriptor set of protoc (with --include_imports)");
    app.option_defaults()->group("Options");
    addRun();
    addEcho();
    addCall();
    jobs.emplace(app);
  }

  void addConnection() {
    address = app.add_option("--address", line.global.address,
                             "The service: unix:PATH, unix: alone for the default socket, or HOST:PORT "
                             "(default: one inside zks; for kept jobs your own zksd, started if need be)")
                  ->type_name("ADDRESS")
                  ->envname(kAddressVariable)
                  ->check(asValidator(notEmpty()));
    CLI::Option* tls = app.add_option("--tls", line.global.tlsDirectory,
                                      "The client's credentials for HOST:PORT: ca.pem, client.pem, client-key.pem and "
                                      "token (default: $ZKS_TLS, or ~/.local/state/zks/tls)");
    tls->type_name("DIR")->needs(address)->check(asValidator(notEmpty()));
    app.add_flag("--insecure", line.global.insecure,
                 "Connect to HOST:PORT in plain text, which others can read and alter")
        ->needs(address)
        ->excludes(tls);
    addSeconds("--connect-timeout", line.global.connectSeconds, "How long to wait for the service to let us in")
        ->needs(address);
    addSeconds("--idle-timeout", line.global.idleSeconds,
               "How long a reply that has begun may pause while it is received; 0: for ever")
        ->needs(address);
    app.add_option("--max-reply", line.global.maxReplyBytes, "Refuse larger replies; in bytes or as 512M, 2G")
        ->type_name("BYTES")
        ->transform(asValidator(sizeInBytes()))
        ->needs(address);
  }

  CLI::Option* addSeconds(const char* name, double& target, const char* help) {
    return app.add_option(name, target, help)
        ->type_name("SECONDS")
        ->check(asValidator(secondsFromZero()))
        ->capture_default_str();
  }

  CLI::App* addCommand(const char* name, const char* help, const char* footer) {
    CLI::App* command = app.add_subcommand(name, help);
    command->fallthrough();
    command->footer(footer);
    return command;
  }

  void addRun() {
    runCommand = addCommand("run", "Run a command on the service: zks run [OPTIONS] -- COMMAND ARG...", kRunExits);
    addRepeated(*runCommand, "--file", inputs, "[NAME=]PATH", "A file or folder to send along");
    runCommand
        ->add_option("--stdin", run.standardInput, "The file that the task reads as its standard input; -: that of zks")
        ->type_name("PATH")
        ->check(asValidator(notEmpty()));
    addRepeated(*runCommand, "--output", outputs, "NAME", "A file or folder that the task makes, to fetch");
    runCommand->add_option("--to", run.directory, "Where outputs go")
        ->type_name("DIR")
        ->check(asValidator(notEmpty()))
        ->capture_default_str();
    addRepeated(*runCommand, "--env", environment, "NAME=VALUE", "Set an environment variable of the task");
    runCommand->add_flag("--clear-environment", run.clearEnvironment,
                         "The task has the variables of --env alone, and none of the service's");
    addLimits(run.limits);
  }

  void addLimits(TaskLimitOptions& limits) {
    runCommand->add_option("--timeout", limits.timeoutSeconds, "How long the task may run before it is ended")
        ->type_name("SECONDS")
        ->check(asValidator(secondsAboveZero()));
    runCommand->add_option("--cpu-time", limits.cpuSeconds, "Processor time of each of its processes")
        ->type_name("SECONDS")
        ->check(asValidator(secondsAboveZero()));
    runCommand->add_option("--memory-bytes", limits.memoryBytes, "Address space of each of its processes")
        ->type_name("BYTES")
        ->transform(asValidator(sizeInBytes(1)));
    runCommand->add_option("--file-bytes", limits.fileBytes, "The largest file that it may write")
        ->type_name("BYTES")
        ->transform(asValidator(sizeInBytes()));
    runCommand
        ->add_option("--open-files", limits.openFiles, "Files that each of its processes may have open, at least 4")
        ->type_name("NUMBER")
        ->check(asValidator(wholeNumber(kFewestOpenFiles, kMostOpenFiles)));
  }

  void addEcho() {
    echoCommand = addCommand("echo", "Send items to the service and compare what comes back", kItemHelp);
    echoItems.emplace(*echoCommand);
    echoCommand->add_option("--save", echo.saveDirectory, "Keep what came back as files here")
        ->type_name("DIR")
        ->check(asValidator(notEmpty()));
  }

  void addCall() {
    callCommand = addCommand("call", "Call a method by its name and show the reply", kItemHelp);
    callCommand->add_option("METHOD", call.method, "The method")->required()->check(asValidator(notEmpty()));
    callItems.emplace(*callCommand);
    addRepeated(*callCommand, "--reply", replyLists, "KINDS",
                "The kinds of the reply's items, which a reply does not tell: array,protobuf,plain,file,file:PATH");
    callCommand->add_option("--save", call.saveDirectory, "Keep what came back as files here")
        ->type_name("DIR")
        ->check(asValidator(notEmpty()));
  }

  // What CLI11 has parsed, checked further.
  CommandLine result(std::vector<std::string> command) {
    if (app.get_subcommands().empty())
      refuseOptions("there is no command; the commands are " + commandNames());
    checkAddress(line.global.address, isFromEnvironment(*address) ? std::string("$") + kAddressVariable + ": " : "");
    if (!runCommand->parsed() && !jobs->takesCommand() && !command.empty())
      refuseOptions("only \"run\" and \"submit\" take a command after --");
    if (auto job = jobs->result(command)) {
      line.command = std::move(*job);
      return line;
    }
    if (runCommand->parsed()) {
      run.command = std::move(command);
      for (const std::string& input : inputs)
        run.inputs.push_back(parseInput(input));
      for (const std::string& output : outputs)
        run.outputs.push_back(parseOutput(output));
      run.environment = splitEnvironment(environment);
      checkRun(run);
      line.command = run;
    } else if (echoCommand->parsed()) {
      echo.items = echoItems->inOrder();
      line.command = echo;
    } else {
      call.items = callItems->inOrder();
      call.reply = parseReplyKinds(replyLists);
      line.command = call;
    }
    return line;
  }

  bool isFromEnvironment(const CLI::Option& option) const {
    const auto& given = app.parse_order();
    return option.count() > 0 && std::find(given.begin(), given.end(), &option) == given.end();
  }

  // CLI11 takes a word in a command's place for one too many.
  std::string complaint(const CLI::ParseError& error) const {
    const std::vector<std::string> words = app.remaining();
    const bool isCommand = app.get_subcommands().empty() && !words.empty() && !words.front().starts_with('-');
    if (isCommand && dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr)
      return "there is no command \"" + words.front() + "\"; the commands are " + commandNames();
    return firstLine(error.what());
  }

  // "run, echo and call"
  std::string commandNames() const {
    std::string names;
    const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
    for (const CLI::App* command : commands)
      names += (names.empty() ? "" : command == commands.back() ? " and " : ", ") + command->get_name();
    return names;
  }

  // Those that were given, the last one being of the one before: "workers drain".
  std::vector<const CLI::App*> parsedCommands() const {
    std::vector<const CLI::App*> parsed;
    for (const CLI::App* command = &app; !command->get_subcommands().empty(); parsed.push_back(command))
      command = command->get_subcommands().back();
    return parsed;
  }

  std::string helpHint() const {
    std::string hint = "\"zks ";
    for (const CLI::App* command : parsedCommands())
      hint += command->get_name() + " ";
    return hint + "--help\"";
  }

  std::string help() const {
    const auto parsed = parsedCommands();
    if (parsed.empty())
      return app.help();
    return parsed.back()->help(parsed.size() == 1 ? "zks" : "zks " + parsed.front()->get_name());
  }
};

// The task's own words are not ours to parse.
struct Words {
  explicit Words(std::vector<std::string> arguments) {
    const auto mark = std::find(arguments.begin(), arguments.end(), "--");
    command.assign(mark == arguments.end() ? mark : mark + 1, arguments.end());
    arguments.erase(mark, arguments.end());
    own = std::move(arguments);
  }

  std::vector<std::string> own;
  std::vector<std::string> command;
};

void parseWith(Grammar& grammar, std::vector<std::string> arguments) {
  std::reverse(arguments.begin(), arguments.end());  // CLI11 takes them from the back
  grammar.app.parse(std::move(arguments));
}

// What is said in the script, in front of what is said beside it.
std::vector<std::string> withOptionsOf(const std::string& script, std::vector<std::string> arguments) {
  const FileContents file(script);
  const auto bytes = file.bytes();
  const auto options = optionsInScript({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  const auto submit = std::find(arguments.begin(), arguments.end(), "submit");
  arguments.insert(submit == arguments.end() ? submit : submit + 1, options.begin(), options.end());
  return arguments;
}

// With a script's options when it names one.
CommandLine parse(std::optional<Grammar>& grammar, const Words& words) {
  grammar.emplace();
  parseWith(*grammar, words.own);
  const std::string script = grammar->jobs->script();
  if (script.empty())
    return grammar->result(words.command);
  grammar.emplace();
  parseWith(*grammar, withOptionsOf(script, words.own));
  return grammar->result(words.command);
}

}  // namespace

std::variant<CommandLine, EarlyExit> parseCommandLine(std::vector<std::string> arguments) {
  const Words words(std::move(arguments));
  std::optional<Grammar> grammar;
  try {
    return parse(grammar, words);
  } catch (const CLI::CallForHelp&) {
    return EarlyExit{0, grammar->help()};
  } catch (const CLI::CallForVersion& version) {
    return EarlyExit{0, std::string(version.what()) + "\n"};
  } catch (const CliError& error) {
    return EarlyExit{kUsageExit, error.what() + ("; " + grammar->helpHint()) + " tells more"};
  } catch (const CLI::ParseError& error) {
    return EarlyExit{kUsageExit, grammar->complaint(error) + "; " + grammar->helpHint() + " tells more"};
  }
}

}  // namespace zks
