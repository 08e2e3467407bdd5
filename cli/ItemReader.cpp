#include "cli/ItemReader.h"

#include <google/protobuf/util/json_util.h>

#include <cstring>
#include <memory>
#include <string_view>

#include "cli/CliError.h"
#include "cli/FileContents.h"
#include "cli/arrayText.h"
#include "cli/jsonType.h"
#include "cli/npy.h"
#include "platform/protobufencoding/protobufencoding.h"
#include "toolbox/hostMessage.h"

namespace zks {
namespace {

qxArrayPtr bytesOf(std::string_view text) {
  const std::size_t shape[] = {text.size(), 1};
  qxArrayPtr array = qxCreateUninitializedArray(shape, qxClass::Uint8);
  if (!text.empty())
    std::memcpy(qxGetWritableData(array.get()), text.data(), text.size());
  return array;
}

// Without a copy: the array holds the file's contents.
qxArrayPtr bytesOfFile(const std::string& path) {
  auto file = std::make_shared<const FileContents>(path);
  const auto bytes = file->bytes();
  const std::size_t shape[] = {bytes.size(), 1};
  if (bytes.empty())
    return qxCreateNumericArray(shape, qxClass::Uint8);
  return qxAdoptArray(shape, qxClass::Uint8, false, const_cast<std::byte*>(bytes.data()), false,
                      [file = std::move(file)]() mutable { file.reset(); });
}

qxArrayPtr readSavedArray(const std::string& path) {
  const FileContents file(path);
  qxArrayPtr array(qxDeserialize(file.bytes().data(), file.bytes().size()));
  if (array == nullptr)
    throw CliError("cannot read \"" + path + "\" as an array: it is neither a .npy file nor a saved array");
  return array;
}

qxArrayPtr readArray(const std::string& text) {
  if (!text.starts_with('@'))
    return parseArrayText(text);
  const std::string path = text.substr(1);
  return path.ends_with(".npy") ? readNpy(path) : readSavedArray(path);
}

// A message may be longer than a command line.
qxArrayPtr readMessageArgument(const std::string& text) {
  try {
    if (!text.starts_with('@'))
      return readMessage(text);
    const FileContents file(text.substr(1));
    const auto bytes = file.bytes();
    return readMessage({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  } catch (const UsageError& error) {
    const bool isFile = text.starts_with('@');
    throw UsageError("--protobuf" + (isFile ? " " + text : "") + ": " + error.what());
  }
}

qxArrayPtr readPlain(const std::string& text) {
  if (text.starts_with("@@"))
    return bytesOf(std::string_view(text).substr(1));
  return text.starts_with('@') ? bytesOfFile(text.substr(1)) : bytesOf(text);
}

}  // namespace

qxArrayPtr readMessage(std::string_view json) {
  const TypedJson typed = splitJsonType(json);
  const auto message = parallel::protobufencoding::generateMessageByName(typed.typeName);
  if (message == nullptr)
    throw UsageError("there is no message type \"" + typed.typeName + "\"; --descriptors FILE adds types");
  const auto status = google::protobuf::util::JsonStringToMessage(typed.body, message.get());
  if (!status.ok())
    throw UsageError("this is not the JSON form of a " + typed.typeName + ": " + std::string(status.message()));
  return parallel::toolbox::hostFromMessage(*message);
}

qxArrayPtr readItem(const ItemArgument& argument) {
  switch (argument.form) {
    case ItemArgument::Form::Array:
      return readArray(argument.text);
    case ItemArgument::Form::Message:
      return readMessageArgument(argument.text);
    case ItemArgument::Form::Plain:
      return readPlain(argument.text);
    case ItemArgument::Form::File:
      return qxCreateStringUtf8(argument.text);
  }
  return nullptr;
}

}  // namespace zks
