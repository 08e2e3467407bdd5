#include "transport/streams/SPFByteStreamAdaptor.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "platform/interrupt/XExceptionTester.h"
#include "platform/interrupt/throwIfInterrupted.h"

namespace parallel::spf::transport {
namespace {

// Bounds the memory of a read, and how long an interrupt can go unnoticed.
constexpr std::size_t kChunkBytes = 16384;

void emulateCtrlCIfTested() {
  if (xtester::XExceptionTester::staticTesterMode == -1)
    return;
  constexpr const char* kPoint = "SPFByteStreamAdaptor::ctrl_c";
  xtester::CreateTesterByName(nullptr, nullptr, kPoint);
  if (auto* tester = xtester::GetTesterByName(nullptr, nullptr, kPoint); tester != nullptr)
    tester->emulateCtrlC();
}

}  // namespace

SPFByteStreamAdaptor::SPFByteStreamAdaptor(std::shared_ptr<std::istream> input) : input_(std::move(input)) {}

SPFByteStreamAdaptor::~SPFByteStreamAdaptor() = default;

std::size_t SPFByteStreamAdaptor::read(ByteSink& sink, std::size_t nbytes) {
  if (nbytes == 0)
    return 0;
  std::vector<char> chunk(std::min(nbytes, kChunkBytes));
  std::size_t total = 0;
  while (total < nbytes && input_->good()) {
    emulateCtrlCIfTested();
    throwIfInterrupted();
    input_->read(chunk.data(), static_cast<std::streamsize>(std::min(nbytes - total, kChunkBytes)));
    const auto extracted = static_cast<std::size_t>(input_->gcount());
    if (extracted == 0)
      continue;
    sink.write(reinterpret_cast<const std::byte*>(chunk.data()), extracted);
    total += extracted;
  }
  return total;
}

}  // namespace parallel::spf::transport
