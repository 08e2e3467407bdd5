#include "platform/spf/core/errorChain.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "platform/errors/IException.h"
#include "platform/errors/RemoteException.h"
#include "platform/errors/ustring.h"
#include "platform/spf/core/errors.h"

namespace agent::spf::core {

namespace {

using Kind = ErrorLevel::Kind;

// Call inside a catch block.
std::string nameOfCurrentType() {
  const std::type_info* type = abi::__cxa_current_exception_type();
  if (type == nullptr)
    return "a foreign exception";
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> name(abi::__cxa_demangle(type->name(), nullptr, nullptr, &status),
                                                         &std::free);
  return std::string("an object of type ") + (name == nullptr ? type->name() : name.get());
}

ErrorLevel levelOf(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const UnknownRemoteError& e) {
    return {Kind::unknown, "", "", e.what()};
  } catch (const FrameworkError& e) {
    return {Kind::framework, "", "", e.what()};
  } catch (const Timeout& e) {
    return {Kind::timeout, "", "", e.what()};
  } catch (const Terminated& e) {
    return {Kind::terminated, "", "", e.what()};
  } catch (const IException& e) {
    return {Kind::identified, e.component(), e.name(), fl::i18n::to_string(e.ToUstring())};
  } catch (const std::exception& e) {
    return {Kind::standard, "", "", e.what()};
  } catch (const std::string& text) {
    return {Kind::unknown, "", "", text};
  } catch (...) {
    return {Kind::unknown, "", "", nameOfCurrentType()};
  }
}

std::exception_ptr nestedIn(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const std::nested_exception& nested) {
    return nested.nested_ptr();
  } catch (...) {
    return nullptr;
  }
}

void cutText(std::string& text, std::size_t room) {
  if (text.size() <= room)
    return;
  const std::size_t left = text.size() - room;
  text.resize(room);
  text += " [" + std::to_string(left) + " more bytes were left out]";
}

std::size_t countLevels(std::exception_ptr error) {
  std::size_t count = 0;
  for (; error != nullptr; error = nestedIn(error))
    ++count;
  return count;
}

// The error itself is moved, not copied: a copy that fails would be caught here in its place.
template <class Error>
std::exception_ptr wrap(Error error, const std::exception_ptr& inner) {
  static_assert(std::is_nothrow_move_constructible_v<Error>);
  try {
    if (inner == nullptr)
      throw std::move(error);
    try {
      std::rethrow_exception(inner);
    } catch (...) {
      std::throw_with_nested(std::move(error));
    }
  } catch (...) {
    return std::current_exception();
  }
}

// The text of an exception ends at its first NUL, so that is shown by a character made for it.
std::string withoutNul(const std::string& text) {
  std::string shown;
  for (const char c : text)
    c == '\0' ? shown += kShownNul : shown += c;
  return shown;
}

std::exception_ptr rebuildLevel(const ErrorLevel& level, const std::exception_ptr& inner) {
  const std::string text = withoutNul(level.text);
  switch (level.kind) {
    case Kind::framework:
      return wrap(FrameworkError(text), inner);
    case Kind::timeout:
      return wrap(Timeout(text), inner);
    case Kind::terminated:
      return wrap(Terminated(text), inner);
    case Kind::identified:
      return wrap(RemoteException(withoutNul(level.component), withoutNul(level.name), text), inner);
    case Kind::standard:
      return wrap(std::runtime_error(text), inner);
    case Kind::unknown:
      break;
  }
  return wrap(UnknownRemoteError(text), inner);
}

}  // namespace

ErrorLevel leftOutLevels(std::size_t count) {
  return {Kind::standard, "", "", "[" + std::to_string(count) + " more levels were left out]"};
}

ErrorChain flattenErrorChain(const std::exception_ptr& error, std::size_t maxBytes) {
  ErrorChain chain;
  std::size_t room = maxBytes;
  std::exception_ptr current = error;
  for (; current != nullptr && chain.size() <= kMaxErrorLevels; current = nestedIn(current)) {
    ErrorLevel level = levelOf(current);
    for (std::string* part : {&level.component, &level.name, &level.text}) {
      cutText(*part, room);
      room -= std::min(room, part->size());
    }
    chain.push_back(std::move(level));
  }
  if (current != nullptr)
    chain.back() = leftOutLevels(countLevels(current) + 1);
  return chain;
}

std::exception_ptr rebuildErrorChain(std::span<const ErrorLevel> chain) {
  if (chain.empty())
    return std::make_exception_ptr(FrameworkError("The service reported an error without saying which."));
  std::exception_ptr error;
  if (chain.size() > kMaxErrorLevels + 1) {  // more than any flattened chain has, the mark included
    error = rebuildLevel(leftOutLevels(chain.size() - kMaxErrorLevels), nullptr);
    chain = chain.first(kMaxErrorLevels);
  }
  for (std::size_t i = chain.size(); i-- > 0;)
    error = rebuildLevel(chain[i], error);
  return error;
}

std::string summaryOf(std::span<const ErrorLevel> chain, std::size_t maxBytes) {
  std::string text;
  for (const ErrorLevel& level : chain) {
    text += text.empty() ? "" : "\n";
    if (level.kind == Kind::identified)
      text += level.component + ":" + level.name + ": ";
    text += level.text;
  }
  constexpr std::string_view kMark = " [...]";
  if (text.size() > maxBytes)
    text = text.substr(0, maxBytes - std::min(maxBytes, kMark.size())) + std::string(kMark);
  return text;
}

}  // namespace agent::spf::core
