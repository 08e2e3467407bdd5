// Finds the file of a program as a shell would.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace parallel::execution {

// A process could not be started; the text is for the user.
class StartFailure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A name with a slash is taken as it is; another one is searched in the directories of `searchPath`, separated by
// colons. Relative ones, and an empty one, are taken from `directory`. StartFailure names the program and the
// directories searched. `giveUp` is asked before each directory; nothing is returned once it says so.
std::optional<std::string> findProgram(const std::string& name, std::string_view searchPath, int directory,
                                       const std::function<bool()>& giveUp);

}  // namespace parallel::execution
