// Message types that are loaded while the process runs.
#include <google/protobuf/any.pb.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/duration.pb.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/protobufencoding/testing/SchedulerAnyEncoder.h"
#include "platform/protobufencoding/testing/everything3.pb.h"
#include "platform/protobufencoding/testing/golden.h"
#include "platform/protobufencoding/testing/loadedDescriptors.h"
#include "platform/protobufencoding/testing/testTypes.h"

namespace parallel::protobufencoding::testing {
namespace {

using google::protobuf::FieldDescriptorProto;
using google::protobuf::FileDescriptorProto;
using google::protobuf::FileDescriptorSet;

// A file with one message that has one int32 field.
FileDescriptorProto file(const std::string& package, const std::string& message, const std::string& field) {
  FileDescriptorProto result;
  result.set_name(package + "/" + message + ".proto");
  result.set_package(package);
  result.set_syntax("proto3");
  auto* type = result.add_message_type();
  type->set_name(message);
  auto* number = type->add_field();
  number->set_name(field);
  number->set_number(1);
  number->set_type(FieldDescriptorProto::TYPE_INT32);
  number->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
  return result;
}

std::string setOf(const std::vector<FileDescriptorProto>& files) {
  FileDescriptorSet set;
  for (const auto& each : files)
    *set.add_file() = each;
  return set.SerializeAsString();
}

void expectRefused(const std::string& bytes, const std::string& reason) {
  try {
    loadDescriptorSet(bytes);
    ADD_FAILURE() << "loaded, but: " << reason;
  } catch (const Exception<::parallel::protobuf::DescriptorSetError>& error) {
    EXPECT_EQ(error.what(), "The descriptor set cannot be used: " + reason + ".");
  }
}

TEST(DescriptorSets, LoadedTypeIsFoundByNameAndByUrl) {
  loadDescriptorSet(loadedDescriptors());
  EXPECT_NE(generateMessageByName(kLoadedType), nullptr);
  EXPECT_NE(generateMessage(std::string("type.googleapis.com/") + kLoadedType), nullptr);
}

TEST(DescriptorSets, LoadedTypeGoesBothWays) {
  loadDescriptorSet(loadedDescriptors());
  expectGolden(StructOf(kLoadedType).with("number", scalar<std::int32_t>(5)).with("more", StructOf()), "08 05");
}

TEST(DescriptorSets, CompiledTypesComeFirst) {
  loadDescriptorSet(loadedDescriptors());
  EXPECT_EQ(generateMessageByName(typeName("Point"))->GetDescriptor(), Point::descriptor());
}

// The set has types of its own under the names of the well-known and the caller's Any types.
TEST(DescriptorSets, SpecialFormsAndTheCallersAnyWorkInLoadedTypes) {
  SchedulerAnyEncoder encoder;
  loadDescriptorSet(loadedDescriptors());
  auto parcel = structOf("Parcel").with("content", point(3, 0)).with("more", list());
  auto wellKnown = emptyWellKnown().with("duration", text("1s")).with("any", point(0, 0));
  auto everything = structOf("Everything")
                        .with("well_known", std::move(wellKnown))
                        .with("choices", emptyStructColumn({"MessageType"}))
                        .with("points", emptyStructColumn({"MessageType"}));
  const auto value = StructOf(kLoadedType)
                         .with("number", scalar<std::int32_t>(0))
                         .with("more", StructOf())
                         .with("everything", std::move(everything))
                         .with("parcel", std::move(parcel));
  const auto message = encode(value.get(), &encoder, 0);
  EXPECT_TRUE(qxEqual(decode(*message, &encoder).get(), value.get())) << print(decode(*message, &encoder).get());
  const auto parsed = newLoaded();
  ASSERT_TRUE(parsed->ParseFromString(message->SerializeAsString()));
  EXPECT_TRUE(qxEqual(decode(*parsed, &encoder).get(), value.get()));
}

TEST(DescriptorSets, LoadedTypeMayBeInsideACompiledAny) {
  SchedulerAnyEncoder encoder;
  loadDescriptorSet(loadedDescriptors());
  const auto value =
      structOf("Parcel")
          .with("content", StructOf(kLoadedType).with("number", scalar<std::int32_t>(5)).with("more", StructOf()))
          .with("more", list());
  const auto message = encode(value.get(), &encoder, 0);
  EXPECT_EQ(dynamic_cast<const Parcel&>(*message).content().type_url(),
            std::string("type.googleapis.com/") + kLoadedType);
  expectDecodes(*message, value.get(), &encoder);
}

TEST(DescriptorSets, TheSetLoadedLastWins) {
  loadDescriptorSet(setOf({file("last_wins", "M", "old_name")}));
  const auto old = generateMessageByName("last_wins.M");
  loadDescriptorSet(setOf({file("last_wins", "M", "new_name")}));
  expectGolden(StructOf("last_wins.M").with("new_name", scalar<std::int32_t>(5)), "08 05");
  expectDecodes(*old, StructOf("last_wins.M").with("old_name", scalar<std::int32_t>(0)).get());
  loadDescriptorSet(setOf({file("last_wins", "M", "old_name")}));
  expectGolden(StructOf("last_wins.M").with("old_name", scalar<std::int32_t>(5)), "08 05");
}

TEST(DescriptorSets, OrderOfTheFilesDoesNotMatter) {
  FileDescriptorProto first = file("any_order", "First", "a");
  FileDescriptorProto second = file("any_order", "Second", "b");
  first.add_dependency(second.name());
  loadDescriptorSet(setOf({first, second}));
  EXPECT_NE(generateMessageByName("any_order.First"), nullptr);
}

TEST(DescriptorSets, ImportsLeftOutAreTakenFromTheCompiledFiles) {
  FileDescriptorProto importing = file("left_out", "M", "a");
  importing.add_dependency("google/protobuf/duration.proto");
  auto* duration = importing.mutable_message_type(0)->add_field();
  duration->set_name("duration");
  duration->set_number(2);
  duration->set_type(FieldDescriptorProto::TYPE_MESSAGE);
  duration->set_type_name(".google.protobuf.Duration");
  duration->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
  loadDescriptorSet(setOf({importing}));
  expectGolden(StructOf("left_out.M").with("a", scalar<std::int32_t>(0)).with("duration", text("1s")), "12 02 08 01");
}

// Names are those of the schema, whatever JSON or C++ would make of them.
TEST(DescriptorSets, NamesThatCollideInJsonOrAreWordsOfCppAreKept) {
  FileDescriptorProto odd = file("odd_names", "class", "foo_bar");
  odd.set_syntax("proto2");
  for (const char* name : {"fooBar", "int", "operator", "FooBar", "_", "x_"}) {
    auto* field = odd.mutable_message_type(0)->add_field();
    *field = odd.message_type(0).field(0);
    field->set_name(name);
    field->set_number(odd.message_type(0).field_size());
  }
  odd.mutable_message_type(0)->mutable_field(0)->set_json_name("another name");
  loadDescriptorSet(setOf({odd}));
  StructOf value("odd_names.class");
  for (const char* name : {"foo_bar", "fooBar", "int", "operator", "FooBar", "_", "x_"})
    value = std::move(value).with(name, scalar<std::int32_t>(1));
  expectGolden(value, "08 01 10 01 18 01 20 01 28 01 30 01 38 01");
  EXPECT_THROW(encode(StructOf("odd_names.class").with("another name", scalar<std::int32_t>(1)).get(), nullptr, 0),
               Exception<::parallel::protobuf::EncodeError>);
}

// A set of a file that declares the message `type`, and of another with the message `package`.M that has the first one
// in its field `inside`, number 2.
std::string setWithFieldOf(const FileDescriptorProto& declaring, const std::string& package, const std::string& type) {
  FileDescriptorProto user = file(package, "M", "a");
  user.add_dependency(declaring.name());
  auto* inside = user.mutable_message_type(0)->add_field();
  inside->set_name("inside");
  inside->set_number(2);
  inside->set_type(FieldDescriptorProto::TYPE_MESSAGE);
  inside->set_type_name("." + type);
  inside->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
  return setOf({declaring, user});
}

// The same file in a language whose single fields have presence.
FileDescriptorProto inProto2(const FileDescriptorProto& original) {
  FileDescriptorProto result = original;
  result.set_syntax("proto2");
  return result;
}

TEST(DescriptorSets, WellKnownNameWithOtherFieldsIsAMessageLikeAnother) {
  const FileDescriptorProto fake = file("google.protobuf", "Timestamp", "year");
  loadDescriptorSet(setWithFieldOf(fake, "fake_time", "google.protobuf.Timestamp"));
  auto year = StructOf("google.protobuf.Timestamp").with("year", scalar<std::int32_t>(5));
  expectGolden(StructOf("fake_time.M").with("a", scalar<std::int32_t>(0)).with("inside", std::move(year)),
               "12 02 08 05");
}

TEST(DescriptorSets, WellKnownNameWhoseFieldsHavePresenceKeepsIt) {
  FileDescriptorProto duration;
  google::protobuf::Duration::descriptor()->file()->CopyTo(&duration);
  loadDescriptorSet(setWithFieldOf(inProto2(duration), "proto2_duration", "google.protobuf.Duration"));
  const auto holding = [](StructOf inside) {
    return StructOf("proto2_duration.M").with("a", scalar<std::int32_t>(0)).with("inside", std::move(inside));
  };
  expectGolden(holding(StructOf("google.protobuf.Duration")), "12 00");
  expectGolden(holding(StructOf("google.protobuf.Duration").with("seconds", scalar<std::int64_t>(0))), "12 02 08 00");
}

TEST(DescriptorSets, AnyWhoseFieldsHavePresenceIsAMessageLikeAnother) {
  FileDescriptorProto any;
  google::protobuf::Any::descriptor()->file()->CopyTo(&any);
  loadDescriptorSet(setWithFieldOf(inProto2(any), "proto2_any", "google.protobuf.Any"));
  auto inside = StructOf("google.protobuf.Any")
                    .with("type_url", text("type.googleapis.com/google.protobuf.Empty"))
                    .with("value", bytes(""));
  expectGolden(StructOf("proto2_any.M").with("a", scalar<std::int32_t>(0)).with("inside", std::move(inside)),
               "12 2d 0a 29 " + toHex("type.googleapis.com/google.protobuf.Empty") + " 12 00");
}

TEST(DescriptorSets, AnyWithAnotherFieldBesideIsAMessageLikeAnother) {
  FileDescriptorProto any;
  google::protobuf::Any::descriptor()->file()->CopyTo(&any);
  auto* third = any.mutable_message_type(0)->add_field();
  *third = file("p", "M", "third").message_type(0).field(0);
  third->set_number(3);
  loadDescriptorSet(setWithFieldOf(any, "third_any", "google.protobuf.Any"));
  auto inside = StructOf("google.protobuf.Any")
                    .with("type_url", text("type.googleapis.com/google.protobuf.Empty"))
                    .with("value", bytes(""))
                    .with("third", scalar<std::int32_t>(5));
  expectGolden(StructOf("third_any.M").with("a", scalar<std::int32_t>(0)).with("inside", std::move(inside)),
               "12 2d 0a 29 " + toHex("type.googleapis.com/google.protobuf.Empty") + " 18 05");
}

TEST(DescriptorSets, AnyMayNumberItsFieldsDifferently) {
  FileDescriptorProto any;
  google::protobuf::Any::descriptor()->file()->CopyTo(&any);
  for (auto& field : *any.mutable_message_type(0)->mutable_field())
    field.set_number(field.number() + 2);
  loadDescriptorSet(setWithFieldOf(any, "numbered_any", "google.protobuf.Any"));
  const std::string url = getTypeUrl(Point());
  expectGolden(StructOf("numbered_any.M").with("a", scalar<std::int32_t>(0)).with("inside", point(3, 0)),
               "12 " + toHex(std::string(1, static_cast<char>(url.size() + 6))) + " 1a " +
                   toHex(std::string(1, static_cast<char>(url.size()))) + " " + toHex(url) + " 22 02 08 03");
}

TEST(DescriptorSets, BadBytesAreRefused) {
  expectRefused("\x0a", "the bytes are not a FileDescriptorSet");
  expectRefused("", "it holds no files");
}

TEST(DescriptorSets, MissingImportIsNamed) {
  FileDescriptorProto lacking = file("lacking", "M", "a");
  lacking.add_dependency("not/there.proto");
  expectRefused(setOf({lacking}),
                "it lacks the imported file \"not/there.proto\" (protoc's --include_imports adds them)");
}

TEST(DescriptorSets, ImportsInACircleAreRefused) {
  FileDescriptorProto first = file("circle", "First", "a");
  FileDescriptorProto second = file("circle", "Second", "b");
  first.add_dependency(second.name());
  second.add_dependency(first.name());
  expectRefused(setOf({first, second}), "the file \"" + second.name() + "\" imports itself, or imports nest too deep");
}

TEST(DescriptorSets, FileThatOccursTwiceIsRefused) {
  const FileDescriptorProto twice = file("twice", "M", "a");
  expectRefused(setOf({twice, twice}), "it holds the file \"" + twice.name() + "\" twice");
}

TEST(DescriptorSets, RefusedSetAddsNothing) {
  FileDescriptorProto bad = file("half", "Bad", "a");
  bad.mutable_message_type(0)->mutable_field(0)->set_number(-1);
  EXPECT_THROW(loadDescriptorSet(setOf({file("half", "Good", "a"), bad})),
               Exception<::parallel::protobuf::DescriptorSetError>);
  EXPECT_EQ(generateMessageByName("half.Good"), nullptr);
}

TEST(DescriptorSets, TypesMayBeUsedWhileOthersAreLoaded) {
  loadDescriptorSet(loadedDescriptors());
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 20; ++i) {
        const std::string package = "threads_" + std::to_string(t) + "_" + std::to_string(i);
        loadDescriptorSet(setOf({file(package, "M", "a")}));
        expectGolden(StructOf(package + ".M").with("a", scalar<std::int32_t>(i + 1)),
                     toHex(std::string{'\x08', static_cast<char>(i + 1)}));
        expectGolden(StructOf(kLoadedType).with("number", scalar<std::int32_t>(5)).with("more", StructOf()), "08 05");
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
}

}  // namespace
}  // namespace parallel::protobufencoding::testing
