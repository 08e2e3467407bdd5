// Map fields to host values. Reflection shows a map as repeated messages of a key and a value.
#include <algorithm>

#include "platform/errors/ustring.h"
#include "platform/protobufencoding/internal/MessageDecoder.h"
#include "platform/protobufencoding/internal/hostValues.h"

namespace parallel::protobufencoding {

namespace {

using google::protobuf::Message;

// The parser leaves equal keys in dynamic messages, where the last one counts.
template <class Key>
void sortByKey(std::vector<const Message*>& entries, Key key) {
  std::stable_sort(entries.begin(), entries.end(),
                   [&](const Message* left, const Message* right) { return key(*left) < key(*right); });
  std::size_t kept = 0;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (i + 1 == entries.size() || key(*entries[i]) < key(*entries[i + 1]))
      entries[kept++] = entries[i];
  }
  entries.resize(kept);
}

void sortEntries(std::vector<const Message*>& entries, const FieldShape& key) {
  const auto by = [&](auto get) {
    sortByKey(entries, [&](const Message& entry) { return (entry.GetReflection()->*get)(entry, key.descriptor); });
  };
  using google::protobuf::Reflection;
  switch (key.kind) {
    case ValueKind::Int32:
      return by(&Reflection::GetInt32);
    case ValueKind::Int64:
      return by(&Reflection::GetInt64);
    case ValueKind::Uint32:
      return by(&Reflection::GetUInt32);
    case ValueKind::Uint64:
      return by(&Reflection::GetUInt64);
    case ValueKind::Bool:
      return by(&Reflection::GetBool);
    default:
      return by(&Reflection::GetString);
  }
}

std::string stringKey(const Message& entry, const MessageShape& shape) {
  return entry.GetReflection()->GetString(entry, shape.number(kKeyNumber).descriptor);
}

// Of the struct that stands for an entry.
const qxFieldNamesPtr& entryNames() {
  static const auto* const names =  // never destroyed: conversions may run until the process ends
      new qxFieldNamesPtr(qxMakeFieldNames(std::vector{std::string(kKeyField), std::string(kValueField)}));
  return *names;
}

// Most maps of a message have no entries.
qxArrayPtr emptyStruct() {
  static const auto* const empty = new qxArrayPtr(qxCreateStructArray(column(1), {}));  // as entryNames
  return qxCreateSharedCopy(empty->get());
}

constexpr std::size_t kKeyPlace = 0;
constexpr std::size_t kValuePlace = 1;

}  // namespace

qxArrayPtr MessageDecoder::map(const Source& source, const FieldShape& field, int depth) {
  const int count = source.reflection.FieldSize(source.message, field.descriptor);
  if (count == 0 && field.hasTextKeys)
    return emptyStruct();
  const MessageShape& entry = shapes_.of(field);
  std::vector<const Message*> entries;
  entries.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i)
    entries.push_back(&source.reflection.GetRepeatedMessage(source.message, field.descriptor, i));
  sortEntries(entries, entry.number(kKeyNumber));
  if (!entries.empty())
    checkDepth(entry, depth + 1);
  if (field.hasTextKeys) {
    const bool nameable = std::all_of(entries.begin(), entries.end(), [&](const Message* e) {
      const std::string key = stringKey(*e, entry);
      return !key.empty() && fl::i18n::isWellFormed(key);
    });
    return nameable ? mapAsStruct(entries, entry, depth + 1) : mapAsList(entries, entry, depth + 1);
  }
  return mapAsEntries(entries, entry, depth + 1);
}

// One struct with a field for each key.
qxArrayPtr MessageDecoder::mapAsStruct(const std::vector<const Message*>& entries, const MessageShape& entry,
                                       int depth) {
  std::vector<std::string> names;
  names.reserve(entries.size());
  for (const Message* e : entries)
    names.push_back(stringKey(*e, entry));
  qxArrayPtr result = qxCreateStructArray(column(1), names);
  for (std::size_t i = 0; i < entries.size(); ++i)
    qxSetFieldAt(result.get(), 0, i, mapValue(*entries[i], entry, depth));
  return result;
}

// A struct array of keys and values.
qxArrayPtr MessageDecoder::mapAsEntries(const std::vector<const Message*>& entries, const MessageShape& entry,
                                        int depth) {
  qxArrayPtr result = qxCreateStructWithNames(column(entries.size()), entryNames());
  for (std::size_t i = 0; i < entries.size(); ++i)
    fillEntry(result.get(), i, *entries[i], entry, depth);
  return result;
}

// A list of one struct for each entry: for text keys that cannot name a field.
qxArrayPtr MessageDecoder::mapAsList(const std::vector<const Message*>& entries, const MessageShape& entry, int depth) {
  qxArrayPtr result = qxCreateListArray(column(entries.size()));
  for (std::size_t i = 0; i < entries.size(); ++i) {
    qxArrayPtr element = qxCreateStructWithNames(column(1), entryNames());
    fillEntry(element.get(), 0, *entries[i], entry, depth);
    qxSetListElement(result.get(), i, std::move(element));
  }
  return result;
}

void MessageDecoder::fillEntry(qxArray* target, std::size_t element, const Message& message, const MessageShape& entry,
                               int depth) {
  qxSetFieldAt(target, element, kKeyPlace, single(message, entry.number(kKeyNumber), depth));
  qxSetFieldAt(target, element, kValuePlace, mapValue(message, entry, depth));
}

qxArrayPtr MessageDecoder::mapValue(const Message& message, const MessageShape& entry, int depth) {
  return single(message, entry.number(kValueNumber), depth);
}

}  // namespace parallel::protobufencoding
