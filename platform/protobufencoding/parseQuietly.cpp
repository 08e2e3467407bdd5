#include "platform/protobufencoding/parseQuietly.h"

#include <google/protobuf/io/coded_stream.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/protobufencoding/internal/FieldWalk.h"
#include "platform/protobufencoding/internal/WireReader.h"
#include "platform/protobufencoding/internal/protobufCompat.h"

namespace parallel::protobufencoding {

namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;

// One encoded field. What has a length, and a group, has content.
struct Record {
  std::uint32_t tag = 0;
  std::size_t begin = 0;
  std::size_t contentBegin = 0;
  std::size_t contentEnd = 0;
  std::size_t end = 0;
  bool whole = false;
};

// Without recursion: what is skipped may nest as deep as there are bytes. `end` is where the group's end tag begins.
bool skipGroup(WireReader& reader, std::uint32_t endTag, std::size_t& end);

bool skipValue(WireReader& reader, std::uint32_t tag) {
  std::size_t nbytes = 0;
  switch (wireTypeOf(tag)) {
    case Varint:
      return reader.skipVarint();
    case Fixed64:
      return reader.skip(sizeof(std::uint64_t));
    case LengthDelimited:
      return reader.readLength(nbytes) && reader.skip(nbytes);
    case Fixed32:
      return reader.skip(sizeof(std::uint32_t));
    default:
      return false;
  }
}

bool skipGroup(WireReader& reader, std::uint32_t endTag, std::size_t& end) {
  std::vector<std::uint32_t> open{endTag};
  while (!open.empty()) {
    end = reader.at();
    std::uint32_t tag = 0;
    if (!reader.readVarint32(tag) || fieldNumberOf(tag) == 0)
      return false;
    if (wireTypeOf(tag) == StartGroup) {
      open.push_back(endOfGroup(tag));
    } else if (wireTypeOf(tag) == EndGroup) {
      if (tag != open.back())
        return false;
      open.pop_back();
    } else if (!skipValue(reader, tag)) {
      return false;
    }
  }
  return true;
}

bool readRecord(WireReader& reader, Record& record) {
  if (!reader.readVarint32(record.tag) || fieldNumberOf(record.tag) == 0)
    return false;
  record.contentBegin = reader.at();
  if (wireTypeOf(record.tag) == StartGroup)
    return skipGroup(reader, endOfGroup(record.tag), record.contentEnd);
  if (wireTypeOf(record.tag) != LengthDelimited)
    return skipValue(reader, record.tag);
  std::size_t nbytes = 0;
  if (!reader.readLength(nbytes))
    return false;
  record.contentBegin = reader.at();
  record.contentEnd = reader.at() + std::min(nbytes, reader.left());
  return reader.skip(nbytes);
}

// Merges encoded fields into a message: the parser reads all but those with bad text in them.
class QuietMerge {
 public:
  QuietMerge(std::string_view bytes, std::vector<std::size_t> badTexts)
      : bytes_(bytes), badTexts_(std::move(badTexts)) {}

  // Returns whether all fields from `begin` to `end` could be read.
  bool merge(Message& message, std::size_t begin, std::size_t end) const {
    std::size_t unread = begin;
    for (std::size_t at = begin; at < end;) {
      const Record record = recordAt(at, end);
      at = record.end;
      if (record.whole && !hasBadText(record))
        continue;
      if (!parse(message, unread, record.begin) || !mergeRecord(message, record))
        return false;
      unread = at;
    }
    return parse(message, unread, end);
  }

 private:
  // One that is damaged, or longer than there are bytes, goes to the end.
  Record recordAt(std::size_t begin, std::size_t end) const {
    Record record;
    record.begin = begin;
    record.contentEnd = end;
    WireReader reader(bytes_.substr(0, end), begin);
    record.whole = readRecord(reader, record);
    record.end = record.whole ? reader.at() : end;
    return record;
  }

  bool hasBadText(const Record& record) const {
    const auto next = std::lower_bound(badTexts_.begin(), badTexts_.end(), record.begin);
    return next != badTexts_.end() && *next < record.end;
  }

  bool mergeRecord(Message& message, const Record& record) const {
    const FieldDescriptor* field = findField(*message.GetDescriptor(), fieldNumberOf(record.tag));
    if (field == nullptr)
      return false;
    const std::uint32_t wireType = wireTypeOf(record.tag);
    if (field->type() == FieldDescriptor::TYPE_STRING && wireType == LengthDelimited && record.whole)
      return mergeText(message, *field, record);
    const bool isMessage = field->type() == FieldDescriptor::TYPE_MESSAGE && wireType == LengthDelimited;
    const bool isGroup = field->type() == FieldDescriptor::TYPE_GROUP && wireType == StartGroup;
    return (isMessage || isGroup) && mergeInside(message, *field, record);
  }

  bool mergeText(Message& message, const FieldDescriptor& field, const Record& record) const {
    const Reflection& reflection = *message.GetReflection();
    std::string text(bytes_.substr(record.contentBegin, record.contentEnd - record.contentBegin));
    if (field.is_repeated())
      reflection.AddString(&message, &field, std::move(text));
    else
      reflection.SetString(&message, &field, std::move(text));
    return !compat::requiresUtf8(field);
  }

  bool mergeInside(Message& message, const FieldDescriptor& field, const Record& record) const {
    const Reflection& reflection = *message.GetReflection();
    Message* inner =
        field.is_repeated() ? reflection.AddMessage(&message, &field) : reflection.MutableMessage(&message, &field);
    const bool whole = merge(*inner, record.contentBegin, record.contentEnd) && record.whole;
    if (!whole && field.is_map())  // the parser keeps no entry that it could not read
      reflection.RemoveLast(&message, &field);
    return whole;
  }

  // Of fields that are whole, none with bad text.
  bool parse(Message& message, std::size_t begin, std::size_t end) const {
    google::protobuf::io::CodedInputStream run(reinterpret_cast<const std::uint8_t*>(bytes_.data()) + begin,
                                               static_cast<int>(end - begin));
    return message.MergePartialFromCodedStream(&run);
  }

  const std::string_view bytes_;
  const std::vector<std::size_t> badTexts_;
};

}  // namespace

bool parseQuietly(Message& message, const void* data, std::size_t nbytes) {
  const int narrowed = static_cast<int>(nbytes);
  if (narrowed < 0)
    throw Exception<::parallel::protobuf::MessageTooLarge>(nbytes, std::numeric_limits<int>::max());
  const std::string_view bytes(static_cast<const char*>(data), static_cast<std::size_t>(narrowed));
  std::vector<std::size_t> badTexts = FieldWalk(*message.GetDescriptor(), bytes).badTexts();
  if (badTexts.empty())
    return message.ParsePartialFromArray(data, narrowed);
  message.Clear();
  return QuietMerge(bytes, std::move(badTexts)).merge(message, 0, bytes.size());
}

}  // namespace parallel::protobufencoding
