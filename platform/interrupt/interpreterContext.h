// Whether the calling thread may service the host's interrupts.
//
// Only a thread inside an InterpreterContext may: the interpreter's own thread in a host, main() in a command-line
// tool.
#pragma once

namespace foundation::usm {

namespace scope {
struct Tvm {};  // the interpreter's scope
}  // namespace scope

template <class Scope>
struct Detail;

template <>
struct Detail<scope::Tvm> {
  static bool isRequiredContextActive() noexcept;
};

// Makes the calling thread an interpreter thread while it lives. Nests.
class InterpreterContext {
 public:
  InterpreterContext() noexcept;
  ~InterpreterContext();
  InterpreterContext(const InterpreterContext&) = delete;
  InterpreterContext& operator=(const InterpreterContext&) = delete;
};

}  // namespace foundation::usm
