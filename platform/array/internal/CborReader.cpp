#include "platform/array/internal/CborReader.h"

#include <cbor.h>

#include "platform/errors/ustring.h"

namespace qx_detail {

// What libcbor calls for the item that it found. A kind without a callback here leaves the item Foreign.
struct CborReader::Callbacks {
  static Item& item(void* context) { return *static_cast<Item*>(context); }

  template <Kind kind, class Number>
  static void number(void* context, Number value) {
    item(context) = {kind, value, {}};
  }

  template <Kind kind>
  static void string(void* context, cbor_data data, std::size_t nbytes) {
    item(context) = {kind, nbytes, {data, nbytes}};
  }

  static void null(void* context) { item(context) = {Kind::Null, 0, {}}; }

  static cbor_callbacks make() {
    cbor_callbacks callbacks = cbor_empty_callbacks;
    callbacks.uint8 = number<Kind::Unsigned, std::uint8_t>;
    callbacks.uint16 = number<Kind::Unsigned, std::uint16_t>;
    callbacks.uint32 = number<Kind::Unsigned, std::uint32_t>;
    callbacks.uint64 = number<Kind::Unsigned, std::uint64_t>;
    callbacks.byte_string = string<Kind::Bytes>;
    callbacks.string = string<Kind::Text>;
    callbacks.array_start = number<Kind::Array, std::size_t>;
    callbacks.map_start = number<Kind::Map, std::size_t>;
    callbacks.tag = number<Kind::Tag, std::uint64_t>;
    callbacks.null = null;
    return callbacks;
  }
};

bool CborReader::next(Item& item) {
  static const cbor_callbacks callbacks = Callbacks::make();
  const cbor_decoder_result result = cbor_stream_decode(rest_.data(), rest_.size(), &callbacks, &item);
  if (result.status != CBOR_DECODER_FINISHED)
    return false;
  rest_ = rest_.subspan(result.read);
  return true;
}

bool CborReader::read(Kind kind, std::uint64_t& number) {
  Item item;
  if (!next(item) || item.kind != kind)
    return false;
  number = item.number;
  return true;
}

bool CborReader::expect(Kind kind, std::uint64_t wanted) {
  std::uint64_t found = 0;
  return read(kind, found) && found == wanted;
}

bool CborReader::readBytes(std::span<const unsigned char>& bytes) {
  Item item;
  if (!next(item) || item.kind != Kind::Bytes)
    return false;
  bytes = item.bytes;
  return true;
}

bool CborReader::readText(std::string_view& text) {
  Item item;
  if (!next(item) || item.kind != Kind::Text)
    return false;
  text = {reinterpret_cast<const char*>(item.bytes.data()), item.bytes.size()};
  return fl::i18n::isWellFormed(text);
}

bool CborReader::skipNull() {
  constexpr unsigned char kNull = 0xF6;
  if (rest_.empty() || rest_.front() != kNull)
    return false;
  rest_ = rest_.subspan(1);
  return true;
}

}  // namespace qx_detail
