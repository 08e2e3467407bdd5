#include "transport/client/expandSPFErrors.h"

#include <memory>
#include <string>
#include <vector>

#include "platform/errors/IException.h"
#include "platform/interrupt/utInterruptState.h"
#include "platform/logging/currentExceptionText.h"
#include "platform/spf/core/errors.h"
#include "transport/getLogger.h"

namespace parallel::spf::transport {

namespace {

// What is known of a chain so far.
struct Expansion {
  std::vector<std::string> messages;  // one a level, outermost first
  bool framework = false;             // whether a level is a FrameworkError

  void add(const std::string& message) { add(message, message); }

  void add(const std::string& logText, const std::string& message) {
    FOUNDATION_LOG(getLogger(), 256) << atDepth() << logText;
    messages.push_back(message);
  }

  // How the record of the level at hand begins. A stream would write the number as the host's global locale has it.
  std::string atDepth() const { return "Error depth = " + std::to_string(messages.size()) + " : "; }
};

// What is nested in a caught exception; null when nothing is.
template <class Caught>
std::exception_ptr nestedIn(const Caught& caught) {
  const auto* nested = dynamic_cast<const std::nested_exception*>(std::addressof(caught));
  return nested == nullptr ? nullptr : nested->nested_ptr();
}

// Adds one level and gives the next one, null at the end of the walk. Lets pass what must not be expanded. The order of
// the handlers matters: several of the types are standard exceptions too.
std::exception_ptr expandLevel(const std::exception_ptr& level, Expansion& expansion) {
  try {
    std::rethrow_exception(level);
  } catch (const Corvane::System::InterruptException&) {
    throw;
  } catch (const agent::spf::FrameworkError& error) {
    expansion.framework = true;
    expansion.add("SPF FrameworkError", error.what());
    return nestedIn(error);
  } catch (const agent::spf::Terminated&) {
    expansion.add("SPF Terminated", "Terminated");
  } catch (const agent::spf::Timeout&) {
    expansion.add("SPF Timeout", "Timeout");
  } catch (const IException& error) {
    expansion.add(fl::i18n::to_string(error.ToUstring()));
    return nestedIn(error);
  } catch (const std::exception& error) {
    expansion.add(error.what());
    return nestedIn(error);
  } catch (const std::string& text) {
    expansion.add(text);
  } catch (...) {
    FOUNDATION_LOG(getLogger(), 256) << expansion.atDepth() << logging::currentExceptionText();
    if (expansion.messages.empty())
      throw;
  }
  return nullptr;
}

std::string joined(const std::vector<std::string>& messages) {
  std::string text;
  for (std::size_t depth = 0; depth < messages.size(); ++depth) {
    if (depth > 0)
      text.append("\n").append(depth, ' ');
    text += messages[depth];
  }
  return text;
}

}  // namespace

void throwExpandedSPFErrors() {
  Expansion expansion;
  std::exception_ptr level = std::current_exception();
  while (level != nullptr)
    level = expandLevel(level, expansion);

  const std::string text = joined(expansion.messages);
  if (expansion.framework)
    throw agent::spf::FrameworkError(text);
  throw std::runtime_error(text);
}

void throwExpandedSPFErrors(std::exception_ptr error) {
  if (error == nullptr)
    return;
  try {
    std::rethrow_exception(std::move(error));
  } catch (...) {
    throwExpandedSPFErrors();
  }
}

std::exception_ptr expandSPFErrors(std::exception_ptr error) noexcept {
  try {
    throwExpandedSPFErrors(std::move(error));
  } catch (...) {
    return std::current_exception();
  }
  return nullptr;
}

}  // namespace parallel::spf::transport
