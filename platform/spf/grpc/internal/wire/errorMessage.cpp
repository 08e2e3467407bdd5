#include "platform/spf/grpc/internal/wire/errorMessage.h"

#include <string_view>
#include <utility>

#include "platform/errors/ustring.h"
#include "platform/spf/core/errors.h"

namespace agent::spf::grpc_transport::internal {

namespace {

using Kind = core::ErrorLevel::Kind;
using Level = v1::ErrorChain::Level;

Level::Kind toWire(Kind kind) {
  switch (kind) {
    case Kind::standard:
      return Level::STANDARD;
    case Kind::identified:
      return Level::IDENTIFIED;
    case Kind::framework:
      return Level::FRAMEWORK;
    case Kind::timeout:
      return Level::TIMEOUT;
    case Kind::terminated:
      return Level::TERMINATED;
    case Kind::unknown:
      break;
  }
  return Level::UNKNOWN;
}

// Bits beyond 32 are dropped, as generated parsers do.
Kind fromWire(std::uint64_t kind) {
  switch (static_cast<std::uint32_t>(kind)) {
    case Level::STANDARD:
      return Kind::standard;
    case Level::IDENTIFIED:
      return Kind::identified;
    case Level::FRAMEWORK:
      return Kind::framework;
    case Level::TIMEOUT:
      return Kind::timeout;
    case Level::TERMINATED:
      return Kind::terminated;
    default:
      return Kind::unknown;
  }
}

// Tags: field number and wire type (0: number, 2: length and bytes), of ErrorChain and of its Level.
constexpr std::uint32_t kLevelsTag = 1 << 3 | 2;
constexpr std::uint32_t kKindTag = 1 << 3 | 0;
constexpr std::uint32_t kComponentTag = 2 << 3 | 2;
constexpr std::uint32_t kNameTag = 3 << 3 | 2;
constexpr std::uint32_t kTextTag = 4 << 3 | 2;
constexpr std::uint32_t kContinuesTag = 5 << 3 | 0;

std::string readUtf8(SliceCursor& message) {
  std::string text = message.readBytes(message.readLength());
  if (!fl::i18n::isWellFormed(std::string_view(text)))
    SliceCursor::malformed("an error's identifier is not UTF-8");
  return text;
}

void decodeLevel(SliceCursor message, ReceivedError& into) {
  core::ErrorLevel level;
  bool continues = false;
  while (message.remaining() > 0) {
    const std::uint32_t tag = message.readTag();
    switch (tag) {
      case kKindTag:
        level.kind = fromWire(message.readVarint());
        break;
      case kComponentTag:
        level.component = readUtf8(message);
        break;
      case kNameTag:
        level.name = readUtf8(message);
        break;
      case kTextTag:
        level.text = message.readBytes(message.readLength());
        break;
      case kContinuesTag:
        continues = message.readVarint() != 0;
        break;
      default:
        message.skipField(tag);
    }
  }
  into.add(std::move(level), continues);
}

// What parts may add up to: the text that a chain may hold, and far more than enough for what is around it.
constexpr std::size_t kMaxPartsBytes = 2 * core::kMaxErrorBytes;

// Room first: a repeated field that has none, and gets none, forgets the new element.
Level* addEmptyLevel(v1::ErrorChain& to) {
  to.mutable_levels()->Reserve(to.levels_size() + 1);
  return to.add_levels();
}

Level* addLevel(const core::ErrorLevel& level, v1::ErrorChain& to) {
  Level* added = addEmptyLevel(to);
  added->set_kind(toWire(level.kind));
  added->set_component(wellFormed(level.component));
  added->set_name(wellFormed(level.name));
  return added;
}

// Hands out the text of one level in pieces that fit into what room the parts have left.
class PartsWriter {
 public:
  void add(const core::ErrorLevel& level) {
    Level* to = addLevel(level, parts_.back());
    std::string_view rest = level.text;
    while (rest.size() > room_) {
      to->set_text(std::string(rest.substr(0, room_)));
      to->set_continues(true);
      rest.remove_prefix(room_);
      parts_.emplace_back();
      room_ = kErrorPartBytes;
      to = addEmptyLevel(parts_.back());
    }
    to->set_text(std::string(rest));
    room_ -= rest.size();
  }

  std::vector<v1::ErrorChain> take() { return std::move(parts_); }

 private:
  std::vector<v1::ErrorChain> parts_{1};
  std::size_t room_ = kErrorPartBytes;
};

}  // namespace

std::string wellFormed(const std::string& text) {
  return fl::i18n::isWellFormed(std::string_view(text)) ? text : fl::i18n::to_string(fl::i18n::to_ustring(text));
}

v1::ErrorChain toMessage(const core::ErrorChain& chain) {
  v1::ErrorChain message;
  for (const core::ErrorLevel& level : chain)
    addLevel(level, message)->set_text(level.text);
  return message;
}

std::vector<v1::ErrorChain> toParts(const core::ErrorChain& chain) {
  PartsWriter writer;
  for (const core::ErrorLevel& level : chain)
    writer.add(level);
  return writer.take();
}

void ReceivedError::add(core::ErrorLevel level, bool goesOn) {
  if (!continues && levels.size() <= core::kMaxErrorLevels)
    levels.push_back(std::move(level));
  else if (!continues)
    ++leftOut;
  else if (leftOut == 0)
    levels.back().text += level.text;
  continues = goesOn;
}

void decodeError(SliceCursor message, ReceivedError& into) {
  into.nbytes += message.remaining();
  while (message.remaining() > 0) {
    const std::uint32_t tag = message.readTag();
    if (tag == kLevelsTag)
      decodeLevel(message.takeMessage(message.readLength()), into);
    else
      message.skipField(tag);
  }
}

void ErrorParts::add(ReceivedError part) {
  gathered_.nbytes += part.nbytes;
  if (gathered_.nbytes > kMaxPartsBytes)
    throw FrameworkError("an error of more than " + std::to_string(kMaxPartsBytes) + " bytes");
  for (core::ErrorLevel& level : part.levels)
    gathered_.add(std::move(level), false);
  gathered_.leftOut += part.leftOut;
  gathered_.continues = part.levels.empty() ? gathered_.continues : part.continues;
}

core::ErrorChain ErrorParts::finish(ReceivedError last) {
  add(std::move(last));
  if (gathered_.leftOut > 0)
    gathered_.levels.back() = core::leftOutLevels(gathered_.leftOut + 1);
  return std::move(gathered_.levels);
}

}  // namespace agent::spf::grpc_transport::internal
