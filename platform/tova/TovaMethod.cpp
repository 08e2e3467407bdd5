#include "platform/tova/TovaMethod.h"

#include <algorithm>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/tova/argumentCounts.h"
#include "platform/tova/dataTypes.h"
#include "platform/tova/makeMethod.h"
#include "platform/tova/validateSelfPointer.h"

namespace tova::factory {
namespace {

void requireKnownType(std::string_view type) {
  if (!detail::isKnownType(type))
    throw Exception<host::classes::UnknownDataType>(type);
}

}  // namespace

std::size_t MethodSignature::outputCount() const noexcept {
  return static_cast<std::size_t>(
      std::count_if(outputs.begin(), outputs.end(), [](const std::string& type) { return type != "void"; }));
}

TovaMethod::TovaMethod(std::string_view name, MethodAttributes attributes, std::string_view description)
    : name_(name), fullName_(name), description_(description), attributes_(attributes) {}

TovaMethod::~TovaMethod() = default;

void TovaMethod::setOwner(std::string_view className) {
  fullName_ = std::string(className) + "." + name_;
}

void TovaMethod::createSignatureImpl(std::string_view self, std::vector<std::string> inputs,
                                     std::vector<std::string> outputs) {
  if (!self.empty())
    requireKnownType(self);
  for (const std::string& type : inputs) {
    if (type == "void")
      throw Exception<host::classes::UnknownDataType>(type);
    requireKnownType(type);
  }
  for (const std::string& type : outputs)
    requireKnownType(type);
  signature_ = {std::string(self), std::move(inputs), std::move(outputs)};
}

void TovaMethod::call(int nlhs, qxArray** plhs, int nrhs, const qxArray** prhs) const {
  checkCounts(nlhs, nrhs);
  checkInputs(prhs);
  invoke(plhs, prhs);
}

void TovaMethod::checkCounts(int nlhs, int nrhs) const {
  const std::size_t wanted = nlhs < 0 ? 0 : static_cast<std::size_t>(nlhs);
  if (wanted > signature_.outputCount())
    throwTooManyOutputs(fullName_, signature_.outputCount(), wanted);
  const std::size_t self = signature_.self.empty() ? 0 : 1;
  const std::size_t given = nrhs < 0 ? 0 : static_cast<std::size_t>(nrhs);
  if (given < self)
    throw Exception<host::classes::NotAHandle>("nothing");
  if (given - self != signature_.inputs.size())
    throwWrongInputCount(fullName_, {signature_.inputs.size()}, given - self);
}

void TovaMethod::checkInputs(const qxArray** prhs) const {
  const std::size_t self = signature_.self.empty() ? 0 : 1;
  const auto check = [&](std::size_t position, const std::string& type) {
    const qxArray* const input = prhs[position];
    if (input != nullptr)
      impl::validateSelfPointer(input);
    if (input == nullptr || !detail::isOfType(input, type)) {
      const std::string place =
          self == 1 && position == 0 ? "its object" : "input " + std::to_string(position + 1 - self);
      throw Exception<host::classes::WrongArgumentType>(fullName_, place, type, detail::describeValue(input));
    }
  };
  if (self == 1)
    check(0, signature_.self);
  for (std::size_t index = 0; index < signature_.inputs.size(); ++index)
    check(index + self, signature_.inputs[index]);
}

std::string signatureText(const TovaMethod& method) {
  const MethodSignature& signature = method.signature();
  std::string text;
  for (const std::string& type : signature.outputs) {
    if (type != "void")
      text += type + " = ";
  }
  text += method.name() + "(";
  for (std::size_t index = 0; index < signature.inputs.size(); ++index)
    text += (index == 0 ? "" : ", ") + signature.inputs[index];
  return text + ")";
}

namespace detail {

qxArray* Result<qxArrayProxy>::store(qxArrayProxy value) {
  if (value)
    return value.release().release();
  const std::size_t none[] = {0, 0};
  return qxCreateNumericArray(none, qxClass::Float64).release();
}

}  // namespace detail
}  // namespace tova::factory
