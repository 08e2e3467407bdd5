#include "toolbox/Reply.h"

#include <exception>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/interrupt/utInterruptState.h"
#include "transport/streams/BlockedDataByteStream.h"

namespace parallel::toolbox {

using spf::transport::BlockedDataByteStream;
using spf::transport::ByteSink;
using spf::transport::ByteStream;
using tova::factory::qxArrayProxy;

Reply::Reply(std::string method, std::size_t itemCount, std::shared_ptr<ByteStream> items, ErrorForm errors)
    : method_(std::move(method)), itemCount_(itemCount), items_(std::move(items)), errors_(errors) {}

void Reply::expectItems(std::size_t count, const std::string& description) const {
  if (itemCount_ == count)
    return;
  throw Exception<MalformedReply>(method_, "it has " + std::to_string(itemCount_) + " items, not " +
                                               std::to_string(count) + " (" + description + ")");
}

// The stream stands somewhere inside the item then, so nothing that comes after it can be told apart any more.
void Reply::giveUp(std::size_t number) {
  items_.reset();
  try {
    throw;
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
  if (items_ == nullptr)
    throw Exception<ReplyLost>(method_);
  ReplyItem item(std::make_shared<BlockedDataByteStream>(items_));
  try {
    try {
      return operation(item);
    } catch (...) {
      giveUp(number);
    }
  } catch (...) {
    rethrowInForm(errors_);
  }
}

qxArrayProxy Reply::takeMessage() {
  return take([](ReplyItem& item) { return item.takeMessage(); });
}

qxArrayProxy Reply::takeArray() {
  return take([](ReplyItem& item) { return item.takeArray(); });
}

qxArrayProxy Reply::takePlain() {
  return take([](ReplyItem& item) { return item.takePlain(); });
}

void Reply::takePlainInto(const PlainMemory& memory) {
  take([&memory](ReplyItem& item) {
    item.takePlainInto(memory);
    return qxArrayProxy();
  });
}

void Reply::takeBytes(ByteSink& sink) {
  take([&sink](ReplyItem& item) {
    item.takeBytes(sink);
    return qxArrayProxy();
  });
}

void Reply::takeFile(const std::string& path, FileKind kind) {
  writeFile(
      path, [this](ByteSink& file) { takeBytes(file); }, kind);
}

}  // namespace parallel::toolbox
