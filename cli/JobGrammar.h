// The commands of kept jobs, as the command line declares them.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/jobOptions.h"

namespace CLI {
class App;
}

namespace zks {

class JobGrammar {
 public:
  // Adds the commands to the program's, which must outlive this.
  explicit JobGrammar(CLI::App& app);
  ~JobGrammar();
  JobGrammar(const JobGrammar&) = delete;
  JobGrammar& operator=(const JobGrammar&) = delete;

  // Whether what stands behind "--" belongs to the parsed command.
  bool takesCommand() const;
  // The script that "submit" was given, whose options are still to be read; empty: none.
  std::string script() const;
  // The parsed command; nothing when it is none of these. UsageError says what does not fit.
  std::optional<JobCommand> result(std::vector<std::string> command) const;

 private:
  struct Commands;
  std::unique_ptr<Commands> commands_;
};

}  // namespace zks
