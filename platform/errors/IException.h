// The host's identified exception: an error with a component, a name and a message text for the user.
#pragma once

#include <exception>
#include <string>

#include "platform/errors/ustring.h"

class IException {
 public:
  virtual ~IException() = default;
  virtual const std::string& component() const noexcept = 0;  // "parallel:cluster"
  virtual const std::string& name() const noexcept = 0;       // "ZKSUnreachable"
  std::string identifier() const { return component() + ":" + name(); }
  virtual const fl::ustring& ToUstring() const noexcept = 0;  // the message text
};
