#include "python/bridge/messageToPython.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <string>
#include <utility>
#include <vector>

#include "platform/protobufencoding/protobufencoding.h"
#include "python/bridge/RecursionLevel.h"
#include "python/bridge/checkSignals.h"
#include "python/bridge/takeParts.h"
#include "python/bridge/toPython.h"

namespace zks::bridge {

namespace py = pybind11;

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;

namespace {

// Never given back: the interpreter may be gone before static objects are.
PyObject* messageFactory = nullptr;

constexpr const char* kTypeField = "MessageType";

py::object singleToPython(qxArrayPtr value, const FieldDescriptor* field);

// The type that a struct names itself, else the one that its place wants; either may be unknown.
const Descriptor* typeOf(const qxArray* structs, std::size_t element, const Descriptor* wanted) {
  const qxArray* const name = qxHasField(structs, kTypeField) ? qxGetField(structs, element, kTypeField) : nullptr;
  if (name == nullptr || qxGetClass(name) != qxClass::Text)
    return nullptr;  // the object of a Struct, say
  const std::string fullName = qxGetStringUtf8(name);
  if (wanted != nullptr && wanted->full_name() == fullName)
    return wanted;
  const auto message = parallel::protobufencoding::generateMessageByName(fullName);
  return message == nullptr ? nullptr : message->GetDescriptor();
}

const FieldDescriptor* fieldOf(const Descriptor* type, const std::string& name) {
  if (type == nullptr)
    return nullptr;
  if (name.starts_with('['))
    return type->file()->pool()->FindExtensionByName(name.substr(1, name.size() - 2));
  const FieldDescriptor* const field = type->FindFieldByName(name);
  if (field == nullptr && name.ends_with('_'))  // it was given one underscore more
    return type->FindFieldByName(name.substr(0, name.size() - 1));
  return field;
}

py::object repeatedToPython(qxArrayPtr value, const FieldDescriptor* field);
py::object entriesToPython(qxArrayPtr value, const Descriptor* type);

py::object fieldToPython(qxArrayPtr value, const FieldDescriptor* field) {
  if (value == nullptr)
    return py::none();
  if (field != nullptr && field->is_map())
    return entriesToPython(std::move(value), field->message_type());
  if (field != nullptr && field->is_repeated())
    return repeatedToPython(std::move(value), field);
  return singleToPython(std::move(value), field);
}

// `type`: null for a struct that is no message.
py::object structElementToPython(qxArray* structs, std::size_t element, const Descriptor* type) {
  checkSignalsNowAndThen();
  const std::vector<std::string> names = fieldNamesOf(structs);
  py::dict fields;
  for (std::size_t index = 0; index < names.size(); ++index) {
    const FieldDescriptor* const field = fieldOf(type, names[index]);
    fields[py::str(names[index])] = fieldToPython(takeField(structs, element, index), field);
  }
  if (type == nullptr || messageFactory == nullptr)
    return fields;
  return py::reinterpret_borrow<py::object>(messageFactory)(fields);
}

// Each element of a column of structs, or of a list.
template <class OfStruct, class OfElement>
py::list listOf(qxArray* array, OfStruct ofStruct, OfElement ofElement) {
  const bool isStruct = qxGetClass(array) == qxClass::Struct;
  const std::size_t count = qxGetNumberOfElements(array);
  py::list list(count);
  for (std::size_t index = 0; index < count; ++index)
    list[index] = isStruct ? ofStruct(index) : ofElement(takeElement(array, index));
  return list;
}

py::object numbersToPython(qxArrayPtr column) {
  const auto count = static_cast<py::ssize_t>(qxGetNumberOfElements(column.get()));
  return toPython(std::move(column), Scalars::AsArrays).attr("reshape")(count);
}

py::object repeatedToPython(qxArrayPtr value, const FieldDescriptor* field) {
  const RecursionLevel level(" while converting a message of the host");
  const qxClass cls = qxGetClass(value.get());
  if (cls != qxClass::Struct && cls != qxClass::List)
    return numbersToPython(std::move(value));
  const auto ofStruct = [&](std::size_t index) {
    return structElementToPython(value.get(), index, typeOf(value.get(), index, field->message_type()));
  };
  return listOf(value.get(), ofStruct, [&](qxArrayPtr element) { return singleToPython(std::move(element), field); });
}

// A map: a struct with a field for each key, or entries of a key and a value each.
py::object entriesToPython(qxArrayPtr value, const Descriptor* type) {
  const RecursionLevel level(" while converting a message of the host");
  const FieldDescriptor* const valueField = type->FindFieldByName("value");
  const bool isByName = type->FindFieldByName("key")->cpp_type() == FieldDescriptor::CPPTYPE_STRING &&
                        qxGetClass(value.get()) == qxClass::Struct;
  if (!isByName) {
    const auto ofStruct = [&](std::size_t index) { return structElementToPython(value.get(), index, type); };
    const auto ofElement = [&](const qxArrayPtr& entry) { return structElementToPython(entry.get(), 0, type); };
    return listOf(value.get(), ofStruct, ofElement);
  }
  const std::vector<std::string> names = fieldNamesOf(value.get());
  py::dict fields;
  for (std::size_t index = 0; index < names.size(); ++index)
    fields[py::str(names[index])] = fieldToPython(takeField(value.get(), 0, index), valueField);
  return fields;
}

bool isText(const FieldDescriptor* field) {
  return field != nullptr && field->cpp_type() == FieldDescriptor::CPPTYPE_STRING;
}

// One value of a field, or one inside a Value, where there is no field.
py::object singleToPython(qxArrayPtr value, const FieldDescriptor* field) {
  const RecursionLevel level(" while converting a message of the host");
  if (value == nullptr)
    return py::none();
  switch (qxGetClass(value.get())) {
    case qxClass::Struct: {
      const Descriptor* const wanted = field == nullptr ? nullptr : field->message_type();
      return structElementToPython(value.get(), 0, typeOf(value.get(), 0, wanted));
    }
    case qxClass::List:
      return listOf(
          value.get(), [](std::size_t) { return py::object(); },
          [](qxArrayPtr element) { return singleToPython(std::move(element), nullptr); });
    case qxClass::Uint8:
      if (isText(field))
        return toBytes(value.get());
      [[fallthrough]];
    default:
      return toPython(std::move(value), Scalars::AsScalars);
  }
}

}  // namespace

py::object messageToPython(qxArrayPtr message) {
  return singleToPython(std::move(message), nullptr);
}

bool isMessage(const qxArray* array) {
  return qxGetClass(array) == qxClass::Struct && qxGetNumberOfElements(array) == 1 &&
         typeOf(array, 0, nullptr) != nullptr;
}

void setMessageFactory(py::object factory) {
  Py_XDECREF(std::exchange(messageFactory, factory.release().ptr()));
}

}  // namespace zks::bridge
