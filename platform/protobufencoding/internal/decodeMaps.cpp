// Map fields to host values. Reflection shows a map as repeated messages of a key and a value.
#include <algorithm>
#include <type_traits>

#include "platform/errors/ustring.h"
#include "platform/protobufencoding/internal/MessageDecoder.h"
#include "platform/protobufencoding/internal/hostValues.h"

namespace parallel::protobufencoding {

namespace {

using google::protobuf::Message;

// By their keys, which `get` takes out of an entry. The parser leaves equal keys in dynamic messages, where the last
// one counts.
template <class Get>
void sortByKey(std::vector<const Message*>& entries, Get get) {
  struct Keyed {
    std::invoke_result_t<Get, const Message&> key;
    const Message* entry;
  };
  std::vector<Keyed> keyed;
  keyed.reserve(entries.size());
  for (const Message* entry : entries)
    keyed.push_back({get(*entry), entry});
  std::stable_sort(keyed.begin(), keyed.end(),
                   [](const Keyed& left, const Keyed& right) { return left.key < right.key; });
  entries.clear();
  for (std::size_t i = 0; i < keyed.size(); ++i) {
    if (i + 1 == keyed.size() || keyed[i].key < keyed[i + 1].key)
      entries.push_back(keyed[i].entry);
  }
}

void sortEntries(std::vector<const Message*>& entries, const FieldShape& key) {
  using google::protobuf::Reflection;
  if (entries.empty())
    return;
  const Reflection& reflection = *entries.front()->GetReflection();
  const auto by = [&](auto get) {
    sortByKey(entries, [&](const Message& entry) { return (reflection.*get)(entry, key.descriptor); });
  };
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

// Most maps of a message have no entries.
qxArrayPtr emptyStruct() {
  static const auto* const empty =
      new qxArrayPtr(qxCreateStructArray(column(1), {}));  // never destroyed, as shapes are not
  return qxCreateSharedCopy(empty->get());
}

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
qxArrayPtr MessageDecoder::mapAsStruct(std::span<const Message* const> entries, const MessageShape& entry, int depth) {
  std::vector<std::string> names;
  std::vector<qxArrayPtr> values;
  names.reserve(entries.size());
  values.reserve(entries.size());
  for (const Message* e : entries) {
    names.push_back(stringKey(*e, entry));
    values.push_back(mapValue(*e, entry, depth));
  }
  return qxCreateStructWithNames(column(1), qxMakeFieldNames(names), std::move(values));
}

// A struct array of keys and values.
qxArrayPtr MessageDecoder::mapAsEntries(std::span<const Message* const> entries, const MessageShape& entry, int depth) {
  std::vector<qxArrayPtr> values;  // the keys come first
  values.reserve(2 * entries.size());
  for (const Message* e : entries)
    values.push_back(single(*e, entry.number(kKeyNumber), depth));
  for (const Message* e : entries)
    values.push_back(mapValue(*e, entry, depth));
  return qxCreateStructWithNames(column(entries.size()), entry.fullLayout()->names(), std::move(values));
}

// A list of one struct for each entry: for text keys that cannot name a field.
qxArrayPtr MessageDecoder::mapAsList(std::span<const Message* const> entries, const MessageShape& entry, int depth) {
  qxArrayPtr result = qxCreateListArray(column(entries.size()));
  for (std::size_t i = 0; i < entries.size(); ++i)
    qxSetListElement(result.get(), i, mapAsEntries(entries.subspan(i, 1), entry, depth));
  return result;
}

qxArrayPtr MessageDecoder::mapValue(const Message& message, const MessageShape& entry, int depth) {
  return single(message, entry.number(kValueNumber), depth);
}

}  // namespace parallel::protobufencoding
