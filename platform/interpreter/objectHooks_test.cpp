#include "platform/interpreter/objectHooks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/array/testing/arbitraryArray.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

using interpreter::ObjectForm;
using interpreter::registerObjectForm;
using interpreter::unregisterObjectForm;
using testing::ElementsAre;
using testing::IsEmpty;
using Dimensions = std::vector<std::size_t>;

namespace {

// A native class whose saved value is its number.
struct Counter {
  explicit Counter(double start) : number(start) {}
  double number;
};

int numberOf(const qxArray* object) {
  return static_cast<int>(std::static_pointer_cast<Counter>(qxGetNative(object))->number);
}

ObjectForm counterForm(std::vector<int>* validated = nullptr) {
  ObjectForm form;
  form.save = [](const std::shared_ptr<void>& object) {
    return qxCreateScalar(std::static_pointer_cast<Counter>(object)->number);
  };
  form.load = [](const qxArray* saved) { return std::make_shared<Counter>(qxGetElements<double>(saved)[0]); };
  if (validated != nullptr) {
    form.validate = [validated](const std::shared_ptr<void>& object) {
      validated->push_back(static_cast<int>(std::static_pointer_cast<Counter>(object)->number));
    };
  }
  return form;
}

qxArrayPtr counter(double number) {
  return qxCreateObject("Counter", std::make_shared<Counter>(number));
}

// The saved form of a counter, made by hand.
qxArrayPtr savedCounter(double number) {
  qxArrayPtr saved = qxCreateStructArray({}, {});
  qxSetField(saved.get(), 0, "SavedClass", qxCreateString(u"Counter"));
  qxSetField(saved.get(), 0, "SavedValue", qxCreateScalar(number));
  return saved;
}

// {counter 1, struct(0).c = counter 2, unset, struct(1).c = {counter 3}} or the same with saved forms.
qxArrayPtr nested(qxArrayPtr (*make)(double)) {
  qxArrayPtr inner = qxCreateListArray({});
  qxSetListElement(inner.get(), 0, make(3));
  qxArrayPtr record = qxCreateStructArray(Dimensions{2}, {});
  qxSetField(record.get(), 0, "name", qxCreateString(u"first"));
  qxSetField(record.get(), 0, "c", make(2));
  qxSetField(record.get(), 1, "c", std::move(inner));
  qxArrayPtr list = qxCreateListArray(Dimensions{3});
  qxSetListElement(list.get(), 0, make(1));
  qxSetListElement(list.get(), 2, std::move(record));
  return list;
}

class ObjectHooks : public testing::Test {
 protected:
  ~ObjectHooks() override { unregisterObjectForm("Counter"); }
};

// The result of the save hook; an error of the test when it is the array itself.
qxArrayPtr savedAnew(const qxArrayPtr& array) {
  qxArray* saved = inRunSaveObjFunction(array.get());
  EXPECT_NE(saved, array.get());
  return qxArrayPtr(saved == array.get() ? nullptr : saved);
}

}  // namespace

// --- Saving ---

TEST_F(ObjectHooks, ArrayWithoutObjectsIsReturnedItself) {
  const qxArrayPtr array = nested(savedCounter);
  EXPECT_EQ(inRunSaveObjFunction(array.get()), array.get());
  const qxArrayPtr scalar = qxCreateScalar(1);
  EXPECT_EQ(inRunSaveObjFunction(scalar.get()), scalar.get());
}

RC_GTEST_PROP(ObjectHooksProperty, AnyArrayWithoutObjectsIsReturnedItselfAndUnchanged, ()) {
  const auto array = *array_testing::arbitraryArray();
  const qxArrayPtr before = qxCreateSharedCopy(array.get());
  const bool itself = inRunSaveObjFunction(array.get()) == array.get();
  RC_ASSERT(itself);
  inRunLoadObjFunction(array.get());
  inValidateLoadedObject(array.get());
  RC_ASSERT(qxEqual(before.get(), array.get()));
}

TEST_F(ObjectHooks, ObjectItselfBecomesItsSavedForm) {
  registerObjectForm("Counter", counterForm());
  const qxArrayPtr saved = savedAnew(counter(7));
  EXPECT_TRUE(qxEqual(saved.get(), savedCounter(7).get()));
  EXPECT_THAT(qxGetFieldNames(saved.get()), ElementsAre("SavedClass", "SavedValue"));
}

