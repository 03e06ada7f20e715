// The callback classes by themselves: what they store, and which form takes what from storage.
#include "oxutils/callback.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "tests/support/kit_death.h"

using oxutils::CallbackBase;

namespace {

// What the last target got.
std::string got;

void take_none() { got = "none"; }
void take_one(int a) { got = std::to_string(a); }
void take_two(int a, std::string b) { got = std::to_string(a) + "," + b; }
void take_three(int a, std::string b, unsigned short c) {
  got = std::to_string(a) + "," + b + "," + std::to_string(c);
}

class Target {
 public:
  virtual ~Target() = default;
  void none() { got = name() + ":none"; }
  void one(int a) { got = name() + ":" + std::to_string(a); }
  void two(int a, std::string b) { got = name() + ":" + std::to_string(a) + "," + b; }
  void three(int a, std::string b, unsigned short c) {
    got = name() + ":" + std::to_string(a) + "," + b + "," + std::to_string(c);
  }
  virtual std::string name() const { return "base"; }
  virtual void announce(int a) { got = "base announces " + std::to_string(a); }
};

class Special : public Target {
 public:
  std::string name() const override { return "special"; }
  void announce(int a) override { got = "special announces " + std::to_string(a); }
};

using Two = oxutils::Callback2<int, std::string>;
using Three = oxutils::Callback3<int, std::string, unsigned short>;
using Method1 = oxutils::Method1Callback<Target, int>;
using Method2 = oxutils::Method2Callback<Target, int, std::string>;
using Method3 = oxutils::Method3Callback<Target, int, std::string, unsigned short>;

class Callbacks : public ::testing::Test {
 protected:
  Callbacks() { got = "nothing"; }
  const unsigned short seven_ = 7;
  Target target_;
};

TEST_F(Callbacks, ArePolymorphic) {
  EXPECT_TRUE(std::is_abstract_v<CallbackBase>);
  EXPECT_TRUE(std::has_virtual_destructor_v<CallbackBase>);
  EXPECT_TRUE((std::is_base_of_v<CallbackBase, oxutils::Callback0>));
  EXPECT_TRUE((std::is_base_of_v<CallbackBase, Three>));
}

TEST_F(Callbacks, MethodFormsDeriveFromTheFunctionForms) {
  EXPECT_TRUE((std::is_base_of_v<CallbackBase, oxutils::Method0Callback<Target>>));
  EXPECT_TRUE((std::is_base_of_v<oxutils::Callback1<int>, Method1>));
  EXPECT_TRUE((std::is_base_of_v<Two, Method2>));
  EXPECT_TRUE((std::is_base_of_v<Three, Method3>));
}

TEST_F(Callbacks, Callback0RunsItsFunction) {
  oxutils::Callback0 callback(take_none);
  callback.run();
  EXPECT_EQ(got, "none");
}

TEST_F(Callbacks, Callback0AcceptsANullFunction) {
  const oxutils::Callback0 callback(nullptr);
  EXPECT_EQ(got, "nothing");
}

TEST_F(Callbacks, Callback1RunsWithTheStoredValue) {
  oxutils::Callback1<int> callback(take_one, 5);
  callback.run();
  EXPECT_EQ(got, "5");
}

TEST_F(Callbacks, Callback1PrefersTheGivenValue) {
  oxutils::Callback1<int> callback(take_one, 5);
  callback.run(6);
  EXPECT_EQ(got, "6");
}

TEST_F(Callbacks, UnboundValuesAreDefaultConstructed) {
  oxutils::Callback1<int> one(take_one);
  one.run();
  EXPECT_EQ(got, "0");
  Two two(take_two);
  two.run();
  EXPECT_EQ(got, "0,");
  Three three(take_three);
  three.run();
  EXPECT_EQ(got, "0,,0");
}

TEST_F(Callbacks, Callback2TakesTheLeadingValueFromStorage) {
  Two callback(take_two, 1, "b");
  callback.run();
  EXPECT_EQ(got, "1,b");
  callback.run(std::string("y"));
  EXPECT_EQ(got, "1,y");
  callback.run(9, std::string("z"));
  EXPECT_EQ(got, "9,z");
}

TEST_F(Callbacks, Callback3TakesTheLeadingValuesFromStorage) {
  Three callback(take_three, 1, "b", seven_);
  callback.run();
  EXPECT_EQ(got, "1,b,7");
  callback.run(static_cast<unsigned short>(8));
  EXPECT_EQ(got, "1,b,8");
  callback.run(std::string("y"), static_cast<unsigned short>(9));
  EXPECT_EQ(got, "1,y,9");
  callback.run(2, std::string("z"), static_cast<unsigned short>(10));
  EXPECT_EQ(got, "2,z,10");
}

TEST_F(Callbacks, GivenValuesDoNotReplaceTheStoredOnes) {
  Three callback(take_three, 1, "b", seven_);
  callback.run(2, std::string("z"), static_cast<unsigned short>(10));
  callback.run();
  EXPECT_EQ(got, "1,b,7");
}

TEST_F(Callbacks, Method0RunsTheMethod) {
  oxutils::Method0Callback<Target> callback(&target_, &Target::none);
  callback.run();
  EXPECT_EQ(got, "base:none");
}

TEST_F(Callbacks, Method0TellsItsObject) {
  EXPECT_EQ(oxutils::Method0Callback<Target>(&target_, &Target::none).object(), &target_);
  EXPECT_EQ(oxutils::Callback0(take_none).object(), nullptr);
}

TEST_F(Callbacks, Method1HasEveryForm) {
  Method1 callback(&target_, &Target::one, 5);
  callback.run();
  EXPECT_EQ(got, "base:5");
  callback.run(6);
  EXPECT_EQ(got, "base:6");
}

TEST_F(Callbacks, Method2HasEveryForm) {
  Method2 callback(&target_, &Target::two, 1, "b");
  callback.run();
  EXPECT_EQ(got, "base:1,b");
  callback.run(std::string("y"));
  EXPECT_EQ(got, "base:1,y");
  callback.run(9, std::string("z"));
  EXPECT_EQ(got, "base:9,z");
}

TEST_F(Callbacks, Method3HasEveryForm) {
  Method3 callback(&target_, &Target::three, 1, "b", seven_);
  callback.run();
  EXPECT_EQ(got, "base:1,b,7");
  callback.run(static_cast<unsigned short>(8));
  EXPECT_EQ(got, "base:1,b,8");
  callback.run(std::string("y"), static_cast<unsigned short>(9));
  EXPECT_EQ(got, "base:1,y,9");
  callback.run(2, std::string("z"), static_cast<unsigned short>(10));
  EXPECT_EQ(got, "base:2,z,10");
}

TEST_F(Callbacks, MethodFormsDefaultConstructWhatIsNotBound) {
  Method3 callback(&target_, &Target::three);
  callback.run();
  EXPECT_EQ(got, "base:0,,0");
}

TEST_F(Callbacks, MethodFormsWorkThroughTheFunctionFormsInterface) {
  Method2 callback(&target_, &Target::two, 1, "b");
  Two& as_function_form = callback;
  as_function_form.run(std::string("y"));
  EXPECT_EQ(got, "base:1,y");
  CallbackBase& as_base = callback;
  as_base.run();
  EXPECT_EQ(got, "base:1,b");
}

TEST_F(Callbacks, VirtualMethodsAreHonoured) {
  Special special;
  Method1 callback(&special, &Target::announce, 3);
  callback.run();
  EXPECT_EQ(got, "special announces 3");
}

TEST_F(Callbacks, BaseDispatchesToTheFormWithAllArguments) {
  Three callback(take_three, 1, "b", seven_);
  CallbackBase& base = callback;
  base.run<int, std::string, unsigned short>(4, "q", 11);
  EXPECT_EQ(got, "4,q,11");
}

}  // namespace
