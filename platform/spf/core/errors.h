// What the service framework itself reports. Defined by what the caller does next.
#pragma once

#include <stdexcept>
#include <string>

namespace agent::spf {

// The framework failed or refused: fix the call or the set-up.
class FrameworkError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The service did not answer within a deadline: try again later.
class Timeout : public std::runtime_error {
 public:
  explicit Timeout(const std::string& text = "Timeout") : std::runtime_error(text) {}
};

// The service, or the connection to it, went away in mid-call: reconnect.
class Terminated : public std::runtime_error {
 public:
  explicit Terminated(const std::string& text = "Terminated") : std::runtime_error(text) {}
};

}  // namespace agent::spf
