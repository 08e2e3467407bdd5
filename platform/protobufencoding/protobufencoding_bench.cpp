// Messages to structs beside protobuf's own parsing of the same bytes, and structs to messages beside its serialising.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "bench/measure.h"
#include "platform/protobufencoding/parseQuietly.h"
#include "platform/protobufencoding/protobufencoding.h"
#include "platform/protobufencoding/testing/measured.pb.h"

namespace {

using google::protobuf::Message;
using namespace parallel::protobufencoding;
using measured::Numbers;
using measured::Point;
using measured::Points;
using measured::Tree;
using measured::Wide;

double microsecondsOf(int times, const std::function<void()>& work) {
  return 1e6 / times * bench::secondsOf([&] {
           for (int i = 0; i < times; ++i)
             work();
         });
}

// A message type and the bytes of one or of many messages of it.
struct Case {
  std::string name;
  std::unique_ptr<Message> prototype;
  std::vector<std::string> messages;
  int times;  // how often a sample goes through all of them
};

// What the arrays of a struct cost alone: the floor under decode.
qxArrayPtr copyOf(const qxArray* array) {
  const qxClass cls = qxGetClass(array);
  const std::size_t count = qxGetNumberOfElements(array);
  if (cls == qxClass::Struct) {
    qxArrayPtr copy = qxCreateStructArray(qxGetDimensions(array), qxGetFieldNames(array));
    for (const std::string& name : qxGetFieldNames(array)) {
      for (std::size_t i = 0; i < count; ++i)
        qxSetField(copy.get(), i, name, copyOf(qxGetField(array, i, name)));
    }
    return copy;
  }
  if (cls == qxClass::List) {
    qxArrayPtr copy = qxCreateListArray(qxGetDimensions(array));
    for (std::size_t i = 0; i < count; ++i)
      qxSetListElement(copy.get(), i, copyOf(qxGetListElement(array, i)));
    return copy;
  }
  if (cls == qxClass::Text)
    return qxCreateSharedCopy(array);  // as decode does with the names of types
  qxArrayPtr copy = qxCreateUninitializedArray(qxGetDimensions(array), cls);
  if (count > 0)
    std::memcpy(qxGetWritableData(copy.get()), qxGetData(array), qxGetDataBytes(array));
  return copy;
}

void measure(const Case& subject) {
  std::vector<std::unique_ptr<Message>> parsed;
  std::vector<qxArrayPtr> structs;
  std::vector<qxArrayPtr> others;  // with tables of field names of their own, as a caller makes them
  for (const std::string& bytes : subject.messages) {
    parsed.emplace_back(subject.prototype->New());
    if (!parsed.back()->ParseFromString(bytes))
      std::abort();
    structs.push_back(decode(*parsed.back(), nullptr));
    others.push_back(copyOf(structs.back().get()));
  }
  const auto timed = [&](const std::function<void(std::size_t)>& one) {
    return microsecondsOf(subject.times, [&] {
      for (std::size_t i = 0; i < subject.messages.size(); ++i)
        one(i);
    });
  };
  const auto parse = [&] {
    return timed([&](std::size_t i) {
      const std::unique_ptr<Message> message(subject.prototype->New());
      static_cast<void>(message->ParseFromString(subject.messages[i]));
    });
  };
  const std::vector<bench::Contender> reading = {
      {"protobuf parse", parse},
      {"the same, quietly",
       [&] {
         return timed([&](std::size_t i) {
           const std::unique_ptr<Message> message(subject.prototype->New());
           parseQuietly(*message, subject.messages[i]);
         });
       }},
      {"decode", [&] { return timed([&](std::size_t i) { decode(*parsed[i], nullptr); }); }},
      {"the same arrays, copied", [&] { return timed([&](std::size_t i) { copyOf(structs[i].get()); }); }},
  };
  const std::vector<bench::Contender> writing = {
      {"protobuf serialise",
       [&] { return timed([&](std::size_t i) { static_cast<void>(parsed[i]->SerializeAsString()); }); }},
      {"encode", [&] { return timed([&](std::size_t i) { encode(structs[i].get(), nullptr, 0); }); }},
      {"encode, struct of a caller",
       [&] { return timed([&](std::size_t i) { encode(others[i].get(), nullptr, 0); }); }},
      {"protobuf parse", parse},
  };
  for (const auto& contenders : {reading, writing})
    bench::tableOf(subject.name, "us", contenders, bench::measureInterleaved(contenders, 7), 0, 1).print(std::cout);
}

std::string wide() {
  Wide message;
  message.mutable_plain()->set_a_double(1.5);
  message.mutable_plain()->set_a_int64(1LL << 40U);
  message.mutable_plain()->set_a_string("a text of middling length");
  Wide::Optional& optionals = *message.mutable_optionals();
  optionals.set_a_double(1.5);
  optionals.set_a_float(1.5F);
  optionals.set_a_int32(5);
  optionals.set_a_int64(5);
  optionals.set_a_uint32(5);
  optionals.set_a_uint64(5);
  optionals.set_a_sint32(5);
  optionals.set_a_sint64(5);
  optionals.set_a_bool(true);
  optionals.set_a_string("text");
  optionals.set_a_bytes("bytes");
  for (int i = 0; i < 20; ++i) {
    message.mutable_repeateds()->add_a_int32(i);
    message.mutable_repeateds()->add_a_string("text " + std::to_string(i));
  }
  message.set_number(5);
  return message.SerializeAsString();
}

std::string deep() {
  Tree root;
  Tree* tree = &root;
  for (int i = 0; i < 90; ++i) {
    tree->set_value(i + 1);
    tree = tree->mutable_child();
  }
  return root.SerializeAsString();
}

std::string bulk() {
  Numbers message;
  for (int i = 0; i < 10'000'000; ++i)
    message.add_values(i * 0.5);
  return message.SerializeAsString();
}

std::vector<std::string> small() {
  std::vector<std::string> messages;
  for (int i = 0; i < 10'000; ++i) {
    Point point;
    point.set_x(i);
    point.set_y(-i);
    messages.push_back(point.SerializeAsString());
  }
  return messages;
}

std::string smallTogether() {
  Points message;
  for (int i = 0; i < 10'000; ++i) {
    Point& point = *message.add_points();
    point.set_x(i);
    point.set_y(-i);
  }
  return message.SerializeAsString();
}

}  // namespace

int main() {
  measure({"a wide message (60 fields)", std::make_unique<Wide>(), {wide()}, 500});
  measure({"a deep message (90 levels)", std::make_unique<Tree>(), {deep()}, 200});
  measure({"one repeated double of 10 million", std::make_unique<Numbers>(), {bulk()}, 1});
  measure({"10000 small messages, one by one", std::make_unique<Point>(), small(), 1});
  measure({"10000 small messages in one", std::make_unique<Points>(), {smallTogether()}, 1});
}
