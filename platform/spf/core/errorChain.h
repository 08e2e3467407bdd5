// A chain of nested exceptions as plain data, so that it can travel, and back.
#pragma once

#include <exception>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace agent::spf::core {

// One level of a chain. `component` and `name` belong to kind identified only.
struct ErrorLevel {
  enum class Kind { unknown, standard, identified, framework, timeout, terminated };

  Kind kind = Kind::unknown;
  std::string component;  // UTF-8
  std::string name;       // UTF-8
  std::string text;       // bytes as the origin had them

  bool operator==(const ErrorLevel&) const = default;
};

// Outermost first.
using ErrorChain = std::vector<ErrorLevel>;

// A level that was not derived from std::exception where it was thrown. Flattened again it is of kind unknown still.
class UnknownRemoteError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What a chain may hold when it is flattened; past it, a level or a text says how much was left out.
inline constexpr std::size_t kMaxErrorLevels = 1000;
inline constexpr std::size_t kMaxErrorBytes = std::size_t{4} << 20;

// The level that stands for as many that were left out.
ErrorLevel leftOutLevels(std::size_t count);

inline constexpr const char* kShownNul = "\xE2\x90\x80";  // U+2400, symbol for null

// The levels of `error` and of what is nested in it. Empty for a null pointer. A level of an unknown type has the text
// of a thrown string, else the name of its type. `maxBytes` is for receivers that cannot take kMaxErrorBytes.
ErrorChain flattenErrorChain(const std::exception_ptr& error, std::size_t maxBytes = kMaxErrorBytes);

// A chain of real nested exceptions: each level but the innermost also is a std::nested_exception. FrameworkError,
// Timeout, Terminated, RemoteException for identified, std::runtime_error for standard, UnknownRemoteError.
// An empty chain gives a FrameworkError that says so, never a null pointer. Levels past kMaxErrorLevels are left out,
// with a mark: nested exceptions end by recursion, and a peer that sends millions must not end the process. A NUL, at
// which the text of an exception would end, becomes kShownNul.
std::exception_ptr rebuildErrorChain(std::span<const ErrorLevel> chain);

// The outermost texts on one line each, as many as fit into `maxBytes`; what was left out is marked.
std::string summaryOf(std::span<const ErrorLevel> chain, std::size_t maxBytes);

}  // namespace agent::spf::core
