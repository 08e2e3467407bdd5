#include "transport/streams/createByteStream.h"

#include <boost/numeric/conversion/cast.hpp>
#include <memory>
#include <ostream>
#include <utility>
#include <vector>

#include "transport/streams/getSerializedBytes.h"

namespace parallel::spf::transport {

using agent::spf::core::ExportedDataSource;

// By value: the caller gives its payload away.
ExportedDataSource createByteStream(InputPayload payload) {  // NOLINT(performance-unnecessary-value-param)
  auto bytes = std::make_shared<std::vector<char>>(getSerializedBytes<InputPayload, char>(payload));
  const auto size = boost::numeric_cast<long>(bytes->size());
  auto writer = std::make_shared<ExportedDataSource::Writer>([bytes = std::move(bytes)](std::ostream& stream) {
    stream.write(bytes->data(), boost::numeric_cast<std::streamsize>(bytes->size()));
  });
  return {std::move(writer), size};
}

}  // namespace parallel::spf::transport
