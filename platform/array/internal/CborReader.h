// Reads CBOR one data item head at a time, only what the array format uses.
//
// Each read function takes the next item if it is of the wanted kind; otherwise it returns false and the reader is of
// no more use. Lengths are definite ones and are checked against the bytes present.
// Ownership: borrows the bytes; strings handed out point into them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace qx_detail {

class CborReader {
 public:
  explicit CborReader(std::span<const unsigned char> bytes) : rest_(bytes) {}

  bool readUnsigned(std::uint64_t& value) { return read(Kind::Unsigned, value); }
  bool readTag(std::uint64_t& tag) { return read(Kind::Tag, tag); }
  bool readBytes(std::span<const unsigned char>& bytes);
  bool readText(std::string_view& text);  // well-formed UTF-8 only
  bool readArrayHead(std::size_t& count) { return read(Kind::Array, count); }

  bool expectUnsigned(std::uint64_t wanted) { return expect(Kind::Unsigned, wanted); }
  bool expectTag(std::uint64_t wanted) { return expect(Kind::Tag, wanted); }
  bool expectArrayHead(std::uint64_t wanted) { return expect(Kind::Array, wanted); }

  bool readMapHead(std::size_t& count) { return read(Kind::Map, count); }
  // Takes a null if one is next; the reader stays of use if not.
  bool skipNull();

  bool atEnd() const noexcept { return rest_.empty(); }

 private:
  enum class Kind { Unsigned, Bytes, Text, Array, Map, Tag, Null, Foreign };

  // The head of one data item, with the bytes of a string.
  struct Item {
    Kind kind = Kind::Foreign;
    std::uint64_t number = 0;  // value, tag or count
    std::span<const unsigned char> bytes;
  };
  struct Callbacks;

  bool next(Item& item);
  bool read(Kind kind, std::uint64_t& number);
  bool expect(Kind kind, std::uint64_t wanted);

  std::span<const unsigned char> rest_;
};

}  // namespace qx_detail
