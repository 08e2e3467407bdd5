#include "python/bridge/errors.h"

#include <exception>
#include <new>
#include <string>
#include <utility>

#include "platform/interrupt/utInterruptState.h"
#include "platform/spf/core/errorChain.h"
#include "python/bridge/blockingCall.h"
#include "transport/client/expandSPFErrors.h"

namespace zks::bridge {

namespace py = pybind11;

namespace {

using agent::spf::core::ErrorChain;
using agent::spf::core::ErrorLevel;

// Never given back: the interpreter may be gone before static objects are.
PyObject* errorFactory = nullptr;

py::str textFrom(const std::string& bytes) {
  return py::reinterpret_steal<py::str>(
      PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()), "replace"));
}

const char* kindName(ErrorLevel::Kind kind) {
  switch (kind) {
    case ErrorLevel::Kind::standard:
      return "standard";
    case ErrorLevel::Kind::identified:
      return "identified";
    case ErrorLevel::Kind::framework:
      return "framework";
    case ErrorLevel::Kind::timeout:
      return "timeout";
    case ErrorLevel::Kind::terminated:
      return "terminated";
    case ErrorLevel::Kind::unknown:
      break;
  }
  return "unknown";
}

py::list pythonLevels(const ErrorChain& chain) {
  py::list levels;
  for (const ErrorLevel& level : chain)
    levels.append(
        py::make_tuple(kindName(level.kind), textFrom(level.component), textFrom(level.name), textFrom(level.text)));
  return levels;
}

// The text of a chain as users read it. Sets `interrupted` when the chain holds the user's interrupt.
std::string expandedText(const std::exception_ptr& error, bool& interrupted) {
  try {
    parallel::spf::transport::throwExpandedSPFErrors(error);
  } catch (const Corvane::System::InterruptException&) {
    interrupted = true;
  } catch (const std::exception& expanded) {
    return expanded.what();
  } catch (...) {
    return "an error of unknown type";
  }
  return {};
}

void raiseChain(const std::exception_ptr& error) {
  const ErrorChain chain = agent::spf::core::flattenErrorChain(error);
  bool interrupted = false;
  const std::string text = expandedText(error, interrupted);
  if (interrupted) {
    raiseInterrupt();
    return;
  }
  const py::object exception = py::reinterpret_borrow<py::object>(errorFactory)(pythonLevels(chain), textFrom(text));
  PyErr_SetObject(py::type::handle_of(exception).ptr(), exception.ptr());
}

// By value, as pybind11 wants its translators.
void translate(std::exception_ptr error) {  // NOLINT(performance-unnecessary-value-param)
  try {
    std::rethrow_exception(error);
  } catch (const Corvane::System::InterruptException&) {
    raiseInterrupt();
  } catch (const py::error_already_set&) {
    throw;
  } catch (const py::builtin_exception&) {
    throw;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (...) {
    if (errorFactory == nullptr)
      throw;
    raiseChain(error);
  }
}

}  // namespace

void setErrorFactory(py::object factory) {
  Py_XDECREF(std::exchange(errorFactory, factory.release().ptr()));
}

void registerErrors() {
  py::register_local_exception_translator(translate);
}

}  // namespace zks::bridge
