#include "toolbox/observedItem.h"

#include <algorithm>
#include <utility>

#include "platform/interrupt/throwIfInterrupted.h"
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
      throwIfInterrupted();
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
  // An item is made of an array; this one's encoder and size come from the other item.
  const std::size_t none[] = {0, 0};
  const qxArrayPtr unused = qxCreateNumericArray(none, qxClass::Uint8);
  auto sizeHint = [item](const qxArray*) { return expectedSize(*item); };
  auto encoder = [item = std::move(item), observation = std::move(observation)](const qxArray*, ByteSink& sink) {
    ObservedSink observed(sink, *observation->progress());
    item->serialize(observed);
  };
  return std::make_shared<SerializableData>(unused.get(), std::move(encoder), std::move(sizeHint));
}

}  // namespace parallel::toolbox