TEST_F(ObjectHooks, ObjectsAtEveryDepthBecomeSavedForms) {
  registerObjectForm("Counter", counterForm());
  EXPECT_TRUE(qxEqual(savedAnew(nested(counter)).get(), nested(savedCounter).get()));
}

TEST_F(ObjectHooks, SavingLeavesTheOriginalAsItWas) {
  registerObjectForm("Counter", counterForm());
  const qxArrayPtr array = nested(counter);
  const qxArrayPtr before = qxCreateSharedCopy(array.get());
  savedAnew(array);
  EXPECT_TRUE(qxEqual(array.get(), before.get()));
}

TEST_F(ObjectHooks, SavedArraySharesWhatHoldsNoObjects) {
  registerObjectForm("Counter", counterForm());
  const qxArrayPtr list = qxCreateListArray(Dimensions{2});
  qxSetListElement(list.get(), 0, qxCreateString(u"more than one element"));
  qxSetListElement(list.get(), 1, counter(1));
  const qxArrayPtr saved = savedAnew(list);
  EXPECT_EQ(qxGetData(qxGetListElement(saved.get(), 0)), qxGetData(qxGetListElement(list.get(), 0)));
}

TEST_F(ObjectHooks, UnregisteredClassThrowsCannotSaveWithClassAndPath) {
  const qxArrayPtr array = nested(counter);
  try {
    inRunSaveObjFunction(array.get());
    FAIL() << "nothing was thrown";
  } catch (const Exception<host::interpreter::CannotSave>& error) {
    EXPECT_STREQ(error.what(), "The value at {0} is an object of class Counter, which has not said how it is saved.");
  }
}

TEST_F(ObjectHooks, CannotSaveNamesPathsThroughStructs) {
  registerObjectForm("Counter", counterForm());
  const qxArrayPtr array = nested(counter);
  qxArrayPtr record = qxCreateSharedCopy(qxGetListElement(array.get(), 2));
  qxArrayPtr inner = qxCreateListArray({});
  qxSetListElement(inner.get(), 0, qxCreateObject("Stranger", nullptr));
  qxSetField(record.get(), 1, "c", std::move(inner));
  qxSetListElement(array.get(), 2, std::move(record));
  try {
    inRunSaveObjFunction(array.get());
    FAIL() << "nothing was thrown";
  } catch (const Exception<host::interpreter::CannotSave>& error) {
    EXPECT_THAT(error.what(), testing::StartsWith("The value at {2}(1).c{0} is an object of class Stranger,"));
  }
}

TEST_F(ObjectHooks, FormThatSavesNothingThrowsCannotSave) {
  registerObjectForm("Counter", ObjectForm{});
  EXPECT_THROW(inRunSaveObjFunction(counter(1).get()), Exception<host::interpreter::CannotSave>);
  ObjectForm form;
  form.save = [](const std::shared_ptr<void>&) { return qxArrayPtr(); };
  registerObjectForm("Counter", form);
  EXPECT_THROW(inRunSaveObjFunction(counter(1).get()), Exception<host::interpreter::CannotSave>);
}

TEST_F(ObjectHooks, WhatASaveFunctionThrowsPassesThrough) {
  ObjectForm form;
  form.save = [](const std::shared_ptr<void>&) -> qxArrayPtr { throw std::runtime_error("no power"); };
  registerObjectForm("Counter", form);
  const qxArrayPtr array = nested(counter);
  const qxArrayPtr before = qxCreateSharedCopy(array.get());
  EXPECT_THROW(inRunSaveObjFunction(array.get()), std::runtime_error);
  EXPECT_TRUE(qxEqual(array.get(), before.get()));
}

// --- Loading ---

TEST_F(ObjectHooks, SavedFormItselfBecomesTheObjectInPlace) {
  registerObjectForm("Counter", counterForm());
  const qxArrayPtr array = savedCounter(7);
  inRunLoadObjFunction(array.get());
  ASSERT_EQ(qxGetClass(array.get()), qxClass::Object);
  EXPECT_EQ(qxGetObjectClassName(array.get()), "Counter");
  EXPECT_EQ(numberOf(array.get()), 7);
}

