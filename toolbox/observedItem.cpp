#include "toolbox/observedItem.h"

#include <algorithm>
#include <utility>

#include "platform/interrupt/interpreterContext.h"
#include "platform/interrupt/utInterruptState.h"
#include "transport/streams/ByteSink.h"

namespace parallel::toolbox {
namespace {

using spf::transport::ByteSink;
using spf::transport::SerializableData;

class ObservedSink : public ByteSink {
 public:
  ObservedSink(ByteSink& next, TransferProgress& progress) : next_(next), progress_(progress) {}

  void write(const std::byte* data, std::size_t nbytes) override {
    do {
      if (foundation::usm::Detail<foundation::usm::scope::Tvm>::isRequiredContextActive())
        utInterruptState::ThrowIfInterruptPending();
      const std::size_t piece = std::min(nbytes, kPiece);
      next_.write(data, piece);
      progress_.packed += piece;
      data += piece;
      nbytes -= piece;
    } while (nbytes > 0);
  }

 private:
  // Whole blocks of the framing, which then copies nothing of a piece but the last one's tail.
  static constexpr std::size_t kPiece = 32 * std::size_t{32767};

  ByteSink& next_;
  TransferProgress& progress_;
};

// Messages do not know their size beforehand and are small. A payload reserves what its items expect; were it a few
// bytes short, a large one would be copied, whole, into twice the room.
constexpr std::size_t kUnknownSizeHint = 65536;

std::size_t expectedSize(const SerializableData& item) {
  const std::size_t hint = item.serializedSizeHint();
  return hint != 0 ? hint : kUnknownSizeHint;
}

}  // namespace

std::shared_ptr<SerializableData> observedItem(std::shared_ptr<SerializableData> item,
                                               std::shared_ptr<CallObservation> observation) {
  // The array of the outer item carries the inner one's size, which is all that the outer one is asked about it.
  const std::size_t scalar[] = {1, 1};
  const qxArrayPtr size = qxCreateNumericArray(scalar, qxClass::Uint64);
  qxGetWritableElements<std::uint64_t>(size.get())[0] = expectedSize(*item);
  auto sizeHint = [](const qxArray* array) noexcept -> std::size_t {
    return *static_cast<const std::uint64_t*>(qxGetData(array));
  };
  auto encoder = [item = std::move(item), observation = std::move(observation)](const qxArray*, ByteSink& sink) {
    ObservedSink observed(sink, observation->progress());
    item->serialize(observed);
  };
  return std::make_shared<SerializableData>(size.get(), std::move(encoder), sizeHint);
}

}  // namespace parallel::toolbox
