#include "platform/spf/grpc/internal/wire/SliceCursor.h"

#include <algorithm>

#include "platform/spf/core/errors.h"

namespace agent::spf::grpc_transport::internal {

namespace {

enum WireType : std::uint32_t { kVarint = 0, kFixed64 = 1, kLength = 2, kGroupStart = 3, kGroupEnd = 4, kFixed32 = 5 };

constexpr int kMaxGroupDepth = 100;  // as the generated parsers

}  // namespace

void SliceCursor::malformed(const char* why) {
  throw FrameworkError(std::string("malformed frame: ") + why);
}

SliceCursor::SliceCursor(const std::vector<grpc::Slice>& slices) : slices_(slices) {
  for (const grpc::Slice& slice : slices)
    remaining_ += slice.size();
}

std::uint8_t SliceCursor::readByte() {
  if (remaining_ == 0)
    malformed("it ends in the middle of a field");
  while (offset_ == slices_[index_].size()) {
    ++index_;
    offset_ = 0;
  }
  --remaining_;
  return slices_[index_].begin()[offset_++];
}

std::uint64_t SliceCursor::readVarint() {
  std::uint64_t value = 0;
  for (unsigned shift = 0; shift < 70; shift += 7) {
    const std::uint8_t byte = readByte();
    value |= static_cast<std::uint64_t>(byte & 0x7FU) << std::min(shift, 63U);
    if ((byte & 0x80U) == 0)
      return value;
  }
  malformed("a number of more than ten bytes");
}

std::uint32_t SliceCursor::readTag() {
  std::uint32_t tag = 0;
  for (unsigned shift = 0; shift < 35; shift += 7) {
    const std::uint8_t byte = readByte();
    tag |= static_cast<std::uint32_t>(byte & 0x7FU) << shift;  // bits beyond 32 are dropped, as generated parsers do
    if ((byte & 0x80U) != 0)
      continue;
    if ((tag >> 3U) == 0)
      malformed("an invalid field number");
    return tag;
  }
  malformed("a field number of more than five bytes");
}

std::size_t SliceCursor::readLength() {
  const std::uint64_t length = readVarint();
  if (length > remaining_)
    malformed("a field is longer than the frame");
  return static_cast<std::size_t>(length);
}

template <class Take>
void SliceCursor::takeParts(std::size_t nbytes, Take take) {
  if (nbytes > remaining_)
    malformed("it ends in the middle of a field");
  remaining_ -= nbytes;
  while (nbytes > 0) {
    const grpc::Slice& slice = slices_[index_];
    const std::size_t part = std::min(nbytes, slice.size() - offset_);
    if (part > 0)
      take(slice, offset_, offset_ + part);
    offset_ += part;
    nbytes -= part;
    if (offset_ == slice.size() && nbytes > 0) {
      ++index_;
      offset_ = 0;
    }
  }
}

std::string SliceCursor::readBytes(std::size_t nbytes) {
  std::string bytes;
  bytes.reserve(std::min(nbytes, remaining_));
  takeParts(nbytes, [&](const grpc::Slice& slice, std::size_t begin, std::size_t end) {
    bytes.append(reinterpret_cast<const char*>(slice.begin()) + begin, end - begin);
  });
  return bytes;
}

std::vector<grpc::Slice> SliceCursor::shareBytes(std::size_t nbytes) {
  std::vector<grpc::Slice> parts;
  takeParts(nbytes, [&](const grpc::Slice& slice, std::size_t begin, std::size_t end) {
    parts.push_back(begin == 0 && end == slice.size() ? slice : slice.sub(begin, end));
  });
  return parts;
}

void SliceCursor::skip(std::size_t nbytes) {
  takeParts(nbytes, [](const grpc::Slice&, std::size_t, std::size_t) {});
}

SliceCursor SliceCursor::takeMessage(std::size_t nbytes) {
  SliceCursor message(*this);
  skip(nbytes);
  message.remaining_ = nbytes;
  return message;
}

void SliceCursor::skipField(std::uint32_t tag) {
  skipValue(tag, 0);
}

void SliceCursor::skipGroup(std::uint32_t number, int depth) {
  if (depth >= kMaxGroupDepth)
    malformed("groups nested too deeply");
  for (;;) {
    const std::uint32_t inner = readTag();
    if ((inner & 7U) == kGroupEnd) {
      if ((inner >> 3U) != number)
        malformed("a group ends that was not begun");
      return;
    }
    skipValue(inner, depth + 1);
  }
}

void SliceCursor::skipValue(std::uint32_t tag, int depth) {
  switch (tag & 7U) {
    case kVarint:
      readVarint();
      return;
    case kFixed64:
      return skip(8);
    case kLength:
      return skip(readLength());
    case kGroupStart:
      return skipGroup(tag >> 3U, depth);
    case kFixed32:
      return skip(4);
    default:
      malformed("an unknown kind of field");
  }
}

}  // namespace agent::spf::grpc_transport::internal
