// Method objects from C++ functions.
//
//     cls->addMethod(makeMethod("open", {}, "Opens a motor", &Motor::open));  // static member function
//     cls->addMethod(makeMethod("turn", {}, "", &Motor::turn));               // member function
//     cls->addMethod(makeMethod("turn", {MethodAttributes::kInstance}, "", &turnByDefault));  // plain function
//
// The signature follows from the function's type:
//
//     const qxConstArrayProxy&, const qxArrayProxy&   "any"
//     const std::u16string&                           "TovaFactoryString scalar"
//     T*, std::shared_ptr<T>                          HostClassName<T>, kept alive during the call
//     returned: qxArrayProxy, std::shared_ptr<T>      "any", HostClassName<T>; an empty proxy becomes a 0-by-0 array
//     returned: void                                  no output
//
// A plain function is a static method unless its attributes say kInstance; its first parameter then is the object.
#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/tova/BindingRegistry.h"
#include "platform/tova/HostClassName.h"
#include "platform/tova/TovaMethod.h"
#include "platform/tova/handles.h"
#include "platform/tova/qxArrayProxy.h"

namespace tova::factory {
namespace detail {

// One converted input, alive during the call.
template <class Parameter>
class Argument;

template <>
class Argument<qxConstArrayProxy> {
 public:
  static constexpr const char* kType = "any";
  explicit Argument(const qxArray* input) : proxy_(input) {}
  const qxConstArrayProxy& get() const { return proxy_; }

 private:
  qxConstArrayProxy proxy_;
};

template <>
class Argument<qxArrayProxy> {
 public:
  static constexpr const char* kType = "any";
  explicit Argument(const qxArray* input) : proxy_(qxCreateSharedCopy(input)) {}
  const qxArrayProxy& get() const { return proxy_; }

 private:
  qxArrayProxy proxy_;
};

template <>
class Argument<std::u16string> {
 public:
  static constexpr const char* kType = "TovaFactoryString scalar";
  explicit Argument(const qxArray* input) : text_(qxGetString(input)) {}
  const std::u16string& get() const { return text_; }

 private:
  std::u16string text_;
};

template <class T>
class Argument<std::shared_ptr<T>> {
 public:
  static constexpr const char* kType = HostClassName<T>::value;
  explicit Argument(const qxArray* input) : native_(nativeOf<T>(input)) {}
  const std::shared_ptr<T>& get() const { return native_; }

 private:
  std::shared_ptr<T> native_;
};

template <class T>
class Argument<T*> {
 public:
  static constexpr const char* kType = HostClassName<T>::value;
  explicit Argument(const qxArray* input) : native_(nativeOf<T>(input)) {}
  T* get() const { return native_.get(); }

 private:
  std::shared_ptr<T> native_;
};

template <class Value>
struct Result;

template <>
struct Result<void> {
  static constexpr const char* kType = "void";
};

template <>
struct Result<qxArrayProxy> {
  static constexpr const char* kType = "any";
  static qxArray* store(qxArrayProxy value);
};

template <class T>
struct Result<std::shared_ptr<T>> {
  static constexpr const char* kType = HostClassName<T>::value;
  static qxArray* store(const std::shared_ptr<T>& object) { return handleOf(object).release(); }
};

template <class Callable, class Returned, class... Parameters>
class FunctionMethod final : public TovaMethod {
 public:
  FunctionMethod(std::string_view name, MethodAttributes attributes, std::string_view description, Callable function,
                 bool takesSelf)
      : TovaMethod(name, attributes, description), function_(std::move(function)) {
    std::vector<std::string> inputs{Argument<std::remove_cvref_t<Parameters>>::kType...};
    std::string self;
    if (takesSelf) {
      if (inputs.empty())
        throw std::invalid_argument("an instance method takes its object as the first parameter");
      self = inputs.front();
      inputs.erase(inputs.begin());
    }
    createSignatureImpl(self, std::move(inputs), {Result<Returned>::kType});
  }

 private:
  void invoke(qxArray** plhs, const qxArray** prhs) const override {
    invokeWith(plhs, prhs, std::index_sequence_for<Parameters...>{});
  }

  template <std::size_t... Index>
  void invokeWith(qxArray** plhs, [[maybe_unused]] const qxArray** prhs, std::index_sequence<Index...> /*all*/) const {
    // Braces: converted in order.
    const std::tuple<Argument<std::remove_cvref_t<Parameters>>...> inputs{prhs[Index]...};
    if constexpr (std::is_void_v<Returned>)
      function_(std::get<Index>(inputs).get()...);
    else
      plhs[0] = Result<Returned>::store(function_(std::get<Index>(inputs).get()...));
  }

  Callable function_;
};

constexpr MethodAttributes staticUnlessInstance(MethodAttributes attributes) noexcept {
  const bool instance = (attributes.flags & MethodAttributes::kInstance) != 0;
  return {instance ? attributes.flags : attributes.flags | MethodAttributes::kStatic};
}

}  // namespace detail

template <class Returned, class... Parameters>
std::unique_ptr<TovaMethod> makeMethod(std::string_view name, MethodAttributes attributes, std::string_view description,
                                       Returned (*function)(Parameters...)) {
  const bool takesSelf = (attributes.flags & MethodAttributes::kInstance) != 0;
  using Method = detail::FunctionMethod<decltype(function), Returned, Parameters...>;
  return std::make_unique<Method>(name, detail::staticUnlessInstance(attributes), description, function, takesSelf);
}

template <class Returned, class T, class... Parameters>
std::unique_ptr<TovaMethod> makeMethod(std::string_view name, MethodAttributes attributes, std::string_view description,
                                       Returned (T::*function)(Parameters...)) {
  auto callable = std::mem_fn(function);
  using Method = detail::FunctionMethod<decltype(callable), Returned, T*, Parameters...>;
  return std::make_unique<Method>(name, attributes, description, callable, true);
}

template <class Returned, class T, class... Parameters>
std::unique_ptr<TovaMethod> makeMethod(std::string_view name, MethodAttributes attributes, std::string_view description,
                                       Returned (T::*function)(Parameters...) const) {
  auto callable = std::mem_fn(function);
  using Method = detail::FunctionMethod<decltype(callable), Returned, T*, Parameters...>;
  return std::make_unique<Method>(name, attributes, description, callable, true);
}

}  // namespace tova::factory
