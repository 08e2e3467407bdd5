#include <pybind11/chrono.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "python/bridge/NativeSession.h"
#include "python/bridge/bindings.h"
#include "python/bridge/blockingCall.h"
#include "python/bridge/fromPython.h"
#include "python/bridge/interpreterLock.h"
#include "python/bridge/messageToPython.h"
#include "python/bridge/toPython.h"
#include "toolbox/TaskInputs.h"

namespace zks::bridge {

namespace py = pybind11;
using namespace py::literals;

namespace {

using parallel::toolbox::FileKind;
using parallel::toolbox::Item;
using parallel::toolbox::TaskInputs;
using parallel::zksmessages::TaskDescription;
using parallel::zksmessages::TaskLimits;
using parallel::zksmessages::TesselTaskExecutionInfo;
using Control = std::shared_ptr<CallControl>;

google::protobuf::Duration durationOf(double seconds) {
  double whole = 0;
  const double fraction = std::modf(seconds, &whole);
  google::protobuf::Duration duration;
  duration.set_seconds(static_cast<std::int64_t>(whole));
  duration.set_nanos(static_cast<std::int32_t>(fraction * 1e9));
  return duration;
}

double secondsOf(const google::protobuf::Duration& duration) {
  return static_cast<double>(duration.seconds()) + static_cast<double>(duration.nanos()) * 1e-9;
}

void setLimits(TaskDescription& task, const std::map<std::string, double>& limits) {
  for (const auto& [name, value] : limits) {
    TaskLimits& set = *task.mutable_limits();
    if (name == "wall_time")
      *set.mutable_wall_time() = durationOf(value);
    else if (name == "cpu_time")
      *set.mutable_cpu_time() = durationOf(value);
    else if (name == "memory_bytes")
      set.set_memory_bytes(static_cast<std::uint64_t>(value));
    else if (name == "file_bytes")
      set.set_file_bytes(static_cast<std::uint64_t>(value));
    else if (name == "open_files")
      set.set_open_files(static_cast<std::uint64_t>(value));
    else
      throw py::value_error("there is no limit \"" + name + "\"");
  }
}

const char* outcomeName(const TesselTaskExecutionInfo& info) {
  switch (info.outcome()) {
    case TesselTaskExecutionInfo::OUTCOME_EXITED:
      return "exited";
    case TesselTaskExecutionInfo::OUTCOME_SIGNALLED:
      return "signalled";
    case TesselTaskExecutionInfo::OUTCOME_TIMED_OUT:
      return "timed_out";
    case TesselTaskExecutionInfo::OUTCOME_NOT_STARTED:
      return "not_started";
    default:
      return "unknown";
  }
}

py::tuple tupleOf(const google::protobuf::RepeatedPtrField<std::string>& texts) {
  return py::tuple(py::cast(std::vector<std::string>(texts.begin(), texts.end())));
}

py::dict pythonInfo(const TesselTaskExecutionInfo& info) {
  py::dict fields;
  fields["outcome"] = outcomeName(info);
  fields["exit_status"] = info.has_exit_status() ? py::object(py::int_(info.exit_status())) : py::none();
  fields["signal"] = info.has_signal() ? py::object(py::int_(info.signal())) : py::none();
  fields["message"] = info.message();
  fields["wall_time"] = secondsOf(info.wall_time());
  fields["user_time"] = secondsOf(info.user_time());
  fields["system_time"] = secondsOf(info.system_time());
  fields["queued_time"] = secondsOf(info.queued_time());
  fields["peak_memory_bytes"] = info.peak_memory_bytes();
  fields["missing_outputs"] = tupleOf(info.missing_outputs());
  fields["unusable_outputs"] =
      py::cast(std::map<std::string, std::string>(info.unusable_outputs().begin(), info.unusable_outputs().end()));
  fields["executable_outputs"] = tupleOf(info.executable_outputs());
  fields["output_folders"] = tupleOf(info.output_folders());
  fields["folder_files"] = tupleOf(info.folder_files());
  return fields;
}

// Sessions and replies may take long to end, and must not hold the interpreter up; they may also outlive it.
template <class T>
void destroyWithoutLock(T* object) {
  if (Py_IsInitialized() != 0 && PyGILState_Check() != 0) {
    const Unlocked unlocked;
    delete object;
  } else {
    delete object;
  }
}

// A longer or infinite time has a number of milliseconds too.
std::chrono::milliseconds milliseconds(double seconds) {
  constexpr double kLongestSeconds = 1e9;
  return std::chrono::ceil<std::chrono::milliseconds>(
      std::chrono::duration<double>(std::min(seconds, kLongestSeconds)));
}

std::shared_ptr<NativeSession> openSession(const std::optional<std::string>& address, double seconds,
                                           const std::string& tls, bool insecure, double idleSeconds,
                                           std::optional<std::int64_t> maxReplyBytes, const Control& control) {
  parallel::toolbox::ConnectionOptions options;
  options.timeout = milliseconds(seconds);
  options.tls = tls;
  options.insecure = insecure;
  options.tlsAdvice = "tls=DIR";
  options.insecureAdvice = "insecure=True";
  options.idleTimeout = milliseconds(idleSeconds);
  if (maxReplyBytes)
    options.replyLimit = {*maxReplyBytes, "max_reply of zks.connect"};
  return withoutLock(control, nullptr, [&] {
    return std::shared_ptr<NativeSession>(new NativeSession(address, options), destroyWithoutLock<NativeSession>);
  });
}

// The reply's last share may be Python's.
std::shared_ptr<OrderedReply> pythonReply(std::shared_ptr<OrderedReply> reply) {
  auto* const held = new std::shared_ptr<OrderedReply>(std::move(reply));
  return {held->get(), [held](OrderedReply*) { destroyWithoutLock(held); }};
}

TaskDescription describeTask(const std::vector<std::string>& argv,
                             const std::map<std::string, std::string>& environment, bool clearEnvironment,
                             const TaskInputs& inputs, const std::vector<std::string>& outputNames,
                             const std::map<std::string, double>& limits) {
  TaskDescription task;
  task.mutable_argv()->Assign(argv.begin(), argv.end());
  for (const auto& [name, value] : environment)
    (*task.mutable_environment())[name] = value;
  task.set_clear_environment(clearEnvironment);
  inputs.describe(task);
  task.mutable_output_files()->Assign(outputNames.begin(), outputNames.end());
  task.set_return_folders(true);
  setLimits(task, limits);
  return task;
}

py::tuple runTask(const NativeSession& session, const std::vector<std::string>& argv,
                  const std::map<std::string, std::string>& environment, bool clearEnvironment,
                  const TaskInputs& inputs, const std::vector<std::string>& outputNames,
                  const std::map<std::string, double>& limits, const Control& control) {
  const TaskDescription task = describeTask(argv, environment, clearEnvironment, inputs, outputNames, limits);
  const Items items = inputs.items();
  const TaskOutcome outcome = withoutLock(control, session.closing(), [&] { return session.runTask(task, items); });
  return py::make_tuple(pythonInfo(outcome.info), toBytes(outcome.standardOutput.get()),
                        toBytes(outcome.standardError.get()), pythonReply(outcome.outputs));
}

void bindItems(py::module_& module) {
  using namespace parallel::toolbox;
  const py::class_<Item> item(module, "Item", "An item of a request, ready to be sent");
  module.def(
      "array_item", [](py::handle value) { return arrayItem(fromPython(value, Memory::Borrow).get()); }, "value"_a,
      "Any value as a host array. Borrows the memory of arrays until the item is gone.");
  module.def(
      "plain_item", [](py::handle value) { return plainItem(bytesFromPython(value, Memory::Borrow).get()); }, "value"_a,
      "The bytes of a bytes-like object or of an array of one-byte elements");
  module.def(
      "file_item", [](py::handle path) { return fileItem(pathFromPython(path)); }, "path"_a,
      "The contents of a file at the moment of sending");
  module.def(
      "message_item", [](py::handle fields) { return messageItem(fromPython(fields, Memory::Borrow).get()); },
      "fields"_a, "The protobuf message that a dict describes; its key MessageType names the type");
  const auto add = [](TaskInputs& inputs, const std::string& name, py::handle path) {
    const std::string native = pathFromPython(path);
    withoutLock([&] { inputs.add(name, native); });  // a folder may be large
  };
  py::class_<TaskInputs>(module, "TaskInputs", "What goes along with a task")
      .def(py::init<>())
      .def("add", add, "name"_a, "path"_a)
      .def("set_standard_input", &TaskInputs::setStandardInput, "item"_a);
  module.def(
      "result_item", [](py::handle fields) { return resultItem(fromPython(fields, Memory::Borrow).get()); }, "fields"_a,
      "The same message in the form that messages have in replies");
}

// A bytes object in the middle of an operation, to be filled without the interpreter's lock: nobody else has it yet.
std::byte* makeBytes(std::size_t nbytes, py::object& made) {
  withLockAgain([&] {
    made = py::reinterpret_steal<py::object>(nbytes <= static_cast<std::size_t>(PY_SSIZE_T_MAX)
                                                 ? PyBytes_FromStringAndSize(nullptr, static_cast<Py_ssize_t>(nbytes))
                                                 : nullptr);
    if (!made)
      PyErr_Clear();
  });
  if (!made)
    throw std::bad_alloc();
  return reinterpret_cast<std::byte*>(PyBytes_AS_STRING(made.ptr()));
}

void bindReplies(py::module_& module) {
  const auto array = [](OrderedReply& reply, std::size_t index, const Control& control) {
    return toPython(withoutLock(control, nullptr, [&] { return reply.takeArray(index); }), Scalars::AsArrays);
  };
  const auto message = [](OrderedReply& reply, std::size_t index, const Control& control) {
    return messageToPython(withoutLock(control, nullptr, [&] { return reply.takeMessage(index); }));
  };
  const auto plain = [](OrderedReply& reply, std::size_t index, const Control& control) {
    py::object bytes;
    const auto memory = [&bytes](std::size_t nbytes) { return makeBytes(nbytes, bytes); };
    withoutLock(control, nullptr, [&] { reply.takePlain(index, memory); });
    return bytes;
  };
  const auto content = [](OrderedReply& reply, std::size_t index, const Control& control) {
    const std::vector<std::byte> bytes = withoutLock(control, nullptr, [&] { return reply.takeContent(index); });
    return py::bytes(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  };
  const auto file = [](OrderedReply& reply, std::size_t index, py::handle path, bool executable,
                       const Control& control) {
    const std::string native = pathFromPython(path);
    const FileKind kind = executable ? FileKind::Program : FileKind::Data;
    withoutLock(control, nullptr, [&] { reply.takeFile(index, native, kind); });
  };
  py::class_<OrderedReply, std::shared_ptr<OrderedReply>>(module, "Reply", "The items of a reply, each taken once")
      .def("__len__", &OrderedReply::itemCount)
      .def("take_array", array, "index"_a, "control"_a = Control())
      .def("take_message", message, "index"_a, "control"_a = Control())
      .def("take_bytes", plain, "index"_a, "control"_a = Control())
      .def("take_content", content, "index"_a, "control"_a = Control())
      .def("take_file", file, "index"_a, "path"_a, "executable"_a, "control"_a = Control());
}

}  // namespace

void bindSessions(py::module_& module) {
  py::class_<CallControl, Control>(module, "CallControl", "Stops the call that it was given to")
      .def(py::init<>())
      .def("cancel", [](CallControl& control) { control.cancel(); });
  bindItems(module);
  bindReplies(module);
  const auto call = [](const NativeSession& session, const std::string& method, const Items& items,
                       const Control& control) {
    return pythonReply(withoutLock(control, session.closing(), [&] { return session.call(method, items); }));
  };
  const auto echo = [](const NativeSession& session, const Items& items, const Control& control) {
    return pythonReply(withoutLock(control, session.closing(), [&] { return session.echo(items); }));
  };
  const auto close = [](NativeSession& session) { withoutLock([&] { session.close(); }); };
  py::class_<NativeSession, std::shared_ptr<NativeSession>>(module, "Session", "A connection to a service")
      .def(py::init(&openSession), "address"_a, "timeout"_a, "tls"_a, "insecure"_a, "idle_timeout"_a, "max_reply"_a,
           "control"_a = Control())
      .def_property_readonly("name", &NativeSession::name)
      .def_property_readonly("is_open", &NativeSession::isOpen)
      .def("call", call, "method"_a, "items"_a, "control"_a = Control())
      .def("echo", echo, "items"_a, "control"_a = Control())
      .def("run_task", &runTask, "argv"_a, "environment"_a, "clear_environment"_a, "inputs"_a, "output_names"_a,
           "limits"_a, "control"_a = Control())
      .def("close", close);
}

}  // namespace zks::bridge