TEST_F(ObjectHooks, SavedFormsAtEveryDepthBecomeObjects) {
  registerObjectForm("Counter", counterForm());
  const qxArrayPtr array = nested(savedCounter);
  inRunLoadObjFunction(array.get());
  const qxArray* record = qxGetListElement(array.get(), 2);
  EXPECT_EQ(numberOf(qxGetListElement(array.get(), 0)), 1);
  EXPECT_EQ(qxGetListElement(array.get(), 1), nullptr);
  EXPECT_EQ(numberOf(qxGetField(record, 0, "c")), 2);
  EXPECT_EQ(numberOf(qxGetListElement(qxGetField(record, 1, "c"), 0)), 3);
  EXPECT_EQ(qxGetString(qxGetField(record, 0, "name")), u"first");
}

TEST_F(ObjectHooks, LoadingOneShareLeavesTheOthers) {
  registerObjectForm("Counter", counterForm());
  const qxArrayPtr array = nested(savedCounter);
  const qxArrayPtr share = qxCreateSharedCopy(array.get());
  inRunLoadObjFunction(array.get());
  EXPECT_TRUE(qxEqual(share.get(), nested(savedCounter).get()));
}

TEST_F(ObjectHooks, SavingSerialisingAndLoadingGiveEqualObjects) {
  registerObjectForm("Counter", counterForm());
  const qxArrayPtr saved = savedAnew(nested(counter));
  const qxArrayPtr bytes(qxSerializeEx(saved.get(), qxSerializeDefaults));
  const qxArrayPtr back(qxDeserialize(qxGetData(bytes.get()), qxGetDataBytes(bytes.get())));
  ASSERT_NE(back, nullptr);
  inRunLoadObjFunction(back.get());
  EXPECT_EQ(numberOf(qxGetListElement(back.get(), 0)), 1);
}

TEST_F(ObjectHooks, UnregisteredSavedClassStaysAStruct) {
  const qxArrayPtr array = nested(savedCounter);
  inRunLoadObjFunction(array.get());
  EXPECT_TRUE(qxEqual(array.get(), nested(savedCounter).get()));
}

TEST_F(ObjectHooks, SavedFormInsideAnUnregisteredOneIsLoaded) {
  registerObjectForm("Counter", counterForm());
  const qxArrayPtr outer = qxCreateStructArray({}, {});
  qxSetField(outer.get(), 0, "SavedClass", qxCreateString(u"Stranger"));
  qxSetField(outer.get(), 0, "SavedValue", savedCounter(4));
  inRunLoadObjFunction(outer.get());
  EXPECT_EQ(qxGetClass(outer.get()), qxClass::Struct);
  EXPECT_EQ(numberOf(qxGetField(outer.get(), 0, "SavedValue")), 4);
}

TEST_F(ObjectHooks, StructsThatOnlyResembleASavedFormStay) {
  registerObjectForm("Counter", counterForm());
  const auto staysAsItIs = [](const qxArrayPtr& array) {
    const qxArrayPtr before = qxCreateSharedCopy(array.get());
    inRunLoadObjFunction(array.get());
    return qxEqual(array.get(), before.get());
  };
  const qxArrayPtr third = savedCounter(1);
  qxAddField(third.get(), "Note");
  EXPECT_TRUE(staysAsItIs(third));
  const qxArrayPtr noText = savedCounter(1);
  qxSetField(noText.get(), 0, "SavedClass", qxCreateScalar(1));
  EXPECT_TRUE(staysAsItIs(noText));
  const qxArrayPtr noValue = savedCounter(1);
  qxSetField(noValue.get(), 0, "SavedValue", nullptr);
  EXPECT_TRUE(staysAsItIs(noValue));
  const qxArrayPtr two = qxCreateStructArray(Dimensions{2}, {});
  qxSetField(two.get(), 0, "SavedClass", qxCreateString(u"Counter"));
  qxSetField(two.get(), 0, "SavedValue", qxCreateScalar(1));
  EXPECT_TRUE(staysAsItIs(two));
}

TEST_F(ObjectHooks, WhatALoadFunctionThrowsPassesThroughAndChangesNothing) {
  ObjectForm form = counterForm();
  form.load = [](const qxArray* saved) -> std::shared_ptr<void> {
    if (qxGetElements<double>(saved)[0] == 3)
      throw std::runtime_error("odd");
    return std::make_shared<Counter>(0);
  };
  registerObjectForm("Counter", form);
  const qxArrayPtr array = nested(savedCounter);
  EXPECT_THROW(inRunLoadObjFunction(array.get()), std::runtime_error);
  EXPECT_TRUE(qxEqual(array.get(), nested(savedCounter).get()));
}

