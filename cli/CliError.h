// What the command line itself finds wrong: a text for the user, without "zks: ", in one line.
#pragma once

#include <stdexcept>
#include <string>

namespace zks {

class CliError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The command cannot be meant so: exit code 2.
class UsageError : public CliError {
 public:
  using CliError::CliError;
};

}  // namespace zks
