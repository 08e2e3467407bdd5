#include "toolbox/Item.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <exception>
#include <ios>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/systemError.h"
#include "platform/errors/ustring.h"
#include "platform/files/UniqueFd.h"
#include "platform/files/nativePath.h"
#include "toolbox/hostMessage.h"
#include "toolbox/streamItem.h"

namespace parallel::toolbox {
namespace {

using spf::transport::ByteSink;
using spf::transport::SerializableData;

// Empty when the file can be read from its beginning.
std::string reasonNotReadable(const std::string& path) {
  if (!fl::i18n::isWellFormed(path))
    return "its name is not UTF-8, and the host's names are texts";
  const files::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file)
    return errors::systemErrorText(errno);
  struct stat status {};
  if (::fstat(file.get(), &status) != 0)
    return errors::systemErrorText(errno);
  if (S_ISDIR(status.st_mode))
    return "it is a directory";
  if (!S_ISREG(status.st_mode))
    return "it is not a regular file";
  return {};
}

void checkReadable(const std::string& path) {
  const std::string reason = reasonNotReadable(path);
  if (!reason.empty())
    throw Exception<CannotReadFile>(path, reason);
}

// The files of /proc and /sys say that they are empty, or cannot say it.
bool looksEmpty(int file) {
  struct stat status {};
  return ::fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_size == 0;
}

// Adds the name, which the stream's own failure lacks.
void serializeNamedFile(const std::string& path, const SerializableData& file, ByteSink& sink) {
  const ::files::UniqueFd probe(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (looksEmpty(probe.get()))
    return copyToEnd(probe.get(), path, sink);
  try {
    file.serialize(sink);
  } catch (const std::ios_base::failure&) {
    checkReadable(path);  // names the reason when it still holds
    std::throw_with_nested(Exception<CannotReadFile>(path, "reading it failed"));
  }
}

}  // namespace

Item arrayItem(const qxArray* array) {
  return {zksmessages::ITEM_KIND_ARRAY, SerializableData::createQxArray(array), std::nullopt};
}

Item messageItem(const qxArray* message) {
  return {zksmessages::ITEM_KIND_PROTOBUF, SerializableData::createProtobuf(message), std::nullopt};
}

Item messageItem(const google::protobuf::Message& message) {
  return messageItem(hostFromMessage(message).get());
}

Item resultItem(const qxArray* message) {
  return messageItem(resultPayloadOf(message).get());
}

Item plainItem(const qxArray* bytes) {
  if (qxGetElementBytes(bytes) != 1)
    throw Exception<host::array::WrongClass>(qxClassName(qxGetClass(bytes)), "uint8, int8 or boolean");
  return {zksmessages::ITEM_KIND_PLAIN, SerializableData::createPlain(bytes), qxGetDataBytes(bytes)};
}

Item fileItem(const std::string& path) {
  checkReadable(path);
  const qxArrayPtr name = qxCreateString(files::hostPath(path));
  const auto file = SerializableData::createFile(name.get());
  auto encoder = [path, file](const qxArray*, ByteSink& sink) { serializeNamedFile(path, *file, sink); };
  auto sizeHint = [file](const qxArray*) { return file->serializedSizeHint(); };
  return {zksmessages::ITEM_KIND_FILE,
          std::make_shared<SerializableData>(name.get(), std::move(encoder), std::move(sizeHint)), std::nullopt};
}

}  // namespace parallel::toolbox
