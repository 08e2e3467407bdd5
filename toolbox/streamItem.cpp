#include "toolbox/streamItem.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <utility>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/systemError.h"
#include "platform/interrupt/throwIfInterrupted.h"
#include "transport/streams/ByteSink.h"

namespace parallel::toolbox {

using spf::transport::ByteSink;
using spf::transport::SerializableData;

namespace {

// Whoever shares a pipe or terminal with others may find that they do not let it block. A while at most.
void waitForBytes(int file) {
  constexpr int kMilliseconds = 100;
  pollfd event{file, POLLIN, 0};
  ::poll(&event, 1, kMilliseconds);
}

}  // namespace

void copyToEnd(int file, const std::string& name, ByteSink& sink) {
  constexpr std::size_t kPieceBytes = std::size_t{256} << 10;
  std::vector<std::byte> piece(kPieceBytes);
  for (;;) {
    const ssize_t got = ::read(file, piece.data(), piece.size());
    if (got == 0)
      return;
    if (got > 0)
      sink.write(piece.data(), static_cast<std::size_t>(got));
    else if (errno == EAGAIN)
      waitForBytes(file);
    else if (errno != EINTR)
      throw Exception<CannotReadFile>(name, errors::systemErrorText(errno));
    throwIfInterrupted();
  }
}

Item streamItem(::files::UniqueFd file, const std::string& name) {
  const auto shared = std::make_shared<const ::files::UniqueFd>(std::move(file));
  auto encoder = [shared, name](const qxArray*, ByteSink& sink) { copyToEnd(shared->get(), name, sink); };
  const qxArrayPtr none = qxCreateStringUtf8(name);
  return {zksmessages::ITEM_KIND_FILE, std::make_shared<SerializableData>(none.get(), std::move(encoder)),
          std::nullopt};
}

}  // namespace parallel::toolbox
