#include "platform/spf/grpc/internal/errorMessage.h"

#include "platform/errors/ustring.h"

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

}  // namespace

std::string wellFormed(const std::string& text) {
  return fl::i18n::isWellFormed(std::string_view(text)) ? text : fl::i18n::to_string(fl::i18n::to_ustring(text));
}

v1::ErrorChain toMessage(const core::ErrorChain& chain) {
  v1::ErrorChain message;
  for (const core::ErrorLevel& level : chain) {
    Level* to = message.add_levels();
    to->set_kind(toWire(level.kind));
    to->set_component(wellFormed(level.component));
    to->set_name(wellFormed(level.name));
    to->set_text(level.text);
  }
  return message;
}

core::ErrorChain fromMessage(const v1::ErrorChain& message) {
  core::ErrorChain chain;
  for (const Level& level : message.levels())
    chain.push_back({fromWire(level.kind()), level.component(), level.name(), level.text()});
  return chain;
}

}  // namespace agent::spf::grpc_transport::internal
