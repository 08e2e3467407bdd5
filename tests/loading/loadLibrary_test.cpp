// Loads the shared library as a host does, and uses it through the class system and its exported builtins alone.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/array/qxArray.h"
#include "platform/errors/IException.h"
#include "platform/tova/builtins.h"
#include "platform/tova/callMethod.h"
#include "platform/tova/introspection.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsSupersetOf;

constexpr const char* kCluster = "parallel.internal.cluster";
constexpr const char* kSerializable = "parallel.internal.cluster.SerializableData";
constexpr const char* kDeserializable = "parallel.internal.cluster.DeserializableData";
constexpr const char* kBuiltins = "parallel::spf::transport::protobuf::";

using Hook = void (*)();

class LoadedLibrary : public ::testing::Test {
 protected:
  // Loaded once and kept, as hosts do: registered classes live in the library's code.
  static void* library() {
    static void* const loaded = [] {
      const char* const path = std::getenv("ZKS_TRANSPORT_LIBRARY");
      EXPECT_FALSE(tova::hasClass(kSerializable));
      void* const handle = path ? dlopen(path, RTLD_NOW | RTLD_LOCAL) : nullptr;
      EXPECT_NE(handle, nullptr) << (path ? dlerror() : "ZKS_TRANSPORT_LIBRARY says where the library is");
      EXPECT_FALSE(tova::hasClass(kSerializable)) << "loading alone registers nothing";
      return handle;
    }();
    return loaded;
  }

  static void callHook(const char* name) {
    const auto hook = reinterpret_cast<Hook>(dlsym(library(), name));
    ASSERT_NE(hook, nullptr) << name;
    hook();
  }

  void SetUp() override {
    ASSERT_NE(library(), nullptr);
    callHook("TSInitialize_libcvparallelspftransport");
  }

  static tova::Builtin builtin(const std::string& name) { return tova::findBuiltin(library(), kBuiltins + name); }

  static qxArrayPtr run(const std::string& name, const qxArray* input) {
    qxArray* output = nullptr;
    const tova::Builtin found = builtin(name);
    EXPECT_NE(found, nullptr) << name;
    if (found != nullptr)
      found(1, &output, 1, &input);
    return qxArrayPtr(output);
  }
};

TEST_F(LoadedLibrary, ShowsItsClassesToAHostThatDoesNotKnowThem) {
  EXPECT_THAT(tova::listNamespaces(), IsSupersetOf({"parallel", "parallel.internal", kCluster, "tessel.mixin"}));
  EXPECT_THAT(tova::listClasses(kCluster), ElementsAre(kDeserializable, kSerializable));
  EXPECT_EQ(tova::describeClass(kSerializable).methods.size(), 4U);
  EXPECT_EQ(tova::describeClass(kDeserializable).methods.size(), 5U);
  EXPECT_TRUE(tova::isSubclass(kDeserializable, "tessel.mixin.Heterogeneous"));
}

TEST_F(LoadedLibrary, HooksMayBeCalledAgain) {
  callHook("TSTerminate_libcvparallelspftransport");
  callHook("TSInitialize_libcvparallelspftransport");
  callHook("TSTerminate_libcvparallelspftransport");
  EXPECT_EQ(tova::describeClass(kSerializable).registration, 1U);
  EXPECT_EQ(tova::describeClass(kDeserializable).registration, 1U);
}

TEST_F(LoadedLibrary, EveryStaticMethodMakesAHandleByIntrospectionAlone) {
  const qxArrayPtr value = qxCreateStringUtf8("data.bin");
  int called = 0;
  for (const std::string& name : tova::listClasses(kCluster)) {
    for (const tova::MethodDescription& method : tova::describeClass(name).methods) {
      if (!method.isStatic)
        continue;
      const std::vector<const qxArray*> inputs(method.inputs.size(), value.get());
      const auto outputs = tova::callStaticMethod(name, method.name, 0, inputs);
      ASSERT_EQ(outputs.size(), method.outputCount);
      EXPECT_TRUE(tova::isValidHandle(outputs[0].get())) << method.name;
      EXPECT_EQ(qxGetObjectClassName(outputs[0].get()), method.outputs[0]) << method.name;
      ++called;
    }
  }
  EXPECT_EQ(called, 4);
}

TEST_F(LoadedLibrary, ClassesWorkOnWhenTheHostClosesTheLibrary) {
  void* const again = dlopen(std::getenv("ZKS_TRANSPORT_LIBRARY"), RTLD_NOW | RTLD_LOCAL);
  ASSERT_EQ(again, library());
  dlclose(again);
  dlclose(again);  // the one that library() holds
  const qxArrayPtr value = qxCreateScalar(1);
  const qxArray* const inputs[] = {value.get()};
  EXPECT_EQ(tova::callStaticMethod(kSerializable, "createPlain", 1, inputs).size(), 1U);
  EXPECT_EQ(dlopen(std::getenv("ZKS_TRANSPORT_LIBRARY"), RTLD_NOW | RTLD_LOCAL), again);
}

TEST_F(LoadedLibrary, ErrorsCrossTheBorderIdentified) {
  try {
    tova::callStaticMethod(kSerializable, "createFile", 1, {});
    FAIL() << "nothing thrown";
  } catch (const IException& error) {
    EXPECT_EQ(error.identifier(), "host:classes:NotEnoughInputs");
  }
}

TEST_F(LoadedLibrary, BuiltinsAreFoundByName) {
  EXPECT_NE(builtin("bnSerializeProtobufStruct"), nullptr);
  EXPECT_NE(builtin("bnDeserializeTaskExecutionInfo"), nullptr);
  EXPECT_EQ(builtin("bnNoSuchThing"), nullptr);
}

TEST_F(LoadedLibrary, BuiltinsTurnAMessageToBytesAndBack) {
  const std::array<std::size_t, 2> none{0, 0};
  const qxArrayPtr nothing = qxCreateNumericArray(none, qxClass::Uint8);
  const qxArrayPtr defaults = run("bnDeserializeTaskExecutionInfo", nothing.get());
  ASSERT_NE(defaults, nullptr);
  ASSERT_EQ(qxGetClass(defaults.get()), qxClass::Struct);
  const qxArrayPtr bytes = run("bnSerializeProtobufStruct", defaults.get());
  ASSERT_NE(bytes, nullptr);
  EXPECT_EQ(qxGetClass(bytes.get()), qxClass::Uint8);
  const qxArrayPtr again = run("bnDeserializeTaskExecutionInfo", bytes.get());
  EXPECT_TRUE(qxEqual(again.get(), defaults.get()));
}

TEST_F(LoadedLibrary, BuiltinsCheckTheirCountsWithIdentifiedErrors) {
  qxArray* output = nullptr;
  try {
    builtin("bnSerializeProtobufStruct")(1, &output, 0, nullptr);
    FAIL() << "nothing thrown";
  } catch (const IException& error) {
    EXPECT_EQ(error.identifier(), "host:builtins:NotEnoughInputs");
  }
}

}  // namespace