// --- Validating ---

TEST_F(ObjectHooks, EveryObjectInsideIsValidated) {
  std::vector<int> validated;
  registerObjectForm("Counter", counterForm(&validated));
  inValidateLoadedObject(nested(counter).get());
  EXPECT_THAT(validated, ElementsAre(1, 2, 3));
  validated.clear();
  inValidateLoadedObject(counter(9).get());
  EXPECT_THAT(validated, ElementsAre(9));
}

TEST_F(ObjectHooks, FirstValidationThatThrowsEndsTheWalk) {
  std::vector<int> validated;
  ObjectForm form = counterForm();
  form.validate = [&validated](const std::shared_ptr<void>& object) {
    const double number = std::static_pointer_cast<Counter>(object)->number;
    if (number == 2)
      throw std::runtime_error("two is bad");
    validated.push_back(static_cast<int>(number));
  };
  registerObjectForm("Counter", form);
  EXPECT_THROW(inValidateLoadedObject(nested(counter).get()), std::runtime_error);
  EXPECT_THAT(validated, ElementsAre(1));
}

TEST_F(ObjectHooks, ClassesWithoutAValidateFunctionPass) {
  inValidateLoadedObject(nested(counter).get());
  registerObjectForm("Counter", counterForm());
  inValidateLoadedObject(nested(counter).get());
}

// --- Registering ---

TEST_F(ObjectHooks, RegisteringAgainReplacesTheForm) {
  std::vector<int> first;
  std::vector<int> second;
  registerObjectForm("Counter", counterForm(&first));
  registerObjectForm("Counter", counterForm(&second));
  inValidateLoadedObject(counter(1).get());
  EXPECT_THAT(first, IsEmpty());
  EXPECT_THAT(second, ElementsAre(1));
}

TEST_F(ObjectHooks, UnregisteringTwiceIsAccepted) {
  registerObjectForm("Counter", counterForm());
  unregisterObjectForm("Counter");
  unregisterObjectForm("Counter");
  EXPECT_THROW(inRunSaveObjFunction(counter(1).get()), Exception<host::interpreter::CannotSave>);
}

TEST_F(ObjectHooks, FormMayRegisterAndUnregisterWhileItRuns) {
  ObjectForm form = counterForm();
  form.save = [](const std::shared_ptr<void>& object) {
    registerObjectForm("Other", ObjectForm{});
    unregisterObjectForm("Other");
    unregisterObjectForm("Counter");
    return qxCreateScalar(std::static_pointer_cast<Counter>(object)->number);
  };
  registerObjectForm("Counter", form);
  EXPECT_TRUE(qxEqual(savedAnew(counter(5)).get(), savedCounter(5).get()));
}

TEST_F(ObjectHooks, FormsAreRegisteredAndUsedByManyThreadsAtOnce) {
  registerObjectForm("Counter", counterForm());
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([] {
      for (int i = 0; i < 200; ++i) {
        registerObjectForm("Counter", counterForm());
        const qxArrayPtr array = nested(counter);
        const qxArrayPtr saved(inRunSaveObjFunction(array.get()));
        inRunLoadObjFunction(saved.get());
        EXPECT_EQ(numberOf(qxGetListElement(saved.get(), 0)), 1);
      }
    });
  }
}

// --- Depth ---

namespace {

qxArrayPtr nestedDeeply(qxArrayPtr value) {
  for (int i = 0; i < 100000; ++i) {
    qxArrayPtr list = qxCreateListArray({});
    qxSetListElement(list.get(), 0, std::move(value));
    value = std::move(list);
  }
  return value;
}

}  // namespace

TEST_F(ObjectHooks, VeryDeepNestingNeedsNoRecursion) {
  std::vector<int> validated;
  registerObjectForm("Counter", counterForm(&validated));
  const qxArrayPtr plain = nestedDeeply(qxCreateScalar(1));
  EXPECT_EQ(inRunSaveObjFunction(plain.get()), plain.get());
  const qxArrayPtr saved = savedAnew(nestedDeeply(counter(6)));
  EXPECT_TRUE(qxEqual(saved.get(), nestedDeeply(savedCounter(6)).get()));
  inRunLoadObjFunction(saved.get());
  inValidateLoadedObject(saved.get());
  EXPECT_THAT(validated, ElementsAre(6));
}
