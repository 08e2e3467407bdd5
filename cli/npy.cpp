#include "cli/npy.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "cli/CliError.h"
#include "cli/FileContents.h"
#include "cli/RowMajorWalk.h"

namespace zks {
namespace {

constexpr std::string_view kMagic = "\x93NUMPY";
constexpr std::size_t kAlignment = 64;  // of the data in a file, as the format advises

// NumPy's letter and bytes of an element.
struct NpyClass {
  qxClass cls;
  bool complex;
  char kind;
  std::size_t nbytes;
};

constexpr NpyClass kClasses[] = {
    {qxClass::Float64, false, 'f', 8}, {qxClass::Float32, false, 'f', 4}, {qxClass::Float64, true, 'c', 16},
    {qxClass::Float32, true, 'c', 8},  {qxClass::Int8, false, 'i', 1},    {qxClass::Uint8, false, 'u', 1},
    {qxClass::Int16, false, 'i', 2},   {qxClass::Uint16, false, 'u', 2},  {qxClass::Int32, false, 'i', 4},
    {qxClass::Uint32, false, 'u', 4},  {qxClass::Int64, false, 'i', 8},   {qxClass::Uint64, false, 'u', 8},
    {qxClass::Boolean, false, 'b', 1},
};

struct Header {
  const NpyClass* cls = nullptr;
  bool bigEndian = false;
  bool fortranOrder = false;
  std::vector<std::size_t> shape;
  std::size_t dataOffset = 0;
};

class HeaderError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The header's text is the literal of a Python dictionary with three keys.
class HeaderText {
 public:
  explicit HeaderText(std::string_view text) : rest_(text) {}

  Header parse() {
    expect('{');
    while (!take('}')) {
      parseEntry();
      if (!take(',')) {
        expect('}');
        break;
      }
    }
    if (header_.cls == nullptr || !sawOrder_ || !sawShape_)
      throw HeaderError("its header lacks descr, fortran_order or shape");
    return std::move(header_);
  }

 private:
  void parseEntry() {
    const std::string_view key = string();
    expect(':');
    if (key == "descr")
      setDescr(string());
    else if (key == "fortran_order")
      setOrder(word());
    else if (key == "shape")
      setShape();
    else
      throw HeaderError("its header has an unknown key");
  }

  void setDescr(std::string_view descr) {
    const auto known = [&](const NpyClass& cls) {
      return descr.size() > 2 && descr[1] == cls.kind && descr.substr(2) == std::to_string(cls.nbytes);
    };
    const auto* found = std::find_if(std::begin(kClasses), std::end(kClasses), known);
    if (found == std::end(kClasses) || std::string_view("<>|=").find(descr.front()) == std::string_view::npos)
      throw HeaderError("its elements are of type \"" + std::string(descr) + "\", which host arrays do not have");
    header_.cls = found;
    header_.bigEndian = descr.front() == '>';
  }

  void setOrder(std::string_view order) {
    if (order != "True" && order != "False")
      throw HeaderError("its fortran_order is neither True nor False");
    header_.fortranOrder = order == "True";
    sawOrder_ = true;
  }

  void setShape() {
    expect('(');
    while (!take(')')) {
      header_.shape.push_back(number());
      if (!take(',')) {
        expect(')');
        break;
      }
    }
    sawShape_ = true;
  }

  void skipBlanks() { rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t\n"), rest_.size())); }

  bool take(char wanted) {
    skipBlanks();
    if (rest_.empty() || rest_.front() != wanted)
      return false;
    rest_.remove_prefix(1);
    return true;
  }

  void expect(char wanted) {
    if (!take(wanted))
      throw HeaderError(std::string("its header lacks a '") + wanted + "'");
  }

  std::string_view string() {
    skipBlanks();
    const char quote = rest_.empty() ? '\0' : rest_.front();
    const std::size_t end = quote == '\'' || quote == '"' ? rest_.find(quote, 1) : std::string_view::npos;
    if (end == std::string_view::npos)
      throw HeaderError("its header lacks a string");
    const std::string_view found = rest_.substr(1, end - 1);
    rest_.remove_prefix(end + 1);
    return found;
  }

  std::string_view word() {
    skipBlanks();
    const auto notLetter = std::find_if(rest_.begin(), rest_.end(), [](char c) { return c < 'A' || c > 'z'; });
    const std::string_view found = rest_.substr(0, static_cast<std::size_t>(notLetter - rest_.begin()));
    rest_.remove_prefix(found.size());
    return found;
  }

  std::size_t number() {
    skipBlanks();
    std::size_t value = 0;
    const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value);
    if (error != std::errc{})
      throw HeaderError("its shape is not a tuple of sizes");
    rest_.remove_prefix(static_cast<std::size_t>(end - rest_.data()));
    take('L');  // as Python 2 wrote it
    return value;
  }

