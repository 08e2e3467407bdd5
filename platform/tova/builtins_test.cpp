#include "platform/tova/builtins.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <memory>

#define EXPORTED __attribute__((visibility("default")))

EXPORTED void bnOutermost(int nlhs, qxArray** plhs, int nrhs, const qxArray** prhs);
void bnOutermost(int nlhs, qxArray** plhs, int nrhs, const qxArray** prhs) {
  plhs[0] = nrhs > 0 ? qxCreateSharedCopy(prhs[0]).release() : qxCreateScalar(nlhs).release();
}

namespace one {
EXPORTED void bnIn(int nlhs, qxArray** plhs, int nrhs, const qxArray** prhs);
void bnIn(int /*nlhs*/, qxArray** plhs, int /*nrhs*/, const qxArray** /*prhs*/) {
  plhs[0] = qxCreateScalar(1).release();
}
}  // namespace one

namespace one::two::three::four {
EXPORTED void bnDeepInside(int nlhs, qxArray** plhs, int nrhs, const qxArray** prhs);
void bnDeepInside(int /*nlhs*/, qxArray** plhs, int /*nrhs*/, const qxArray** /*prhs*/) {
  plhs[0] = qxCreateScalar(4).release();
}
}  // namespace one::two::three::four

namespace {

class Builtins : public ::testing::Test {
 protected:
  static double run(tova::Builtin builtin) {
    qxArray* output = nullptr;
    builtin(1, &output, 0, nullptr);
    const qxArrayPtr owned(output);
    return qxGetElements<double>(owned.get())[0];
  }

  struct Closer {
    void operator()(void* library) const { dlclose(library); }
  };
  std::unique_ptr<void, Closer> self{dlopen(nullptr, RTLD_NOW)};
};

TEST_F(Builtins, AreFoundByTheirNamesWhateverTheDepth) {
  for (const auto& [name, builtin] : {std::pair<const char*, tova::Builtin>{"bnOutermost", &bnOutermost},
                                      {"one::bnIn", &one::bnIn},
                                      {"one::two::three::four::bnDeepInside", &one::two::three::four::bnDeepInside}}) {
    const tova::Builtin found = tova::findBuiltin(self.get(), name);
    ASSERT_NE(found, nullptr) << name << " as " << tova::builtinSymbol(name);
    EXPECT_EQ(run(found), run(builtin));
  }
}

TEST_F(Builtins, MissingOnesAreNull) {
  EXPECT_EQ(tova::findBuiltin(self.get(), "one::bnMissing"), nullptr);
  EXPECT_EQ(tova::findBuiltin(self.get(), "bnIn"), nullptr);
  EXPECT_EQ(tova::findBuiltin(self.get(), ""), nullptr);
}

TEST(BuiltinSymbol, CountsWhatTheNameHasNamedBefore) {
  EXPECT_EQ(tova::builtinSymbol("bn"), "_Z2bniPP7qxArrayiPPKS_");
  EXPECT_EQ(tova::builtinSymbol("a::bn"), "_ZN1a2bnEiPP7qxArrayiPPKS0_");
  EXPECT_EQ(tova::builtinSymbol("a::b::bn"), "_ZN1a1b2bnEiPP7qxArrayiPPKS1_");
  std::string deep;
  for (int level = 0; level < 37; ++level)
    deep += "n::";
  EXPECT_TRUE(tova::builtinSymbol(deep + "bn").ends_with("iPP7qxArrayiPPKS10_"));
}

}  // namespace
