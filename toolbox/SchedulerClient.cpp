#include "toolbox/SchedulerClient.h"

#include <boost/numeric/conversion/cast.hpp>
#include <exception>
#include <set>
#include <string_view>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/visibleText.h"
#include "platform/files/relativePath.h"
#include "platform/interrupt/utInterruptState.h"
#include "platform/spf/core/errors.h"
#include "toolbox/hostMessage.h"
#include "toolbox/observedItem.h"
#include "transport/client/ConnectionRecord.h"
#include "transport/data/InputPayload.h"
#include "transport/streams/SPFByteStreamAdaptor.h"
#include "transport/streams/blockFormat.h"
#include "transport/streams/readBigEndian.h"

namespace parallel::toolbox {
namespace {

using spf::transport::ByteStream;
using spf::transport::InputPayload;
using spf::transport::SerializableData;
using spf::transport::SPFByteStreamAdaptor;
using spf::transport::TransportClient;
namespace block_format = spf::transport::block_format;

// Puts the method and the service on top of the exception in hand.
[[noreturn]] void throwWithContext(const std::string& method, const std::string& service) {
  try {
    throw;
  } catch (const Corvane::System::InterruptException&) {
    throw;
  } catch (const agent::spf::Terminated&) {
    std::throw_with_nested(Exception<ServiceGone>(method, service));
  } catch (const agent::spf::Timeout&) {
    std::throw_with_nested(Exception<NoAnswer>(method, service));
  } catch (...) {
    std::throw_with_nested(Exception<CallFailed>(method, service));
  }
}

InputPayload observedPayload(const std::vector<Item>& items, const std::shared_ptr<CallObservation>& observation) {
  std::vector<std::shared_ptr<SerializableData>> data;
  data.reserve(items.size());
  for (const Item& item : items)
    data.push_back(observedItem(item.data, observation));
  return InputPayload(std::move(data));
}

// A client of this one call, so that what is observed belongs to it alone.
TransportClient observedClient(const Connection& connection, std::shared_ptr<CallObservation> observation) {
  const auto record = std::make_shared<spf::transport::ConnectionRecord>();
  record->invokable = std::make_shared<ObservingInvokable>(connection.client().getInvokable(), std::move(observation));
  return TransportClient(record);
}

// Of a container, which is read up to its first item. Nothing is made for the items: a reply may count more than it has.
std::size_t readItemCount(ByteStream& container) {
  spf::transport::readBigEndianInt8(container);  // the version
  return boost::numeric_cast<std::size_t>(spf::transport::readBigEndianInt32(container));
}

// An item has at least the two bytes of its end mark. Who takes all that the reply counts would find out late that there
// are none.
void checkItemCount(const std::string& method, std::size_t count, const agent::spf::core::ByteLimit& limit) {
  if (count > static_cast<std::size_t>(limit.bytes) / block_format::kHeaderBytes)
    throw Exception<MalformedReply>(method, "it counts " + std::to_string(count) + " items, for which the " +
                                                std::to_string(limit.bytes) + " bytes of " + limit.option +
                                                " have no room");
}

zksmessages::EchoRequest describe(const std::vector<Item>& items) {
  zksmessages::EchoRequest request;
  for (const Item& item : items) {
    auto* entry = request.add_items();
    entry->set_kind(item.kind);
    if (item.nbytes)
      entry->set_nbytes(*item.nbytes);
  }
  return request;
}

[[noreturn]] void throwMalformed(const std::string& problem) {
  throw Exception<MalformedReply>("runTask", problem);
}

// The service names places on this machine: none is outside of a folder that was asked for.
void checkFolders(const zksmessages::TesselTaskExecutionInfo& info, const zksmessages::TaskDescription& description) {
  std::set<std::string_view> wanted;
  if (description.return_folders())
    wanted.insert(description.output_files().begin(), description.output_files().end());
  for (const auto* const paths : {&info.output_folders(), &info.folder_files()}) {
    for (const std::string& path : *paths) {
      if (!files::isRelativePath(path) || !wanted.contains(files::firstPart(path)))
        throwMalformed("it has " + errors::inQuotes(path) + ", which is in no folder that was asked for");
    }
  }
}

}  // namespace

SchedulerClient::SchedulerClient(const Connection& connection, std::shared_ptr<TransferProgress> progress,
                                 ErrorForm errors)
    : connection_(connection),
      progress_(progress != nullptr ? std::move(progress) : std::make_shared<TransferProgress>()),
      errors_(errors) {}

Reply SchedulerClient::call(const std::string& method, const std::vector<Item>& items) const {
  const auto observation = std::make_shared<CallObservation>(progress_);
  const TransportClient client = observedClient(connection_, observation);
  try {
    try {
      client.invokeMethod(method, observedPayload(items, observation));  // gives none of the reply's items
      auto reply = std::make_shared<SPFByteStreamAdaptor>(observation->takeReply());
      const std::size_t itemCount = readItemCount(*reply);
      if (const auto& limit = connection_.replyLimit())
        checkItemCount(method, itemCount, *limit);
      return {method, itemCount, std::move(reply), errors_};
    } catch (...) {
      throwWithContext(method, connection_.name());
    }
  } catch (...) {
    rethrowInForm(errors_);
  }
}

Reply SchedulerClient::echo(const std::vector<Item>& items) const {
  std::vector<Item> request;
  request.reserve(items.size() + 1);
  request.push_back(messageItem(describe(items)));
  request.insert(request.end(), items.begin(), items.end());
  Reply reply = call("echo", request);
  reply.expectItems(items.size(), "those that were sent");
  return reply;
}

TaskResult SchedulerClient::runTask(const zksmessages::TaskDescription& description,
                                    const std::vector<Item>& inputs) const {
  constexpr std::size_t kItemsBeforeOutputs = 3;  // how it ran, standard output, standard error
  std::vector<Item> request;
  request.reserve(inputs.size() + 1);
  request.push_back(messageItem(description));
  request.insert(request.end(), inputs.begin(), inputs.end());
  Reply reply = call("runTask", request);
  const std::size_t fewest = kItemsBeforeOutputs + static_cast<std::size_t>(description.output_files_size());
  if (!description.return_folders() || reply.itemCount() < fewest)
    reply.expectItems(fewest, "the execution record, standard output, standard error, output files");
  zksmessages::TesselTaskExecutionInfo info;
  if (!tryMessageFromHost(reply.takeMessage().get(), info))
    throwMalformed("its first item is not an execution record");
  checkFolders(info, description);
  reply.expectItems(fewest + static_cast<std::size_t>(info.folder_files_size()),
                    "the execution record, standard output, standard error, output files, files of folders");
  auto standardOutput = reply.takePlain();
  auto standardError = reply.takePlain();
  return {std::move(info), std::move(standardOutput), std::move(standardError), std::move(reply)};
}

}  // namespace parallel::toolbox
