// One method entry of a host class: name, attributes, signature, and the native function behind it.
//
// Made by makeMethod(), or derive and implement invoke(). Like class descriptions, method objects are allocated by
// utCalloc and freed by utFree.
// Ownership: a class owns the methods added to it.
// Threads:   a method does not change once its class is registered; any thread may call it, several at once.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "platform/array/qxArray.h"
#include "platform/tova/MethodAttributes.h"
#include "platform/tova/utMemory.h"

namespace tova::factory {

// Types are named: "any", "void" (as the only output), "TovaFactoryString" (text of any shape), "TovaFactoryString
// scalar" (one line of text), or the full name of a class, which stands for its subclasses too.
struct MethodSignature {
  std::string self;  // the class of the object; empty for static methods
  std::vector<std::string> inputs;
  std::vector<std::string> outputs;

  std::size_t outputCount() const noexcept;
};

class TovaMethod {
 public:
  static void* operator new(std::size_t nbytes) { return utCalloc(1, nbytes); }
  static void operator delete(void* room) noexcept { utFree(room); }

  TovaMethod(const TovaMethod&) = delete;
  TovaMethod& operator=(const TovaMethod&) = delete;
  virtual ~TovaMethod();

  const std::string& name() const noexcept { return name_; }
  const std::string& description() const noexcept { return description_; }
  unsigned flags() const noexcept { return attributes_.flags; }
  bool isStatic() const noexcept { return (attributes_.flags & MethodAttributes::kStatic) != 0; }
  const MethodSignature& signature() const noexcept { return signature_; }

  // The name with the class in front, once a class owns the method.
  const std::string& fullName() const noexcept { return fullName_; }
  void setOwner(std::string_view className);

  // The host's calling convention, as for builtins. The inputs of an instance method begin with its object. `plhs` has
  // room for one output even when `nlhs` is 0: a method that has an output always makes it.
  // `TooManyInputs`, `NotEnoughInputs`, `TooManyOutputs`, `WrongArgumentType`, `InvalidHandle`, all before the method
  // runs; what the method throws passes through unchanged.
  void call(int nlhs, qxArray** plhs, int nrhs, const qxArray** prhs) const;

 protected:
  TovaMethod(std::string_view name, MethodAttributes attributes, std::string_view description);

  // Says what the method takes and gives. An empty `self` is none. `UnknownDataType` when a type is not known to the
  // class system; the string types are known after detail::initStringDataTypes().
  void createSignatureImpl(std::string_view self, std::vector<std::string> inputs, std::vector<std::string> outputs);

 private:
  // Counts, types and handles are as the signature says.
  virtual void invoke(qxArray** plhs, const qxArray** prhs) const = 0;

  void checkCounts(int nlhs, int nrhs) const;
  void checkInputs(const qxArray** prhs) const;

  std::string name_;
  std::string fullName_;
  std::string description_;
  MethodAttributes attributes_;
  MethodSignature signature_;
};

// "out = name(any, any)": how front ends show a method.
std::string signatureText(const TovaMethod& method);

}  // namespace tova::factory
