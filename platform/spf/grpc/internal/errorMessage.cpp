#include "platform/spf/grpc/internal/errorMessage.h"

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

Kind fromWire(Level::Kind kind) {
  switch (kind) {
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

// What parts may add up to: the text that a chain may hold, and far more than enough for what is around it.
constexpr std::size_t kMaxPartsBytes = 2 * core::kMaxErrorBytes;

Level* addLevel(const core::ErrorLevel& level, v1::ErrorChain& to) {
  Level* added = to.add_levels();
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
      to = parts_.back().add_levels();
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

core::ErrorChain fromMessage(const v1::ErrorChain& message) {
  core::ErrorChain chain;
  bool continues = false;
  for (const Level& level : message.levels()) {
    if (continues)
      chain.back().text += level.text();
    else
      chain.push_back({fromWire(level.kind()), level.component(), level.name(), level.text()});
    continues = level.continues();
  }
  return chain;
}

void ErrorParts::add(const v1::ErrorChain& part) {
  bytes_ += part.ByteSizeLong();
  if (bytes_ > kMaxPartsBytes)
    throw FrameworkError("an error of more than " + std::to_string(kMaxPartsBytes) + " bytes");
  gathered_.MergeFrom(part);
}

core::ErrorChain ErrorParts::finish(const v1::ErrorChain& last) {
  add(last);
  return fromMessage(gathered_);
}

}  // namespace agent::spf::grpc_transport::internal
