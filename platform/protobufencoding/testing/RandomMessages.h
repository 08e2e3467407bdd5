// Messages of any type, filled at random through reflection.
#pragma once

#include <google/protobuf/message.h>

#include <cstdint>
#include <random>
#include <string>

namespace parallel::protobufencoding::testing {

class RandomMessages {
 public:
  explicit RandomMessages(std::uint64_t seed) : engine_(seed) {}

  // Fills about half of the fields, a few levels deep, some extensions, and some fields that the type does not have.
  void fill(google::protobuf::Message& message, int levels);

 private:
  using Message = google::protobuf::Message;
  using FieldDescriptor = google::protobuf::FieldDescriptor;

  bool chance(int percent) { return below(100) < percent; }
  int below(int end) { return static_cast<int>(engine_() % static_cast<std::uint64_t>(end)); }
  std::uint64_t bits();  // often at the end of a range
  std::string someText();
  std::string someBytes();

  void fillField(Message& message, const FieldDescriptor* field, int levels);
  void set(Message& message, const FieldDescriptor* field, int levels);
  void add(Message& message, const FieldDescriptor* field, int levels);
  int enumNumber(const FieldDescriptor* field);
  std::string stringFor(const FieldDescriptor* field);
  void addUnknownFields(Message& message);
  bool fillWellKnown(Message& message, int levels);  // false: nothing special about it
  void fillAny(Message& any, int levels);

  std::mt19937_64 engine_;
};

}  // namespace parallel::protobufencoding::testing
