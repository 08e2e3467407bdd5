#include "toolbox/Reply.h"

#include <exception>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/ustring.h"
#include "platform/files/nativePath.h"
#include "platform/interrupt/utInterruptState.h"

namespace parallel::toolbox {
namespace {

using spf::transport::DeserializableData;
using tova::factory::qxArrayProxy;

// The item's own error says less than what broke the stream under it, and hides an interrupt.
[[noreturn]] void rethrowRootCause(const CallObservation& observation, unsigned long interruptsBefore) {
  if (utInterruptState::thrownOnThisThread() != interruptsBefore)
    throw Corvane::System::InterruptException();
  const std::exception_ptr failure = observation.streamFailure();
  if (failure != nullptr)
    std::rethrow_exception(failure);
  throw;
}

qxArrayProxy resultOf(const std::string& method, const qxArrayProxy& payload) {
  const qxArray* result = qxHasField(payload.get(), "result") ? qxGetField(payload.get(), 0, "result") : nullptr;
  if (result == nullptr || qxGetClass(result) != qxClass::Struct)
    throw Exception<MalformedReply>(method, "a message that should hold a result holds none");
  return qxArrayProxy(qxCreateSharedCopy(result));
}

}  // namespace

Reply::Reply(std::string method, const spf::transport::OutputPayload& payload,
             std::shared_ptr<const CallObservation> observation, ErrorForm errors)
    : method_(std::move(method)),
      items_(payload.getDeserializableData()),
      itemCount_(items_.size()),
      observation_(std::move(observation)),
      errors_(errors) {}

void Reply::expectItems(std::size_t count, const std::string& description) const {
  if (itemCount_ == count)
    return;
  throw Exception<MalformedReply>(method_, "it has " + std::to_string(itemCount_) + " items, not " +
                                               std::to_string(count) + " (" + description + ")");
}

// The stream stands somewhere inside the item then, so nothing that comes after it can be told apart any more.
void Reply::giveUp(std::size_t number, unsigned long interruptsBefore) {
  items_.clear();
  try {
    rethrowRootCause(*observation_, interruptsBefore);
  } catch (const Corvane::System::InterruptException&) {
    throw;
  } catch (...) {
    std::throw_with_nested(Exception<ReplyItemFailed>(number, itemCount_, method_));
  }
}

qxArrayProxy Reply::take(const Operation& operation) {
  if (taken_ == itemCount_)
    throw Exception<MalformedReply>(method_, "it ends after " + std::to_string(itemCount_) + " items");
  const std::size_t number = ++taken_;
  if (items_.empty())
    throw Exception<ReplyLost>(method_);
  const unsigned long interrupts = utInterruptState::thrownOnThisThread();
  try {
    try {
      return operation(*items_[number - 1]);
    } catch (...) {
      giveUp(number, interrupts);
    }
  } catch (...) {
    rethrowInForm(errors_);
  }
}

qxArrayProxy Reply::takeMessage() {
  return take([this](DeserializableData& item) { return resultOf(method_, item.deserializeProtobuf()); });
}

qxArrayProxy Reply::takeArray() {
  return take([](DeserializableData& item) { return item.deserializeQxArray(qxArrayProxy()); });
}

qxArrayProxy Reply::takePlain() {
  return take([](DeserializableData& item) { return item.deserializePlain(); });
}

void Reply::takeFile(const std::string& path) {
  if (!fl::i18n::isWellFormed(path))
    throw Exception<CannotWriteFile>(path, "its name is not UTF-8, and the host's names are texts");
  take([&path](DeserializableData& item) {
    item.deserializeToFile(files::hostPath(path));
    return qxArrayProxy();
  });
}

}  // namespace parallel::toolbox
