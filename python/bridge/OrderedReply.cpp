#include "python/bridge/OrderedReply.h"

#include <cstddef>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/interrupt/utInterruptState.h"
#include "toolbox/AtomicFile.h"
#include "transport/streams/ByteVectorByteStream.h"
#include "transport/streams/FunctionalByteSink.h"

namespace zks::bridge {

using parallel::spf::transport::ByteSink;
using parallel::spf::transport::ByteVectorByteStream;
using parallel::spf::transport::FunctionalByteSink;
using parallel::toolbox::Reply;
using parallel::toolbox::ReplyItem;

namespace {

// Of a Reply's next item, or of a ReplyItem.
template <class Source>
std::vector<std::byte> contentOf(Source& source) {
  std::vector<std::byte> bytes;
  FunctionalByteSink sink(
      [&bytes](const std::byte* data, std::size_t nbytes) { bytes.insert(bytes.end(), data, data + nbytes); });
  source.takeBytes(sink);
  return bytes;
}

}  // namespace

OrderedReply::OrderedReply(Reply reply, std::string service)
    : service_(std::move(service)),
      first_(reply.itemsTaken()),
      count_(reply.itemCount() - first_),
      reply_(std::move(reply)),
      states_(count_) {}

void OrderedReply::throwClosed() const {
  throw Exception<parallel::python::SessionClosed>(service_);
}

Reply& OrderedReply::stream() {
  if (!reply_)
    throwClosed();
  return *reply_;
}

void OrderedReply::bufferNext() {
  const std::size_t index = stream().itemsTaken() - first_;
  states_[index].taken = true;  // if it fails half-way it cannot be read again
  std::vector<std::byte> bytes = contentOf(stream());
  states_[index].taken = false;
  states_[index].buffered = std::make_unique<ReplyItem>(std::make_shared<ByteVectorByteStream>(std::move(bytes)));
}

template <class Operation>
auto OrderedReply::takeLocked(std::size_t index, Operation operation) {
  const InterruptibleLock lock(mutex_);
  Item& item = states_.at(index);
  if (item.taken)
    throw Exception<parallel::python::ItemAlreadyRead>(first_ + index + 1);
  while (item.buffered == nullptr && stream().itemsTaken() - first_ < index)
    bufferNext();
  item.taken = true;
  if (const std::unique_ptr<ReplyItem> buffered = std::move(item.buffered))
    return operation(*buffered);
  return operation(stream());
}

template <class Operation>
auto OrderedReply::take(std::size_t index, Operation operation) {
  const struct DropAtTheEnd {
    OrderedReply& reply;
    ~DropAtTheEnd() { reply.dropIfAbandoned(); }
  } drop{*this};
  try {
    return takeLocked(index, operation);
  } catch (const Corvane::System::InterruptException&) {
    throw;
  } catch (const Exception<parallel::python::ItemAlreadyRead>&) {
    throw;
  } catch (...) {
    if (abandoned_.load())  // which broke the stream
      throwClosed();
    throw;
  }
}

// Called after the mark was set and after each taking: whichever comes last finds the mutex free.
void OrderedReply::dropIfAbandoned() noexcept {
  if (!abandoned_.load())
    return;
  if (!mutex_.try_lock())
    return;
  reply_.reset();
  mutex_.unlock();
}

void OrderedReply::abandon() noexcept {
  abandoned_.store(true);
  dropIfAbandoned();
}

qxArrayPtr OrderedReply::takeArray(std::size_t index) {
  return take(index, [](auto& source) { return source.takeArray().release(); });
}

qxArrayPtr OrderedReply::takeMessage(std::size_t index) {
  return take(index, [](auto& source) { return source.takeMessage().release(); });
}

void OrderedReply::takePlain(std::size_t index, const parallel::toolbox::PlainMemory& memory) {
  take(index, [&memory](auto& source) { source.takePlainInto(memory); });
}

std::vector<std::byte> OrderedReply::takeContent(std::size_t index) {
  return take(index, [](auto& source) { return contentOf(source); });
}

void OrderedReply::takeFile(std::size_t index, const std::string& path, parallel::toolbox::FileKind kind) {
  const auto writer = [&](ByteSink& file) { take(index, [&file](auto& source) { source.takeBytes(file); }); };
  parallel::toolbox::writeFile(path, writer, kind);
}

}  // namespace zks::bridge
