// What the user asked for: the command line, taken apart and checked as far as its words go.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "cli/jobOptions.h"

namespace zks {

// One item as given on the line; what stands for it is read later.
struct ItemArgument {
  enum class Form { Array, Message, Plain, File };
  Form form = Form::Array;
  std::string text;

  bool operator==(const ItemArgument&) const = default;
};

// How one item of a reply is to be read.
struct ReplyKind {
  enum class Form { Array, Message, Plain, File };
  Form form = Form::Array;
  std::string path;  // where a File goes; empty: it is only looked at

  bool operator==(const ReplyKind&) const = default;
};

struct GlobalOptions {
  std::string
      address;  // empty: an embedded service, or for kept jobs the user's own. $ZKS_ADDRESS where the line has none
  std::string tlsDirectory;  // empty: the default
  bool insecure = false;
  double connectSeconds = 10;
  double idleSeconds = 600;  // 0: no limit
  std::optional<std::uint64_t> maxReplyBytes;
  std::string logLevel = "off";
  std::vector<std::string> descriptorFiles;
};

// What goes along with a task, and what it is called there.
struct InputArgument {
  std::string name;
  std::string path;

  bool operator==(const InputArgument&) const = default;
};

// What the task makes, to be fetched.
struct OutputArgument {
  std::string name;
  bool isFolder = false;  // it is to be one; else it may be

  bool operator==(const OutputArgument&) const = default;
};

// Absent: no limit.
struct TaskLimitOptions {
  std::optional<double> timeoutSeconds;
  std::optional<double> cpuSeconds;
  std::optional<std::uint64_t> memoryBytes;
  std::optional<std::uint64_t> fileBytes;
  std::optional<std::uint64_t> openFiles;
};

struct RunOptions {
  std::vector<InputArgument> inputs;
  std::optional<std::string> standardInput;  // a path, or "-" for that of zks; none: it is empty
  std::vector<OutputArgument> outputs;
  std::string directory = ".";
  std::vector<std::pair<std::string, std::string>> environment;
  bool clearEnvironment = false;
  TaskLimitOptions limits;
  std::vector<std::string> command;
};

struct EchoOptions {
  std::vector<ItemArgument> items;
  std::string saveDirectory;  // empty: nothing is saved
};

struct CallOptions {
  std::string method;
  std::vector<ItemArgument> items;
  std::vector<ReplyKind> reply;
  std::string saveDirectory;
};

struct CommandLine {
  GlobalOptions global;
  std::variant<RunOptions, EchoOptions, CallOptions, JobCommand> command;
};

// The line asked for nothing but a text (help, the version), or was wrong.
struct EarlyExit {
  int code = 0;
  std::string text;  // for standard output when the code is 0, else one line for standard error
};

constexpr int kUsageExit = 2;

// `arguments` are those after the program's name.
std::variant<CommandLine, EarlyExit> parseCommandLine(std::vector<std::string> arguments);

}  // namespace zks
