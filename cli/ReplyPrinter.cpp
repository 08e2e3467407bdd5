#include "cli/ReplyPrinter.h"

#include <algorithm>
#include <filesystem>
#include <utility>

#include "cli/CliError.h"
#include "cli/Digest.h"
#include "cli/StandardStreams.h"
#include "cli/formatValue.h"
#include "cli/npy.h"
#include "toolbox/AtomicFile.h"
#include "toolbox/hostMessage.h"

namespace zks {
namespace {

using parallel::toolbox::AtomicFile;

constexpr std::size_t kShownBytes = 64;

std::string digestOf(const void* data, std::size_t nbytes) {
  Digest digest;
  digest.add(data, nbytes);
  return digest.text();
}

std::string_view viewOf(const qxArray* bytes) {
  return {static_cast<const char*>(qxGetData(bytes)), qxGetNumberOfElements(bytes)};
}

// Arrays of numbers and the like by their elements, others by their saved form.
std::string arrayDigest(const qxArray* array) {
  if (qxClassBytes(qxGetClass(array)) > 0)
    return digestOf(qxGetData(array), qxGetDataBytes(array));
  const qxArrayPtr saved(qxSerializeEx(array, qxSerializeDefaults));
  return digestOf(qxGetData(saved.get()), qxGetNumberOfElements(saved.get()));
}

std::string itemName(std::size_t number, const char* ending) {
  return "item-" + std::to_string(number) + ending;
}

// The value, unless that only tells class and shape again.
std::string valueText(const qxArray* array) {
  const std::string value = formatValue(array);
  return value.front() == '<' ? "" : "  " + value;
}

bool isShortText(std::string_view bytes) {
  const auto printable = [](char c) { return (c >= ' ' && c <= '~') || c == '\n' || c == '\t'; };
  return bytes.size() <= kShownBytes && std::all_of(bytes.begin(), bytes.end(), printable);
}

std::string bytesCount(std::uint64_t nbytes) {
  return std::to_string(nbytes) + (nbytes == 1 ? " byte" : " bytes");
}

std::string messageName(const qxArray* message) {
  const qxArray* name = qxHasField(message, "MessageType") ? qxGetField(message, 0, "MessageType") : nullptr;
  return name != nullptr && qxGetClass(name) == qxClass::Text ? qxGetStringUtf8(name) : "struct";
}

}  // namespace

ReplyPrinter::ReplyPrinter(parallel::toolbox::Reply& reply, std::string saveDirectory)
    : reply_(reply), saveDirectory_(std::move(saveDirectory)) {
  if (!saveDirectory_.empty())
    parallel::toolbox::checkDirectory(saveDirectory_);
}

bool ReplyPrinter::print(const std::string& kind, const std::string& text, bool compared, bool same) {
  const char* verdict = !compared ? "" : same ? "  same" : "  DIFFERENT";
  writeOutput(std::to_string(reply_.itemsTaken()) + " " + kind + "  " + text + verdict + "\n");
  return same;
}

std::string ReplyPrinter::placeOf(std::size_t item, std::string name) {
  while (!savedNames_.insert(name).second)
    name.insert(0, itemName(item, "-"));
  return (std::filesystem::path(saveDirectory_) / name).string();
}

void ReplyPrinter::saveBytes(const char* extension, std::string_view bytes) {
  const std::size_t item = reply_.itemsTaken();
  AtomicFile file(placeOf(item, itemName(item, extension)));
  file.write(reinterpret_cast<const std::byte*>(bytes.data()), bytes.size());
  file.commit();
}

void ReplyPrinter::saveArray(const qxArray* array) {
  if (!canWriteNpy(array)) {
    const qxArrayPtr saved(qxSerializeEx(array, qxSerializeDefaults));
    return saveBytes(".cbor", viewOf(saved.get()));
  }
  const std::size_t item = reply_.itemsTaken();
  AtomicFile file(placeOf(item, itemName(item, ".npy")));
  writeNpy(array, file);
  file.commit();
}

bool ReplyPrinter::showArray(const qxArray* original) {
  const auto array = reply_.takeArray();
  if (!saveDirectory_.empty())
    saveArray(array.get());
  return print("array", formatClassAndShape(array.get()) + "  " + arrayDigest(array.get()) + valueText(array.get()),
               original != nullptr, original == nullptr || qxEqual(array.get(), original));
}

bool ReplyPrinter::showMessage(const qxArray* original) {
  const auto message = reply_.takeMessage();
  if (!saveDirectory_.empty())
    saveBytes(".pb", parallel::toolbox::packedFromHost(message.get()).value());
  return print("protobuf", messageName(message.get()) + valueText(message.get()), original != nullptr,
               original == nullptr || qxEqual(message.get(), original));
}

bool ReplyPrinter::showPlain(const qxArray* original) {
  const auto array = reply_.takePlain();
  const std::string_view bytes = viewOf(array.get());
  if (!saveDirectory_.empty())
    saveBytes(".bin", bytes);
  const std::string value = isShortText(bytes) ? "  " + quotedText(bytes) : "";
  return print("plain", bytesCount(bytes.size()) + "  " + digestOf(bytes.data(), bytes.size()) + value,
               original != nullptr, original == nullptr || viewOf(original) == bytes);
}

bool ReplyPrinter::showFile(const std::string& path, const std::string& name,
                            const std::optional<std::string>& original) {
  const std::size_t item = reply_.itemsTaken() + 1;
  if (!path.empty())
    return saveFile(path, original);
  if (!saveDirectory_.empty())
    return saveFile(placeOf(item, name.empty() ? itemName(item, ".file") : name), original);
  ContentCheck check(original);
  reply_.takeBytes(check);
  return printFile(name, check);
}

bool ReplyPrinter::saveFile(const std::string& place, const std::optional<std::string>& original) {
  AtomicFile file(place);
  ContentCheck check(original, &file);
  reply_.takeBytes(check);
  file.commit();
  return printFile(place, check);
}

bool ReplyPrinter::printFile(const std::string& name, ContentCheck& check) {
  return print("file",
               (name.empty() ? "" : quotedText(name) + "  ") + bytesCount(check.digest().nbytes()) + "  " +
                   check.digest().text(),
               check.compares(), check.isSame());
}

}  // namespace zks
