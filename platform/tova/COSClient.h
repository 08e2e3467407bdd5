// Who registers a class: a library, a toolbox. Introspection shows the name; the platform itself registers without one.
#pragma once

#include <string>
#include <utility>

namespace tova {

class COSClient {
 public:
  explicit COSClient(std::string name) : name_(std::move(name)) {}

  const std::string& name() const noexcept { return name_; }

 private:
  std::string name_;
};

}  // namespace tova
