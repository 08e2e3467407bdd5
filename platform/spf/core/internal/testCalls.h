// For tests: makes calls and waits for what comes of them, with a deadline.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <istream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/spf/core/ExportedDataSource.h"
#include "platform/spf/core/ImportedDataSource.h"
#include "platform/spf/core/Invokable.h"
#include "platform/spf/core/promiseCompletingHandler.h"

namespace agent::spf::core::testing {

inline constexpr std::chrono::seconds kDeadline{60};

// Bytes that repeat in no period that a frame or a buffer has.
inline std::string patternOf(std::size_t nbytes, std::uint64_t seed = 1) {
  std::string bytes(nbytes, '\0');
  std::uint64_t state = seed * 0x9E3779B97F4A7C15U + 1;
  // By pointer: tests are built unoptimised, where a string's iterators cost more than the rest.
  for (char *byte = bytes.data(), *const end = byte + nbytes; byte != end; ++byte) {
    state = state * 6364136223846793005U + 1442695040888963407U;
    *byte = static_cast<char>(state >> 56U);
  }
  return bytes;
}

inline std::uint64_t digestOf(std::string_view bytes, std::uint64_t digest = 14695981039346656037U) {
  for (const char byte : bytes)
    digest = (digest ^ static_cast<unsigned char>(byte)) * 1099511628211U;
  return digest;
}

inline std::shared_ptr<ExportedDataSource> sourceOf(ExportedDataSource::Writer writer, long size) {
  return std::make_shared<ExportedDataSource>(std::make_shared<ExportedDataSource::Writer>(std::move(writer)), size);
}

// As the library offers its payloads: one write of everything.
inline std::shared_ptr<ExportedDataSource> sourceOf(std::string bytes) {
  const auto size = static_cast<long>(bytes.size());
  auto shared = std::make_shared<std::string>(std::move(bytes));
  return sourceOf([shared](std::ostream& out) { out.write(shared->data(), static_cast<long>(shared->size())); }, size);
}

template <class T>
T await(std::future<T>& future) {
  if (future.wait_for(kDeadline) != std::future_status::ready)
    throw std::logic_error("the deadline of the test has passed");
  return future.get();
}

using ReplyFuture = std::future<std::shared_ptr<ImportedDataSource>>;

inline ReplyFuture start(Invokable& service, const std::string& method, std::shared_ptr<ExportedDataSource> request,
                         Caller caller = {}) {
  auto promise = std::make_shared<std::promise<std::shared_ptr<ImportedDataSource>>>();
  ReplyFuture future = promise->get_future();
  service.invoke({}, method,
                 promiseCompletingHandler<std::shared_ptr<ImportedDataSource>>(std::move(promise), std::move(caller)),
                 GenericPayload(std::move(request)), 0);
  return future;
}

inline std::string readAll(std::istream& in) {
  std::string bytes;
  std::vector<char> part(100'000);
  while (in.read(part.data(), static_cast<std::streamsize>(part.size())), in.gcount() > 0)
    bytes.append(part.data(), static_cast<std::size_t>(in.gcount()));
  return bytes;
}

inline std::unique_ptr<std::istream> openReply(Invokable& service, const std::string& method,
                                               std::shared_ptr<ExportedDataSource> request) {
  ReplyFuture future = start(service, method, std::move(request), {.waits = true});
  return await(future)->getImportedIstream();
}

// The whole reply.
inline std::string call(Invokable& service, const std::string& method, std::shared_ptr<ExportedDataSource> request) {
  return readAll(*openReply(service, method, std::move(request)));
}

inline std::string call(Invokable& service, const std::string& method, std::string request) {
  return call(service, method, sourceOf(std::move(request)));
}

// The form whose reply is only waited for.
inline void callWithBytes(Invokable& service, const std::string& method, std::string request) {
  auto promise = std::make_shared<std::promise<void>>();
  std::future<void> future = promise->get_future();
  service.invoke({}, method, promiseCompletingHandler<void>(std::move(promise), {.waits = true}),
                 GenericPayload(std::make_shared<std::string>(std::move(request))), 0);
  await(future);
}

}  // namespace agent::spf::core::testing
