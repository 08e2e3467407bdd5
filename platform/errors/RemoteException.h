// An identified exception whose identifier and text came from elsewhere, such as a service's reply.
#pragma once

#include <exception>
#include <string>

#include "platform/errors/IException.h"

class RemoteException : public std::exception, public IException {
 public:
  RemoteException(std::string component, std::string name, std::string utf8Text)
      : component_(std::move(component)),
        name_(std::move(name)),
        text_(std::move(utf8Text)),
        ustring_(fl::i18n::to_ustring(text_)) {}

  const char* what() const noexcept override { return text_.c_str(); }
  const std::string& component() const noexcept override { return component_; }
  const std::string& name() const noexcept override { return name_; }
  const fl::ustring& ToUstring() const noexcept override { return ustring_; }

 private:
  std::string component_;
  std::string name_;
  std::string text_;
  fl::ustring ustring_;
};