  std::string_view rest_;
  Header header_;
  bool sawOrder_ = false;
  bool sawShape_ = false;
};

std::size_t littleEndian(std::string_view bytes) {
  std::size_t value = 0;
  for (std::size_t i = bytes.size(); i-- > 0;)
    value = value << 8 | static_cast<unsigned char>(bytes[i]);
  return value;
}

Header parseHeader(std::string_view file) {
  if (!file.starts_with(kMagic))
    throw HeaderError("it does not begin as a .npy file does");
  if (file.size() < kMagic.size() + 4)
    throw HeaderError("it ends in its header");
  const auto version = static_cast<unsigned char>(file[kMagic.size()]);
  if (version < 1 || version > 3)
    throw HeaderError("it is of version " + std::to_string(unsigned{version}) + ", and 1 to 3 are known");
  const std::size_t lengthBytes = version == 1 ? 2 : 4;
  const std::size_t textOffset = kMagic.size() + 2 + lengthBytes;
  if (file.size() < textOffset)
    throw HeaderError("it ends in its header");
  const std::size_t textBytes = littleEndian(file.substr(kMagic.size() + 2, lengthBytes));
  if (file.size() - textOffset < textBytes)
    throw HeaderError("it ends in its header");
  Header header = HeaderText(file.substr(textOffset, textBytes)).parse();
  header.dataOffset = textOffset + textBytes;
  return header;
}

// The bytes of the data that the header promises; nothing when they are more than memory can address.
std::optional<std::size_t> dataBytes(const Header& header) {
  std::size_t total = header.cls->nbytes;
  if (std::find(header.shape.begin(), header.shape.end(), 0U) != header.shape.end())
    return 0;
  for (const std::size_t dimension : header.shape) {
    if (dimension > std::numeric_limits<std::size_t>::max() / total)
      return std::nullopt;
    total *= dimension;
  }
  return total;
}

std::vector<std::size_t> hostShape(const Header& header) {
  std::vector<std::size_t> shape = header.shape;
  while (shape.size() < 2)
    shape.push_back(1);
  return shape;
}

// Elements lie alike in both orders when at most one dimension is longer than 1.
bool isColumnMajor(const Header& header) {
  const auto longer = std::count_if(header.shape.begin(), header.shape.end(), [](std::size_t n) { return n > 1; });
  return header.fortranOrder || longer <= 1;
}

template <std::size_t ElementBytes>
void transposeElements(const std::byte* from, std::byte* to, std::size_t count, RowMajorWalk walk) {
  for (std::size_t i = 0; i < count; ++i)
    std::memcpy(to + walk.next() * ElementBytes, from + i * ElementBytes, ElementBytes);
}

// Row-major to column-major.
void transpose(const std::byte* from, std::byte* to, std::size_t nbytes, const Header& header) {
  const std::size_t count = nbytes / header.cls->nbytes;
  const RowMajorWalk walk(header.shape);
  switch (header.cls->nbytes) {
    case 1:
      return transposeElements<1>(from, to, count, walk);
    case 2:
      return transposeElements<2>(from, to, count, walk);
    case 4:
      return transposeElements<4>(from, to, count, walk);
    case 8:
      return transposeElements<8>(from, to, count, walk);
    default:
      return transposeElements<16>(from, to, count, walk);
  }
}

// A boolean is 0 or 1 in a host array; NumPy's readers take any byte that is not 0 as true.
void normalize(qxArray* array, const Header& header) {
  if (header.cls->cls == qxClass::Boolean) {
    auto* values = static_cast<unsigned char*>(qxGetWritableData(array));
    std::transform(values, values + qxGetDataBytes(array), values, [](unsigned char value) { return value != 0; });
  }
  const std::size_t partBytes = qxClassBytes(header.cls->cls);
  if (header.bigEndian && partBytes > 1) {
    auto* bytes = static_cast<std::byte*>(qxGetWritableData(array));
    for (std::size_t at = 0; at < qxGetDataBytes(array); at += partBytes)
      std::reverse(bytes + at, bytes + at + partBytes);
  }
}

bool isAligned(const std::byte* data, std::size_t nbytes) {
  return reinterpret_cast<std::uintptr_t>(data) % nbytes == 0;
}

qxArrayPtr arrayOf(std::shared_ptr<const FileContents> file, const Header& header, std::size_t nbytes) {
  const std::byte* data = file->bytes().data() + header.dataOffset;
  const std::vector<std::size_t> shape = hostShape(header);
  const bool asItLies = isColumnMajor(header) && !header.bigEndian && header.cls->cls != qxClass::Boolean;
  if (asItLies && nbytes > 0 && isAligned(data, qxClassBytes(header.cls->cls))) {
    return qxAdoptArray(shape, header.cls->cls, header.cls->complex, const_cast<std::byte*>(data), false,
                        [file = std::move(file)]() mutable { file.reset(); });
  }
  qxArrayPtr array = qxCreateUninitializedArray(shape, header.cls->cls, header.cls->complex);
  if (nbytes == 0)
    return array;
  auto* to = static_cast<std::byte*>(qxGetWritableData(array.get()));
  if (isColumnMajor(header))
    std::memcpy(to, data, nbytes);
  else
    transpose(data, to, nbytes, header);
  normalize(array.get(), header);
  return array;
}

const NpyClass* npyClassOf(const qxArray* array) noexcept {
  const auto fits = [&](const NpyClass& cls) {
    return cls.cls == qxGetClass(array) && cls.complex == qxIsComplex(array);
  };
  const auto* found = std::find_if(std::begin(kClasses), std::end(kClasses), fits);
  return found == std::end(kClasses) ? nullptr : found;
}

std::string headerOf(const NpyClass& cls, qxDimensions dimensions) {
  std::string text = "{'descr': '";
  text += cls.nbytes == 1 ? '|' : '<';
  text += cls.kind + std::to_string(cls.nbytes) + "', 'fortran_order': True, 'shape': (";
  for (std::size_t i = 0; i < dimensions.size(); ++i)
    text += (i == 0 ? "" : ", ") + std::to_string(dimensions[i]);
  text += "), }";
  const std::size_t before = kMagic.size() + 2 + 4;  // version 2, which has no limit on the header
  text.append(kAlignment - 1 - (before + text.size()) % kAlignment, ' ');
  text += '\n';
  std::string header(kMagic);
  header += {'\x02', '\x00'};
  for (std::size_t i = 0; i < 4; ++i)
    header += static_cast<char>(text.size() >> (8 * i) & 0xFF);
  return header + text;
}

}  // namespace

qxArrayPtr readNpy(const std::string& path) {
  static_assert(std::endian::native == std::endian::little);
  auto file = std::make_shared<const FileContents>(path);
  const auto bytes = file->bytes();
  try {
    const Header header = parseHeader({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    const std::optional<std::size_t> wanted = dataBytes(header);
    const std::size_t found = bytes.size() - header.dataOffset;
    if (!wanted || *wanted > found)
      throw HeaderError("its data end early: " + std::to_string(found) + " bytes are less than its shape needs");
    return arrayOf(std::move(file), header, *wanted);
  } catch (const HeaderError& error) {
    throw CliError("cannot read \"" + path + "\" as a NumPy file: " + error.what());
  }
}

bool canWriteNpy(const qxArray* array) noexcept {
  return npyClassOf(array) != nullptr;
}

void writeNpy(const qxArray* array, parallel::spf::transport::ByteSink& file) {
  const NpyClass* cls = npyClassOf(array);
  if (cls == nullptr)
    throw CliError("arrays of class " + std::string(qxClassName(qxGetClass(array))) + " have no NumPy form");
  const std::string header = headerOf(*cls, qxGetDimensions(array));
  file.write(reinterpret_cast<const std::byte*>(header.data()), header.size());
  file.write(static_cast<const std::byte*>(qxGetData(array)), qxGetDataBytes(array));
}

}  // namespace zks
