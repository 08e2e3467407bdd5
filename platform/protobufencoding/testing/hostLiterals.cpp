#include "platform/protobufencoding/testing/hostLiterals.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include <cstring>
#include <sstream>

namespace parallel::protobufencoding::testing {

namespace {

constexpr std::size_t kOne[] = {1, 1};

template <class T>
void printElements(std::ostream& out, const qxArray* array) {
  for (const T value : qxGetElements<T>(array))
    out << ' ' << +value;
}

void printData(std::ostream& out, const qxArray* array) {
  switch (qxGetClass(array)) {
    case qxClass::Float64:
      return printElements<double>(out, array);
    case qxClass::Float32:
      return printElements<float>(out, array);
    case qxClass::Int32:
      return printElements<std::int32_t>(out, array);
    case qxClass::Int64:
      return printElements<std::int64_t>(out, array);
    case qxClass::Uint32:
      return printElements<std::uint32_t>(out, array);
    case qxClass::Uint64:
      return printElements<std::uint64_t>(out, array);
    case qxClass::Uint8:
      return printElements<std::uint8_t>(out, array);
    case qxClass::Boolean:
      return printElements<bool>(out, array);
    case qxClass::Text:
      out << " \"" << qxGetStringUtf8(array) << '"';
      return;
    default:
      out << " ...";
  }
}

void printTo(std::ostream& out, const qxArray* array, const std::string& indent) {
  if (array == nullptr) {
    out << "unset\n";
    return;
  }
  out << qxClassName(qxGetClass(array));
  for (const std::size_t dimension : qxGetDimensions(array))
    out << ' ' << dimension;
  out << ':';
  const qxClass cls = qxGetClass(array);
  if (cls != qxClass::Struct && cls != qxClass::List)
    printData(out, array);
  out << '\n';
  for (std::size_t i = 0; i < qxGetNumberOfElements(array); ++i) {
    if (cls == qxClass::List) {
      out << indent << '[' << i << "] ";
      printTo(out, qxGetListElement(array, i), indent + "  ");
    } else if (cls == qxClass::Struct) {
      for (const std::string& name : qxGetFieldNames(array)) {
        out << indent << '[' << i << "]." << name << ' ';
        printTo(out, qxGetField(array, i, name), indent + "  ");
      }
    }
  }
}

}  // namespace

StructOf::StructOf() : array_(qxCreateStructArray(kOne, {})) {}

StructOf::StructOf(std::string_view messageType) : StructOf() {
  qxSetField(array_.get(), 0, "MessageType", text(messageType));
}

StructOf&& StructOf::with(std::string_view name, qxArrayPtr value) && {
  qxSetField(array_.get(), 0, name, std::move(value));
  return std::move(*this);
}

qxArrayPtr text(std::string_view utf8) {
  return qxCreateStringUtf8(utf8);
}

qxArrayPtr bytes(std::string_view bytes) {
  return columnOf(std::vector<std::uint8_t>(bytes.begin(), bytes.end()));
}

qxArrayPtr boolean(bool value) {
  return qxCreateBoolean(value);
}

namespace detail {

qxArrayPtr listFrom(qxArrayPtr* values, std::size_t count) {
  const std::size_t dimensions[] = {count, 1};
  qxArrayPtr array = qxCreateListArray(dimensions);
  for (std::size_t i = 0; i < count; ++i)
    qxSetListElement(array.get(), i, std::move(values[i]));
  return array;
}

qxArrayPtr structColumnFrom(qxArrayPtr* structs, std::size_t count) {
  const std::size_t dimensions[] = {count, 1};
  qxArrayPtr array = qxCreateStructArray(dimensions, qxGetFieldNames(structs[0].get()));
  for (std::size_t i = 0; i < count; ++i) {
    for (const std::string& name : qxGetFieldNames(structs[0].get()))
      qxSetField(array.get(), i, name, qxCreateSharedCopy(qxGetField(structs[i].get(), 0, name)));
  }
  return array;
}

}  // namespace detail

qxArrayPtr emptyStructColumn(const std::vector<std::string>& names) {
  const std::size_t dimensions[] = {0, 1};
  return qxCreateStructArray(dimensions, names);
}

std::string print(const qxArray* array) {
  std::ostringstream out;
  printTo(out, array, "  ");
  return out.str();
}

std::string fromHex(std::string_view hex) {
  std::istringstream in{std::string(hex)};
  std::string bytes;
  std::string token;
  while (in >> token)
    bytes.push_back(static_cast<char>(std::stoi(token, nullptr, 16)));
  return bytes;
}

std::string toHex(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string hex;
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    hex.append(hex.empty() ? "" : " ");
    hex.push_back(kDigits[value / 16]);
    hex.push_back(kDigits[value % 16]);
  }
  return hex;
}

std::string deterministic(const google::protobuf::Message& message) {
  std::string result;
  {
    google::protobuf::io::StringOutputStream stream(&result);
    google::protobuf::io::CodedOutputStream coded(&stream);
    coded.SetSerializationDeterministic(true);
    static_cast<void>(message.SerializePartialToCodedStream(&coded));
  }
  return result;
}

}  // namespace parallel::protobufencoding::testing
