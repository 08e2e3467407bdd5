#include "worker/WorkerOptions.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <stdexcept>

#include "platform/logging/sinks.h"
#include "programs/optionValues.h"
#include "worker/WorkerResources.h"

namespace parallel::worker {

using programs::notEmpty;
using programs::secondsFromZero;
using programs::sizeInBytes;
using programs::wholeNumber;

namespace {

constexpr int kUsageError = 2;

struct RawOptions {
  WorkerOptions options;
  std::optional<std::uint32_t> cores;
  std::optional<std::uint64_t> memory;
  std::vector<std::string> named;
  double graceSeconds = 10;
  double awaySeconds = 600;
  std::optional<double> idleSeconds;
  std::string logWord = "info";
};

CLI::Validator asValidator(const programs::OptionCheck& check) {
  return {check, ""};
}

programs::OptionCheck nameAndNumber() {
  const auto isFit = [](const std::string& text) {
    const std::size_t sign = text.find('=');
    if (sign == std::string::npos || sign == 0)
      return false;
    std::string number = text.substr(sign + 1);
    return wholeNumber(0, 1'000'000'000)(number).empty();
  };
  return programs::optionValue(isFit, "NAME=N with a whole number");
}

void declareConnection(CLI::App& app, WorkerOptions& options) {
  app.add_option("--address", options.address,
                 "The service: unix:PATH or HOST:PORT (default: $XDG_RUNTIME_DIR/zks/zksd.sock, or "
                 "/tmp/zks-UID/zksd.sock)")
      ->type_name("ADDRESS")
      ->check(asValidator(notEmpty()));
  auto* tls = app.add_option("--tls", options.connection.tls,
                             "For TCP: the directory with the service's ca.pem, client.pem, client-key.pem and token "
                             "(default: $ZKS_TLS, or ~/.local/state/zks/tls)");
  tls->type_name("DIR")->check(asValidator(notEmpty()));
  app.add_flag("--insecure", options.connection.insecure, "TCP without TLS: others can read and alter everything")
      ->excludes(tls);
}

void declareResources(CLI::App& app, RawOptions& raw) {
  app.add_option("--cores", raw.cores, "Cores to offer (default: those that this process may use)")
      ->type_name("N")
      ->check(asValidator(wholeNumber(1, 1'000'000)));
  app.add_option("--memory", raw.memory,
                 "Memory to offer; in bytes or as 512M, 2G (default: what this process may use)")
      ->type_name("BYTES")
      ->transform(asValidator(sizeInBytes()));
  auto* named = app.add_option("--resource", raw.named, "Something else to offer, such as licence=2; repeatable");
  named->type_name("NAME=N")->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  named->allow_extra_args(false)->check(asValidator(nameAndNumber()));
}

void declareFolders(CLI::App& app, RawOptions& raw) {
  WorkerSettings& settings = raw.options.settings;
  app.add_option("--scratch", settings.scratchParent,
                 "Make the tasks' directories in this one (default: $TMPDIR or /tmp)")
      ->type_name("DIR")
      ->check(CLI::ExistingDirectory);
  app.add_option("--cache", settings.cache,
                 "Keep inputs here for the next worker (default: with the tasks' directories)")
      ->type_name("DIR")
      ->check(asValidator(notEmpty()));
  app.add_option("--cache-size", settings.cacheBytes,
                 "The most that is kept there; in bytes or as 512M, 2G (default: 10G)")
      ->type_name("BYTES")
      ->transform(asValidator(sizeInBytes()));
}

void declareLife(CLI::App& app, RawOptions& raw) {
  app.add_option("--name", raw.options.settings.name, "What people see of this worker (default: the machine's name)")
      ->type_name("NAME")
      ->check(asValidator(notEmpty()));
  app.add_option("--grace", raw.graceSeconds, "How long a task may take to end when it is told to")
      ->type_name("SECONDS")
      ->check(asValidator(secondsFromZero()))
      ->capture_default_str();
  app.add_option("--away-limit", raw.awaySeconds, "End when nothing runs and the service has been away for so long")
      ->type_name("SECONDS")
      ->check(asValidator(secondsFromZero()))
      ->capture_default_str();
  app.add_option("--idle-limit", raw.idleSeconds, "End when there was nothing to do for so long (default: never)")
      ->type_name("SECONDS")
      ->check(asValidator(secondsFromZero()));
  app.add_option("--log", raw.logWord, "Say more or less on standard error: off, error, warning, info, detail, trace")
      ->type_name("LEVEL")
      ->capture_default_str();
}

std::chrono::nanoseconds nanosecondsOf(double seconds) {
  return std::chrono::ceil<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds));
}

std::string machineName() {
  std::array<char, 256> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "worker";
}

std::filesystem::path temporaryDirectory() {
  const char* named = std::getenv("TMPDIR");
  return named != nullptr && *named != '\0' ? named : "/tmp";
}

// Attempts are pinned where all cores are offered: two workers that share them would pin theirs to the same ones.
void fillResources(const RawOptions& raw, WorkerSettings& settings) {
  settings.resources = ownResources();
  if (const auto cores = ownCores(); !raw.cores && cores.size() == settings.resources.cores())
    settings.cores = cores;
  if (raw.cores)
    settings.resources.set_cores(*raw.cores);
  if (raw.memory)
    settings.resources.set_memory_bytes(*raw.memory);
  for (const std::string& text : raw.named) {
    const std::size_t sign = text.find('=');
    (*settings.resources.mutable_named())[text.substr(0, sign)] = std::stoull(text.substr(sign + 1));
  }
}

WorkerOptions finish(const RawOptions& raw) {
  WorkerOptions options = raw.options;
  options.connection.timeout = std::chrono::seconds(5);
  options.connection.tlsAdvice = "--tls DIR";
  options.connection.insecureAdvice = "--insecure";
  WorkerSettings& settings = options.settings;
  fillResources(raw, settings);
  if (settings.name.empty())
    settings.name = machineName();
  if (settings.scratchParent.empty())
    settings.scratchParent = temporaryDirectory();
  settings.killGrace = nanosecondsOf(raw.graceSeconds);
  settings.awayLimit = nanosecondsOf(raw.awaySeconds);
  if (raw.idleSeconds)
    settings.idleLimit = nanosecondsOf(*raw.idleSeconds);
  try {
    options.logLevels = logging::levelsFromWord(raw.logWord);
  } catch (const std::invalid_argument& problem) {
    throw CLI::ValidationError("--log", problem.what());
  }
  return options;
}

}  // namespace

ParsedWorkerArguments parseWorkerArguments(std::vector<std::string> arguments, std::ostream& out, std::ostream& error) {
  CLI::App app("A worker of the job-scheduler service: takes tasks and runs them. See docs/zks-worker.md.",
               "zks-worker");
  app.set_version_flag("--version", "zks-worker " ZKS_VERSION);
  RawOptions raw;
  declareConnection(app, raw.options);
  declareResources(app, raw);
  declareFolders(app, raw);
  declareLife(app, raw);
  try {
    std::reverse(arguments.begin(), arguments.end());  // as the library wants them
    app.parse(std::move(arguments));
    return {finish(raw), 0};
  } catch (const CLI::Success& success) {
    app.exit(success, out, error);
    return {std::nullopt, 0};
  } catch (const CLI::ParseError& problem) {
    error << "zks-worker: " << problem.what() << "; \"zks-worker --help\" tells more\n";
    return {std::nullopt, kUsageError};
  }
}

}  // namespace parallel::worker
