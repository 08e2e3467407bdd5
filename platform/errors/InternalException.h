// An anonymous internal failure: a text for developers and logs, without an identifier.
#pragma once

#include <stdexcept>

class InternalException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
