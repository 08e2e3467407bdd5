// Fuzz target: any bytes as a reply of any kinds of items. Each item is read as its own bytes say, whatever its
// neighbours hold; one that breaks off is an error of that item.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "platform/errors/IException.h"
#include "transport/data/OutputPayload.h"
#include "transport/data/testing/TemporaryDirectory.h"
#include "transport/data/testing/arrays.h"
#include "transport/data/testing/framing.h"
#include "transport/data/testing/streams.h"
#include "transport/streams/BlockedDataByteStream.h"
#include "transport/streams/readBytes.h"

namespace {

using namespace parallel::spf::transport;
using testing::Bytes;
using testing::PiecewiseByteStream;
using tova::factory::qxArrayProxy;

enum class Kind { message, array, plain, file };

// What a head or a plain item announces is believed, by contract; inputs that announce more are passed over.
constexpr std::int64_t kMaxItems = 100;
constexpr std::int64_t kMaxPlainBytes = std::int64_t{1} << 20;

void require(bool condition) {
  if (!condition)
    std::abort();
}

std::int64_t signedBigEndian(const Bytes& bytes, std::size_t at, std::size_t nbytes) {
  std::uint64_t value = std::to_integer<int>(bytes[at]) >= 0x80 ? ~std::uint64_t{0} : 0;
  for (std::size_t i = at; i < at + nbytes; ++i)
    value = value << 8U | std::to_integer<std::uint64_t>(bytes[i]);
  return static_cast<std::int64_t>(value);
}

struct Reply {
  std::vector<Bytes> items;  // those that are whole
  bool breaksOff = false;    // in the item after them
};

Reply itemsOf(const Bytes& container, std::int64_t count) {
  const auto source = std::make_shared<PiecewiseByteStream>(Bytes(container.begin() + 5, container.end()));
  Reply reply;
  for (std::int64_t i = 0; i < count; ++i) {
    BlockedDataByteStream stream(source);
    try {
      reply.items.push_back(readBytes(stream));
    } catch (const std::exception&) {
      reply.breaksOff = true;
      break;
    }
  }
  return reply;
}

// A file without a name in any folder.
class AnonymousFile {
 public:
  AnonymousFile() : file_(::memfd_create("item", MFD_CLOEXEC)) {}
  ~AnonymousFile() { ::close(file_); }
  AnonymousFile(const AnonymousFile&) = delete;
  AnonymousFile& operator=(const AnonymousFile&) = delete;

  std::filesystem::path path() const { return "/proc/self/fd/" + std::to_string(file_); }

 private:
  int file_;
};

// Null when the operation threw; it may throw host errors only.
template <class Operation>
std::optional<qxArrayProxy> resultOf(Operation operation) {
  try {
    return operation();
  } catch (const IException&) {
    return std::nullopt;
  }
}

Bytes expectedPlain(const Bytes& content, std::int64_t length) {
  Bytes expected(content.begin() + 8, content.end());
  expected.resize(static_cast<std::size_t>(length));
  return expected;
}

// False when the item after this one cannot be reached: a negative length ends the reading of its item at once.
bool readPlainItem(DeserializableData& item, const Bytes& content) {
  const std::int64_t length = content.size() < 8 ? -1 : signedBigEndian(content, 0, 8);
  const auto found = resultOf([&] { return item.deserializePlain(); });
  require(found.has_value() == (length >= 0));
  require(!found || testing::bytesOfArray(found->get()) == expectedPlain(content, length));
  return found.has_value() || content.size() < 8;
}

void readFileItem(DeserializableData& item, const Bytes& content) {
  const AnonymousFile file;
  item.deserializeToFile(file.path().u16string());
  require(testing::readFile(file.path()) == content);
}

void readArrayItem(DeserializableData& item, const Bytes& content) {
  const qxArrayPtr expected(qxDeserialize(content.data(), content.size()));
  const auto found = resultOf([&] { return item.deserializeQxArray(qxArrayProxy()); });
  require(found.has_value() == (expected != nullptr));
  require(!found || qxEqual(found->get(), expected.get()));
}

void readMessageItem(DeserializableData& item) {
  const auto found = resultOf([&] { return item.deserializeProtobuf(); });
  require(!found || found->get() != nullptr);
}

bool readItem(DeserializableData& item, Kind kind, const Bytes& content) {
  if (kind == Kind::plain && content.size() >= 8 && signedBigEndian(content, 0, 8) > kMaxPlainBytes)
    kind = Kind::file;
  switch (kind) {
    case Kind::message:
      readMessageItem(item);
      return true;
    case Kind::array:
      readArrayItem(item, content);
      return true;
    case Kind::plain:
      return readPlainItem(item, content);
    case Kind::file:
      readFileItem(item, content);
      return true;
  }
  return false;
}

void readItems(const Bytes& container, const Reply& reply, unsigned kinds, std::size_t pieceBytes) {
  const auto found =
      OutputPayload::deserialize(std::make_unique<PiecewiseByteStream>(container, pieceBytes)).getDeserializableData();
  for (std::size_t i = 0; i < reply.items.size(); ++i)
    if (!readItem(*found.at(i), static_cast<Kind>(kinds >> i % 4 * 2 & 3U), reply.items[i]))
      return;
  if (reply.breaksOff)
    require(!resultOf([&] { return found.at(reply.items.size())->deserializeQxArray(qxArrayProxy()); }));
}

void requireHeadRefused(const Bytes& container) {
  try {
    OutputPayload::deserialize(std::make_unique<PiecewiseByteStream>(container));
  } catch (const std::exception&) {
    return;
  }
  std::abort();
}

}  // namespace

// A byte with the kinds of the items, four in turn, and one with the length of the pieces in which the reply comes;
// then the reply.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t nbytes) {
  if (nbytes < 2)
    return 0;
  const auto* first = reinterpret_cast<const std::byte*>(data + 2);
  const Bytes container(first, first + nbytes - 2);
  const std::int64_t count = container.size() < 5 ? -1 : signedBigEndian(container, 1, 4);
  if (count < 0)
    requireHeadRefused(container);
  if (count < 0 || count > kMaxItems)
    return 0;
  const Reply reply = itemsOf(container, count);
  readItems(container, reply, data[0], data[1] + std::size_t{1});
  readItems(testing::container(reply.items), {reply.items, false}, data[0], 16384);
  return 0;
}
